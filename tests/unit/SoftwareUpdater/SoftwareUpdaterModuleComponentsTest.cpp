#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Testing/LogCapture.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"

namespace
{
using testing::_;
using testing::ElementsAre;
using testing::IsEmpty;
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule;
using Zun::Testing::CapturedLine;
using Kind = Zun::Services::SoftwareManager::Services::Internal::SoftwareKind;
using Information = Zun::Services::SoftwareManager::Services::Internal::SoftwareInformation;
using HostState = Zun::Services::SoftwareUpdate::Services::Internal::InstallationState;

const char* const ModuleLogger = "Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule";
const char* const InvalidKindMessage =
    "Invalid value for Enum 'Zun::Enum<Zun::Services::SoftwareManager::Services::Internal::SoftwareKind>' occurs: 7";
const String StartedKey = "InstallationStartedByModule";

Information Raw(int kind, const char* name)
{
    Information record;
    record.Kind = static_cast<Kind>(kind);
    record.Name = name;
    return record;
}

std::vector<std::string> Plain(const std::vector<String>& lines)
{
    return std::vector<std::string>(lines.begin(), lines.end());
}

class ComponentsTest : public testing::Test
{
protected:
    // Initialised over empty services; the test then fills them and runs the step it examines.
    void SetUp() override
    {
        module = std::make_unique<SoftwareUpdaterModule>();
        module->Initialize("SoftwareUpdater", env.status);
        module->Disable();
        env.statusFake->ClearJournal();
        logs.Clear();
    }

    std::vector<std::string> ModuleMessages(int level) const
    {
        std::vector<std::string> messages;
        for (const CapturedLine& line : logs.Lines())
        {
            if (line.logger == ModuleLogger && line.level == level)
            {
                messages.push_back(line.message);
            }
        }
        return messages;
    }

    void ExpectInvalidKind(const std::function<void()>& action)
    {
        try
        {
            action();
            ADD_FAILURE() << "no exception";
        }
        catch (const Zun::Exception& e)
        {
            EXPECT_STREQ(e.what(), InvalidKindMessage);
        }
    }

    Zun::Testing::LogCapture logs{7};
    Zun::Testing::ModuleEnvironment env;
    std::unique_ptr<SoftwareUpdaterModule> module;
};

TEST_F(ComponentsTest, IdsFollowTheManagerOrderAndSkipRecordsWithoutKindOrName)
{
    env.managerFake->AddComponent(Kind::TesmoraEngineerProject, "proj");
    env.managerFake->AddRawRecord(Raw(0, "x"));
    env.managerFake->AddRawRecord(Raw(1, ""));
    env.managerFake->AddRawRecord(Raw(1, "app"));
    env.managerFake->AddRawRecord(Raw(1, "app"));
    env.managerFake->AddRawRecord(Raw(1, "a / b"));

    const auto ids = module->GetManagerComponentIds();

    std::vector<std::string> texts;
    for (const auto& id : ids)
    {
        texts.push_back(id.componentId);
    }
    EXPECT_THAT(texts, ElementsAre("Tesmora Engineer project / proj", "Generic files / app", "Generic files / app",
                                   "Generic files / a / b"));
    ASSERT_EQ(ids.size(), 4u);
    EXPECT_EQ(ids[0].kind, Kind::TesmoraEngineerProject);
    EXPECT_EQ(ids[0].name, "proj");
    EXPECT_EQ(ids[3].kind, Kind::GenericFiles);
    EXPECT_EQ(ids[3].name, "a / b");
    EXPECT_THAT(ModuleMessages(3),
                ElementsAre("Failed to create ID for kind None and name x", "Failed to create ID for kind Generic files and name "));
}

TEST_F(ComponentsTest, SyncRegistersEveryListedIdThenRemovesWhatTheManagerNoLongerLists)
{
    env.managerFake->AddComponent(Kind::GenericFiles, "app");
    env.managerFake->AddRawRecord(Raw(0, "x"));
    env.managerFake->AddRawRecord(Raw(2, "proj"));
    env.managerFake->AddRawRecord(Raw(2, "proj"));
    for (const char* name : {"Generic files / gone", "None / x", "Generic files / app", "Generic files / app ", "generic files / app",
                             "Generic files / ap", "Tesmora Engineer project / proj"})
    {
        env.statusFake->Seed(name, HostState::Idle);
    }
    env.statusFake->SeedProperty("Generic files / app", StartedKey, "true");

    module->SyncComponents();

    // A record that is no id leaves its stored component unlisted; names compare byte for byte.
    EXPECT_THAT(Plain(env.statusFake->Journal()),
                ElementsAre("AddComponent(Generic files / app)", "AddComponent(Tesmora Engineer project / proj)",
                            "AddComponent(Tesmora Engineer project / proj)", "GetComponentNames()",
                            "RemoveComponent(Generic files / gone)", "RemoveComponent(None / x)", "RemoveComponent(Generic files / app )",
                            "RemoveComponent(generic files / app)", "RemoveComponent(Generic files / ap)"));
    EXPECT_THAT(Plain(env.statusFake->GetComponentNames()), ElementsAre("Generic files / app", "Tesmora Engineer project / proj"));
    EXPECT_EQ(env.statusFake->PropertyOf("Generic files / app", StartedKey), String("true"));
    EXPECT_THAT(ModuleMessages(3), ElementsAre("Failed to create ID for kind None and name x"));
    // Component synchronisation leaves the work list alone.
    EXPECT_THAT(module->GetSyncList(), IsEmpty());
}

TEST_F(ComponentsTest, EmptyManagerListRemovesEveryStoredComponent)
{
    env.statusFake->Seed("Generic files / a", HostState::Installing);
    env.statusFake->Seed("Tesmora Engineer project / b", HostState::Error);

    module->SyncComponents();

    EXPECT_THAT(Plain(env.statusFake->Journal()),
                ElementsAre("GetComponentNames()", "RemoveComponent(Generic files / a)", "RemoveComponent(Tesmora Engineer project / b)"));
    EXPECT_THAT(env.statusFake->GetComponentNames(), IsEmpty());
}

TEST_F(ComponentsTest, KindWithoutTextThrowsBeforeAnythingIsAddedOrRemoved)
{
    env.statusFake->Seed("Generic files / gone", HostState::Idle);
    env.managerFake->AddComponent(Kind::GenericFiles, "app");
    env.managerFake->AddRawRecord(Raw(7, "odd"));
    ExpectInvalidKind([this] { module->SyncComponents(); });
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
    EXPECT_TRUE(env.statusFake->Has("Generic files / gone"));
    EXPECT_FALSE(env.statusFake->Has("Generic files / app"));
}

TEST_F(ComponentsTest, KindWithoutTextAndEmptyNameThrowsWhileTheFailureIsLogged)
{
    env.managerFake->AddRawRecord(Raw(7, ""));
    ExpectInvalidKind([this] { module->GetManagerComponentIds(); });
    ExpectInvalidKind([this] { module->SyncComponents(); });
    EXPECT_THAT(env.statusFake->Journal(), IsEmpty());
}

// IsInstalledByModule: only the exact text "true" marks the module's own installation.
struct Mark
{
    const char* value; // null: no property
    bool installedByModule;
};

class InstalledByModuleTest : public ComponentsTest, public testing::WithParamInterface<Mark>
{
};

TEST_P(InstalledByModuleTest, IsTrueOnlyForExactlyTrue)
{
    const String name = "Generic files / app";
    env.statusFake->Seed(name, HostState::Error);
    if (GetParam().value != nullptr)
    {
        env.statusFake->SeedProperty(name, StartedKey, GetParam().value);
    }
    env.statusFake->ClearJournal();

    EXPECT_EQ(module->IsInstalledByModule(name), GetParam().installedByModule);
    EXPECT_THAT(Plain(env.statusFake->Journal()), ElementsAre("GetProperty(Generic files / app, InstallationStartedByModule)"));
}

INSTANTIATE_TEST_SUITE_P(Values, InstalledByModuleTest,
                         testing::Values(Mark{"true", true}, Mark{nullptr, false}, Mark{"True", false}, Mark{"TRUE", false},
                                         Mark{"truex", false}, Mark{"true ", false}, Mark{" true", false}, Mark{"tru", false},
                                         Mark{"", false}, Mark{"1", false}, Mark{"false", false}));

TEST_F(ComponentsTest, InstalledByModuleIgnoresAValueOfAMissingProperty)
{
    EXPECT_CALL(*env.status, GetProperty(String("Generic files / app"), StartedKey, _))
        .WillOnce([](const String&, const String&, String& value) {
            EXPECT_EQ(value, "") << "the module passes an empty value";
            value = "true";
            return false;
        });
    EXPECT_FALSE(module->IsInstalledByModule("Generic files / app"));
}

} // namespace
