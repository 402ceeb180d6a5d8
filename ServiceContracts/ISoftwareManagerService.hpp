// The software manager service as the updater module calls it (proxy or in-process object).
#pragma once

#include <cstdint>
#include <vector>

#include "ServiceContracts/SoftwareInformation.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscService.hpp"
#include "Zun/Rsc/RscString.hpp"
#include "Zun/SoftwareManager/InstallationState.hpp"
#include "Zun/SoftwareManager/SoftwareKind.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

using ServiceStatusCode = std::uint32_t;

class ZUN_EXPORT ISoftwareManagerService : public System::Rsc::IRscService
{
public:
    using Name = System::Rsc::RscString<512>;
    using ServiceStatusCode = Internal::ServiceStatusCode;

    ~ISoftwareManagerService() override;

    // One record for every known component; no status code, failures are exceptions.
    virtual std::vector<SoftwareInformation> GetAllSoftwareInformation() = 0;
    virtual ServiceStatusCode GetSoftwareInformation(SoftwareKind kind, const Name& name, SoftwareInformation& information) = 0;
    virtual ServiceStatusCode GetInstallationState(SoftwareKind kind, const Name& name, InstallationState& state,
                                                   System::Rsc::RscString<512>& message) = 0;
    virtual ServiceStatusCode SetSoftwarePackage(SoftwareKind kind, const Name& name, const System::Rsc::RscString<512>& package,
                                                 System::Rsc::RscString<512>& message) = 0;
    // Drops the pending package. The updater module does not call it.
    virtual ServiceStatusCode RemoveSoftwarePackage(SoftwareKind kind, const Name& name);
    // The folder from which SetSoftwarePackage takes package files. The updater module does not call it.
    virtual ServiceStatusCode GetPackageDirectory(System::Rsc::RscString<512>& directory);
    virtual ServiceStatusCode StartInstallation(SoftwareKind kind, const Name& name) = 0;
    virtual ServiceStatusCode ResumeInstallation(SoftwareKind kind, const Name& name) = 0;
};

} // namespace Zun::Services::SoftwareManager::Services::Internal
