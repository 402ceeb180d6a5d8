// Standard base64 (RFC 4648, with padding) for package chunks and hashes in the local API.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

class ZUN_EXPORT Base64
{
public:
    static std::string Encode(const std::uint8_t* data, std::size_t size);
    static std::string Encode(const std::vector<std::uint8_t>& data) { return Encode(data.data(), data.size()); }
    // Strict: the standard alphabet, length a multiple of four, padding only at the end, no white
    // space, unused bits zero. Returns false and leaves `out` empty for anything else.
    static bool Decode(const std::string& text, std::vector<std::uint8_t>& out);
    // The decoded size of a text of `length` characters, before looking at it.
    static std::size_t DecodedSizeBound(std::size_t length) noexcept { return length / 4 * 3; }
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
