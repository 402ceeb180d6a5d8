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
using Zun::String;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::ModuleLibrary;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::SoftwareUpdaterModule;
using Zun::System::Commons::Diagnostics::Logging::LogManager;

TEST(ModuleLibraryTest, RegistersBothNamesInOrderForTheSameFunction)
{
    AppDomain domain;
    ModuleLibrary library(domain);

    const auto& entries = library.GetFactory().GetEntries();
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(entries[0].first, "SoftwareUpdater");
    EXPECT_EQ(entries[1].first, "SoftwareUpdaterConfirmDisabled");
    for (const auto& entry : entries)
    {
        const auto* target = entry.second.target<std::unique_ptr<Zun::Services::SoftwareUpdate::IUpdaterModule> (*)()>();
        ASSERT_NE(target, nullptr);
        EXPECT_EQ(*target, &ModuleLibrary::CreateModule);
    }
}

TEST(ModuleLibraryTest, KeepsAnAppDomainTheHostAlreadySetButAlwaysTellsTheLogManager)
{
    Zun::Testing::ModuleEnvironment environment; // installs its own domain as the process's
    AppDomain* hostDomain = Singleton<AppDomain>::pInstance;
    AppDomain other;

    ModuleLibrary library(other);

    EXPECT_EQ(static_cast<AppDomain*>(Singleton<AppDomain>::pInstance), hostDomain);
    EXPECT_EQ(LogManager::GetAssignedAppDomain(), &other);
}

TEST(ModuleLibraryTest, StoresTheDomainWhenNoneIsSet)
{
    AppDomain* previous = Singleton<AppDomain>::pInstance;
    Singleton<AppDomain>::pInstance = nullptr;
    AppDomain domain;

    ModuleLibrary library(domain);

    EXPECT_EQ(static_cast<AppDomain*>(Singleton<AppDomain>::pInstance), &domain);
    Singleton<AppDomain>::pInstance = previous;
}

TEST(ModuleLibraryTest, EachNameCreatesANewDistinctModule)
{
    Zun::Testing::ModuleEnvironment environment;
    ModuleLibrary library(*Singleton<AppDomain>::pInstance);
    const auto& factory = library.GetFactory();

    auto first = factory.CreateModule(String("SoftwareUpdater"));
    auto second = factory.CreateModule(String("SoftwareUpdater"));
    auto confirmDisabled = factory.CreateModule(String("SoftwareUpdaterConfirmDisabled"));

    ASSERT_NE(first, nullptr);
    EXPECT_NE(first.get(), second.get());
    EXPECT_NE(dynamic_cast<SoftwareUpdaterModule*>(confirmDisabled.get()), nullptr);
}

TEST(ModuleLibraryTest, RefusesToRegisterANameTwiceButNamesAreCaseSensitive)
{
    AppDomain domain;
    ModuleLibrary library(domain);
    auto& factory = library.GetFactory();

    EXPECT_THROW(factory.AddFactoryFunction(String("SoftwareUpdater"), &ModuleLibrary::CreateModule),
                 Zun::System::Commons::ArgumentException);
    factory.AddFactoryFunction(String("softwareupdater"), &ModuleLibrary::CreateModule);

    EXPECT_EQ(factory.GetEntries().size(), 3u);
}
} // namespace
