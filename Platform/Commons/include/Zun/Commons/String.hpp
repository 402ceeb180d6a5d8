// The framework's byte string, its hash for unordered containers and its fmt formatter.
#pragma once

#include <cstddef>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>

#include <fmt/format.h>

namespace Zun
{

// A byte string; the framework's own type so that its API can grow without touching std::basic_string.
template <class CharT>
class BasicString : public std::basic_string<CharT>
{
public:
    using Base = std::basic_string<CharT>;
    using Base::Base;
    BasicString() = default;
    BasicString(const Base& other) : Base(other) {}
    BasicString(Base&& other) noexcept : Base(std::move(other)) {}
    BasicString(std::basic_string_view<CharT> view) : Base(view) {}

    const CharT* CStr() const noexcept { return this->c_str(); }
    std::size_t Length() const noexcept { return this->size(); }
    bool IsEmpty() const noexcept { return this->empty(); }
};

using String = BasicString<char>;

} // namespace Zun

template <class CharT>
struct std::hash<Zun::BasicString<CharT>>
{
    std::size_t operator()(const Zun::BasicString<CharT>& s) const noexcept
    {
        return std::hash<std::basic_string_view<CharT>>{}(std::basic_string_view<CharT>(s));
    }
};

template <>
struct fmt::formatter<Zun::String> : fmt::formatter<fmt::string_view>
{
    template <class FormatContext>
    auto format(const Zun::String& s, FormatContext& ctx) const
    {
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(s.data(), s.size()), ctx);
    }
};
