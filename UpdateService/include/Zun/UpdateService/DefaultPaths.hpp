// Where the update service finds its store, the software manager's socket and the plug-in when no
// option names them.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

class ZUN_EXPORT DefaultPaths
{
public:
    // $XDG_STATE_HOME, else $HOME/.local/state; throws InvalidOperationException when neither is set.
    static String StateHome();
    // <state home>/zun-update/store.db
    static String StorePath();
    // The software manager's default: $ZUN_SOFTWARE_MANAGER_SOCKET, else
    // <state home>/zun-software-manager/run/software-manager.sock.
    static String SoftwareManagerSocketPath();
    // The plug-in in the lib folder beside the running program's bin folder when it is there,
    // otherwise the one that this build made.
    static String PluginPath();
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService
