// The framework's exception hierarchy: messages are format strings filled with {0}-style arguments.
#pragma once

#include <exception>
#include <type_traits>
#include <utility>

#include <fmt/format.h>

#include "Zun/Commons/Export.hpp"
#include "Zun/Commons/FormatExceptionHandler.hpp"
#include "Zun/Commons/String.hpp"

namespace Zun
{

class ZUN_EXPORT Exception : public std::exception
{
public:
    Exception() = default;
    // The message as it stands; braces are not interpreted.
    explicit Exception(String message) : message(std::move(message)) {}
    // The message formatted from `format` with `args` ({} or {0} placeholders).
    template <class... Args, std::enable_if_t<(sizeof...(Args) > 0), int> = 0>
    Exception(const char* format, const Args&... args) : message(Format(format, args...))
    {
    }
    ~Exception() override;

    const char* what() const noexcept override { return message.c_str(); }
    const String& GetMessage() const noexcept { return message; }

    // Formats with fmt; a malformed format string yields the format-exception handler's text
    // instead of a second exception.
    template <class... Args>
    static String Format(const char* format, const Args&... args)
    {
        try
        {
            return String(fmt::vformat(format, fmt::make_format_args(args...)));
        }
        catch (const fmt::format_error& e)
        {
            return System::Commons::FormatExceptionHandler::Handle(format, e.what());
        }
    }

private:
    String message;
};

} // namespace Zun

namespace Zun::System::Commons
{

class ZUN_EXPORT ArgumentException : public Zun::Exception
{
public:
    // "{message} (argument '{name}', value '{value}')"
    static constexpr const char* MessageWithValueFormat = "{2} (argument '{0}', value '{1}')";
    // "{message} (argument '{name}')"
    static constexpr const char* MessageFormat = "{1} (argument '{0}')";

    ArgumentException(String argumentName, String message);
    ~ArgumentException() override;

    template <class T>
    static ArgumentException Create(const char* argumentName, const T& argumentValue, const char* message)
    {
        return ArgumentException(argumentName, Format(MessageWithValueFormat, argumentName, argumentValue, message));
    }
    static ArgumentException Create(const char* argumentName, const char* message)
    {
        return ArgumentException(argumentName, Format(MessageFormat, argumentName, message));
    }

    const String& GetArgumentName() const noexcept { return argumentName; }

private:
    String argumentName;
};

class ZUN_EXPORT InvalidOperationException : public Zun::Exception
{
public:
    using Zun::Exception::Exception;
    ~InvalidOperationException() override;
};

class ZUN_EXPORT InvalidCastException : public Zun::Exception
{
public:
    using Zun::Exception::Exception;
    ~InvalidCastException() override;
};

class ZUN_EXPORT NotSupportedException : public Zun::Exception
{
public:
    using Zun::Exception::Exception;
    ~NotSupportedException() override;
};

} // namespace Zun::System::Commons
