// End to end: zun-update against the update service daemon and the software manager, both real
// processes; raw clients of the daemon's local API where the command line would never misbehave.
#include <sys/socket.h>
#include <sys/un.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <sstream>

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
const std::string Project = "Tesmora Engineer project / Sample project";
const std::string Uri = "https://example.com/zun";

struct CliResult
{
    int exitCode = -1;
    std::string output;
    std::string errors;
};

class CommandLineTest : public ::testing::Test
{
protected:
    void StartServices(const std::vector<std::string>& managerOptions, const std::vector<std::string>& serviceOptions = {})
    {
        ASSERT_TRUE(manager.Start(managerOptions)) << manager.Log();
        service = StartUpdateService(folder.Get(), socket, manager.Socket(), serviceOptions);
        ASSERT_TRUE(service);
    }

    std::vector<std::string> Arguments(const std::vector<std::string>& command) const
    {
        std::vector<std::string> arguments{BinaryPath("zun-update"), "--socket", socket.string(), "--timeout-ms", ScaledOption(5000)};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return arguments;
    }

    CliResult Run(const std::vector<std::string>& command)
    {
        fs::remove(folder / "cli.out");
        fs::remove(folder / "cli.err");
        const int exitCode = Child(Arguments(command), folder / "cli.out", folder / "cli.err").Wait();
        return {exitCode, ReadText(folder / "cli.out"), ReadText(folder / "cli.err")};
    }

    Json RunJson(std::vector<std::string> command, int expectedExit = 0)
    {
        command.push_back("--json");
        const CliResult result = Run(command);
        EXPECT_EQ(result.exitCode, expectedExit) << result.output << result.errors;
        return Json::parse(result.output);
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
    std::unique_ptr<Child> service;
    std::vector<int> fds;
};

// The package travels as bytes; an installation that fails in the manager is an Error, for install
// --wait, status and a watcher alike, which resume takes back once the manager can finish. A client
// that sends garbage, or stops reading, disturbs none of this.
TEST_F(CommandLineTest, AFailedInstallationIsAnErrorThatResumeTakesBack)
{
    StartServices({"--phase-delay-ms", ScaledOption(50), "--fail-phase", "copy"}, {"--client-queue", "16"});
    // A missing state folder is made private, as is the socket.
    EXPECT_EQ(fs::perms::owner_all, fs::status(folder / "manager").permissions());
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write, fs::symlink_status(manager.Socket()).permissions() & fs::perms::all);
    Child watch(Arguments({"watch"}), folder / "watch.out", folder / "watch.err");
    ASSERT_TRUE(Eventually([&] { return ReadText(folder / "watch.out").find('\n') != std::string::npos; })) << ReadText(folder / "watch.err");
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
    const int garbage = Connect();
    ASSERT_EQ(7, ::send(garbage, "\x03\x00\x00\x00{x}", 7, MSG_NOSIGNAL));
    Json answer;
    ASSERT_TRUE(MessageFraming::ReadMessage(garbage, answer));
    EXPECT_EQ("Bad_DecodingError", answer["statusName"]);
    // Requests without reading a response: the socket fills, then the queue, then the client is dropped.
    const int stalled = Connect();
    const auto flood = [&] {
        for (int i = 0; i < 100000; ++i)
        {
            MessageFraming::WriteMessage(stalled, {{"type", "request"}, {"id", i}, {"op", "list"}});
        }
    };
    EXPECT_THROW(flood(), Zun::System::Commons::SystemException) << "the stalled client was never dropped";

    EXPECT_EQ(Run({"notifications"}).output, "(no security notifications)\n");
    const CliResult idle = Run({"resume", Files});
    EXPECT_EQ(idle.exitCode, 1);
    EXPECT_EQ(idle.output, "Bad_InvalidState\n");
    // An upload's name found taken only when it is moved into place (here by a dangling link, as by
    // another upload of the same name) gets a name of its own.
    fs::copy_file(Package("sample-files-1.1.0.tar"), folder / "taken.tar");
    fs::create_symlink(folder / "gone", folder / "manager" / "incoming" / "taken.tar");
    const Json staged = RunJson({"stage", Files, (folder / "taken.tar").string()});
    EXPECT_EQ(staged["statusCode"], "Good");
    EXPECT_THAT(staged["message"].get<std::string>(), HasSubstr("1.1.0"));
    const CliResult failed = Run({"install", Files, "--revision", "1.1.0", "--uri", Uri, "--wait"});
    EXPECT_EQ(failed.exitCode, 1) << failed.errors;
    EXPECT_THAT(failed.output, StartsWith("Good: installation of 1.1.0 started\nInstalling: "));
    EXPECT_THAT(failed.output, HasSubstr("\nError: "));
    const Json status = RunJson({"status", Files});
    EXPECT_EQ(status["state"], "Error");
    std::string managerMessage;
    EXPECT_EQ(manager.StateOf(Manager::SoftwareKind::GenericFiles, "Sample files", &managerMessage), Manager::InstallationState::CopyingFailed);
    EXPECT_EQ(status["message"], managerMessage);

    // Without the fault the manager can finish what it resumes; the service stays up meanwhile.
    manager.Kill(SIGTERM);
    ASSERT_TRUE(manager.Start({"--phase-delay-ms", ScaledOption(50)})) << manager.Log();
    EXPECT_EQ(RunJson({"resume", Files})["statusCode"], "Good");
    ASSERT_TRUE(manager.WaitUntilSettled(Manager::SoftwareKind::GenericFiles, "Sample files"));
    EXPECT_EQ(RunJson({"status", Files})["state"], "Idle");
    EXPECT_EQ(RunJson({"versions", Files})["current"]["softwareRevision"], "1.1.0");

    // The stalled connection has ended; a time-out (EAGAIN) would mean it is still open.
    try
    {
        while (MessageFraming::ReadMessage(stalled, answer))
        {
        }
    }
    catch (const Zun::System::Commons::SystemException& e)
    {
        EXPECT_EQ(ECONNRESET, e.GetErrorCode()) << e.what();
    }
    // The watcher saw the snapshot, then Installing, Error and Idle again, one JSON object a line.
    ASSERT_TRUE(Eventually([&] {
        const std::string text = ReadText(folder / "watch.out");
        return text.find(R"("state":"Idle")", text.find(R"("state":"Error")")) != std::string::npos;
    }));
    std::istringstream lines(ReadText(folder / "watch.out"));
    std::vector<std::string> states;
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(Json::parse(line)["event"], "snapshot");
    while (std::getline(lines, line))
    {
        const Json event = Json::parse(line);
        if (event.value("name", "") == Files && event["event"] == "statusChanged" && (states.empty() || states.back() != event["status"]["state"]))
        {
            states.push_back(event["status"]["state"]);
        }
    }
    ASSERT_GE(states.size(), 3u);
    EXPECT_EQ(std::vector<std::string>({"Installing", "Error"}), std::vector<std::string>(states.begin(), states.begin() + 2));
    EXPECT_EQ(states.back(), "Idle");
}

// A second daemon on the same state is refused; a project installation that ends while the daemon
// is killed is settled at its next start and announced exactly once, however often it starts.
TEST_F(CommandLineTest, AnInstallationThatOutlivesAKilledDaemonIsAnnouncedOnceAfterTheRestart)
{
    StartServices({"--phase-delay-ms", ScaledOption(200)});
    Child second({BinaryPath("zun-update-service"), "--state-dir", (folder / "service").string(), "--socket", (folder / "other.sock").string(),
                  "--manager-socket", manager.Socket().string()},
                 folder / "second.log", folder / "second.log");
    EXPECT_EQ(1, second.Wait());
    EXPECT_THAT(ReadText(folder / "second.log"), HasSubstr("Another update service (process"));
    ASSERT_EQ(RunJson({"stage", Project, Package("sample-project-1.1.0.tar")})["statusCode"], "Good");
    EXPECT_EQ(RunJson({"install", Project, "--revision", "1.1.0", "--uri", Uri})["state"], "Installing");
    service->Kill(SIGKILL);
    ASSERT_TRUE(manager.WaitUntilSettled(Manager::SoftwareKind::TesmoraEngineerProject, "Sample project"));
    for (int start = 0; start < 2; ++start)
    {
        service = StartUpdateService(folder.Get(), socket, manager.Socket());
        ASSERT_TRUE(service);
        EXPECT_EQ(RunJson({"status", Project})["state"], "Idle");
        const Json listed = RunJson({"notifications"});
        ASSERT_EQ(listed["notifications"].size(), 1u) << listed;
        EXPECT_EQ(listed["notifications"][0]["name"], "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded");
        EXPECT_EQ(listed["notifications"][0]["text"], "Installation of 'Sample project' (version: 1.1.0) successful.");
        EXPECT_EQ(service->Kill(SIGTERM), 0);
    }
}

// No service runs: refused input exits with 2 before any connection, which would exit with 3.
TEST_F(CommandLineTest, BadInputIsRefusedBeforeAnythingIsSent)
{
    std::ofstream(folder / "empty.tar").flush();
    const std::string longText(512, 'p');
    const std::pair<std::vector<std::string>, const char*> refusals[] = {
        {{"status", "Generic files / " + std::string(512, 'n')}, "The component name after ' / ' is 512 bytes long; at most 511 are allowed."},
        {{"install", Files, "--revision", longText, "--uri", Uri}, "The software revision is 512 bytes long; at most 511 are allowed."},
        {{"install", Files, "--revision", "1.1.0", "--uri", longText}, "The manufacturer URI is 512 bytes long; at most 511 are allowed."},
        {{"behavior", Files, "--revision", "1.1.0", "--uri", Uri, "--patch", longText}, "The patch identifier is 512 bytes long; at most 511 are allowed."},
        {{"stage", Files, (folder / "empty.tar").string()}, nullptr},
        {{"stage", Files, (folder / "missing.tar").string()}, nullptr},
        {{"frobnicate"}, nullptr},
        {{"install", Files, "--revision", "1.1.0"}, nullptr},
    };
    for (const auto& [command, message] : refusals)
    {
        SCOPED_TRACE(command.front());
        const CliResult result = Run(command);
        EXPECT_EQ(result.exitCode, 2);
        if (message != nullptr)
        {
            EXPECT_EQ(result.errors, std::string("zun-update: refused: ") + message + "\n");
        }
        else
        {
            EXPECT_THAT(result.output + result.errors, ::testing::AnyOf(HasSubstr("Usage: zun-update"), HasSubstr("zun-update: refused: The package ")));
        }
    }

    const CliResult absent = Run({"list"});
    EXPECT_EQ(absent.exitCode, 3);
    EXPECT_EQ(absent.errors, "zun-update: unavailable: no update service at " + socket.string() + " (No such file or directory); start it with `zun-update-service --socket " +
                                 socket.string() + "` or name another with --socket\n");
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService
