#include "Zun/Testing/TimeScale.hpp"

#include <cstdlib>

#ifndef ZUN_TEST_TIME_SCALE
#define ZUN_TEST_TIME_SCALE 1
#endif

namespace Zun::Testing
{

double TimeScale()
{
    static const double scale = [] {
        double value = ZUN_TEST_TIME_SCALE;
        if (const char* text = std::getenv("ZUN_TEST_TIME_SCALE"))
        {
            char* end = nullptr;
            const double parsed = std::strtod(text, &end);
            if (end != text && *end == '\0' && parsed >= 1.0 && parsed <= 1000.0)
            {
                value = parsed;
            }
        }
        return value < 1.0 ? 1.0 : value;
    }();
    return scale;
}

std::chrono::milliseconds Scaled(std::chrono::milliseconds base)
{
    return std::chrono::milliseconds(static_cast<std::chrono::milliseconds::rep>(static_cast<double>(base.count()) * TimeScale()));
}

} // namespace Zun::Testing
