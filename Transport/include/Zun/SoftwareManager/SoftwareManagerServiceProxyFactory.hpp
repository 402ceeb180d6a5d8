// Makes proxies of the software manager service for an endpoint.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscServiceProxyFactory.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

class ZUN_EXPORT SoftwareManagerServiceProxyFactory : public System::Rsc::IRscServiceProxyFactory
{
public:
    static constexpr const char* InterfaceName = "Zun.Services.SoftwareManager.Services.Internal.ISoftwareManagerService";

    static SoftwareManagerServiceProxyFactory& GetInstance();

    String GetServiceInterfaceName() const override;
    System::Rsc::IRscService* CreateProxy(const System::Rsc::RscEndpoint& endpoint) override;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal
