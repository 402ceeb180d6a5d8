#include <unordered_set>

#include <gtest/gtest.h>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/String.hpp"

namespace
{

using Zun::DateTime;
using Zun::DateTimeKind;
using Zun::String;

TEST(StringTest, HashesForUnorderedSetAndFormatsWithFmt)
{
    const std::unordered_set<String> names{String("Generic files / a"), String("Generic files / a"), String("Generic files / b")};
    EXPECT_EQ(names.size(), 2u);
    EXPECT_EQ(names.count(String("generic files / b")), 0u);
    EXPECT_EQ(fmt::format("{0}|{0:>5}", String("app")), "app|  app");
    EXPECT_EQ(fmt::format("{}", String(std::string("a\0b", 3))).size(), 3u); // zero bytes belong to the string
}

TEST(DateTimeTest, KindLivesInTheTopTwoBitsAndSurvivesTheBinaryForm)
{
    const DateTime local(123, DateTimeKind::Local);
    EXPECT_EQ(local.ToBinary(), (2ull << 62) | 123u);
    EXPECT_EQ(local.GetTicks(), 123);
    const DateTime masked(-1, DateTimeKind::Unspecified); // ticks reaching into the kind bits are masked
    EXPECT_EQ(masked.GetKind(), DateTimeKind::Unspecified);
    EXPECT_EQ(static_cast<std::uint64_t>(masked.GetTicks()), DateTime::TicksMask);

    const DateTime original = DateTime::FromUnixTimeMilliseconds(1'795'000'000'123);
    EXPECT_EQ(DateTime::FromBinary(original.ToBinary()), original);
    EXPECT_EQ(original.GetKind(), DateTimeKind::Utc);
    EXPECT_EQ(original.ToUnixTimeMilliseconds(), 1'795'000'000'123);
    EXPECT_EQ(DateTime::FromUnixTimeMilliseconds(0).GetTicks(), DateTime::UnixEpochTicks);
}

TEST(DateTimeTest, UtcNowIsUtcAndCurrent)
{
    const auto millis = [] {
        return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::system_clock::now().time_since_epoch()).count();
    };
    const auto before = millis();
    const DateTime now = DateTime::GetUtcNow();
    EXPECT_EQ(now.GetKind(), DateTimeKind::Utc);
    EXPECT_GE(now.ToUnixTimeMilliseconds(), before);
    EXPECT_LE(now.ToUnixTimeMilliseconds(), millis());
}

} // namespace
