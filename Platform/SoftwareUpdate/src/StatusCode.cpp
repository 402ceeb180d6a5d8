#include "Zun/SoftwareUpdate/StatusCode.hpp"

#include <fmt/format.h>

namespace Zun::Services::SoftwareUpdate::StatusCodes
{

const char* GetName(StatusCode code) noexcept
{
    switch (code)
    {
    case Good:
        return "Good";
    case BadUnexpectedError:
        return "Bad_UnexpectedError";
    case BadInternalError:
        return "Bad_InternalError";
    case BadTimeout:
        return "Bad_Timeout";
    case BadNoCommunication:
        return "Bad_NoCommunication";
    case BadNotSupported:
        return "Bad_NotSupported";
    case BadNotFound:
        return "Bad_NotFound";
    case BadInvalidArgument:
        return "Bad_InvalidArgument";
    case BadInvalidState:
        return "Bad_InvalidState";
    default:
        return nullptr;
    }
}

std::string ToString(StatusCode code)
{
    const char* name = GetName(code);
    return name != nullptr ? std::string(name) : fmt::format("0x{:08X}", code);
}

} // namespace Zun::Services::SoftwareUpdate::StatusCodes
