#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "UpdaterModuleFixture.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Rsc/ServiceManager.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::AnyNumber;
using Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;

using LifecycleTest = UpdaterModuleTest;

SecurityNotifications* Shared()
{
    return Singleton<SecurityNotifications>::pInstance;
}

TEST_F(LifecycleTest, ConstructionCreatesTheNotificationsOnceAndTheFirstDestructionRemovesThem)
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

    auto third = std::make_unique<Module>();
    EXPECT_NE(Shared(), nullptr);
    EXPECT_EQ(env.notifications.GetRegistrations().size(), 2u);
    second.reset();
    third.reset();
    EXPECT_EQ(logs.Count("Create (SoftwareUpdaterModule)") + logs.Count("Dispose (~SoftwareUpdaterModule)"), 6u);
}

TEST_F(LifecycleTest, InitializeWithoutCallbackThrowsBeforeAnythingElse)
{
    Module module;
    EXPECT_CALL(*env.manager, GetAllSoftwareInformation()).Times(0);
    ExpectThrow<Exception>([&] { module.Initialize("SoftwareUpdater", nullptr); }, "updaterStatus is null.");
    EXPECT_TRUE(logs.Contains(7, "Initialize: SoftwareUpdater"));
}

TEST_F(LifecycleTest, InitializeSubscribesThenSynchronisesComponentsThenStates)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "a", Manifest("1.0"));
    env.statusFake->Seed("Generic files / gone", HostState::Idle);
    Module module;
    // The state pass registers and re-reads again; only the order of the first calls matters here.
    EXPECT_CALL(*env.status, AddComponent(_)).Times(AnyNumber());
    EXPECT_CALL(*env.status, GetStatus(_, _)).Times(AnyNumber());
    {
        ::testing::InSequence order;
        EXPECT_CALL(*env.manager, GetAllSoftwareInformation());
        EXPECT_CALL(*env.status, AddComponent(String("Generic files / a")));
        EXPECT_CALL(*env.status, GetComponentNames());
        EXPECT_CALL(*env.status, RemoveComponent(String("Generic files / gone")));
        EXPECT_CALL(*env.status, GetComponentNames());
        EXPECT_CALL(*env.status, GetStatus(String("Generic files / a"), _)).RetiresOnSaturation();
    }

    module.Initialize("SoftwareUpdater", env.status);

    EXPECT_TRUE(module.IsStateInitialized());
    EXPECT_EQ(module.GetStatusThreadState(), -1) << "Initialize itself starts no thread";
}

class WrongTypeProvider : public System::Rsc::IServiceProvider
{
public:
    System::Rsc::IRscService* GetService(System::Rsc::IRscServiceProxyFactory&) override { return new System::Rsc::IRscService(); }
};

TEST_F(LifecycleTest, ServiceOfAnotherTypeThrowsInvalidCast)
{
    System::Rsc::ServiceManager::RegisterProvider("Zun", std::make_shared<WrongTypeProvider>());
    Module module;
    ExpectThrow<System::Commons::InvalidCastException>(
        [&] { module.Subscribe(); },
        "The service does not implement service interface 'Zun.Services.SoftwareManager.Services.Internal.ISoftwareManagerService'.");
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
