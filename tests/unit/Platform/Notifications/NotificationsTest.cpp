#include <utility>
#include <vector>

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
using ::testing::_;
using ::testing::Return;
using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::String;
using Zun::System::Commons::InvalidOperationException;
using ZunTest::MessageOf;
using Registration = NotificationRegistration<SecurityNotificationPayload>;

// Records what it sees, and how many notifications the manager had kept at the time of the call.
class RecordingListener : public INotificationListener
{
public:
    explicit RecordingListener(NotificationManager& manager) : manager(manager) {}
    void OnNotificationSent(const NotificationRecord& record) override
    {
        payloads.push_back(record.payload);
        keptAtCall.push_back(manager.GetSentNotifications().size());
    }
    NotificationManager& manager;
    std::vector<String> payloads;
    std::vector<std::size_t> keptAtCall;
};

TEST(NotificationManagerTest, IdsCountFromOneAndUnknownRegistrationsAreRefused)
{
    NotificationManager manager;
    EXPECT_EQ(manager.RegisterNotificationName("A", "Sender", Severity::Info, "Payload"), 1u);
    EXPECT_EQ(manager.RegisterNotificationName("B", "Other", Severity::Error, "P2"), 2u);
    manager.UnregisterNotificationName(1);
    EXPECT_EQ(manager.RegisterNotificationName("C", "Third", Severity::Warning, "P3"), 3u);
    ASSERT_EQ(manager.GetRegistrations().size(), 2u);
    EXPECT_EQ(manager.GetRegistrations()[0].id, 2u);
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { manager.UnregisterNotificationName(1); }), "Unknown notification registration 1.");
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { manager.SendNotification(1, DateTime(), "x"); }),
              "Unknown notification registration 1.");
    EXPECT_TRUE(manager.GetSentNotifications().empty());
}

// A registration sends through the manager, which keeps every notification with its registration and
// tells the listeners afterwards.
TEST(NotificationManagerTest, KeepsEveryNotificationAndTellsListenersAfterwards)
{
    NotificationManager manager;
    auto listener = std::make_shared<RecordingListener>(manager);
    manager.AddListener(listener);
    Registration registration("Security.X.Failed", "Software Update", Severity::Error, manager);
    const DateTime first(5, DateTimeKind::Utc);
    String one = "one";
    String two = "two";
    EXPECT_EQ(registration.SendNotificationWithTimestamp(first, one), 1u);
    EXPECT_EQ(registration.SendNotificationWithTimestamp(DateTime(6, DateTimeKind::Utc), two), 2u);

    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(std::tie(sent[0].id, sent[0].registration, sent[0].name, sent[0].senderName, sent[0].severity, sent[0].timestamp),
              std::make_tuple(NotificationId{1}, registration.GetId(), String("Security.X.Failed"), String("Software Update"),
                              Severity::Error, first));
    EXPECT_EQ(sent[0].payloadTypeName, SecurityNotificationPayload::TypeName);
    EXPECT_EQ(sent[1].payload, "two");
    // The listener could read the manager (no lock held) and found its notification kept already.
    EXPECT_EQ(listener->payloads, (std::vector<String>{"one", "two"}));
    EXPECT_EQ(listener->keptAtCall, (std::vector<std::size_t>{1, 2}));

    manager.RemoveListener(listener);
    manager.SendNotification(registration.GetId(), first, "three");
    EXPECT_EQ(listener->payloads.size(), 2u);
    EXPECT_THROW(manager.AddListener(nullptr), Zun::System::Commons::ArgumentException);
}

class MockManager : public INotificationManager
{
public:
    MOCK_METHOD(NotificationNameId, RegisterNotificationName,
                (const String& name, const String& senderName, Severity severity, const String& payloadTypeName), (override));
    MOCK_METHOD(void, UnregisterNotificationName, (NotificationNameId id), (override));
    MOCK_METHOD(NotificationId, SendNotification, (NotificationNameId id, const DateTime& timestamp, const String& payload), (override));
};

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
    registration.Dispose();
    String text = "t";
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { registration.SendNotificationWithTimestamp(DateTime(), text); }),
              "Notification 'N' is not registered.");
    EXPECT_TRUE(logs.Messages(3).empty());
}

TEST(NotificationRegistrationTest, AFailedUnregistrationIsLoggedNotThrownAndNotRepeated)
{
    Zun::Testing::LogCapture logs;
    MockManager manager;
    EXPECT_CALL(manager, RegisterNotificationName(_, _, _, _)).WillOnce(Return(3));
    EXPECT_CALL(manager, UnregisterNotificationName(3)).WillOnce([](NotificationNameId) {
        throw InvalidOperationException("Unknown notification registration {0}.", 3);
    });
    Registration registration("Security.N", "S", Severity::Info, manager);
    registration.Dispose();
    registration.Dispose();
    EXPECT_EQ(
        logs.Messages(3),
        (std::vector<String>{"Caught exception while unregistering notificationName=Security.N: Unknown notification registration 3."}));
}

} // namespace
