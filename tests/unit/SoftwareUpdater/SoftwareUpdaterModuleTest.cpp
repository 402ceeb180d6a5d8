#include <pthread.h>

#include <atomic>
#include <thread>

#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "UpdaterModuleFixture.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/Testing/Latch.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;
using ::testing::ThrowsMessage;

SecurityNotifications* Shared()
{
    return Singleton<SecurityNotifications>::pInstance;
}

using LifecycleTest = UpdaterModuleTest;

TEST_F(LifecycleTest, ModulesShareOneSetOfNotificationsWhichTheFirstDestructionRemoves)
{
    auto first = std::make_unique<Module>();
    SecurityNotifications* shared = Shared();
    ASSERT_NE(shared, nullptr);
    auto second = std::make_unique<Module>();
    EXPECT_EQ(Shared(), shared);
    EXPECT_EQ(env.notifications.GetRegistrations().size(), 2u);

    first.reset();
    EXPECT_EQ(Shared(), nullptr);
    EXPECT_TRUE(env.notifications.GetRegistrations().empty());
}

TEST_F(LifecycleTest, InitializeRefusesAnEmptyCallbackAndAServiceOfAnotherType)
{
    Module module;
    EXPECT_THAT([&] { module.Initialize("SoftwareUpdater", nullptr); }, ThrowsMessage<Exception>("updaterStatus is null."));

    class WrongTypeProvider : public System::Rsc::IServiceProvider
    {
    public:
        System::Rsc::IRscService* GetService(System::Rsc::IRscServiceProxyFactory&) override { return new System::Rsc::IRscService(); }
    };
    System::Rsc::ServiceManager::RegisterProvider("Zun", std::make_shared<WrongTypeProvider>());
    EXPECT_THAT(
        [&] { module.Subscribe(); },
        ThrowsMessage<System::Commons::InvalidCastException>(
            "The service does not implement service interface 'Zun.Services.SoftwareManager.Services.Internal.ISoftwareManagerService'."));
}

class StatusThreadTest : public UpdaterModuleTest
{
public:
    // Components a and b with the manager copying, so that the first pass lists both and starts the thread.
    StatusThreadTest()
    {
        for (const char* name : {"a", "b"})
        {
            env.manager->AddComponent(Kind::GenericFiles, name);
            env.manager->SetState(Kind::GenericFiles, name, ManagerState::Copying);
        }
    }

    const std::thread::id testThread = std::this_thread::get_id();
};

TEST_F(StatusThreadTest, DisablingStopsAPassEarlyAndNoThreadStartsAgain)
{
    // The module is disabled during the thread's first poll, on the thread itself.
    std::atomic<int> threadPolls{0};
    std::string threadName;
    env.manager->BeforeEachCall([&](const String& call) {
        if (std::this_thread::get_id() != testThread && call.rfind("GetInstallationState", 0) == 0 && threadPolls++ == 0)
        {
            char name[16] = {};
            pthread_getname_np(pthread_self(), name, sizeof(name));
            threadName = name;
            module->Disable();
        }
    });
    module = std::make_unique<Module>();
    module->Initialize("SoftwareUpdater", env.status);

    ASSERT_TRUE(WaitUntil([this] { return module->GetStatusThreadState() == 0; }));
    EXPECT_EQ(threadPolls.load(), 1);
    EXPECT_EQ(threadName, "SUUpdateStatus");
    EXPECT_EQ(sleep.SleepsBegun(), 0u);
    // Disabled: a synchronisation still fills the work list but starts no thread.
    env.manager->SetState(Kind::GenericFiles, "a", ManagerState::Idle);
    EXPECT_EQ(Sync("Generic files / a"), HostState::Idle);
    env.manager->SetState(Kind::GenericFiles, "a", ManagerState::Copying);
    EXPECT_EQ(Sync("Generic files / a"), HostState::Installing);
    module->StartStatusThread();
    EXPECT_EQ(module->GetSyncList(), (std::unordered_set<String>{"Generic files / a", "Generic files / b"}));
    EXPECT_EQ(module->GetStatusThreadState(), 0);
    EXPECT_EQ(threadPolls.load(), 1);
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

// The host deletes the module on another thread while the status thread is between its check and
// its poll; the poll then still runs while the destructor is ending the thread. Under
// ThreadSanitizer this must report nothing.
TEST_F(StatusThreadTest, ModuleDestroyedWhileItsThreadEntersAPollEndsTheThreadWithoutARace)
{
    Notification arrived;
    Notification proceed;
    module = std::make_unique<GatedModule>(testThread, arrived, proceed);
    module->Initialize("SoftwareUpdater", env.status);
    ASSERT_TRUE(arrived.WaitFor());

    Module* raw = module.release();
    std::thread destroyer([raw] { delete raw; });
    EXPECT_TRUE(WaitUntil([raw] { return !raw->IsEnabled(); }));
    sleep.SetAutomatic(true);
    proceed.Notify();
    destroyer.join();

    EXPECT_TRUE(logs.Contains(7, "Stop UpdateStatus Thread"));
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
