// Thread coordination for tests: a countdown latch and a one-shot notification, with waits bounded
// by the test time scale.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>

#include "Zun/Testing/TimeScale.hpp"

namespace Zun::Testing
{

class Latch
{
public:
    explicit Latch(std::size_t count) : count(count) {}

    void CountDown()
    {
        std::lock_guard<std::mutex> lock(mutex);
        if (count > 0 && --count == 0)
        {
            done.notify_all();
        }
    }
    bool WaitFor(std::chrono::milliseconds timeout)
    {
        std::unique_lock<std::mutex> lock(mutex);
        return done.wait_for(lock, timeout, [this] { return count == 0; });
    }
    void ArriveAndWait(std::chrono::milliseconds timeout = Patience())
    {
        CountDown();
        WaitFor(timeout);
    }

private:
    std::mutex mutex;
    std::condition_variable done;
    std::size_t count;
};

class Notification
{
public:
    void Notify() { latch.CountDown(); }
    bool WaitFor(std::chrono::milliseconds timeout = Patience()) { return latch.WaitFor(timeout); }

private:
    Latch latch{1};
};

} // namespace Zun::Testing
