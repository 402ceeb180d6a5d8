#include <functional>
#include <stdexcept>
#include <utility>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Nm/NotificationRegistration.hpp"
#include "Zun/Nm/SecurityNotificationPayload.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace
{

using namespace Zun::System::Nm;
using Zun::DateTime;
using Zun::String;
using ::testing::_;
using ::testing::Return;
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
    const DateTime now(638'000'000'000'000'000, Zun::DateTimeKind::Utc);
    EXPECT_EQ(registration.SendNotificationWithTimestamp(now, text), 1u);
    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].payload, text);
    EXPECT_EQ(sent[0].timestamp, now);
}

TEST(NotificationRegistrationTest, DisposeUnregistersOnceAndOnlyByTheLastOwner)
{
    Zun::Testing::LogCapture logs;
    MockManager manager;
    EXPECT_CALL(manager, RegisterNotificationName(String("N"), String("S"), Severity::Error, _)).WillOnce(Return(4));
    EXPECT_CALL(manager, UnregisterNotificationName(4)).Times(1);
    Registration original("N", "S", Severity::Error, manager);
    Registration registration(std::move(original));
    EXPECT_EQ(original.GetId(), 0u);
    original.Dispose();
    registration.Dispose();
    EXPECT_EQ(registration.GetId(), 0u);
    registration.Dispose();
    Registration().Dispose();

    String text = "t";
    EXPECT_EQ(ZunTest::MessageOf<Zun::System::Commons::InvalidOperationException>(
                  [&] { registration.SendNotificationWithTimestamp(DateTime(), text); }),
              "Notification 'N' is not registered.");
    EXPECT_TRUE(logs.Messages(3).empty());
}

TEST(NotificationRegistrationTest, FailedUnregistrationIsLoggedNotThrown)
{
    const std::pair<std::function<void()>, const char*> cases[] = {
        {[] { throw Zun::System::Commons::InvalidOperationException("Unknown notification registration {0}.", 3); },
         "Caught exception while unregistering notificationName=Security.N: Unknown notification registration 3."},
        {[] { throw std::runtime_error("gone"); }, "Caught exception while unregistering notificationName=Security.N"},
    };
    for (const auto& [fail, logged] : cases)
    {
        Zun::Testing::LogCapture logs;
        MockManager manager;
        EXPECT_CALL(manager, RegisterNotificationName(_, _, _, _)).WillOnce(Return(3));
        EXPECT_CALL(manager, UnregisterNotificationName(3)).WillOnce([&fail = fail](NotificationNameId) { fail(); });
        Registration registration("Security.N", "S", Severity::Info, manager);
        registration.Dispose();
        EXPECT_EQ(registration.GetId(), 0u) << logged;
        EXPECT_EQ(logs.Messages(3), (std::vector<String>{logged}));
    }
}

} // namespace
