#include <gtest/gtest.h>

#include "ServiceContracts/SoftwareUpdateStatus.hpp"
#include "WireBytes.hpp"

namespace
{

using namespace Zun::Testing::Wire;
using Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;

SoftwareUpdateStatus ErrorStatus()
{
    SoftwareUpdateStatus status;
    status.ErrorMessage = Zun::String("failed");
    status.StatusWord1 = -2;
    status.StatusWord2 = 0x01020304;
    status.InstallationState = InstallationState::Error;
    status.StatusFlag = true;
    return status;
}

TEST(SoftwareUpdateStatusTest, WritesTheExactSequenceAndReadsItBack)
{
    const Bytes expected = {
        19, 2, 6, 'f', 'a', 'i', 'l', 'e', 'd', // ErrorMessage
        8,  0xFE, 0xFF, 0xFF, 0xFF,                       // StatusWord1
        8,  4, 3, 2, 1,                                   // StatusWord2
        8,  2, 0, 0, 0,                                   // InstallationState Error
        2,  1,                                            // StatusFlag
    };
    EXPECT_EQ(Write(ErrorStatus()), expected);
    EXPECT_EQ(Read<SoftwareUpdateStatus>(expected), ErrorStatus());
    ExpectEveryPrefixFails<SoftwareUpdateStatus>(expected);
    // Any non-zero flag byte reads as true.
    EXPECT_TRUE(Read<SoftwareUpdateStatus>(WireBytes().Text("").Int32(0).Int32(0).Int32(1).Tag(RscType::Bool).Byte(0x80).bytes).StatusFlag);
}

TEST(SoftwareUpdateStatusTest, WrongTagStopsWithWhatWasRead)
{
    SoftwareUpdateStatus status;
    status.StatusWord2 = 7;
    const Bytes data = WireBytes().Text("read").Int32(-1).UInt32(5).Int32(0).Bool(true).bytes;
    EXPECT_EQ(ReadFailure<Zun::System::Rsc::RemotingException>(data, status), "Unexpected tag 9 where 8 was expected.");
    EXPECT_EQ(status.ErrorMessage.ToString(), "read");
    EXPECT_EQ(status.StatusWord1, -1);
    EXPECT_EQ(status.StatusWord2, 7);
}

} // namespace
