// The exception of a failed OS call.
#include <cstring>

#include "Zun/Commons/PosixCall.hpp"

namespace Zun::System::Commons
{

namespace
{
String DescribeError(int errorCode)
{
    char buffer[256] = {};
    // GNU strerror_r may return a static text instead of filling the buffer.
    return String(::strerror_r(errorCode, buffer, sizeof(buffer)));
}
} // namespace

SystemException::SystemException(const char* function, int errorCode)
    : Zun::Exception("{0} failed: {1} (errno {2})", String(function != nullptr ? function : "?"), DescribeError(errorCode), errorCode),
      errorCode(errorCode)
{
}

SystemException::~SystemException() = default;

} // namespace Zun::System::Commons
