// Keeps every security notification that the notification manager sends as an entry of the status
// store's audit log, and remembers the ones sent since this log was made (what a start announced).
#pragma once

#include <memory>
#include <mutex>
#include <vector>

#include "Zun/Commons/Export.hpp"
#include "Zun/Nm/INotificationListener.hpp"
#include "Zun/UpdateService/StatusStore.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

class ZUN_EXPORT NotificationAuditLog : public System::Nm::INotificationListener
{
public:
    explicit NotificationAuditLog(std::shared_ptr<StatusStore> store);
    ~NotificationAuditLog() override;

    // Security notifications (payload type SecurityNotificationPayload) only. A store failure is
    // logged, not thrown: the sender is the updater module, whose operations must not throw.
    void OnNotificationSent(const System::Nm::NotificationRecord& record) override;

    // The entries that this log has written, oldest first.
    std::vector<StoredNotification> GetWritten() const;

private:
    std::shared_ptr<StatusStore> store;
    mutable std::mutex mutex;
    std::vector<StoredNotification> written;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService
