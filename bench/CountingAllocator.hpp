// Counts the heap allocations of the whole benchmark process (every thread, the service's included),
// so that a benchmark can report how many one call makes.
#pragma once

#include <cstddef>

#include <benchmark/benchmark.h>

namespace Zun::Bench
{

// Allocations made through operator new since the program started.
std::size_t Allocations() noexcept;

// Sets the counter "allocations_per_call" from the allocations since `before` over the iterations.
inline void SetAllocationsPerCall(benchmark::State& state, std::size_t before)
{
    const std::size_t made = Allocations() - before;
    state.counters["allocations_per_call"] =
        state.iterations() == 0 ? 0.0 : static_cast<double>(made) / static_cast<double>(state.iterations());
}

} // namespace Zun::Bench
