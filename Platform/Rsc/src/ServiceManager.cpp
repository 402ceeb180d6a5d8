#include "Zun/Rsc/ServiceManager.hpp"

#include <map>
#include <mutex>
#include <utility>

#include "Zun/Commons/Exception.hpp"

namespace Zun::System::Rsc
{

namespace
{

// Reaches a provider's services over the transport that the proxy factory knows.
class EndpointServiceProvider : public IServiceProvider
{
public:
    explicit EndpointServiceProvider(RscEndpoint endpoint) : endpoint(std::move(endpoint)) {}

    IRscService* GetService(IRscServiceProxyFactory& proxyFactory) override { return proxyFactory.CreateProxy(endpoint); }

private:
    RscEndpoint endpoint;
};

struct Registry
{
    std::mutex mutex;
    std::map<String, std::shared_ptr<IServiceProvider>> providers;
};

Registry& GetRegistry()
{
    // Never destroyed: lookups may still run while other statics are torn down at exit.
    static Registry* registry = new Registry();
    return *registry;
}

} // namespace

IRscService* ServiceManager::GetService(const char* providerName, IRscServiceProxyFactory& proxyFactory)
{
    if (providerName == nullptr)
    {
        return nullptr;
    }
    std::shared_ptr<IServiceProvider> provider;
    {
        Registry& registry = GetRegistry();
        std::lock_guard<std::mutex> lock(registry.mutex);
        auto it = registry.providers.find(String(providerName));
        if (it == registry.providers.end())
        {
            return nullptr;
        }
        provider = it->second;
    }
    // Outside the lock: making a proxy may take long or look up other services.
    return provider->GetService(proxyFactory);
}

void ServiceManager::RegisterProvider(const String& providerName, std::shared_ptr<IServiceProvider> provider)
{
    if (providerName.empty())
    {
        throw Commons::ArgumentException::Create("providerName", "A provider name must not be empty.");
    }
    if (!provider)
    {
        throw Commons::ArgumentException::Create("provider", "A provider must not be null.");
    }
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.providers[providerName] = std::move(provider);
}

void ServiceManager::RegisterEndpoint(const String& providerName, RscEndpoint endpoint)
{
    RegisterProvider(providerName, std::make_shared<EndpointServiceProvider>(std::move(endpoint)));
}

void ServiceManager::UnregisterProvider(const String& providerName)
{
    Registry& registry = GetRegistry();
    std::lock_guard<std::mutex> lock(registry.mutex);
    registry.providers.erase(providerName);
}

} // namespace Zun::System::Rsc
