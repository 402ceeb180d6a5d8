#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "Zun/SoftwareUpdate/StatusCode.hpp"

namespace
{

using namespace Zun::Services::SoftwareUpdate;

TEST(StatusCodeTest, NamesTheKnownCodesAndPrintsOthersInHex)
{
    const std::pair<StatusCode, const char*> named[] = {
        {0x00000000, "Good"},
        {0x80010000, "Bad_UnexpectedError"},
        {0x80020000, "Bad_InternalError"},
        {0x800A0000, "Bad_Timeout"},
        {0x80310000, "Bad_NoCommunication"},
        {0x803D0000, "Bad_NotSupported"},
        {0x803E0000, "Bad_NotFound"},
        {0x80AB0000, "Bad_InvalidArgument"},
        {0x80AF0000, "Bad_InvalidState"},
    };
    for (const auto& [code, name] : named)
    {
        ASSERT_NE(StatusCodes::GetName(code), nullptr) << name;
        EXPECT_STREQ(StatusCodes::GetName(code), name);
        EXPECT_EQ(StatusCodes::ToString(code), name);
    }
    EXPECT_EQ(StatusCodes::GetName(0x80AA0000), nullptr);
    EXPECT_EQ(StatusCodes::ToString(0x80AA0000), "0x80AA0000");
    EXPECT_EQ(StatusCodes::ToString(0x1), "0x00000001");
}

} // namespace
