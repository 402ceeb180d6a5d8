#include "Zun/UpdateService/StatusStore.hpp"

#include <sqlite3.h>

#include <algorithm>
#include <utility>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Loggable.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

using System::Commons::InvalidOperationException;

namespace
{
constexpr int SchemaVersion = 1;
// Long enough for another process's short transaction, short enough to report a stuck one.
constexpr int BusyTimeoutMilliseconds = 10000;

constexpr const char* SchemaSql = R"sql(
CREATE TABLE IF NOT EXISTS components(
    position INTEGER PRIMARY KEY AUTOINCREMENT,
    name TEXT NOT NULL UNIQUE,
    error_message TEXT NOT NULL DEFAULT '',
    status_word1 INTEGER NOT NULL DEFAULT 0,
    status_word2 INTEGER NOT NULL DEFAULT 0,
    installation_state INTEGER NOT NULL DEFAULT 0,
    status_flag INTEGER NOT NULL DEFAULT 0);
CREATE TABLE IF NOT EXISTS properties(
    component TEXT NOT NULL,
    key TEXT NOT NULL,
    value TEXT NOT NULL,
    persistent INTEGER NOT NULL,
    PRIMARY KEY(component, key));
CREATE TABLE IF NOT EXISTS notifications(
    id INTEGER PRIMARY KEY AUTOINCREMENT,
    timestamp_ms INTEGER NOT NULL,
    name TEXT NOT NULL,
    sender TEXT NOT NULL,
    severity INTEGER NOT NULL,
    text TEXT NOT NULL);
)sql";

struct Log : System::Commons::Diagnostics::Logging::Loggable<StatusStore>
{
    using Loggable::log;
};

bool SameRecord(const SoftwareUpdateStatus& a, const SoftwareUpdateStatus& b)
{
    return a.ErrorMessage == b.ErrorMessage && a.StatusWord1 == b.StatusWord1 && a.StatusWord2 == b.StatusWord2 &&
           a.InstallationState == b.InstallationState && a.StatusFlag == b.StatusFlag;
}

// At most MaxMessageLength bytes, cut before a UTF-8 continuation byte so that no character is split.
String FitMessage(const String& text)
{
    if (text.size() <= StatusStore::MaxMessageLength)
    {
        return text;
    }
    std::size_t length = StatusStore::MaxMessageLength;
    while (length > 0 && (static_cast<unsigned char>(text[length]) & 0xC0u) == 0x80u)
    {
        --length;
    }
    return String(text.data(), length);
}
} // namespace

IStatusStoreListener::~IStatusStoreListener() = default;

void IStatusStoreListener::OnNotificationAppended(const StoredNotification&) {}

// The module calls the store from operations that must not throw: a failed read or write (disk full,
// I/O error) is logged and the record stays as it was; the module's next synchronisation writes it again.
template <class Result, class Function>
Result Unfailing(const char* operation, const String& name, Result fallback, Function function) noexcept
{
    try
    {
        return function();
    }
    catch (const std::exception& e)
    {
        Log::log.Log(3, "Status store: {0}({1}) failed; the record stays as it was: {2}", operation, name, e.what());
    }
    catch (...)
    {
        Log::log.Log(3, "Status store: {0}({1}) failed; the record stays as it was", operation, name);
    }
    return fallback;
}

class StatusStore::Statement
{
public:
    Statement(StatusStore& store, const char* sql) : store(store)
    {
        if (sqlite3_prepare_v2(store.database, sql, -1, &statement, nullptr) != SQLITE_OK)
        {
            store.Fail("prepare");
        }
    }
    ~Statement() { sqlite3_finalize(statement); }
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    Statement& Bind(int index, const String& text)
    {
        Check(sqlite3_bind_text(statement, index, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT));
        return *this;
    }
    Statement& Bind(int index, std::int64_t value)
    {
        Check(sqlite3_bind_int64(statement, index, value));
        return *this;
    }
    // True while a row is available.
    bool Step()
    {
        const int result = sqlite3_step(statement);
        if (result == SQLITE_ROW)
        {
            return true;
        }
        if (result != SQLITE_DONE)
        {
            store.Fail("step");
        }
        return false;
    }
    String Text(int column) const
    {
        const auto* data = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
        return data == nullptr ? String() : String(data, static_cast<std::size_t>(sqlite3_column_bytes(statement, column)));
    }
    std::int64_t Integer(int column) const { return sqlite3_column_int64(statement, column); }

private:
    void Check(int result)
    {
        if (result != SQLITE_OK)
        {
            store.Fail("bind");
        }
    }

    StatusStore& store;
    sqlite3_stmt* statement = nullptr;
};

// BEGIN IMMEDIATE takes the write lock at once, so a read-then-write cannot interleave with another
// process's; a transaction that is not committed is rolled back.
class StatusStore::Transaction
{
public:
    explicit Transaction(StatusStore& store) : store(store) { store.Execute("BEGIN IMMEDIATE"); }
    ~Transaction()
    {
        if (!committed)
        {
            sqlite3_exec(store.database, "ROLLBACK", nullptr, nullptr, nullptr);
        }
    }
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    void Commit()
    {
        store.Execute("COMMIT");
        committed = true;
    }

private:
    StatusStore& store;
    bool committed = false;
};

StatusStore::StatusStore(const String& path) : path(path)
{
    const int flags = SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_FULLMUTEX;
    if (sqlite3_open_v2(path.c_str(), &database, flags, nullptr) != SQLITE_OK)
    {
        String reason = database != nullptr ? String(sqlite3_errmsg(database)) : String("out of memory");
        sqlite3_close(database);
        database = nullptr;
        throw InvalidOperationException("Cannot open the status store '{0}': {1}", path, reason);
    }
    try
    {
        sqlite3_extended_result_codes(database, 1);
        sqlite3_busy_timeout(database, BusyTimeoutMilliseconds);
        Execute("PRAGMA journal_mode=WAL");
        Execute("PRAGMA synchronous=NORMAL");
        CreateSchema();
    }
    catch (...)
    {
        sqlite3_close(database);
        database = nullptr;
        throw;
    }
}

StatusStore::~StatusStore()
{
    sqlite3_close(database);
}

void StatusStore::Execute(const char* sql)
{
    if (sqlite3_exec(database, sql, nullptr, nullptr, nullptr) != SQLITE_OK)
    {
        Fail(sql);
    }
}

void StatusStore::Fail(const char* context) const
{
    throw InvalidOperationException("Status store '{0}': {1} failed: {2}", path, context, sqlite3_errmsg(database));
}

void StatusStore::CreateSchema()
{
    std::lock_guard<std::mutex> lock(mutex);
    Transaction transaction(*this);
    std::int64_t found = 0;
    {
        Statement version(*this, "PRAGMA user_version");
        found = version.Step() ? version.Integer(0) : 0;
    }
    if (found > SchemaVersion)
    {
        throw InvalidOperationException("The status store '{0}' has schema version {1}; this program knows up to {2}.", path, found,
                                        SchemaVersion);
    }
    Execute(SchemaSql);
    Execute("PRAGMA user_version = 1");
    // Properties that were not meant to persist end with the store's previous session.
    Execute("DELETE FROM properties WHERE persistent = 0");
    transaction.Commit();
}

bool StatusStore::ReadStatus(const String& name, SoftwareUpdateStatus& status)
{
    Statement query(*this, "SELECT error_message, status_word1, status_word2, installation_state, status_flag "
                           "FROM components WHERE name = ?1");
    query.Bind(1, name);
    if (!query.Step())
    {
        return false;
    }
    SoftwareUpdateStatus record;
    record.ErrorMessage = FitMessage(query.Text(0));
    record.StatusWord1 = static_cast<std::int32_t>(query.Integer(1));
    record.StatusWord2 = static_cast<std::int32_t>(query.Integer(2));
    record.InstallationState = static_cast<UpdateInstallationState>(query.Integer(3));
    record.StatusFlag = query.Integer(4) != 0;
    status = record;
    return true;
}

void StatusStore::WriteStatus(const String& name, const SoftwareUpdateStatus& status)
{
    Statement update(*this, "UPDATE components SET error_message = ?2, status_word1 = ?3, status_word2 = ?4, "
                            "installation_state = ?5, status_flag = ?6 WHERE name = ?1");
    update.Bind(1, name)
        .Bind(2, status.ErrorMessage.ToString())
        .Bind(3, std::int64_t{status.StatusWord1})
        .Bind(4, std::int64_t{status.StatusWord2})
        .Bind(5, static_cast<std::int64_t>(status.InstallationState))
        .Bind(6, std::int64_t{status.StatusFlag ? 1 : 0});
    update.Step();
}

bool StatusStore::IsRegistered(const String& name)
{
    Statement query(*this, "SELECT 1 FROM components WHERE name = ?1");
    query.Bind(1, name);
    return query.Step(); // the statement is finalised on return, before any commit
}

template <class Function>
bool StatusStore::Modify(const String& name, Function change)
{
    return Unfailing<bool>("Modify", name, false, [&]() -> bool {
        Change published;
        bool accepted = false;
        bool changed = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            Transaction transaction(*this);
            SoftwareUpdateStatus status;
            if (!ReadStatus(name, status))
            {
                Log::log.Log(5, "Component '{0}' is not registered; request ignored.", name);
                return false;
            }
            const SoftwareUpdateStatus before = status;
            accepted = change(status);
            changed = accepted && !SameRecord(before, status);
            if (changed)
            {
                WriteStatus(name, status);
            }
            transaction.Commit();
            published.name = name;
            published.status = status;
        }
        if (changed)
        {
            Publish(published);
        }
        return accepted;
    });
}

void StatusStore::Publish(const Change& change)
{
    std::vector<std::shared_ptr<IStatusStoreListener>> current;
    {
        std::lock_guard<std::mutex> lock(listenersMutex);
        current = listeners;
    }
    for (const auto& listener : current)
    {
        // The store is called from the module's non-throwing operations: a listener must not end the process.
        try
        {
            listener->OnStatusChanged(change.name, change.removed ? nullptr : &change.status);
        }
        catch (const std::exception& e)
        {
            Log::log.Log(3, "Status listener failed for '{0}': {1}", change.name, e.what());
        }
        catch (...)
        {
            Log::log.Log(3, "Status listener failed for '{0}'", change.name);
        }
    }
}

std::vector<String> StatusStore::GetComponentNames()
{
    return Unfailing<std::vector<String>>("GetComponentNames", String(), std::vector<String>(), [&]() -> std::vector<String> {
        std::lock_guard<std::mutex> lock(mutex);
        Transaction transaction(*this);
        Statement query(*this, "SELECT name FROM components ORDER BY position");
        std::vector<String> names;
        while (query.Step())
        {
            names.push_back(query.Text(0));
        }
        transaction.Commit();
        return names;
    });
}

bool StatusStore::GetStatus(const String& name, SoftwareUpdateStatus& status)
{
    return Unfailing<bool>("GetStatus", name, false, [&]() -> bool {
        std::lock_guard<std::mutex> lock(mutex);
        Transaction transaction(*this);
        const bool found = ReadStatus(name, status);
        transaction.Commit();
        return found;
    });
}

void StatusStore::SetUpdateStatus(const String& name, const String& text, bool /*idle*/)
{
    // The state is moved only by the state machine's own operations; `idle` is informational.
    const String message = FitMessage(text);
    Modify(name, [&](SoftwareUpdateStatus& status) {
        status.ErrorMessage = message;
        return true;
    });
}

void StatusStore::SetPercentComplete(const String& name, std::uint8_t percent)
{
    Modify(name, [&](SoftwareUpdateStatus& status) {
        status.StatusWord1 = std::min<std::int32_t>(percent, 100);
        return true;
    });
}

bool StatusStore::SwitchToInstalling(const String& name, bool needsPreparation)
{
    const bool switched = Modify(name, [&](SoftwareUpdateStatus& status) {
        if (status.InstallationState != UpdateInstallationState::Idle)
        {
            return false;
        }
        status.InstallationState = UpdateInstallationState::Installing;
        status.StatusWord1 = 0;
        status.StatusFlag = needsPreparation;
        return true;
    });
    Log::log.Log(switched ? 7 : 5, "SwitchToInstalling({0}): {1}", name, switched ? "Idle to Installing" : "refused");
    return switched;
}

void StatusStore::FinishInstallation(const String& name, bool success)
{
    const bool finished = Modify(name, [&](SoftwareUpdateStatus& status) {
        if (status.InstallationState != UpdateInstallationState::Installing)
        {
            return false;
        }
        status.InstallationState = success ? UpdateInstallationState::Idle : UpdateInstallationState::Error;
        if (success)
        {
            status.StatusWord1 = 100;
        }
        return true;
    });
    Log::log.Log(finished ? 7 : 5, "FinishInstallation({0}, {1}): {2}", name, success,
                 finished ? (success ? "Installing to Idle" : "Installing to Error") : "refused");
}

bool StatusStore::ResetError(const String& name)
{
    const bool reset = Modify(name, [&](SoftwareUpdateStatus& status) {
        if (status.InstallationState != UpdateInstallationState::Error)
        {
            return false;
        }
        status.InstallationState = UpdateInstallationState::Idle;
        return true;
    });
    Log::log.Log(reset ? 7 : 5, "ResetError({0}): {1}", name, reset ? "Error to Idle" : "refused");
    return reset;
}

void StatusStore::SetProperty(const String& name, const String& key, const String& value, bool persistent)
{
    Unfailing("SetProperty", name, false, [&] {
        std::lock_guard<std::mutex> lock(mutex);
        Transaction transaction(*this);
        if (!IsRegistered(name))
        {
            Log::log.Log(5, "Component '{0}' is not registered; property {1} not set.", name, key);
            return false;
        }
        Statement upsert(*this, "INSERT INTO properties(component, key, value, persistent) VALUES(?1, ?2, ?3, ?4) "
                                "ON CONFLICT(component, key) DO UPDATE SET value = excluded.value, persistent = excluded.persistent");
        upsert.Bind(1, name).Bind(2, key).Bind(3, value).Bind(4, std::int64_t{persistent ? 1 : 0});
        upsert.Step();
        transaction.Commit();
        return true;
    });
}

void StatusStore::RemoveProperty(const String& name, const String& key)
{
    Unfailing("RemoveProperty", name, false, [&] {
        std::lock_guard<std::mutex> lock(mutex);
        Transaction transaction(*this);
        Statement remove(*this, "DELETE FROM properties WHERE component = ?1 AND key = ?2");
        remove.Bind(1, name).Bind(2, key);
        remove.Step();
        transaction.Commit();
        return true;
    });
}

bool StatusStore::GetProperty(const String& name, const String& key, String& value)
{
    return Unfailing<bool>("GetProperty", name, false, [&]() -> bool {
        std::lock_guard<std::mutex> lock(mutex);
        Transaction transaction(*this);
        bool found = false;
        {
            Statement query(*this, "SELECT value FROM properties WHERE component = ?1 AND key = ?2");
            query.Bind(1, name).Bind(2, key);
            found = query.Step();
            if (found)
            {
                value = query.Text(0);
            }
        }
        transaction.Commit();
        return found;
    });
}

void StatusStore::AddComponent(const String& name)
{
    Unfailing("AddComponent", name, false, [&] {
        Change published;
        bool added = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            Transaction transaction(*this);
            Statement insert(*this, "INSERT INTO components(name) VALUES(?1) ON CONFLICT(name) DO NOTHING");
            insert.Bind(1, name);
            insert.Step();
            added = sqlite3_changes(database) > 0;
            transaction.Commit();
            published.name = name;
        }
        if (added)
        {
            Log::log.Log(7, "AddComponent({0})", name);
            Publish(published);
        }
        return true;
    });
}

void StatusStore::RemoveComponent(const String& name)
{
    Unfailing("RemoveComponent", name, false, [&] {
        Change published;
        bool removed = false;
        {
            std::lock_guard<std::mutex> lock(mutex);
            Transaction transaction(*this);
            Statement remove(*this, "DELETE FROM components WHERE name = ?1");
            remove.Bind(1, name);
            remove.Step();
            removed = sqlite3_changes(database) > 0;
            Statement properties(*this, "DELETE FROM properties WHERE component = ?1");
            properties.Bind(1, name);
            properties.Step();
            transaction.Commit();
            published.name = name;
            published.removed = true;
        }
        if (removed)
        {
            Log::log.Log(7, "RemoveComponent({0})", name);
            Publish(published);
        }
        return true;
    });
}

std::vector<ComponentStatus> StatusStore::GetAllStatus()
{
    std::lock_guard<std::mutex> lock(mutex);
    Transaction transaction(*this);
    Statement query(*this, "SELECT name, error_message, status_word1, status_word2, installation_state, status_flag "
                           "FROM components ORDER BY position");
    std::vector<ComponentStatus> result;
    while (query.Step())
    {
        ComponentStatus entry;
        entry.name = query.Text(0);
        entry.status.ErrorMessage = FitMessage(query.Text(1));
        entry.status.StatusWord1 = static_cast<std::int32_t>(query.Integer(2));
        entry.status.StatusWord2 = static_cast<std::int32_t>(query.Integer(3));
        entry.status.InstallationState = static_cast<UpdateInstallationState>(query.Integer(4));
        entry.status.StatusFlag = query.Integer(5) != 0;
        result.push_back(std::move(entry));
    }
    transaction.Commit();
    return result;
}

std::map<String, String> StatusStore::GetProperties(const String& name)
{
    std::lock_guard<std::mutex> lock(mutex);
    Transaction transaction(*this);
    Statement query(*this, "SELECT key, value FROM properties WHERE component = ?1");
    query.Bind(1, name);
    std::map<String, String> result;
    while (query.Step())
    {
        result.emplace(query.Text(0), query.Text(1));
    }
    transaction.Commit();
    return result;
}

std::int64_t StatusStore::AppendNotification(const StoredNotification& notification)
{
    StoredNotification appended = notification;
    {
        std::lock_guard<std::mutex> lock(mutex);
        Transaction transaction(*this);
        Statement insert(*this, "INSERT INTO notifications(timestamp_ms, name, sender, severity, text) VALUES(?1, ?2, ?3, ?4, ?5)");
        insert.Bind(1, notification.timestamp.ToUnixTimeMilliseconds())
            .Bind(2, notification.name)
            .Bind(3, notification.senderName)
            .Bind(4, std::int64_t{notification.severity})
            .Bind(5, notification.text);
        insert.Step();
        appended.id = sqlite3_last_insert_rowid(database);
        transaction.Commit();
    }
    std::vector<std::shared_ptr<IStatusStoreListener>> current;
    {
        std::lock_guard<std::mutex> lock(listenersMutex);
        current = listeners;
    }
    for (const auto& listener : current)
    {
        try
        {
            listener->OnNotificationAppended(appended);
        }
        catch (const std::exception& e)
        {
            Log::log.Log(3, "Notification listener failed for '{0}': {1}", appended.name, e.what());
        }
    }
    return appended.id;
}

std::vector<StoredNotification> StatusStore::GetNotifications(std::int64_t afterId)
{
    std::lock_guard<std::mutex> lock(mutex);
    Transaction transaction(*this);
    Statement query(*this, "SELECT id, timestamp_ms, name, sender, severity, text FROM notifications WHERE id > ?1 ORDER BY id");
    query.Bind(1, afterId);
    std::vector<StoredNotification> result;
    while (query.Step())
    {
        StoredNotification entry;
        entry.id = query.Integer(0);
        entry.timestamp = DateTime::FromUnixTimeMilliseconds(query.Integer(1));
        entry.name = query.Text(2);
        entry.senderName = query.Text(3);
        entry.severity = static_cast<std::uint32_t>(query.Integer(4));
        entry.text = query.Text(5);
        result.push_back(std::move(entry));
    }
    transaction.Commit();
    return result;
}

std::int64_t StatusStore::GetLastNotificationId()
{
    std::lock_guard<std::mutex> lock(mutex);
    Transaction transaction(*this);
    std::int64_t id = 0;
    {
        Statement query(*this, "SELECT COALESCE(MAX(id), 0) FROM notifications");
        id = query.Step() ? query.Integer(0) : 0;
    }
    transaction.Commit();
    return id;
}

void StatusStore::AddListener(std::shared_ptr<IStatusStoreListener> listener)
{
    std::lock_guard<std::mutex> lock(listenersMutex);
    listeners.push_back(std::move(listener));
}

void StatusStore::RemoveListener(const std::shared_ptr<IStatusStoreListener>& listener)
{
    std::lock_guard<std::mutex> lock(listenersMutex);
    listeners.erase(std::remove(listeners.begin(), listeners.end(), listener), listeners.end());
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService
