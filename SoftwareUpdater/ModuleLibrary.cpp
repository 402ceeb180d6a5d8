#include "SoftwareUpdater/ModuleLibrary.hpp"

#include "SoftwareUpdater/SoftwareUpdaterModule.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/Singleton.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

namespace
{
const char* const ConfirmDisabledSuffix = "ConfirmDisabled";
}

ModuleLibrary::ModuleLibrary(AppDomain& appDomain)
{
    if (Singleton<AppDomain>::pInstance == nullptr)
    {
        Singleton<AppDomain>::pInstance = &appDomain;
    }
    System::Commons::Diagnostics::Logging::LogManager::AssignAppDomain(appDomain);

    factory.AddFactoryFunction(SoftwareUpdaterModule::ModuleName, &ModuleLibrary::CreateModule);
    // Both names create the same module on purpose; nothing tells them apart afterwards.
    const String confirmDisabledName = SoftwareUpdaterModule::ModuleName + ConfirmDisabledSuffix;
    factory.AddFactoryFunction(confirmDisabledName, &ModuleLibrary::CreateModule);
}

std::unique_ptr<Services::SoftwareUpdate::IUpdaterModule> ModuleLibrary::CreateModule()
{
    return std::make_unique<SoftwareUpdaterModule>();
}

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
