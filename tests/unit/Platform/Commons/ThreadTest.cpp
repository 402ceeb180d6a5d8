#include <pthread.h>

#include <atomic>
#include <memory>

#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Thread.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"

namespace
{

using Zun::String;
using Zun::System::Commons::ArgumentException;
using Zun::System::Commons::InvalidOperationException;
using Zun::System::Commons::Threading::Thread;
using Zun::System::Commons::Threading::ThreadDelegate;
using Zun::System::Commons::Threading::ThreadSettings;
using Zun::Testing::Notification;

ThreadSettings Settings(const char* name, std::function<void(void*)> body)
{
    return ThreadSettings(name, 0, 0, 0, ThreadDelegate(std::move(body)));
}

template <class F>
String InvalidOperationMessage(F&& call)
{
    try
    {
        call();
    }
    catch (const InvalidOperationException& e)
    {
        return e.GetMessage();
    }
    return "no exception";
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

TEST(ThreadTest, StateFollowsTheBody)
{
    HeldBody body;
    int argument = 0;
    Thread thread(Settings("Held", body.Function()), &argument);
    EXPECT_EQ(thread.GetState(), Thread::StateNotActive);
    EXPECT_FALSE(thread.IsJoinable());

    thread.Start();
    EXPECT_EQ(thread.GetState(), Thread::StateRunning);
    ASSERT_TRUE(body.entered.WaitFor());
    EXPECT_EQ(thread.GetState(), Thread::StateRunning);
    EXPECT_TRUE(thread.IsJoinable());
    EXPECT_EQ(InvalidOperationMessage([&] { thread.Start(); }), "Thread 'Held' was already started.");

    body.release.Notify();
    thread.Join();
    EXPECT_EQ(thread.GetState(), Thread::StateNotActive);
    EXPECT_FALSE(thread.IsJoinable());
    EXPECT_EQ(body.seenArgument, &argument);
    EXPECT_EQ(InvalidOperationMessage([&] { thread.Join(); }), "Thread 'Held' is not joinable.");
}

TEST(ThreadTest, JoinRules)
{
    Thread never(Settings("Never", [](void*) {}));
    EXPECT_EQ(InvalidOperationMessage([&] { never.Join(); }), "Thread 'Never' is not joinable.");

    Notification done;
    String ownJoin;
    Thread* self = nullptr;
    Thread thread(Settings("Self", [&](void*) {
        ownJoin = InvalidOperationMessage([&] { self->Join(); });
        done.Notify();
    }));
    self = &thread;
    thread.Start();
    ASSERT_TRUE(done.WaitFor());
    thread.Join();
    EXPECT_EQ(ownJoin, "Thread 'Self' cannot join itself.");
}

TEST(ThreadTest, DestructorWaitsForARunningBody)
{
    HeldBody body;
    auto thread = std::make_unique<Thread>(Settings("Waited", body.Function()));
    thread->Start();
    ASSERT_TRUE(body.entered.WaitFor());
    body.release.Notify();
    thread.reset();
    EXPECT_TRUE(body.finished);
}

TEST(ThreadTest, DestroyedFromItsOwnBody)
{
    Notification done;
    Thread* owned = nullptr;
    // The body deletes its own object: the thread detaches instead of joining itself.
    owned = new Thread(Settings("Owner", [&](void*) {
        delete owned;
        done.Notify();
    }));
    owned->Start();
    EXPECT_TRUE(done.WaitFor());
}

TEST(ThreadTest, NameIsSetAndCutTo15Bytes)
{
    char name[32] = {};
    Thread thread(Settings("SUUpdateStatusWithALongTail", [&](void*) { ::pthread_getname_np(::pthread_self(), name, sizeof(name)); }));
    thread.Start();
    thread.Join();
    EXPECT_STREQ(name, "SUUpdateStatusW");
    EXPECT_EQ(thread.GetName(), "SUUpdateStatusWithALongTail");
}

TEST(ThreadTest, EmptyBodyIsRefused)
{
    try
    {
        Thread thread(ThreadSettings("Empty", 0, 0, 0, ThreadDelegate()));
        FAIL() << "no exception";
    }
    catch (const ArgumentException& e)
    {
        EXPECT_EQ(e.GetMessage(), "Thread function is empty (argument 'settings', value 'Empty')");
    }
}

TEST(ThreadTest, BodyExceptionIsLoggedAndEndsTheThread)
{
    Zun::Testing::LogCapture capture(1);
    Thread thread(Settings("Failing", [](void*) { throw std::runtime_error("broken"); }));
    thread.Start();
    thread.Join();
    EXPECT_EQ(thread.GetState(), Thread::StateNotActive);
    EXPECT_TRUE(capture.Contains(1, "Thread 'Failing' ended by an exception: broken"));
}

TEST(ThreadTest, SleepGoesThroughTheSeam)
{
    {
        Zun::Testing::ManualSleep sleep(true);
        Thread::Sleep(1000);
        Thread::Sleep(5);
        EXPECT_EQ(sleep.Durations(), (std::vector<std::uint32_t>{1000, 5}));
    }
    // The real pause, without a seam.
    Thread::Sleep(0);
}

} // namespace
