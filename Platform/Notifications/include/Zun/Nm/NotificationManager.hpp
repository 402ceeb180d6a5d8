// In-process notification manager: keeps registrations and every sent notification, tells listeners.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <vector>

#include "Zun/Commons/Export.hpp"
#include "Zun/Nm/INotificationListener.hpp"
#include "Zun/Nm/INotificationManager.hpp"
#include "Zun/Nm/NotificationRecord.hpp"

namespace Zun::System::Nm
{

struct NotificationRegistrationInfo
{
    NotificationNameId id = 0;
    String name;
    String senderName;
    Severity severity = Severity::Info;
    String payloadTypeName;
};

class ZUN_EXPORT NotificationManager : public INotificationManager
{
public:
    NotificationManager();
    ~NotificationManager() override;

    NotificationNameId RegisterNotificationName(const String& name, const String& senderName, Severity severity,
                                                const String& payloadTypeName) override;
    void UnregisterNotificationName(NotificationNameId id) override;
    NotificationId SendNotification(NotificationNameId id, const DateTime& timestamp, const String& payload) override;

    void AddListener(std::shared_ptr<INotificationListener> listener);
    void RemoveListener(const std::shared_ptr<INotificationListener>& listener);

    // Snapshots, for inspection.
    std::vector<NotificationRegistrationInfo> GetRegistrations() const;
    std::vector<NotificationRecord> GetSentNotifications() const;

private:
    mutable std::mutex mutex;
    NotificationNameId nextRegistration = 1;
    NotificationId nextNotification = 1;
    std::map<NotificationNameId, NotificationRegistrationInfo> registrations;
    std::vector<NotificationRecord> sent;
    std::vector<std::shared_ptr<INotificationListener>> listeners;
};

} // namespace Zun::System::Nm
