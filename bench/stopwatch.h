#pragma once
// Wall-clock timing for the benchmarks.

#include <chrono>
#include <cstdio>
#include <cstring>

namespace plim::bench {

using Steady = std::chrono::steady_clock;

inline double millisecondsSince(Steady::time_point start)
{
    return std::chrono::duration<double, std::milli>(Steady::now() - start).count();
}

// This process's peak resident memory in MB (VmHWM). Unlike getrusage's maxrss of a child,
// it starts afresh at exec, so a parent's size before fork does not count.
inline double peakResidentMB()
{
    double kb = 0;
    if (FILE* status = std::fopen("/proc/self/status", "r")) {
        char line[256];
        while (std::fgets(line, sizeof line, status))
            if (std::strncmp(line, "VmHWM:", 6) == 0)
                kb = std::atof(line + 6);
        std::fclose(status);
    }
    return kb / 1024.0;
}

} // namespace plim::bench
