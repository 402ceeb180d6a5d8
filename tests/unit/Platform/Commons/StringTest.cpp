#include <unordered_set>

#include <gtest/gtest.h>

#include "Zun/Commons/String.hpp"

namespace
{

using Zun::String;

TEST(StringTest, HashUsableInUnorderedSet)
{
    std::unordered_set<String> names;
    names.insert(String("Generic files / a"));
    names.insert(String("Generic files / a"));
    names.insert(String("Generic files / b"));
    EXPECT_EQ(names.size(), 2u);
    EXPECT_EQ(names.count(String("Generic files / b")), 1u);
    EXPECT_EQ(names.count(String("generic files / b")), 0u);
}

TEST(StringTest, FormatsWithPositionalAndWidth)
{
    const String name("app");
    EXPECT_EQ(fmt::format("{0}|{0}|{0:>5}", name), "app|app|  app");
    // Embedded zero bytes belong to the string and are formatted as well.
    const String withZero(std::string("a\0b", 3));
    EXPECT_EQ(fmt::format("{}", withZero).size(), 3u);
}

} // namespace
