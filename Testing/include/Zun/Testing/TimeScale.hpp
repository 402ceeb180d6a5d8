// The one time scale of the tests. No test passes or fails by the machine's speed: tests wait on
// events, and the bound of every such wait (a watchdog, a latch, a child process that must answer)
// is a base duration stretched by this factor. Sanitizer and qemu builds set a larger factor at
// configure time (ZUN_TEST_TIME_SCALE); the environment variable of the same name overrides it for
// a slow machine.
#pragma once

#include <chrono>

namespace Zun::Testing
{

// The factor, at least 1.
double TimeScale();

// `base` stretched by TimeScale().
std::chrono::milliseconds Scaled(std::chrono::milliseconds base);

// The bound of a wait for an event that is expected to come: long enough never to fire on a
// healthy run, short enough to fail a hung one well before ctest's own limit.
inline std::chrono::milliseconds Patience()
{
    return Scaled(std::chrono::seconds(20));
}

} // namespace Zun::Testing
