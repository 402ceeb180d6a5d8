// Staging a package with the software manager, and starting, resuming or refusing its installation.
#include <mutex>

#include "SoftwareUpdater/Internal/EnumText.hpp"
#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

namespace StatusCodes = Services::SoftwareUpdate::StatusCodes;
using Services::SoftwareUpdate::StatusCode;
using HostState = Services::SoftwareUpdate::Services::Internal::InstallationState;
using Lock = std::lock_guard<System::Commons::Threading::Mutex>;
using RscName = System::Rsc::RscString<512>;

namespace
{
constexpr std::uint32_t NeedsPreparationBit = 0x10;
const char* const SwitchRefusedText = "Failed to switch installation state to Installing.";
} // namespace

StatusCode SoftwareUpdaterModule::SetSoftwarePackage(const String& name, SoftwareVersionFileType fileType, const String& package,
                                                     String& message) noexcept
{
    SoftwareComponentId id;
    if (!SoftwareComponentId::TryCreate(name, id))
    {
        return StatusCodes::BadInvalidArgument;
    }
    if (fileType != SoftwareVersionFileType::Pending)
    {
        message = "Only pending type is supported!";
        return StatusCodes::BadNotSupported;
    }
    log.Log(7, "SetSoftwarePackage");
    RscName managerMessage;
    const StatusCode result = softwareManagerService->SetSoftwarePackage(id.kind, RscName(id.name), RscName(package), managerMessage);
    message = managerMessage.ToString();
    if (result != StatusCodes::Good)
    {
        // Bring the update service's record in step with whatever the manager now reports.
        SoftwareUpdateStatus status;
        GetStatus(name, status);
    }
    return result;
}

StatusCode SoftwareUpdaterModule::InstallSoftwarePackage(const String& name, const SoftwareVersionType& version,
                                                         long long installationDelay) noexcept
{
    SoftwareComponentId id;
    SoftwareInformation information;
    StatusCode result = ParseAndReadInformation(name, id, information);
    if (result != StatusCodes::Good)
    {
        return result;
    }

    Lock lock(mutex);
    SoftwareUpdateStatus status;
    result = GetStatus(name, status);
    if (result != StatusCodes::Good)
    {
        return result;
    }
    if (status.InstallationState != HostState::Idle)
    {
        log.Log(7, "Invalid state {0}", Internal::StreamedEnumText<HostState>{status.InstallationState});
        return StatusCodes::BadInvalidState;
    }
    result = IsPendingVersionAvailable(information, version);
    if (result != StatusCodes::Good)
    {
        return result;
    }

    const bool needsPreparation = (information.PendingManifest.UpdateBehavior & NeedsPreparationBit) != 0;
    if (!updaterStatus->SwitchToInstalling(name, needsPreparation))
    {
        updaterStatus->SetUpdateStatus(name, SwitchRefusedText, true);
        log.Log(3, "{}", SwitchRefusedText);
        return StatusCodes::BadUnexpectedError;
    }
    updaterStatus->SetProperty(name, PropertyTargetSoftwareRevision, version.SoftwareRevision.ToString(), true);
    updaterStatus->SetProperty(name, PropertyInstallationStartedByModule, "true", true);
    log.Log(7, "InstallSoftwarePackage");

    result = InstallSoftwarePackage(id, installationDelay);
    if (result == StatusCodes::Good)
    {
        syncList.insert(name);
        StartStatusThread();
        return StatusCodes::Good;
    }
    updaterStatus->RemoveProperty(name, PropertyInstallationStartedByModule);
    updaterStatus->FinishInstallation(name, false);
    GetStatus(name, status);
    return result;
}

StatusCode SoftwareUpdaterModule::InstallSoftwarePackage(const SoftwareComponentId& id, long long installationDelay)
{
    if (installationDelay >= 1)
    {
        log.Log(5, "InstallationDelay is not supported.");
        return StatusCodes::BadNotSupported;
    }
    return InstallSoftwarePackage(id);
}

StatusCode SoftwareUpdaterModule::InstallSoftwarePackage(const SoftwareComponentId& id)
{
    SoftwareInformation information;
    const StatusCode result = ReadInformation(id, information);
    if (result != StatusCodes::Good)
    {
        return result;
    }
    String targetRevision;
    if (!updaterStatus->GetProperty(id.componentId, PropertyTargetSoftwareRevision, targetRevision))
    {
        targetRevision.clear();
        return ReportRevisionMismatch(information, targetRevision);
    }
    // Read afresh, so that a package replaced since the checks is caught here.
    if (information.PendingManifest.Version.ToString() != targetRevision)
    {
        return ReportRevisionMismatch(information, targetRevision);
    }
    return softwareManagerService->StartInstallation(id.kind, RscName(id.name));
}

StatusCode SoftwareUpdaterModule::ReportRevisionMismatch(const SoftwareInformation& information, const String& targetRevision) const
{
    log.Log(3, "SoftwareRevision mismatch. Pending version is {} but requested {}", information.PendingManifest.Version, targetRevision);
    return StatusCodes::BadNotFound;
}

StatusCode SoftwareUpdaterModule::ResumeInstall(const String& name) noexcept
{
    SoftwareComponentId id;
    if (!SoftwareComponentId::TryCreate(name, id))
    {
        return StatusCodes::BadInvalidArgument;
    }
    Lock lock(mutex);
    SoftwareUpdateStatus status;
    StatusCode result = GetStatus(name, status);
    if (result != StatusCodes::Good)
    {
        return result;
    }
    if (status.InstallationState != HostState::Error)
    {
        return StatusCodes::BadInvalidState;
    }
    ManagerInstallationState managerState = ManagerInstallationState::Idle;
    RscName managerMessage;
    result = softwareManagerService->GetInstallationState(id.kind, RscName(id.name), managerState, managerMessage);
    if (result != StatusCodes::Good)
    {
        return result;
    }
    log.Log(7, "Resume");
    // A resumed installation no longer counts as started by the module.
    updaterStatus->RemoveProperty(name, PropertyInstallationStartedByModule);
    if (IsManagerFailed(managerState))
    {
        result = softwareManagerService->ResumeInstallation(id.kind, RscName(id.name));
        if (result != StatusCodes::Good)
        {
            GetStatus(name, status);
            return result;
        }
    }
    return updaterStatus->ResetError(name) ? StatusCodes::Good : StatusCodes::BadUnexpectedError;
}

StatusCode SoftwareUpdaterModule::RevertInstall(const String& /*name*/) noexcept
{
    return StatusCodes::BadNotSupported;
}

StatusCode SoftwareUpdaterModule::SetUpdateKey(const String& /*name*/, const SecureString<512>& /*key*/) noexcept
{
    return StatusCodes::BadNotSupported;
}

StatusCode SoftwareUpdaterModule::GetSoftwarePackage(const String& /*name*/, SoftwareVersionFileType /*fileType*/,
                                                     const String& /*package*/) noexcept
{
    return StatusCodes::BadNotSupported;
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
