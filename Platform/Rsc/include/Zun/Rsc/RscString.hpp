// Fixed-capacity, zero-terminated text of the remote records and calls, copied by value.
#pragma once

#include <cstddef>
#include <cstdint>
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

// The number of bytes before the first zero byte of text[0, size), or size when there is none.
// The first 32 bytes are scanned inline, eight at a time: most texts of the records are short, and
// for them a call of the C library's strnlen costs more than the scan. Longer texts go on with
// strnlen's vector scan. Reads nothing outside text[0, size), but may read past the first zero
// byte: the whole of text[0, size) must be readable (a caller's C string is not; use strnlen there).
inline std::size_t FindZero(const char* text, std::size_t size) noexcept
{
    static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "the first byte of a loaded word must be its lowest");
    constexpr std::uint64_t ones = 0x0101010101010101u;
    constexpr std::uint64_t highs = 0x8080808080808080u;
    const std::size_t head = size < 32 ? size : 32;
    std::size_t i = 0;
    for (; i + 8 <= head; i += 8)
    {
        std::uint64_t word = 0;
        std::memcpy(&word, text + i, 8);
        // The lowest marked byte is the first zero byte (a false mark can only follow a zero byte).
        const std::uint64_t marks = (word - ones) & ~word & highs;
        if (marks != 0)
        {
            return i + static_cast<std::size_t>(__builtin_ctzll(marks)) / 8;
        }
    }
    while (i < head && text[i] != '\0')
    {
        ++i;
    }
    return i < head || head == size ? i : head + ::strnlen(text + head, size - head);
}

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
    std::size_t Length() const noexcept { return FindZero(data, N); }
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
