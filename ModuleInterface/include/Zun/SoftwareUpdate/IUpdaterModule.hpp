// An updater module: what the update service asks of the plug-in for each software component.
#pragma once

#include <memory>
#include <vector>

#include "ServiceContracts/IUpdaterStatus.hpp"
#include "ServiceContracts/SoftwareUpdateStatus.hpp"
#include "ServiceContracts/SoftwareVersionType.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/SecureString.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/SoftwareUpdate/SoftwareVersionFileType.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"
#include "Zun/SoftwareUpdate/UpdateBehavior.hpp"

namespace Zun::Services::SoftwareUpdate
{

class ZUN_EXPORT IUpdaterModule
{
public:
    using SoftwareVersionType = Services::Internal::SoftwareVersionType;
    using SoftwareUpdateStatus = Services::Internal::SoftwareUpdateStatus;
    using SoftwareVersionFileType = Services::Internal::SoftwareVersionFileType;
    using UpdateBehavior = Services::Internal::UpdateBehavior;

    virtual ~IUpdaterModule();

    virtual void Initialize(const String& name, std::shared_ptr<IUpdaterStatus> updaterStatus) = 0;
    virtual StatusCode GetUpdateBehavior(const String& name, const String& manufacturerUri, const String& softwareRevision,
                                         const std::vector<String>& patchIdentifiers, UpdateBehavior& behavior) noexcept = 0;
    virtual StatusCode GetSoftwareVersion(const String& name, SoftwareVersionFileType fileType, SoftwareVersionType& version) noexcept = 0;
    virtual StatusCode SetSoftwarePackage(const String& name, SoftwareVersionFileType fileType, const String& package,
                                          String& message) noexcept = 0;
    virtual StatusCode GetSoftwarePackage(const String& name, SoftwareVersionFileType fileType, const String& package) noexcept = 0;
    virtual StatusCode InstallSoftwarePackage(const String& name, const SoftwareVersionType& version, long long installationDelay) noexcept = 0;
    virtual StatusCode GetStatus(const String& name, SoftwareUpdateStatus& status) noexcept = 0;
    virtual StatusCode ResumeInstall(const String& name) noexcept = 0;
    virtual StatusCode SetUpdateKey(const String& name, const SecureString<512>& key) noexcept = 0;
    virtual StatusCode RevertInstall(const String& name) noexcept = 0;
};

} // namespace Zun::Services::SoftwareUpdate
