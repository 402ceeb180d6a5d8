#include <pthread.h>

#include <atomic>
#include <memory>

#include <gtest/gtest.h>

#include "../Expect.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Thread.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/LogCapture.hpp"

namespace
{

using Zun::System::Commons::InvalidOperationException;
using Zun::System::Commons::Threading::Thread;
using Zun::System::Commons::Threading::ThreadDelegate;
using Zun::System::Commons::Threading::ThreadSettings;
using Zun::Testing::Notification;
using ZunTest::MessageOf;

ThreadSettings Settings(const char* name, std::function<void(void*)> body)
{
    return ThreadSettings(name, 0, 0, 0, ThreadDelegate(std::move(body)));
}

// A body that announces itself and runs until released.
struct HeldBody
{
    Notification entered;
    Notification release;
    std::atomic<bool> finished{false};
    void* seenArgument = nullptr;

    std::function<void(void*)> Function()
    {
        return [this](void* argument) {
            seenArgument = argument;
            entered.Notify();
            release.WaitFor();
            finished = true;
        };
    }
};

// The state reads 0 or 2 only: 2 from Start until the body returns.
TEST(ThreadTest, StateAndStartJoinRulesFollowTheBody)
{
    HeldBody body;
    int argument = 0;
    Thread thread(Settings("Held", body.Function()), &argument);
    EXPECT_EQ(thread.GetState(), 0);
    EXPECT_FALSE(thread.IsJoinable());

    thread.Start();
    EXPECT_EQ(thread.GetState(), 2);
    ASSERT_TRUE(body.entered.WaitFor());
    EXPECT_EQ(thread.GetState(), 2);
    EXPECT_TRUE(thread.IsJoinable());
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { thread.Start(); }), "Thread 'Held' was already started.");

    body.release.Notify();
    thread.Join();
    EXPECT_EQ(thread.GetState(), 0);
    EXPECT_FALSE(thread.IsJoinable());
    EXPECT_EQ(body.seenArgument, &argument);
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { thread.Join(); }), "Thread 'Held' is not joinable.");
}

TEST(ThreadTest, NameIsCutTo15BytesAndABodyExceptionIsLogged)
{
    Zun::Testing::LogCapture capture(1);
    char name[32] = {};
    Thread named(Settings("SUUpdateStatusWithALongTail", [&](void*) { ::pthread_getname_np(::pthread_self(), name, sizeof(name)); }));
    named.Start();
    named.Join();
    EXPECT_STREQ(name, "SUUpdateStatusW");

    Thread failing(Settings("Failing", [](void*) { throw std::runtime_error("broken"); }));
    failing.Start();
    failing.Join();
    EXPECT_EQ(failing.GetState(), 0);
    EXPECT_EQ(capture.Messages(1), std::vector<Zun::String>{"Thread 'Failing' ended by an exception: broken"});
}

} // namespace
