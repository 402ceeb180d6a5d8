#include "Zun/Testing/ManualSleep.hpp"

#include "Zun/Commons/Thread.hpp"

namespace Zun::Testing
{

using System::Commons::Threading::Thread;

ManualSleep::ManualSleep(bool automatic) : automatic(automatic)
{
    Thread::SetSleepFunction([this](std::uint32_t milliseconds) { Sleep(milliseconds); });
}

ManualSleep::~ManualSleep()
{
    std::unique_lock<std::mutex> lock(mutex);
    automatic = true;
    changed.notify_all();
    // Sleepers still refer to this object; let them leave before it goes away. Bounded, so that a
    // stuck sleeper shows up as a failing test rather than a hang.
    changed.wait_for(lock, Patience(), [this] { return inProgress == 0; });
    lock.unlock();
    Thread::SetSleepFunction({});
}

void ManualSleep::Sleep(std::uint32_t milliseconds)
{
    std::unique_lock<std::mutex> lock(mutex);
    durations.push_back(milliseconds);
    const std::size_t ticket = begun++;
    ++inProgress;
    changed.notify_all();
    // Sleeps are released in the order in which they began.
    changed.wait(lock, [this, ticket] { return automatic || ticket < released; });
    // A sleep that returned in automatic mode uses up its own turn, so that a later Release(1)
    // still lets exactly the next sleep return.
    if (released <= ticket)
    {
        released = ticket + 1;
    }
    --inProgress;
    changed.notify_all();
}

bool ManualSleep::WaitForSleeps(std::size_t count, std::chrono::milliseconds timeout)
{
    std::unique_lock<std::mutex> lock(mutex);
    return changed.wait_for(lock, timeout, [this, count] { return begun >= count; });
}

void ManualSleep::Release(std::size_t count)
{
    std::lock_guard<std::mutex> lock(mutex);
    released += count;
    changed.notify_all();
}

void ManualSleep::SetAutomatic(bool automatic)
{
    std::lock_guard<std::mutex> lock(mutex);
    this->automatic = automatic;
    changed.notify_all();
}

std::size_t ManualSleep::SleepsBegun() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return begun;
}

std::vector<std::uint32_t> ManualSleep::Durations() const
{
    std::lock_guard<std::mutex> lock(mutex);
    return durations;
}

} // namespace Zun::Testing
