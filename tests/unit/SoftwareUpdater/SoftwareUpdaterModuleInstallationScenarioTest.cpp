#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::Each;
using ::testing::IsEmpty;
using System::Commons::Diagnostics::Logging::LogManager;

// Whole installations: stage, install, and the status thread following the manager, one released
// sleep per pass, while the test drives the manager's state between the passes.
class InstallationScenarioTest : public UpdaterModuleTest
{
public:
    // "Generic files / app" with 1.0 installed and nothing pending; the package of 2.0 is known.
    void SetUp() override
    {
        env.managerFake->AddComponent(Kind::GenericFiles, "app", Manifest("1.0"));
        env.managerFake->AddPackage("app-2.0.pkg", Manifest("2.0"));
        Start(true);
        LogManager::AddSink(threadStopped);
        String message;
        ASSERT_EQ(module->SetSoftwarePackage(App, FileType::Pending, "app-2.0.pkg", message), Codes::Good);
        ASSERT_EQ(Revision(FileType::Pending), "2.0");
        ASSERT_EQ(module->InstallSoftwarePackage(App, Request("2.0"), 0), Codes::Good);
        ASSERT_TRUE(sleep.WaitForSleeps(1));
        EXPECT_EQ(Snapshot(), "Installing [Preparing] InstallationStartedByModule=true TargetSoftwareRevision=2.0 list: %");
    }

    void TearDown() override
    {
        Stop();
        LogManager::RemoveSink(threadStopped);
    }

    // Sets the manager's state, lets the parked status thread make one more pass and waits until it is parked again.
    void NextPass(ManagerState state, const char* text)
    {
        env.managerFake->SetState(Kind::GenericFiles, "app", state, text);
        NextPass();
    }

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

    String Revision(FileType fileType)
    {
        Su::SoftwareVersionType version;
        return module->GetSoftwareVersion(App, fileType, version) == Codes::Good ? version.SoftwareRevision.ToString() : String("-");
    }

    std::shared_ptr<MessageLatch> threadStopped = std::make_shared<MessageLatch>("Stop UpdateStatus Thread");
};

TEST_F(InstallationScenarioTest, ThreadFollowsTheManagerToIdleWithTheRequestedRevision)
{
    NextPass(ManagerState::Copying, "Copying 3 of 7 files");
    EXPECT_EQ(Snapshot(), "Installing [Copying 3 of 7 files] InstallationStartedByModule=true TargetSoftwareRevision=2.0 list: %");
    NextPass(ManagerState::Activating, "Activating");
    env.managerFake->CompleteInstallation(Kind::GenericFiles, "app");
    NextPass();

    EXPECT_EQ(Snapshot(), "Idle [] TargetSoftwareRevision=2.0 list: ");
    EXPECT_EQ(Revision(FileType::Current) + Revision(FileType::Pending), "2.0-");
    EXPECT_EQ(Journal(true), "SwitchToInstalling(%, false); SetProperty(%, TargetSoftwareRevision, 2.0, true); "
                             "SetProperty(%, InstallationStartedByModule, true, true); SetUpdateStatus(%, Preparing, false); "
                             "SetUpdateStatus(%, Copying 3 of 7 files, false); SetUpdateStatus(%, Activating, false); "
                             "RemoveProperty(%, InstallationStartedByModule); FinishInstallation(%, true); SetUpdateStatus(%, , true)");
    EXPECT_TRUE(logs.Contains(7, "Sync status: Switch Generic files / app from Installing to Idle after installation."));
    // Only the first pass after start-up announces results.
    EXPECT_THAT(env.notifications.GetSentNotifications(), IsEmpty());
    ExpectThreadEndsWithEmptyWorkList();
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
