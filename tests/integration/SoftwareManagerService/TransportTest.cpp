// The proxy and the software manager process talking over the real socket: every operation, large
// records, a service that stops or stalls, restarts, and who may connect.
#include <sys/stat.h>
#include <sys/wait.h>

#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace
{

using namespace Zun::Testing::Integration;
using namespace Manager;
using namespace Manager::Transport;
using Zun::System::Commons::InvalidOperationException;
using TransportTest = ManagerFixture;

const Text Alpha("Alpha");

// Every operation reaches the service; records far above a socket buffer travel whole. A stopped
// service gives BadNoCommunication and leaves the results alone, and the proxy reconnects to the next
// one, also after a kill.
TEST_F(TransportTest, EveryOperationAndLargeRecordsTravelAndTheProxyReconnectsAfterRestarts)
{
    std::string list = ",\"textList\":[";
    std::string tags = ",\"tags\":[";
    for (int i = 0; i < 1000; ++i)
    {
        list += (i ? ",\"" : "\"") + std::to_string(i) + std::string(500, 'x') + "\"";
        tags += std::string(i ? "," : "") + R"({"name":"n)" + std::to_string(i) + R"(","value":")" + std::string(500, 'v') + "\"}";
    }
    Pack("big.tar", "9.9.9", "big", list + "]" + tags + "],\"updateBehavior\":5");
    signingKey.clear();
    Pack("unsigned.tar", "3.0.0", "three");
    StartService();
    auto proxy = MakeProxy(socket);
    Text text;
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("unsigned.tar"), text));
    EXPECT_EQ(0u, text.ToString().rfind("The package 'unsigned.tar' was refused: The package is not signed (it has no manifest.sig)", 0)) << text.CStr();
    ASSERT_EQ(StatusCodes::Good, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("big.tar"), text)) << text.CStr();
    EXPECT_EQ("Package 'big.tar' staged: version 9.9.9.", text.ToString());

    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Alpha, information));
    EXPECT_EQ(Alpha, information.Name);
    EXPECT_EQ(SoftwareKind::GenericFiles, information.Kind);
    EXPECT_FALSE(information.HasCurrentManifest);
    EXPECT_EQ(Zun::DateTimeKind::Utc, information.CurrentManifest.ReleaseDate.GetKind()) << "an absent manifest still carries a UTC date";
    ASSERT_TRUE(information.HasPendingManifest);
    const auto& pending = information.PendingManifest;
    EXPECT_EQ("9.9.9", pending.Version.ToString());
    EXPECT_EQ("urn:zun:test", pending.ManufacturerUri.ToString());
    EXPECT_EQ(5u, pending.UpdateBehavior);
    EXPECT_EQ(Zun::DateTime::FromUnixTimeMilliseconds(1'793'536'200'000), pending.ReleaseDate);
    ASSERT_EQ(1000u, pending.TextList.size());
    ASSERT_EQ(1000u, pending.Tags.size());
    EXPECT_EQ("999" + std::string(500, 'x'), pending.TextList[999].ToString());
    EXPECT_EQ(std::make_pair(Zun::String("n999"), Zun::String(500, 'v')), std::make_pair(pending.Tags[999].Name.ToString(), pending.Tags[999].Value.ToString()));
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->ResumeInstallation(SoftwareKind::GenericFiles, Alpha)) << "nothing failed";
    InstallationState state = InstallationState::Preparing;
    // Unknown components and kinds are refused with status codes.
    EXPECT_EQ(StatusCodes::BadNotFound, proxy->GetInstallationState(SoftwareKind::GenericFiles, Text("Gamma"), state, text));
    EXPECT_EQ(StatusCodes::BadNotFound, proxy->GetSoftwareInformation(SoftwareKind::TesmoraEngineerProject, Alpha, information));
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->GetInstallationState(static_cast<SoftwareKind>(7), Alpha, state, text));
    EXPECT_EQ(StatusCodes::BadInvalidArgument, proxy->StartInstallation(SoftwareKind::GenericFiles, Text("../generic-files/Alpha")));

    EXPECT_EQ(0, manager.Kill(SIGTERM));
    EXPECT_FALSE(fs::exists(socket)) << "a clean stop removes the socket";
    state = InstallationState::Copying;
    text = Text("untouched");
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, text));
    EXPECT_EQ(InstallationState::Copying, state);
    EXPECT_EQ("untouched", text.ToString());
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha));
    EXPECT_EQ(StatusCodes::BadNoCommunication, proxy->SetSoftwarePackage(SoftwareKind::GenericFiles, Alpha, Text("p.tar"), text));
    const std::string unreachable = "The software manager service at '" + socket.string() + "' cannot be reached.";
    EXPECT_EQ(unreachable, text.ToString());
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { proxy->GetAllSoftwareInformation(); }),
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
    ASSERT_EQ(StatusCodes::Good, proxy->RemoveSoftwarePackage(SoftwareKind::GenericFiles, Alpha));
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::GenericFiles, Alpha, information));
    EXPECT_FALSE(information.HasPendingManifest);
    EXPECT_EQ(StatusCodes::BadInvalidState, proxy->StartInstallation(SoftwareKind::GenericFiles, Alpha)) << "nothing is pending";
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
    EXPECT_EQ(MessageOf<InvalidOperationException>([&] { proxy->GetAllSoftwareInformation(); }),
              "GetAllSoftwareInformation failed with status 0x800A0000: The software manager service at '" + socket.string() +
                  "' did not answer GetAllSoftwareInformation within " + std::to_string(timeout) + " ms.");
    ::kill(manager.Pid(), SIGCONT);
    // The late answers to the abandoned requests must not be taken for the next ones.
    SoftwareInformation information;
    ASSERT_EQ(StatusCodes::Good, proxy->GetSoftwareInformation(SoftwareKind::TesmoraEngineerProject, Text("Beta"), information));
    EXPECT_EQ("Beta", information.Name.ToString());
    EXPECT_EQ(StatusCodes::Good, proxy->GetInstallationState(SoftwareKind::GenericFiles, Alpha, state, message));
}

constexpr uid_t Nobody = 65534;

// The socket's folder keeps other users out, and a peer that gets through anyway (root, for which
// folder modes mean nothing) is refused by its user id.
TEST(PeerAccessTest, APeerWithAnotherUserIdIsRefusedUnlessAllowed)
{
    if (::geteuid() != 0)
    {
        GTEST_SKIP() << "needs root to run the service and its peer under different user ids";
    }
    // The service runs as nobody and root connects: root passes any folder mode, so only the
    // service's own check of the peer's user id stands in the way.
    TemporaryFolder temp;
    ASSERT_EQ(0, ::chown(temp.Get().c_str(), Nobody, Nobody));
    const fs::path socket = temp / "run" / "sm.sock";
    const std::pair<std::vector<std::string>, bool> cases[] = {{{}, true}, {{"--allow-uid", "0"}, false}, {{"--allow-uid", "1000"}, true}};
    for (const auto& [options, refused] : cases)
    {
        SCOPED_TRACE(options.empty() ? std::string("own user only") : options[1]);
        fs::remove(temp / "service.log");
        ManagerProcess manager(temp / "state", socket, temp / "service.log");
        ASSERT_TRUE(manager.Start(options, Nobody)) << manager.Log();
        // Other users cannot even reach the socket: it sits in a folder of the service's user alone.
        struct stat folder
        {
        };
        ASSERT_EQ(0, ::stat(socket.parent_path().c_str(), &folder));
        EXPECT_EQ(std::make_tuple(Nobody, 0700u), std::make_tuple(folder.st_uid, folder.st_mode & 0777u));
        if (refused)
        {
            // The refusal comes at once, before the peer sends anything.
            SocketChannel channel;
            const Deadline deadline = Clock::now() + Zun::Testing::Patience();
            ASSERT_EQ(IoResult::Ok, SocketChannel::Connect(socket.string(), deadline, channel));
            Frame frame;
            ASSERT_EQ(IoResult::Ok, channel.ReceiveFrame(frame, deadline, deadline));
            EXPECT_EQ(std::make_tuple(FrameType::Error, 0u), std::make_tuple(frame.header.type, frame.header.requestId));
            const ErrorPayload error = DecodeErrorPayload(frame.payload);
            EXPECT_EQ(StatusCodes::BadUserAccessDenied, error.status);
            EXPECT_EQ("User id 0 may not use the software manager service.", error.message);
        }
        else
        {
            EXPECT_EQ(2u, MakeProxy(socket)->GetAllSoftwareInformation().size());
        }
        manager.Kill(SIGTERM);
        EXPECT_EQ(refused, manager.Log().find("Refused a connection from user id 0") != std::string::npos);
    }
}

} // namespace
