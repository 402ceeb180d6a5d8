#include <optional>

#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Names = std::unordered_set<String>;

// A call on the store that answers false. "Applied": the store changed all the same; "Unreadable": and
// the read after it fails.
enum class Refuse
{
    None,
    Switch,
    SwitchApplied,
    SwitchAppliedUnreadable,
    Reset,
    ResetApplied
};

// One row of the transition table, run for every manager state listed. The journal leaves out the
// first read and the registration that every row starts with.
struct Row
{
    const char* title;
    HostState host;
    std::vector<int> managerStates;
    const char* hostText;
    const char* own;       // null: marked "True", which is not the module's mark; else marked "true", with this target unless empty
    const char* installed; // current revision; null: no current manifest
    const char* journal;
    HostState expected;
    const char* text;
    const char* log;
    Refuse refuse = Refuse::None;
};

const char* const Says = "manager says";
const char* const IdleToError = "7 Sync status: Switch % from Idle to Installing before Error";
const char* const AfterInstallation = "7 Sync status: Switch % from Installing to Error after installation.; 3 ";

const std::vector<Row> Rows = {
    {"IdleToErrorWhenManagerFailed", HostState::Idle, {2, 4, 6}, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); SetUpdateStatus(%, manager says, false); FinishInstallation(%, false); GetStatus(%)", HostState::Error,
     Says, "7 Sync status: Switch % from Idle to Installing before Error; 7 Sync status: Switch % to Error"},
    {"IdleToInstallingWhenManagerInProgress", HostState::Idle, {1, 3, 5}, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); SetUpdateStatus(%, manager says, false); GetStatus(%)", HostState::Installing, Says,
     "7 Sync status: Switch % from Idle to Installing"},
    {"IdleRefreshesAChangedText", HostState::Idle, {0, 7, 8, 100}, "old", nullptr, "1.0", "SetUpdateStatus(%, manager says, true); GetStatus(%)",
     HostState::Idle, Says, ""},
    {"IdleLeavesAnEqualTextAlone", HostState::Idle, {0, 7}, Says, nullptr, "1.0", "GetStatus(%)", HostState::Idle, Says, ""},
    // An Error after the module's own installation is neither re-read nor touched.
    {"ErrorAfterOwnInstallationStays", HostState::Error, {0, 1, 2, 3, 4, 5, 6, 7}, "old", "2.0", "1.0",
     "GetProperty(%, InstallationStartedByModule)", HostState::Error, "old", ""},
    {"ErrorToIdleWhenManagerIdle", HostState::Error, {0}, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); SetUpdateStatus(%, manager says, true); GetStatus(%)", HostState::Idle, Says,
     "7 Sync status: Switch % from Error to Idle."},
    {"ErrorToInstallingWhenManagerInProgress", HostState::Error, {1, 3, 5}, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); SwitchToInstalling(%, false); SetUpdateStatus(%, manager says, false); "
     "GetStatus(%)",
     HostState::Installing, Says, "7 Sync status: Switch % from Error to Idle before Installing.; 7 Sync status: Switch % to Installing."},
    {"ErrorRefreshesAChangedText", HostState::Error, {2, 4, 6, 7, 8}, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); SetUpdateStatus(%, manager says, false); GetStatus(%)", HostState::Error, Says, ""},
    {"ErrorLeavesAnEqualTextAlone", HostState::Error, {6, 7}, Says, nullptr, "1.0", "GetProperty(%, InstallationStartedByModule); GetStatus(%)",
     HostState::Error, Says, ""},
    {"InstallingToIdleWhenNotOwnInstallation", HostState::Installing, {0}, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); FinishInstallation(%, true); SetUpdateStatus(%, manager says, true); GetStatus(%)",
     HostState::Idle, Says, "7 Sync status: Switch % from Installing to Idle."},
    {"InstallingToIdleAfterOwnInstallationWithTheRequestedRevision", HostState::Installing, {0}, "old", "2.0", "2.0",
     "GetProperty(%, InstallationStartedByModule); GetProperty(%, TargetSoftwareRevision); RemoveProperty(%, InstallationStartedByModule); "
     "FinishInstallation(%, true); SetUpdateStatus(%, manager says, true); GetStatus(%)",
     HostState::Idle, Says, "7 Sync status: Switch % from Installing to Idle after installation."},
    // Revisions compare whole: a prefix is another revision.
    {"InstallingToErrorAfterOwnInstallationWithAnotherRevision", HostState::Installing, {0}, "old", "2.0", "2.0.1",
     "GetProperty(%, InstallationStartedByModule); GetProperty(%, TargetSoftwareRevision); "
     "SetUpdateStatus(%, Expected version is 2.0 but current version is 2.0.1., false); FinishInstallation(%, false); GetStatus(%)",
     HostState::Error, "Expected version is 2.0 but current version is 2.0.1.", AfterInstallation},
    {"InstallingToErrorWithoutTargetProperty", HostState::Installing, {0}, "", "", "2.0",
     "GetProperty(%, InstallationStartedByModule); GetProperty(%, TargetSoftwareRevision); "
     "SetUpdateStatus(%, Expected version is  but current version is 2.0., false); FinishInstallation(%, false); GetStatus(%)",
     HostState::Error, "Expected version is  but current version is 2.0.", AfterInstallation},
    {"InstallingToErrorWithoutCurrentManifest", HostState::Installing, {0}, "", "2.0", nullptr,
     "GetProperty(%, InstallationStartedByModule); GetProperty(%, TargetSoftwareRevision); "
     "SetUpdateStatus(%, Expected version is 2.0 but current version is ., false); FinishInstallation(%, false); GetStatus(%)",
     HostState::Error, "Expected version is 2.0 but current version is .", AfterInstallation},
    {"InstallingToErrorWhenManagerFailed", HostState::Installing, {2, 4, 6}, "old", "2.0", "2.0",
     "SetUpdateStatus(%, manager says, false); FinishInstallation(%, false); GetStatus(%)", HostState::Error, Says,
     "7 Sync status: Switch % from Installing to Error."},
    {"InstallingRefreshesAChangedText", HostState::Installing, {1, 3, 5, 7, 8}, "old", "2.0", "2.0",
     "SetUpdateStatus(%, manager says, false); GetStatus(%)", HostState::Installing, Says, ""},
    {"InstallingLeavesAnEqualTextAlone", HostState::Installing, {3, 7}, Says, nullptr, "2.0", "GetStatus(%)", HostState::Installing, Says, ""},
    // A host state outside 0..2 is handled as Installing.
    {"UnknownHostStateIsHandledAsInstalling", static_cast<HostState>(3), {2, 4}, "old", nullptr, "2.0",
     "SetUpdateStatus(%, manager says, false); FinishInstallation(%, false); GetStatus(%)", static_cast<HostState>(3), Says,
     "7 Sync status: Switch % from Installing to Error."},
    // A refused switch goes on only when the store already is where the switch would have led.
    {"IdleFailedSwitchRefusedButAlreadyInstallingGoesToError", HostState::Idle, {4}, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); GetStatus(%); SetUpdateStatus(%, manager says, false); FinishInstallation(%, false); GetStatus(%)",
     HostState::Error, Says, "7 Sync status: Switch % from Idle to Installing before Error; 7 Sync status: Switch % to Error",
     Refuse::SwitchApplied},
    {"IdleFailedSwitchRefusedAndStillIdleStaysIdle", HostState::Idle, {2}, "", nullptr, "1.0", "GetStatus(%); GetStatus(%)", HostState::Idle,
     "", IdleToError, Refuse::Switch},
    // The store says Installing, but the module could not see it; the final re-read can.
    {"IdleFailedSwitchRefusedAndUnreadableGoesNoFurther", HostState::Idle, {6}, "", nullptr, "1.0",
     "SwitchToInstalling(%, false); GetStatus(%); GetStatus(%)", HostState::Installing, "", IdleToError, Refuse::SwitchAppliedUnreadable},
    {"IdleInProgressSwitchRefusedStaysIdle", HostState::Idle, {3}, "", nullptr, "1.0", "GetStatus(%)", HostState::Idle, "",
     "7 Sync status: Switch % from Idle to Installing", Refuse::Switch},
    {"ErrorInProgressResetRefusedButAlreadyIdleGoesToInstalling", HostState::Error, {1}, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); GetStatus(%); SwitchToInstalling(%, false); "
     "SetUpdateStatus(%, manager says, false); GetStatus(%)",
     HostState::Installing, Says, "7 Sync status: Switch % from Error to Idle before Installing.; 7 Sync status: Switch % to Installing.",
     Refuse::ResetApplied},
    {"ErrorInProgressResetRefusedAndStillErrorStaysError", HostState::Error, {5}, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); GetStatus(%); GetStatus(%)", HostState::Error, "old",
     "7 Sync status: Switch % from Error to Idle before Installing.", Refuse::Reset},
    {"ErrorInProgressSwitchRefusedEndsIdle", HostState::Error, {3}, "old", nullptr, "1.0",
     "GetProperty(%, InstallationStartedByModule); ResetError(%); GetStatus(%)", HostState::Idle, "old",
     "7 Sync status: Switch % from Error to Idle before Installing.; 7 Sync status: Switch % to Installing.", Refuse::Switch},
};

struct Case
{
    const Row* row;
    int managerState;
};

std::vector<Case> Cases()
{
    std::vector<Case> cases;
    for (const Row& row : Rows)
    {
        for (int state : row.managerStates)
        {
            cases.push_back(Case{&row, state});
        }
    }
    return cases;
}

class TransitionTest : public UpdaterModuleTest, public ::testing::WithParamInterface<Case>
{
};

TEST_P(TransitionTest, DrivesTheStoreLogsAndWorkList)
{
    const Row& row = *GetParam().row;
    env.managerFake->AddComponent(Kind::GenericFiles, "app", row.installed ? std::optional(Manifest(row.installed)) : std::nullopt);
    Start();
    env.statusFake->Seed(App, row.host, row.hostText);
    env.statusFake->SeedProperty(App, StartedKey, row.own ? "true" : "True");
    if (row.own && *row.own)
    {
        env.statusFake->SeedProperty(App, TargetKey, row.own);
    }
    env.managerFake->SetState(Kind::GenericFiles, "app", static_cast<ManagerState>(GetParam().managerState), Says);
    const bool applied = row.refuse != Refuse::Switch && row.refuse != Refuse::Reset;
    auto refused = [this, applied, unreadable = row.refuse == Refuse::SwitchAppliedUnreadable](auto apply) {
        if (applied)
        {
            apply();
            env.statusFake->FailNextGetStatus(unreadable ? 1 : 0);
        }
        return false;
    };
    if (row.refuse == Refuse::Reset || row.refuse == Refuse::ResetApplied)
    {
        EXPECT_CALL(*env.status, ResetError(App)).WillOnce([this, refused](const String& name) {
            return refused([&] { env.statusFake->ResetError(name); });
        });
    }
    else if (row.refuse != Refuse::None)
    {
        EXPECT_CALL(*env.status, SwitchToInstalling(App, false)).WillOnce([this, refused](const String& name, bool flag) {
            return refused([&] { env.statusFake->SwitchToInstalling(name, flag); });
        });
    }

    Record record;
    EXPECT_EQ(module->GetStatus(App, record), Codes::Good);

    EXPECT_EQ(Journal(), std::string("GetStatus(%); AddComponent(%); ") + row.journal);
    // Level 3 repeats the reason after an own installation; a later pass never announces (level 5 for these).
    EXPECT_EQ(Log(), row.log == AfterInstallation ? row.log + std::string(row.text) : row.log);
    EXPECT_EQ(env.statusFake->StateOf(App), row.expected);
    EXPECT_EQ(record.InstallationState, row.expected);
    EXPECT_EQ(record.ErrorMessage.ToString(), row.text);
    EXPECT_EQ(module->GetSyncList(), row.expected == HostState::Idle ? Names{} : Names{App});
}

INSTANTIATE_TEST_SUITE_P(TransitionTable, TransitionTest, ::testing::ValuesIn(Cases()), [](const auto& info) {
    return fmt::format("{}_Manager{}", info.param.row->title, info.param.managerState);
});

// Failures: a status code, and nothing changed that the code does not explain; "other" stays listed.
class SyncFailureTest : public UpdaterModuleTest
{
public:
    void SetUp() override
    {
        env.managerFake->AddComponent(Kind::GenericFiles, "app", Manifest("2.0"));
        env.managerFake->AddComponent(Kind::GenericFiles, "other");
        Start();
        env.statusFake->Seed(Other, HostState::Installing);
        env.managerFake->SetState(Kind::GenericFiles, "other", ManagerState::Copying);
        ASSERT_EQ(Sync(Other), HostState::Installing);
        Clear();
    }

    const String Other = "Generic files / other";
    const Names before{Other};
};

TEST_F(SyncFailureTest, ManagerFailureIsPassedOnAndTheRegistrationFollowsIt)
{
    for (const auto& [code, unregisters] : {std::pair(Codes::BadNotFound, true), std::pair(Codes::BadInvalidArgument, true),
                                            std::pair(Codes::BadInternalError, false), std::pair(Codes::BadNoCommunication, false),
                                            std::pair(Codes::BadInvalidState, false)})
    {
        SCOPED_TRACE(code);
        env.statusFake->Seed(App, HostState::Installing, "old");
        env.managerFake->FailOperation("GetInstallationState", code);
        Clear();
        Record record;
        EXPECT_EQ(module->GetStatus(App, record), code);
        EXPECT_EQ(module->GetStatus(Other, record), code);
        EXPECT_EQ(Journal(), unregisters ? "GetStatus(%); RemoveComponent(%); GetStatus(Generic files / other); RemoveComponent(Generic files / other)"
                                         : "GetStatus(%); AddComponent(%); GetStatus(Generic files / other); AddComponent(Generic files / other)");
        EXPECT_EQ(Snapshot(), unregisters ? "- [] list: Generic files / other" : "Installing [old] list: Generic files / other");
        env.statusFake->Seed(Other, HostState::Installing);
    }
}

TEST_F(SyncFailureTest, TargetReportedMissingCountsAsEmptyWhateverWasWritten)
{
    env.statusFake->Seed(App, HostState::Installing);
    env.statusFake->SeedProperty(App, StartedKey, "true");
    EXPECT_CALL(*env.status, GetProperty(_, _, _)).Times(::testing::AnyNumber());
    EXPECT_CALL(*env.status, GetProperty(App, TargetKey, _)).WillOnce([](const String&, const String&, String& value) {
        value = "2.0";
        return false;
    });

    EXPECT_EQ(Sync(), HostState::Error);
    EXPECT_EQ(State(), "Error [Expected version is  but current version is 2.0.]");
}

TEST_F(SyncFailureTest, FailingReReadIsAnUnexpectedErrorAndLeavesTheWorkList)
{
    for (const auto& [host, manager] :
         {std::pair(HostState::Idle, ManagerState::Copying), std::pair(HostState::Idle, ManagerState::Idle),
          std::pair(HostState::Error, ManagerState::Idle), std::pair(HostState::Error, ManagerState::CopyingFailed),
          std::pair(HostState::Installing, ManagerState::Idle), std::pair(HostState::Installing, ManagerState::Copying)})
    {
        SCOPED_TRACE(::testing::Message() << host << " " << static_cast<int>(manager));
        Seed(host, manager, "old");
        env.managerFake->SetState(Kind::GenericFiles, "app", manager, "new");
        // The first read succeeds; every read after the manager's answer fails.
        EXPECT_CALL(*env.status, AddComponent(App)).WillOnce([this](const String& name) {
            env.statusFake->AddComponent(name);
            env.statusFake->FailNextGetStatus(5);
        });
        Clear();
        Record record;
        EXPECT_EQ(module->GetStatus(App, record), Codes::BadUnexpectedError);
        EXPECT_EQ(env.statusFake->Journal().back(), "GetStatus(" + App + ")");
        EXPECT_EQ(module->GetSyncList(), before);
        env.statusFake->FailNextGetStatus(0);
    }
}

// The first pass, run by Initialize, announces the results of the module's own installations.
class FirstPassTest : public UpdaterModuleTest
{
public:
    // Stored as Installing, started by the module for 2.0; the manager has `installed` and is in `state`.
    String SeedOwn(Kind kind, const char* bare, const char* installed, ManagerState state = ManagerState::Idle)
    {
        const String name = String(kind == Kind::GenericFiles ? "Generic files / " : "Tesmora Engineer project / ") + bare;
        env.managerFake->AddComponent(kind, bare, Manifest(installed));
        env.managerFake->SetState(kind, bare, state, "manager text");
        env.statusFake->Seed(name, HostState::Installing, "installing");
        env.statusFake->SeedProperty(name, StartedKey, "true");
        env.statusFake->SeedProperty(name, TargetKey, "2.0");
        return name;
    }

    // Sent notifications as "Succeeded: payload", by the last part of their name.
    std::string Sent() const
    {
        std::vector<String> lines;
        for (const auto& sent : env.notifications.GetSentNotifications())
        {
            lines.push_back(sent.name.substr(sent.name.rfind('.') + 1) + ": " + sent.payload);
        }
        return Joined(lines);
    }
};

TEST_F(FirstPassTest, AnnouncesOwnInstallationsThatEndedWhileNobodyWatched)
{
    const String ok = SeedOwn(Kind::TesmoraEngineerProject, "ok", "2.0");
    const String bad = SeedOwn(Kind::TesmoraEngineerProject, "bad", "1.0");
    // A failure inside the manager is never announced.
    std::vector<String> failed;
    for (auto [bare, state] : {std::pair("p2", ManagerState::PreparingFailed), std::pair("p4", ManagerState::CopyingFailed),
                               std::pair("p6", ManagerState::ActivatingFailed)})
    {
        failed.push_back(SeedOwn(Kind::TesmoraEngineerProject, bare, "1.0", state));
    }
    SeedOwn(Kind::GenericFiles, "app", "2.0");
    const String lib = SeedOwn(Kind::GenericFiles, "lib", "1.0");
    Create();
    module->Disable();

    EXPECT_EQ(Sent(), "Succeeded: Installation of 'ok' (version: 2.0) successful.; "
                      "Failed: Failed to install 'bad' (version: 2.0). Reason: Expected version is 2.0 but current version is 1.0..");
    EXPECT_THAT(logs.Messages(5), ElementsAre("SecurityNotification is not implemented for Generic files",
                                              "SecurityNotification is not implemented for Generic files"));
    EXPECT_TRUE(module->IsStateInitialized());
    EXPECT_EQ(env.statusFake->PropertyOf(ok, StartedKey), std::nullopt);
    EXPECT_EQ(Joined({State(ok), State(App), State(bad), State(lib), State(failed[0]), State(failed[1]), State(failed[2])}),
              "Idle [manager text]; Idle [manager text]; Error [Expected version is 2.0 but current version is 1.0.]; "
              "Error [Expected version is 2.0 but current version is 1.0.]; Error [manager text]; Error [manager text]; Error [manager text]");
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
