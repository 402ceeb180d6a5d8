#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::Each;
using ::testing::IsEmpty;

const std::string Started = "SwitchToInstalling(%, false); SetProperty(%, TargetSoftwareRevision, 2.0, true); "
                            "SetProperty(%, InstallationStartedByModule, true, true)";

// "Generic files / app": 1.0 installed, 2.0 pending, the manager idle, the module enabled.
class InstallationTest : public UpdaterModuleTest
{
public:
    void SetUp() override
    {
        env.manager->AddComponent(Kind::GenericFiles, "app", Manifest("1.0"), Manifest("2.0"));
        Start(true);
    }

    // App in a state that is not Idle, with the module disabled so that no status thread starts,
    // and the work list as the synchronisation leaves it.
    void SeedBusy(HostState host, ManagerState manager)
    {
        module->Disable();
        Seed(host, manager, "busy");
        env.status->SeedProperty(App, StartedKey, "true");
        Sync();
        Clear();
    }

    // Lets the parked status thread make one more pass and waits until it is parked again.
    void NextPass()
    {
        const std::size_t begun = sleep.SleepsBegun();
        sleep.Release(1);
        ASSERT_TRUE(sleep.WaitForSleeps(begun + 1));
    }
};

TEST_F(InstallationTest, SetSoftwarePackageStagesPendingPackagesOnlyAndRefreshesTheStateOnFailure)
{
    String message = "untouched";
    EXPECT_EQ(module->SetSoftwarePackage(App, static_cast<FileType>(2), "app.pkg", message), Codes::BadNotSupported);
    EXPECT_EQ(message, "Only pending type is supported!");
    EXPECT_EQ(ManagerJournal(), "");
    env.manager->AddPackage("app-2.1.pkg", Manifest("2.1"));
    EXPECT_EQ(module->SetSoftwarePackage(App, FileType::Pending, "app-2.1.pkg", message), Codes::Good);
    EXPECT_EQ(message, "Package app-2.1.pkg staged.");

    // An Error that the module did not cause, with the manager idle: the refresh clears it.
    env.status->Seed(App, HostState::Error, "old failure");
    EXPECT_EQ(module->SetSoftwarePackage(App, FileType::Pending, "nope.pkg", message), Codes::BadNotFound);
    EXPECT_EQ(message, "Unknown package nope.pkg.");
    EXPECT_EQ(State(), "Idle []");
}

// A whole installation: staged, started, and followed by the status thread, one released sleep per
// pass, while the test drives the manager's state between the passes.
TEST_F(InstallationTest, StatusThreadFollowsTheManagerToIdleWithTheRequestedRevision)
{
    // Bit 4 of the behaviour asks for preparation.
    env.manager->AddPackage("app-2.0.pkg", Manifest("2.0", "urn:zun:test", 0x10));
    String message;
    ASSERT_EQ(module->SetSoftwarePackage(App, FileType::Pending, "app-2.0.pkg", message), Codes::Good);
    ASSERT_EQ(module->InstallSoftwarePackage(App, Request("2.0"), 0), Codes::Good);
    ASSERT_TRUE(sleep.WaitForSleeps(1));
    EXPECT_EQ(Snapshot(), "Installing [Preparing] InstallationStartedByModule=true TargetSoftwareRevision=2.0 list: %");
    env.manager->SetState(Kind::GenericFiles, "app", ManagerState::Copying, "Copying 3 of 7 files");
    NextPass();
    // Installed: the manager is idle with 2.0 current and nothing pending.
    env.manager->AddComponent(Kind::GenericFiles, "app", Manifest("2.0"));
    NextPass();

    EXPECT_EQ(Snapshot(), "Idle [] TargetSoftwareRevision=2.0 list: ");
    EXPECT_EQ(Journal(true), "SwitchToInstalling(%, true); SetProperty(%, TargetSoftwareRevision, 2.0, true); "
                             "SetProperty(%, InstallationStartedByModule, true, true); SetUpdateStatus(%, Preparing, false); "
                             "SetUpdateStatus(%, Copying 3 of 7 files, false); "
                             "RemoveProperty(%, InstallationStartedByModule); FinishInstallation(%, true); SetUpdateStatus(%, , true)");
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch Generic files / app from Installing to Idle after installation."));
    // Only the first pass after start-up announces results.
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
    // The list is empty: after the next pause the thread ends by itself.
    sleep.Release(1);
    ASSERT_TRUE(WaitUntil([this] { return logs.Contains(7, "Stop UpdateStatus Thread"); }));
    EXPECT_FALSE(module->IsRunning());
    EXPECT_EQ(sleep.SleepsBegun(), 3u);
    EXPECT_THAT(sleep.Durations(), Each(1000u));
}

// Refusals before the switch: a code, a log line, and nothing changed.
TEST_F(InstallationTest, RefusalsBeforeTheSwitchChangeNothing)
{
    auto expectRefusal = [this](const Su::SoftwareVersionType& request, StatusCode code, const char* log) {
        const std::string before = Snapshot();
        logs.Clear();
        EXPECT_EQ(module->InstallSoftwarePackage(App, request, 0), code) << log;
        EXPECT_EQ(Log(), log);
        EXPECT_EQ(Snapshot(), before);
        EXPECT_EQ(Journal(true) + ManagerJournal(true), "");
        // Nor a status thread: App is idle at first, and once busy the module is disabled.
        EXPECT_EQ(module->GetStatusThreadState(), -1);
    };
    expectRefusal(Request("2.0.0"), Codes::BadNotFound, "7 SoftwareRevision mismatch. Pending version is 2.0 but requested 2.0.0");
    Su::SoftwareVersionType patched = Request();
    patched.PatchIdentifiers = {System::Rsc::RscString<512>("KB1")};
    expectRefusal(patched, Codes::BadNotFound, "7 PatchIdentifiers mismatch. Must be empty");
    const Su::SoftwareVersionType otherUri = Request("2.0", "URN:ZUN:TEST");
    expectRefusal(otherUri, Codes::BadNotFound,
                  "7 ManufacturerUri mismatch. Pending ManufacturerUri is urn:zun:test but must be URN:ZUN:TEST.");
    env.manager->SetPending(Kind::GenericFiles, "app", std::nullopt);
    expectRefusal(Request(), Codes::BadNotFound, "7 Has no pending software package.");
    // The state is checked before the package.
    SeedBusy(HostState::Installing, ManagerState::Copying);
    expectRefusal(otherUri, Codes::BadInvalidState, "7 Invalid state Installing");
    env.status->Refuse("GetStatus(" + App + ")");
    expectRefusal(Request(), Codes::BadInternalError, "");
}

TEST_F(InstallationTest, RefusedSwitchIsReportedToTheStoreAndLogged)
{
    env.status->Refuse("SwitchToInstalling(" + App + ", false)");

    EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), 0), Codes::BadUnexpectedError);

    EXPECT_EQ(Journal(true), "SwitchToInstalling(%, false); SetUpdateStatus(%, Failed to switch installation state to Installing., true)");
    EXPECT_EQ(Log(), "3 Failed to switch installation state to Installing.");
    EXPECT_EQ(ManagerJournal(true), "");
}

// After the switch: Installing, then Error; with the manager idle and the module no longer the
// starter, the refresh takes the component back to Idle. The requested revision stays behind.
TEST_F(InstallationTest, FailureAfterTheSwitchGoesToErrorAndTheRefreshDecidesTheEnd)
{
    // A delay is refused, also one that a 32-bit narrowing would turn into 0.
    for (const long long delay : {1LL, 4294967296LL, 0LL})
    {
        SCOPED_TRACE(delay);
        env.manager->FailOperation("StartInstallation", delay == 0 ? Codes::BadNoCommunication : Codes::Good);
        Clear();

        EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), delay), delay == 0 ? Codes::BadNoCommunication : Codes::BadNotSupported);

        EXPECT_EQ(Journal(true), Started + "; RemoveProperty(%, InstallationStartedByModule); FinishInstallation(%, false); "
                                           "ResetError(%); SetUpdateStatus(%, , true)");
        EXPECT_EQ(Snapshot(), "Idle [] TargetSoftwareRevision=2.0 list: ");
        EXPECT_EQ(ManagerJournal(true), delay == 0 ? "StartInstallation(1, app)" : "");
    }
}

TEST_F(InstallationTest, PackageReplacedAfterTheChecksIsNotStarted)
{
    int reads = 0;
    env.manager->BeforeEachCall([&](const String& call) {
        if (call == "GetSoftwareInformation(1, app)" && ++reads == 2)
        {
            env.manager->SetPending(Kind::GenericFiles, "app", Manifest("2.1"));
        }
    });

    EXPECT_EQ(module->InstallSoftwarePackage(App, Request(), 0), Codes::BadNotFound);

    EXPECT_EQ(Log(), "7 InstallSoftwarePackage; 3 SoftwareRevision mismatch. Pending version is 2.1 but requested 2.0; "
                     "7 Sync status: Switch % from Error to Idle.");
    EXPECT_EQ(ManagerJournal(true), "");
}

TEST_F(InstallationTest, ResumesOnlyFromErrorAndResumesTheManagerOnlyWhenItFailed)
{
    for (const auto& [host, manager, code, resumes] :
         {std::tuple(HostState::Installing, ManagerState::Copying, Codes::BadInvalidState, false),
          std::tuple(HostState::Error, ManagerState::Idle, Codes::Good, false),
          std::tuple(HostState::Error, ManagerState::CopyingFailed, Codes::Good, true)})
    {
        SCOPED_TRACE(::testing::Message() << host << " " << static_cast<int>(manager));
        SeedBusy(host, manager);
        const std::string before = Snapshot();

        EXPECT_EQ(module->ResumeInstall(App), code);

        if (code == Codes::BadInvalidState)
        {
            EXPECT_EQ(Log() + Journal(true) + ManagerJournal(true), "");
            EXPECT_EQ(Snapshot(), before);
            continue;
        }
        EXPECT_EQ(Journal(true), "RemoveProperty(%, InstallationStartedByModule); ResetError(%)");
        EXPECT_EQ(Snapshot(), "Idle [busy] list: %");
        EXPECT_EQ(ManagerJournal(true), resumes ? "ResumeInstallation(1, app)" : "");
    }
    // A refused reset.
    SeedBusy(HostState::Error, ManagerState::CopyingFailed);
    env.status->Refuse("ResetError(" + App + ")");
    EXPECT_EQ(module->ResumeInstall(App), Codes::BadUnexpectedError);
}

TEST_F(InstallationTest, RevertIsNotSupported)
{
    EXPECT_EQ(module->RevertInstall(App), Codes::BadNotSupported);
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
