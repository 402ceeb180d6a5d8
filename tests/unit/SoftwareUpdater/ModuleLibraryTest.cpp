#include "SoftwareUpdater/ModuleLibrary.hpp"

#include <gmock/gmock.h>

#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Singleton.hpp"
#include "Zun/Testing/ModuleEnvironment.hpp"

namespace
{
using Zun::AppDomain;
using Zun::Singleton;
using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::ModuleLibrary;

TEST(ModuleLibraryTest, RegistersBothNamesOnceKeepsTheHostsDomainAndTellsTheLogManagerItsOwn)
{
    Zun::Testing::ModuleEnvironment environment; // installs its own domain as the host's
    AppDomain* hostDomain = Singleton<AppDomain>::pInstance;
    AppDomain own;
    ModuleLibrary library(own);

    EXPECT_EQ(static_cast<AppDomain*>(Singleton<AppDomain>::pInstance), hostDomain);
    EXPECT_EQ(Zun::System::Commons::Diagnostics::Logging::LogManager::GetAssignedAppDomain(), &own);
    auto& factory = library.GetFactory();
    ASSERT_EQ(factory.GetEntries().size(), 2u);
    EXPECT_EQ(factory.GetEntries()[0].first, "SoftwareUpdater");
    EXPECT_EQ(factory.GetEntries()[1].first, "SoftwareUpdaterConfirmDisabled");
    EXPECT_THAT([&] { factory.AddFactoryFunction("SoftwareUpdater", &ModuleLibrary::CreateModule); },
                testing::ThrowsMessage<Zun::System::Commons::ArgumentException>(
                    "Duplicate module name (argument 'moduleName', value 'SoftwareUpdater')"));
}
} // namespace
