#include <functional>
#include <stdexcept>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Nm/NotificationRegistration.hpp"
#include "Zun/Nm/SecurityNotificationPayload.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace
{

using namespace Zun::System::Nm;
using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::String;
using ::testing::_;
using ::testing::Return;
using ::testing::Throw;
using Registration = NotificationRegistration<SecurityNotificationPayload>;

class MockManager : public INotificationManager
{
public:
    MOCK_METHOD(NotificationNameId, RegisterNotificationName,
                (const String& name, const String& senderName, Severity severity, const String& payloadTypeName), (override));
    MOCK_METHOD(void, UnregisterNotificationName, (NotificationNameId id), (override));
    MOCK_METHOD(NotificationId, SendNotification, (NotificationNameId id, const DateTime& timestamp, const String& payload),
                (override));
};

TEST(NotificationRegistrationTest, RegistersWithThePayloadTypeAndSendsTheText)
{
    NotificationManager manager;
    Registration registration("Security.A.Succeeded", "Software Update", Severity::Info, manager);
    ASSERT_EQ(registration.GetId(), 1u);
    EXPECT_EQ(manager.GetRegistrations().at(0).payloadTypeName, SecurityNotificationPayload::TypeName);

    String text = "Installation of 'app' (version: 1.2.0) successful.";
    const DateTime now(638'000'000'000'000'000, DateTimeKind::Utc);
    EXPECT_EQ(registration.SendNotificationWithTimestamp(now, text), 1u);
    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, text);
    EXPECT_EQ(sent[0].timestamp, now);
}

TEST(NotificationRegistrationTest, DisposeUnregistersOnceAndSendingAfterwardsIsRefused)
{
    Zun::Testing::LogCapture logs;
    MockManager manager;
    EXPECT_CALL(manager, RegisterNotificationName(String("N"), String("S"), Severity::Error, _)).WillOnce(Return(4));
    EXPECT_CALL(manager, UnregisterNotificationName(4)).Times(1);
    Registration registration("N", "S", Severity::Error, manager);
    registration.Dispose();
    EXPECT_EQ(registration.GetId(), 0u);
    registration.Dispose();

    String text = "t";
    try
    {
        registration.SendNotificationWithTimestamp(DateTime(), text);
        FAIL() << "no exception";
    }
    catch (const Zun::System::Commons::InvalidOperationException& e)
    {
        EXPECT_STREQ(e.what(), "Notification 'N' is not registered.");
    }
    EXPECT_TRUE(logs.Messages(3).empty());
}

TEST(NotificationRegistrationTest, MovedRegistrationIsUnregisteredOnlyByItsNewOwner)
{
    MockManager manager;
    EXPECT_CALL(manager, RegisterNotificationName(_, _, _, _)).WillOnce(Return(9));
    EXPECT_CALL(manager, UnregisterNotificationName(9)).Times(1);
    Registration original("N", "S", Severity::Info, manager);
    {
        Registration moved(std::move(original));
        EXPECT_EQ(moved.GetId(), 9u);
        EXPECT_EQ(original.GetId(), 0u);
    }
    original.Dispose();
    Registration unregistered;
    unregistered.Dispose();
}

TEST(NotificationRegistrationTest, FailedUnregistrationIsLoggedNotThrown)
{
    struct Case
    {
        const char* name;
        std::function<void()> fail;
        const char* logged;
    };
    const std::vector<Case> cases = {
        {"framework exception", [] { throw Zun::System::Commons::InvalidOperationException("Unknown notification registration {0}.", 3); },
         "Caught exception while unregistering notificationName=Security.N: Unknown notification registration 3."},
        {"other exception", [] { throw std::runtime_error("gone"); }, "Caught exception while unregistering notificationName=Security.N"},
    };
    for (const auto& c : cases)
    {
        Zun::Testing::LogCapture logs;
        MockManager manager;
        EXPECT_CALL(manager, RegisterNotificationName(_, _, _, _)).WillOnce(Return(3));
        EXPECT_CALL(manager, UnregisterNotificationName(3)).WillOnce([&](NotificationNameId) { c.fail(); });
        Registration registration("Security.N", "S", Severity::Info, manager);
        registration.Dispose();
        EXPECT_EQ(registration.GetId(), 0u) << c.name;
        EXPECT_EQ(logs.Messages(3), (std::vector<String>{c.logged})) << c.name;
    }
}

} // namespace
