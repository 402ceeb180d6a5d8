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

TEST(FrameCodecTest, HeaderRoundTripsInLittleEndian)
{
    const auto frame = EncodeFrame(FrameType::Error, Operation::ResumeInstallation, 0x01020304u, {9, 8, 7});
    EXPECT_EQ(frame, (Bytes{'Z', 'S', 'M', 'F', 1, 3, 8, 0, 4, 3, 2, 1, 3, 0, 0, 0, 9, 8, 7}));
    const FrameHeader header = DecodeFrameHeader(frame.data(), frame.size());
    EXPECT_EQ(FrameType::Error, header.type);
    EXPECT_EQ(Operation::ResumeInstallation, header.operation);
    EXPECT_EQ(0x01020304u, header.requestId);
    EXPECT_EQ(3u, header.payloadLength);
}

TEST(FrameCodecTest, FaultyHeadersAreRefusedWithTheirReason)
{
    const auto good = EncodeFrame(FrameType::Request, Operation::GetInstallationState, 1, {});
    const std::tuple<std::size_t, std::uint8_t, const char*> cases[] = {
        {0, 'X', "Bad frame magic 0x464D5358."}, {4, 2, "Unsupported frame version 2."}, {5, 0, "Unknown frame type 0."},
        {5, 4, "Unknown frame type 4."}, {6, 9, "Unknown operation 9."},
        {15, 1, "Frame payload of 16777216 bytes exceeds the limit of 4194304 bytes."},
    };
    for (const auto& [offset, value, message] : cases)
    {
        auto bytes = good;
        bytes[offset] = value;
        EXPECT_EQ(MessageOf<RemotingException>([&] { DecodeFrameHeader(bytes.data(), bytes.size()); }), message);
    }
    EXPECT_THROW(DecodeFrameHeader(good.data(), FrameHeaderSize - 1), RemotingException);
    EXPECT_THROW(EncodeFrame(FrameType::Response, Operation::None, 1, Bytes(MaxPayloadSize + 1)), RemotingException);
    EXPECT_NO_THROW(DecodeFrameHeader(EncodeFrame(FrameType::Response, Operation::None, 1, Bytes(MaxPayloadSize)).data(), FrameHeaderSize));
}

SoftwareInformation FullRecord(const char* name)
{
    SoftwareInformation information;
    information.Name = Zun::String(name);
    information.Kind = SoftwareKind::TesmoraEngineerProject;
    information.HasPendingManifest = true;
    for (Manifest* manifest : {&information.CurrentManifest, &information.PendingManifest})
    {
        manifest->ReleaseDate = Zun::DateTime::FromUnixTimeMilliseconds(1'700'000'000'000);
        manifest->TextList.emplace_back("line");
        manifest->Tags.emplace_back("k", "v");
    }
    return information;
}

TEST(FrameCodecTest, RecordsAndListsRoundTripAndAnImpossibleCountIsRefused)
{
    Bytes payload;
    Zun::System::Rsc::RemotingWriter writer(payload);
    WriteStatus(writer, StatusCodes::BadNotFound);
    WriteRecord(writer, FullRecord("one"));
    WriteRecordList(writer, {FullRecord("two"), FullRecord("three")});
    Zun::System::Rsc::RemotingReader reader(payload.data(), payload.size());
    EXPECT_EQ(StatusCodes::BadNotFound, ReadStatus(reader));
    SoftwareInformation one;
    ReadRecord(reader, one);
    EXPECT_EQ(FullRecord("one"), one);
    std::vector<SoftwareInformation> list;
    ReadRecordList(reader, list);
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(FullRecord("three"), list[1]);
    EXPECT_NO_THROW(ExpectEnd(reader));

    Bytes empty;
    Zun::System::Rsc::RemotingWriter emptyWriter(empty);
    WriteRecordList(emptyWriter, {});
    empty.back() = 0x7F; // count 127 with no bytes behind it
    Zun::System::Rsc::RemotingReader emptyReader(empty.data(), empty.size());
    list.clear();
    EXPECT_EQ(MessageOf<RemotingException>([&] { ReadRecordList(emptyReader, list); }),
              "A list of 127 records cannot fit in the remaining 0 bytes.");
    EXPECT_TRUE(list.empty());
}

TEST(FrameCodecTest, ErrorPayloadCarriesStatusAndMessageCutToTheWireLimit)
{
    const ErrorPayload denied = DecodeErrorPayload(EncodeErrorPayload(StatusCodes::BadUserAccessDenied, "denied"));
    EXPECT_EQ(StatusCodes::BadUserAccessDenied, denied.status);
    EXPECT_EQ("denied", denied.message);
    EXPECT_EQ(Zun::String(511, 'm'), DecodeErrorPayload(EncodeErrorPayload(StatusCodes::BadInternalError, Zun::String(600, 'm'))).message);
    auto trailing = EncodeErrorPayload(StatusCodes::BadInternalError, "x");
    trailing.push_back(0);
    EXPECT_THROW(DecodeErrorPayload(trailing), RemotingException);
}

} // namespace
