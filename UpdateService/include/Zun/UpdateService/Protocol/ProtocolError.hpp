// A violation of the local API's protocol, with the status code that the `error` message carries.
#pragma once

#include <cstdint>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Export.hpp"

namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
{

class ZUN_EXPORT ProtocolError : public Zun::Exception
{
public:
    ProtocolError(std::uint32_t status, String message);
    ~ProtocolError() override;

    std::uint32_t GetStatus() const noexcept { return status; }

private:
    std::uint32_t status;
};

} // namespace Zun::Services::SoftwareUpdate::UpdateService::Protocol
