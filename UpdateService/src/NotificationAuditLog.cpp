#include "Zun/UpdateService/NotificationAuditLog.hpp"

#include <utility>

#include "Zun/Commons/Loggable.hpp"
#include "Zun/Nm/SecurityNotificationPayload.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

namespace
{
struct Log : System::Commons::Diagnostics::Logging::Loggable<NotificationAuditLog>
{
    using Loggable::log;
};
} // namespace

NotificationAuditLog::NotificationAuditLog(std::shared_ptr<StatusStore> store) : store(std::move(store)) {}

NotificationAuditLog::~NotificationAuditLog() = default;

void NotificationAuditLog::OnNotificationSent(const System::Nm::NotificationRecord& record)
{
    if (record.payloadTypeName != System::Nm::SecurityNotificationPayload::TypeName)
    {
        return;
    }
    StoredNotification entry;
    entry.timestamp = record.timestamp;
    entry.name = record.name;
    entry.senderName = record.senderName;
    entry.severity = static_cast<std::uint32_t>(record.severity);
    entry.text = record.payload;
    try
    {
        entry.id = store->AppendNotification(entry);
        // Read back so that the time stamp carries the precision that the store keeps.
        entry.timestamp = DateTime::FromUnixTimeMilliseconds(record.timestamp.ToUnixTimeMilliseconds());
        std::lock_guard<std::mutex> lock(mutex);
        written.push_back(std::move(entry));
    }
    catch (const std::exception& e)
    {
        Log::log.Log(1, "Security notification {0} could not be kept in the audit log: {1}. Text: {2}", record.name, e.what(),
                     record.payload);
    }
}

std::vector<StoredNotification> NotificationAuditLog::GetWritten() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return written;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService
