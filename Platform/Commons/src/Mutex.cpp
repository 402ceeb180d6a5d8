// pthread mutex; the non-recursive one checks errors so that a self-deadlock throws instead of hanging.
#include <cerrno>

#include "Zun/Commons/Mutex.hpp"
#include "Zun/Commons/PosixCall.hpp"

namespace Zun::System::Commons::Threading
{

Mutex::Mutex(bool recursive)
{
    pthread_mutexattr_t attributes;
    PosixCallReturningError("pthread_mutexattr_init", ::pthread_mutexattr_init, &attributes);
    try
    {
        PosixCallReturningError("pthread_mutexattr_settype", ::pthread_mutexattr_settype, &attributes,
                                recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_ERRORCHECK);
        PosixCallReturningError("pthread_mutex_init", ::pthread_mutex_init, &handle, &attributes);
    }
    catch (...)
    {
        ::pthread_mutexattr_destroy(&attributes);
        throw;
    }
    ::pthread_mutexattr_destroy(&attributes);
}

Mutex::~Mutex()
{
    // EBUSY here means a lock is still held: nothing a destructor can repair.
    ::pthread_mutex_destroy(&handle);
}

void Mutex::Lock()
{
    PosixCallReturningError("pthread_mutex_lock", ::pthread_mutex_lock, &handle);
}

void Mutex::Unlock()
{
    PosixCallReturningError("pthread_mutex_unlock", ::pthread_mutex_unlock, &handle);
}

bool Mutex::TryLock()
{
    const int code = ::pthread_mutex_trylock(&handle);
    if (code == EBUSY)
    {
        return false;
    }
    if (code != 0)
    {
        throw SystemException("pthread_mutex_trylock", code);
    }
    return true;
}

} // namespace Zun::System::Commons::Threading
