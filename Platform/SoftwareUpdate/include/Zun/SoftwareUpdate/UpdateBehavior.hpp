// Option set that tells how installing a package affects the device.
#pragma once

#include <cstdint>

namespace Zun::Services::SoftwareUpdate::Services::Internal
{

enum class UpdateBehavior : std::uint32_t
{
    None = 0,
    KeepsParameters = 0x01,
    WillDisconnect = 0x02,
    RequiresPowerCycle = 0x04,
    WillReboot = 0x08,
    NeedsPreparation = 0x10,
};

constexpr UpdateBehavior operator|(UpdateBehavior a, UpdateBehavior b) noexcept
{
    return static_cast<UpdateBehavior>(static_cast<std::uint32_t>(a) | static_cast<std::uint32_t>(b));
}

constexpr bool HasFlag(UpdateBehavior value, UpdateBehavior flag) noexcept
{
    return (static_cast<std::uint32_t>(value) & static_cast<std::uint32_t>(flag)) != 0;
}

} // namespace Zun::Services::SoftwareUpdate::Services::Internal
