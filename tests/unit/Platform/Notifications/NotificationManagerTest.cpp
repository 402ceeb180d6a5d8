#include <memory>
#include <set>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Testing/Latch.hpp"

namespace
{

using namespace Zun::System::Nm;
using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::System::Commons::InvalidOperationException;
using ZunTest::MessageOf;

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
    std::vector<Zun::String> payloads;
    std::vector<std::size_t> keptAtCall;
};

TEST(NotificationManagerTest, RegistrationIdsCountFromOneAndUnknownIdsAreRefused)
{
    NotificationManager manager;
    EXPECT_EQ(manager.RegisterNotificationName("A", "Sender", Severity::Info, "Payload"), 1u);
    EXPECT_EQ(manager.RegisterNotificationName("B", "Other", Severity::Error, "P2"), 2u);
    manager.UnregisterNotificationName(1);
    EXPECT_EQ(manager.RegisterNotificationName("C", "Third", Severity::Warning, "P3"), 3u);
    const auto registrations = manager.GetRegistrations();
    ASSERT_EQ(registrations.size(), 2u);
    EXPECT_EQ(registrations[0].id, 2u);
    EXPECT_EQ(registrations[1].id, 3u);

    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { manager.UnregisterNotificationName(1); }), "Unknown notification registration 1.");
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { manager.SendNotification(1, DateTime(), "x"); }),
              "Unknown notification registration 1.");
    EXPECT_TRUE(manager.GetSentNotifications().empty());
}

TEST(NotificationManagerTest, KeepsEveryNotificationWithItsRegistrationAndTellsListenersAfterwards)
{
    NotificationManager manager;
    auto listener = std::make_shared<RecordingListener>(manager);
    manager.AddListener(listener);
    const auto id = manager.RegisterNotificationName("Security.X.Failed", "Software Update", Severity::Error, "Text");
    const DateTime first(5, DateTimeKind::Utc);
    EXPECT_EQ(manager.SendNotification(id, first, "one"), 1u);
    EXPECT_EQ(manager.SendNotification(id, DateTime(6, DateTimeKind::Utc), "two"), 2u);

    const auto sent = manager.GetSentNotifications();
    ASSERT_EQ(sent.size(), 2u);
    EXPECT_EQ(sent[0].id, 1u);
    EXPECT_EQ(sent[0].registration, id);
    EXPECT_EQ(sent[0].name, "Security.X.Failed");
    EXPECT_EQ(sent[0].senderName, "Software Update");
    EXPECT_EQ(sent[0].severity, Severity::Error);
    EXPECT_EQ(sent[0].payloadTypeName, "Text");
    EXPECT_EQ(sent[0].timestamp, first);
    EXPECT_EQ(sent[1].payload, "two");
    // The listener could read the manager (no lock held) and found its notification kept already.
    EXPECT_EQ(listener->payloads, (std::vector<Zun::String>{"one", "two"}));
    EXPECT_EQ(listener->keptAtCall, (std::vector<std::size_t>{1, 2}));

    manager.RemoveListener(listener);
    manager.SendNotification(id, first, "three");
    EXPECT_EQ(listener->payloads.size(), 2u);
    EXPECT_THROW(manager.AddListener(nullptr), Zun::System::Commons::ArgumentException);
}

} // namespace
