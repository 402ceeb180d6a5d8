// The updater module for the components of the software manager: versions, staging, installation,
// and the status thread that keeps the update service's installation states in step.
#pragma once

#include <atomic>
#include <memory>
#include <unordered_set>
#include <vector>

#include "ServiceContracts/ISoftwareManagerService.hpp"
#include "ServiceContracts/IUpdaterStatus.hpp"
#include "ServiceContracts/SoftwareInformation.hpp"
#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/Mutex.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Commons/Thread.hpp"
#include "Zun/SoftwareUpdate/IUpdaterModule.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

class SoftwareUpdaterModule : public Services::SoftwareUpdate::IUpdaterModule,
                              private System::Commons::Diagnostics::Logging::Loggable<SoftwareUpdaterModule>
{
public:
    using StatusCode = Services::SoftwareUpdate::StatusCode;
    using IUpdaterStatus = Services::SoftwareUpdate::IUpdaterStatus;
    using ISoftwareManagerService = Services::SoftwareManager::Services::Internal::ISoftwareManagerService;
    using SoftwareInformation = Services::SoftwareManager::Services::Internal::SoftwareInformation;
    using ManagerInstallationState = Services::SoftwareManager::Services::Internal::InstallationState;
    using SoftwareComponentId = Internal::SoftwareComponentId;

    static const String ModuleName;                          // "SoftwareUpdater"
    static const String PropertyTargetSoftwareRevision;      // "TargetSoftwareRevision"
    static const String PropertyInstallationStartedByModule; // "InstallationStartedByModule"

    SoftwareUpdaterModule();
    ~SoftwareUpdaterModule() override;
    SoftwareUpdaterModule(const SoftwareUpdaterModule&) = delete;
    SoftwareUpdaterModule& operator=(const SoftwareUpdaterModule&) = delete;

    // IUpdaterModule
    void Initialize(const String& name, std::shared_ptr<IUpdaterStatus> updaterStatus) override;
    StatusCode GetUpdateBehavior(const String& name, const String& manufacturerUri, const String& softwareRevision,
                                 const std::vector<String>& patchIdentifiers, UpdateBehavior& behavior) noexcept override;
    StatusCode GetSoftwareVersion(const String& name, SoftwareVersionFileType fileType, SoftwareVersionType& version) noexcept override;
    StatusCode SetSoftwarePackage(const String& name, SoftwareVersionFileType fileType, const String& package,
                                  String& message) noexcept override;
    StatusCode GetSoftwarePackage(const String& name, SoftwareVersionFileType fileType, const String& package) noexcept override;
    StatusCode InstallSoftwarePackage(const String& name, const SoftwareVersionType& version, long long installationDelay) noexcept override;
    StatusCode GetStatus(const String& name, SoftwareUpdateStatus& status) noexcept override;
    StatusCode ResumeInstall(const String& name) noexcept override;
    StatusCode SetUpdateKey(const String& name, const SecureString<512>& key) noexcept override;
    StatusCode RevertInstall(const String& name) noexcept override;

    // Lifecycle.
    void Subscribe();
    void StartStatusThread();
    void Disable();
    void LoadSettings(const String& name);

    // Component list.
    std::vector<SoftwareComponentId> GetManagerComponentIds() const;
    void SyncComponents() const;
    void AddExistingComponents(const std::vector<SoftwareComponentId>& ids) const;
    void RemoveNonExistingComponents(const std::vector<SoftwareComponentId>& ids) const;
    bool IsInstalledByModule(const String& name);

    // Installation-state synchronisation.
    StatusCode SyncStatus(const SoftwareComponentId& id, SoftwareUpdateStatus& status);
    StatusCode GetManagerStatus(const SoftwareComponentId& id, ManagerInstallationState& state, String& message) const;
    StatusCode SyncFromIdleState(const String& name, SoftwareUpdateStatus& status, ManagerInstallationState state,
                                 const String& message) const;
    StatusCode SyncFromErrorState(const String& name, SoftwareUpdateStatus& status, ManagerInstallationState state, const String& message);
    StatusCode SyncFromInstallingState(const SoftwareComponentId& id, SoftwareUpdateStatus& status, ManagerInstallationState state,
                                       const String& message);
    void SyncFromInstallingStateToIdle(const String& name, const String& message, bool afterInstallation) const;
    void InitializeState();
    std::unordered_set<String> CopyOfSyncListAndUpdateRunningState();
    void UpdateStatus(void* module);

    // Queries and installation.
    StatusCode IsPendingVersionAvailable(const SoftwareInformation& information, const SoftwareVersionType& version) const;
    StatusCode InstallSoftwarePackage(const SoftwareComponentId& id, long long installationDelay);
    StatusCode InstallSoftwarePackage(const SoftwareComponentId& id);

    // Inspection for tests and diagnostics.
    std::unordered_set<String> GetSyncList();
    bool IsEnabled() const noexcept { return isEnabled.load(); }
    bool IsRunning() const noexcept { return isRunning.load(); }
    bool IsStateInitialized();
    // The status thread's state (0 or 2), or -1 when there is no thread object.
    int GetStatusThreadState();

    // The manager's state classes: in progress (1, 3, 5) and failed (2, 4, 6); 7 and above are neither.
    static bool IsManagerInProgress(ManagerInstallationState state) noexcept;
    static bool IsManagerFailed(ManagerInstallationState state) noexcept;

private:
    // Re-reads the record: Good, or Bad_UnexpectedError when the store has none.
    StatusCode ReRead(const String& name, SoftwareUpdateStatus& status) const;
    // The manager's record of the component.
    StatusCode ReadInformation(const SoftwareComponentId& id, SoftwareInformation& information) const;
    // Parses `name` (Bad_InvalidArgument) and then reads the manager's record of the component.
    StatusCode ParseAndReadInformation(const String& name, SoftwareComponentId& id, SoftwareInformation& information) const;
    StatusCode ReportRevisionMismatch(const SoftwareInformation& information, const String& targetRevision) const;

    std::shared_ptr<IUpdaterStatus> updaterStatus;
    std::shared_ptr<ISoftwareManagerService> softwareManagerService;
    std::unordered_set<String> syncList;
    System::Commons::Threading::Mutex mutex{true};
    std::atomic<bool> isEnabled{true};
    std::atomic<bool> isRunning{false};
    std::unique_ptr<System::Commons::Threading::Thread> statusThread;
    bool isStateInitialized = false;
};

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
