#include <chrono>

#include <gtest/gtest.h>

#include "Zun/Commons/DateTime.hpp"

namespace
{

using Zun::DateTime;
using Zun::DateTimeKind;

TEST(DateTimeTest, KindLivesInTheTopTwoBits)
{
    const DateTime local(123, DateTimeKind::Local);
    EXPECT_EQ(local.ToBinary(), (2ull << 62) | 123u);
    EXPECT_EQ(local.GetTicks(), 123);
    EXPECT_EQ(local.GetKind(), DateTimeKind::Local);
    // Ticks that reach into the kind bits are masked, not mixed into the kind.
    const DateTime masked(-1, DateTimeKind::Unspecified);
    EXPECT_EQ(masked.GetKind(), DateTimeKind::Unspecified);
    EXPECT_EQ(static_cast<std::uint64_t>(masked.GetTicks()), DateTime::TicksMask);
}

TEST(DateTimeTest, BinaryRoundTrip)
{
    const DateTime original = DateTime::FromUnixTimeMilliseconds(1'795'000'000'123);
    const DateTime copy = DateTime::FromBinary(original.ToBinary());
    EXPECT_EQ(copy, original);
    EXPECT_EQ(copy.GetKind(), DateTimeKind::Utc);
    EXPECT_EQ(copy.ToUnixTimeMilliseconds(), 1'795'000'000'123);
    EXPECT_EQ(DateTime::FromUnixTimeMilliseconds(0).GetTicks(), DateTime::UnixEpochTicks);
}

TEST(DateTimeTest, UtcNowIsUtcAndCurrent)
{
    const auto before = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    const DateTime now = DateTime::GetUtcNow();
    const auto after = std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    EXPECT_EQ(now.GetKind(), DateTimeKind::Utc);
    EXPECT_GE(now.ToUnixTimeMilliseconds(), before);
    EXPECT_LE(now.ToUnixTimeMilliseconds(), after);
}

} // namespace
