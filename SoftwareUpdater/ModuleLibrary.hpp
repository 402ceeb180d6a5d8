// The plug-in's one library object: its factory offers the updater module under two names.
#pragma once

#include <memory>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Commons/Extensibility/ModuleLibraryBase.hpp"
#include "Zun/SoftwareUpdate/IUpdaterModule.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
{

class ModuleLibrary : public System::Commons::Extensibility::ModuleLibraryBase<Services::SoftwareUpdate::IUpdaterModule>
{
public:
    explicit ModuleLibrary(AppDomain& appDomain);
    ~ModuleLibrary() override = default;

    static std::unique_ptr<Services::SoftwareUpdate::IUpdaterModule> CreateModule();
};

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater
