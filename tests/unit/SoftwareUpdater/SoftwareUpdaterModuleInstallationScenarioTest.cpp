#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::Contains;
using ::testing::Each;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using System::Commons::Diagnostics::Logging::LogManager;

// Whole installations: stage, install, and the status thread following the manager, one released
// sleep per pass, while the test drives the manager's state between the passes.
class InstallationScenarioTest : public UpdaterModuleTest
{
protected:
    // "Generic files / app" with 1.0 installed and nothing pending; the package of 2.0 is known.
    void SetUp() override
    {
        env.managerFake->AddComponent(SoftwareKind::GenericFiles, BareName, MakeManifest("1.0"));
        env.managerFake->AddPackage("app-2.0.pkg", MakeManifest("2.0"));
        StartModule();
        LogManager::AddSink(threadStopped);
    }

    void TearDown() override
    {
        StopModule();
        LogManager::RemoveSink(threadStopped);
    }

    // Ends with the status thread parked after its first pass.
    void StageAndInstall()
    {
        String message;
        ASSERT_EQ(Codes::Good, module->SetSoftwarePackage(Name, FileType::Pending, "app-2.0.pkg", message));
        ASSERT_EQ(Codes::Good, module->InstallSoftwarePackage(Name, Request("2.0"), 0));
        ASSERT_TRUE(sleep.WaitForSleeps(1));
    }

    // Lets the parked status thread make one more pass and waits until it is parked again.
    void NextPass()
    {
        const std::size_t begun = sleep.SleepsBegun();
        sleep.Release(1);
        ASSERT_TRUE(sleep.WaitForSleeps(begun + 1));
    }

    // Releases the last sleep and waits for the thread to end by itself.
    void ExpectThreadEndsWithEmptyWorkList()
    {
        EXPECT_THAT(module->GetSyncList(), IsEmpty());
        const std::size_t begun = sleep.SleepsBegun();
        sleep.Release(1);
        ASSERT_TRUE(threadStopped->seen.WaitFor());
        EXPECT_FALSE(module->IsRunning());
        EXPECT_EQ(begun, sleep.SleepsBegun());
        EXPECT_THAT(sleep.Durations(), Each(1000u));
    }

    void SetManager(ManagerState state, const char* message)
    {
        env.managerFake->SetState(SoftwareKind::GenericFiles, BareName, state, message);
    }

    String Revision(FileType fileType)
    {
        Su::SoftwareVersionType version;
        return module->GetSoftwareVersion(Name, fileType, version) == Codes::Good ? version.SoftwareRevision.ToString() : String("-");
    }

    std::shared_ptr<MessageLatch> threadStopped = std::make_shared<MessageLatch>("Stop UpdateStatus Thread");
};

TEST_F(InstallationScenarioTest, ThreadFollowsTheManagerToIdleWithTheRequestedRevision)
{
    StageAndInstall();
    EXPECT_EQ("2.0", Revision(FileType::Pending));
    EXPECT_EQ(HostState::Installing, env.statusFake->StateOf(Name));
    EXPECT_EQ("Preparing", env.statusFake->ErrorMessageOf(Name));

    SetManager(ManagerState::Copying, "Copying 3 of 7 files");
    NextPass();
    EXPECT_EQ(HostState::Installing, env.statusFake->StateOf(Name));
    EXPECT_EQ("Copying 3 of 7 files", env.statusFake->ErrorMessageOf(Name));

    SetManager(ManagerState::Activating, "Activating");
    NextPass();
    EXPECT_EQ("Activating", env.statusFake->ErrorMessageOf(Name));
    EXPECT_EQ(std::unordered_set<String>{Name}, module->GetSyncList());

    env.managerFake->CompleteInstallation(SoftwareKind::GenericFiles, BareName);
    NextPass();

    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
    EXPECT_EQ("2.0", Revision(FileType::Current));
    EXPECT_EQ("-", Revision(FileType::Pending));
    EXPECT_EQ((std::map<String, String>{{TargetKey, "2.0"}}), env.statusFake->PropertiesOf(Name));
    EXPECT_THAT(StoreChanges(),
                ElementsAre("SwitchToInstalling(Generic files / app, false)",
                            "SetProperty(Generic files / app, TargetSoftwareRevision, 2.0, true)",
                            "SetProperty(Generic files / app, InstallationStartedByModule, true, true)",
                            "SetUpdateStatus(Generic files / app, Preparing, false)",
                            "SetUpdateStatus(Generic files / app, Copying 3 of 7 files, false)",
                            "SetUpdateStatus(Generic files / app, Activating, false)",
                            "RemoveProperty(Generic files / app, InstallationStartedByModule)",
                            "FinishInstallation(Generic files / app, true)", "SetUpdateStatus(Generic files / app, , true)"));
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch Generic files / app from Installing to Idle after installation."));
    // Only the first pass after start-up announces results.
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
    ExpectThreadEndsWithEmptyWorkList();
}

TEST_F(InstallationScenarioTest, ManagerIdleWithoutTheNewVersionEndsInError)
{
    StageAndInstall();
    SetManager(ManagerState::Activating, "Activating");
    NextPass();

    env.managerFake->CompleteInstallation(SoftwareKind::GenericFiles, BareName, true);
    NextPass();

    const String reason = "Expected version is 2.0 but current version is 1.0.";
    EXPECT_EQ(HostState::Error, env.statusFake->StateOf(Name));
    EXPECT_EQ(reason, env.statusFake->ErrorMessageOf(Name));
    EXPECT_THAT(ModuleMessages(3), ElementsAre(reason));
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch Generic files / app from Installing to Error after installation."));
    EXPECT_EQ((std::map<String, String>{{StartedKey, "true"}, {TargetKey, "2.0"}}), env.statusFake->PropertiesOf(Name));
    EXPECT_EQ("1.0", Revision(FileType::Current));
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());

    // The Error of the module's own installation stays, pass after pass, until the module acts.
    const std::size_t changes = StoreChanges().size();
    NextPass();
    EXPECT_EQ(HostState::Error, env.statusFake->StateOf(Name));
    EXPECT_EQ(changes, StoreChanges().size());
    EXPECT_EQ(std::unordered_set<String>{Name}, module->GetSyncList());
    EXPECT_TRUE(module->IsRunning());
}

TEST_F(InstallationScenarioTest, ManagerFailureIsResumedAndFollowedToIdle)
{
    StageAndInstall();
    SetManager(ManagerState::CopyingFailed, "Copy failed: disk full");
    NextPass();

    EXPECT_EQ(HostState::Error, env.statusFake->StateOf(Name));
    EXPECT_EQ("Copy failed: disk full", env.statusFake->ErrorMessageOf(Name));
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch Generic files / app from Installing to Error."));

    ASSERT_EQ(Codes::Good, module->ResumeInstall(Name));
    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
    EXPECT_EQ(ManagerState::Preparing, env.managerFake->StateOf(SoftwareKind::GenericFiles, BareName));
    EXPECT_EQ((std::map<String, String>{{TargetKey, "2.0"}}), env.statusFake->PropertiesOf(Name));

    // The host's next status query finds the resumed installation running.
    Su::SoftwareUpdateStatus status;
    ASSERT_EQ(Codes::Good, module->GetStatus(Name, status));
    EXPECT_EQ(HostState::Installing, status.InstallationState);
    EXPECT_EQ("Preparing", status.ErrorMessage.ToString());

    env.managerFake->CompleteInstallation(SoftwareKind::GenericFiles, BareName);
    NextPass();

    // No longer the module's own installation: no revision check, plain Installing to Idle.
    EXPECT_EQ(HostState::Idle, env.statusFake->StateOf(Name));
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch Generic files / app from Installing to Idle."));
    EXPECT_FALSE(logs.Contains(7, "Sync status: Switch Generic files / app from Installing to Idle after installation."));
    EXPECT_EQ("2.0", Revision(FileType::Current));
    ExpectThreadEndsWithEmptyWorkList();
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
