#include <algorithm>
#include <climits>
#include <map>
#include <optional>
#include <unordered_set>

#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::_;
using ::testing::AnyNumber;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::Invoke;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Return;

constexpr StatusCode BadNoCommunication = 0x80310000;
const String SwitchRefused = "Failed to switch installation state to Installing.";

class InstallationTest : public UpdaterModuleTest
{
protected:
    struct Snapshot
    {
        std::optional<HostState> state;
        String message;
        std::map<String, String> properties;
        std::unordered_set<String> syncList;
    };

    Snapshot Take() const
    {
        return {env.statusFake->StateOf(Name), env.statusFake->ErrorMessageOf(Name), env.statusFake->PropertiesOf(Name),
                module->GetSyncList()};
    }

    void ExpectUnchanged(const Snapshot& before) const
    {
        const Snapshot after = Take();
        EXPECT_EQ(before.state, after.state);
        EXPECT_EQ(before.message, after.message);
        EXPECT_EQ(before.properties, after.properties);
        EXPECT_EQ(before.syncList, after.syncList);
        EXPECT_THAT(StoreChanges(), IsEmpty());
        EXPECT_THAT(ManagerChanges(), IsEmpty());
    }

    // Journal lines of the manager that stage, start or resume.
    std::vector<String> ManagerChanges() const
    {
        std::vector<String> changes;
        for (const String& line : env.managerFake->Journal())
        {
            if (line.rfind("Get", 0) != 0)
            {
                changes.push_back(line);
            }
        }
        return changes;
    }

    // A component left in a non-Idle state would start the status thread; disabled, the module
    // still synchronises but keeps the journals free of a second thread's calls.
    void SeedWithoutThread(HostState state, ManagerState managerState, const char* message)
    {
        module->Disable();
        env.statusFake->Seed(Name, state, message);
        env.managerFake->SetState(SoftwareKind::GenericFiles, BareName, managerState, message);
    }
};

// --- SetSoftwarePackage ------------------------------------------------------------------------

TEST_F(InstallationTest, SetSoftwarePackageRefusesAnInvalidNameBeforeLookingAtTheFileType)
{
    for (const String& name : {String(), String("app"), String("Generic files"), String("Nothing / app")})
    {
        String message = "untouched";
        EXPECT_EQ(Codes::BadInvalidArgument, module->SetSoftwarePackage(name, FileType::Current, "app.pkg", message)) << name;
        EXPECT_EQ("untouched", message);
    }
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_THAT(ModuleLines(), IsEmpty());
}

TEST_F(InstallationTest, SetSoftwarePackageAcceptsOnlyThePendingFileType)
{
    for (std::int32_t fileType : {0, 2, 3, -1})
    {
        String message = "junk";
        EXPECT_EQ(Codes::BadNotSupported, module->SetSoftwarePackage(Name, static_cast<FileType>(fileType), "app.pkg", message))
            << fileType;
        EXPECT_EQ("Only pending type is supported!", message);
    }
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_THAT(ModuleLines(), IsEmpty());
}

TEST_F(InstallationTest, SetSoftwarePackageHandsThePackageOnAndReturnsTheManagersText)
{
    env.managerFake->AddPackage("app-2.1.pkg", MakeManifest("2.1"));
    // Staging is accepted in any state and leaves the state alone.
    env.statusFake->Seed(Name, HostState::Error, "old failure");
    String message = "junk";

    EXPECT_EQ(Codes::Good, module->SetSoftwarePackage(Name, FileType::Pending, "app-2.1.pkg", message));

    EXPECT_EQ("Package app-2.1.pkg staged.", message);
    EXPECT_THAT(env.managerFake->Journal(), ElementsAre("SetSoftwarePackage(1, app, app-2.1.pkg)"));
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_EQ(HostState::Error, env.statusFake->StateOf(Name));
    EXPECT_THAT(ModuleMessages(7), ElementsAre("SetSoftwarePackage"));
    Su::SoftwareVersionType pending;
    ASSERT_EQ(Codes::Good, module->GetSoftwareVersion(Name, FileType::Pending, pending));
    EXPECT_EQ("2.1", pending.SoftwareRevision.ToString());
}

TEST_F(InstallationTest, SetSoftwarePackageFailureReturnsTheManagersTextAndRefreshesTheState)
{
    // An Error that the module did not cause, with the manager idle: the refresh clears it.
    env.statusFake->Seed(Name, HostState::Error, "old failure");
    String message = "junk";

    EXPECT_EQ(Codes::BadNotFound, module->SetSoftwarePackage(Name, FileType::Pending, "nope.pkg", message));

    EXPECT_EQ("Unknown package nope.pkg.", message);
    EXPECT_THAT(env.managerFake->Journal(), ElementsAre("SetSoftwarePackage(1, app, nope.pkg)", "GetInstallationState(1, app)"));
    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
    EXPECT_EQ("", env.statusFake->ErrorMessageOf(Name));

    // A failure without text empties the caller's message too.
    env.managerFake->FailOperation("SetSoftwarePackage", BadNoCommunication);
    message = "junk";
    EXPECT_EQ(BadNoCommunication, module->SetSoftwarePackage(Name, FileType::Pending, "nope.pkg", message));
    EXPECT_EQ("", message);
}

// --- InstallSoftwarePackage: success --------------------------------------------------------------

class InstallationDelayTest : public InstallationTest, public ::testing::WithParamInterface<long long>
{
};

TEST_P(InstallationDelayTest, ZeroOrNegativeDelayInstallsAtOnce)
{
    env.statusFake->SeedProperty(Name, TargetKey, "1.5");

    ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Name, Request(), GetParam()));
    ASSERT_TRUE(sleep.WaitForSleeps(1)); // the status thread has made its first pass

    const std::vector<String> changes = StoreChanges();
    ASSERT_GE(changes.size(), 3u);
    EXPECT_EQ("SwitchToInstalling(Generic files / app, false)", changes[0]);
    EXPECT_EQ("SetProperty(Generic files / app, TargetSoftwareRevision, 2.0, true)", changes[1]);
    EXPECT_EQ("SetProperty(Generic files / app, InstallationStartedByModule, true, true)", changes[2]);
    const std::vector<String> manager = env.managerFake->Journal();
    ASSERT_GE(manager.size(), 4u);
    EXPECT_THAT(std::vector<String>(manager.begin(), manager.begin() + 4),
                ElementsAre("GetSoftwareInformation(1, app)", "GetInstallationState(1, app)", "GetSoftwareInformation(1, app)",
                            "StartInstallation(1, app)"));
    EXPECT_THAT(ManagerChanges(), ElementsAre("StartInstallation(1, app)"));
    EXPECT_EQ(HostState::Installing, env.statusFake->StateOf(Name));
    EXPECT_EQ((std::map<String, String>{{StartedKey, "true"}, {TargetKey, "2.0"}}), env.statusFake->PropertiesOf(Name));
    EXPECT_EQ(std::unordered_set<String>{Name}, module->GetSyncList());
    EXPECT_TRUE(module->IsRunning());
    EXPECT_THAT(ModuleMessages(7), Contains("InstallSoftwarePackage"));
}

INSTANTIATE_TEST_SUITE_P(Delays, InstallationDelayTest, ::testing::Values(0LL, -1LL, LLONG_MIN));

TEST_F(InstallationTest, InstallAsksTheStoreFirstSoThatAStaleErrorIsCleared)
{
    SeedWithoutThread(HostState::Error, ManagerState::Idle, "");

    EXPECT_EQ(Codes::Good, module->InstallSoftwarePackage(Name, Request(), 0));

    EXPECT_EQ(HostState::Installing, env.statusFake->StateOf(Name));
    EXPECT_THAT(ManagerChanges(), ElementsAre("StartInstallation(1, app)"));
}

struct PreparationCase
{
    std::uint32_t behavior;
    bool needsPreparation;
};

class InstallationPreparationTest : public InstallationTest, public ::testing::WithParamInterface<PreparationCase>
{
};

TEST_P(InstallationPreparationTest, OnlyBitFourAsksForPreparation)
{
    module->Disable();
    env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName, MakeManifest("2.0", "urn:zun:test", GetParam().behavior));

    ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Name, Request(), 0));

    EXPECT_THAT(env.statusFake->Journal(), Contains(fmt::format("SwitchToInstalling(Generic files / app, {})",
                                                                GetParam().needsPreparation ? "true" : "false")));
}

INSTANTIATE_TEST_SUITE_P(Behaviors, InstallationPreparationTest,
                         ::testing::Values(PreparationCase{0x00, false}, PreparationCase{0x0F, false}, PreparationCase{0x10, true},
                                           PreparationCase{0x1F, true}, PreparationCase{0xFFFFFFEF, false},
                                           PreparationCase{0x80000010, true}));

// --- InstallSoftwarePackage: refusals that change nothing ----------------------------------------

TEST_F(InstallationTest, InstallRefusesAnInvalidNameWithoutAnyCall)
{
    const Snapshot before = Take();
    EXPECT_EQ(Codes::BadInvalidArgument, module->InstallSoftwarePackage("Generic files:app", Request(), 0));
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_THAT(ModuleLines(), IsEmpty());
    ExpectUnchanged(before);
}

TEST_F(InstallationTest, InstallPassesAManagerReadFailureOnBeforeAskingTheStore)
{
    env.managerFake->FailOperation("GetSoftwareInformation", BadNoCommunication);
    const Snapshot before = Take();

    EXPECT_EQ(BadNoCommunication, module->InstallSoftwarePackage(Name, Request(), 0));

    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_THAT(ModuleLines(), IsEmpty());
    ExpectUnchanged(before);
}

TEST_F(InstallationTest, InstallPassesAStatusFailureOn)
{
    env.managerFake->FailOperation("GetInstallationState", BadNoCommunication);
    Snapshot before = Take();
    EXPECT_EQ(BadNoCommunication, module->InstallSoftwarePackage(Name, Request(), 0));
    ExpectUnchanged(before);

    env.managerFake->FailOperation("GetInstallationState", Codes::Good);
    env.statusFake->FailNextGetStatus(1);
    before = Take();
    EXPECT_EQ(Codes::BadInternalError, module->InstallSoftwarePackage(Name, Request(), 0));
    ExpectUnchanged(before);
    EXPECT_THAT(ModuleLines(), IsEmpty());
}

struct StateCase
{
    HostState state;
    ManagerState managerState;
    bool startedByModule;
    const char* revision; // a request for another package still gets the state refusal
    const char* logLine;
};

class InstallationStateTest : public InstallationTest, public ::testing::WithParamInterface<StateCase>
{
};

TEST_P(InstallationStateTest, InstallRefusesAComponentThatIsNotIdle)
{
    const StateCase& c = GetParam();
    SeedWithoutThread(c.state, c.managerState, "busy");
    env.statusFake->SeedProperty(Name, TargetKey, "1.5");
    if (c.startedByModule)
    {
        env.statusFake->SeedProperty(Name, StartedKey, "true");
    }
    {
        Su::SoftwareUpdateStatus status; // work list as the synchronisation leaves it
        ASSERT_EQ(Codes::Good, module->GetStatus(Name, status));
    }
    ClearRecords();
    const Snapshot before = Take();

    EXPECT_EQ(Codes::BadInvalidState, module->InstallSoftwarePackage(Name, Request(c.revision), 0));

    EXPECT_THAT(ModuleMessages(7), ElementsAre(c.logLine));
    EXPECT_THAT(ModuleLines(), ::testing::SizeIs(1));
    ExpectUnchanged(before);
}

INSTANTIATE_TEST_SUITE_P(States, InstallationStateTest,
                         ::testing::Values(
                             StateCase{HostState::Installing, ManagerState::Copying, false, "2.0", "Invalid state Installing"},
                             StateCase{HostState::Installing, ManagerState::Copying, false, "9.9", "Invalid state Installing"},
                             StateCase{HostState::Error, ManagerState::CopyingFailed, false, "2.0", "Invalid state Error"},
                             StateCase{HostState::Error, ManagerState::Idle, true, "2.0", "Invalid state Error"}));

struct MismatchCase
{
    const char* label;
    bool hasPending;
    const char* revision;
    const char* uri;
    std::size_t patchCount;
    const char* logLine;
};

class InstallationMismatchTest : public InstallationTest, public ::testing::WithParamInterface<MismatchCase>
{
};

TEST_P(InstallationMismatchTest, InstallRefusesARequestForAnotherPackageWithoutStateChange)
{
    const MismatchCase& c = GetParam();
    if (!c.hasPending)
    {
        env.managerFake->SetPending(SoftwareKind::GenericFiles, BareName, std::nullopt);
    }
    env.statusFake->SeedProperty(Name, TargetKey, "1.5");
    Su::SoftwareVersionType request = Request(c.revision, c.uri);
    request.PatchIdentifiers.assign(c.patchCount, System::Rsc::RscString<512>("KB1"));
    const Snapshot before = Take();

    EXPECT_EQ(Codes::BadNotFound, module->InstallSoftwarePackage(Name, request, 0));

    EXPECT_THAT(ModuleMessages(7), ElementsAre(c.logLine));
    EXPECT_THAT(ModuleLines(), ::testing::SizeIs(1));
    EXPECT_THAT(env.managerFake->Journal(), ElementsAre("GetSoftwareInformation(1, app)", "GetInstallationState(1, app)"));
    ExpectUnchanged(before);
    EXPECT_EQ(-1, module->GetStatusThreadState());
}

INSTANTIATE_TEST_SUITE_P(
    Requests, InstallationMismatchTest,
    ::testing::Values(MismatchCase{"NoPending", false, "2.0", "urn:zun:test", 0, "Has no pending software package."},
                      MismatchCase{"Revision", true, "2.0.0", "urn:zun:test", 0,
                                   "SoftwareRevision mismatch. Pending version is 2.0 but requested 2.0.0"},
                      MismatchCase{"Uri", true, "2.0", "URN:ZUN:TEST", 0,
                                   "ManufacturerUri mismatch. Pending ManufacturerUri is urn:zun:test but must be URN:ZUN:TEST."},
                      MismatchCase{"PatchIdentifiers", true, "2.0", "urn:zun:test", 1, "PatchIdentifiers mismatch. Must be empty"}),
    [](const auto& info) { return String(info.param.label); });

TEST_F(InstallationTest, RefusedSwitchIsReportedToTheStoreAndLogged)
{
    env.statusFake->SeedProperty(Name, TargetKey, "1.5");
    EXPECT_CALL(*env.status, SwitchToInstalling(Name, false)).WillOnce(Return(false));

    EXPECT_EQ(Codes::BadUnexpectedError, module->InstallSoftwarePackage(Name, Request(), 0));

    EXPECT_THAT(StoreChanges(), ElementsAre("SetUpdateStatus(Generic files / app, " + SwitchRefused + ", true)"));
    EXPECT_EQ(SwitchRefused, env.statusFake->ErrorMessageOf(Name));
    EXPECT_THAT(ModuleMessages(3), ElementsAre(SwitchRefused));
    EXPECT_THAT(ModuleMessages(7), Not(Contains("InstallSoftwarePackage")));
    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
    EXPECT_EQ((std::map<String, String>{{TargetKey, "1.5"}}), env.statusFake->PropertiesOf(Name));
    EXPECT_THAT(ManagerChanges(), IsEmpty());
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

// --- InstallSoftwarePackage: failures after the switch ----------------------------------------------

struct LateFailureCase
{
    const char* label;
    long long delay;
    StatusCode startFailure; // forced on StartInstallation, Good for none
    StatusCode code;
    int level;
    const char* logLine; // null: no line at 3 or 5
};

class InstallationLateFailureTest : public InstallationTest, public ::testing::WithParamInterface<LateFailureCase>
{
};

TEST_P(InstallationLateFailureTest, GoesToErrorAndTheRefreshDecidesTheEnd)
{
    const LateFailureCase& c = GetParam();
    env.managerFake->FailOperation("StartInstallation", c.startFailure);

    EXPECT_EQ(c.code, module->InstallSoftwarePackage(Name, Request(), c.delay));

    // Installing, then Error; with the manager idle and the module no longer the starter, the
    // refresh takes the component back to Idle. The requested revision stays behind.
    EXPECT_THAT(StoreChanges(), ElementsAre("SwitchToInstalling(Generic files / app, false)",
                                            "SetProperty(Generic files / app, TargetSoftwareRevision, 2.0, true)",
                                            "SetProperty(Generic files / app, InstallationStartedByModule, true, true)",
                                            "RemoveProperty(Generic files / app, InstallationStartedByModule)",
                                            "FinishInstallation(Generic files / app, false)", "ResetError(Generic files / app)",
                                            "SetUpdateStatus(Generic files / app, , true)"));
    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
    EXPECT_EQ((std::map<String, String>{{TargetKey, "2.0"}}), env.statusFake->PropertiesOf(Name));
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
    EXPECT_EQ(-1, module->GetStatusThreadState());
    EXPECT_THAT(ModuleMessages(7), Contains("Sync status: Switch Generic files / app from Error to Idle."));
    if (c.logLine != nullptr)
    {
        EXPECT_THAT(ModuleMessages(c.level), ElementsAre(c.logLine));
        EXPECT_THAT(ManagerChanges(), IsEmpty());
        // The delay is refused before the second read of the manager.
        EXPECT_THAT(env.managerFake->Journal(), ElementsAre("GetSoftwareInformation(1, app)", "GetInstallationState(1, app)",
                                                            "GetInstallationState(1, app)"));
    }
    else
    {
        EXPECT_THAT(ModuleMessages(3), IsEmpty());
        EXPECT_THAT(ModuleMessages(5), IsEmpty());
        EXPECT_THAT(ManagerChanges(), ElementsAre("StartInstallation(1, app)"));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Failures, InstallationLateFailureTest,
    ::testing::Values(
        LateFailureCase{"DelayOne", 1, Codes::Good, Codes::BadNotSupported, 5, "InstallationDelay is not supported."},
        LateFailureCase{"DelayMax", LLONG_MAX, Codes::Good, Codes::BadNotSupported, 5, "InstallationDelay is not supported."},
        // Delays that a 32-bit narrowing would turn into 0 or a negative number.
        LateFailureCase{"DelayTwoToThe32", 4294967296LL, Codes::Good, Codes::BadNotSupported, 5, "InstallationDelay is not supported."},
        LateFailureCase{"DelayTwoToThe31", 2147483648LL, Codes::Good, Codes::BadNotSupported, 5, "InstallationDelay is not supported."},
        LateFailureCase{"ManagerRefusesStart", 0, BadNoCommunication, BadNoCommunication, 3, nullptr}),
    [](const auto& info) { return String(info.param.label); });

TEST_F(InstallationTest, PackageReplacedAfterTheChecksIsNotStarted)
{
    FakeSoftwareManagerService& fake = *env.managerFake;
    EXPECT_CALL(*env.manager, GetSoftwareInformation(_, _, _))
        .WillOnce(Invoke(&fake, &FakeSoftwareManagerService::GetSoftwareInformation))
        .WillOnce(Invoke([&fake](SoftwareKind kind, const auto& name, Sm::SoftwareInformation& information) {
            fake.SetPending(SoftwareKind::GenericFiles, BareName, MakeManifest("2.1"));
            return fake.GetSoftwareInformation(kind, name, information);
        }))
        .WillRepeatedly(Invoke(&fake, &FakeSoftwareManagerService::GetSoftwareInformation));

    EXPECT_EQ(Codes::BadNotFound, module->InstallSoftwarePackage(Name, Request(), 0));

    EXPECT_THAT(ModuleMessages(3), ElementsAre("SoftwareRevision mismatch. Pending version is 2.1 but requested 2.0"));
    EXPECT_THAT(ModuleMessages(7), Not(Contains(HasSubstr("SoftwareRevision mismatch"))));
    EXPECT_THAT(ManagerChanges(), IsEmpty());
    const std::vector<String> changes = StoreChanges();
    EXPECT_THAT(changes, Contains("FinishInstallation(Generic files / app, false)"));
    EXPECT_EQ((std::map<String, String>{{TargetKey, "2.0"}}), env.statusFake->PropertiesOf(Name));
    // The manager is idle and the module no longer counts as the starter, so the refresh clears the Error.
    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
}

TEST_F(InstallationTest, MissingTargetPropertyCountsAsAnEmptyRequestedRevision)
{
    EXPECT_CALL(*env.status, GetProperty(_, _, _)).Times(AnyNumber());
    EXPECT_CALL(*env.status, GetProperty(Name, TargetKey, _)).WillOnce(Return(false));

    EXPECT_EQ(Codes::BadNotFound, module->InstallSoftwarePackage(Name, Request(), 0));

    EXPECT_THAT(ModuleMessages(3), ElementsAre("SoftwareRevision mismatch. Pending version is 2.0 but requested "));
    EXPECT_THAT(ManagerChanges(), IsEmpty());
}

// --- ResumeInstall --------------------------------------------------------------------------------

TEST_F(InstallationTest, ResumeRefusesAnInvalidNameAndPassesStatusFailuresOn)
{
    EXPECT_EQ(Codes::BadInvalidArgument, module->ResumeInstall("app"));
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());

    EXPECT_EQ(Codes::BadInternalError, module->ResumeInstall("Generic files / ghost"));
    env.managerFake->FailOperation("GetInstallationState", BadNoCommunication);
    EXPECT_EQ(BadNoCommunication, module->ResumeInstall(Name));
    EXPECT_THAT(ModuleLines(), IsEmpty());
    EXPECT_THAT(StoreChanges(), IsEmpty());
    EXPECT_THAT(ManagerChanges(), IsEmpty());
}

struct ResumeCase
{
    const char* label;
    HostState state;
    ManagerState managerState;
    StatusCode code;
    bool resumes;
};

class ResumeInstallTest : public InstallationTest, public ::testing::WithParamInterface<ResumeCase>
{
};

TEST_P(ResumeInstallTest, ResumesOnlyFromErrorAndOnlyAFailedManager)
{
    const ResumeCase& c = GetParam();
    SeedWithoutThread(c.state, c.managerState, "manager text");
    env.statusFake->SeedProperty(Name, TargetKey, "2.0");
    // Keeps an Error with an idle manager in Error through the synchronisation.
    env.statusFake->SeedProperty(Name, StartedKey, "true");
    {
        Su::SoftwareUpdateStatus status; // work list as the synchronisation leaves it
        ASSERT_EQ(Codes::Good, module->GetStatus(Name, status));
    }
    ClearRecords();
    const Snapshot before = Take();

    EXPECT_EQ(c.code, module->ResumeInstall(Name));

    if (c.code == Codes::BadInvalidState)
    {
        EXPECT_THAT(ModuleLines(), IsEmpty());
        ExpectUnchanged(before);
        return;
    }
    EXPECT_THAT(StoreChanges(), ElementsAre("RemoveProperty(Generic files / app, InstallationStartedByModule)",
                                            "ResetError(Generic files / app)"));
    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
    EXPECT_EQ((std::map<String, String>{{TargetKey, "2.0"}}), env.statusFake->PropertiesOf(Name));
    EXPECT_THAT(ModuleMessages(7), ElementsAre("Resume"));
    if (c.resumes)
    {
        EXPECT_THAT(ManagerChanges(), ElementsAre("ResumeInstallation(1, app)"));
        EXPECT_EQ(ManagerState::Preparing, env.managerFake->StateOf(SoftwareKind::GenericFiles, BareName));
    }
    else
    {
        EXPECT_THAT(ManagerChanges(), IsEmpty());
    }
}

INSTANTIATE_TEST_SUITE_P(
    States, ResumeInstallTest,
    ::testing::Values(ResumeCase{"Idle", HostState::Idle, ManagerState::Idle, Codes::BadInvalidState, false},
                      ResumeCase{"Installing", HostState::Installing, ManagerState::Copying, Codes::BadInvalidState, false},
                      ResumeCase{"ErrorManagerIdle", HostState::Error, ManagerState::Idle, Codes::Good, false},
                      ResumeCase{"ErrorPreparingFailed", HostState::Error, ManagerState::PreparingFailed, Codes::Good, true},
                      ResumeCase{"ErrorCopyingFailed", HostState::Error, ManagerState::CopyingFailed, Codes::Good, true},
                      ResumeCase{"ErrorActivatingFailed", HostState::Error, ManagerState::ActivatingFailed, Codes::Good, true},
                      ResumeCase{"ErrorManagerSeven", HostState::Error, static_cast<ManagerState>(7), Codes::Good, false}),
    [](const auto& info) { return String(info.param.label); });

TEST_F(InstallationTest, FailedResumeRefreshesWithoutResettingTheError)
{
    SeedWithoutThread(HostState::Error, ManagerState::CopyingFailed, "disk full");
    env.statusFake->SeedProperty(Name, StartedKey, "true");
    env.managerFake->FailOperation("ResumeInstallation", BadNoCommunication);

    EXPECT_EQ(BadNoCommunication, module->ResumeInstall(Name));

    const std::vector<String> journal = env.statusFake->Journal();
    const auto removed = std::find(journal.begin(), journal.end(), "RemoveProperty(Generic files / app, InstallationStartedByModule)");
    ASSERT_NE(journal.end(), removed);
    EXPECT_NE(journal.end(), std::find(removed, journal.end(), "GetStatus(Generic files / app)")) << "no refresh after the failure";
    EXPECT_THAT(journal, Not(Contains("ResetError(Generic files / app)")));
    EXPECT_EQ(HostState::Error, env.statusFake->StateOf(Name));
    EXPECT_EQ(std::nullopt, env.statusFake->PropertyOf(Name, StartedKey));
}

TEST_F(InstallationTest, ResumeReportsARefusedResetAndAFailedStateRead)
{
    SeedWithoutThread(HostState::Error, ManagerState::CopyingFailed, "disk full");
    EXPECT_CALL(*env.status, ResetError(Name)).WillOnce(Return(false));
    EXPECT_EQ(Codes::BadUnexpectedError, module->ResumeInstall(Name));
    EXPECT_EQ(HostState::Error, env.statusFake->StateOf(Name));

    // The second read of the manager's state, after the store has been synchronised, fails.
    env.managerFake->SetState(SoftwareKind::GenericFiles, BareName, ManagerState::CopyingFailed, "disk full");
    env.statusFake->SeedProperty(Name, StartedKey, "true");
    ClearRecords();
    FakeSoftwareManagerService& fake = *env.managerFake;
    EXPECT_CALL(*env.manager, GetInstallationState(_, _, _, _))
        .WillOnce(Invoke(&fake, &FakeSoftwareManagerService::GetInstallationState))
        .WillOnce(Return(BadNoCommunication));
    EXPECT_EQ(BadNoCommunication, module->ResumeInstall(Name));
    EXPECT_THAT(ModuleLines(), IsEmpty());
    EXPECT_THAT(StoreChanges(), IsEmpty());
    EXPECT_EQ(String("true"), env.statusFake->PropertyOf(Name, StartedKey));
}

// --- Unsupported operations -----------------------------------------------------------------------

TEST_F(InstallationTest, UnsupportedOperationsAnswerNotSupportedForAnyArguments)
{
    const SecureString<512> key("k");
    for (const String& name : {String(), String("garbage"), Name, String("Generic files / ghost")})
    {
        EXPECT_EQ(Codes::BadNotSupported, module->RevertInstall(name)) << name;
        EXPECT_EQ(Codes::BadNotSupported, module->SetUpdateKey(name, key)) << name;
        for (std::int32_t fileType : {0, 1, 2, 99})
        {
            EXPECT_EQ(Codes::BadNotSupported, module->GetSoftwarePackage(name, static_cast<FileType>(fileType), "")) << name;
            EXPECT_EQ(Codes::BadNotSupported, module->GetSoftwarePackage(name, static_cast<FileType>(fileType), "app.pkg")) << name;
        }
    }
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_THAT(env.managerFake->Journal(), IsEmpty());
    EXPECT_THAT(ModuleLines(), IsEmpty());
}

TEST_F(InstallationTest, UpdateKeyIsNeitherLoggedNorPassedOn)
{
    const char* const secret = "Pl4nt-Upd4te-K3y-7f3a9c";
    const SecureString<512> key(secret);
    const SecureString<512> longKey(String(511, 'Q').c_str());

    EXPECT_EQ(Codes::BadNotSupported, module->SetUpdateKey(Name, key));
    EXPECT_EQ(Codes::BadNotSupported, module->SetUpdateKey(Name, longKey));
    // Work that logs and calls both services afterwards must not bring the key up either.
    ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Name, Request(), 0));
    ASSERT_TRUE(sleep.WaitForSleeps(1));

    EXPECT_FALSE(logs.Lines().empty());
    EXPECT_FALSE(logs.AnyContains(secret));
    EXPECT_FALSE(logs.AnyContains(String(16, 'Q')));
    for (const auto& journal : {env.statusFake->Journal(), env.managerFake->Journal()})
    {
        EXPECT_THAT(journal, Not(Contains(HasSubstr(secret))));
        EXPECT_THAT(journal, Not(Contains(HasSubstr(String(16, 'Q')))));
    }
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
    EXPECT_EQ(String(secret), key.CStr());
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
