// Takes over Thread::Sleep for a test: every sleep blocks until the test releases it, or returns at
// once in automatic mode. No test waits a real second for a poll.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

#include "Zun/Testing/TimeScale.hpp"

namespace Zun::Testing
{

class ManualSleep
{
public:
    // Installs the seam; `automatic` makes every sleep return at once.
    explicit ManualSleep(bool automatic = false);
    // Releases every sleeper and restores the real sleep.
    ~ManualSleep();
    ManualSleep(const ManualSleep&) = delete;
    ManualSleep& operator=(const ManualSleep&) = delete;

    // Waits (bounded) until at least `count` sleeps have begun since construction.
    bool WaitForSleeps(std::size_t count, std::chrono::milliseconds timeout = Patience());
    // Lets `count` more sleeps return.
    void Release(std::size_t count = 1);
    // From now on every sleep returns at once.
    void SetAutomatic(bool automatic);

    std::size_t SleepsBegun() const;
    std::vector<std::uint32_t> Durations() const;

private:
    void Sleep(std::uint32_t milliseconds);

    mutable std::mutex mutex;
    std::condition_variable changed;
    bool automatic;
    std::size_t begun = 0;
    std::size_t released = 0;
    std::size_t inProgress = 0;
    std::vector<std::uint32_t> durations;
};

} // namespace Zun::Testing
