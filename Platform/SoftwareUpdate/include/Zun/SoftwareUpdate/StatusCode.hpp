// OPC UA status codes returned by the updater modules, with their names.
#pragma once

#include <cstdint>
#include <string>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate
{

using StatusCode = std::uint32_t;

namespace StatusCodes
{
constexpr StatusCode Good = 0x00000000;
constexpr StatusCode BadUnexpectedError = 0x80010000;
constexpr StatusCode BadInternalError = 0x80020000;
constexpr StatusCode BadTimeout = 0x800A0000;
constexpr StatusCode BadNoCommunication = 0x80310000;
constexpr StatusCode BadNotSupported = 0x803D0000;
constexpr StatusCode BadNotFound = 0x803E0000;
constexpr StatusCode BadInvalidArgument = 0x80AB0000;
constexpr StatusCode BadInvalidState = 0x80AF0000;

constexpr bool IsGood(StatusCode code) noexcept { return code == Good; }
constexpr bool IsBad(StatusCode code) noexcept { return (code & 0x80000000u) != 0; }

// "Good", "Bad_InvalidState", ...; null for a code without a name.
ZUN_EXPORT const char* GetName(StatusCode code) noexcept;
// The name, or "0x" and eight hex digits for a code without one.
ZUN_EXPORT std::string ToString(StatusCode code);
} // namespace StatusCodes

} // namespace Zun::Services::SoftwareUpdate
