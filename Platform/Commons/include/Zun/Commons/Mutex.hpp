// Framework mutex over pthreads; recursive when constructed with true. Usable with std::lock_guard.
#pragma once

#include <pthread.h>

#include "Zun/Commons/Export.hpp"

namespace Zun::System::Commons::Threading
{

class ZUN_EXPORT Mutex
{
public:
    explicit Mutex(bool recursive = false);
    ~Mutex();
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock();
    void Unlock();
    bool TryLock();

    // BasicLockable, for std::lock_guard and std::unique_lock.
    void lock() { Lock(); }
    void unlock() { Unlock(); }
    bool try_lock() { return TryLock(); }

private:
    pthread_mutex_t handle;
};

} // namespace Zun::System::Commons::Threading
