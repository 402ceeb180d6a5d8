// The status codes of the local API and their names, both ways.
#pragma once

#include <cstdint>
#include <string>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

class ZUN_EXPORT StatusNames
{
public:
    static constexpr std::uint32_t Good = 0x00000000u;
    static constexpr std::uint32_t BadUnexpectedError = 0x80010000u;
    static constexpr std::uint32_t BadInternalError = 0x80020000u;
    static constexpr std::uint32_t BadResourceUnavailable = 0x80040000u;
    static constexpr std::uint32_t BadDecodingError = 0x80070000u;
    static constexpr std::uint32_t BadTimeout = 0x800A0000u;
    static constexpr std::uint32_t BadServiceUnsupported = 0x800B0000u;
    static constexpr std::uint32_t BadShutdown = 0x800C0000u;
    static constexpr std::uint32_t BadTooManyOperations = 0x80100000u;
    static constexpr std::uint32_t BadUserAccessDenied = 0x801F0000u;
    static constexpr std::uint32_t BadNoCommunication = 0x80310000u;
    static constexpr std::uint32_t BadNotSupported = 0x803D0000u;
    static constexpr std::uint32_t BadNotFound = 0x803E0000u;
    static constexpr std::uint32_t BadTooManySessions = 0x80560000u;
    static constexpr std::uint32_t BadInvalidArgument = 0x80AB0000u;
    static constexpr std::uint32_t BadInvalidState = 0x80AF0000u;
    static constexpr std::uint32_t BadRequestTooLarge = 0x80B80000u;
    static constexpr std::uint32_t BadResponseTooLarge = 0x80B90000u;
    static constexpr std::uint32_t BadProtocolVersionUnsupported = 0x80BE0000u;

    static constexpr bool IsBad(std::uint32_t code) noexcept { return (code & 0x80000000u) != 0; }
    // The table's name, else "0x" and eight upper-case hex digits.
    static std::string GetName(std::uint32_t code);
    // The code of a table name or of a "0x" form; false for anything else.
    static bool TryParse(const std::string& name, std::uint32_t& code) noexcept;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
