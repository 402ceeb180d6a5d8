#include "Zun/Testing/InProcessServiceProvider.hpp"

#include <utility>

#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"

namespace Zun::Testing
{

namespace
{
namespace Sm = Services::SoftwareManager::Services::Internal;

// What the lookup hands out: an object that the caller owns and deletes, like a remote proxy,
// while the service behind it stays shared with the test.
class ForwardingService final : public Sm::ISoftwareManagerService
{
public:
    explicit ForwardingService(std::shared_ptr<Sm::ISoftwareManagerService> target) : target(std::move(target)) {}

    std::vector<Sm::SoftwareInformation> GetAllSoftwareInformation() override { return target->GetAllSoftwareInformation(); }
    ServiceStatusCode GetSoftwareInformation(Sm::SoftwareKind kind, const Name& name, Sm::SoftwareInformation& information) override
    {
        return target->GetSoftwareInformation(kind, name, information);
    }
    ServiceStatusCode GetInstallationState(Sm::SoftwareKind kind, const Name& name, Sm::InstallationState& state,
                                           System::Rsc::RscString<512>& message) override
    {
        return target->GetInstallationState(kind, name, state, message);
    }
    ServiceStatusCode SetSoftwarePackage(Sm::SoftwareKind kind, const Name& name, const System::Rsc::RscString<512>& package,
                                         System::Rsc::RscString<512>& message) override
    {
        return target->SetSoftwarePackage(kind, name, package, message);
    }
    ServiceStatusCode RemoveSoftwarePackage(Sm::SoftwareKind kind, const Name& name) override
    {
        return target->RemoveSoftwarePackage(kind, name);
    }
    ServiceStatusCode GetPackageDirectory(System::Rsc::RscString<512>& directory) override
    {
        return target->GetPackageDirectory(directory);
    }
    ServiceStatusCode StartInstallation(Sm::SoftwareKind kind, const Name& name) override
    {
        return target->StartInstallation(kind, name);
    }
    ServiceStatusCode ResumeInstallation(Sm::SoftwareKind kind, const Name& name) override
    {
        return target->ResumeInstallation(kind, name);
    }

private:
    std::shared_ptr<Sm::ISoftwareManagerService> target;
};
} // namespace

InProcessServiceProvider::InProcessServiceProvider(std::shared_ptr<Sm::ISoftwareManagerService> service) : service(std::move(service))
{
}

System::Rsc::IRscService* InProcessServiceProvider::GetService(System::Rsc::IRscServiceProxyFactory& proxyFactory)
{
    // Only the software manager lives here; a lookup for another interface finds nothing, as it
    // would at a provider that does not offer it.
    if (service == nullptr || proxyFactory.GetServiceInterfaceName() != Sm::SoftwareManagerServiceProxyFactory::InterfaceName)
    {
        return nullptr;
    }
    return new ForwardingService(service);
}

InProcessServiceProvider::Registration::Registration(const String& providerName, std::shared_ptr<Sm::ISoftwareManagerService> service)
    : providerName(providerName)
{
    System::Rsc::ServiceManager::RegisterProvider(providerName, std::make_shared<InProcessServiceProvider>(std::move(service)));
}

InProcessServiceProvider::Registration::~Registration()
{
    System::Rsc::ServiceManager::UnregisterProvider(providerName);
}

} // namespace Zun::Testing
