// End-to-end runs of zun-update against the real software manager process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "Processes.hpp"
#include "Zun/UpdateService/StatusStore.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::EndToEnd
{
namespace
{

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using Json = nlohmann::json;

const std::string Files = "Generic files / Sample files";
const std::string Project = "Tesmora Engineer project / Sample project";
const std::string Uri = "https://example.com/zun";
constexpr const char* SucceededName = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded";
constexpr const char* FailedName = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Failed";

class CommandLineTest : public ::testing::Test
{
protected:
    TemporaryFolder folder;
    std::string store = folder / "store.db";
    std::unique_ptr<ManagerProcess> manager;

    void StartManager(std::vector<std::string> arguments = {"--phase-delay-ms", "300"})
    {
        manager = std::make_unique<ManagerProcess>(folder, std::move(arguments));
    }

    std::vector<std::string> Arguments(const std::vector<std::string>& command) const
    {
        std::vector<std::string> arguments{BinaryPath("zun-update"), "--store", store, "--socket", manager ? manager->Socket() : folder / "none.sock",
                                           "--plugin", ZUN_PLUGIN_PATH};
        arguments.insert(arguments.end(), command.begin(), command.end());
        return arguments;
    }

    CliResult Run(const std::vector<std::string>& command)
    {
        Process process(Arguments(command), folder.Path().string(), folder / "cli.err");
        CliResult result;
        result.output = process.ReadAll();
        result.exitCode = process.Wait();
        result.errors = ReadFile(folder / "cli.err");
        return result;
    }

    Json RunJson(const std::vector<std::string>& command, int expectedExit = 0)
    {
        std::vector<std::string> withJson = command;
        withJson.push_back("--json");
        const CliResult result = Run(withJson);
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

    // Starts the project's installation with --wait and kills the command line while the manager
    // still installs, as a restart of the controller would; then waits for the manager to finish.
    void InstallProjectAndKillTheCommandLine()
    {
        ASSERT_EQ(RunJson({"stage", Project, "sample-project-1.1.0.tar"})["statusCode"], "Good");
        Process install(Arguments({"install", Project, "--revision", "1.1.0", "--uri", Uri, "--wait", "--interval-ms", "20"}),
                        folder.Path().string(), folder / "install.err");
        std::string line;
        do
        {
            ASSERT_TRUE(install.ReadLine(line)) << ReadFile(folder / "install.err");
        } while (line.rfind("Installing: ", 0) != 0);
        install.Signal(SIGKILL);
        EXPECT_EQ(install.Wait(), 128 + SIGKILL);
        EXPECT_TRUE(ManagerProcess::IsInProgress(manager->StateOf(Manager::SoftwareKind::TesmoraEngineerProject, "Sample project")))
            << "the manager finished before the command line was killed; slow it down";
        ASSERT_TRUE(manager->WaitUntilSettled(Manager::SoftwareKind::TesmoraEngineerProject, "Sample project"));
    }

    std::vector<StoredNotification> Notifications()
    {
        StatusStore reader(store);
        return reader.GetNotifications();
    }
};

TEST_F(CommandLineTest, InstallationEndedWhileStoppedIsSettledAndAnnouncedOnceByTheNextStart)
{
    StartManager({"--phase-delay-ms", "400"});
    InstallProjectAndKillTheCommandLine();

    const Json first = RunJson({"list"});
    const Json project = Component(first, Project);
    EXPECT_EQ(project["state"], "Idle");
    EXPECT_EQ(project["currentRevision"], "1.1.0");
    ASSERT_EQ(first["announcements"].size(), 1u);
    EXPECT_EQ(first["announcements"][0]["name"], SucceededName);
    EXPECT_EQ(first["announcements"][0]["text"], "Installation of 'Sample project' (version: 1.1.0) successful.");

    const Json second = RunJson({"list"});
    EXPECT_THAT(second["announcements"], IsEmpty());
    EXPECT_EQ(Component(second, Project)["state"], "Idle");

    const auto kept = Notifications();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].name, SucceededName);
    EXPECT_EQ(kept[0].senderName, "Software Update");
    EXPECT_EQ(kept[0].severity, 1u);
    const Json listed = RunJson({"notifications"});
    ASSERT_EQ(listed["notifications"].size(), 1u);
    EXPECT_EQ(listed["notifications"][0]["text"], kept[0].text);
}

TEST_F(CommandLineTest, InstallationEndingWithoutTheNewVersionIsAnErrorAnnouncedOnce)
{
    StartManager({"--phase-delay-ms", "400", "--keep-version"});
    InstallProjectAndKillTheCommandLine();

    const Json first = RunJson({"list"});
    const Json project = Component(first, Project);
    EXPECT_EQ(project["state"], "Error");
    EXPECT_EQ(project["message"], "Expected version is 1.1.0 but current version is 1.0.0.");
    EXPECT_EQ(project["currentRevision"], "1.0.0");
    ASSERT_EQ(first["announcements"].size(), 1u);
    EXPECT_EQ(first["announcements"][0]["name"], FailedName);
    EXPECT_EQ(first["announcements"][0]["text"],
              "Failed to install 'Sample project' (version: 1.1.0). Reason: Expected version is 1.1.0 but current version is 1.0.0..");

    const Json second = RunJson({"list"});
    EXPECT_THAT(second["announcements"], IsEmpty());
    EXPECT_EQ(Component(second, Project)["state"], "Error");
    const auto kept = Notifications();
    ASSERT_EQ(kept.size(), 1u);
    EXPECT_EQ(kept[0].severity, 3u);
}

TEST_F(CommandLineTest, FailureInTheManagerIsAnErrorThatResumeTakesBack)
{
    StartManager({"--phase-delay-ms", "50", "--fail-phase", "copy"});
    ASSERT_EQ(RunJson({"stage", Files, "sample-files-1.1.0.tar"})["statusCode"], "Good");

    const CliResult failed = Run({"install", Files, "--revision", "1.1.0", "--uri", Uri, "--wait", "--interval-ms", "20"});
    EXPECT_EQ(failed.exitCode, 1) << failed.errors;
    EXPECT_THAT(failed.output, HasSubstr("Good: installation of 1.1.0 started\nInstalling: "));
    const Json status = RunJson({"status", Files});
    EXPECT_EQ(status["state"], "Error");
    std::string managerMessage;
    EXPECT_EQ(manager->StateOf(Manager::SoftwareKind::GenericFiles, "Sample files", &managerMessage), Manager::InstallationState::CopyingFailed);
    EXPECT_EQ(status["message"], managerMessage);

    // Without the fault the manager can finish what it resumes.
    manager->Stop();
    StartManager({"--phase-delay-ms", "50"});
    EXPECT_EQ(RunJson({"resume", Files})["statusCode"], "Good");
    ASSERT_TRUE(manager->WaitUntilSettled(Manager::SoftwareKind::GenericFiles, "Sample files"));
    const Json after = RunJson({"status", Files});
    EXPECT_EQ(after["state"], "Idle");
    EXPECT_EQ(RunJson({"versions", Files})["current"]["softwareRevision"], "1.1.0");
    // A failure inside the manager, and what it resumes, is never announced.
    EXPECT_THAT(Notifications(), IsEmpty());
}

TEST_F(CommandLineTest, ResumeOfAnIdleComponentIsRefusedWithItsStatusCode)
{
    StartManager();
    const CliResult result = Run({"resume", Files});
    EXPECT_EQ(result.exitCode, 1);
    EXPECT_EQ(result.output, "Bad_InvalidState\n");
}

struct Refusal
{
    const char* label;
    std::vector<std::string> command;
    const char* message;
};

void PrintTo(const Refusal& refusal, std::ostream* stream)
{
    *stream << refusal.label;
}

std::vector<Refusal> Refusals()
{
    const std::string longName(512, 'n');
    const std::string longText(512, 'p');
    return {
        {"NameOf512Bytes", {"status", "Generic files / " + longName}, "refused: The component name after ' / ' is 512 bytes long; at most 511 are allowed."},
        {"PackageOf512Bytes", {"stage", Files, longText}, "refused: The package reference is 512 bytes long; at most 511 are allowed."},
        {"RevisionOf512Bytes", {"install", Files, "--revision", longText, "--uri", Uri}, "refused: The software revision is 512 bytes long; at most 511 are allowed."},
        {"PatchOf512Bytes", {"behavior", Files, "--revision", "1.1.0", "--uri", Uri, "--patch", longText},
         "refused: The patch identifier is 512 bytes long; at most 511 are allowed."},
    };
}

class CommandLineRefusalTest : public CommandLineTest, public ::testing::WithParamInterface<Refusal>
{
};

// Refused input never starts the update service: a store that exists is not touched, and one that
// does not exist is not even made.
TEST_P(CommandLineRefusalTest, RefusesBeforeTheServiceStarts)
{
    StartManager();
    const CliResult fresh = Run(GetParam().command);
    EXPECT_EQ(fresh.exitCode, 2);
    EXPECT_EQ(fresh.errors, std::string("zun-update: ") + GetParam().message + "\n");
    EXPECT_FALSE(std::filesystem::exists(store));

    ASSERT_EQ(RunJson({"stage", Files, "sample-files-1.1.0.tar"})["statusCode"], "Good");
    std::vector<ComponentStatus> before;
    {
        StatusStore reader(store);
        before = reader.GetAllStatus();
    }
    EXPECT_EQ(Run(GetParam().command).exitCode, 2);
    StatusStore reader(store);
    const std::vector<ComponentStatus> after = reader.GetAllStatus();
    ASSERT_EQ(after.size(), before.size());
    for (std::size_t i = 0; i < after.size(); ++i)
    {
        EXPECT_EQ(after[i].name, before[i].name);
        EXPECT_EQ(after[i].status.InstallationState, before[i].status.InstallationState);
        EXPECT_EQ(after[i].status.ErrorMessage, before[i].status.ErrorMessage);
    }
    EXPECT_THAT(reader.GetNotifications(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(BadInput, CommandLineRefusalTest, ::testing::ValuesIn(Refusals()),
                         [](const ::testing::TestParamInfo<Refusal>& info) { return std::string(info.param.label); });

TEST_F(CommandLineTest, UnknownCommandsAndOptionsPrintTheUsage)
{
    for (const std::vector<std::string>& command : {std::vector<std::string>{"frobnicate"}, std::vector<std::string>{"list", "--bogus"},
                                                    std::vector<std::string>{"install", Files, "--revision", "1.1.0"}})
    {
        const CliResult result = Run(command);
        EXPECT_EQ(result.exitCode, 2) << command.front();
        EXPECT_THAT(result.output + result.errors, HasSubstr("Usage: zun-update")) << command.front();
    }
    EXPECT_FALSE(std::filesystem::exists(store));
}

TEST_F(CommandLineTest, UnreachableManagerIsReportedAsUnavailable)
{
    const CliResult result = Run({"list"});
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_THAT(result.errors, HasSubstr("zun-update: unavailable: the update service could not start: "));
}

} // namespace
} // namespace Zun::Services::SoftwareUpdate::UpdateService::EndToEnd
