// The application domain's registry of singletons by type name.
#include "Zun/Commons/AppDomain.hpp"

namespace Zun
{

AppDomain::AppDomain() = default;
AppDomain::~AppDomain() = default;

void AppDomain::SetEntry(const String& typeName, void* instance)
{
    std::lock_guard<std::mutex> lock(mutex);
    if (instance == nullptr)
    {
        entries.erase(typeName);
    }
    else
    {
        entries[typeName] = instance;
    }
}

void* AppDomain::FindEntry(const String& typeName) const
{
    std::lock_guard<std::mutex> lock(mutex);
    auto it = entries.find(typeName);
    return it == entries.end() ? nullptr : it->second;
}

} // namespace Zun
