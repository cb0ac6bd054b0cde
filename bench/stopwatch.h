#pragma once
// Wall-clock timing for the benchmarks.

#include <chrono>

namespace plim::bench {

using Steady = std::chrono::steady_clock;

inline double millisecondsSince(Steady::time_point start)
{
    return std::chrono::duration<double, std::milli>(Steady::now() - start).count();
}

} // namespace plim::bench
