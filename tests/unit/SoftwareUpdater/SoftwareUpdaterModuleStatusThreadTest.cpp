#include <pthread.h>

#include <atomic>
#include <thread>

#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "UpdaterModuleFixture.hpp"
#include "Zun/Commons/Singleton.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;
using System::Commons::Diagnostics::Logging::LogManager;
using Names = std::unordered_set<String>;

const String A = "Generic files / a";
const String B = "Generic files / b";
const char* const StartLine = "Start of UpdateStatus Thread";
const char* const StopLine = "Stop UpdateStatus Thread";

// Waits for a state that another thread reaches right after a point the test has synchronised
// with (a thread's state flips to 0 just after its body returns); bounded, so a fault fails.
template <class Predicate>
bool WaitUntil(Predicate done)
{
    const auto deadline = std::chrono::steady_clock::now() + Zun::Testing::Patience();
    while (!done())
    {
        if (std::chrono::steady_clock::now() > deadline)
        {
            return false;
        }
        std::this_thread::yield();
    }
    return true;
}

class StatusThreadTest : public UpdaterModuleTest
{
public:
    // Components a and b, each with the manager in the state given.
    void AddComponents(ManagerState a, ManagerState b = ManagerState::Idle)
    {
        env.managerFake->AddComponent(Kind::GenericFiles, "a");
        env.managerFake->AddComponent(Kind::GenericFiles, "b");
        env.managerFake->SetState(Kind::GenericFiles, "a", a);
        env.managerFake->SetState(Kind::GenericFiles, "b", b, "failed");
    }

    // Calls of the manager's GetInstallationState: one per synchronisation, by host or thread.
    std::size_t Polls() const
    {
        const std::string journal = ManagerJournal();
        std::size_t count = 0;
        for (auto at = journal.find("GetInstallationState("); at != std::string::npos; at = journal.find("GetInstallationState(", at + 1))
        {
            ++count;
        }
        return count;
    }

    // Answers the manager's state through the fake, running `onThread` first for the status thread's calls.
    template <class Action>
    void OnStatusThreadPoll(Action onThread)
    {
        EXPECT_CALL(*env.manager, GetInstallationState(_, _, _, _))
            .WillRepeatedly([this, onThread](Kind kind, const auto& name, ManagerState& state, auto& message) {
                if (std::this_thread::get_id() != testThread)
                {
                    onThread();
                }
                return env.managerFake->GetInstallationState(kind, name, state, message);
            });
    }

    // Deletes the module on another thread, as a host would while the status thread is busy.
    std::thread Destroy()
    {
        Module* raw = module.release();
        std::thread destroyer([raw] { delete raw; });
        EXPECT_TRUE(WaitUntil([raw] { return !raw->IsEnabled(); }));
        return destroyer;
    }

    const std::thread::id testThread = std::this_thread::get_id();
};

TEST_F(StatusThreadTest, StartsOnTheFirstNonIdleResultPollsOncePerPauseEndsWhenTheListEmptiesAndStartsAgain)
{
    AddComponents(ManagerState::Idle);
    Start(true);
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying, "copying");

    EXPECT_EQ(Sync(A), HostState::Installing);
    EXPECT_EQ(module->GetStatusThreadState(), 2);
    // A start while the thread runs starts no second one.
    module->StartStatusThread();
    for (std::size_t pass = 1; pass <= 3; ++pass)
    {
        ASSERT_TRUE(sleep.WaitForSleeps(pass));
        EXPECT_EQ(Polls(), 1 + pass) << "pass " << pass;
        if (pass == 2)
        {
            // Installed elsewhere: the next pass moves it to Idle and out of the list.
            env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Idle);
        }
        sleep.Release(1);
    }
    ASSERT_TRUE(WaitUntil([this] { return module->GetStatusThreadState() == 0; }));

    EXPECT_FALSE(module->IsRunning());
    EXPECT_EQ(env.statusFake->StateOf(A), HostState::Idle);
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
    EXPECT_EQ(Polls(), 4u);
    EXPECT_THAT(sleep.Durations(), ElementsAre(1000u, 1000u, 1000u));
    EXPECT_EQ(Log(), "7 Sync status: Switch Generic files / a from Idle to Installing; 7 Start of UpdateStatus Thread; "
                     "7 Sync status: Switch Generic files / a from Installing to Idle.; "
                     "7 Stop UpdateStatus Thread");

    // The next non-Idle result joins the finished thread and starts a new one.
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Preparing, "preparing");
    EXPECT_EQ(Sync(A), HostState::Installing);
    EXPECT_TRUE(module->IsRunning());
    ASSERT_TRUE(sleep.WaitForSleeps(4));
    EXPECT_EQ(Polls(), 6u);
    EXPECT_EQ(logs.Count(StartLine), 2u);
    EXPECT_TRUE(logs.Contains(7, "Wait until UpdateStatus thread stopped"));
    EXPECT_TRUE(logs.Contains(7, "UpdateStatus thread stopped"));
}

TEST_F(StatusThreadTest, DisablingStopsAPassEarlyAndNoThreadStartsAgain)
{
    AddComponents(ManagerState::Copying, ManagerState::Copying);
    std::atomic<int> threadPolls{0};
    std::string threadName;
    // The first pass starts with both components listed (the first pass holds the mutex); the
    // module is disabled during the thread's first poll, on the thread itself.
    OnStatusThreadPoll([&] {
        if (threadPolls++ == 0)
        {
            char name[16] = {};
            pthread_getname_np(pthread_self(), name, sizeof(name));
            threadName = name;
            module->Disable();
        }
    });
    Create();

    ASSERT_TRUE(WaitUntil([this] { return module->GetStatusThreadState() == 0; }));
    EXPECT_EQ(threadPolls.load(), 1);
    EXPECT_EQ(threadName, "SUUpdateStatus");
    EXPECT_EQ(sleep.SleepsBegun(), 0u);

    // Disabled: a synchronisation still fills the work list but starts no thread.
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Idle);
    EXPECT_EQ(Sync(A), HostState::Idle);
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    EXPECT_EQ(Sync(A), HostState::Installing);
    module->StartStatusThread();
    EXPECT_EQ(module->GetSyncList(), (Names{A, B}));
    EXPECT_EQ(module->GetStatusThreadState(), 0);
    EXPECT_EQ(logs.Count(StartLine) + logs.Count(StopLine), 2u);
    EXPECT_EQ(threadPolls.load(), 1);
}

TEST_F(StatusThreadTest, ModuleDestroyedWhileItsThreadSleepsEndsTheThreadWithoutAnotherPoll)
{
    AddComponents(ManagerState::Copying);
    Start(true);
    ASSERT_TRUE(sleep.WaitForSleeps(1));
    const std::size_t polls = Polls();

    // The destructor disables the module and then waits for the thread, which is still asleep.
    std::thread destroyer = Destroy();
    sleep.Release(1);
    destroyer.join();

    EXPECT_EQ(Polls(), polls);
    EXPECT_EQ(sleep.SleepsBegun(), 1u);
    EXPECT_EQ(logs.Count(StopLine), 1u);
    EXPECT_EQ(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), nullptr);
    EXPECT_THAT(env.notifications.GetRegistrations(), IsEmpty());
}

// Stops the status thread inside the virtual GetStatus, before the module mutex is taken: past the
// thread's isEnabled check but not yet synchronising.
class GatedModule : public Module
{
public:
    GatedModule(std::thread::id testThread, Notification& arrived, Notification& proceed)
        : testThread(testThread), arrived(arrived), proceed(proceed)
    {
    }

    StatusCode GetStatus(const String& name, SoftwareUpdateStatus& status) noexcept override
    {
        if (std::this_thread::get_id() != testThread && !gated.exchange(true))
        {
            Notification& go = proceed;
            arrived.Notify();
            go.WaitFor();
        }
        return Module::GetStatus(name, status);
    }

private:
    const std::thread::id testThread;
    Notification& arrived;
    Notification& proceed;
    std::atomic<bool> gated{false};
};

// The destructor disables the module while the thread is between its check and its poll; the poll
// then still runs while the destructor is ending the thread. Under ThreadSanitizer this must report nothing.
TEST_F(StatusThreadTest, ModuleDestroyedWhileItsThreadEntersAPollEndsTheThreadWithoutARace)
{
    AddComponents(ManagerState::Copying);
    Notification arrived;
    Notification proceed;
    module = std::make_unique<GatedModule>(testThread, arrived, proceed);
    module->Initialize("SoftwareUpdater", env.status);
    ASSERT_TRUE(arrived.WaitFor());

    std::thread destroyer = Destroy();
    sleep.SetAutomatic(true);
    proceed.Notify();
    destroyer.join();

    EXPECT_EQ(logs.Count(StartLine) + logs.Count(StopLine), 2u);
    EXPECT_EQ(env.statusFake->StateOf(A), HostState::Installing);
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
