#include "Zun/Testing/ModuleEnvironment.hpp"

#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/INotificationManager.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"

namespace Zun::Testing
{

namespace
{
namespace Sm = Services::SoftwareManager::Services::Internal;
using RscText = System::Rsc::RscString<512>;
const char* const ProviderName = "Zun";

// What a lookup hands out: an object that the caller owns and deletes, like a remote proxy, while
// the service behind it stays shared with the test.
class ForwardingService final : public Sm::ISoftwareManagerService
{
public:
    explicit ForwardingService(std::shared_ptr<Sm::ISoftwareManagerService> target) : target(std::move(target)) {}

    std::vector<Sm::SoftwareInformation> GetAllSoftwareInformation() override { return target->GetAllSoftwareInformation(); }
    ServiceStatusCode GetSoftwareInformation(Sm::SoftwareKind kind, const Name& name, Sm::SoftwareInformation& information) override
    {
        return target->GetSoftwareInformation(kind, name, information);
    }
    ServiceStatusCode GetInstallationState(Sm::SoftwareKind kind, const Name& name, Sm::InstallationState& state, RscText& message) override
    {
        return target->GetInstallationState(kind, name, state, message);
    }
    ServiceStatusCode SetSoftwarePackage(Sm::SoftwareKind kind, const Name& name, const RscText& package, RscText& message) override
    {
        return target->SetSoftwarePackage(kind, name, package, message);
    }
    ServiceStatusCode StartInstallation(Sm::SoftwareKind kind, const Name& name) override { return target->StartInstallation(kind, name); }
    ServiceStatusCode ResumeInstallation(Sm::SoftwareKind kind, const Name& name) override
    {
        return target->ResumeInstallation(kind, name);
    }

private:
    std::shared_ptr<Sm::ISoftwareManagerService> target;
};

// Provides the software manager only, as a provider that offers nothing else would.
class Provider : public System::Rsc::IServiceProvider
{
public:
    explicit Provider(std::shared_ptr<Sm::ISoftwareManagerService> service) : service(std::move(service)) {}

    System::Rsc::IRscService* GetService(System::Rsc::IRscServiceProxyFactory& proxyFactory) override
    {
        const bool offered = proxyFactory.GetServiceInterfaceName() == Sm::SoftwareManagerServiceProxyFactory::InterfaceName;
        return offered ? new ForwardingService(service) : nullptr;
    }

private:
    std::shared_ptr<Sm::ISoftwareManagerService> service;
};
} // namespace

ModuleEnvironment::ModuleEnvironment() : previousDomain(Singleton<AppDomain>::pInstance)
{
    appDomain.SetSingleton<System::Nm::INotificationManager>(&notifications);
    Singleton<AppDomain>::pInstance = &appDomain;
    System::Rsc::ServiceManager::RegisterProvider(ProviderName, std::make_shared<Provider>(manager));
}

ModuleEnvironment::~ModuleEnvironment()
{
    System::Rsc::ServiceManager::UnregisterProvider(ProviderName);
    Singleton<AppDomain>::pInstance = previousDomain;
}

} // namespace Zun::Testing
