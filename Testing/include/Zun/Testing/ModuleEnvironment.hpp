// Everything an updater module needs around it in a test process: an AppDomain with a notification
// manager, a software manager provided in-process under "Zun" (a gmock delegating to a fake), and
// the update service's status store (a gmock delegating to a fake). Torn down in reverse order.
#pragma once

#include <memory>

#include <gmock/gmock.h>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Testing/FakeSoftwareManagerService.hpp"
#include "Zun/Testing/FakeUpdaterStatus.hpp"
#include "Zun/Testing/InProcessServiceProvider.hpp"
#include "Zun/Testing/ServiceMocks.hpp"

namespace Zun::Testing
{

class ModuleEnvironment
{
public:
    ModuleEnvironment();
    ~ModuleEnvironment();
    ModuleEnvironment(const ModuleEnvironment&) = delete;
    ModuleEnvironment& operator=(const ModuleEnvironment&) = delete;

    // The fakes hold the state; the mocks (NiceMock, delegating to them) let a test expect calls.
    std::shared_ptr<FakeSoftwareManagerService> managerFake = std::make_shared<FakeSoftwareManagerService>();
    std::shared_ptr<FakeUpdaterStatus> statusFake = std::make_shared<FakeUpdaterStatus>();
    std::shared_ptr<testing::NiceMock<MockSoftwareManagerService>> manager = std::make_shared<testing::NiceMock<MockSoftwareManagerService>>();
    std::shared_ptr<testing::NiceMock<MockUpdaterStatus>> status = std::make_shared<testing::NiceMock<MockUpdaterStatus>>();
    System::Nm::NotificationManager notifications;

private:
    AppDomain appDomain;
    AppDomain* previousDomain;
    std::unique_ptr<InProcessServiceProvider::Registration> provider;
};

} // namespace Zun::Testing
