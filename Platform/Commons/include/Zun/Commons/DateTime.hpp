// Framework date and time: 64 bits, 100 ns ticks since 0001-01-01 in the low 62, the kind in the top two.
#pragma once

#include <cstdint>

#include "Zun/Commons/Export.hpp"

namespace Zun
{

enum class DateTimeKind : std::uint32_t
{
    Unspecified = 0,
    Utc = 1,
    Local = 2
};

class ZUN_EXPORT DateTime
{
public:
    static constexpr std::uint64_t TicksMask = 0x3FFFFFFFFFFFFFFFull;
    static constexpr int KindShift = 62;
    static constexpr std::int64_t TicksPerSecond = 10'000'000;
    // Ticks from 0001-01-01 to 1970-01-01.
    static constexpr std::int64_t UnixEpochTicks = 621'355'968'000'000'000;

    constexpr DateTime() noexcept = default;
    constexpr DateTime(std::int64_t ticks, DateTimeKind kind) noexcept
        : value((static_cast<std::uint64_t>(ticks) & TicksMask) | (static_cast<std::uint64_t>(kind) << KindShift))
    {
    }

    static constexpr DateTime FromBinary(std::uint64_t raw) noexcept
    {
        DateTime result;
        result.value = raw;
        return result;
    }
    static DateTime FromUnixTimeMilliseconds(std::int64_t milliseconds, DateTimeKind kind = DateTimeKind::Utc) noexcept
    {
        return DateTime(UnixEpochTicks + milliseconds * 10'000, kind);
    }
    static DateTime GetUtcNow();

    constexpr std::uint64_t ToBinary() const noexcept { return value; }
    constexpr std::int64_t GetTicks() const noexcept { return static_cast<std::int64_t>(value & TicksMask); }
    constexpr DateTimeKind GetKind() const noexcept { return static_cast<DateTimeKind>(value >> KindShift); }
    std::int64_t ToUnixTimeMilliseconds() const noexcept { return (GetTicks() - UnixEpochTicks) / 10'000; }

    constexpr bool operator==(const DateTime& other) const noexcept { return value == other.value; }
    constexpr bool operator!=(const DateTime& other) const noexcept { return value != other.value; }

private:
    std::uint64_t value = 0;
};

} // namespace Zun
