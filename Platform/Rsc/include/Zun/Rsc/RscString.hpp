// Fixed-capacity, zero-terminated text of the remote records and calls, copied by value.
#pragma once

#include <cstddef>
#include <cstring>

#include <fmt/format.h>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/SecureString.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun::System::Rsc
{

// Zeroes a text buffer. Out of line on purpose: for a constant size the compiler inlines a string
// store instruction that takes several times as long as the C library's vector memset, and records
// zero thousands of bytes for every text list they read.
ZUN_EXPORT void ClearText(char* data, std::size_t size) noexcept;

template <std::size_t N>
class RscString
{
    static_assert(N > 0, "an RscString needs room for its terminator");

public:
    static constexpr std::size_t Capacity = N;

    RscString() noexcept { ClearText(data, N); }
    // Throws ArgumentException("arg", "Input string is too long") for N bytes or more.
    explicit RscString(const String& text) : RscString() { Assign(text.data(), text.size()); }
    explicit RscString(const char* text) : RscString() { Assign(text, std::strlen(text)); }

    RscString& operator=(const String& text)
    {
        ClearText(data, N);
        Assign(text.data(), text.size());
        return *this;
    }

    const char* CStr() const noexcept { return data; }
    char* GetBuffer() noexcept { return data; }
    std::size_t Length() const noexcept { return ::strnlen(data, N); }
    bool IsEmpty() const noexcept { return data[0] == '\0'; }
    // The text up to its terminator.
    String ToString() const { return String(data, Length()); }

    friend bool operator==(const RscString& a, const RscString& b) noexcept { return std::strncmp(a.data, b.data, N) == 0; }
    friend bool operator!=(const RscString& a, const RscString& b) noexcept { return !(a == b); }

private:
    void Assign(const char* text, std::size_t length)
    {
        if (length >= N)
        {
            throw System::Commons::ArgumentException::Create("arg", "Input string is too long");
        }
        SecureStrncpy(data, N, text, length);
    }

    char data[N];
};

} // namespace Zun::System::Rsc

template <std::size_t N>
struct fmt::formatter<Zun::System::Rsc::RscString<N>> : fmt::formatter<fmt::string_view>
{
    template <class FormatContext>
    auto format(const Zun::System::Rsc::RscString<N>& s, FormatContext& ctx) const
    {
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(s.CStr(), s.Length()), ctx);
    }
};
