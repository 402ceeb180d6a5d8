#include "Zun/UpdateService/Protocol/StatusNames.hpp"

#include <cstdlib>
#include <iterator>

#include <fmt/format.h>

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

namespace
{
struct Entry
{
    std::uint32_t code;
    const char* name;
};

constexpr Entry Table[] = {
    {StatusNames::Good, "Good"},
    {StatusNames::BadUnexpectedError, "Bad_UnexpectedError"},
    {StatusNames::BadInternalError, "Bad_InternalError"},
    {StatusNames::BadResourceUnavailable, "Bad_ResourceUnavailable"},
    {StatusNames::BadDecodingError, "Bad_DecodingError"},
    {StatusNames::BadTimeout, "Bad_Timeout"},
    {StatusNames::BadServiceUnsupported, "Bad_ServiceUnsupported"},
    {StatusNames::BadShutdown, "Bad_Shutdown"},
    {StatusNames::BadTooManyOperations, "Bad_TooManyOperations"},
    {StatusNames::BadUserAccessDenied, "Bad_UserAccessDenied"},
    {StatusNames::BadNoCommunication, "Bad_NoCommunication"},
    {StatusNames::BadNotSupported, "Bad_NotSupported"},
    {StatusNames::BadNotFound, "Bad_NotFound"},
    {StatusNames::BadTooManySessions, "Bad_TooManySessions"},
    {StatusNames::BadInvalidArgument, "Bad_InvalidArgument"},
    {StatusNames::BadInvalidState, "Bad_InvalidState"},
    {StatusNames::BadRequestTooLarge, "Bad_RequestTooLarge"},
    {StatusNames::BadResponseTooLarge, "Bad_ResponseTooLarge"},
    {StatusNames::BadProtocolVersionUnsupported, "Bad_ProtocolVersionUnsupported"},
};
} // namespace

std::string StatusNames::GetName(std::uint32_t code)
{
    for (const Entry& entry : Table)
    {
        if (entry.code == code)
        {
            return entry.name;
        }
    }
    return fmt::format("0x{:08X}", code);
}

bool StatusNames::TryParse(const std::string& name, std::uint32_t& code) noexcept
{
    for (const Entry& entry : Table)
    {
        if (name == entry.name)
        {
            code = entry.code;
            return true;
        }
    }
    if (name.size() != 10 || name[0] != '0' || name[1] != 'x')
    {
        return false;
    }
    std::uint32_t value = 0;
    for (std::size_t i = 2; i < name.size(); ++i)
    {
        const char c = name[i];
        const int digit = c >= '0' && c <= '9' ? c - '0' : c >= 'A' && c <= 'F' ? c - 'A' + 10 : -1;
        if (digit < 0)
        {
            return false;
        }
        value = value << 4 | static_cast<std::uint32_t>(digit);
    }
    code = value;
    return true;
}

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
