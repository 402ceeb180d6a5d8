// Loads the built plug-in file the way the update service does.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include "SoftwareUpdater/EntryPoint.hpp"
#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"

namespace
{
using Zun::AppDomain;
using Zun::Singleton;
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;
using EntryFunction = decltype(&CreateSoftwareUpdateModuleLibrary);

class PluginLoadTest : public testing::Test
{
protected:
    void SetUp() override
    {
        handle = dlopen(ZUN_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
        ASSERT_NE(handle, nullptr) << dlerror();
        entry = reinterpret_cast<EntryFunction>(dlsym(handle, "CreateSoftwareUpdateModuleLibrary"));
        ASSERT_NE(entry, nullptr) << dlerror();
    }
    // The library object lives until the process exits, as on the device: the handle stays open.

    Zun::Testing::ModuleEnvironment env;
    void* handle = nullptr;
    EntryFunction entry = nullptr;
};

TEST_F(PluginLoadTest, EntryReturnsOneLibraryWhateverTheDomain)
{
    AppDomain other;
    auto* first = entry(*Singleton<AppDomain>::pInstance);
    auto* second = entry(other);

    ASSERT_NE(first, nullptr);
    EXPECT_EQ(first, second);
    EXPECT_NE(Zun::System::Commons::Diagnostics::Logging::LogManager::GetAssignedAppDomain(), &other);
    const auto& entries = first->GetFactory().GetEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].first, "SoftwareUpdater");
    EXPECT_EQ(entries[1].first, "SoftwareUpdaterConfirmDisabled");
}

TEST_F(PluginLoadTest, ModulesUnderBothNamesShareTheProcessWideSingletons)
{
    auto& factory = entry(*Singleton<AppDomain>::pInstance)->GetFactory();

    auto module = factory.CreateModule(String("SoftwareUpdater"));
    // The plug-in's singleton is the one this executable sees: one slot per type per process.
    SecurityNotifications* created = Singleton<SecurityNotifications>::pInstance;
    ASSERT_NE(created, nullptr);
    auto confirmDisabled = factory.CreateModule(String("SoftwareUpdaterConfirmDisabled"));
    EXPECT_EQ(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), created);
    EXPECT_EQ(env.notifications.GetRegistrations().size(), 2u);

    module.reset();
    EXPECT_EQ(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), nullptr);
    confirmDisabled.reset();
    EXPECT_TRUE(env.notifications.GetRegistrations().empty());
}
} // namespace
