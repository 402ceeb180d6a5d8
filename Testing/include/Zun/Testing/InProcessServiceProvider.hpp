// Provides a software manager that lives in the test process under a provider name, the way the
// service manager would provide a remote one: each lookup returns a new forwarding proxy.
#pragma once

#include <memory>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Rsc/IServiceProvider.hpp"

namespace Zun::Testing
{

class InProcessServiceProvider : public System::Rsc::IServiceProvider
{
public:
    explicit InProcessServiceProvider(std::shared_ptr<Services::SoftwareManager::Services::Internal::ISoftwareManagerService> service);
    System::Rsc::IRscService* GetService(System::Rsc::IRscServiceProxyFactory& proxyFactory) override;

    // Registers a provider for `service` under `providerName` for the scope of the object.
    class Registration
    {
    public:
        Registration(const String& providerName,
                     std::shared_ptr<Services::SoftwareManager::Services::Internal::ISoftwareManagerService> service);
        ~Registration();
        Registration(const Registration&) = delete;
        Registration& operator=(const Registration&) = delete;

    private:
        String providerName;
    };

private:
    std::shared_ptr<Services::SoftwareManager::Services::Internal::ISoftwareManagerService> service;
};

} // namespace Zun::Testing
