// Out-of-line members of the framework exceptions, so that their type information lives in Commons.
#include "Zun/Commons/Exception.hpp"

namespace Zun
{

Exception::~Exception() = default;

} // namespace Zun

namespace Zun::System::Commons
{

ArgumentException::ArgumentException(String argumentName, String message)
    : Zun::Exception(std::move(message)), argumentName(std::move(argumentName))
{
}

ArgumentException::~ArgumentException() = default;
InvalidOperationException::~InvalidOperationException() = default;
InvalidCastException::~InvalidCastException() = default;
NotSupportedException::~NotSupportedException() = default;

} // namespace Zun::System::Commons
