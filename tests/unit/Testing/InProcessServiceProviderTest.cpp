#include <gtest/gtest.h>

#include <memory>

#include "Zun/Rsc/ServiceManager.hpp"
#include "Zun/SoftwareManager/SoftwareManagerServiceProxyFactory.hpp"
#include "Zun/SoftwareUpdate/StatusCode.hpp"
#include "Zun/Testing/FakeSoftwareManagerService.hpp"
#include "Zun/Testing/InProcessServiceProvider.hpp"

namespace Zun::Testing
{
namespace
{

namespace Sm = Services::SoftwareManager::Services::Internal;
using System::Rsc::ServiceManager;

TEST(InProcessServiceProviderTest, EachLookupOwnsANewObjectThatReachesTheSharedService)
{
    auto fake = std::make_shared<FakeSoftwareManagerService>();
    fake->AddComponent(Sm::SoftwareKind::GenericFiles, "a");
    auto& factory = Sm::SoftwareManagerServiceProxyFactory::GetInstance();
    {
        InProcessServiceProvider::Registration registration("ZunTestProvider", fake);
        std::unique_ptr<System::Rsc::IRscService> first(ServiceManager::GetService("ZunTestProvider", factory));
        std::unique_ptr<System::Rsc::IRscService> second(ServiceManager::GetService("ZunTestProvider", factory));
        ASSERT_NE(first, nullptr);
        EXPECT_NE(first.get(), second.get());
        auto* service = dynamic_cast<Sm::ISoftwareManagerService*>(first.get());
        ASSERT_NE(service, nullptr);
        EXPECT_NE(service, fake.get());
        EXPECT_EQ(service->StartInstallation(Sm::SoftwareKind::GenericFiles, Sm::ISoftwareManagerService::Name("a")),
                  Services::SoftwareUpdate::StatusCodes::BadInvalidState);
        EXPECT_EQ(fake->Journal(), std::vector<String>{"StartInstallation(1, a)"});
    }
    EXPECT_EQ(ServiceManager::GetService("ZunTestProvider", factory), nullptr);
}

} // namespace
} // namespace Zun::Testing
