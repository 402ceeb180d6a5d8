#include <gtest/gtest.h>

#include "Zun/UpdateService/Protocol/Base64.hpp"

using Zun::Services::SoftwareUpdate::UpdateService::Protocol::Base64;

namespace
{

TEST(Base64, RoundTripsEveryTailLength)
{
    const std::vector<std::pair<std::string, std::string>> table = {
        {"", ""}, {"f", "Zg=="}, {"fo", "Zm8="}, {"foo", "Zm9v"}, {"foob", "Zm9vYg=="}, {std::string("\xFF\xFE\x00", 3), "//4A"}};
    for (const auto& [plain, text] : table)
    {
        const std::vector<std::uint8_t> bytes(plain.begin(), plain.end());
        EXPECT_EQ(text, Base64::Encode(bytes));
        std::vector<std::uint8_t> decoded;
        EXPECT_TRUE(Base64::Decode(text, decoded)) << text;
        EXPECT_EQ(bytes, decoded);
    }
}

TEST(Base64, RefusesAnythingButTheCanonicalForm)
{
    for (const char* text : {"Zg=", "Zg", "Z===", "Zh==", "Zm9=", "Zm 9v", "Zm9v\n", "Zg==Zg==", "Zm-_", "=Zm9"})
    {
        std::vector<std::uint8_t> decoded{1};
        EXPECT_FALSE(Base64::Decode(text, decoded)) << text;
        EXPECT_TRUE(decoded.empty()) << text;
    }
}

} // namespace
