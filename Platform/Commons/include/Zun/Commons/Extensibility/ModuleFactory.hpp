// Named factory functions of a module library; the host looks a name up and creates the module.
#pragma once

#include <functional>
#include <memory>
#include <utility>
#include <vector>

#include <fmt/format.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::System::Commons::Extensibility
{

template <class T>
class ModuleFactory
{
public:
    using FactoryFunction = std::function<std::unique_ptr<T>()>;
    using Entry = std::pair<String, FactoryFunction>;

    virtual ~ModuleFactory() = default;

    // Throws ArgumentException for an empty name, an empty function or a name already present
    // (exact, case-sensitive); the list is then unchanged.
    void AddFactoryFunction(const String& moduleName, FactoryFunction function)
    {
        if (moduleName.empty())
        {
            throw ArgumentException::Create("moduleName", moduleName, "Invalid module name");
        }
        if (!function)
        {
            throw ArgumentException::Create("function", fmt::ptr(static_cast<const void*>(function.template target<std::unique_ptr<T> (*)()>())),
                                            "Invalid factory function.");
        }
        if (Find(moduleName) != nullptr)
        {
            throw ArgumentException::Create("moduleName", moduleName, "Duplicate module name");
        }
        entries.emplace_back(moduleName, std::move(function));
    }

    // Registration order.
    const std::vector<Entry>& GetEntries() const noexcept { return entries; }

    bool Contains(const String& moduleName) const { return Find(moduleName) != nullptr; }

    // Host side: creates the module registered under `moduleName`; throws ArgumentException
    // "Unknown module name" when there is none.
    std::unique_ptr<T> CreateModule(const String& moduleName) const
    {
        const Entry* entry = Find(moduleName);
        if (entry == nullptr)
        {
            throw ArgumentException::Create("moduleName", moduleName, "Unknown module name");
        }
        return entry->second();
    }

private:
    const Entry* Find(const String& moduleName) const
    {
        for (const Entry& entry : entries)
        {
            if (entry.first == moduleName)
            {
                return &entry;
            }
        }
        return nullptr;
    }

    std::vector<Entry> entries;
};

} // namespace Zun::System::Commons::Extensibility
