// The update service's installation state (Idle, Installing, Error) and its text output.
#pragma once

#include <cstdint>
#include <ostream>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

enum class InstallationState : std::int32_t
{
    Idle = 0,
    Installing = 1,
    Error = 2,
};

// Writes "Idle", "Installing" or "Error"; any other value sets failbit.
ZUN_EXPORT std::ostream& operator<<(std::ostream& stream, InstallationState state);

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
