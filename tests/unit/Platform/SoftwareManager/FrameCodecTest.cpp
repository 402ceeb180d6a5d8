#include <gtest/gtest.h>

#include "Zun/Rsc/RemotingException.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"

namespace
{

using namespace Zun::Services::SoftwareManager::Services::Internal;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;
using Zun::System::Rsc::RemotingException;
using Zun::System::Rsc::RemotingReader;
using Zun::System::Rsc::RemotingWriter;

TEST(FrameCodecTest, HeaderRoundTripsInLittleEndian)
{
    const auto frame = EncodeFrame(FrameType::Error, Operation::ResumeInstallation, 0x01020304u, {9, 8, 7});
    ASSERT_EQ(FrameHeaderSize + 3, frame.size());
    EXPECT_EQ(std::vector<std::uint8_t>({'Z', 'S', 'M', 'F', 1, 3, 8, 0, 4, 3, 2, 1, 3, 0, 0, 0}),
              std::vector<std::uint8_t>(frame.begin(), frame.begin() + FrameHeaderSize));
    const FrameHeader header = DecodeFrameHeader(frame.data(), frame.size());
    EXPECT_EQ(FrameType::Error, header.type);
    EXPECT_EQ(Operation::ResumeInstallation, header.operation);
    EXPECT_EQ(0x01020304u, header.requestId);
    EXPECT_EQ(3u, header.payloadLength);
}

TEST(FrameCodecTest, FaultyHeadersAreRefusedWithTheirReason)
{
    const auto good = EncodeFrame(FrameType::Request, Operation::GetInstallationState, 1, {});
    struct Case
    {
        std::size_t offset;
        std::uint8_t value;
        const char* message;
    };
    const Case cases[] = {
        {0, 'X', "Bad frame magic 0x464D5358."},
        {4, 2, "Unsupported frame version 2."},
        {5, 0, "Unknown frame type 0."},
        {5, 4, "Unknown frame type 4."},
        {6, 9, "Unknown operation 9."},
        {15, 1, "Frame payload of 16777216 bytes exceeds the limit of 4194304 bytes."},
    };
    for (const Case& c : cases)
    {
        auto bytes = good;
        bytes[c.offset] = c.value;
        try
        {
            DecodeFrameHeader(bytes.data(), bytes.size());
            ADD_FAILURE() << c.message;
        }
        catch (const RemotingException& e)
        {
            EXPECT_EQ(c.message, e.GetMessage());
        }
    }
    EXPECT_THROW(DecodeFrameHeader(good.data(), FrameHeaderSize - 1), RemotingException);
    EXPECT_THROW(EncodeFrame(FrameType::Response, Operation::None, 1, std::vector<std::uint8_t>(MaxPayloadSize + 1)), RemotingException);
    EXPECT_NO_THROW(DecodeFrameHeader(EncodeFrame(FrameType::Response, Operation::None, 1, std::vector<std::uint8_t>(MaxPayloadSize)).data(), FrameHeaderSize));
}

SoftwareInformation FullRecord(const char* name)
{
    SoftwareInformation information;
    information.Name = Zun::String(name);
    information.Kind = SoftwareKind::TesmoraEngineerProject;
    information.HasPendingManifest = true;
    for (Manifest* manifest : {&information.CurrentManifest, &information.PendingManifest})
    {
        manifest->Version = Zun::String("4.2");
        manifest->ReleaseDate = Zun::DateTime::FromUnixTimeMilliseconds(1'700'000'000'000);
        manifest->TextList.emplace_back("line");
        manifest->Tags.emplace_back("k", "v");
    }
    return information;
}

TEST(FrameCodecTest, RecordsAndListsRoundTrip)
{
    std::vector<std::uint8_t> payload;
    RemotingWriter writer(payload);
    WriteStatus(writer, StatusCodes::BadNotFound);
    WriteRecord(writer, FullRecord("one"));
    WriteRecordList(writer, {FullRecord("two"), FullRecord("three")});

    RemotingReader reader(payload.data(), payload.size());
    EXPECT_EQ(StatusCodes::BadNotFound, ReadStatus(reader));
    SoftwareInformation one;
    ReadRecord(reader, one);
    EXPECT_EQ(FullRecord("one"), one);
    std::vector<SoftwareInformation> list;
    ReadRecordList(reader, list);
    ASSERT_EQ(2u, list.size());
    EXPECT_EQ(FullRecord("three"), list[1]);
    EXPECT_NO_THROW(ExpectEnd(reader));
}

TEST(FrameCodecTest, AListCountThatCannotFitIsRefusedBeforeAllocating)
{
    std::vector<std::uint8_t> payload;
    RemotingWriter writer(payload);
    WriteRecordList(writer, {});
    payload[payload.size() - 4] = 0xFF; // count 255 with no bytes behind it
    RemotingReader reader(payload.data(), payload.size());
    std::vector<SoftwareInformation> list;
    try
    {
        ReadRecordList(reader, list);
        FAIL() << "no exception";
    }
    catch (const RemotingException& e)
    {
        EXPECT_EQ("A list of 255 records cannot fit in the remaining 0 bytes.", e.GetMessage());
    }
    EXPECT_TRUE(list.empty());
}

TEST(FrameCodecTest, ErrorPayloadCarriesStatusAndMessageCutToTheWireLimit)
{
    const ErrorPayload short_ = DecodeErrorPayload(EncodeErrorPayload(StatusCodes::BadUserAccessDenied, "denied"));
    EXPECT_EQ(StatusCodes::BadUserAccessDenied, short_.status);
    EXPECT_EQ("denied", short_.message);
    const ErrorPayload long_ = DecodeErrorPayload(EncodeErrorPayload(StatusCodes::BadInternalError, Zun::String(600, 'm')));
    EXPECT_EQ(Zun::String(511, 'm'), long_.message);
    auto trailing = EncodeErrorPayload(StatusCodes::BadInternalError, "x");
    trailing.push_back(0);
    EXPECT_THROW(DecodeErrorPayload(trailing), RemotingException);
}

} // namespace
