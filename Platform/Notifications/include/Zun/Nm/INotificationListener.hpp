// Observer of sent notifications (an audit log, a test).
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Nm/NotificationRecord.hpp"

namespace Zun::System::Nm
{

class ZUN_EXPORT INotificationListener
{
public:
    virtual ~INotificationListener();
    // Called on the sending thread, after the notification has been kept.
    virtual void OnNotificationSent(const NotificationRecord& record) = 0;
};

} // namespace Zun::System::Nm
