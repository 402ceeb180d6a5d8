// Framework thread over pthreads, and the process-wide sleep with its replaceable function.
#include <sched.h>
#include <time.h>

#include <exception>
#include <mutex>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/LogManager.hpp"
#include "Zun/Commons/PosixCall.hpp"
#include "Zun/Commons/Thread.hpp"

namespace Zun::System::Commons::Threading
{

namespace
{

// Linux refuses thread names longer than 15 bytes.
constexpr std::size_t MaxThreadNameLength = 15;

// The Thread object whose body runs on this thread; cleared when that object is destroyed from
// its own body, so that Run does not touch it afterwards.
thread_local const Thread* currentThread = nullptr;

struct SleepSeam
{
    std::mutex mutex;
    Thread::SleepFunction function;
};

SleepSeam& GetSleepSeam()
{
    // Never freed: threads may still sleep while statics are destroyed.
    static SleepSeam* const seam = new SleepSeam();
    return *seam;
}

class ThreadAttributes
{
public:
    ThreadAttributes() { PosixCallReturningError("pthread_attr_init", ::pthread_attr_init, &attributes); }
    ~ThreadAttributes() { ::pthread_attr_destroy(&attributes); }
    ThreadAttributes(const ThreadAttributes&) = delete;
    ThreadAttributes& operator=(const ThreadAttributes&) = delete;

    pthread_attr_t* Get() noexcept { return &attributes; }

private:
    pthread_attr_t attributes;
};

void RealSleep(std::uint32_t milliseconds)
{
    timespec deadline{};
    PosixCall("clock_gettime", ::clock_gettime, CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += static_cast<time_t>(milliseconds / 1000);
    deadline.tv_nsec += static_cast<long>(milliseconds % 1000) * 1'000'000L;
    if (deadline.tv_nsec >= 1'000'000'000L)
    {
        deadline.tv_nsec -= 1'000'000'000L;
        ++deadline.tv_sec;
    }
    // An absolute deadline makes the EINTR retry sleep no longer than asked.
    PosixCallReturningError("clock_nanosleep", ::clock_nanosleep, CLOCK_MONOTONIC, TIMER_ABSTIME, &deadline,
                            static_cast<timespec*>(nullptr));
}

} // namespace

Thread::Thread(ThreadSettings settings, void* argument) : settings(std::move(settings)), argument(argument)
{
    if (!this->settings.function)
    {
        throw ArgumentException::Create("settings", this->settings.name, "Thread function is empty");
    }
}

Thread::~Thread()
{
    if (!IsJoinable())
    {
        return;
    }
    try
    {
        if (currentThread == this)
        {
            currentThread = nullptr;
            PosixCallReturningError("pthread_detach", ::pthread_detach, ::pthread_self());
        }
        else
        {
            PosixCallReturningError("pthread_join", ::pthread_join, handle, static_cast<void**>(nullptr));
        }
    }
    catch (const std::exception&)
    {
        // Neither call fails for a valid, joinable thread; a destructor cannot report it anyway.
    }
}

void Thread::Start()
{
    if (started)
    {
        throw InvalidOperationException("Thread '{0}' was already started.", settings.name);
    }
    ThreadAttributes attributes;
    if (settings.stackSize > 0)
    {
        PosixCallReturningError("pthread_attr_setstacksize", ::pthread_attr_setstacksize, attributes.Get(),
                                static_cast<std::size_t>(settings.stackSize));
    }
    if (settings.cpuAffinity != 0)
    {
        const auto mask = static_cast<unsigned int>(settings.cpuAffinity);
        cpu_set_t cpus;
        CPU_ZERO(&cpus);
        for (unsigned int cpu = 0; cpu < sizeof(mask) * 8; ++cpu)
        {
            if ((mask & (1u << cpu)) != 0)
            {
                CPU_SET(cpu, &cpus);
            }
        }
        PosixCallReturningError("pthread_attr_setaffinity_np", ::pthread_attr_setaffinity_np, attributes.Get(), sizeof(cpus),
                                static_cast<const cpu_set_t*>(&cpus));
    }
    if (settings.priority != 0)
    {
        sched_param parameters{};
        parameters.sched_priority = settings.priority;
        PosixCallReturningError("pthread_attr_setinheritsched", ::pthread_attr_setinheritsched, attributes.Get(),
                                PTHREAD_EXPLICIT_SCHED);
        PosixCallReturningError("pthread_attr_setschedpolicy", ::pthread_attr_setschedpolicy, attributes.Get(), SCHED_FIFO);
        PosixCallReturningError("pthread_attr_setschedparam", ::pthread_attr_setschedparam, attributes.Get(),
                                static_cast<const sched_param*>(&parameters));
    }

    // Both set before the body can begin: a caller never sees 0 between Start and the body, and
    // the body itself already sees a joinable thread. `handle` is not written yet when the body
    // starts, so the body's own thread is recognised through `currentThread` instead.
    state.store(StateRunning);
    started = true;
    try
    {
        PosixCallReturningError("pthread_create", ::pthread_create, &handle, static_cast<const pthread_attr_t*>(attributes.Get()),
                                &Thread::Run, static_cast<void*>(this));
    }
    catch (...)
    {
        started = false;
        state.store(StateNotActive);
        throw;
    }
}

bool Thread::IsJoinable() const noexcept
{
    return started && !joined;
}

void Thread::Join()
{
    if (!IsJoinable())
    {
        throw InvalidOperationException("Thread '{0}' is not joinable.", settings.name);
    }
    if (currentThread == this)
    {
        throw InvalidOperationException("Thread '{0}' cannot join itself.", settings.name);
    }
    PosixCallReturningError("pthread_join", ::pthread_join, handle, static_cast<void**>(nullptr));
    joined = true;
}

void* Thread::Run(void* self)
{
    auto* thread = static_cast<Thread*>(self);
    currentThread = thread;
    try
    {
        const String name = thread->settings.name.substr(0, MaxThreadNameLength);
        PosixCallReturningError("pthread_setname_np", ::pthread_setname_np, ::pthread_self(), name.c_str());
    }
    catch (const std::exception&)
    {
        // The name only serves diagnostics; the thread runs without it.
    }

    // Copies, because the body may destroy its own Thread object.
    const ThreadDelegate body = thread->settings.function;
    const String name = thread->settings.name;
    try
    {
        body(thread->argument);
    }
    catch (const std::exception& e)
    {
        Diagnostics::Logging::LogManager::GetLogger("Zun::System::Commons::Threading::Thread")
            .Log(1, "Thread '{0}' ended by an exception: {1}", name, e.what());
    }

    if (currentThread == thread)
    {
        thread->state.store(StateNotActive);
    }
    currentThread = nullptr;
    return nullptr;
}

void Thread::Sleep(std::uint32_t milliseconds)
{
    SleepFunction function;
    {
        SleepSeam& seam = GetSleepSeam();
        std::lock_guard<std::mutex> lock(seam.mutex);
        function = seam.function;
    }
    // Called without the lock: a test's sleep function blocks until it is released.
    if (function)
    {
        function(milliseconds);
    }
    else
    {
        RealSleep(milliseconds);
    }
}

void Thread::SetSleepFunction(SleepFunction function)
{
    SleepSeam& seam = GetSleepSeam();
    std::lock_guard<std::mutex> lock(seam.mutex);
    seam.function = std::move(function);
}

} // namespace Zun::System::Commons::Threading
