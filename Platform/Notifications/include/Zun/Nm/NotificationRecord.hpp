// A sent notification as the notification manager keeps it and tells its listeners.
#pragma once

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Nm/Severity.hpp"

namespace Zun::System::Nm
{

struct NotificationRecord
{
    NotificationId id = 0;
    NotificationNameId registration = 0;
    String name;
    String senderName;
    Severity severity = Severity::Info;
    String payloadTypeName;
    DateTime timestamp;
    String payload;
};

} // namespace Zun::System::Nm
