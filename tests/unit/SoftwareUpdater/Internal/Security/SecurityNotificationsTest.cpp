#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "../../UpdaterModuleFixture.hpp"

namespace
{
using testing::_;
using testing::Return;
using testing::Throw;
using Zun::Testing::UpdaterModule::ExpectThrow;
using Zun::AppDomain;
using Zun::DateTime;
using Zun::Singleton;
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareComponentId;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKind;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;
using Zun::System::Nm::INotificationManager;
using Zun::System::Nm::NotificationManager;
using Zun::System::Nm::Severity;

const char* const SucceededName = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded";
const char* const FailedName = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Failed";

class MockNotificationManager : public INotificationManager
{
public:
    MOCK_METHOD(Zun::System::Nm::NotificationNameId, RegisterNotificationName,
                (const String& name, const String& senderName, Severity severity, const String& payloadTypeName), (override));
    MOCK_METHOD(void, UnregisterNotificationName, (Zun::System::Nm::NotificationNameId id), (override));
    MOCK_METHOD(Zun::System::Nm::NotificationId, SendNotification,
                (Zun::System::Nm::NotificationNameId id, const DateTime& timestamp, const String& payload), (override));
};

// An AppDomain carrying `manager`, installed as the process's domain for the test's lifetime.
class DomainScope
{
public:
    explicit DomainScope(INotificationManager* manager) : previous(Singleton<AppDomain>::pInstance)
    {
        if (manager != nullptr)
        {
            domain.SetSingleton<INotificationManager>(manager);
        }
        Singleton<AppDomain>::pInstance = &domain;
    }
    ~DomainScope()
    {
        Singleton<SecurityNotifications>::pInstance = nullptr;
        Singleton<AppDomain>::pInstance = previous;
    }

private:
    AppDomain domain;
    AppDomain* previous;
};

SoftwareComponentId Id(SoftwareKind kind, const char* name)
{
    SoftwareComponentId id;
    SoftwareComponentId::TryCreate(kind, name, id);
    return id;
}

std::string Registrations(const NotificationManager& manager)
{
    std::string text;
    for (const auto& registration : manager.GetRegistrations())
    {
        text += fmt::format("{} from {} at {}; ", registration.name, registration.senderName, static_cast<int>(registration.severity));
    }
    return text;
}

class SecurityNotificationsTest : public testing::Test
{
protected:
    NotificationManager manager;
    DomainScope scope{&manager};
};

TEST_F(SecurityNotificationsTest, RegistersSuccessThenFailureAndDisposeUnregistersBothOnce)
{
    SecurityNotifications notifications;
    EXPECT_EQ(Registrations(manager), fmt::format("{} from Software Update at {}; {} from Software Update at {}; ", SucceededName,
                                                  static_cast<int>(Severity::Info), FailedName, static_cast<int>(Severity::Error)));

    notifications.Dispose();
    notifications.Dispose();

    EXPECT_EQ(Registrations(manager), "");
    EXPECT_EQ(notifications.GetSucceededRegistration().GetId() + notifications.GetFailedRegistration().GetId(), 0u);
}

TEST_F(SecurityNotificationsTest, SendsTimeStampedNotificationsForEngineeringProjectsAndOnlyLogsOtherKinds)
{
    ExpectThrow<Zun::Exception>(
        [] { SecurityNotifications::SendInstallationSucceededNotification(Id(SoftwareKind::TesmoraEngineerProject, "app"), "1.0"); },
        "Singleton instance of type 'Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications' "
        "was not created yet!");
    Singleton<SecurityNotifications>::pInstance = new SecurityNotifications();
    Zun::Testing::LogCapture capture;
    const DateTime before = DateTime::GetUtcNow();

    SecurityNotifications::SendInstallationSucceededNotification(Id(SoftwareKind::TesmoraEngineerProject, "app"), "1.2.0");
    SecurityNotifications::SendInstallationFailedNotification(Id(SoftwareKind::TesmoraEngineerProject, "proj"), "2.0",
                                                              "Expected version is 2.0 but current version is 1.0.");
    SecurityNotifications::SendInstallationSucceededNotification(Id(SoftwareKind::GenericFiles, "app.tar"), "1.0");
    SecurityNotifications::SendInstallationFailedNotification(Id(SoftwareKind::GenericFiles, "app.tar"), "1.0", "reason");

    const DateTime after = DateTime::GetUtcNow();
    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].name, SucceededName);
    EXPECT_EQ(sent[0].payload, "Installation of 'app' (version: 1.2.0) successful.");
    EXPECT_EQ(sent[1].name, FailedName);
    // The reason keeps its own full stop.
    EXPECT_EQ(sent[1].payload, "Failed to install 'proj' (version: 2.0). Reason: Expected version is 2.0 but current version is 1.0..");
    for (const auto& notification : sent)
    {
        EXPECT_EQ(notification.timestamp.GetKind(), Zun::DateTimeKind::Utc);
        EXPECT_LE(before.GetTicks(), notification.timestamp.GetTicks());
        EXPECT_LE(notification.timestamp.GetTicks(), after.GetTicks());
    }
    EXPECT_EQ(capture.Messages(5), (std::vector<String>{"SecurityNotification is not implemented for Generic files",
                                                        "SecurityNotification is not implemented for Generic files"}));
    delete static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance);
}

TEST(SecurityNotificationsSetupTest, FailedSecondRegistrationDisposesTheFirstAndDisposeGoesInReverse)
{
    MockNotificationManager mock;
    DomainScope scope(&mock);
    {
        testing::InSequence order;
        EXPECT_CALL(mock, RegisterNotificationName(String(SucceededName), _, Severity::Info, _)).WillOnce(Return(11));
        EXPECT_CALL(mock, RegisterNotificationName(String(FailedName), _, Severity::Error, _))
            .WillOnce(Throw(Zun::System::Commons::InvalidOperationException("refused")));
        EXPECT_CALL(mock, UnregisterNotificationName(11u));
    }
    EXPECT_THROW(SecurityNotifications notifications, Zun::System::Commons::InvalidOperationException);

    EXPECT_CALL(mock, RegisterNotificationName(String(SucceededName), _, _, _)).WillOnce(Return(1));
    EXPECT_CALL(mock, RegisterNotificationName(String(FailedName), _, _, _)).WillOnce(Return(2));
    SecurityNotifications notifications;
    testing::InSequence order;
    EXPECT_CALL(mock, UnregisterNotificationName(2u));
    EXPECT_CALL(mock, UnregisterNotificationName(1u));
    notifications.Dispose();
}
} // namespace
