// Loads the built plug-in file the way the update service does.
#include <dlfcn.h>

#include <gtest/gtest.h>

#include "SoftwareUpdater/EntryPoint.hpp"
#include "SoftwareUpdater/Internal/Security/SecurityNotifications.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"

namespace
{
using Zun::AppDomain;
using Zun::Singleton;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::Security::SecurityNotifications;

// The library object lives until the process exits, as on the device: the handle stays open.
TEST(PluginLoadTest, OneLibraryWhoseModulesShareTheProcessWideSingletons)
{
    Zun::Testing::ModuleEnvironment env;
    void* handle = dlopen(ZUN_PLUGIN_PATH, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(handle, nullptr) << dlerror();
    auto entry = reinterpret_cast<decltype(&CreateSoftwareUpdateModuleLibrary)>(dlsym(handle, "CreateSoftwareUpdateModuleLibrary"));
    ASSERT_NE(entry, nullptr) << dlerror();
    AppDomain other;
    auto* library = entry(*Singleton<AppDomain>::pInstance);
    ASSERT_EQ(entry(other), library);
    auto& factory = library->GetFactory();

    auto module = factory.CreateModule("SoftwareUpdater");
    // The plug-in's singleton is the one this executable sees: one slot per type per process.
    SecurityNotifications* created = Singleton<SecurityNotifications>::pInstance;
    ASSERT_NE(created, nullptr);
    auto confirmDisabled = factory.CreateModule("SoftwareUpdaterConfirmDisabled");
    EXPECT_EQ(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), created);
    EXPECT_EQ(env.notifications.GetRegistrations().size(), 2u);
    module.reset();
    EXPECT_EQ(static_cast<SecurityNotifications*>(Singleton<SecurityNotifications>::pInstance), nullptr);
    confirmDisabled.reset();
    EXPECT_TRUE(env.notifications.GetRegistrations().empty());
}
} // namespace
