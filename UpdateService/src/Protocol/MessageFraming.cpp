#include "Zun/UpdateService/Protocol/MessageFraming.hpp"

#include <cerrno>
#include <cstring>

#include <sys/socket.h>
#include <unistd.h>

#include "Zun/Commons/PosixCall.hpp"
#include "Zun/UpdateService/Protocol/ProtocolError.hpp"
#include "Zun/UpdateService/Protocol/StatusNames.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

using System::Commons::PosixCall;
using System::Commons::PosixCallAllowing;

namespace
{
void WriteAll(int fd, const char* data, std::size_t size)
{
    while (size > 0)
    {
        int error = 0;
        ssize_t written = PosixCallAllowing("send", {ENOTSOCK}, error, ::send, fd, data, size, MSG_NOSIGNAL);
        if (error == ENOTSOCK)
        {
            written = PosixCall("write", ::write, fd, data, size);
        }
        data += written;
        size -= static_cast<std::size_t>(written);
    }
}

// False when the descriptor ends before the first byte; a ProtocolError when it ends later.
bool ReadAll(int fd, char* data, std::size_t size, bool messageBegun)
{
    std::size_t done = 0;
    while (done < size)
    {
        const ssize_t n = PosixCall("read", ::read, fd, data + done, size - done);
        if (n == 0)
        {
            if (done == 0 && !messageBegun)
            {
                return false;
            }
            throw ProtocolError(StatusNames::BadNoCommunication, "The connection closed in the middle of a message.");
        }
        done += static_cast<std::size_t>(n);
    }
    return true;
}
} // namespace

std::string MessageFraming::Encode(const nlohmann::json& message)
{
    std::string framed(HeaderBytes, '\0');
    framed += message.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    const std::size_t length = framed.size() - HeaderBytes;
    if (length > MaxMessageBytes)
    {
        throw ProtocolError(StatusNames::BadRequestTooLarge,
                            Zun::Exception::Format("The message is {} bytes, above the limit of {} bytes.", length,
                                                   MaxMessageBytes));
    }
    for (std::size_t i = 0; i < HeaderBytes; ++i)
    {
        framed[i] = static_cast<char>(length >> (8 * i) & 0xFF);
    }
    return framed;
}

std::uint32_t MessageFraming::DecodeLength(const std::uint8_t* header)
{
    const std::uint32_t length = std::uint32_t(header[0]) | std::uint32_t(header[1]) << 8 |
                                 std::uint32_t(header[2]) << 16 | std::uint32_t(header[3]) << 24;
    if (length == 0)
    {
        throw ProtocolError(StatusNames::BadDecodingError, "The message is empty (length 0).");
    }
    if (length > MaxMessageBytes)
    {
        throw ProtocolError(StatusNames::BadRequestTooLarge,
                            Zun::Exception::Format("The message is {} bytes, above the limit of {} bytes.", length,
                                                   MaxMessageBytes));
    }
    return length;
}

nlohmann::json MessageFraming::ParseBody(const char* data, std::size_t size)
{
    // The parser would skip a byte-order mark; the protocol has none.
    if (size >= 3 && std::memcmp(data, "\xEF\xBB\xBF", 3) == 0)
    {
        throw ProtocolError(StatusNames::BadDecodingError, "The message begins with a byte-order mark.");
    }
    nlohmann::json message;
    try
    {
        message = nlohmann::json::parse(data, data + size);
    }
    catch (const nlohmann::json::exception& e)
    {
        throw ProtocolError(StatusNames::BadDecodingError,
                            Zun::Exception::Format("The message is not valid JSON: {}", e.what()));
    }
    if (!message.is_object())
    {
        throw ProtocolError(StatusNames::BadDecodingError, "The message is not a JSON object.");
    }
    return message;
}

void MessageFraming::WriteMessage(int fd, const nlohmann::json& message)
{
    const std::string framed = Encode(message);
    WriteAll(fd, framed.data(), framed.size());
}

bool MessageFraming::ReadMessage(int fd, nlohmann::json& message)
{
    std::uint8_t header[HeaderBytes];
    if (!ReadAll(fd, reinterpret_cast<char*>(header), HeaderBytes, false))
    {
        return false;
    }
    std::string body(DecodeLength(header), '\0');
    ReadAll(fd, body.data(), body.size(), true);
    message = ParseBody(body.data(), body.size());
    return true;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
