// Client side of the software manager service: each operation becomes one request frame and one
// response frame over a Unix domain socket. Safe for concurrent callers; never throws out of an
// operation that returns a status code.
#pragma once

#include <cstdint>
#include <memory>
#include <vector>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscServiceProxyFactory.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

class ZUN_EXPORT SoftwareManagerServiceProxy : public ISoftwareManagerService
{
public:
    explicit SoftwareManagerServiceProxy(System::Rsc::RscEndpoint endpoint);
    ~SoftwareManagerServiceProxy() override;
    SoftwareManagerServiceProxy(const SoftwareManagerServiceProxy&) = delete;
    SoftwareManagerServiceProxy& operator=(const SoftwareManagerServiceProxy&) = delete;

    // Throws InvalidOperationException when the service cannot be reached or answers with a fault.
    std::vector<SoftwareInformation> GetAllSoftwareInformation() override;
    ServiceStatusCode GetSoftwareInformation(SoftwareKind kind, const Name& name, SoftwareInformation& information) override;
    ServiceStatusCode GetInstallationState(SoftwareKind kind, const Name& name, InstallationState& state,
                                           System::Rsc::RscString<512>& message) override;
    ServiceStatusCode SetSoftwarePackage(SoftwareKind kind, const Name& name, const System::Rsc::RscString<512>& package,
                                         System::Rsc::RscString<512>& message) override;
    ServiceStatusCode RemoveSoftwarePackage(SoftwareKind kind, const Name& name) override;
    ServiceStatusCode GetPackageDirectory(System::Rsc::RscString<512>& directory) override;
    ServiceStatusCode StartInstallation(SoftwareKind kind, const Name& name) override;
    ServiceStatusCode ResumeInstallation(SoftwareKind kind, const Name& name) override;

    const System::Rsc::RscEndpoint& GetEndpoint() const noexcept;

private:
    struct Impl;
    std::unique_ptr<Impl> impl;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal
