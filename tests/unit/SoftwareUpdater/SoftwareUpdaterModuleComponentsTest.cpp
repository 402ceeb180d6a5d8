#include "UpdaterModuleFixture.hpp"

namespace Zun::Testing::UpdaterModule
{
namespace
{

using ::testing::IsEmpty;

// Initialised over empty services; the test then fills them and runs the step it examines.
class ComponentsTest : public UpdaterModuleTest
{
public:
    void SetUp() override { Start(); }

    void AddRaw(int kind, const char* name)
    {
        Sm::SoftwareInformation record;
        record.Kind = static_cast<Kind>(kind);
        record.Name = name;
        env.managerFake->AddRawRecord(record);
    }

    template <class Action>
    static void ExpectInvalidKind(Action action)
    {
        ExpectThrow<Exception>(action, "Invalid value for Enum 'Zun::Enum<Zun::Services::SoftwareManager::Services::Internal::SoftwareKind>' occurs: 7");
    }
};

TEST_F(ComponentsTest, IdsFollowTheManagerOrderAndSkipRecordsWithoutKindOrName)
{
    env.managerFake->AddComponent(Kind::TesmoraEngineerProject, "proj");
    AddRaw(0, "x");
    AddRaw(1, "");
    AddRaw(1, "app");
    AddRaw(1, "app");
    AddRaw(1, "a / b");

    std::vector<String> texts;
    for (const auto& id : module->GetManagerComponentIds())
    {
        texts.push_back(fmt::format("{}={}:{}", id.componentId, static_cast<int>(id.kind), id.name));
    }

    EXPECT_EQ(Joined(texts), "Tesmora Engineer project / proj=2:proj; %=1:app; %=1:app; Generic files / a / b=1:a / b");
    EXPECT_EQ(Log(), "3 Failed to create ID for kind None and name x; 3 Failed to create ID for kind Generic files and name ");
}

TEST_F(ComponentsTest, SyncRegistersEveryListedIdThenRemovesWhatTheManagerNoLongerListsByteForByte)
{
    // An empty manager list removes every stored component.
    env.statusFake->Seed("Generic files / a", HostState::Installing);
    env.statusFake->Seed("Tesmora Engineer project / b", HostState::Error);
    module->SyncComponents();
    EXPECT_EQ(Journal(), "GetComponentNames(); RemoveComponent(Generic files / a); RemoveComponent(Tesmora Engineer project / b)");
    Clear();

    env.managerFake->AddComponent(Kind::GenericFiles, "app");
    AddRaw(0, "x");
    AddRaw(2, "proj");
    AddRaw(2, "proj");
    for (const char* name : {"Generic files / gone", "None / x", "Generic files / app", "Generic files / app ", "generic files / app",
                             "Generic files / ap", "Tesmora Engineer project / proj"})
    {
        env.statusFake->Seed(name, HostState::Idle);
    }
    env.statusFake->SeedProperty(App, StartedKey, "true");

    module->SyncComponents();

    // A record that is no id leaves its stored component unlisted.
    EXPECT_EQ(Journal(), "AddComponent(%); AddComponent(Tesmora Engineer project / proj); AddComponent(Tesmora Engineer project / proj); "
                         "GetComponentNames(); RemoveComponent(Generic files / gone); RemoveComponent(None / x); RemoveComponent(% ); "
                         "RemoveComponent(generic files / app); RemoveComponent(Generic files / ap)");
    EXPECT_EQ(Joined(env.statusFake->GetComponentNames()), "%; Tesmora Engineer project / proj");
    EXPECT_EQ(env.statusFake->PropertyOf(App, StartedKey), String("true"));
    EXPECT_EQ(Log(), "3 Failed to create ID for kind None and name x");
    // Component synchronisation leaves the work list alone.
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

TEST_F(ComponentsTest, KindWithoutTextThrowsBeforeAnythingIsAddedOrRemoved)
{
    env.statusFake->Seed("Generic files / gone", HostState::Idle);
    env.managerFake->AddComponent(Kind::GenericFiles, "app");
    AddRaw(7, "odd");
    ExpectInvalidKind([this] { module->SyncComponents(); });
    EXPECT_EQ(Journal(), "");
    EXPECT_EQ(Joined(env.statusFake->GetComponentNames()), "Generic files / gone");
}

TEST_F(ComponentsTest, KindWithoutTextAndEmptyNameThrowsWhileTheFailureIsLogged)
{
    AddRaw(7, "");
    ExpectInvalidKind([this] { module->GetManagerComponentIds(); });
}

TEST_F(ComponentsTest, InstalledByModuleOnlyForExactlyTrueAndOnlyWhenTheStoreHasIt)
{
    env.statusFake->Seed(App, HostState::Error);
    EXPECT_FALSE(module->IsInstalledByModule(App));
    for (const auto& [value, own] : {std::pair("true", true), std::pair("True", false), std::pair("TRUE", false), std::pair("truex", false),
                                     std::pair("true ", false), std::pair(" true", false), std::pair("", false), std::pair("1", false)})
    {
        env.statusFake->SeedProperty(App, StartedKey, value);
        EXPECT_EQ(module->IsInstalledByModule(App), own) << value;
    }
    EXPECT_EQ(env.statusFake->Journal().back(), "GetProperty(" + App + ", InstallationStartedByModule)");

    // A value that comes with "missing" does not count.
    EXPECT_CALL(*env.status, GetProperty(App, StartedKey, _)).WillOnce([](const String&, const String&, String& value) {
        EXPECT_EQ(value, "") << "the module passes an empty value";
        value = "true";
        return false;
    });
    EXPECT_FALSE(module->IsInstalledByModule(App));
}

} // namespace
} // namespace Zun::Testing::UpdaterModule
