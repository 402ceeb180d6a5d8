// Log arguments that write an enumeration as text and throw, while the line is formatted, for a
// value that has no text. Being formatted lazily, they cost nothing when the level is disabled.
#pragma once

#include <sstream>
#include <type_traits>

#include <fmt/format.h>

#include "SoftwareUpdater/Internal/SoftwareComponentId.hpp"
#include "Zun/Commons/EnumDictionaryBase.hpp"

namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal
{

// A kind as its display text from the kind dictionary.
struct SoftwareKindText
{
    SoftwareKind kind;
};

// A value as its stream output operator writes it.
template <class E>
struct StreamedEnumText
{
    E value;
};

} // namespace Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal

template <>
struct fmt::formatter<Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKindText> : fmt::formatter<fmt::string_view>
{
    template <class FormatContext>
    auto format(const Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareKindText& text, FormatContext& ctx) const
    {
        using Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::SoftwareComponentId;
        const Zun::String& display = SoftwareComponentId::SoftwareKindDictionary.GetText(text.kind);
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(display.data(), display.size()), ctx);
    }
};

template <class E>
struct fmt::formatter<Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::StreamedEnumText<E>>
    : fmt::formatter<fmt::string_view>
{
    template <class FormatContext>
    auto format(const Zun::Services::Modules::SoftwareUpdate::SoftwareUpdater::Internal::StreamedEnumText<E>& text, FormatContext& ctx) const
    {
        std::ostringstream stream;
        stream << text.value;
        if (stream.fail())
        {
            Zun::EnumDictionaryBase<E>::ThrowInvalidValue(text.value);
        }
        const std::string written = stream.str();
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(written), ctx);
    }
};
