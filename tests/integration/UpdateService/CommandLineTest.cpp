// End-to-end runs of zun-update against the real software manager process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Zun/UpdateService/StatusStore.hpp"
#include "tests/integration/Support/Processes.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{
namespace
{

using namespace Zun::Testing::Integration;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
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
    void StartManager(const std::vector<std::string>& options)
    {
        ASSERT_TRUE(manager.Start(options)) << manager.Log();
    }

    std::vector<std::string> Arguments(const std::vector<std::string>& command) const
    {
        std::vector<std::string> arguments{BinaryPath("zun-update"), "--store", store.string(), "--socket", manager.Socket().string(),
                                           "--plugin", ZUN_PLUGIN_PATH, "--timeout-ms", ScaledOption(5000)};
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

    static Json Component(const Json& list, const std::string& name)
    {
        for (const Json& component : list.at("components"))
        {
            if (component.at("name") == name)
            {
                return component;
            }
        }
        ADD_FAILURE() << name << " not listed";
        return Json::object();
    }

    std::vector<std::pair<String, SoftwareUpdateStatus>> StoredStatus() const
    {
        std::vector<std::pair<String, SoftwareUpdateStatus>> records;
        for (const ComponentStatus& component : StatusStore(store.string()).GetAllStatus())
        {
            records.emplace_back(component.name, component.status);
        }
        return records;
    }

    TemporaryFolder folder;
    fs::path store = folder / "store.db";
    ManagerProcess manager{folder / "manager", folder / "manager.sock", folder / "manager.log"};
};

struct EndCase
{
    const char* label;
    std::vector<std::string> managerOptions;
    const char* state;
    const char* message; // nullptr: not checked
    const char* currentRevision;
    const char* notification;
    const char* text;
    std::uint32_t severity;
};

class CommandLineEndTest : public CommandLineTest, public ::testing::WithParamInterface<EndCase>
{
};

// The command line is killed during install --wait while the manager still installs, as a restart
// of the controller would; the first start after the manager has finished settles the project
// and announces the outcome once.
TEST_P(CommandLineEndTest, SettledAndAnnouncedOnceByTheNextStart)
{
    const EndCase& c = GetParam();
    StartManager(c.managerOptions);
    ASSERT_EQ(RunJson({"stage", Project, "sample-project-1.1.0.tar"})["statusCode"], "Good");
    Child install(Arguments({"install", Project, "--revision", "1.1.0", "--uri", Uri, "--wait", "--interval-ms", "20"}), folder / "install.out",
                  folder / "install.err");
    ASSERT_TRUE(Eventually([&] { return ReadText(folder / "install.out").find("\nInstalling: ") != std::string::npos; }))
        << ReadText(folder / "install.err");
    EXPECT_EQ(install.Kill(SIGKILL), 128 + SIGKILL);
    EXPECT_TRUE(IsInProgress(manager.StateOf(Manager::SoftwareKind::TesmoraEngineerProject, "Sample project")))
        << "the manager finished before the command line was killed; slow it down";
    ASSERT_TRUE(manager.WaitUntilSettled(Manager::SoftwareKind::TesmoraEngineerProject, "Sample project"));

    const Json first = RunJson({"list"});
    const Json project = Component(first, Project);
    EXPECT_EQ(project["state"], c.state);
    if (c.message != nullptr)
    {
        EXPECT_EQ(project["message"], c.message);
    }
    EXPECT_EQ(project["currentRevision"], c.currentRevision);
    ASSERT_EQ(first["announcements"].size(), 1u);
    EXPECT_EQ(first["announcements"][0]["name"], std::string("Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.") + c.notification);
    EXPECT_EQ(first["announcements"][0]["text"], c.text);

    const Json second = RunJson({"list"});
    EXPECT_THAT(second["announcements"], IsEmpty());
    EXPECT_EQ(Component(second, Project)["state"], c.state);
    const auto kept = StatusStore(store.string()).GetNotifications();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].name, first["announcements"][0]["name"]);
    EXPECT_EQ(kept[0].senderName, "Software Update");
    EXPECT_EQ(kept[0].severity, c.severity);
    const Json listed = RunJson({"notifications"});
    ASSERT_EQ(listed["notifications"].size(), 1u);
    EXPECT_EQ(listed["notifications"][0]["text"], c.text);
}

INSTANTIATE_TEST_SUITE_P(
    KilledDuringInstall, CommandLineEndTest,
    ::testing::Values(EndCase{"NewVersion", {"--phase-delay-ms", ScaledOption(400)}, "Idle", nullptr, "1.1.0", "Succeeded",
                              "Installation of 'Sample project' (version: 1.1.0) successful.", 1},
                      EndCase{"KeepVersion", {"--phase-delay-ms", ScaledOption(400), "--keep-version"}, "Error",
                              "Expected version is 1.1.0 but current version is 1.0.0.", "1.0.0", "Failed",
                              "Failed to install 'Sample project' (version: 1.1.0). Reason: Expected version is 1.1.0 but current version is 1.0.0..", 3}),
    [](const auto& info) { return std::string(info.param.label); });

TEST_F(CommandLineTest, FailureInTheManagerIsAnErrorThatResumeTakesBack)
{
    StartManager({"--phase-delay-ms", ScaledOption(50), "--fail-phase", "copy"});
    const CliResult idle = Run({"resume", Files});
    EXPECT_EQ(idle.exitCode, 1);
    EXPECT_EQ(idle.output, "Bad_InvalidState\n");
    ASSERT_EQ(RunJson({"stage", Files, "sample-files-1.1.0.tar"})["statusCode"], "Good");

    const CliResult failed = Run({"install", Files, "--revision", "1.1.0", "--uri", Uri, "--wait", "--interval-ms", "20"});
    EXPECT_EQ(failed.exitCode, 1) << failed.errors;
    EXPECT_THAT(failed.output, HasSubstr("Good: installation of 1.1.0 started\nInstalling: "));
    const Json status = RunJson({"status", Files});
    EXPECT_EQ(status["state"], "Error");
    std::string managerMessage;
    EXPECT_EQ(manager.StateOf(Manager::SoftwareKind::GenericFiles, "Sample files", &managerMessage), Manager::InstallationState::CopyingFailed);
    EXPECT_EQ(status["message"], managerMessage);

    // Without the fault the manager can finish what it resumes.
    manager.Kill(SIGTERM);
    StartManager({"--phase-delay-ms", ScaledOption(50)});
    EXPECT_EQ(RunJson({"resume", Files})["statusCode"], "Good");
    ASSERT_TRUE(manager.WaitUntilSettled(Manager::SoftwareKind::GenericFiles, "Sample files"));
    EXPECT_EQ(RunJson({"status", Files})["state"], "Idle");
    EXPECT_EQ(RunJson({"versions", Files})["current"]["softwareRevision"], "1.1.0");
    // A failure inside the manager, and what it resumes, is never announced.
    EXPECT_THAT(StatusStore(store.string()).GetNotifications(), IsEmpty());
}

// Refused input never starts the update service: a store that does not exist is not even made,
// and one that exists is not touched.
TEST_F(CommandLineTest, BadInputIsRefusedBeforeTheServiceStarts)
{
    StartManager({});
    const std::string longText(512, 'p');
    const std::pair<std::vector<std::string>, const char*> refusals[] = {
        {{"status", "Generic files / " + std::string(512, 'n')}, "The component name after ' / ' is 512 bytes long; at most 511 are allowed."},
        {{"stage", Files, longText}, "The package reference is 512 bytes long; at most 511 are allowed."},
        {{"install", Files, "--revision", longText, "--uri", Uri}, "The software revision is 512 bytes long; at most 511 are allowed."},
        {{"behavior", Files, "--revision", "1.1.0", "--uri", Uri, "--patch", longText}, "The patch identifier is 512 bytes long; at most 511 are allowed."},
        {{"frobnicate"}, nullptr},
        {{"list", "--bogus"}, nullptr},
        {{"install", Files, "--revision", "1.1.0"}, nullptr},
    };
    auto runAll = [&] {
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
                EXPECT_THAT(result.output + result.errors, HasSubstr("Usage: zun-update"));
            }
        }
    };
    runAll();
    EXPECT_FALSE(fs::exists(store));

    ASSERT_EQ(RunJson({"stage", Files, "sample-files-1.1.0.tar"})["statusCode"], "Good");
    const auto before = StoredStatus();
    runAll();
    EXPECT_EQ(StoredStatus(), before);
    EXPECT_THAT(StatusStore(store.string()).GetNotifications(), IsEmpty());
}

TEST_F(CommandLineTest, UnreachableManagerIsReportedAsUnavailable)
{
    const CliResult result = Run({"list"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(result.errors, HasSubstr("zun-update: unavailable: the update service could not start: "));
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService
