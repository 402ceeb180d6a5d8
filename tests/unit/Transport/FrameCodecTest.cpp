#include <gtest/gtest.h>

#include "../Platform/Expect.hpp"
#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"

namespace
{

using namespace Zun::Services::SoftwareManager::Services::Internal;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;
using Zun::System::Rsc::RemotingException;
using ZunTest::MessageOf;
using Bytes = std::vector<std::uint8_t>;

TEST(FrameCodecTest, HeaderRoundTripsInLittleEndianAndFaultyHeadersAreRefusedWithTheirReason)
{
    const auto frame = EncodeFrame(FrameType::Error, Operation::ResumeInstallation, 0x01020304u, {9, 8, 7});
    EXPECT_EQ(frame, (Bytes{'Z', 'S', 'M', 'F', 1, 3, 8, 0, 4, 3, 2, 1, 3, 0, 0, 0, 9, 8, 7}));
    const FrameHeader header = DecodeFrameHeader(frame.data(), frame.size());
    EXPECT_EQ(std::tie(header.type, header.operation, header.requestId, header.payloadLength),
              std::make_tuple(FrameType::Error, Operation::ResumeInstallation, 0x01020304u, 3u));

    const std::tuple<std::size_t, std::uint8_t, const char*> cases[] = {
        {0, 'X', "Bad frame magic 0x464D5358."}, {4, 2, "Unsupported frame version 2."},
        {5, 0, "Unknown frame type 0."},         {5, 4, "Unknown frame type 4."},
        {6, 9, "Unknown operation 9."},          {15, 1, "Frame payload of 16777219 bytes exceeds the limit of 4194304 bytes."},
    };
    for (const auto& [offset, value, message] : cases)
    {
        auto bytes = frame;
        bytes[offset] = value;
        EXPECT_EQ(MessageOf<RemotingException>([&] { DecodeFrameHeader(bytes.data(), bytes.size()); }), message);
    }
    EXPECT_THROW(DecodeFrameHeader(frame.data(), FrameHeaderSize - 1), RemotingException);
    EXPECT_THROW(EncodeFrame(FrameType::Response, Operation::None, 1, Bytes(MaxPayloadSize + 1)), RemotingException);
    EXPECT_NO_THROW(DecodeFrameHeader(EncodeFrame(FrameType::Response, Operation::None, 1, Bytes(MaxPayloadSize)).data(), FrameHeaderSize));
}

// Records round trip in the integration tests; here what a payload must refuse.
TEST(FrameCodecTest, AnImpossibleCountOrTrailingBytesAreRefusedAndTheErrorMessageIsCut)
{
    std::vector<SoftwareInformation> list;
    Bytes header;
    Zun::System::Rsc::RemotingWriter writer(header);
    WriteRecordList(writer, {});
    header.back() = 0x7F; // count 127 with no bytes behind it
    Zun::System::Rsc::RemotingReader reader(header.data(), header.size());
    EXPECT_EQ(MessageOf<RemotingException>([&] { ReadRecordList(reader, list); }),
              "A list of 127 records cannot fit in the remaining 0 bytes.");
    EXPECT_TRUE(list.empty());

    const ErrorPayload denied = DecodeErrorPayload(EncodeErrorPayload(StatusCodes::BadUserAccessDenied, "denied"));
    EXPECT_EQ(std::tie(denied.status, denied.message), std::make_tuple(StatusCodes::BadUserAccessDenied, Zun::String("denied")));
    EXPECT_EQ(Zun::String(511, 'm'), DecodeErrorPayload(EncodeErrorPayload(StatusCodes::BadInternalError, Zun::String(600, 'm'))).message);
    auto trailing = EncodeErrorPayload(StatusCodes::BadInternalError, "x");
    trailing.push_back(0);
    EXPECT_THROW(DecodeErrorPayload(trailing), RemotingException);
}

} // namespace
