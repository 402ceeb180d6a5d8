#include <gtest/gtest.h>

#include <thread>

#include "Zun/Commons/Thread.hpp"
#include "Zun/Testing/Latch.hpp"
#include "Zun/Testing/ManualSleep.hpp"

namespace Zun::Testing
{
namespace
{

using System::Commons::Threading::Thread;

TEST(ManualSleepTest, SleepsBlockUntilReleasedOneByOne)
{
    auto sleep = std::make_unique<ManualSleep>();
    Notification firstWoke;
    Notification secondWoke;
    std::thread sleeper([&] {
        Thread::Sleep(1000);
        firstWoke.Notify();
        Thread::Sleep(20);
        secondWoke.Notify();
        Thread::Sleep(30); // released by the seam's destruction
    });
    ASSERT_TRUE(sleep->WaitForSleeps(1));
    EXPECT_EQ(sleep->SleepsInProgress(), 1u);
    EXPECT_FALSE(firstWoke.HasBeenNotified());

    sleep->Release(1);
    ASSERT_TRUE(firstWoke.WaitFor());
    ASSERT_TRUE(sleep->WaitForSleeps(2));
    EXPECT_FALSE(secondWoke.HasBeenNotified());
    sleep->Release(1);
    ASSERT_TRUE(sleep->WaitForSleeps(3));
    EXPECT_TRUE(secondWoke.HasBeenNotified());
    EXPECT_EQ(sleep->Durations(), (std::vector<std::uint32_t>{1000, 20, 30}));
    sleep.reset();
    sleeper.join();
}

} // namespace
} // namespace Zun::Testing
