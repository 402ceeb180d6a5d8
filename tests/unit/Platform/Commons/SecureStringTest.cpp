#include <cerrno>

#include <gtest/gtest.h>

#include "Zun/Commons/SecureString.hpp"

namespace
{

using Zun::SecureStrncpy;

static_assert(!fmt::is_formattable<Zun::SecureString<8>>::value, "a secret must not be formattable");

TEST(SecureStrncpyTest, CopiesTerminatesAndReports)
{
    struct Case
    {
        const char* source;
        std::size_t destinationSize;
        std::size_t count;
        int result;
        const char* expected;
    };
    const Case cases[] = {
        {"abc", 4, 10, 0, "abc"},       // exact fit
        {"abcd", 4, 10, ERANGE, "abc"}, // cut, still terminated
        {"abcdef", 8, 2, 0, "ab"},      // count limits
        {"", 8, 5, 0, ""},
        {"abc", 1, 3, ERANGE, ""},
        {nullptr, 8, 3, EINVAL, ""}, // destination emptied
        {"abc", 0, 3, EINVAL, "xxx"}, // no room: destination untouched
    };
    for (const Case& c : cases)
    {
        char destination[8] = {'x', 'x', 'x', '\0'};
        EXPECT_EQ(SecureStrncpy(destination, c.destinationSize, c.source, c.count), c.result) << c.expected;
        EXPECT_STREQ(destination, c.expected);
    }
    EXPECT_EQ(SecureStrncpy(nullptr, 4, "abc", 3), EINVAL);
}

} // namespace
