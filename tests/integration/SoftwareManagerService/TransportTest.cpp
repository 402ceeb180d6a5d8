// The proxy and the software manager process talking over the real socket: every operation, large
// records, a service that stops or stalls, restarts, and frames that are not right.
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>

#include <cstring>

#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace
{

using namespace Zun::Testing::Integration;
using namespace Manager;
using namespace Manager::Transport;
using Zun::System::Commons::InvalidOperationException;

const Text Alpha("Alpha");

class TransportTest : public ManagerFixture
{
};

TEST_F(TransportTest, EveryOperationReachesTheService)
{
    Pack("alpha-2.tar", "2.0.0", "two", R"(,"tags":[{"name":"channel","value":"stable"}],"textList":["a","b"],"updateBehavior":5)");
    StartService();
    auto proxy = MakeProxy(socket);
    Text text;
    ASSERT_EQ(StatusCodes::Good, proxy->GetPackageDirectory(text));
    EXPECT_EQ(fs::canonical(Incoming()).string(), text.ToString());
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("alpha-2.tar"), text));
    EXPECT_EQ("Package 'alpha-2.tar' staged: version 2.0.0.", text.ToString());

    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Alpha, information));
    EXPECT_EQ(Alpha, information.Name);
    EXPECT_EQ(SoftwareKind::GenericFiles, information.Kind);
    EXPECT_FALSE(information.HasCurrentManifest);
    EXPECT_EQ(Zun::DateTimeKind::Utc, information.CurrentManifest.ReleaseDate.GetKind()) << "an absent manifest still carries a UTC date";
    ASSERT_TRUE(information.HasPendingManifest);
    const auto& pending = information.PendingManifest;
    EXPECT_EQ("2.0.0", pending.Version.ToString());
    EXPECT_EQ("urn:zun:test", pending.ManufacturerUri.ToString());
    EXPECT_EQ(5u, pending.UpdateBehavior);
    EXPECT_EQ(Zun::DateTime::FromUnixTimeMilliseconds(1'793'536'200'000), pending.ReleaseDate);
    ASSERT_EQ(1u, pending.Tags.size());
    EXPECT_EQ("stable", pending.Tags[0].Value.ToString());
    EXPECT_EQ(2u, pending.TextList.size());

    ASSERT_EQ(StatusCodes::Good, proxy->RemoveSoftwarePackage(SoftwareKind::GenericFiles, Alpha));
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Alpha, information));
    EXPECT_FALSE(information.HasPendingManifest);
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha)) << "nothing is pending";
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Alpha)) << "nothing failed";
    InstallationState state = InstallationState::Preparing;
    // Unknown components and kinds are refused with status codes.
    EXPECT_EQ(StatusCodes::BadNotFound, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Gamma"), state, text));
    EXPECT_EQ(StatusCodes::BadNotFound, proxy->GetSoftwareInformation(SoftwareKind::TesmoraEngineerProject, Alpha, information));
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->GetInstallationState(static_cast<SoftwareKind>(7), Alpha, state, text));
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->StartInstallation(SoftwareKind::GenericFiles, Text("../generic-files/Alpha")));
}

TEST_F(TransportTest, AServiceThatStopsAnsweringTimesOutAndServesAgainWhenItGoesOn)
{
    StartService();
    // Expected to run out while the service is stopped, and not before: it answers the other calls.
    const std::uint32_t timeout = ScaledMilliseconds(300);
    auto proxy = MakeProxy(socket, timeout);
    InstallationState state = InstallationState::Copying;
    Text message;
    ASSERT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message));
    ASSERT_EQ(0, ::kill(manager.Pid(), SIGSTOP));
    // kill returns before the child has stopped; until it has, it may still answer.
    int stopped = 0;
    ASSERT_EQ(manager.Pid(), ::waitpid(manager.Pid(), &stopped, WUNTRACED));
    ASSERT_TRUE(WIFSTOPPED(stopped));
    EXPECT_EQ(StatusCodes::BadTimeout, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message));
    ExpectThrow<InvalidOperationException>([&] { proxy->GetAllSoftwareInformation(); },
                                           "GetAllSoftwareInformation failed with status 0x800A0000: The software manager service at '" +
                                               socket.string() + "' did not answer GetAllSoftwareInformation within " + std::to_string(timeout) + " ms.");
    ::kill(manager.Pid(), SIGCONT);
    // The late answers to the abandoned requests must not be taken for the next ones.
    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::TesmoraEngineerProject, Text("Beta"), information));
    EXPECT_EQ("Beta", information.Name.ToString());
    EXPECT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message));
}

// Records far above a socket buffer travel whole; a stopped service gives BadNoCommunication and
// leaves the results alone, and the proxy reconnects to the next one, also after a kill.
TEST_F(TransportTest, LargeRecordsTravelWholeAndTheProxyReconnectsAfterRestarts)
{
    std::string list = ",\"textList\":[";
    std::string tags = ",\"tags\":[";
    for (int i = 0; i < 1000; ++i)
    {
        list += (i ? ",\"" : "\"") + std::to_string(i) + std::string(500, 'x') + "\"";
        tags += std::string(i ? "," : "") + R"({"name":"n)" + std::to_string(i) + R"(","value":")" + std::string(500, 'v') + "\"}";
    }
    Pack("big.tar", "9.9.9", "big", list + "]" + tags + "]");
    StartService();
    auto proxy = MakeProxy(socket);
    Text message;
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("big.tar"), message)) << message.CStr();
    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Alpha, information));
    ASSERT_EQ(1000u, information.PendingManifest.TextList.size());
    ASSERT_EQ(1000u, information.PendingManifest.Tags.size());
    EXPECT_EQ("999" + std::string(500, 'x'), information.PendingManifest.TextList[999].ToString());
    EXPECT_EQ("n999", information.PendingManifest.Tags[999].Name.ToString());

    EXPECT_EQ(0, manager.Kill(SIGTERM));
    EXPECT_FALSE(fs::exists(socket)) << "a clean stop removes the socket";
    InstallationState state = InstallationState::Copying;
    message = Text("untouched");
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message));
    EXPECT_EQ(InstallationState::Copying, state);
    EXPECT_EQ("untouched", message.ToString());
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("p.tar"), message));
    const std::string unreachable = "The software manager service at '" + socket.string() + "' cannot be reached.";
    EXPECT_EQ(unreachable, message.ToString());
    ExpectThrow<InvalidOperationException>([&] { proxy->GetAllSoftwareInformation(); },
                                           "GetAllSoftwareInformation failed with status 0x80310000: " + unreachable);
    for (int signal : {SIGKILL, 0})
    {
        // A killed service leaves its socket behind; the next one replaces it.
        StartService();
        const auto all = proxy->GetAllSoftwareInformation();
        EXPECT_EQ(1, std::count(all.begin(), all.end(), information));
        if (signal != 0)
        {
            manager.Kill(signal);
        }
    }
}

std::vector<std::uint8_t> Header(std::uint32_t magic, std::uint8_t version, std::uint16_t operation, std::uint32_t length)
{
    std::vector<std::uint8_t> bytes(FrameHeaderSize);
    EncodeFrameHeader(FrameHeader{FrameType::Request, static_cast<Operation>(operation), 77, length}, bytes.data());
    std::memcpy(bytes.data(), &magic, 4);
    bytes[4] = version;
    return bytes;
}

TEST_F(TransportTest, BadFramesAreRefusedAndTheServiceGoesOn)
{
    StartService();
    const Deadline deadline = Clock::now() + Zun::Testing::Patience();
    // A bad header ends the connection with an error frame, since the stream cannot be resynchronised.
    const std::pair<std::vector<std::uint8_t>, const char*> headers[] = {
        {Header(0x12345678u, 1, 3, 0), "Bad frame magic 0x12345678."},
        {Header(FrameMagic, 9, 3, 0), "Unsupported frame version 9."},
        {Header(FrameMagic, 1, 99, 0), "Unknown operation 99."},
        {Header(FrameMagic, 1, 3, MaxPayloadSize + 1), "Frame payload of 4194305 bytes exceeds the limit of 4194304 bytes."},
    };
    for (const auto& [bytes, text] : headers)
    {
        SCOPED_TRACE(text);
        SocketChannel channel;
        ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, channel));
        ASSERT_EQ(IoResult::Ok, channel.SendFrame(bytes, deadline));
        Frame answer;
        ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(answer, deadline, deadline));
        EXPECT_EQ(FrameType::Error, answer.header.type);
        EXPECT_EQ(0u, answer.header.requestId);
        const ErrorPayload error = DecodeErrorPayload(answer.payload);
        EXPECT_EQ(StatusCodes::BadDecodingError, error.status);
        EXPECT_EQ(text, error.message);
        std::uint8_t byte = 0;
        EXPECT_EQ(IoResult::Closed, channel.ReceiveExact(&byte, 1, deadline));
    }
    {
        SocketChannel truncated;
        ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, truncated));
        auto frame = EncodeFrame(FrameType::Request, Operation::GetPackageDirectory, 5, std::vector<std::uint8_t>(40, 0));
        ASSERT_EQ(IoResult::Ok, truncated.SendAll(frame.data(), 30, deadline));
    }
    // A payload that does not decode is answered with an error, and the connection stays usable.
    SocketChannel channel;
    ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, channel));
    Frame answer;
    ASSERT_EQ(IoResult::Ok, channel.SendFrame(EncodeFrame(FrameType::Request, Operation::GetInstallationState, 100, {8, 1, 0}), deadline));
    ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(answer, deadline, deadline));
    EXPECT_EQ(FrameType::Error, answer.header.type);
    EXPECT_EQ(100u, answer.header.requestId);
    EXPECT_EQ(StatusCodes::BadDecodingError, DecodeErrorPayload(answer.payload).status);
    ASSERT_EQ(IoResult::Ok, channel.SendFrame(EncodeFrame(FrameType::Request, Operation::GetPackageDirectory, 200, {}), deadline));
    ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(answer, deadline, deadline));
    EXPECT_EQ(FrameType::Response, answer.header.type);
    EXPECT_EQ(200u, answer.header.requestId);
}

} // namespace
