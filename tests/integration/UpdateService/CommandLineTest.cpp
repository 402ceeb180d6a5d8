// End-to-end runs of zun-update against the update service and the software manager, both real
// processes started once per test.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sstream>

#include <nlohmann/json.hpp>

#include "tests/integration/Support/Processes.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
namespace
{

using namespace Zun::Testing::Integration;
using ::testing::HasSubstr;
using ::testing::StartsWith;
using Json = nlohmann::json;

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
    void StartServices(const std::vector<std::string>& managerOptions)
    {
        ASSERT_TRUE(manager.Start(managerOptions)) << manager.Log();
        StartService();
    }

    void StartService()
    {
        service = std::make_unique<Child>(std::vector<std::string>{BinaryPath("zun-update-service"), "--state-dir", (folder / "service").string(), "--socket",
                                                                   socket.string(), "--manager-socket", manager.Socket().string()},
                                          folder / "service.log", folder / "service.log");
        ASSERT_TRUE(Eventually([&] { return service->HasEnded() || fs::exists(socket); }) && !service->HasEnded()) << ReadText(folder / "service.log");
    }

    void StopService()
    {
        EXPECT_EQ(service->Kill(SIGTERM), 0) << ReadText(folder / "service.log");
        fs::remove(socket);
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

    TemporaryFolder folder;
    fs::path socket = folder / "service.sock";
    ManagerProcess manager{folder / "manager", folder / "manager.sock", folder / "manager.log"};
    std::unique_ptr<Child> service;
};

// The package travels as bytes; install --wait and a watcher follow the same installation.
TEST_F(CommandLineTest, StagedPackageIsInstalledWhileWatched)
{
    StartServices({"--phase-delay-ms", ScaledOption(50)});
    Child watch(Arguments({"watch"}), folder / "watch.out", folder / "watch.err");
    ASSERT_TRUE(Eventually([&] { return ReadText(folder / "watch.out").find('\n') != std::string::npos; })) << ReadText(folder / "watch.err");
    const Json staged = RunJson({"stage", Files, Package("sample-files-1.1.0.tar")});
    EXPECT_EQ(staged["statusCode"], "Good");
    EXPECT_THAT(staged["message"].get<std::string>(), HasSubstr("1.1.0"));

    const CliResult installed = Run({"install", Files, "--revision", "1.1.0", "--uri", Uri, "--wait"});
    EXPECT_EQ(installed.exitCode, 0) << installed.errors;
    EXPECT_THAT(installed.output, StartsWith("Good: installation of 1.1.0 started\nInstalling: "));
    EXPECT_THAT(installed.output, HasSubstr("\nIdle: "));
    const Json versions = RunJson({"versions", Files}, 0);
    EXPECT_EQ(versions["current"]["softwareRevision"], "1.1.0");

    // The watcher saw the snapshot, then the installation begin and end, one JSON object a line.
    ASSERT_TRUE(Eventually([&] { return ReadText(folder / "watch.out").find(R"("state":"Idle")") != std::string::npos; }));
    std::istringstream lines(ReadText(folder / "watch.out"));
    std::vector<std::string> states;
    std::string line;
    ASSERT_TRUE(std::getline(lines, line));
    EXPECT_EQ(Json::parse(line)["event"], "snapshot");
    while (std::getline(lines, line))
    {
        const Json event = Json::parse(line);
        if (event.value("name", "") == Files && event["event"] == "statusChanged")
        {
            states.push_back(event["status"]["state"]);
        }
    }
    ASSERT_GE(states.size(), 2u);
    EXPECT_EQ(states.front(), "Installing");
    EXPECT_EQ(states.back(), "Idle");
}

TEST_F(CommandLineTest, FailureInTheManagerIsAnErrorThatResumeTakesBack)
{
    StartServices({"--phase-delay-ms", ScaledOption(50), "--fail-phase", "copy"});
    const CliResult idle = Run({"resume", Files});
    EXPECT_EQ(idle.exitCode, 1);
    EXPECT_EQ(idle.output, "Bad_InvalidState\n");
    ASSERT_EQ(RunJson({"stage", Files, Package("sample-files-1.1.0.tar")})["statusCode"], "Good");

    const CliResult failed = Run({"install", Files, "--revision", "1.1.0", "--uri", Uri, "--wait"});
    EXPECT_EQ(failed.exitCode, 1) << failed.errors;
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
}

// The project ends while the update service is stopped; its next start announces the result, which
// the audit log then lists.
TEST_F(CommandLineTest, InstallationEndedWhileStoppedIsInTheAuditLog)
{
    StartServices({"--phase-delay-ms", ScaledOption(200)});
    EXPECT_EQ(Run({"notifications"}).output, "(no security notifications)\n");
    ASSERT_EQ(RunJson({"stage", Project, Package("sample-project-1.1.0.tar")})["statusCode"], "Good");
    EXPECT_EQ(RunJson({"install", Project, "--revision", "1.1.0", "--uri", Uri})["state"], "Installing");
    StopService();
    ASSERT_TRUE(manager.WaitUntilSettled(Manager::SoftwareKind::TesmoraEngineerProject, "Sample project"));
    StartService();

    const Json listed = RunJson({"notifications"});
    ASSERT_EQ(listed["notifications"].size(), 1u);
    EXPECT_EQ(listed["notifications"][0]["name"], "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded");
    EXPECT_EQ(listed["notifications"][0]["text"], "Installation of 'Sample project' (version: 1.1.0) successful.");
    EXPECT_THAT(Run({"notifications"}).output, HasSubstr("  Info     Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded  "));
}

// No service runs: refused input exits with 2 before any connection, which would exit with 3.
TEST_F(CommandLineTest, BadInputIsRefusedBeforeAnythingIsSent)
{
    std::ofstream(folder / "empty.tar").flush();
    const std::string longText(512, 'p');
    const std::pair<std::vector<std::string>, const char*> refusals[] = {
        {{"status", "Generic files / " + std::string(512, 'n')}, "The component name after ' / ' is 512 bytes long; at most 511 are allowed."},
        {{"install", Files, "--revision", longText, "--uri", Uri}, "The software revision is 512 bytes long; at most 511 are allowed."},
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
