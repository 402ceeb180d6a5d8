// One message of the local API: a 4-byte little-endian length, then that many bytes of one JSON
// object (at most MaxMessageBytes). Encoding, decoding, and blocking reads and writes of whole
// messages over a file descriptor for clients.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json.hpp>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

class ZUN_EXPORT MessageFraming
{
public:
    static constexpr std::uint32_t ProtocolVersion = 1;
    static constexpr std::size_t HeaderBytes = 4;
    static constexpr std::uint32_t MaxMessageBytes = 1048576;

    // Length prefix and body. Throws ProtocolError (Bad_RequestTooLarge) when the body is above
    // MaxMessageBytes; invalid UTF-8 in a text is replaced by U+FFFD.
    static std::string Encode(const nlohmann::json& message);
    // The body length of a header; throws ProtocolError: Bad_DecodingError for 0,
    // Bad_RequestTooLarge above MaxMessageBytes.
    static std::uint32_t DecodeLength(const std::uint8_t* header);
    // A body as the top-level object it must be; throws ProtocolError (Bad_DecodingError) naming
    // the fault otherwise.
    static nlohmann::json ParseBody(const char* data, std::size_t size);

    // Writes one whole message to a blocking descriptor (a socket without SIGPIPE). Throws
    // ProtocolError as Encode, SystemException when the descriptor fails.
    static void WriteMessage(int fd, const nlohmann::json& message);
    // Reads one whole message from a blocking descriptor. False when the peer closed before the
    // first byte. Throws ProtocolError for a bad message or a close inside one (Bad_NoCommunication),
    // SystemException when the descriptor fails.
    static bool ReadMessage(int fd, nlohmann::json& message);
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
