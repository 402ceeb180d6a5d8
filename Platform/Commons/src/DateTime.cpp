// The current UTC time from the realtime clock.
#include <ctime>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/PosixCall.hpp"

namespace Zun
{

static_assert(sizeof(std::time_t) >= 8, "The clock must count past January 2038: build with -D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64");

DateTime DateTime::GetUtcNow()
{
    timespec now{};
    System::Commons::PosixCall("clock_gettime", ::clock_gettime, CLOCK_REALTIME, &now);
    const std::int64_t ticks = UnixEpochTicks + static_cast<std::int64_t>(now.tv_sec) * TicksPerSecond + now.tv_nsec / 100;
    return DateTime(ticks, DateTimeKind::Utc);
}

} // namespace Zun
