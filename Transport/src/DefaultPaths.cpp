#include "Zun/SoftwareManager/DefaultPaths.hpp"

#include <pwd.h>
#include <unistd.h>

#include <cstdlib>

namespace Zun::Services::SoftwareManager::Services::Internal::Transport
{

namespace
{

String GetHomeDirectory()
{
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0')
    {
        return String(home);
    }
    const passwd* entry = ::getpwuid(::getuid());
    return entry != nullptr && entry->pw_dir != nullptr ? String(entry->pw_dir) : String("/tmp");
}

} // namespace

String GetDefaultStateDirectory()
{
    const char* stateHome = std::getenv("XDG_STATE_HOME");
    // A relative XDG path is invalid by definition and is ignored.
    if (stateHome != nullptr && stateHome[0] == '/')
    {
        return String(stateHome) + "/zun-software-manager";
    }
    return GetHomeDirectory() + "/.local/state/zun-software-manager";
}

String GetSocketPathIn(const String& stateDirectory)
{
    return stateDirectory + "/run/software-manager.sock";
}

String GetDefaultSocketPath()
{
    const char* path = std::getenv(SocketPathVariable);
    if (path != nullptr && *path != '\0')
    {
        return String(path);
    }
    return GetSocketPathIn(GetDefaultStateDirectory());
}

} // namespace Zun::Services::SoftwareManager::Services::Internal::Transport
