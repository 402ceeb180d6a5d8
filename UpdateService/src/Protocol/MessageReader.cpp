#include "Zun/UpdateService/Protocol/MessageReader.hpp"

#include "Zun/UpdateService/Protocol/MessageFraming.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

void MessageReader::Append(const char* data, std::size_t size)
{
    // Drop what has been consumed before growing, so a long session does not accumulate.
    if (offset > 0 && offset * 2 >= buffer.size())
    {
        buffer.erase(0, offset);
        offset = 0;
    }
    buffer.append(data, size);
}

bool MessageReader::Next(nlohmann::json& message)
{
    const std::size_t available = buffer.size() - offset;
    if (available < MessageFraming::HeaderBytes)
    {
        return false;
    }
    const std::uint32_t length = MessageFraming::DecodeLength(reinterpret_cast<const std::uint8_t*>(buffer.data() + offset));
    if (available - MessageFraming::HeaderBytes < length)
    {
        return false;
    }
    const char* body = buffer.data() + offset + MessageFraming::HeaderBytes;
    offset += MessageFraming::HeaderBytes + length;
    message = MessageFraming::ParseBody(body, length);
    return true;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
