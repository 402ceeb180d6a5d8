// Makes the proxy of one service interface for an endpoint, and names that interface.
#pragma once

#include <cstdint>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Rsc/IRscService.hpp"

namespace Zun::System::Rsc
{

// Where a provider's services are reached.
struct RscEndpoint
{
    String socketPath;
    std::uint32_t timeoutMilliseconds = 5000;
};

class ZUN_EXPORT IRscServiceProxyFactory
{
public:
    virtual ~IRscServiceProxyFactory();
    virtual String GetServiceInterfaceName() const = 0;
    // A new proxy, owned by the caller.
    virtual IRscService* CreateProxy(const RscEndpoint& endpoint) = 0;
};

} // namespace Zun::System::Rsc
