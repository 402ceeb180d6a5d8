#include "SoftwareUpdater/EntryPoint.hpp"

#include "SoftwareUpdater/ModuleLibrary.hpp"

extern "C" ZUN_EXPORT Zun::System::Commons::Extensibility::ModuleLibraryBase<Zun::Services::SoftwareUpdate::IUpdaterModule>*
CreateSoftwareUpdateModuleLibrary(Zun::AppDomain& appDomain)
{
    // Constructed once under the guard for local statics; a throwing constructor leaves it
    // unconstructed and the next call tries again. Later domains are ignored.
    static Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::ModuleLibrary library(appDomain);
    return &library;
}
