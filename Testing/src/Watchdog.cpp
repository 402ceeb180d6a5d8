#include "Zun/Testing/Watchdog.hpp"

#include <cstdio>
#include <cstdlib>

namespace Zun::Testing
{

Watchdog::Watchdog(std::chrono::seconds timeout)
{
    thread = std::thread([this, timeout] {
        std::unique_lock<std::mutex> lock(mutex);
        if (!disarmed.wait_for(lock, timeout, [this] { return done; }))
        {
            std::fprintf(stderr, "Watchdog: test did not finish within %lld s\n", static_cast<long long>(timeout.count()));
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
