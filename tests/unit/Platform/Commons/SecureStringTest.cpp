#include <cerrno>
#include <new>

#include <gtest/gtest.h>

#include "Zun/Commons/SecureString.hpp"

namespace
{

using Zun::SecureString;
using Zun::SecureStrncpy;

static_assert(!fmt::is_formattable<SecureString<8>>::value, "a secret must not be formattable");

TEST(SecureStringTest, BytesWipedOnDestruction)
{
    alignas(SecureString<16>) unsigned char buffer[sizeof(SecureString<16>)];
    auto* secret = new (buffer) SecureString<16>("top-secret");
    ASSERT_STREQ(secret->CStr(), "top-secret");
    secret->~SecureString<16>();
    for (unsigned char byte : buffer)
    {
        EXPECT_EQ(byte, 0u);
    }
}

TEST(SecureStringTest, CopyAndAssignKeepTheText)
{
    const SecureString<16> original("key");
    SecureString<16> copy(original);
    EXPECT_STREQ(copy.CStr(), "key");
    SecureString<16> assigned("other-longer");
    assigned = original;
    EXPECT_STREQ(assigned.CStr(), "key");
    EXPECT_EQ(assigned.Length(), 3u);
}

TEST(SecureStringTest, LongTextIsCutToCapacity)
{
    const SecureString<4> secret("abcdef");
    EXPECT_STREQ(secret.CStr(), "abc");
    EXPECT_EQ(secret.Length(), 3u);
    EXPECT_EQ(SecureString<4>::Capacity(), 4u);
}

struct StrncpyCase
{
    const char* source;
    std::size_t destinationSize;
    std::size_t count;
    int result;
    const char* expected;
};

class SecureStrncpyTest : public ::testing::TestWithParam<StrncpyCase>
{
};

TEST_P(SecureStrncpyTest, CopiesTerminatesAndReports)
{
    const StrncpyCase& c = GetParam();
    char destination[8];
    std::memset(destination, 'x', sizeof(destination));
    EXPECT_EQ(SecureStrncpy(destination, c.destinationSize, c.source, c.count), c.result);
    EXPECT_STREQ(destination, c.expected);
}

INSTANTIATE_TEST_SUITE_P(Cases, SecureStrncpyTest,
                         ::testing::Values(StrncpyCase{"abc", 4, 10, 0, "abc"},     // exact fit
                                           StrncpyCase{"abcd", 4, 10, ERANGE, "abc"}, // cut, still terminated
                                           StrncpyCase{"abcdef", 8, 2, 0, "ab"},    // count limits
                                           StrncpyCase{"", 8, 5, 0, ""},
                                           StrncpyCase{"abc", 1, 3, ERANGE, ""},
                                           StrncpyCase{nullptr, 8, 3, EINVAL, ""})); // destination emptied

TEST(SecureStrncpyErrorsTest, NoDestinationOrCapacity)
{
    char destination[4] = {'x', 'x', 'x', 'x'};
    EXPECT_EQ(SecureStrncpy(nullptr, 4, "abc", 3), EINVAL);
    EXPECT_EQ(SecureStrncpy(destination, 0, "abc", 3), EINVAL);
    EXPECT_EQ(destination[0], 'x');
}

} // namespace
