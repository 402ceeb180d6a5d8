#include <gtest/gtest.h>

#include <memory>
#include <thread>

#include "Zun/Commons/Thread.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/ManualSleep.hpp"

namespace Zun::Testing
{
namespace
{

using System::Commons::Threading::Thread;

TEST(ManualSleepTest, SleeperBlocksUntilReleased)
{
    ManualSleep sleep;
    Notification woke;
    std::thread sleeper([&] {
        Thread::Sleep(1000);
        woke.Notify();
    });

    ASSERT_TRUE(sleep.WaitForSleeps(1));
    EXPECT_EQ(sleep.SleepsInProgress(), 1u);
    EXPECT_FALSE(woke.HasBeenNotified());

    sleep.Release();
    EXPECT_TRUE(woke.WaitFor());
    sleeper.join();
    EXPECT_EQ(sleep.SleepsInProgress(), 0u);
    EXPECT_EQ(sleep.Durations(), (std::vector<std::uint32_t>{1000}));
}

TEST(ManualSleepTest, ReleaseLetsExactlyThatManySleepsReturn)
{
    ManualSleep sleep;
    Latch twoWoke(2);
    Notification thirdWoke;
    std::thread sleeper([&] {
        Thread::Sleep(10);
        twoWoke.CountDown();
        Thread::Sleep(20);
        twoWoke.CountDown();
        Thread::Sleep(30);
        thirdWoke.Notify();
    });

    sleep.Release(2);
    ASSERT_TRUE(twoWoke.WaitFor(std::chrono::seconds(20)));
    ASSERT_TRUE(sleep.WaitForSleeps(3));
    EXPECT_FALSE(thirdWoke.HasBeenNotified());
    sleep.Release();
    sleeper.join();
    EXPECT_EQ(sleep.Durations(), (std::vector<std::uint32_t>{10, 20, 30}));
}

TEST(ManualSleepTest, AutomaticModeReturnsAtOnceAndStillRecords)
{
    ManualSleep sleep(true);
    Thread::Sleep(60'000);
    Thread::Sleep(1);
    EXPECT_EQ(sleep.SleepsBegun(), 2u);
    EXPECT_EQ(sleep.Durations(), (std::vector<std::uint32_t>{60'000, 1}));
}

TEST(ManualSleepTest, SwitchingToAutomaticOrDestroyingReleasesBlockedSleepers)
{
    for (bool destroy : {false, true})
    {
        auto sleep = std::make_unique<ManualSleep>();
        std::thread sleeper([] { Thread::Sleep(1000); });
        ASSERT_TRUE(sleep->WaitForSleeps(1));
        if (destroy)
        {
            sleep.reset();
        }
        else
        {
            sleep->SetAutomatic(true);
        }
        sleeper.join();
    }
}

TEST(ManualSleepTest, WaitForSleepsGivesUpAfterItsTimeOut)
{
    ManualSleep sleep;
    EXPECT_FALSE(sleep.WaitForSleeps(1, std::chrono::milliseconds(0)));
}

} // namespace
} // namespace Zun::Testing
