#include <climits>

#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;
using ::testing::Return;
using RscText = System::Rsc::RscString<512>;

const std::string Started = "SwitchToInstalling(%, false); SetProperty(%, TargetSoftwareRevision, 2.0, true); "
                            "SetProperty(%, InstallationStartedByModule, true, true)";

// "Generic files / app": 1.0 installed, 2.0 pending, the manager idle, the module enabled.
class InstallationTest : public UpdaterModuleTest
{
public:
    void SetUp() override
    {
        env.managerFake->AddComponent(Kind::GenericFiles, "app", Manifest("1.0"), Manifest("2.0"));
        Start(true);
    }

    // App in a state that is not Idle, with the module disabled so that no status thread starts,
    // and the work list as the synchronisation leaves it.
    void SeedBusy(HostState host, ManagerState manager, bool own)
    {
        module->Disable();
        Seed(host, manager, "busy");
        if (own)
        {
            env.statusFake->SeedProperty(App, StartedKey, "true");
        }
        Sync();
        Clear();
    }
};

TEST_F(InstallationTest, SetSoftwarePackageRefusesTheNameBeforeTheFileTypeWithoutAnyCall)
{
    for (const auto& [name, fileType, code, text] :
         {std::tuple(String(), 0, Codes::BadInvalidArgument, "untouched"), std::tuple(String("app"), 0, Codes::BadInvalidArgument, "untouched"),
          std::tuple(String("Nothing / app"), 0, Codes::BadInvalidArgument, "untouched"),
          std::tuple(App, 0, Codes::BadNotSupported, "Only pending type is supported!"),
          std::tuple(App, 2, Codes::BadNotSupported, "Only pending type is supported!"),
          std::tuple(App, -1, Codes::BadNotSupported, "Only pending type is supported!")})
    {
        String message = "untouched";
        EXPECT_EQ(module->SetSoftwarePackage(name, static_cast<FileType>(fileType), "app.pkg", message), code) << name << fileType;
        EXPECT_EQ(message, text);
    }
    EXPECT_EQ(Journal() + ManagerJournal() + Log(), "");
}

TEST_F(InstallationTest, SetSoftwarePackageHandsThePackageOnInAnyStateAndRefreshesOnFailure)
{
    env.managerFake->AddPackage("app-2.1.pkg", Manifest("2.1"));
    env.statusFake->Seed(App, HostState::Error, "old failure");
    String message = "junk";
    EXPECT_EQ(module->SetSoftwarePackage(App, FileType::Pending, "app-2.1.pkg", message), Codes::Good);
    EXPECT_EQ(message, "Package app-2.1.pkg staged.");
    EXPECT_EQ(ManagerJournal(), "SetSoftwarePackage(1, app, app-2.1.pkg)");
    EXPECT_EQ(Journal() + Log(), "7 SetSoftwarePackage");
    EXPECT_EQ(env.statusFake->StateOf(App), HostState::Error);

    // An Error that the module did not cause, with the manager idle: the refresh clears it.
    Clear();
    EXPECT_EQ(module->SetSoftwarePackage(App, FileType::Pending, "nope.pkg", message), Codes::BadNotFound);
    EXPECT_EQ(message, "Unknown package nope.pkg.");
    EXPECT_EQ(ManagerJournal(), "SetSoftwarePackage(1, app, nope.pkg); GetInstallationState(1, app)");
    EXPECT_EQ(env.statusFake->StateOf(App), HostState::Idle);

    // A failure without text empties the caller's message too.
    env.managerFake->FailOperation("SetSoftwarePackage", Codes::BadNoCommunication);
    EXPECT_EQ(module->SetSoftwarePackage(App, FileType::Pending, "nope.pkg", message), Codes::BadNoCommunication);
    EXPECT_EQ(message, "");
}

class InstallationDelayTest : public InstallationTest, public ::testing::WithParamInterface<long long>
{
};

TEST_P(InstallationDelayTest, ZeroOrNegativeDelayInstallsAtOnce)
{
    env.statusFake->SeedProperty(App, TargetKey, "1.5");

    ASSERT_EQ(module->InstallSoftwarePackage(App, Request(), GetParam()), Codes::Good);
    ASSERT_TRUE(sleep.WaitForSleeps(1)); // the status thread has made its first pass

    EXPECT_EQ(Journal(true), Started + "; SetUpdateStatus(%, Preparing, false)");
    EXPECT_EQ(ManagerJournal(), "GetSoftwareInformation(1, app); GetInstallationState(1, app); GetSoftwareInformation(1, app); "
                                "StartInstallation(1, app); GetInstallationState(1, app)");
    EXPECT_EQ(Snapshot(), "Installing [Preparing] InstallationStartedByModule=true TargetSoftwareRevision=2.0 list: %");
    EXPECT_TRUE(module->IsRunning());
    EXPECT_THAT(Log(), HasSubstr("7 InstallSoftwarePackage"));
}

INSTANTIATE_TEST_SUITE_P(Delays, InstallationDelayTest, ::testing::Values(0LL, -1LL, LLONG_MIN));

TEST_F(InstallationTest, InstallAsksTheStoreFirstSoThatAStaleErrorIsCleared)
{
    module->Disable();
    Seed(HostState::Error, ManagerState::Idle);
    EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), 0), Codes::Good);
    EXPECT_EQ(env.statusFake->StateOf(App), HostState::Installing);
    EXPECT_EQ(ManagerJournal(true), "StartInstallation(1, app)");
}

TEST_F(InstallationTest, OnlyBitFourOfTheBehaviourAsksForPreparation)
{
    module->Disable();
    for (const auto& [behavior, prepare] : {std::pair(0x00u, false), std::pair(0x0Fu, false), std::pair(0x10u, true),
                                            std::pair(0xFFFFFFEFu, false), std::pair(0x80000010u, true)})
    {
        env.managerFake->SetPending(Kind::GenericFiles, "app", Manifest("2.0", "urn:zun:test", behavior));
        Seed(HostState::Idle, ManagerState::Idle);
        Clear();
        ASSERT_EQ(module->InstallSoftwarePackage(App, Request(), 0), Codes::Good);
        EXPECT_THAT(Journal(), HasSubstr(prepare ? "SwitchToInstalling(%, true)" : "SwitchToInstalling(%, false)")) << behavior;
    }
}

// Refusals before the switch: a code, a log line, and nothing changed.
struct Refusal
{
    const char* title;
    void (*setup)(InstallationTest&);
    const char* name; // null: App
    const char* revision;
    const char* uri;
    std::size_t patches;
    StatusCode code;
    const char* log;
};

class InstallationRefusalTest : public InstallationTest, public ::testing::WithParamInterface<Refusal>
{
};

TEST_P(InstallationRefusalTest, ChangesNothing)
{
    const Refusal& c = GetParam();
    env.statusFake->SeedProperty(App, TargetKey, "1.5");
    if (c.setup != nullptr)
    {
        c.setup(*this);
    }
    const std::string before = Snapshot();
    Su::SoftwareVersionType request = Request(c.revision, c.uri);
    request.PatchIdentifiers.assign(c.patches, RscText("KB1"));

    EXPECT_EQ(module->InstallSoftwarePackage(c.name ? c.name : App, request, 0), c.code);

    EXPECT_EQ(Log(), c.log);
    EXPECT_EQ(Snapshot(), before);
    EXPECT_EQ(Journal(true) + ManagerJournal(true), "");
    EXPECT_EQ(module->GetStatusThreadState(), -1);
    if (c.name != nullptr)
    {
        EXPECT_EQ(Journal() + ManagerJournal(), "");
    }
}

const char* const Any = "2.0";
const char* const Uri = "urn:zun:test";

INSTANTIATE_TEST_SUITE_P(
    Cases, InstallationRefusalTest,
    ::testing::Values(
        Refusal{"InvalidName", nullptr, "Generic files:app", Any, Uri, 0, Codes::BadInvalidArgument, ""},
        // Passed on before the store is asked.
        Refusal{"ManagerReadFails",
                [](InstallationTest& t) { t.env.managerFake->FailOperation("GetSoftwareInformation", Codes::BadNoCommunication); }, nullptr,
                Any, Uri, 0, Codes::BadNoCommunication, ""},
        Refusal{"ManagerStateFails",
                [](InstallationTest& t) { t.env.managerFake->FailOperation("GetInstallationState", Codes::BadNoCommunication); }, nullptr,
                Any, Uri, 0, Codes::BadNoCommunication, ""},
        Refusal{"StoreReadFails", [](InstallationTest& t) { t.env.statusFake->FailNextGetStatus(1); }, nullptr, Any, Uri, 0,
                Codes::BadInternalError, ""},
        // The state is checked before the package.
        Refusal{"Installing", [](InstallationTest& t) { t.SeedBusy(HostState::Installing, ManagerState::Copying, false); }, nullptr, "9.9",
                Uri, 0, Codes::BadInvalidState, "7 Invalid state Installing"},
        Refusal{"Error", [](InstallationTest& t) { t.SeedBusy(HostState::Error, ManagerState::CopyingFailed, false); }, nullptr, Any, Uri, 0,
                Codes::BadInvalidState, "7 Invalid state Error"},
        Refusal{"ErrorOfOwnInstallation", [](InstallationTest& t) { t.SeedBusy(HostState::Error, ManagerState::Idle, true); }, nullptr, Any,
                Uri, 0, Codes::BadInvalidState, "7 Invalid state Error"},
        Refusal{"NoPending", [](InstallationTest& t) { t.env.managerFake->SetPending(Kind::GenericFiles, "app", std::nullopt); }, nullptr,
                Any, Uri, 0, Codes::BadNotFound, "7 Has no pending software package."},
        Refusal{"Revision", nullptr, nullptr, "2.0.0", Uri, 0, Codes::BadNotFound,
                "7 SoftwareRevision mismatch. Pending version is 2.0 but requested 2.0.0"},
        Refusal{"Uri", nullptr, nullptr, Any, "URN:ZUN:TEST", 0, Codes::BadNotFound,
                "7 ManufacturerUri mismatch. Pending ManufacturerUri is urn:zun:test but must be URN:ZUN:TEST."},
        Refusal{"PatchIdentifiers", nullptr, nullptr, Any, Uri, 1, Codes::BadNotFound, "7 PatchIdentifiers mismatch. Must be empty"}),
    [](const auto& info) { return std::string(info.param.title); });

TEST_F(InstallationTest, RefusedSwitchIsReportedToTheStoreAndLogged)
{
    env.statusFake->SeedProperty(App, TargetKey, "1.5");
    EXPECT_CALL(*env.status, SwitchToInstalling(App, false)).WillOnce(Return(false));

    EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), 0), Codes::BadUnexpectedError);

    EXPECT_EQ(Journal(true), "SetUpdateStatus(%, Failed to switch installation state to Installing., true)");
    EXPECT_EQ(Log(), "3 Failed to switch installation state to Installing.");
    EXPECT_EQ(Snapshot(), "Idle [Failed to switch installation state to Installing.] TargetSoftwareRevision=1.5 list: ");
    EXPECT_EQ(ManagerJournal(true), "");
}

// After the switch: Installing, then Error; with the manager idle and the module no longer the
// starter, the refresh takes the component back to Idle. The requested revision stays behind.
TEST_F(InstallationTest, FailureAfterTheSwitchGoesToErrorAndTheRefreshDecidesTheEnd)
{
    const std::string back = "7 Sync status: Switch % from Error to Idle.";
    // Delays that a 32-bit narrowing would turn into 0 or a negative number are refused too.
    for (const long long delay : {1LL, LLONG_MAX, 4294967296LL, 2147483648LL, 0LL})
    {
        SCOPED_TRACE(delay);
        env.managerFake->FailOperation("StartInstallation", delay == 0 ? Codes::BadNoCommunication : Codes::Good);
        Clear();

        EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), delay), delay == 0 ? Codes::BadNoCommunication : Codes::BadNotSupported);

        EXPECT_EQ(Journal(true), Started + "; RemoveProperty(%, InstallationStartedByModule); FinishInstallation(%, false); "
                                           "ResetError(%); SetUpdateStatus(%, , true)");
        EXPECT_EQ(Snapshot(), "Idle [] TargetSoftwareRevision=2.0 list: ");
        EXPECT_EQ(module->GetStatusThreadState(), -1);
        // The delay is refused before the second read of the manager.
        EXPECT_EQ(ManagerJournal(), delay == 0 ? "GetSoftwareInformation(1, app); GetInstallationState(1, app); GetSoftwareInformation(1, app); "
                                                 "StartInstallation(1, app); GetInstallationState(1, app)"
                                               : "GetSoftwareInformation(1, app); GetInstallationState(1, app); GetInstallationState(1, app)");
        EXPECT_EQ(Log(), delay == 0 ? "7 InstallSoftwarePackage; " + back
                                    : "7 InstallSoftwarePackage; 5 InstallationDelay is not supported.; " + back);
    }
}

TEST_F(InstallationTest, PackageReplacedAfterTheChecksIsNotStarted)
{
    FakeSoftwareManagerService& fake = *env.managerFake;
    EXPECT_CALL(*env.manager, GetSoftwareInformation(_, _, _))
        .WillOnce(::testing::Invoke(&fake, &FakeSoftwareManagerService::GetSoftwareInformation))
        .WillOnce([&fake](Kind kind, const auto& name, Sm::SoftwareInformation& information) {
            fake.SetPending(Kind::GenericFiles, "app", Manifest("2.1"));
            return fake.GetSoftwareInformation(kind, name, information);
        })
        .WillRepeatedly(::testing::Invoke(&fake, &FakeSoftwareManagerService::GetSoftwareInformation));

    EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), 0), Codes::BadNotFound);

    EXPECT_EQ(Log(), "7 InstallSoftwarePackage; 3 SoftwareRevision mismatch. Pending version is 2.1 but requested 2.0; "
                     "7 Sync status: Switch % from Error to Idle.");
    EXPECT_EQ(ManagerJournal(true), "");
    EXPECT_EQ(Snapshot(), "Idle [] TargetSoftwareRevision=2.0 list: ");
}

TEST_F(InstallationTest, MissingTargetPropertyCountsAsAnEmptyRequestedRevision)
{
    EXPECT_CALL(*env.status, GetProperty(_, _, _)).Times(::testing::AnyNumber());
    EXPECT_CALL(*env.status, GetProperty(App, TargetKey, _)).WillOnce([](const String&, const String&, String& value) {
        value = "2.0";
        return false;
    });

    EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), 0), Codes::BadNotFound);

    EXPECT_THAT(Log(), HasSubstr("3 SoftwareRevision mismatch. Pending version is 2.0 but requested ;"));
    EXPECT_EQ(ManagerJournal(true), "");
}

TEST_F(InstallationTest, ResumeRefusesAnInvalidNameAndPassesStatusFailuresOn)
{
    EXPECT_EQ(module->ResumeInstall("app"), Codes::BadInvalidArgument);
    EXPECT_EQ(Journal() + ManagerJournal(), "");
    EXPECT_EQ(module->ResumeInstall("Generic files / ghost"), Codes::BadInternalError);
    env.managerFake->FailOperation("GetInstallationState", Codes::BadNoCommunication);
    EXPECT_EQ(module->ResumeInstall(App), Codes::BadNoCommunication);
    EXPECT_EQ(Log() + Journal(true) + ManagerJournal(true), "");
}

TEST_F(InstallationTest, ResumesOnlyFromErrorAndResumesTheManagerOnlyWhenItFailed)
{
    for (const auto& [host, manager, code, resumes] :
         {std::tuple(HostState::Idle, ManagerState::Idle, Codes::BadInvalidState, false),
          std::tuple(HostState::Installing, ManagerState::Copying, Codes::BadInvalidState, false),
          std::tuple(HostState::Error, ManagerState::Idle, Codes::Good, false),
          std::tuple(HostState::Error, ManagerState::PreparingFailed, Codes::Good, true),
          std::tuple(HostState::Error, ManagerState::CopyingFailed, Codes::Good, true),
          std::tuple(HostState::Error, ManagerState::ActivatingFailed, Codes::Good, true),
          std::tuple(HostState::Error, static_cast<ManagerState>(7), Codes::Good, false)})
    {
        SCOPED_TRACE(::testing::Message() << host << " " << static_cast<int>(manager));
        env.statusFake->SeedProperty(App, TargetKey, "2.0");
        // Keeps an Error with an idle manager in Error through the synchronisation.
        SeedBusy(host, manager, true);
        const std::string before = Snapshot();

        EXPECT_EQ(module->ResumeInstall(App), code);

        if (code == Codes::BadInvalidState)
        {
            EXPECT_EQ(Log() + Journal(true) + ManagerJournal(true), "");
            EXPECT_EQ(Snapshot(), before);
            continue;
        }
        EXPECT_EQ(Journal(true), "RemoveProperty(%, InstallationStartedByModule); ResetError(%)");
        EXPECT_EQ(Snapshot(), "Idle [busy] TargetSoftwareRevision=2.0 list: %");
        EXPECT_EQ(Log(), "7 Resume");
        EXPECT_EQ(ManagerJournal(true), resumes ? "ResumeInstallation(1, app)" : "");
    }
}

TEST_F(InstallationTest, FailedResumeRefreshesWithoutResettingTheError)
{
    SeedBusy(HostState::Error, ManagerState::CopyingFailed, true);
    env.managerFake->FailOperation("ResumeInstallation", Codes::BadNoCommunication);

    EXPECT_EQ(module->ResumeInstall(App), Codes::BadNoCommunication);

    EXPECT_EQ(Journal(), "GetStatus(%); AddComponent(%); GetProperty(%, InstallationStartedByModule); RemoveProperty(%, InstallationStartedByModule); "
                         "GetStatus(%); AddComponent(%); GetProperty(%, InstallationStartedByModule); GetStatus(%)");
    EXPECT_EQ(Snapshot(), "Error [busy] list: %");
}

TEST_F(InstallationTest, ResumeReportsARefusedResetAndAFailedStateRead)
{
    SeedBusy(HostState::Error, ManagerState::CopyingFailed, false);
    EXPECT_CALL(*env.status, ResetError(App)).WillOnce(Return(false));
    EXPECT_EQ(module->ResumeInstall(App), Codes::BadUnexpectedError);
    EXPECT_EQ(env.statusFake->StateOf(App), HostState::Error);

    // The second read of the manager's state, after the store has been synchronised, fails.
    SeedBusy(HostState::Error, ManagerState::CopyingFailed, true);
    FakeSoftwareManagerService& fake = *env.managerFake;
    EXPECT_CALL(*env.manager, GetInstallationState(_, _, _, _))
        .WillOnce(::testing::Invoke(&fake, &FakeSoftwareManagerService::GetInstallationState))
        .WillOnce(Return(Codes::BadNoCommunication));
    EXPECT_EQ(module->ResumeInstall(App), Codes::BadNoCommunication);
    EXPECT_EQ(Log() + Journal(true), "");
    EXPECT_EQ(env.statusFake->PropertyOf(App, StartedKey), String("true"));
}

TEST_F(InstallationTest, UnsupportedOperationsAnswerNotSupportedForAnyArguments)
{
    for (const String& name : {String(), String("garbage"), App, String("Generic files / ghost")})
    {
        EXPECT_EQ(module->RevertInstall(name), Codes::BadNotSupported) << name;
        EXPECT_EQ(module->SetUpdateKey(name, SecureString<512>("k")), Codes::BadNotSupported) << name;
        for (std::int32_t fileType : {0, 1, 2, 99})
        {
            EXPECT_EQ(module->GetSoftwarePackage(name, static_cast<FileType>(fileType), "app.pkg"), Codes::BadNotSupported) << name;
        }
    }
    EXPECT_EQ(Journal() + ManagerJournal() + Log(), "");
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
