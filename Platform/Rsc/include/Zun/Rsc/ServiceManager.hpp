// The process's registry of service providers, looked up by provider name.
#pragma once

#include <memory>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/String.hpp"
#include "Zun/Rsc/IRscService.hpp"
#include "Zun/Rsc/IRscServiceProxyFactory.hpp"
#include "Zun/Rsc/IServiceProvider.hpp"

namespace Zun::System::Rsc
{

class ZUN_EXPORT ServiceManager
{
public:
    // The provider's service made through `proxyFactory`, owned by the caller; null when no
    // provider of that name is registered or the provider has none.
    static IRscService* GetService(const char* providerName, IRscServiceProxyFactory& proxyFactory);

    static void RegisterProvider(const String& providerName, std::shared_ptr<IServiceProvider> provider);
    // Registers a provider that asks the proxy factory for a proxy to `endpoint`.
    static void RegisterEndpoint(const String& providerName, RscEndpoint endpoint);
    static void UnregisterProvider(const String& providerName);
};

} // namespace Zun::System::Rsc
