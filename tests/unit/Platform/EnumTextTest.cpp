#include <sstream>
#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Zun/SoftwareManager/InstallationState.hpp"
#include "Zun/SoftwareManager/SoftwareKind.hpp"
#include "Zun/SoftwareUpdate/InstallationState.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"

namespace
{

namespace Sm = Zun::Services::SoftwareManager::Services::Internal;
namespace Su = Zun::Services::SoftwareUpdate;

// What operator<< writes, followed by "!" when it failed the stream.
template <class E>
std::string Print(int value)
{
    std::ostringstream stream;
    stream << static_cast<E>(value);
    return stream.str() + (stream.fail() ? "!" : "");
}

TEST(EnumTextTest, NamesKnownValuesAndHandlesOthers)
{
    const auto kind = Print<Sm::SoftwareKind>;
    const auto managerState = Print<Sm::InstallationState>;
    const auto updateState = Print<Su::Services::Internal::InstallationState>;
    const auto code = [](Su::StatusCode c) { return std::string(Su::StatusCodes::ToString(c)); };
    // A known value of each, and what each does with one it does not know.
    const std::pair<std::string, const char*> cases[] = {
        {kind(2), "Tesmora Engineer project"}, {kind(3), "!"}, {managerState(6), "ActivatingFailed"}, {managerState(7), "7"},
        {managerState(-1), "-1"}, {updateState(2), "Error"}, {updateState(3), "!"}, {updateState(-1), "!"},
        {code(0x00000000), "Good"}, {code(0x803E0000), "Bad_NotFound"}, {code(0x80AA0000), "0x80AA0000"}, {code(0x1), "0x00000001"},
    };
    for (const auto& [actual, expected] : cases)
    {
        EXPECT_EQ(actual, expected);
    }
    EXPECT_STREQ(Su::StatusCodes::GetName(0x803E0000), "Bad_NotFound");
    EXPECT_EQ(Su::StatusCodes::GetName(0x80AA0000), nullptr);
}

} // namespace
