// Everything an updater module needs around it in a test process: an AppDomain with a notification
// manager, an in-memory software manager provided in-process under "Zun", and an in-memory status
// store of the update service. Torn down in reverse order.
#pragma once

#include <memory>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Nm/NotificationManager.hpp"
#include "Zun/Testing/FakeSoftwareManagerService.hpp"
#include "Zun/Testing/FakeUpdaterStatus.hpp"

namespace Zun::Testing
{

class ModuleEnvironment
{
public:
    ModuleEnvironment();
    ~ModuleEnvironment();
    ModuleEnvironment(const ModuleEnvironment&) = delete;
    ModuleEnvironment& operator=(const ModuleEnvironment&) = delete;

    std::shared_ptr<FakeSoftwareManagerService> manager = std::make_shared<FakeSoftwareManagerService>();
    std::shared_ptr<FakeUpdaterStatus> status = std::make_shared<FakeUpdaterStatus>();
    System::Nm::NotificationManager notifications;

private:
    AppDomain appDomain;
    AppDomain* previousDomain;
};

} // namespace Zun::Testing
