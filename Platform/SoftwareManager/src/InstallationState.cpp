#include "Zun/SoftwareManager/InstallationState.hpp"

namespace Zun::Services::SoftwareManager::Services::Internal
{

std::ostream& operator<<(std::ostream& stream, InstallationState state)
{
    switch (state)
    {
    case InstallationState::Idle:
        return stream << "Idle";
    case InstallationState::Preparing:
        return stream << "Preparing";
    case InstallationState::PreparingFailed:
        return stream << "PreparingFailed";
    case InstallationState::Copying:
        return stream << "Copying";
    case InstallationState::CopyingFailed:
        return stream << "CopyingFailed";
    case InstallationState::Activating:
        return stream << "Activating";
    case InstallationState::ActivatingFailed:
        return stream << "ActivatingFailed";
    }
    return stream << static_cast<std::int32_t>(state);
}

} // namespace Zun::Services::SoftwareManager::Services::Internal
