#include <utility>
#include <vector>

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
using Zun::DateTimeKind;
using Zun::String;
using Zun::System::Commons::InvalidOperationException;
using ZunTest::MessageOf;
using Registration = NotificationRegistration<SecurityNotificationPayload>;

// Ids count from 1. A registration sends through the manager, which keeps every notification with
// its registration; unknown registrations are refused.
TEST(NotificationManagerTest, KeepsEveryNotificationWithItsRegistrationAndRefusesUnknownIds)
{
    NotificationManager manager;
    EXPECT_EQ(manager.RegisterNotificationName("A", "Sender", Severity::Info, "Payload"), 1u);
    manager.UnregisterNotificationName(1);
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { manager.UnregisterNotificationName(1); }), "Unknown notification registration 1.");
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { manager.SendNotification(1, DateTime(), "x"); }),
              "Unknown notification registration 1.");
    Registration registration("Security.X.Failed", "Software Update", Severity::Error, manager);
    EXPECT_EQ(manager.GetRegistrations().size(), 1u);
    const DateTime first(5, DateTimeKind::Utc);
    String one = "one";
    String two = "two";
    EXPECT_EQ(registration.SendNotificationWithTimestamp(first, one), 1u);
    EXPECT_EQ(registration.SendNotificationWithTimestamp(DateTime(6, DateTimeKind::Utc), two), 2u);

    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(std::tie(sent[0].id, sent[0].registration, sent[0].name, sent[0].senderName, sent[0].severity, sent[0].timestamp),
              std::make_tuple(NotificationId{1}, NotificationNameId{2}, String("Security.X.Failed"), String("Software Update"),
                              Severity::Error, first));
    EXPECT_EQ(sent[0].payloadTypeName, SecurityNotificationPayload::TypeName);
    EXPECT_EQ(sent[1].payload, "two");
}

// Only the last owner unregisters, and only once.
TEST(NotificationRegistrationTest, DisposeUnregistersOnceByTheLastOwner)
{
    Zun::Testing::LogCapture logs;
    NotificationManager manager;
    Registration original("N", "S", Severity::Error, manager);
    Registration registration(std::move(original));
    EXPECT_EQ(original.GetId(), 0u);
    original.Dispose();
    EXPECT_EQ(manager.GetRegistrations().size(), 1u);
    registration.Dispose();
    registration.Dispose();
    EXPECT_TRUE(manager.GetRegistrations().empty());
    String text = "t";
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { registration.SendNotificationWithTimestamp(DateTime(), text); }),
              "Notification 'N' is not registered.");
    EXPECT_TRUE(logs.Messages(3).empty());
}

} // namespace
