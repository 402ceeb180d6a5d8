// Keeps the update service's installation state machine in step with the software manager's state.
#include <mutex>

#include <fmt/format.h>

#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Rsc/RscString.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

namespace StatusCodes = Services::SoftwareUpdate::StatusCodes;
using Services::SoftwareUpdate::StatusCode;
using HostState = Services::SoftwareUpdate::Services::Internal::InstallationState;
using Internal::Security::SecurityNotifications;
using Lock = std::lock_guard<System::Commons::Threading::Mutex>;
using RscName = System::Rsc::RscString<512>;

namespace
{
constexpr std::uint32_t InProgressMask = 0x2A; // 1, 3, 5
constexpr std::uint32_t FailedMask = 0x54;     // 2, 4, 6

bool IsInClass(SoftwareUpdaterModule::ManagerInstallationState state, std::uint32_t mask) noexcept
{
    const auto value = static_cast<std::uint32_t>(state);
    return value < 7 && ((1u << value) & mask) != 0;
}

bool TextDiffers(const SoftwareUpdaterModule::SoftwareUpdateStatus& status, const String& message)
{
    return status.ErrorMessage.ToString() != message;
}
} // namespace

bool SoftwareUpdaterModule::IsManagerInProgress(ManagerInstallationState state) noexcept
{
    return IsInClass(state, InProgressMask);
}

bool SoftwareUpdaterModule::IsManagerFailed(ManagerInstallationState state) noexcept
{
    return IsInClass(state, FailedMask);
}

StatusCode SoftwareUpdaterModule::GetStatus(const String& name, SoftwareUpdateStatus& status) noexcept
{
    SoftwareComponentId id;
    if (!SoftwareComponentId::TryCreate(name, id))
    {
        return StatusCodes::BadInvalidArgument;
    }
    Lock lock(mutex);
    if (!updaterStatus->GetStatus(name, status))
    {
        return StatusCodes::BadInternalError;
    }
    return SyncStatus(id, status);
}

StatusCode SoftwareUpdaterModule::SyncStatus(const SoftwareComponentId& id, SoftwareUpdateStatus& status)
{
    const String& name = id.componentId;
    ManagerInstallationState managerState = ManagerInstallationState::Idle;
    String message;
    StatusCode result = GetManagerStatus(id, managerState, message);
    if (result != StatusCodes::Good)
    {
        return result;
    }

    switch (status.InstallationState)
    {
    case HostState::Idle:
        result = SyncFromIdleState(name, status, managerState, message);
        break;
    case HostState::Error:
        result = SyncFromErrorState(name, status, managerState, message);
        break;
    default:
        result = SyncFromInstallingState(id, status, managerState, message);
        break;
    }

    if (result == StatusCodes::Good)
    {
        if (status.InstallationState != HostState::Idle)
        {
            syncList.insert(name);
            StartStatusThread();
        }
        else
        {
            syncList.erase(name);
        }
    }
    return result;
}

StatusCode SoftwareUpdaterModule::GetManagerStatus(const SoftwareComponentId& id, ManagerInstallationState& state, String& message) const
{
    const RscName managerName(id.name);
    RscName text;
    const StatusCode result = softwareManagerService->GetInstallationState(id.kind, managerName, state, text);
    // The manager's answer also tells whether the component still exists.
    if (result == StatusCodes::BadNotFound || result == StatusCodes::BadInvalidArgument)
    {
        updaterStatus->RemoveComponent(id.componentId);
    }
    else
    {
        updaterStatus->AddComponent(id.componentId);
    }
    message = text.ToString();
    return result;
}

StatusCode SoftwareUpdaterModule::SyncFromIdleState(const String& name, SoftwareUpdateStatus& status, ManagerInstallationState state,
                                                    const String& message) const
{
    if (IsManagerFailed(state))
    {
        log.Log(7, "Sync status: Switch {} from Idle to Installing before Error", name);
        // A refused switch is fine when the record is already where the switch would have put it.
        const bool installing = updaterStatus->SwitchToInstalling(name, false) ||
                                (updaterStatus->GetStatus(name, status) && status.InstallationState == HostState::Installing);
        if (installing)
        {
            log.Log(7, "Sync status: Switch {} to Error", name);
            updaterStatus->SetUpdateStatus(name, message, false);
            updaterStatus->FinishInstallation(name, false);
        }
    }
    else if (IsManagerInProgress(state))
    {
        log.Log(7, "Sync status: Switch {} from Idle to Installing", name);
        if (updaterStatus->SwitchToInstalling(name, false))
        {
            updaterStatus->SetUpdateStatus(name, message, false);
        }
    }
    else if (TextDiffers(status, message))
    {
        updaterStatus->SetUpdateStatus(name, message, true);
    }
    return ReRead(name, status);
}

StatusCode SoftwareUpdaterModule::SyncFromErrorState(const String& name, SoftwareUpdateStatus& status, ManagerInstallationState state,
                                                     const String& message)
{
    // An Error after the module's own installation stays until the module acts again.
    if (IsInstalledByModule(name))
    {
        return StatusCodes::Good;
    }
    if (state == ManagerInstallationState::Idle)
    {
        log.Log(7, "Sync status: Switch {} from Error to Idle.", name);
        updaterStatus->ResetError(name);
        updaterStatus->SetUpdateStatus(name, message, true);
    }
    else if (IsManagerInProgress(state))
    {
        log.Log(7, "Sync status: Switch {} from Error to Idle before Installing.", name);
        const bool idle =
            updaterStatus->ResetError(name) || (updaterStatus->GetStatus(name, status) && status.InstallationState == HostState::Idle);
        if (idle)
        {
            log.Log(7, "Sync status: Switch {} to Installing.", name);
            if (updaterStatus->SwitchToInstalling(name, false))
            {
                updaterStatus->SetUpdateStatus(name, message, false);
            }
        }
    }
    else if (TextDiffers(status, message))
    {
        updaterStatus->SetUpdateStatus(name, message, false);
    }
    return ReRead(name, status);
}

StatusCode SoftwareUpdaterModule::SyncFromInstallingState(const SoftwareComponentId& id, SoftwareUpdateStatus& status,
                                                          ManagerInstallationState state, const String& message)
{
    const String& name = id.componentId;
    if (state == ManagerInstallationState::Idle)
    {
        if (!IsInstalledByModule(name))
        {
            SyncFromInstallingStateToIdle(name, message, false);
            return ReRead(name, status);
        }

        String targetRevision;
        const bool targetFound = updaterStatus->GetProperty(name, PropertyTargetSoftwareRevision, targetRevision);
        if (!targetFound)
        {
            targetRevision.clear();
        }
        SoftwareInformation information;
        const StatusCode result = ReadInformation(id, information);
        if (result != StatusCodes::Good)
        {
            return result;
        }

        const String currentRevision = information.CurrentManifest.Version.ToString();
        if (targetFound && information.HasCurrentManifest && currentRevision == targetRevision)
        {
            if (!isStateInitialized)
            {
                SecurityNotifications::SendInstallationSucceededNotification(id, targetRevision);
            }
            SyncFromInstallingStateToIdle(name, message, true);
        }
        else
        {
            log.Log(7, "Sync status: Switch {} from Installing to Error after installation.", name);
            const String reason = fmt::format("Expected version is {} but current version is {}.", targetRevision, currentRevision);
            log.Log(3, "{}", reason);
            updaterStatus->SetUpdateStatus(name, reason, false);
            updaterStatus->FinishInstallation(name, false);
            if (!isStateInitialized)
            {
                SecurityNotifications::SendInstallationFailedNotification(id, targetRevision, reason);
            }
        }
    }
    else if (IsManagerFailed(state))
    {
        log.Log(7, "Sync status: Switch {} from Installing to Error.", name);
        updaterStatus->SetUpdateStatus(name, message, false);
        updaterStatus->FinishInstallation(name, false);
    }
    else if (TextDiffers(status, message))
    {
        updaterStatus->SetUpdateStatus(name, message, false);
    }
    return ReRead(name, status);
}

void SoftwareUpdaterModule::SyncFromInstallingStateToIdle(const String& name, const String& message, bool afterInstallation) const
{
    if (afterInstallation)
    {
        log.Log(7, "Sync status: Switch {} from Installing to Idle after installation.", name);
        updaterStatus->RemoveProperty(name, PropertyInstallationStartedByModule);
    }
    else
    {
        log.Log(7, "Sync status: Switch {} from Installing to Idle.", name);
    }
    updaterStatus->FinishInstallation(name, true);
    updaterStatus->SetUpdateStatus(name, message, true);
}

void SoftwareUpdaterModule::InitializeState()
{
    Lock lock(mutex);
    for (const String& name : updaterStatus->GetComponentNames())
    {
        SoftwareUpdateStatus status;
        GetStatus(name, status);
    }
    isStateInitialized = true;
}

StatusCode SoftwareUpdaterModule::ReRead(const String& name, SoftwareUpdateStatus& status) const
{
    return updaterStatus->GetStatus(name, status) ? StatusCodes::Good : StatusCodes::BadUnexpectedError;
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
