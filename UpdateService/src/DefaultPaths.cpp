#include "Zun/UpdateService/DefaultPaths.hpp"

#include <cstdlib>
#include <filesystem>
#include <system_error>

#include "Zun/Commons/Exception.hpp"
#include "Zun/SoftwareManager/DefaultPaths.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService
{

namespace
{
String Environment(const char* name)
{
    const char* value = std::getenv(name);
    return value == nullptr ? String() : String(value);
}
} // namespace

String DefaultPaths::StateHome()
{
    // An XDG path must be absolute; a relative one is ignored as the base directory rules say.
    String stateHome = Environment("XDG_STATE_HOME");
    if (!stateHome.empty() && stateHome.front() == '/')
    {
        return stateHome;
    }
    String home = Environment("HOME");
    if (home.empty())
    {
        throw System::Commons::InvalidOperationException("Neither XDG_STATE_HOME nor HOME is set; name the paths with options.");
    }
    return home + "/.local/state";
}

String DefaultPaths::StorePath()
{
    return StateHome() + "/zun-update/store.db";
}

String DefaultPaths::SoftwareManagerSocketPath()
{
    return SoftwareManager::Services::Internal::Transport::GetDefaultSocketPath();
}

String DefaultPaths::PluginPath()
{
    std::error_code error;
    const std::filesystem::path program = std::filesystem::read_symlink("/proc/self/exe", error);
    if (!error)
    {
        // A build tree keeps it in lib/, the installed package in its private lib/zun/.
        for (const char* folder : {"lib", "lib/zun"})
        {
            const std::filesystem::path besideProgram = program.parent_path().parent_path() / folder / ZUN_PLUGIN_FILE_NAME;
            if (std::filesystem::exists(besideProgram, error))
            {
                return String(besideProgram.string());
            }
        }
    }
    return String(ZUN_DEFAULT_PLUGIN_PATH);
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService
