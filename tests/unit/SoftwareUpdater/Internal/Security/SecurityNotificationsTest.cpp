#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace
{
using testing::_;
using testing::Return;
using testing::Throw;
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

SoftwareComponentId Project(const char* name)
{
    SoftwareComponentId id;
    SoftwareComponentId::TryCreate(SoftwareKind::TesmoraEngineerProject, String(name), id);
    return id;
}

class SecurityNotificationsTest : public testing::Test
{
protected:
    NotificationManager manager;
    DomainScope scope{&manager};
};

TEST_F(SecurityNotificationsTest, RegistersSuccessThenFailureWithSenderAndSeverities)
{
    SecurityNotifications notifications;

    const auto registrations = manager.GetRegistrations();
    ASSERT_EQ(registrations.size(), 2u);
    EXPECT_EQ(registrations[0].name, SucceededName);
    EXPECT_EQ(registrations[0].senderName, "Software Update");
    EXPECT_EQ(registrations[0].severity, Severity::Info);
    EXPECT_EQ(registrations[1].name, FailedName);
    EXPECT_EQ(registrations[1].senderName, "Software Update");
    EXPECT_EQ(registrations[1].severity, Severity::Error);
}

TEST_F(SecurityNotificationsTest, DisposeUnregistersBothOnceAndIsHarmlessTwice)
{
    SecurityNotifications notifications;

    notifications.Dispose();
    notifications.Dispose();

    EXPECT_TRUE(manager.GetRegistrations().empty());
    EXPECT_EQ(notifications.GetSucceededRegistration().GetId(), 0u);
    EXPECT_EQ(notifications.GetFailedRegistration().GetId(), 0u);
}

TEST_F(SecurityNotificationsTest, SendsOneTimeStampedSuccessForEngineeringProjects)
{
    Singleton<SecurityNotifications>::pInstance = new SecurityNotifications();
    const DateTime before = DateTime::GetUtcNow();

    SecurityNotifications::SendInstallationSucceededNotification(Project("app"), String("1.2.0"));

    const DateTime after = DateTime::GetUtcNow();
    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].name, SucceededName);
    EXPECT_EQ(sent[0].payload, "Installation of 'app' (version: 1.2.0) successful.");
    EXPECT_EQ(sent[0].timestamp.GetKind(), Zun::DateTimeKind::Utc);
    EXPECT_LE(before.GetTicks(), sent[0].timestamp.GetTicks());
    EXPECT_LE(sent[0].timestamp.GetTicks(), after.GetTicks());
    delete static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance);
}

TEST_F(SecurityNotificationsTest, FailureTextKeepsTheReasonUntidied)
{
    Singleton<SecurityNotifications>::pInstance = new SecurityNotifications();

    SecurityNotifications::SendInstallationFailedNotification(Project("proj"), String("2.0"),
                                                              String("Expected version is 2.0 but current version is 1.0."));

    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].name, FailedName);
    EXPECT_EQ(sent[0].payload, "Failed to install 'proj' (version: 2.0). Reason: Expected version is 2.0 but current version is 1.0..");
    delete static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance);
}

TEST_F(SecurityNotificationsTest, OtherKindsAreOnlyLogged)
{
    Singleton<SecurityNotifications>::pInstance = new SecurityNotifications();
    Zun::Testing::LogCapture capture;
    SoftwareComponentId files;
    SoftwareComponentId::TryCreate(SoftwareKind::GenericFiles, String("app.tar"), files);

    SecurityNotifications::SendInstallationSucceededNotification(files, String("1.0"));
    SecurityNotifications::SendInstallationFailedNotification(files, String("1.0"), String("reason"));

    EXPECT_TRUE(manager.GetSentNotifications().empty());
    EXPECT_EQ(capture.Messages(5),
              (std::vector<String>{"SecurityNotification is not implemented for Generic files",
                                   "SecurityNotification is not implemented for Generic files"}));
    delete static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance);
}

TEST_F(SecurityNotificationsTest, SendingWithoutTheInstanceThrows)
{
    try
    {
        SecurityNotifications::SendInstallationSucceededNotification(Project("app"), String("1.0"));
        FAIL() << "no exception";
    }
    catch (const Zun::Exception& e)
    {
        EXPECT_EQ(e.GetMessage(), "Singleton instance of type "
                                  "'Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications' "
                                  "was not created yet!");
    }
}

TEST(SecurityNotificationsSetupTest, FailedSecondRegistrationDisposesTheFirst)
{
    MockNotificationManager mock;
    DomainScope scope(&mock);
    testing::InSequence order;
    EXPECT_CALL(mock, RegisterNotificationName(String(SucceededName), _, Severity::Info, _)).WillOnce(Return(11));
    EXPECT_CALL(mock, RegisterNotificationName(String(FailedName), _, Severity::Error, _))
        .WillOnce(Throw(Zun::System::Commons::InvalidOperationException(String("refused"))));
    EXPECT_CALL(mock, UnregisterNotificationName(11u));

    EXPECT_THROW(SecurityNotifications notifications, Zun::System::Commons::InvalidOperationException);
}

TEST(SecurityNotificationsSetupTest, DisposesFailureRegistrationBeforeSuccess)
{
    MockNotificationManager mock;
    DomainScope scope(&mock);
    EXPECT_CALL(mock, RegisterNotificationName(String(SucceededName), _, _, _)).WillOnce(Return(1));
    EXPECT_CALL(mock, RegisterNotificationName(String(FailedName), _, _, _)).WillOnce(Return(2));
    SecurityNotifications notifications;
    testing::InSequence order;
    EXPECT_CALL(mock, UnregisterNotificationName(2u));
    EXPECT_CALL(mock, UnregisterNotificationName(1u));

    notifications.Dispose();
}

TEST(SecurityNotificationsSetupTest, MissingNotificationManagerOrDomainIsReported)
{
    {
        DomainScope scope(nullptr);
        try
        {
            SecurityNotifications notifications;
            FAIL() << "no exception";
        }
        catch (const Zun::Exception& e)
        {
            EXPECT_EQ(e.GetMessage(), "AppDomain Singleton instance of type 'Zun::System::Nm::INotificationManager' was not created yet!");
        }
    }
    AppDomain* previous = Singleton<AppDomain>::pInstance;
    Singleton<AppDomain>::pInstance = nullptr;
    try
    {
        SecurityNotifications notifications;
        ADD_FAILURE() << "no exception";
    }
    catch (const Zun::Exception& e)
    {
        EXPECT_EQ(e.GetMessage(), "Singleton instance of type 'Zun::AppDomain' was not created yet!");
    }
    Singleton<AppDomain>::pInstance = previous;
}
} // namespace
