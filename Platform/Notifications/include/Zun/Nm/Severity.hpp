// Severity of a notification.
#pragma once

#include <cstdint>

namespace Zun::System::Nm
{

enum class Severity : std::uint32_t
{
    Verbose = 0,
    Info = 1,
    Warning = 2,
    Error = 3,
    Critical = 4,
};

using NotificationNameId = std::uint32_t; // a registration; 0 is "none"
using NotificationId = std::uint64_t;

} // namespace Zun::System::Nm
