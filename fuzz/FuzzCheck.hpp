// Helpers shared by the fuzz targets: a finding is reported on stderr and ends the process with
// abort(), which both libFuzzer and the replay main treat as a failure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>

#define ZUN_FUZZ_CHECK(condition, what)                                                                 \
    do                                                                                                  \
    {                                                                                                   \
        if (!(condition))                                                                               \
        {                                                                                               \
            std::fprintf(stderr, "fuzz finding at %s:%d: %s (%s)\n", __FILE__, __LINE__, what, #condition); \
            std::abort();                                                                               \
        }                                                                                               \
    } while (false)

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);
