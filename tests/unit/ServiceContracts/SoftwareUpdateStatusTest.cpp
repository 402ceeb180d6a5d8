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

TEST(SoftwareUpdateStatusTest, ErrorStateWritesTheExactSequence)
{
    const Bytes expected = {
        19, 2, 6, 0, 0, 0, 'f', 'a', 'i', 'l', 'e', 'd', // ErrorMessage
        8,  0xFE, 0xFF, 0xFF, 0xFF,                       // StatusWord1
        8,  4, 3, 2, 1,                                   // StatusWord2
        8,  2, 0, 0, 0,                                   // InstallationState Error
        2,  1,                                            // StatusFlag
    };
    EXPECT_EQ(Write(ErrorStatus()), expected);
    EXPECT_EQ(Read<SoftwareUpdateStatus>(expected), ErrorStatus());
}

TEST(SoftwareUpdateStatusTest, AnyNonZeroFlagByteReadsAsTrue)
{
    const Bytes data = WireBytes().Text("").Int32(0).Int32(0).Int32(1).Tag(Zun::System::Rsc::RscType::Bool).Byte(0x80).bytes;
    const auto status = Read<SoftwareUpdateStatus>(data);
    EXPECT_TRUE(status.StatusFlag);
    EXPECT_EQ(status.InstallationState, InstallationState::Installing);
}

TEST(SoftwareUpdateStatusTest, TruncatedStreamsFailAsStreamFaults)
{
    ExpectEveryPrefixFails<SoftwareUpdateStatus>(Write(ErrorStatus()));
}

} // namespace
