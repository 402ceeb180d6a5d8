// The current UTC time from the realtime clock.
#include <ctime>

#include "Zun/Commons/DateTime.hpp"
#include "Zun/Commons/PosixCall.hpp"

namespace Zun
{

DateTime DateTime::GetUtcNow()
{
    timespec now{};
    System::Commons::PosixCall("clock_gettime", ::clock_gettime, CLOCK_REALTIME, &now);
    const std::int64_t ticks = UnixEpochTicks + static_cast<std::int64_t>(now.tv_sec) * TicksPerSecond + now.tv_nsec / 100;
    return DateTime(ticks, DateTimeKind::Utc);
}

} // namespace Zun
