#include "Zun/SoftwareUpdate/InstallationState.hpp"

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

std::ostream& operator<<(std::ostream& stream, InstallationState state)
{
    switch (state)
    {
    case InstallationState::Idle:
        return stream << "Idle";
    case InstallationState::Installing:
        return stream << "Installing";
    case InstallationState::Error:
        return stream << "Error";
    }
    stream.setstate(std::ios_base::failbit);
    return stream;
}

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
