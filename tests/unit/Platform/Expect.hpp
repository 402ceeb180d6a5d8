// The message of the E that `action` throws; any other outcome is named instead, so a comparison shows it.
#pragma once

#include <exception>
#include <string>

namespace ZunTest
{

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

} // namespace ZunTest
