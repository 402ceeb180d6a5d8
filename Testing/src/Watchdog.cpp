#include "Zun/Testing/Watchdog.hpp"

#include <cstdio>
#include <cstdlib>

#include "Zun/Testing/TimeScale.hpp"

namespace Zun::Testing
{

Watchdog::Watchdog(std::chrono::milliseconds base)
{
    const std::chrono::milliseconds timeout = Scaled(base);
    thread = std::thread([this, timeout] {
        std::unique_lock<std::mutex> lock(mutex);
        if (!disarmed.wait_for(lock, timeout, [this] { return done; }))
        {
            std::fprintf(stderr, "Watchdog: test did not finish within %lld ms\n", static_cast<long long>(timeout.count()));
            std::fflush(stderr);
            std::abort();
        }
    });
}

Watchdog::~Watchdog()
{
    {
        std::lock_guard<std::mutex> lock(mutex);
        done = true;
    }
    disarmed.notify_all();
    thread.join();
}

} // namespace Zun::Testing
