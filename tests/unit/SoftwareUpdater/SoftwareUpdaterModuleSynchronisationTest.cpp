#include <optional>

#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::IsEmpty;
using Names = std::unordered_set<String>;

// A call on the store that answers false; "Applied": the store changed all the same.
enum class Refuse
{
    None,
    Switch,
    SwitchApplied,
    Reset,
    ResetApplied
};

// One row of the transition table. The journal leaves out the first read and the registration that
// every row starts with.
struct Row
{
    const char* title;
    HostState host;
    int manager;
    const char* hostText;
    const char* own;       // null: marked "True", which is not the module's mark; else marked "true" with this target
    const char* installed; // current revision
    const char* journal;
    HostState expected;
    const char* text;
    const char* log;
    Refuse refuse = Refuse::None;
};

const char* const Says = "manager says";
const char* const IdleToError = "7 Sync status: Switch % from Idle to Installing before Error; 7 Sync status: Switch % to Error";
const char* const ErrorToInstalling =
    "7 Sync status: Switch % from Error to Idle before Installing.; 7 Sync status: Switch % to Installing.";

const Row Rows[] = {
    {"IdleToErrorWhenManagerFailed", HostState::Idle, 6, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); SetUpdateStatus(%, manager says, false); FinishInstallation(%, false); GetStatus(%)", HostState::Error,
     Says, IdleToError},
    {"IdleToInstallingWhenManagerInProgress", HostState::Idle, 5, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); SetUpdateStatus(%, manager says, false); GetStatus(%)", HostState::Installing, Says,
     "7 Sync status: Switch % from Idle to Installing"},
    {"IdleRefreshesAChangedText", HostState::Idle, 0, "old", nullptr, "1.0", "SetUpdateStatus(%, manager says, true); GetStatus(%)",
     HostState::Idle, Says, ""},
    // An Error after the module's own installation is neither re-read nor touched.
    {"ErrorAfterOwnInstallationStays", HostState::Error, 1, "old", "2.0", "1.0", "GetProperty(%, InstallationStartedByModule)",
     HostState::Error, "old", ""},
    {"ErrorToIdleWhenManagerIdle", HostState::Error, 0, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); SetUpdateStatus(%, manager says, true); GetStatus(%)", HostState::Idle,
     Says, "7 Sync status: Switch % from Error to Idle."},
    {"ErrorToInstallingWhenManagerInProgress", HostState::Error, 3, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); SwitchToInstalling(%, false); SetUpdateStatus(%, manager says, false); "
     "GetStatus(%)",
     HostState::Installing, Says, ErrorToInstalling},
    {"ErrorRefreshesAChangedText", HostState::Error, 2, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); SetUpdateStatus(%, manager says, false); GetStatus(%)", HostState::Error, Says, ""},
    {"InstallingToIdleWhenNotOwnInstallation", HostState::Installing, 0, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); FinishInstallation(%, true); SetUpdateStatus(%, manager says, true); GetStatus(%)",
     HostState::Idle, Says, "7 Sync status: Switch % from Installing to Idle."},
    // A later pass never announces the result.
    {"InstallingToIdleAfterOwnInstallationWithTheRequestedRevision", HostState::Installing, 0, "old", "2.0", "2.0",
     "GetProperty(%, InstallationStartedByModule); GetProperty(%, TargetSoftwareRevision); RemoveProperty(%, InstallationStartedByModule); "
     "FinishInstallation(%, true); SetUpdateStatus(%, manager says, true); GetStatus(%)",
     HostState::Idle, Says, "7 Sync status: Switch % from Installing to Idle after installation."},
    {"InstallingToErrorAfterOwnInstallationWithAnotherRevision", HostState::Installing, 0, "old", "2.0", "2.0.1",
     "GetProperty(%, InstallationStartedByModule); GetProperty(%, TargetSoftwareRevision); "
     "SetUpdateStatus(%, Expected version is 2.0 but current version is 2.0.1., false); FinishInstallation(%, false); GetStatus(%)",
     HostState::Error, "Expected version is 2.0 but current version is 2.0.1.",
     "7 Sync status: Switch % from Installing to Error after installation.; 3 Expected version is 2.0 but current version is 2.0.1."},
    {"InstallingToErrorWhenManagerFailed", HostState::Installing, 4, "old", "2.0", "2.0",
     "SetUpdateStatus(%, manager says, false); FinishInstallation(%, false); GetStatus(%)", HostState::Error, Says,
     "7 Sync status: Switch % from Installing to Error."},
    // A refused switch or reset goes on only when the store already is where it would have led.
    {"IdleSwitchRefusedButAlreadyInstallingGoesToError", HostState::Idle, 4, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); GetStatus(%); SetUpdateStatus(%, manager says, false); FinishInstallation(%, false); GetStatus(%)",
     HostState::Error, Says, IdleToError, Refuse::SwitchApplied},
    {"IdleSwitchRefusedAndStillIdleStaysIdle", HostState::Idle, 2, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); GetStatus(%); GetStatus(%)", HostState::Idle, "",
     "7 Sync status: Switch % from Idle to Installing before Error", Refuse::Switch},
    {"ErrorResetRefusedButAlreadyIdleGoesToInstalling", HostState::Error, 1, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); GetStatus(%); SwitchToInstalling(%, false); "
     "SetUpdateStatus(%, manager says, false); GetStatus(%)",
     HostState::Installing, Says, ErrorToInstalling, Refuse::ResetApplied},
    {"ErrorResetRefusedAndStillErrorStaysError", HostState::Error, 5, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); GetStatus(%); GetStatus(%)", HostState::Error, "old",
     "7 Sync status: Switch % from Error to Idle before Installing.", Refuse::Reset},
};

void PrintTo(const Row& row, std::ostream* stream)
{
    *stream << row.title;
}

class TransitionTest : public UpdaterModuleTest, public ::testing::WithParamInterface<Row>
{
};

TEST_P(TransitionTest, DrivesTheStoreLogsAndWorkList)
{
    const Row& row = GetParam();
    env.manager->AddComponent(Kind::GenericFiles, "app", Manifest(row.installed));
    Start();
    env.status->Seed(App, row.host, row.hostText);
    env.status->SeedProperty(App, StartedKey, row.own ? "true" : "True");
    if (row.own)
    {
        env.status->SeedProperty(App, TargetKey, row.own);
    }
    env.manager->SetState(Kind::GenericFiles, "app", static_cast<ManagerState>(row.manager), Says);
    const bool applied = row.refuse == Refuse::SwitchApplied || row.refuse == Refuse::ResetApplied;
    if (row.refuse != Refuse::None)
    {
        const bool reset = row.refuse == Refuse::Reset || row.refuse == Refuse::ResetApplied;
        env.status->Refuse(reset ? "ResetError(" + App + ")" : "SwitchToInstalling(" + App + ", false)", applied);
    }

    Record record;
    EXPECT_EQ(module->GetStatus(App, record), Codes::Good);

    EXPECT_EQ(Journal(), std::string("GetStatus(%); AddComponent(%); ") + row.journal);
    EXPECT_EQ(Log(), row.log);
    EXPECT_EQ(env.status->StateOf(App), row.expected);
    EXPECT_EQ(record.InstallationState, row.expected);
    EXPECT_EQ(record.ErrorMessage.ToString(), row.text);
    EXPECT_EQ(module->GetSyncList(), row.expected == HostState::Idle ? Names{} : Names{App});
}

INSTANTIATE_TEST_SUITE_P(TransitionTable, TransitionTest, ::testing::ValuesIn(Rows), [](const auto& info) { return info.param.title; });

using SynchronisationTest = UpdaterModuleTest;

// The manager's answer also decides the registration: a component it does not know goes.
TEST_F(SynchronisationTest, ManagerFailureIsPassedOnAndTheRegistrationFollowsIt)
{
    Start();
    for (const auto& [code, journal] : {std::pair(Codes::BadInvalidArgument, "GetStatus(%); RemoveComponent(%)"),
                                        std::pair(Codes::BadNoCommunication, "GetStatus(%); AddComponent(%)")})
    {
        env.status->Seed(App, HostState::Installing, "old");
        env.manager->FailOperation("GetInstallationState", code);
        Clear();
        Record record;
        EXPECT_EQ(module->GetStatus(App, record), code);
        EXPECT_EQ(Journal(), journal);
    }
}

TEST_F(SynchronisationTest, TargetReportedMissingCountsAsEmptyWhateverWasWritten)
{
    env.manager->AddComponent(Kind::GenericFiles, "app", Manifest("2.0"));
    Start();
    env.status->Seed(App, HostState::Installing);
    env.status->SeedProperty(App, StartedKey, "true");
    env.status->SeedProperty(App, TargetKey, "2.0");
    env.status->Refuse("GetProperty(" + App + ", TargetSoftwareRevision)", true);

    EXPECT_EQ(Sync(), HostState::Error);
    EXPECT_EQ(State(), "Error [Expected version is  but current version is 2.0.]");
}

TEST_F(SynchronisationTest, FailingReReadIsAnUnexpectedErrorAndLeavesTheWorkList)
{
    env.manager->AddComponent(Kind::GenericFiles, "app");
    Start();
    env.status->Seed(App, HostState::Installing, "old");
    env.manager->SetState(Kind::GenericFiles, "app", ManagerState::Copying, "new");
    // The first read succeeds, the one after the manager's answer fails.
    env.manager->BeforeEachCall([this](const String&) { env.status->Refuse("GetStatus(" + App + ")"); });
    Record record;
    EXPECT_EQ(module->GetStatus(App, record), Codes::BadUnexpectedError);
    EXPECT_EQ(Journal(), "GetStatus(%); AddComponent(%); SetUpdateStatus(%, new, false); GetStatus(%)");
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

// The first pass, run by Initialize, announces the results of the module's own installations.
TEST_F(SynchronisationTest, FirstPassAnnouncesOwnInstallationsThatEndedWhileNobodyWatched)
{
    for (const auto& [bare, installed] : {std::pair("ok", "2.0"), std::pair("bad", "1.0")})
    {
        const String name = String("Tesmora Engineer project / ") + bare;
        env.manager->AddComponent(Kind::TesmoraEngineerProject, bare, Manifest(installed));
        env.status->Seed(name, HostState::Installing);
        env.status->SeedProperty(name, StartedKey, "true");
        env.status->SeedProperty(name, TargetKey, "2.0");
    }
    Start();

    std::vector<String> sent;
    for (const auto& notification : env.notifications.GetSentNotifications())
    {
        sent.push_back(notification.name.substr(notification.name.rfind('.') + 1) + ": " + notification.payload);
    }
    EXPECT_EQ(Joined(sent), "Succeeded: Installation of 'ok' (version: 2.0) successful.; "
                            "Failed: Failed to install 'bad' (version: 2.0). Reason: Expected version is 2.0 but current version is 1.0..");
    EXPECT_TRUE(module->IsStateInitialized());
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
