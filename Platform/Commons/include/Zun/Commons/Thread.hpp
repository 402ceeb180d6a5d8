// Framework thread: named, started explicitly, joinable once; its state reads 0 or 2, nothing else.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <functional>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/ThreadSettings.hpp"

namespace Zun::System::Commons::Threading
{

class ZUN_EXPORT Thread
{
public:
    // The values that GetState returns.
    static constexpr int StateNotActive = 0; // never started, or the body has returned
    static constexpr int StateRunning = 2;   // from Start until the body returns

    using SleepFunction = std::function<void(std::uint32_t milliseconds)>;

    explicit Thread(ThreadSettings settings, void* argument = nullptr);
    // Waits for a body that still runs, so that the objects it uses stay alive until it returns.
    ~Thread();
    Thread(const Thread&) = delete;
    Thread& operator=(const Thread&) = delete;

    // Throws InvalidOperationException when started twice; SystemException when the OS refuses.
    void Start();
    // True after Start until Join.
    bool IsJoinable() const noexcept;
    // Throws InvalidOperationException when not joinable or called from the thread itself.
    void Join();
    int GetState() const noexcept { return state.load(); }
    const String& GetName() const noexcept { return settings.name; }

    // Pauses the calling thread; goes through the sleep function when one is set.
    static void Sleep(std::uint32_t milliseconds);
    // Replaces the real pause (tests); an empty function restores it.
    static void SetSleepFunction(SleepFunction function);

private:
    static void* Run(void* self);

    ThreadSettings settings;
    void* argument;
    std::atomic<int> state{StateNotActive};
    pthread_t handle{};
    bool started = false;
    bool joined = false;
};

} // namespace Zun::System::Commons::Threading
