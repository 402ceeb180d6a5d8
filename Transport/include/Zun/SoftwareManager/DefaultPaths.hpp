// Where the software manager service keeps its state and its socket unless told otherwise.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal::Transport
{

// Overrides the socket path for every proxy made with an empty endpoint path.
constexpr const char* SocketPathVariable = "ZUN_SOFTWARE_MANAGER_SOCKET";

// $XDG_STATE_HOME/zun-software-manager, else $HOME/.local/state/zun-software-manager.
ZUN_EXPORT String GetDefaultStateDirectory();
// <stateDirectory>/run/software-manager.sock
ZUN_EXPORT String GetSocketPathIn(const String& stateDirectory);
// $ZUN_SOFTWARE_MANAGER_SOCKET when set, else the socket in the default state directory.
ZUN_EXPORT String GetDefaultSocketPath();

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
