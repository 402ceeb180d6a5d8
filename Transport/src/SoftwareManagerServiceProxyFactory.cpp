#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"

#include "Zun/SoftwareManager/SoftwareManagerServiceProxy.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

SoftwareManagerServiceProxyFactory& SoftwareManagerServiceProxyFactory::GetInstance()
{
    static SoftwareManagerServiceProxyFactory instance;
    return instance;
}

String SoftwareManagerServiceProxyFactory::GetServiceInterfaceName() const
{
    return String(InterfaceName);
}

System::Rsc::IRscService* SoftwareManagerServiceProxyFactory::CreateProxy(const System::Rsc::RscEndpoint& endpoint)
{
    return new SoftwareManagerServiceProxy(endpoint);
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
