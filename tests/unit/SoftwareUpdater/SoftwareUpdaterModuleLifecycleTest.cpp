#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ManualSleep.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"
#include "Zun/Testing/Watchdog.hpp"

namespace
{
using testing::_;
using testing::InSequence;
using testing::Return;
using Zun::Singleton;
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;
using Zun::Testing::FakeSoftwareManagerService;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;
using ManagerState = Zun::Services::SoftwareManager::Services::Internal::InstallationState;
using Kind = Zun::Services::SoftwareManager::Services::Internal::SoftwareKind;

const char* const ServiceTypeName = "Zun::Services::SoftwareManager::Services::Internal::ISoftwareManagerService";

class SoftwareUpdaterModuleLifecycleTest : public testing::Test
{
protected:
    Zun::Testing::ModuleEnvironment env;
    Zun::Testing::LogCapture capture;
};

TEST_F(SoftwareUpdaterModuleLifecycleTest, ConstructionCreatesTheNotificationsOnceAndTheFirstDestructionRemovesThem)
{
    auto first = std::make_unique<SoftwareUpdaterModule>();
    SecurityNotifications* shared = Singleton<SecurityNotifications>::pInstance;
    ASSERT_NE(shared, nullptr);
    auto second = std::make_unique<SoftwareUpdaterModule>();
    EXPECT_EQ(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), shared);
    EXPECT_EQ(env.notifications.GetRegistrations().size(), 2u);

    first.reset();
    EXPECT_EQ(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), nullptr);
    EXPECT_TRUE(env.notifications.GetRegistrations().empty());

    auto third = std::make_unique<SoftwareUpdaterModule>();
    EXPECT_NE(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), nullptr);
    EXPECT_EQ(env.notifications.GetRegistrations().size(), 2u);
    EXPECT_EQ(capture.Count("Create (SoftwareUpdaterModule)"), 3u);
    second.reset();
    third.reset();
    EXPECT_EQ(capture.Count("Dispose (~SoftwareUpdaterModule)"), 3u);
}

TEST_F(SoftwareUpdaterModuleLifecycleTest, InitializeWithoutCallbackThrowsBeforeAnythingElse)
{
    SoftwareUpdaterModule module;
    EXPECT_CALL(*env.manager, GetAllSoftwareInformation()).Times(0);

    try
    {
        module.Initialize(String("SoftwareUpdater"), nullptr);
        FAIL() << "no exception";
    }
    catch (const Zun::Exception& e)
    {
        EXPECT_EQ(e.GetMessage(), "updaterStatus is null.");
    }
    EXPECT_TRUE(capture.Contains(7, "Initialize: SoftwareUpdater"));
}

TEST_F(SoftwareUpdaterModuleLifecycleTest, InitializeSubscribesThenSynchronisesComponentsThenStates)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a", FakeSoftwareManagerService::MakeManifest("1.0"));
    env.statusFake->Seed(String("Generic files / gone"), HostState::Idle);
    SoftwareUpdaterModule module;
    // The state pass registers and re-reads again; only the order of the first calls matters here.
    EXPECT_CALL(*env.status, AddComponent(_)).Times(testing::AnyNumber());
    EXPECT_CALL(*env.status, GetStatus(_, _)).Times(testing::AnyNumber());
    {
        InSequence order;
        EXPECT_CALL(*env.manager, GetAllSoftwareInformation());
        EXPECT_CALL(*env.status, AddComponent(String("Generic files / a")));
        EXPECT_CALL(*env.status, GetComponentNames());
        EXPECT_CALL(*env.status, RemoveComponent(String("Generic files / gone")));
        EXPECT_CALL(*env.status, GetComponentNames());
        EXPECT_CALL(*env.status, GetStatus(String("Generic files / a"), _)).RetiresOnSaturation();
    }

    module.Initialize(String("SoftwareUpdater"), env.status);

    EXPECT_TRUE(module.IsStateInitialized());
    EXPECT_EQ(module.GetStatusThreadState(), -1) << "Initialize itself starts no thread";
}

TEST_F(SoftwareUpdaterModuleLifecycleTest, SecondInitializeReplacesTheCallbackAndRepeatsBothPasses)
{
    SoftwareUpdaterModule module;
    module.Initialize(String("SoftwareUpdater"), env.status);
    auto otherStatus = std::make_shared<Zun::Testing::FakeUpdaterStatus>();
    env.managerFake->AddComponent(Kind::TesmoraEngineerProject, "proj", FakeSoftwareManagerService::MakeManifest("1.0"));

    module.Initialize(String("SoftwareUpdater"), otherStatus);

    EXPECT_TRUE(otherStatus->Has(String("Tesmora Engineer project / proj")));
    EXPECT_FALSE(env.statusFake->Has(String("Tesmora Engineer project / proj")));
}

TEST_F(SoftwareUpdaterModuleLifecycleTest, MissingServiceThrowsAndKeepsTheEarlierProxy)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a", FakeSoftwareManagerService::MakeManifest("1.0"));
    SoftwareUpdaterModule module;
    module.Initialize(String("SoftwareUpdater"), env.status);
    Zun::System::Rsc::ServiceManager::UnregisterProvider(String("Zun"));

    try
    {
        module.Initialize(String("SoftwareUpdater"), env.status);
        FAIL() << "no exception";
    }
    catch (const Zun::System::Commons::InvalidOperationException& e)
    {
        EXPECT_EQ(e.GetMessage(), String("Could not retrieve service '") + ServiceTypeName + "' from service provider 'Zun'.");
    }

    Zun::Services::SoftwareUpdate::IUpdaterModule::SoftwareVersionType version;
    EXPECT_EQ(module.GetSoftwareVersion(String("Generic files / a"),
                                        Zun::Services::SoftwareUpdate::Services::Internal::SoftwareVersionFileType::Current, version),
              0u);
    EXPECT_EQ(version.SoftwareRevision.ToString(), "1.0");
}

class NotAManager : public Zun::System::Rsc::IRscService
{
};

class WrongTypeProvider : public Zun::System::Rsc::IServiceProvider
{
public:
    Zun::System::Rsc::IRscService* GetService(Zun::System::Rsc::IRscServiceProxyFactory&) override { return new NotAManager(); }
};

TEST_F(SoftwareUpdaterModuleLifecycleTest, ServiceOfAnotherTypeThrowsInvalidCast)
{
    Zun::System::Rsc::ServiceManager::RegisterProvider(String("Zun"), std::make_shared<WrongTypeProvider>());
    SoftwareUpdaterModule module;

    try
    {
        module.Subscribe();
        FAIL() << "no exception";
    }
    catch (const Zun::System::Commons::InvalidCastException& e)
    {
        EXPECT_EQ(e.GetMessage(),
                  "The service does not implement service interface 'Zun.Services.SoftwareManager.Services.Internal.ISoftwareManagerService'.");
    }
}

TEST_F(SoftwareUpdaterModuleLifecycleTest, DisabledModuleNeverStartsItsThread)
{
    SoftwareUpdaterModule module;
    module.Disable();

    module.StartStatusThread();

    EXPECT_FALSE(module.IsEnabled());
    EXPECT_EQ(module.GetStatusThreadState(), -1);
    EXPECT_FALSE(module.IsRunning());
}

TEST_F(SoftwareUpdaterModuleLifecycleTest, SecondStartWhileRunningStartsNoSecondThread)
{
    Zun::Testing::Watchdog watchdog;
    Zun::Testing::ManualSleep sleep;
    env.managerFake->AddComponent(Kind::GenericFiles, "a", FakeSoftwareManagerService::MakeManifest("1.0"));
    env.managerFake->SetState(Kind::GenericFiles, "a", ManagerState::Copying, "Copying");
    SoftwareUpdaterModule module;
    module.Initialize(String("SoftwareUpdater"), env.status); // the first pass starts the thread
    ASSERT_TRUE(sleep.WaitForSleeps(1));

    module.StartStatusThread();
    module.StartStatusThread();

    EXPECT_EQ(module.GetStatusThreadState(), 2);
    EXPECT_EQ(capture.Count("Start of UpdateStatus Thread"), 1u);
    EXPECT_EQ(capture.Count("Wait until UpdateStatus thread stopped"), 0u);
    sleep.SetAutomatic(true); // lets the thread see the disabled module and end
}

TEST_F(SoftwareUpdaterModuleLifecycleTest, LoadSettingsChangesNothing)
{
    SoftwareUpdaterModule module;
    capture.Clear();

    module.LoadSettings(String("anything at all"));

    EXPECT_TRUE(capture.Lines().empty());
    EXPECT_TRUE(module.IsEnabled());
    EXPECT_TRUE(env.statusFake->Journal().empty());
    EXPECT_TRUE(env.managerFake->Journal().empty());
}
} // namespace
