#include "SoftwareUpdater/ModuleLibrary.hpp"

#include <gtest/gtest.h>

#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"

namespace
{
using Zun::AppDomain;
using Zun::Singleton;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::ModuleLibrary;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule;

TEST(ModuleLibraryTest, RegistersBothNamesInOrderEachCreatingANewModule)
{
    Zun::Testing::ModuleEnvironment environment;
    ModuleLibrary library(*Singleton<AppDomain>::pInstance);
    auto& factory = library.GetFactory();

    ASSERT_EQ(factory.GetEntries().size(), 2u);
    EXPECT_EQ(factory.GetEntries()[0].first, "SoftwareUpdater");
    EXPECT_EQ(factory.GetEntries()[1].first, "SoftwareUpdaterConfirmDisabled");
    auto first = factory.CreateModule("SoftwareUpdater");
    auto second = factory.CreateModule("SoftwareUpdater");
    auto confirmDisabled = factory.CreateModule("SoftwareUpdaterConfirmDisabled");
    ASSERT_NE(dynamic_cast<SoftwareUpdaterModule*>(first.get()), nullptr);
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(dynamic_cast<SoftwareUpdaterModule*>(confirmDisabled.get()), nullptr);

    // A name is registered once; names are case-sensitive.
    EXPECT_THROW(factory.AddFactoryFunction("SoftwareUpdater", &ModuleLibrary::CreateModule), Zun::System::Commons::ArgumentException);
    factory.AddFactoryFunction("softwareupdater", &ModuleLibrary::CreateModule);
    EXPECT_EQ(factory.GetEntries().size(), 3u);
}

TEST(ModuleLibraryTest, KeepsAnAppDomainTheHostAlreadySetButAlwaysTellsTheLogManager)
{
    Zun::Testing::ModuleEnvironment environment; // installs its own domain as the process's
    AppDomain* hostDomain = Singleton<AppDomain>::pInstance;
    AppDomain other;
    ModuleLibrary library(other);
    EXPECT_EQ(static_cast<AppDomain*>(Singleton<AppDomain>::pInstance), hostDomain);
    EXPECT_EQ(Zun::System::Commons::Diagnostics::Logging::LogManager::GetAssignedAppDomain(), &other);

    // Stored when none is set.
    Singleton<AppDomain>::pInstance = nullptr;
    ModuleLibrary stored(other);
    EXPECT_EQ(static_cast<AppDomain*>(Singleton<AppDomain>::pInstance), &other);
    Singleton<AppDomain>::pInstance = hostDomain;
}
} // namespace
