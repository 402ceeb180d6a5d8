#include "Zun/Testing/ModuleEnvironment.hpp"

#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/INotificationManager.hpp"

namespace Zun::Testing
{

ModuleEnvironment::ModuleEnvironment() : previousDomain(Singleton<AppDomain>::pInstance)
{
    manager->DelegateTo(*managerFake);
    status->DelegateTo(*statusFake);
    appDomain.SetSingleton<System::Nm::INotificationManager>(&notifications);
    Singleton<AppDomain>::pInstance = &appDomain;
    provider = std::make_unique<InProcessServiceProvider::Registration>("Zun", manager);
}

ModuleEnvironment::~ModuleEnvironment()
{
    provider.reset();
    Singleton<AppDomain>::pInstance = previousDomain;
}

} // namespace Zun::Testing
