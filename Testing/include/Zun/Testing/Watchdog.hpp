// Fails a hung test: aborts the process with a message when not destroyed within its time-out, a
// base duration stretched by the test time scale.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace Zun::Testing
{

class Watchdog
{
public:
    explicit Watchdog(std::chrono::milliseconds base = std::chrono::seconds(60));
    ~Watchdog();
    Watchdog(const Watchdog&) = delete;
    Watchdog& operator=(const Watchdog&) = delete;

private:
    std::mutex mutex;
    std::condition_variable disarmed;
    bool done = false;
    std::thread thread;
};

} // namespace Zun::Testing
