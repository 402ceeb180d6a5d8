// Ordered map from an enumeration's values to their display texts; Enum<E> names the enumeration in errors.
#pragma once

#include <initializer_list>
#include <map>
#include <type_traits>
#include <utility>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/RuntimeTypeInfo.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun
{

// Wrapper whose type name identifies an enumeration in messages.
template <class E>
struct Enum
{
    E value;
};

template <class E>
class EnumDictionaryBase
{
public:
    using Underlying = std::underlying_type_t<E>;

    EnumDictionaryBase(std::initializer_list<std::pair<E, const char*>> entries)
    {
        for (const auto& [value, text] : entries)
        {
            this->entries.emplace(value, String(text));
        }
    }

    const std::map<E, String>& GetEntries() const noexcept { return entries; }

    bool TryGetText(E value, String& text) const
    {
        auto it = entries.find(value);
        if (it == entries.end())
        {
            return false;
        }
        text = it->second;
        return true;
    }

    // Throws Zun::Exception "Invalid value for Enum '{0}' occurs: {1}" for a value without entry.
    const String& GetText(E value) const
    {
        auto it = entries.find(value);
        if (it == entries.end())
        {
            ThrowInvalidValue(value);
        }
        return it->second;
    }

    [[noreturn]] static void ThrowInvalidValue(E value)
    {
        throw Exception("Invalid value for Enum '{0}' occurs: {1}", RuntimeTypeInfo::GetTypeName<Enum<E>>(),
                        static_cast<Underlying>(value));
    }

private:
    std::map<E, String> entries;
};

} // namespace Zun
