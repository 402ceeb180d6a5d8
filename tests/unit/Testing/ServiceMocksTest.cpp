#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Zun/SoftwareUpdate/StatusCode.hpp"
#include "Zun/Testing/ServiceMocks.hpp"

namespace Zun::Testing
{
namespace
{

using ::testing::NiceMock;
using ::testing::Return;

TEST(ServiceMocksTest, DelegatedCallsReachTheFakesUnlessExpectedOtherwise)
{
    FakeUpdaterStatus store;
    store.Seed("Generic files / a", FakeUpdaterStatus::InstallationState::Idle);
    NiceMock<MockUpdaterStatus> status;
    status.DelegateTo(store);
    EXPECT_CALL(status, ResetError(String("Generic files / a"))).WillOnce(Return(true));

    EXPECT_TRUE(status.SwitchToInstalling("Generic files / a", false));
    EXPECT_TRUE(status.ResetError("Generic files / a"));
    EXPECT_EQ(store.StateOf("Generic files / a"), FakeUpdaterStatus::InstallationState::Installing);

    FakeSoftwareManagerService fake;
    NiceMock<MockSoftwareManagerService> manager;
    manager.DelegateTo(fake);
    EXPECT_EQ(manager.StartInstallation(MockSoftwareManagerService::SoftwareKind::GenericFiles, MockSoftwareManagerService::Name("a")),
              Services::SoftwareUpdate::StatusCodes::BadNotFound);
    EXPECT_EQ(fake.Journal(), std::vector<String>{"StartInstallation(1, a)"});
}

} // namespace
} // namespace Zun::Testing
