// The one checked way to call the OS: retries EINTR and turns a failure into a SystemException with errno.
#pragma once

#include <cerrno>
#include <type_traits>

#include "Zun/Commons/Exception.hpp"
#include "Zun/Commons/Export.hpp"

namespace Zun::System::Commons
{

class ZUN_EXPORT SystemException : public Zun::Exception
{
public:
    // "{function} failed: {strerror} (errno {code})"
    SystemException(const char* function, int errorCode);
    ~SystemException() override;
    int GetErrorCode() const noexcept { return errorCode; }

private:
    int errorCode;
};

// For calls that return -1 and set errno. Returns the call's result.
template <class F, class... Args>
auto PosixCall(const char* name, F function, Args... args)
{
    for (;;)
    {
        auto result = function(args...);
        if (result != -1)
        {
            return result;
        }
        if (errno != EINTR)
        {
            throw SystemException(name, errno);
        }
    }
}

// For calls that return -1 and set errno where some errno values are expected outcomes:
// returns -1 with `errorOut` set for those, throws for the others.
template <class F, class... Args>
auto PosixCallAllowing(const char* name, std::initializer_list<int> allowed, int& errorOut, F function, Args... args)
{
    for (;;)
    {
        errorOut = 0;
        auto result = function(args...);
        if (result != -1)
        {
            return result;
        }
        const int code = errno;
        if (code == EINTR)
        {
            continue;
        }
        for (int a : allowed)
        {
            if (a == code)
            {
                errorOut = code;
                return result;
            }
        }
        throw SystemException(name, code);
    }
}

// For calls that return 0 or an error number (pthreads).
template <class F, class... Args>
void PosixCallReturningError(const char* name, F function, Args... args)
{
    for (;;)
    {
        const int code = function(args...);
        if (code == 0)
        {
            return;
        }
        if (code != EINTR)
        {
            throw SystemException(name, code);
        }
    }
}

} // namespace Zun::System::Commons
