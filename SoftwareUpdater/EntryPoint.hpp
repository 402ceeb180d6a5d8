// The plug-in's only exported symbol.
#pragma once

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/Extensibility/ModuleLibraryBase.hpp"
#include "Zun/SoftwareUpdate/IUpdaterModule.hpp"

extern "C" ZUN_EXPORT Zun::System::Commons::Extensibility::ModuleLibraryBase<Zun::Services::SoftwareUpdate::IUpdaterModule>*
CreateSoftwareUpdateModuleLibrary(Zun::AppDomain& appDomain);
