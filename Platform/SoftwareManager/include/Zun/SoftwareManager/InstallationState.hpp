// The software manager's installation state: idle, three in-progress phases and their failures.
#pragma once

#include <cstdint>
#include <ostream>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

enum class InstallationState : std::int32_t
{
    Idle = 0,
    Preparing = 1,
    PreparingFailed = 2,
    Copying = 3,
    CopyingFailed = 4,
    Activating = 5,
    ActivatingFailed = 6,
};

// Writes the state's name ("Idle", "Preparing", ...); any other value is written as its number.
ZUN_EXPORT std::ostream& operator<<(std::ostream& stream, InstallationState state);

} // namespace Zun::Services::SoftwareManager::Services::Internal
