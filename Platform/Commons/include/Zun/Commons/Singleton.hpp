// Process-wide singletons: Singleton<T>::pInstance is one slot per type for the whole process,
// shared by the host and every plug-in it loads, whatever their symbol visibility.
#pragma once

#include <atomic>

#include "Zun/Commons/AppDomain.hpp"
#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"

namespace Zun
{

namespace Detail
{
// The process-wide slot for a type, keyed by its ABI type name; created empty on first use.
ZUN_EXPORT std::atomic<void*>& GetSingletonSlot(const char* typeKey);
} // namespace Detail

// Reads and writes like a T*; the storage lives in the Commons library.
template <class T>
class SingletonInstancePointer
{
public:
    SingletonInstancePointer& operator=(T* instance) noexcept
    {
        Slot().store(instance);
        return *this;
    }
    operator T*() const noexcept { return static_cast<T*>(Slot().load()); }
    T* operator->() const noexcept { return static_cast<T*>(Slot().load()); }

private:
    static std::atomic<void*>& Slot()
    {
        static std::atomic<void*>& slot = Detail::GetSingletonSlot(typeid(T).name());
        return slot;
    }
};

template <class T>
class Singleton
{
public:
    static inline SingletonInstancePointer<T> pInstance{};

    // Throws Zun::Exception "Singleton instance of type '{0}' was not created yet!".
    static T& GetInstance()
    {
        T* instance = pInstance;
        if (instance == nullptr)
        {
            throw Exception("Singleton instance of type '{0}' was not created yet!", RuntimeTypeInfo::GetTypeName<T>());
        }
        return *instance;
    }
};

// Singletons registered in the process's AppDomain (itself Singleton<AppDomain>).
template <class T>
class AppDomainSingleton
{
public:
    // Throws "Singleton instance of type '{0}' was not created yet!" without an AppDomain and
    // "AppDomain Singleton instance of type '{0}' was not created yet!" when T is not registered.
    static T& GetInstance()
    {
        AppDomain& domain = Singleton<AppDomain>::GetInstance();
        T* instance = domain.FindSingleton<T>();
        if (instance == nullptr)
        {
            throw Exception("AppDomain Singleton instance of type '{0}' was not created yet!", RuntimeTypeInfo::GetTypeName<T>());
        }
        return *instance;
    }
};

} // namespace Zun
