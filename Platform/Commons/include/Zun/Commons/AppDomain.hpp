// The application domain: a process's registry of framework singletons such as the notification manager.
#pragma once

#include <map>
#include <mutex>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun
{

class ZUN_EXPORT AppDomain
{
public:
    AppDomain();
    ~AppDomain();
    AppDomain(const AppDomain&) = delete;
    AppDomain& operator=(const AppDomain&) = delete;

    // Registers `instance` (not owned) as the domain's singleton of type T, replacing any earlier one.
    template <class T>
    void SetSingleton(T* instance)
    {
        SetEntry(RuntimeTypeInfo::GetTypeName<T>(), instance);
    }
    template <class T>
    T* FindSingleton() const
    {
        return static_cast<T*>(FindEntry(RuntimeTypeInfo::GetTypeName<T>()));
    }
    template <class T>
    void RemoveSingleton()
    {
        SetEntry(RuntimeTypeInfo::GetTypeName<T>(), nullptr);
    }

private:
    void SetEntry(const String& typeName, void* instance);
    void* FindEntry(const String& typeName) const;

    mutable std::mutex mutex;
    std::map<String, void*> entries;
};

} // namespace Zun
