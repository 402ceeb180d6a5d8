// End to end: zun-update against the update service daemon, which hosts the built plug-in, and the
// software manager, all real processes; raw clients of the daemon's local API where the command line
// would never misbehave.
#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>

#include <nlohmann/json.hpp>

#include "Zun/Commons/PosixCall.hpp"
#include "Zun/UpdateService/Protocol/MessageFraming.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
namespace
{

using namespace Zun::Testing::Integration;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::json;
using Protocol::MessageFraming;

const std::string Files = "Generic files / Sample files";
const std::string Uri = "https://example.com/zun";

class CommandLineTest : public ::testing::Test
{
protected:
    std::vector<std::string> Service(const fs::path& state, const fs::path& serviceSocket) const
    {
        return {BinaryPath("zun-update-service"), "--state-dir", state.string(), "--socket", serviceSocket.string(), "--manager-socket",
                manager.Socket().string()};
    }

    std::vector<std::string> Arguments(const std::vector<std::string>& command) const
    {
        std::vector<std::string> arguments{BinaryPath("zun-update"), "--socket", socket.string(), "--timeout-ms", ScaledOption(5000)};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return arguments;
    }

    // The exit code, output and errors of zun-update running `command`.
    std::tuple<int, std::string, std::string> Run(const std::vector<std::string>& command)
    {
        fs::remove(folder / "cli.out");
        fs::remove(folder / "cli.err");
        const int exitCode = Child(Arguments(command), folder / "cli.out", folder / "cli.err").Wait();
        return {exitCode, ReadText(folder / "cli.out"), ReadText(folder / "cli.err")};
    }

    Json RunJson(std::vector<std::string> command, int expectedExit = 0)
    {
        command.push_back("--json");
        const auto [exitCode, output, errors] = Run(command);
        EXPECT_EQ(exitCode, expectedExit) << output << errors;
        return Json::parse(output);
    }

    std::string Package(const char* file) const { return (folder / "manager" / "incoming" / file).string(); }

    // A raw client of the daemon's socket after its hello; every read is bounded by the test's patience.
    int Connect()
    {
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{AF_UNIX, {}};
        std::strncpy(address.sun_path, socket.c_str(), sizeof address.sun_path - 1);
        const timeval patience{static_cast<time_t>(std::chrono::duration_cast<std::chrono::seconds>(Zun::Testing::Patience()).count()), 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        EXPECT_EQ(0, ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address));
        MessageFraming::WriteMessage(fd, {{"type", "hello"}, {"protocol", 1}, {"client", "test"}});
        Json hello;
        EXPECT_TRUE(MessageFraming::ReadMessage(fd, hello));
        fds.push_back(fd);
        return fd;
    }

    void TearDown() override
    {
        for (int fd : fds)
        {
            ::close(fd);
        }
    }

    TemporaryFolder folder;
    fs::path socket = folder / "service.sock";
    ManagerProcess manager{folder / "manager", folder / "manager.sock", folder / "manager.log"};
    std::vector<int> fds;
};

// A second daemon on the same state is refused. The package travels as bytes. An installation that the
// manager's kill -9 interrupts is an Error, for install --wait and status alike, which resume takes
// back once the manager runs again. A client that stops reading is dropped and disturbs none of this.
TEST_F(CommandLineTest, AnInterruptedInstallationIsAnErrorThatResumeTakesBack)
{
    ASSERT_TRUE(manager.Start({"--phase-delay-ms", ScaledOption(1000)})) << manager.Log();
    std::vector<std::string> daemon = Service(folder / "service", socket);
    daemon.insert(daemon.end(), {"--client-queue", "16"});
    const auto service = StartServer(daemon, socket, folder / "service.log");
    ASSERT_TRUE(service);
    Child second(Service(folder / "service", folder / "other.sock"), folder / "second.log", folder / "second.log");
    EXPECT_TRUE(Eventually([&] { return second.HasEnded(); }));
    EXPECT_EQ(1, second.Kill(SIGKILL));
    EXPECT_THAT(ReadText(folder / "second.log"), HasSubstr("Another update service (process"));
    // A missing state folder is made private, as is the socket.
    EXPECT_EQ(fs::perms::owner_all, fs::status(folder / "manager").permissions());
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::symlink_status(manager.Socket()).permissions() & fs::perms::all);
    // An upload name that no package file could carry is refused at the beginning.
    const int uploader = Connect();
    const auto stageBegin = [&](const std::string& fileName) {
        MessageFraming::WriteMessage(uploader, {{"type", "request"}, {"id", 1}, {"op", "stageBegin"},
                                                {"params", {{"name", Files}, {"size", 10}, {"fileName", fileName}}}});
        Json response;
        EXPECT_TRUE(MessageFraming::ReadMessage(uploader, response));
        return response;
    };
    for (const std::string& fileName : {std::string(201, 'n'), "dir/" + std::string(201, 'n'), std::string(".."), std::string("a\0b", 3)})
    {
        EXPECT_EQ("Bad_InvalidArgument", stageBegin(fileName)["statusName"]) << fileName.size();
    }
    EXPECT_EQ(0, stageBegin("dir/" + std::string(200, 'n'))["status"]);
    // Requests without reading a response: the socket fills, then the queue, then the client is dropped.
    const int stalled = Connect();
    const auto flood = [&] {
        for (int i = 0; i < 100000; ++i)
        {
            MessageFraming::WriteMessage(stalled, {{"type", "request"}, {"id", i}, {"op", "list"}});
        }
    };
    EXPECT_THROW(flood(), Zun::System::Commons::SystemException) << "the stalled client was never dropped";

    EXPECT_EQ(std::get<1>(Run({"notifications"})), "(no security notifications)\n");
    EXPECT_EQ(Run({"resume", Files}), std::make_tuple(1, std::string("Bad_InvalidState\n"), std::string()));
    // An upload's name found taken only when it is moved into place (here by a dangling link, as by
    // another upload of the same name) gets a name of its own.
    fs::copy_file(Package("sample-files-1.1.0.tar"), folder / "taken.tar");
    fs::create_symlink(folder / "gone", folder / "manager" / "incoming" / "taken.tar");
    const Json staged = RunJson({"stage", Files, (folder / "taken.tar").string()});
    EXPECT_EQ(staged["statusCode"], "Good");
    EXPECT_THAT(staged["message"].get<std::string>(), HasSubstr("1.1.0"));
    Child install(Arguments({"install", Files, "--revision", "1.1.0", "--uri", Uri, "--wait"}), folder / "install.out", folder / "install.err");
    ASSERT_TRUE(Eventually([&] { return manager.StateOf(Manager::SoftwareKind::GenericFiles, "Sample files") == Manager::InstallationState::Copying; }));
    manager.Kill(SIGKILL);
    EXPECT_EQ(RunJson({"status", Files}, 1)["statusCode"], "Bad_NoCommunication");
    ASSERT_TRUE(manager.Start({"--phase-delay-ms", ScaledOption(50)})) << manager.Log();
    EXPECT_TRUE(Eventually([&] { return install.HasEnded(); }));
    EXPECT_EQ(install.Kill(SIGKILL), 1) << ReadText(folder / "install.err");
    EXPECT_THAT(ReadText(folder / "install.out"), StartsWith("Good: installation of 1.1.0 started\nInstalling: "));
    EXPECT_THAT(ReadText(folder / "install.out"), HasSubstr("\nError: Installation was interrupted while copying"));
    const Json status = RunJson({"status", Files});
    EXPECT_EQ(status["state"], "Error");
    std::string managerMessage;
    EXPECT_EQ(manager.StateOf(Manager::SoftwareKind::GenericFiles, "Sample files", &managerMessage), Manager::InstallationState::CopyingFailed);
    EXPECT_EQ(status["message"], managerMessage);

    EXPECT_EQ(RunJson({"resume", Files})["statusCode"], "Good");
    ASSERT_TRUE(Eventually([&] { return !IsInProgress(manager.StateOf(Manager::SoftwareKind::GenericFiles, "Sample files")); }));
    EXPECT_EQ(RunJson({"status", Files})["state"], "Idle");
    EXPECT_EQ(RunJson({"versions", Files})["current"]["softwareRevision"], "1.1.0");
}

// No service runs: refused input exits with 2 before any connection, which would exit with 3.
TEST_F(CommandLineTest, BadInputIsRefusedBeforeAnythingIsSent)
{
    std::ofstream(folder / "empty.tar").flush();
    const std::string longText(512, 'p');
    const std::pair<std::vector<std::string>, std::string> refusals[] = {
        {{"status", "Generic files / " + std::string(512, 'n')}, "The component name after ' / ' is 512 bytes long; at most 511 are allowed."},
        {{"install", Files, "--revision", longText, "--uri", Uri}, "The software revision is 512 bytes long; at most 511 are allowed."},
        {{"install", Files, "--revision", "1.1.0", "--uri", longText}, "The manufacturer URI is 512 bytes long; at most 511 are allowed."},
        {{"behavior", Files, "--revision", "1.1.0", "--uri", Uri, "--patch", longText}, "The patch identifier is 512 bytes long; at most 511 are allowed."},
        {{"stage", Files, (folder / "empty.tar").string()}, "The package '" + (folder / "empty.tar").string() + "' is empty."},
    };
    for (const auto& [command, message] : refusals)
    {
        EXPECT_EQ(Run(command), std::make_tuple(2, std::string(), "zun-update: refused: " + message + "\n")) << command.front();
    }
    EXPECT_EQ(Run({"list"}), std::make_tuple(3, std::string(),
                                             "zun-update: unavailable: no update service at " + socket.string() +
                                                 " (No such file or directory); start it with `zun-update-service --socket " + socket.string() +
                                                 "` or name another with --socket\n"));
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService
