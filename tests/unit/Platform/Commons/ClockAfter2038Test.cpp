// Time after 19 January 2038, when a 32-bit time_t runs out. The stamp cases always run; the clock
// cases run when the realtime clock is shifted past 2038 (the ClockAfter2038 test in
// tests/CMakeLists.txt preloads tests/clock into this program), and are skipped otherwise.
#include <cstdlib>

#include <gtest/gtest.h>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/StandardErrorSink.hpp"
#include "Zun/Testing/TimeScale.hpp"

namespace
{

using namespace Zun::System::Commons::Diagnostics::Logging;
using Zun::DateTime;

constexpr std::int64_t Year2040Milliseconds = 2'208'988'800'000; // 2040-01-01T00:00:00Z

std::string LogLineAt(const DateTime& stamp)
{
    ::testing::internal::CaptureStderr();
    StandardErrorSink().Write(LogRecord{"Zun::Clock", 3, "tick", stamp});
    return ::testing::internal::GetCapturedStderr();
}

TEST(ClockAfter2038Test, LogStampsAfter2038KeepTheirDate)
{
    EXPECT_EQ(LogLineAt(DateTime::FromUnixTimeMilliseconds(Year2040Milliseconds + 123)), "2040-01-01T00:00:00.123Z 3 Zun::Clock: tick\n");
    EXPECT_EQ(LogLineAt(DateTime::FromUnixTimeMilliseconds(2'147'483'648'000)), "2038-01-19T03:14:08.000Z 3 Zun::Clock: tick\n");
}

TEST(ClockAfter2038Test, TheClockAndItsLogStampCountPast2038)
{
    const char* shiftedTo = std::getenv("ZUN_CLOCK_SHIFT_TO");
    if (shiftedTo == nullptr)
    {
        GTEST_SKIP() << "the realtime clock is not shifted";
    }
    ASSERT_EQ(std::atoll(shiftedTo) * 1000, Year2040Milliseconds) << "the clock cases expect the clock shifted to 2040";
    const std::int64_t until = Year2040Milliseconds + Zun::Testing::Patience().count();

    const DateTime now = DateTime::GetUtcNow();
    EXPECT_GE(now.ToUnixTimeMilliseconds(), Year2040Milliseconds);
    EXPECT_LE(now.ToUnixTimeMilliseconds(), until);
    EXPECT_EQ(LogLineAt(now).substr(0, 14), "2040-01-01T00:");
}

} // namespace
