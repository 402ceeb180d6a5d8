#include "Zun/UpdateService/Protocol/ProtocolError.hpp"

#include <utility>

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

ProtocolError::ProtocolError(std::uint32_t status, String message) : Zun::Exception(std::move(message)), status(status)
{
}

ProtocolError::~ProtocolError() = default;

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
