#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "Zun/Commons/Singleton.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"

namespace
{
using testing::_;
using testing::Return;
using Zun::DateTime;
using Zun::Singleton;
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareComponentId;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKind;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;
using namespace Zun::System::Nm;

const String Prefix = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.";

SoftwareComponentId Id(SoftwareKind kind, const char* name)
{
    SoftwareComponentId id;
    SoftwareComponentId::TryCreate(kind, name, id);
    return id;
}

TEST(SecurityNotificationsTest, RegistersBothAndSendsTimeStampedNotificationsForEngineeringProjectsOnly)
{
    Zun::Testing::ModuleEnvironment env;
    Zun::Testing::LogCapture logs;
    Singleton<SecurityNotifications>::pInstance = new SecurityNotifications();
    std::string registered;
    for (const auto& registration : env.notifications.GetRegistrations())
    {
        registered +=
            fmt::format("{} from {} at {}; ", registration.name, registration.senderName, static_cast<int>(registration.severity));
    }
    EXPECT_EQ(registered, fmt::format("{}Succeeded from Software Update at {}; {}Failed from Software Update at {}; ", Prefix,
                                      static_cast<int>(Severity::Info), Prefix, static_cast<int>(Severity::Error)));
    const DateTime before = DateTime::GetUtcNow();

    SecurityNotifications::SendInstallationSucceededNotification(Id(SoftwareKind::TesmoraEngineerProject, "app"), "1.2.0");
    SecurityNotifications::SendInstallationFailedNotification(Id(SoftwareKind::TesmoraEngineerProject, "proj"), "2.0", "Expected 2.0.");
    SecurityNotifications::SendInstallationSucceededNotification(Id(SoftwareKind::GenericFiles, "app.tar"), "1.0");
    SecurityNotifications::SendInstallationFailedNotification(Id(SoftwareKind::GenericFiles, "app.tar"), "1.0", "reason");

    // Checked without an assertion that ends the test early: the singleton must be gone before the next test.
    std::string sent;
    for (const auto& notification : env.notifications.GetSentNotifications())
    {
        sent += notification.name.substr(notification.name.rfind('.') + 1) + ": " + notification.payload + "; ";
        EXPECT_EQ(notification.timestamp.GetKind(), Zun::DateTimeKind::Utc);
        EXPECT_LE(before.GetTicks(), notification.timestamp.GetTicks());
        EXPECT_LE(notification.timestamp.GetTicks(), DateTime::GetUtcNow().GetTicks());
    }
    // The reason keeps its own full stop.
    EXPECT_EQ(sent, "Succeeded: Installation of 'app' (version: 1.2.0) successful.; "
                    "Failed: Failed to install 'proj' (version: 2.0). Reason: Expected 2.0..; ");
    EXPECT_EQ(logs.Messages(5), (std::vector<String>{"SecurityNotification is not implemented for Generic files",
                                                     "SecurityNotification is not implemented for Generic files"}));
    delete static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance);
    Singleton<SecurityNotifications>::pInstance = nullptr;
    EXPECT_TRUE(env.notifications.GetRegistrations().empty());
}

class MockNotificationManager : public INotificationManager
{
public:
    MOCK_METHOD(NotificationNameId, RegisterNotificationName,
                (const String& name, const String& senderName, Severity severity, const String& payloadTypeName), (override));
    MOCK_METHOD(void, UnregisterNotificationName, (NotificationNameId id), (override));
    MOCK_METHOD(NotificationId, SendNotification, (NotificationNameId id, const DateTime& timestamp, const String& payload), (override));
};

TEST(SecurityNotificationsTest, DisposeUnregistersInReverseOrderOnce)
{
    Zun::Testing::ModuleEnvironment env;
    MockNotificationManager manager;
    Singleton<Zun::AppDomain>::pInstance->SetSingleton<INotificationManager>(&manager);
    EXPECT_CALL(manager, RegisterNotificationName(String(Prefix + "Succeeded"), _, _, _)).WillOnce(Return(1));
    EXPECT_CALL(manager, RegisterNotificationName(String(Prefix + "Failed"), _, _, _)).WillOnce(Return(2));
    SecurityNotifications notifications;
    testing::InSequence order;
    EXPECT_CALL(manager, UnregisterNotificationName(2u));
    EXPECT_CALL(manager, UnregisterNotificationName(1u));
    notifications.Dispose();
    notifications.Dispose();
}
} // namespace
