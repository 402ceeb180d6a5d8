#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ComponentsTest = UpdaterModuleTest;

// A stored name stays only when an identifier of the manager's list equals it whole.
TEST_F(ComponentsTest, SyncRegistersEveryListedIdThenRemovesWhatTheManagerNoLongerLists)
{
    Start();
    env.manager->AddComponent(Kind::GenericFiles, "app");
    Sm::SoftwareInformation noKind;
    noKind.Kind = Kind::None;
    noKind.Name = "x";
    env.manager->AddRawRecord(noKind);
    for (const char* name : {"Generic files / ap", "None / x", "Generic files / app"})
    {
        env.status->Seed(name, HostState::Idle);
    }

    module->SyncComponents();

    EXPECT_EQ(Journal(), "AddComponent(%); GetComponentNames(); RemoveComponent(Generic files / ap); RemoveComponent(None / x)");
    EXPECT_EQ(Log(), "3 Failed to create ID for kind None and name x");
}

TEST_F(ComponentsTest, InstalledByModuleOnlyForExactlyTrue)
{
    Start();
    env.status->Seed(App, HostState::Error);
    EXPECT_FALSE(module->IsInstalledByModule(App));
    for (const auto& [value, own] : {std::pair("true", true), std::pair("truex", false), std::pair("True", false)})
    {
        env.status->SeedProperty(App, StartedKey, value);
        EXPECT_EQ(module->IsInstalledByModule(App), own) << value;
    }
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
