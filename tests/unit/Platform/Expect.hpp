// Shared checks for the stand-in's tests: an exception's exact type and message, and a value's stream text.
#pragma once

#include <exception>
#include <sstream>
#include <string>

namespace ZunTest
{

// The message of the E that `action` throws; any other outcome is named instead, so a comparison shows it.
template <class E, class F>
std::string MessageOf(F&& action)
{
    try
    {
        action();
    }
    catch (const E& e)
    {
        return e.what();
    }
    catch (const std::exception& e)
    {
        return std::string("other exception: ") + e.what();
    }
    return "no exception";
}

// What operator<< writes, followed by "!" when it failed the stream.
template <class T>
std::string Print(const T& value)
{
    std::ostringstream stream;
    stream << value;
    return stream.str() + (stream.fail() ? "!" : "");
}

} // namespace ZunTest
