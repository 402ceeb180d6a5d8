// Splits a byte stream that arrives in pieces (a non-blocking socket) into the local API's
// messages, checking each length as soon as its header is complete.
#pragma once

#include <cstddef>
#include <string>

#include <nlohmann/json.hpp>

#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

class ZUN_EXPORT MessageReader
{
public:
    void Append(const char* data, std::size_t size);
    // The next complete message, if one has arrived. Throws ProtocolError for a bad length or
    // body; the stream cannot be resynchronised after that.
    bool Next(nlohmann::json& message);
    // Bytes of a message that has begun but not completed are waiting.
    bool IsInsideMessage() const noexcept { return buffer.size() > offset; }

private:
    std::string buffer;
    std::size_t offset = 0;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
