// The process-wide pair of notification registrations through which the module announces the
// end of installations of engineering-tool projects.
#pragma once

#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"
#include "Zun/Commons/Loggable.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Nm/NotificationRegistration.hpp"
#include "Zun/Nm/SecurityNotificationPayload.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security
{

class SecurityNotifications : private System::Commons::Diagnostics::Logging::Loggable<SecurityNotifications>
{
public:
    using Registration = System::Nm::NotificationRegistration<System::Nm::SecurityNotificationPayload>;

    static const String NotificationNameTemplate; // "Security.Zun.Services.SoftwareUpdate.{}.Installation."
    static const String SenderName;               // "Software Update"

    // Registers the success and the failure notification with the domain's notification manager.
    SecurityNotifications();
    ~SecurityNotifications();
    SecurityNotifications(const SecurityNotifications&) = delete;
    SecurityNotifications& operator=(const SecurityNotifications&) = delete;

    // Failure registration first, then success; harmless when repeated.
    void Dispose() noexcept;

    static void SendInstallationSucceededNotification(const SoftwareComponentId& id, const String& version);
    static void SendInstallationFailedNotification(const SoftwareComponentId& id, const String& version, const String& reason);

    const Registration& GetSucceededRegistration() const noexcept { return succeeded; }
    const Registration& GetFailedRegistration() const noexcept { return failed; }

private:
    static String MakeNotificationName(const char* suffix);
    static bool IsSupported(const SoftwareComponentId& id);

    Registration succeeded;
    Registration failed;
};

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security
