// The update service's persistent status store: one SQLite file (WAL) that keeps, for every
// registered component, its status record and properties, and the audit log of security
// notifications. It is the status callback that the updater module is given.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "ServiceContracts/IUpdaterStatus.hpp"
#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

struct sqlite3;

namespace Zun::Services::SoftwareUpdate::UpdateService
{

using SoftwareUpdateStatus = Services::Internal::SoftwareUpdateStatus;
using UpdateInstallationState = Services::Internal::InstallationState;

struct ComponentStatus
{
    String name;
    SoftwareUpdateStatus status;
};

// One entry of the audit log.
struct StoredNotification
{
    std::int64_t id = 0; // assigned by the store, ascending
    DateTime timestamp;  // UTC, millisecond precision
    String name;
    String senderName;
    std::uint32_t severity = 0;
    String text;
};

// Told after a component's status record or the audit log has changed and the change is committed. Called on the
// changing thread without the store's lock held, so it may call back into the store.
class ZUN_EXPORT IStatusStoreListener
{
public:
    virtual ~IStatusStoreListener();
    // `status` is the record as stored now, or null when the component was removed.
    virtual void OnStatusChanged(const String& name, const SoftwareUpdateStatus* status) = 0;
    // An entry was appended to the audit log (committed, with its id). Does nothing by default.
    virtual void OnNotificationAppended(const StoredNotification& notification);
};

// The record's fields as this host uses them: ErrorMessage is the installation's status text (kept
// to 511 bytes), StatusWord1 the percent complete of the running installation, StatusWord2 is kept
// at 0, StatusFlag is the needs-preparation flag of the last switch to Installing. Properties set
// with `persistent` false last until the store is next opened.
//
// Operations on a component that is not registered change nothing. State machine: Idle ->
// Installing (SwitchToInstalling), Installing -> Idle or Error (FinishInstallation), Error -> Idle
// (ResetError); any other switch is refused and changes nothing. Every operation is one
// transaction; all operations may be called from any thread, and several processes may share a file.
// The status callback's operations never throw (the module calls them from non-throwing code): a
// failure such as a full disk is logged and changes nothing, as for a component not registered.
class ZUN_EXPORT StatusStore : public IUpdaterStatus
{
public:
    static constexpr std::size_t MaxMessageLength = 511;

    // Opens or creates the store; its folder must exist. Throws InvalidOperationException with the
    // path and SQLite's reason when the file cannot be opened or is not a store.
    explicit StatusStore(const String& path);
    ~StatusStore() override;
    StatusStore(const StatusStore&) = delete;
    StatusStore& operator=(const StatusStore&) = delete;

    std::vector<String> GetComponentNames() override;
    bool GetStatus(const String& name, SoftwareUpdateStatus& status) override;
    void SetUpdateStatus(const String& name, const String& text, bool idle) override;
    void SetPercentComplete(const String& name, std::uint8_t percent) override;
    bool SwitchToInstalling(const String& name, bool needsPreparation) override;
    void FinishInstallation(const String& name, bool success) override;
    bool ResetError(const String& name) override;
    void SetProperty(const String& name, const String& key, const String& value, bool persistent) override;
    void RemoveProperty(const String& name, const String& key) override;
    bool GetProperty(const String& name, const String& key, String& value) override;
    // A repeated registration keeps the record, the state and the properties.
    void AddComponent(const String& name) override;
    // Drops the record and the properties; harmless for a name that is not registered.
    void RemoveComponent(const String& name) override;

    // Every registered component with its record, in registration order.
    std::vector<ComponentStatus> GetAllStatus();
    std::map<String, String> GetProperties(const String& name);

    // Appends to the audit log and returns the new entry's id.
    std::int64_t AppendNotification(const StoredNotification& notification);
    // Entries with an id above `afterId`, oldest first.
    std::vector<StoredNotification> GetNotifications(std::int64_t afterId = 0);
    // Id of the newest entry, 0 for an empty log.
    std::int64_t GetLastNotificationId();

    void AddListener(std::shared_ptr<IStatusStoreListener> listener);
    void RemoveListener(const std::shared_ptr<IStatusStoreListener>& listener);

    const String& GetPath() const noexcept { return path; }

private:
    class Statement;
    class Transaction;
    struct Change
    {
        String name;
        bool removed = false;
        SoftwareUpdateStatus status;
    };

    void Execute(const char* sql);
    void CreateSchema();
    bool ReadStatus(const String& name, SoftwareUpdateStatus& status);
    void WriteStatus(const String& name, const SoftwareUpdateStatus& status);
    bool IsRegistered(const String& name);
    // Runs `change` in one transaction under the lock; it returns whether the record changed.
    // Listeners are told afterwards, outside the lock.
    template <class Function>
    bool Modify(const String& name, Function change);
    void Publish(const Change& change);
    [[noreturn]] void Fail(const char* context) const;

    String path;
    sqlite3* database = nullptr;
    std::mutex mutex;
    std::mutex listenersMutex;
    std::vector<std::shared_ptr<IStatusStoreListener>> listeners;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService
