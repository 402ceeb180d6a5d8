// A named source of services: a remote endpoint in the processes, an in-process object in tests.
#pragma once

#include "Zun/Commons/Export.hpp"
#include "Zun/Rsc/IRscService.hpp"
#include "Zun/Rsc/IRscServiceProxyFactory.hpp"

namespace Zun::System::Rsc
{

class ZUN_EXPORT IServiceProvider
{
public:
    virtual ~IServiceProvider();
    // A new service object owned by the caller, or null when the provider has none.
    virtual IRscService* GetService(IRscServiceProxyFactory& proxyFactory) = 0;
};

} // namespace Zun::System::Rsc
