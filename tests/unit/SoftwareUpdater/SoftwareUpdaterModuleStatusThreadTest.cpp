#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"

#include <pthread.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <thread>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Testing/Latch.hpp"
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
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;
using Zun::System::Commons::Diagnostics::Logging::ILogSink;
using Zun::System::Commons::Diagnostics::Logging::LogManager;
using Zun::System::Commons::Diagnostics::Logging::LogRecord;
using Zun::Testing::Latch;
using Zun::Testing::Notification;
namespace Codes = Zun::Services::SoftwareUpdate::StatusCodes;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using ManagerState = Zun::Services::SoftwareManager::Services::Internal::InstallationState;
using Kind = Zun::Services::SoftwareManager::Services::Internal::SoftwareKind;
using Record = Zun::Services::SoftwareUpdate::Services::Internal::SoftwareUpdateStatus;
using RscText = Zun::System::Rsc::RscString<512>;
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
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
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

// Notifies once a given message has been logged.
class MessageLatch : public ILogSink
{
public:
    explicit MessageLatch(String message) : message(std::move(message)) {}
    void Write(const LogRecord& record) override
    {
        if (record.message == message)
        {
            seen.Notify();
        }
    }
    Notification seen;

private:
    String message;
};

class StatusThreadTest : public testing::Test
{
protected:
    void TearDown() override
    {
        if (module)
        {
            module->Disable();
            sleep.SetAutomatic(true);
            module.reset();
        }
    }

    void Start()
    {
        module = std::make_unique<SoftwareUpdaterModule>();
        module->Initialize("SoftwareUpdater", env.status);
    }

    HostState Sync(const String& name)
    {
        Record record;
        EXPECT_EQ(module->GetStatus(name, record), Codes::Good);
        return record.InstallationState;
    }

    // Calls of the manager's GetInstallationState: one per synchronisation, by host or thread.
    std::size_t Polls() const
    {
        std::size_t count = 0;
        for (const String& line : env.managerFake->Journal())
        {
            count += line.rfind("GetInstallationState(", 0) == 0 ? 1 : 0;
        }
        return count;
    }

    // Answers the manager's state through the fake, running `onThread` first for calls made
    // by the status thread.
    template <class Action>
    void OnStatusThreadPoll(Action onThread)
    {
        EXPECT_CALL(*env.manager, GetInstallationState(_, _, _, _))
            .WillRepeatedly([this, onThread](Kind kind, const RscText& name, ManagerState& state, RscText& message) {
                if (std::this_thread::get_id() != testThread)
                {
                    onThread();
                }
                return env.managerFake->GetInstallationState(kind, name, state, message);
            });
    }

    Zun::Testing::Watchdog watchdog{std::chrono::seconds(60)};
    Zun::Testing::ManualSleep sleep;
    Zun::Testing::LogCapture logs{7};
    Zun::Testing::ModuleEnvironment env;
    std::unique_ptr<SoftwareUpdaterModule> module;
    const std::thread::id testThread = std::this_thread::get_id();
};

TEST_F(StatusThreadTest, NoThreadRunsWhileEveryComponentIsIdle)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    env.managerFake->AddComponent(Kind::GenericFiles, "b");
    env.managerFake->SetState(Kind::GenericFiles, "b", ManagerState::Idle, "text");
    Start();
    EXPECT_EQ(Sync(A), HostState::Idle);
    EXPECT_EQ(Sync(B), HostState::Idle);

    EXPECT_EQ(module->GetStatusThreadState(), -1);
    EXPECT_FALSE(module->IsRunning());
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
    EXPECT_EQ(sleep.SleepsBegun(), 0u);
    EXPECT_EQ(logs.Count(StartLine), 0u);
}

TEST_F(StatusThreadTest, StartsOnTheFirstNonIdleResultPollsOncePerPauseAndEndsWhenTheListEmpties)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    Start();
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying, "copying");
    env.managerFake->ClearJournal();

    EXPECT_EQ(Sync(A), HostState::Installing);
    EXPECT_EQ(module->GetStatusThreadState(), 2);
    EXPECT_TRUE(module->IsRunning());

    // Each pass polls the one component once, then pauses.
    for (std::size_t pass = 1; pass <= 3; ++pass)
    {
        ASSERT_TRUE(sleep.WaitForSleeps(pass));
        EXPECT_EQ(Polls(), 1 + pass) << "pass " << pass;
        EXPECT_EQ(module->GetStatusThreadState(), 2);
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
    EXPECT_EQ(sleep.SleepsBegun(), 3u);
    EXPECT_THAT(sleep.Durations(), ElementsAre(1000u, 1000u, 1000u));
    EXPECT_EQ(logs.Count(StartLine), 1u);
    EXPECT_EQ(logs.Count(StopLine), 1u);

    // The next non-Idle result joins the finished thread and starts a new one.
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Preparing, "preparing");
    EXPECT_EQ(Sync(A), HostState::Installing);
    EXPECT_EQ(module->GetStatusThreadState(), 2);
    EXPECT_TRUE(module->IsRunning());
    ASSERT_TRUE(sleep.WaitForSleeps(4));
    EXPECT_EQ(Polls(), 6u);
    EXPECT_EQ(logs.Count(StartLine), 2u);
    EXPECT_TRUE(logs.Contains(7, "Wait until UpdateStatus thread stopped"));
    EXPECT_TRUE(logs.Contains(7, "UpdateStatus thread stopped"));
}

TEST_F(StatusThreadTest, PollsEveryListedComponentEachPass)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    env.managerFake->AddComponent(Kind::GenericFiles, "b");
    Start();
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    env.managerFake->SetState(Kind::GenericFiles, "b", ManagerState::CopyingFailed, "failed");
    env.managerFake->ClearJournal();
    EXPECT_EQ(Sync(A), HostState::Installing);
    EXPECT_EQ(Sync(B), HostState::Error);
    const std::size_t byHost = 2;

    ASSERT_TRUE(sleep.WaitForSleeps(1));
    // The thread may have copied the list before or after B joined it; from the second pass on it polls both.
    const std::size_t afterFirstPass = Polls();
    EXPECT_GE(afterFirstPass, byHost + 1);
    sleep.Release(1);
    ASSERT_TRUE(sleep.WaitForSleeps(2));
    EXPECT_EQ(Polls(), afterFirstPass + 2);
    EXPECT_EQ(module->GetSyncList(), (Names{A, B}));
}

TEST_F(StatusThreadTest, DisablingStopsAPassEarlyAndNoThreadStartsAgain)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    env.managerFake->AddComponent(Kind::GenericFiles, "b");
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    env.managerFake->SetState(Kind::GenericFiles, "b", ManagerState::Copying);
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
    Start();

    ASSERT_TRUE(WaitUntil([this] { return module->GetStatusThreadState() == 0; }));
    EXPECT_EQ(threadPolls.load(), 1);
    EXPECT_EQ(threadName, "SUUpdateStatus");
    EXPECT_EQ(sleep.SleepsBegun(), 0u);
    EXPECT_EQ(logs.Count(StopLine), 1u);

    // Disabled: a synchronisation still fills the work list but starts no thread.
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Idle);
    EXPECT_EQ(Sync(A), HostState::Idle);
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    EXPECT_EQ(Sync(A), HostState::Installing);
    EXPECT_EQ(module->GetSyncList(), (Names{A, B}));
    EXPECT_EQ(module->GetStatusThreadState(), 0);
    EXPECT_EQ(logs.Count(StartLine), 1u);
    EXPECT_EQ(threadPolls.load(), 1);
}

TEST_F(StatusThreadTest, ModuleDestroyedWhileItsThreadSleepsEndsTheThreadWithoutAnotherPoll)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    Start();
    ASSERT_TRUE(sleep.WaitForSleeps(1));
    const std::size_t polls = Polls();

    // The destructor disables the module and then waits for the thread, which is still asleep.
    SoftwareUpdaterModule* raw = module.release();
    std::thread destroyer([raw] { delete raw; });
    ASSERT_TRUE(WaitUntil([raw] { return !raw->IsEnabled(); }));
    sleep.Release(1);
    destroyer.join();

    EXPECT_EQ(Polls(), polls);
    EXPECT_EQ(sleep.SleepsBegun(), 1u);
    EXPECT_EQ(logs.Count(StopLine), 1u);
    EXPECT_EQ(static_cast<SecurityNotifications*>(Zun::Singleton<SecurityNotifications>::pInstance), nullptr);
    EXPECT_THAT(env.notifications.GetRegistrations(), IsEmpty());
}

TEST_F(StatusThreadTest, ModuleDestroyedWhileItsThreadPollsWaitsForThePollAndEndsTheThread)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    Notification polling;
    Notification proceed;
    std::atomic<int> threadPolls{0};
    OnStatusThreadPoll([&] {
        if (threadPolls++ == 0)
        {
            polling.Notify();
            proceed.WaitFor();
        }
    });
    auto disposing = std::make_shared<MessageLatch>("Dispose (~SoftwareUpdaterModule)");
    LogManager::AddSink(disposing);
    Start();
    ASSERT_TRUE(polling.WaitFor());

    SoftwareUpdaterModule* raw = module.release();
    std::thread destroyer([raw] { delete raw; });
    ASSERT_TRUE(disposing->seen.WaitFor());
    // The poll holds the module mutex, so the destructor cannot disable the module before it ends.
    EXPECT_TRUE(raw->IsEnabled());
    proceed.Notify();
    ASSERT_TRUE(WaitUntil([raw] { return !raw->IsEnabled(); }));
    sleep.Release(1);
    destroyer.join();
    LogManager::RemoveSink(disposing);

    EXPECT_EQ(threadPolls.load(), 1);
    EXPECT_LE(sleep.SleepsBegun(), 1u);
    EXPECT_EQ(logs.Count(StopLine), 1u);
    EXPECT_EQ(env.statusFake->StateOf(A), HostState::Installing);
}

// Stops the status thread inside the virtual GetStatus, before the module mutex is taken: past the
// thread's isEnabled check but not yet synchronising.
class GatedModule : public SoftwareUpdaterModule
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
        return SoftwareUpdaterModule::GetStatus(name, status);
    }

private:
    const std::thread::id testThread;
    Notification& arrived;
    Notification& proceed;
    std::atomic<bool> gated{false};
};

// The destructor disables the module while the thread is between its check and its poll; the poll
// then still runs (and may look at the thread object) while the destructor is ending the thread.
// Under ThreadSanitizer this must report nothing.
TEST_F(StatusThreadTest, ModuleDestroyedWhileItsThreadEntersAPollEndsTheThreadWithoutARace)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a");
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    Notification arrived;
    Notification proceed;
    module = std::make_unique<GatedModule>(testThread, arrived, proceed);
    module->Initialize("SoftwareUpdater", env.status);
    ASSERT_TRUE(arrived.WaitFor());

    SoftwareUpdaterModule* raw = module.release();
    std::thread destroyer([raw] { delete raw; });
    ASSERT_TRUE(WaitUntil([raw] { return !raw->IsEnabled(); }));
    sleep.SetAutomatic(true);
    proceed.Notify();
    destroyer.join();

    EXPECT_EQ(logs.Count(StartLine), 1u);
    EXPECT_EQ(logs.Count(StopLine), 1u);
    EXPECT_EQ(env.statusFake->StateOf(A), HostState::Installing);
}

} // namespace
