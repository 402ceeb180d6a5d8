// Preloaded into a test program to move the realtime clock to ZUN_CLOCK_SHIFT_TO (Unix seconds) at
// start-up; from there it runs at the real pace. Lets the tests see the clock past January 2038
// without touching the machine's clock. Exported by hand: the project hides symbols by default.
#include <dlfcn.h>
#include <time.h>

#include <cstdlib>

namespace
{
using ClockGetTime = int (*)(clockid_t, timespec*);

// With 64-bit time on a 32-bit C library the call is bound to its time64 symbol.
#if defined(__USE_TIME_BITS64) && __TIMESIZE == 32
constexpr const char* ClockSymbol = "__clock_gettime64";
#else
constexpr const char* ClockSymbol = "clock_gettime";
#endif

ClockGetTime realClock = nullptr;
long long shift = 0;

__attribute__((constructor)) void Initialise()
{
    realClock = reinterpret_cast<ClockGetTime>(::dlsym(RTLD_NEXT, ClockSymbol));
    const char* target = std::getenv("ZUN_CLOCK_SHIFT_TO");
    timespec now{};
    if (realClock != nullptr && target != nullptr && realClock(CLOCK_REALTIME, &now) == 0)
    {
        shift = std::atoll(target) - static_cast<long long>(now.tv_sec);
    }
}
} // namespace

extern "C" __attribute__((visibility("default"))) int clock_gettime(clockid_t clock, timespec* value) noexcept
{
    if (realClock == nullptr)
    {
        return -1;
    }
    const int result = realClock(clock, value);
    if (result == 0 && clock == CLOCK_REALTIME)
    {
        value->tv_sec += static_cast<time_t>(shift);
    }
    return result;
}
