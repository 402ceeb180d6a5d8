#include <sys/socket.h>
#include <sys/un.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "ServiceProcess.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/SoftwareManager/FrameCodec.hpp"
#include "Zun/Testing/Latch.hpp"

namespace
{

using namespace Zun::Testing::SoftwareManagerProcess;
using namespace Zun::Services::SoftwareManager::Services::Internal::Transport;
using Zun::DateTimeKind;
using Zun::System::Rsc::RscString;
using Text = RscString<512>;

class TransportTest : public ServiceFixture
{
};

TEST_F(TransportTest, EveryOperationReachesTheService)
{
    Pack("alpha-2.tar", "2.0.0", "two", R"(,"tags":[{"name":"channel","value":"stable"}],"textList":["a","b"],"updateBehavior":5)");
    StartService();
    auto proxy = MakeProxy(socket);
    ASSERT_NE(nullptr, proxy);

    Text directory;
    ASSERT_EQ(StatusCodes::Good, proxy->GetPackageDirectory(directory));
    EXPECT_EQ(fs::canonical(Incoming()).string(), directory.ToString());

    Text message;
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Text("Alpha"), Text("alpha-2.tar"), message));
    EXPECT_EQ("Package 'alpha-2.tar' staged: version 2.0.0.", message.ToString());

    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Text("Alpha"), information));
    EXPECT_EQ("Alpha", information.Name.ToString());
    EXPECT_EQ(SoftwareKind::GenericFiles, information.Kind);
    EXPECT_FALSE(information.HasCurrentManifest);
    EXPECT_EQ(DateTimeKind::Utc, information.CurrentManifest.ReleaseDate.GetKind());
    ASSERT_TRUE(information.HasPendingManifest);
    EXPECT_EQ("2.0.0", information.PendingManifest.Version.ToString());
    EXPECT_EQ("urn:zun:test", information.PendingManifest.ManufacturerUri.ToString());
    EXPECT_EQ(5u, information.PendingManifest.UpdateBehavior);
    EXPECT_EQ(Zun::DateTime::FromUnixTimeMilliseconds(1'793'536'200'000), information.PendingManifest.ReleaseDate);
    ASSERT_EQ(1u, information.PendingManifest.Tags.size());
    EXPECT_EQ("stable", information.PendingManifest.Tags[0].Value.ToString());
    EXPECT_EQ(2u, information.PendingManifest.TextList.size());

    const auto all = proxy->GetAllSoftwareInformation();
    ASSERT_EQ(2u, all.size());
    EXPECT_EQ(information, all[0].Kind == SoftwareKind::GenericFiles ? all[0] : all[1]);

    ASSERT_EQ(StatusCodes::Good, proxy->StartInstallation(SoftwareKind::GenericFiles, Text("Alpha")));
    InstallationState state = InstallationState::Preparing;
    ASSERT_TRUE(Eventually([&] {
        return proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, message) == StatusCodes::Good &&
               state == InstallationState::Idle;
    }));
    EXPECT_EQ("Installed version 2.0.0.", message.ToString());
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Text("Alpha")));
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Text("Alpha")));

    Pack("alpha-3.tar", "3.0.0", "three");
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Text("Alpha"), Text("alpha-3.tar"), message));
    ASSERT_EQ(StatusCodes::Good, proxy->RemoveSoftwarePackage(SoftwareKind::GenericFiles, Text("Alpha")));
    SoftwareInformation after;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Text("Alpha"), after));
    EXPECT_TRUE(after.HasCurrentManifest);
    EXPECT_EQ("2.0.0", after.CurrentManifest.Version.ToString());
    EXPECT_FALSE(after.HasPendingManifest);
}

TEST_F(TransportTest, UnknownComponentsAndKindsAreRefusedWithStatusCodes)
{
    StartService();
    auto proxy = MakeProxy(socket);
    InstallationState state = InstallationState::Idle;
    Text message;
    SoftwareInformation information;
    EXPECT_EQ(StatusCodes::BadNotFound, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Gamma"), state, message));
    EXPECT_EQ(StatusCodes::BadNotFound, proxy->GetSoftwareInformation(SoftwareKind::TesmoraEngineerProject, Text("Alpha"), information));
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->GetInstallationState(static_cast<SoftwareKind>(7), Text("Alpha"), state, message));
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->StartInstallation(SoftwareKind::GenericFiles, Text("../generic-files/Alpha")));
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Text("Alpha"))) << "nothing is pending";
}

TEST_F(TransportTest, LargeRecordsTravelWhole)
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
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Text("Alpha"), Text("big.tar"), message)) << message.CStr();

    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Text("Alpha"), information));
    ASSERT_EQ(1000u, information.PendingManifest.TextList.size());
    ASSERT_EQ(1000u, information.PendingManifest.Tags.size());
    EXPECT_EQ("999" + std::string(500, 'x'), information.PendingManifest.TextList[999].ToString());
    EXPECT_EQ("n999", information.PendingManifest.Tags[999].Name.ToString());
    const auto all = proxy->GetAllSoftwareInformation();
    ASSERT_EQ(2u, all.size());
    EXPECT_TRUE(std::count(all.begin(), all.end(), information) == 1);
}

TEST(TransportFailureTest, AnAbsentServiceGivesNoCommunicationAndGetAllThrows)
{
    TemporaryFolder temp;
    const fs::path socket = temp.Get() / "nobody.sock";
    auto proxy = MakeProxy(socket, 500);
    InstallationState state = InstallationState::Copying;
    Text message("untouched");
    SoftwareInformation information;
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, message));
    EXPECT_EQ(InstallationState::Copying, state);
    EXPECT_EQ("untouched", message.ToString());
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Text("Alpha"), information));
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->StartInstallation(SoftwareKind::GenericFiles, Text("Alpha")));
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Text("Alpha")));
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Text("Alpha"), Text("p.tar"), message));
    EXPECT_EQ("The software manager service at '" + socket.string() + "' cannot be reached.", message.ToString());
    try
    {
        proxy->GetAllSoftwareInformation();
        FAIL() << "no exception";
    }
    catch (const Zun::System::Commons::InvalidOperationException& e)
    {
        EXPECT_EQ("GetAllSoftwareInformation failed with status 0x80310000: The software manager service at '" + socket.string() +
                      "' cannot be reached.",
                  e.GetMessage());
    }
}

TEST(TransportFailureTest, AServiceThatNeverAnswersTimesOut)
{
    TemporaryFolder temp;
    const fs::path path = temp.Get() / "silent.sock";
    const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, path.c_str());
    ASSERT_EQ(0, ::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address));
    ASSERT_EQ(0, ::listen(listener, 4));

    auto proxy = MakeProxy(path, 100);
    InstallationState state = InstallationState::Idle;
    Text message;
    EXPECT_EQ(StatusCodes::BadTimeout, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, message));
    try
    {
        proxy->GetAllSoftwareInformation();
        FAIL() << "no exception";
    }
    catch (const Zun::System::Commons::InvalidOperationException& e)
    {
        EXPECT_EQ("GetAllSoftwareInformation failed with status 0x800A0000: The software manager service at '" + path.string() +
                      "' did not answer GetAllSoftwareInformation within 100 ms.",
                  e.GetMessage());
    }
    ::close(listener);
}

TEST_F(TransportTest, ConcurrentCallersAllGetTheirOwnAnswers)
{
    Pack("beta-2.tar", "2.0.0", "two");
    StartService();
    auto proxy = MakeProxy(socket);
    Text message;
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::TesmoraEngineerProject, Text("Beta"), Text("beta-2.tar"), message));

    constexpr int threads = 8;
    Zun::Testing::Latch start(threads);
    std::atomic<int> wrong{0};
    std::vector<std::thread> callers;
    for (int t = 0; t < threads; ++t)
    {
        callers.emplace_back([&, t] {
            start.ArriveAndWait();
            for (int i = 0; i < 100; ++i)
            {
                SoftwareInformation information;
                InstallationState state = InstallationState::Copying;
                Text text;
                const bool beta = (t + i) % 2 == 0;
                const SoftwareKind kind = beta ? SoftwareKind::TesmoraEngineerProject : SoftwareKind::GenericFiles;
                const Text name(beta ? "Beta" : "Alpha");
                if (proxy->GetSoftwareInformation(kind, name, information) != StatusCodes::Good || information.Name != name ||
                    information.HasPendingManifest != beta ||
                    proxy->GetInstallationState(kind, name, state, text) != StatusCodes::Good || state != InstallationState::Idle)
                {
                    ++wrong;
                }
            }
        });
    }
    for (auto& caller : callers)
    {
        caller.join();
    }
    EXPECT_EQ(0, wrong.load());
}

TEST_F(TransportTest, TheProxyReconnectsAfterTheServiceRestarts)
{
    StartService();
    auto proxy = MakeProxy(socket, 1000);
    InstallationState state = InstallationState::Copying;
    Text message;
    ASSERT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, message));

    process->Kill(SIGTERM);
    EXPECT_EQ(0, WEXITSTATUS(process->GetExitStatus()));
    EXPECT_FALSE(fs::exists(socket)) << "a clean stop removes the socket";
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, message));

    StartService();
    EXPECT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, message));
    process->Kill(SIGKILL);
    StartService();
    EXPECT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Alpha"), state, message))
        << "a killed service leaves its socket behind; the next one replaces it";
}

TEST_F(TransportTest, TheServiceManagerHandsOutProxiesForARegisteredEndpoint)
{
    StartService();
    Zun::System::Rsc::ServiceManager::RegisterEndpoint("ZunTransportTest", Zun::System::Rsc::RscEndpoint{Zun::String(socket.string()), 2000});
    std::unique_ptr<Zun::System::Rsc::IRscService> service(
        Zun::System::Rsc::ServiceManager::GetService("ZunTransportTest", SoftwareManagerServiceProxyFactory::GetInstance()));
    Zun::System::Rsc::ServiceManager::UnregisterProvider("ZunTransportTest");
    auto* manager = dynamic_cast<ISoftwareManagerService*>(service.get());
    ASSERT_NE(nullptr, manager);
    EXPECT_EQ(2u, manager->GetAllSoftwareInformation().size());
}

std::vector<std::uint8_t> Header(std::uint32_t magic, std::uint8_t version, std::uint16_t operation, std::uint32_t length)
{
    std::vector<std::uint8_t> bytes(FrameHeaderSize);
    FrameHeader header;
    header.operation = static_cast<Operation>(operation);
    header.requestId = 77;
    header.payloadLength = length;
    EncodeFrameHeader(header, bytes.data());
    std::memcpy(bytes.data(), &magic, 4);
    bytes[4] = version;
    return bytes;
}

struct BadHeaderCase
{
    const char* name;
    std::vector<std::uint8_t> bytes;
    const char* message;
};

TEST_F(TransportTest, BadHeadersAreAnsweredWithAnErrorAndTheConnectionClosed)
{
    StartService();
    const BadHeaderCase cases[] = {
        {"magic", Header(0x12345678u, 1, 3, 0), "Bad frame magic 0x12345678."},
        {"version", Header(FrameMagic, 9, 3, 0), "Unsupported frame version 9."},
        {"operation", Header(FrameMagic, 1, 99, 0), "Unknown operation 99."},
        {"oversized", Header(FrameMagic, 1, 3, MaxPayloadSize + 1), "Frame payload of 4194305 bytes exceeds the limit of 4194304 bytes."},
    };
    for (const BadHeaderCase& c : cases)
    {
        SCOPED_TRACE(c.name);
        SocketChannel channel;
        const Deadline deadline = Clock::now() + std::chrono::seconds(5);
        ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, channel));
        ASSERT_EQ(IoResult::Ok, channel.SendFrame(c.bytes, deadline));
        Frame answer;
        ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(answer, deadline, deadline));
        EXPECT_EQ(FrameType::Error, answer.header.type);
        EXPECT_EQ(0u, answer.header.requestId);
        const ErrorPayload error = DecodeErrorPayload(answer.payload);
        EXPECT_EQ(StatusCodes::BadDecodingError, error.status);
        EXPECT_EQ(c.message, error.message);
        std::uint8_t byte = 0;
        EXPECT_EQ(IoResult::Closed, channel.ReceiveExact(&byte, 1, deadline));
    }
    // A frame cut short by the client only ends that connection.
    {
        SocketChannel channel;
        const Deadline deadline = Clock::now() + std::chrono::seconds(5);
        ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, channel));
        auto frame = EncodeFrame(FrameType::Request, Operation::GetPackageDirectory, 5, std::vector<std::uint8_t>(40, 0));
        ASSERT_EQ(IoResult::Ok, channel.SendAll(frame.data(), 30, deadline));
    }
    auto proxy = MakeProxy(socket);
    Text directory;
    EXPECT_EQ(StatusCodes::Good, proxy->GetPackageDirectory(directory)) << "the service goes on serving";
}

TEST_F(TransportTest, AMalformedPayloadIsRefusedAndTheConnectionStaysUsable)
{
    StartService();
    SocketChannel channel;
    const Deadline deadline = Clock::now() + std::chrono::seconds(5);
    ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, channel));
    const std::vector<std::uint8_t> payloads[] = {
        {},                                // no arguments at all
        {8, 1, 0, 0, 0, 19, 2, 255, 255, 255, 255}, // a name longer than the frame
        {8, 1, 0},                         // kind cut short
    };
    std::uint32_t id = 100;
    for (const auto& payload : payloads)
    {
        ASSERT_EQ(IoResult::Ok, channel.SendFrame(EncodeFrame(FrameType::Request, Operation::GetInstallationState, ++id, payload), deadline));
        Frame answer;
        ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(answer, deadline, deadline));
        EXPECT_EQ(FrameType::Error, answer.header.type);
        EXPECT_EQ(id, answer.header.requestId);
        EXPECT_EQ(StatusCodes::BadDecodingError, DecodeErrorPayload(answer.payload).status);
    }
    ASSERT_EQ(IoResult::Ok, channel.SendFrame(EncodeFrame(FrameType::Request, Operation::GetPackageDirectory, 200, {}), deadline));
    Frame answer;
    ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(answer, deadline, deadline));
    EXPECT_EQ(FrameType::Response, answer.header.type);
    EXPECT_EQ(200u, answer.header.requestId);
}

} // namespace
