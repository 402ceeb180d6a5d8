#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"

#include <memory>
#include <optional>
#include <ostream>
#include <vector>

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"
#include "Zun/Testing/Watchdog.hpp"

namespace
{
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule;
using Zun::Testing::CapturedLine;
using Zun::Testing::FakeSoftwareManagerService;
namespace Codes = Zun::Services::SoftwareUpdate::StatusCodes;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using ManagerState = Zun::Services::SoftwareManager::Services::Internal::InstallationState;
using Kind = Zun::Services::SoftwareManager::Services::Internal::SoftwareKind;
using Record = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;
using Names = std::unordered_set<String>;

const char* const ModuleLogger = "Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule";
const String App = "Generic files / app";
const String Proj = "Tesmora Engineer project / proj";
const String StartedKey = "InstallationStartedByModule";
const String TargetKey = "TargetSoftwareRevision";
const char* const SucceededName = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Succeeded";
const char* const FailedName = "Security.Zun.Services.SoftwareUpdate.Tesmora Engineer project.Installation.Failed";

ManagerState Manager(int value)
{
    return static_cast<ManagerState>(value);
}

// As plain strings, so that gtest prints failures as text.
std::vector<std::string> Plain(const std::vector<String>& lines)
{
    return std::vector<std::string>(lines.begin(), lines.end());
}

// Journal lines are written with '%' for the component's name.
std::vector<std::string> Lines(std::initializer_list<const char*> templates, const String& name = App)
{
    std::vector<std::string> lines;
    for (const char* line : templates)
    {
        String text(line);
        for (std::size_t at = text.find('%'); at != String::npos; at = text.find('%', at + name.size()))
        {
            text.replace(at, 1, name);
        }
        lines.push_back(text);
    }
    return lines;
}

class SynchronisationTest : public testing::Test
{
protected:
    // The module runs disabled unless a test says otherwise, so no status thread polls beside the
    // test and the journals hold only the calls of the synchronisation under test.
    void Start(bool disable = true)
    {
        module = std::make_unique<SoftwareUpdaterModule>();
        module->Initialize("SoftwareUpdater", env.status);
        if (disable)
        {
            module->Disable();
        }
        Clear();
    }

    void TearDown() override
    {
        if (module)
        {
            module->Disable();
            sleep.SetAutomatic(true);
            module.reset();
        }
    }

    void Clear()
    {
        env.statusFake->ClearJournal();
        env.managerFake->ClearJournal();
        logs.Clear();
    }

    std::vector<String> ModuleMessages(int level) const
    {
        std::vector<String> messages;
        for (const CapturedLine& line : logs.Lines())
        {
            if (line.logger == ModuleLogger && line.level == level)
            {
                messages.push_back(line.message);
            }
        }
        return messages;
    }

    Zun::Testing::Watchdog watchdog{std::chrono::seconds(60)};
    Zun::Testing::ManualSleep sleep;
    Zun::Testing::LogCapture logs{7};
    Zun::Testing::ModuleEnvironment env;
    std::unique_ptr<SoftwareUpdaterModule> module;
};

// One row of the transition table, run for every manager state listed.
struct Row
{
    const char* title;
    HostState host;
    std::vector<int> managerStates;
    const char* hostText;
    bool startedByModule;
    std::optional<const char*> target; // property TargetSoftwareRevision
    const char* installed;             // current manifest's revision; null: no current manifest
    std::vector<const char*> journal;  // every call on the store, reads included
    HostState expected;
    const char* expectedText;
    std::vector<std::string> traces; // module log lines at level 7
    std::vector<std::string> errors; // module log lines at level 3
};

struct Case
{
    const Row* row;
    int managerState;
};

void PrintTo(const Case& c, std::ostream* os)
{
    *os << c.row->title << " (manager " << c.managerState << ")";
}

const char* const ManagerText = "manager says";

const std::vector<Row>& Rows()
{
    static const std::vector<Row> rows = {
        {"IdleToErrorWhenManagerFailed", HostState::Idle, {2, 4, 6}, "", false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "SwitchToInstalling(%, false)", "SetUpdateStatus(%, manager says, false)",
          "FinishInstallation(%, false)", "GetStatus(%)"},
         HostState::Error, ManagerText,
         Lines({"Sync status: Switch % from Idle to Installing before Error", "Sync status: Switch % to Error"}), {}},
        {"IdleToInstallingWhenManagerInProgress", HostState::Idle, {1, 3, 5}, "", false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "SwitchToInstalling(%, false)", "SetUpdateStatus(%, manager says, false)", "GetStatus(%)"},
         HostState::Installing, ManagerText, Lines({"Sync status: Switch % from Idle to Installing"}), {}},
        {"IdleRefreshesAChangedText", HostState::Idle, {0, 7, 8, 100}, "old text", false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "SetUpdateStatus(%, manager says, true)", "GetStatus(%)"}, HostState::Idle, ManagerText,
         {}, {}},
        {"IdleLeavesAnEqualTextAlone", HostState::Idle, {0, 7}, ManagerText, false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetStatus(%)"}, HostState::Idle, ManagerText, {}, {}},
        // An Error after the module's own installation is not re-read and not touched.
        {"ErrorAfterOwnInstallationStays", HostState::Error, {0, 1, 2, 3, 4, 5, 6, 7}, "old text", true, "2.0", "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)"}, HostState::Error, "old text", {}, {}},
        {"ErrorToIdleWhenManagerIdle", HostState::Error, {0}, "old text", false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "ResetError(%)",
          "SetUpdateStatus(%, manager says, true)", "GetStatus(%)"},
         HostState::Idle, ManagerText, Lines({"Sync status: Switch % from Error to Idle."}), {}},
        {"ErrorToInstallingWhenManagerInProgress", HostState::Error, {1, 3, 5}, "old text", false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "ResetError(%)",
          "SwitchToInstalling(%, false)", "SetUpdateStatus(%, manager says, false)", "GetStatus(%)"},
         HostState::Installing, ManagerText,
         Lines({"Sync status: Switch % from Error to Idle before Installing.", "Sync status: Switch % to Installing."}), {}},
        {"ErrorRefreshesAChangedText", HostState::Error, {2, 4, 6, 7, 8}, "old text", false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "SetUpdateStatus(%, manager says, false)",
          "GetStatus(%)"},
         HostState::Error, ManagerText, {}, {}},
        {"ErrorLeavesAnEqualTextAlone", HostState::Error, {6, 7}, ManagerText, false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetStatus(%)"}, HostState::Error,
         ManagerText, {}, {}},
        {"InstallingToIdleWhenNotOwnInstallation", HostState::Installing, {0}, "old text", false, std::nullopt, "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "FinishInstallation(%, true)",
          "SetUpdateStatus(%, manager says, true)", "GetStatus(%)"},
         HostState::Idle, ManagerText, Lines({"Sync status: Switch % from Installing to Idle."}), {}},
        {"InstallingToIdleAfterOwnInstallationWithTheRequestedRevision", HostState::Installing, {0}, "old text", true, "2.0", "2.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetProperty(%, TargetSoftwareRevision)",
          "RemoveProperty(%, InstallationStartedByModule)", "FinishInstallation(%, true)", "SetUpdateStatus(%, manager says, true)",
          "GetStatus(%)"},
         HostState::Idle, ManagerText, Lines({"Sync status: Switch % from Installing to Idle after installation."}), {}},
        {"InstallingToErrorAfterOwnInstallationWithAnotherRevision", HostState::Installing, {0}, "old text", true, "2.0", "1.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetProperty(%, TargetSoftwareRevision)",
          "SetUpdateStatus(%, Expected version is 2.0 but current version is 1.0., false)", "FinishInstallation(%, false)",
          "GetStatus(%)"},
         HostState::Error, "Expected version is 2.0 but current version is 1.0.",
         Lines({"Sync status: Switch % from Installing to Error after installation."}),
         {"Expected version is 2.0 but current version is 1.0."}},
        // Revisions compare whole: a prefix is another revision.
        {"InstallingToErrorWhenTheRevisionOnlyBeginsLikeTheTarget", HostState::Installing, {0}, "", true, "2.0", "2.0.1",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetProperty(%, TargetSoftwareRevision)",
          "SetUpdateStatus(%, Expected version is 2.0 but current version is 2.0.1., false)", "FinishInstallation(%, false)",
          "GetStatus(%)"},
         HostState::Error, "Expected version is 2.0 but current version is 2.0.1.",
         Lines({"Sync status: Switch % from Installing to Error after installation."}),
         {"Expected version is 2.0 but current version is 2.0.1."}},
        {"InstallingToErrorWithoutTargetProperty", HostState::Installing, {0}, "", true, std::nullopt, "2.0",
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetProperty(%, TargetSoftwareRevision)",
          "SetUpdateStatus(%, Expected version is  but current version is 2.0., false)", "FinishInstallation(%, false)",
          "GetStatus(%)"},
         HostState::Error, "Expected version is  but current version is 2.0.",
         Lines({"Sync status: Switch % from Installing to Error after installation."}),
         {"Expected version is  but current version is 2.0."}},
        {"InstallingToErrorWithoutCurrentManifest", HostState::Installing, {0}, "", true, "2.0", nullptr,
         {"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetProperty(%, TargetSoftwareRevision)",
          "SetUpdateStatus(%, Expected version is 2.0 but current version is ., false)", "FinishInstallation(%, false)",
          "GetStatus(%)"},
         HostState::Error, "Expected version is 2.0 but current version is .",
         Lines({"Sync status: Switch % from Installing to Error after installation."}),
         {"Expected version is 2.0 but current version is ."}},
        {"InstallingToErrorWhenManagerFailed", HostState::Installing, {2, 4, 6}, "old text", true, "2.0", "2.0",
         {"GetStatus(%)", "AddComponent(%)", "SetUpdateStatus(%, manager says, false)", "FinishInstallation(%, false)", "GetStatus(%)"},
         HostState::Error, ManagerText, Lines({"Sync status: Switch % from Installing to Error."}), {}},
        {"InstallingRefreshesAChangedText", HostState::Installing, {1, 3, 5, 7, 8}, "old text", true, "2.0", "2.0",
         {"GetStatus(%)", "AddComponent(%)", "SetUpdateStatus(%, manager says, false)", "GetStatus(%)"}, HostState::Installing,
         ManagerText, {}, {}},
        {"InstallingLeavesAnEqualTextAlone", HostState::Installing, {3, 7}, ManagerText, false, std::nullopt, "2.0",
         {"GetStatus(%)", "AddComponent(%)", "GetStatus(%)"}, HostState::Installing, ManagerText, {}, {}},
        // A host state outside 0..2 is handled as Installing.
        {"UnknownHostStateIsHandledAsInstalling", static_cast<HostState>(3), {2, 4}, "old text", false, std::nullopt, "2.0",
         {"GetStatus(%)", "AddComponent(%)", "SetUpdateStatus(%, manager says, false)", "FinishInstallation(%, false)", "GetStatus(%)"},
         static_cast<HostState>(3), ManagerText, Lines({"Sync status: Switch % from Installing to Error."}), {}},
    };
    return rows;
}

std::vector<Case> Cases()
{
    std::vector<Case> cases;
    for (const Row& row : Rows())
    {
        for (int state : row.managerStates)
        {
            cases.push_back(Case{&row, state});
        }
    }
    return cases;
}

class TransitionTest : public SynchronisationTest, public testing::WithParamInterface<Case>
{
};

TEST_P(TransitionTest, DrivesTheStoreLogsAndKeepsTheWorkList)
{
    const Row& row = *GetParam().row;
    const int managerState = GetParam().managerState;
    const auto installed = row.installed ? std::optional(FakeSoftwareManagerService::MakeManifest(row.installed)) : std::nullopt;
    env.managerFake->AddComponent(Kind::GenericFiles, "app", installed);
    Start();
    env.statusFake->Seed(App, row.host, row.hostText);
    // "True" must not count as the module's mark; rows that are not the module's own carry it.
    env.statusFake->SeedProperty(App, StartedKey, row.startedByModule ? "true" : "True");
    if (row.target)
    {
        env.statusFake->SeedProperty(App, TargetKey, *row.target);
    }
    env.managerFake->SetState(Kind::GenericFiles, "app", Manager(managerState), ManagerText);

    Record record;
    EXPECT_EQ(module->GetStatus(App, record), Codes::Good);

    std::vector<std::string> journal;
    for (const char* line : row.journal)
    {
        journal.push_back(Lines({line})[0]);
    }
    EXPECT_EQ(Plain(env.statusFake->Journal()), journal);
    EXPECT_EQ(env.statusFake->StateOf(App), row.expected);
    EXPECT_EQ(env.statusFake->ErrorMessageOf(App), row.expectedText);
    // The record handed back is the store's own.
    EXPECT_EQ(record.InstallationState, row.expected);
    EXPECT_EQ(record.ErrorMessage.ToString(), row.expectedText);
    EXPECT_EQ(module->GetSyncList(), row.expected == HostState::Idle ? Names{} : Names{App});
    EXPECT_EQ(Plain(ModuleMessages(7)), row.traces);
    EXPECT_EQ(Plain(ModuleMessages(3)), row.errors);
    EXPECT_THAT(ModuleMessages(5), IsEmpty());
    // The target stays whatever the outcome; only a successful own installation drops the mark.
    EXPECT_EQ(env.statusFake->PropertyOf(App, TargetKey), row.target ? std::optional<String>(*row.target) : std::nullopt);
    const bool markDropped = row.expected == HostState::Idle && row.host == HostState::Installing && row.startedByModule;
    EXPECT_EQ(env.statusFake->PropertyOf(App, StartedKey),
              markDropped ? std::nullopt : std::optional<String>(row.startedByModule ? "true" : "True"));
    // Later passes never announce.
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(TransitionTable, TransitionTest, testing::ValuesIn(Cases()),
                         [](const testing::TestParamInfo<Case>& info) {
                             return fmt::format("{}_Manager{}", info.param.row->title, info.param.managerState);
                         });

// Refused switches: the step goes on only when the store already is where the switch would have led.
class RefusedSwitchTest : public SynchronisationTest
{
protected:
    void SetUp() override
    {
        env.managerFake->AddComponent(Kind::GenericFiles, "app");
        Start();
    }

    Record Sync()
    {
        Record record;
        EXPECT_EQ(module->GetStatus(App, record), Codes::Good);
        return record;
    }
};

TEST_F(RefusedSwitchTest, IdleManagerFailedRefusedButAlreadyInstallingStillGoesToError)
{
    env.managerFake->SetState(Kind::GenericFiles, "app", ManagerState::CopyingFailed, "disk full");
    EXPECT_CALL(*env.status, SwitchToInstalling(App, false)).WillOnce([this](const String& name, bool flag) {
        env.statusFake->SwitchToInstalling(name, flag);
        return false;
    });

    EXPECT_EQ(Sync().InstallationState, HostState::Error);
    EXPECT_EQ(Plain(env.statusFake->Journal()),
              Lines({"GetStatus(%)", "AddComponent(%)", "SwitchToInstalling(%, false)", "GetStatus(%)", "SetUpdateStatus(%, disk full, false)",
                     "FinishInstallation(%, false)", "GetStatus(%)"}));
    EXPECT_EQ(Plain(ModuleMessages(7)),
              Lines({"Sync status: Switch % from Idle to Installing before Error", "Sync status: Switch % to Error"}));
    EXPECT_EQ(module->GetSyncList(), Names{App});
}

TEST_F(RefusedSwitchTest, IdleManagerFailedRefusedAndStillIdleStaysIdle)
{
    env.managerFake->SetState(Kind::GenericFiles, "app", ManagerState::PreparingFailed, "disk full");
    EXPECT_CALL(*env.status, SwitchToInstalling(App, false)).WillOnce(testing::Return(false));

    EXPECT_EQ(Sync().InstallationState, HostState::Idle);
    EXPECT_EQ(Plain(env.statusFake->Journal()), Lines({"GetStatus(%)", "AddComponent(%)", "GetStatus(%)", "GetStatus(%)"}));
    EXPECT_EQ(Plain(ModuleMessages(7)), Lines({"Sync status: Switch % from Idle to Installing before Error"}));
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

TEST_F(RefusedSwitchTest, IdleManagerFailedRefusedAndUnreadableGoesNoFurther)
{
    env.managerFake->SetState(Kind::GenericFiles, "app", ManagerState::ActivatingFailed, "disk full");
    EXPECT_CALL(*env.status, SwitchToInstalling(App, false)).WillOnce([this](const String& name, bool flag) {
        env.statusFake->SwitchToInstalling(name, flag);
        env.statusFake->FailNextGetStatus(1);
        return false;
    });

    // The store says Installing, but the module could not see it; the final re-read can.
    EXPECT_EQ(Sync().InstallationState, HostState::Installing);
    EXPECT_EQ(Plain(env.statusFake->Journal()), Lines({"GetStatus(%)", "AddComponent(%)", "SwitchToInstalling(%, false)", "GetStatus(%)", "GetStatus(%)"}));
    EXPECT_EQ(module->GetSyncList(), Names{App});
}

TEST_F(RefusedSwitchTest, IdleManagerInProgressRefusedStaysIdleWithoutText)
{
    env.managerFake->SetState(Kind::GenericFiles, "app", ManagerState::Copying, "copying");
    EXPECT_CALL(*env.status, SwitchToInstalling(App, false)).WillOnce(testing::Return(false));

    const Record record = Sync();
    EXPECT_EQ(record.InstallationState, HostState::Idle);
    EXPECT_EQ(record.ErrorMessage.ToString(), "");
    EXPECT_EQ(Plain(env.statusFake->Journal()), Lines({"GetStatus(%)", "AddComponent(%)", "GetStatus(%)"}));
    EXPECT_EQ(Plain(ModuleMessages(7)), Lines({"Sync status: Switch % from Idle to Installing"}));
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

TEST_F(RefusedSwitchTest, ErrorManagerInProgressResetRefusedButAlreadyIdleGoesToInstalling)
{
    env.statusFake->Seed(App, HostState::Error, "old");
    env.managerFake->SetState(Kind::GenericFiles, "app", ManagerState::Preparing, "preparing");
    EXPECT_CALL(*env.status, ResetError(App)).WillOnce([this](const String& name) {
        env.statusFake->ResetError(name);
        return false;
    });

    EXPECT_EQ(Sync().InstallationState, HostState::Installing);
    EXPECT_EQ(Plain(env.statusFake->Journal()),
              Lines({"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "ResetError(%)", "GetStatus(%)",
                     "SwitchToInstalling(%, false)", "SetUpdateStatus(%, preparing, false)", "GetStatus(%)"}));
    EXPECT_EQ(Plain(ModuleMessages(7)),
              Lines({"Sync status: Switch % from Error to Idle before Installing.", "Sync status: Switch % to Installing."}));
    EXPECT_EQ(module->GetSyncList(), Names{App});
}

TEST_F(RefusedSwitchTest, ErrorManagerInProgressResetRefusedAndStillErrorStaysError)
{
    env.statusFake->Seed(App, HostState::Error, "old");
    env.managerFake->SetState(Kind::GenericFiles, "app", ManagerState::Activating, "activating");
    EXPECT_CALL(*env.status, ResetError(App)).WillOnce(testing::Return(false));

    const Record record = Sync();
    EXPECT_EQ(record.InstallationState, HostState::Error);
    EXPECT_EQ(record.ErrorMessage.ToString(), "old");
    EXPECT_EQ(Plain(env.statusFake->Journal()), Lines({"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetStatus(%)",
                                                "GetStatus(%)"}));
    EXPECT_EQ(Plain(ModuleMessages(7)), Lines({"Sync status: Switch % from Error to Idle before Installing."}));
    EXPECT_EQ(module->GetSyncList(), Names{App});
}

TEST_F(RefusedSwitchTest, ErrorManagerInProgressOnlySwitchRefusedEndsIdle)
{
    env.statusFake->Seed(App, HostState::Error, "old");
    env.managerFake->SetState(Kind::GenericFiles, "app", ManagerState::Copying, "copying");
    EXPECT_CALL(*env.status, SwitchToInstalling(App, false)).WillOnce(testing::Return(false));

    EXPECT_EQ(Sync().InstallationState, HostState::Idle);
    EXPECT_EQ(Plain(env.statusFake->Journal()), Lines({"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "ResetError(%)",
                                                "GetStatus(%)"}));
    EXPECT_EQ(Plain(ModuleMessages(7)),
              Lines({"Sync status: Switch % from Error to Idle before Installing.", "Sync status: Switch % to Installing."}));
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

// Failures: a status code, and nothing changed that the code does not explain.
class FailureTest : public SynchronisationTest
{
protected:
    void SetUp() override
    {
        env.managerFake->AddComponent(Kind::GenericFiles, "app", FakeSoftwareManagerService::MakeManifest("2.0"));
        env.managerFake->AddComponent(Kind::GenericFiles, "other");
        Start();
        // "other" is being installed elsewhere, so the work list is not empty before the failure.
        env.statusFake->Seed("Generic files / other", HostState::Installing);
        env.managerFake->SetState(Kind::GenericFiles, "other", ManagerState::Copying);
        Record record;
        ASSERT_EQ(module->GetStatus("Generic files / other", record), Codes::Good);
        Clear();
    }

    const Names before{"Generic files / other"};
};

TEST_F(FailureTest, NameThatIsNoComponentIdCallsNothing)
{
    for (const char* name : {"app", "", "Generic files/app", "Generic file / app", "generic files / app", " / app"})
    {
        Record record;
        record.ErrorMessage = "untouched";
        record.InstallationState = HostState::Error;
        EXPECT_EQ(module->GetStatus(name, record), Codes::BadInvalidArgument) << name;
        EXPECT_EQ(record.ErrorMessage.ToString(), "untouched");
        EXPECT_EQ(record.InstallationState, HostState::Error);
    }
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_EQ(module->GetSyncList(), before);
}

TEST_F(FailureTest, ComponentUnknownToTheStoreIsAnInternalError)
{
    Record record;
    EXPECT_EQ(module->GetStatus("Generic files / ghost", record), Codes::BadInternalError);
    EXPECT_EQ(Plain(env.statusFake->Journal()), Lines({"GetStatus(Generic files / ghost)"}));
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_FALSE(env.statusFake->Has("Generic files / ghost"));
    EXPECT_EQ(module->GetSyncList(), before);
}

struct ManagerFailure
{
    Zun::Services::SoftwareUpdate::StatusCode code;
    bool unregisters; // RemoveComponent follows the answer rather than AddComponent
};

class ManagerFailureTest : public FailureTest, public testing::WithParamInterface<ManagerFailure>
{
};

TEST_P(ManagerFailureTest, CodeIsPassedOnAndTheRegistrationFollowsIt)
{
    env.statusFake->Seed(App, HostState::Installing, "old");
    env.managerFake->FailOperation("GetInstallationState", GetParam().code);
    for (const String& name : {App, String("Generic files / other")})
    {
        Record record;
        EXPECT_EQ(module->GetStatus(name, record), GetParam().code);
    }
    const bool removed = GetParam().unregisters;
    EXPECT_EQ(Plain(env.statusFake->Journal()),
              Lines({"GetStatus(%)", removed ? "RemoveComponent(%)" : "AddComponent(%)", "GetStatus(Generic files / other)",
                     removed ? "RemoveComponent(Generic files / other)" : "AddComponent(Generic files / other)"}));
    EXPECT_EQ(env.statusFake->Has(App), !removed);
    if (!removed)
    {
        EXPECT_EQ(env.statusFake->StateOf(App), HostState::Installing);
        EXPECT_EQ(env.statusFake->ErrorMessageOf(App), "old");
    }
    // Neither the failing component enters the work list nor does the listed one leave it.
    EXPECT_EQ(module->GetSyncList(), before);
}

INSTANTIATE_TEST_SUITE_P(Codes, ManagerFailureTest,
                         testing::Values(ManagerFailure{Codes::BadNotFound, true}, ManagerFailure{Codes::BadInvalidArgument, true},
                                         ManagerFailure{Codes::BadInternalError, false}, ManagerFailure{Codes::BadNoCommunication, false},
                                         ManagerFailure{Codes::BadInvalidState, false}));

TEST_F(FailureTest, SoftwareInformationFailingWhileOwnInstallationEndsChangesNothing)
{
    env.statusFake->Seed("Generic files / other", HostState::Installing, "copying");
    env.statusFake->SeedProperty("Generic files / other", StartedKey, "true");
    env.statusFake->SeedProperty("Generic files / other", TargetKey, "2.0");
    env.managerFake->SetState(Kind::GenericFiles, "other", ManagerState::Idle);
    env.managerFake->FailOperation("GetSoftwareInformation", Codes::BadNoCommunication);

    Record record;
    EXPECT_EQ(module->GetStatus("Generic files / other", record), Codes::BadNoCommunication);
    EXPECT_EQ(Plain(env.statusFake->Journal()),
              Lines({"GetStatus(%)", "AddComponent(%)", "GetProperty(%, InstallationStartedByModule)", "GetProperty(%, TargetSoftwareRevision)"},
                    "Generic files / other"));
    EXPECT_EQ(env.statusFake->StateOf("Generic files / other"), HostState::Installing);
    EXPECT_EQ(env.statusFake->PropertyOf("Generic files / other", StartedKey), String("true"));
    EXPECT_EQ(module->GetSyncList(), before);
    EXPECT_THAT(ModuleMessages(7), IsEmpty());
    EXPECT_THAT(ModuleMessages(3), IsEmpty());

    // Tried again once the manager answers.
    env.managerFake->FailOperation("GetSoftwareInformation", Codes::Good);
    env.managerFake->SetCurrent(Kind::GenericFiles, "other", FakeSoftwareManagerService::MakeManifest("2.0"));
    EXPECT_EQ(module->GetStatus("Generic files / other", record), Codes::Good);
    EXPECT_EQ(record.InstallationState, HostState::Idle);
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

TEST_F(FailureTest, TargetReportedMissingCountsAsEmptyWhateverWasWritten)
{
    const String name = "Generic files / other";
    env.statusFake->SeedProperty(name, StartedKey, "true");
    env.managerFake->SetCurrent(Kind::GenericFiles, "other", FakeSoftwareManagerService::MakeManifest("2.0"));
    env.managerFake->SetState(Kind::GenericFiles, "other", ManagerState::Idle);
    EXPECT_CALL(*env.status, GetProperty(_, _, _)).Times(testing::AnyNumber());
    EXPECT_CALL(*env.status, GetProperty(name, TargetKey, _)).WillOnce([](const String&, const String&, String& value) {
        value = "2.0";
        return false;
    });

    Record record;
    EXPECT_EQ(module->GetStatus(name, record), Codes::Good);
    EXPECT_EQ(record.InstallationState, HostState::Error);
    EXPECT_EQ(record.ErrorMessage.ToString(), "Expected version is  but current version is 2.0.");
}

class FailingReReadTest : public FailureTest, public testing::WithParamInterface<std::pair<HostState, ManagerState>>
{
};

TEST_P(FailingReReadTest, IsAnUnexpectedErrorAndLeavesTheWorkList)
{
    const auto [host, manager] = GetParam();
    env.statusFake->Seed(App, host, "old");
    env.managerFake->SetState(Kind::GenericFiles, "app", manager, "new");
    // The first read succeeds; every read after the manager's answer fails.
    EXPECT_CALL(*env.status, AddComponent(App)).WillOnce([this](const String& name) {
        env.statusFake->AddComponent(name);
        env.statusFake->FailNextGetStatus(5);
    });

    Record record;
    EXPECT_EQ(module->GetStatus(App, record), Codes::BadUnexpectedError);
    EXPECT_EQ(env.statusFake->Journal().back(), Lines({"GetStatus(%)"})[0]);
    EXPECT_EQ(module->GetSyncList(), before);
}

INSTANTIATE_TEST_SUITE_P(EveryHostState, FailingReReadTest,
                         testing::Values(std::pair(HostState::Idle, ManagerState::Copying), std::pair(HostState::Idle, ManagerState::Idle),
                                         std::pair(HostState::Error, ManagerState::Idle),
                                         std::pair(HostState::Error, ManagerState::CopyingFailed),
                                         std::pair(HostState::Installing, ManagerState::Idle),
                                         std::pair(HostState::Installing, ManagerState::Copying)));

// The first pass, run by Initialize, announces the results of the module's own installations.
class FirstPassTest : public SynchronisationTest
{
protected:
    // A component that the store still holds as Installing, started by the module for 2.0.
    void SeedOwnInstallation(Kind kind, const char* bare, const String& name, const char* installed, ManagerState state = ManagerState::Idle)
    {
        env.managerFake->AddComponent(kind, bare, FakeSoftwareManagerService::MakeManifest(installed));
        env.managerFake->SetState(kind, bare, state, "manager text");
        env.statusFake->Seed(name, HostState::Installing, "installing");
        env.statusFake->SeedProperty(name, StartedKey, "true");
        env.statusFake->SeedProperty(name, TargetKey, "2.0");
    }
};

TEST_F(FirstPassTest, AnnouncesASuccessfulOwnInstallation)
{
    SeedOwnInstallation(Kind::TesmoraEngineerProject, "proj", Proj, "2.0");
    const auto before = Zun::DateTime::GetUtcNow();
    Start();

    const auto sent = env.notifications.GetSentNotifications();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].name, SucceededName);
    EXPECT_EQ(sent[0].senderName, "Software Update");
    EXPECT_EQ(sent[0].severity, Zun::System::Nm::Severity::Info);
    EXPECT_EQ(sent[0].payload, "Installation of 'proj' (version: 2.0) successful.");
    EXPECT_GE(sent[0].timestamp.GetTicks(), before.GetTicks());
    EXPECT_EQ(sent[0].timestamp.GetKind(), Zun::DateTimeKind::Utc);
    EXPECT_EQ(env.statusFake->StateOf(Proj), HostState::Idle);
    EXPECT_EQ(env.statusFake->PropertyOf(Proj, StartedKey), std::nullopt);
    EXPECT_TRUE(module->IsStateInitialized());
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

TEST_F(FirstPassTest, AnnouncesAFailedOwnInstallationWithTheReason)
{
    SeedOwnInstallation(Kind::TesmoraEngineerProject, "proj", Proj, "1.0");
    Start();

    const auto sent = env.notifications.GetSentNotifications();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].name, FailedName);
    EXPECT_EQ(sent[0].severity, Zun::System::Nm::Severity::Error);
    EXPECT_EQ(sent[0].payload, "Failed to install 'proj' (version: 2.0). Reason: Expected version is 2.0 but current version is 1.0..");
    EXPECT_EQ(env.statusFake->StateOf(Proj), HostState::Error);
    EXPECT_EQ(module->GetSyncList(), Names{Proj});
}

TEST_F(FirstPassTest, GenericFilesLogAtLevelFiveForSuccessAndFailure)
{
    SeedOwnInstallation(Kind::GenericFiles, "app", App, "2.0");
    SeedOwnInstallation(Kind::GenericFiles, "lib", "Generic files / lib", "1.0");
    module = std::make_unique<SoftwareUpdaterModule>();
    module->Initialize("SoftwareUpdater", env.status);
    module->Disable();

    EXPECT_THAT(logs.Messages(5), ElementsAre("SecurityNotification is not implemented for Generic files",
                                              "SecurityNotification is not implemented for Generic files"));
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
    EXPECT_EQ(env.statusFake->StateOf(App), HostState::Idle);
    EXPECT_EQ(env.statusFake->StateOf("Generic files / lib"), HostState::Error);
}

TEST_F(FirstPassTest, FailureInsideTheManagerIsNeverAnnounced)
{
    SeedOwnInstallation(Kind::TesmoraEngineerProject, "p2", "Tesmora Engineer project / p2", "1.0", ManagerState::PreparingFailed);
    SeedOwnInstallation(Kind::TesmoraEngineerProject, "p4", "Tesmora Engineer project / p4", "1.0", ManagerState::CopyingFailed);
    SeedOwnInstallation(Kind::TesmoraEngineerProject, "p6", "Tesmora Engineer project / p6", "1.0", ManagerState::ActivatingFailed);
    Start();

    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
    for (const char* name : {"Tesmora Engineer project / p2", "Tesmora Engineer project / p4", "Tesmora Engineer project / p6"})
    {
        EXPECT_EQ(env.statusFake->StateOf(name), HostState::Error) << name;
        EXPECT_EQ(env.statusFake->ErrorMessageOf(name), "manager text") << name;
    }
}

TEST_F(FirstPassTest, LaterPassesAnnounceNothing)
{
    env.managerFake->AddComponent(Kind::TesmoraEngineerProject, "proj", FakeSoftwareManagerService::MakeManifest("2.0"));
    env.managerFake->AddComponent(Kind::TesmoraEngineerProject, "bad", FakeSoftwareManagerService::MakeManifest("1.0"));
    Start();
    ASSERT_TRUE(module->IsStateInitialized());
    for (const String& name : {Proj, String("Tesmora Engineer project / bad")})
    {
        env.statusFake->Seed(name, HostState::Installing);
        env.statusFake->SeedProperty(name, StartedKey, "true");
        env.statusFake->SeedProperty(name, TargetKey, "2.0");
        Record record;
        EXPECT_EQ(module->GetStatus(name, record), Codes::Good);
    }

    EXPECT_EQ(env.statusFake->StateOf(Proj), HostState::Idle);
    EXPECT_EQ(env.statusFake->StateOf("Tesmora Engineer project / bad"), HostState::Error);
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
}

TEST_F(FirstPassTest, VisitsEveryStoredComponentOnceInStoreOrderWhateverEachResult)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "b");
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    env.statusFake->Seed("Generic files / a", HostState::Installing);
    env.statusFake->Seed("Generic files / b", HostState::Installing);
    // The first component's query fails; the pass goes on with the next one.
    EXPECT_CALL(*env.manager, GetInstallationState(Kind::GenericFiles, _, _, _))
        .WillRepeatedly([this](Kind kind, const Zun::System::Rsc::RscString<512>& name, ManagerState& state, auto& message) {
            const auto result = env.managerFake->GetInstallationState(kind, name, state, message);
            return name.ToString() == "a" ? Codes::BadNoCommunication : result;
        });
    module = std::make_unique<SoftwareUpdaterModule>();
    EXPECT_FALSE(module->IsStateInitialized());
    module->Initialize("SoftwareUpdater", env.status);

    std::vector<String> reads;
    for (const String& line : env.managerFake->Journal())
    {
        if (line.rfind("GetInstallationState", 0) == 0)
        {
            reads.push_back(line);
        }
    }
    EXPECT_THAT(reads, ElementsAre("GetInstallationState(1, a)", "GetInstallationState(1, b)"));
    EXPECT_TRUE(module->IsStateInitialized());
    EXPECT_EQ(env.statusFake->StateOf("Generic files / a"), HostState::Installing);
    EXPECT_EQ(env.statusFake->StateOf("Generic files / b"), HostState::Idle);
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

} // namespace
