// The notification manager as its users see it: register a name, send on it, unregister it.
#pragma once

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Nm/Severity.hpp"

namespace Zun::System::Nm
{

class ZUN_EXPORT INotificationManager
{
public:
    virtual ~INotificationManager();
    // Returns a non-zero registration id.
    virtual NotificationNameId RegisterNotificationName(const String& name, const String& senderName, Severity severity,
                                                        const String& payloadTypeName) = 0;
    // Throws InvalidOperationException for an id that is not registered.
    virtual void UnregisterNotificationName(NotificationNameId id) = 0;
    // Throws InvalidOperationException for an id that is not registered.
    virtual NotificationId SendNotification(NotificationNameId id, const DateTime& timestamp, const String& payload) = 0;
};

} // namespace Zun::System::Nm
