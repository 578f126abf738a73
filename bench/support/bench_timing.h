#pragma once
// What every benchmark times with: the performance counter in nanoseconds, and the
// per-batch figures of which a table shows the fastest (what the code costs when nothing
// gets in the way on a shared machine) and the median.

#include <windows.h>

#include <algorithm>
#include <vector>

namespace bench {

inline double now_ns()
{
    static const double ns_per_tick = [] {
        LARGE_INTEGER frequency;
        ::QueryPerformanceFrequency(&frequency);
        return 1e9 / static_cast<double>(frequency.QuadPart);
    }();
    LARGE_INTEGER counter;
    ::QueryPerformanceCounter(&counter);
    return static_cast<double>(counter.QuadPart) * ns_per_tick;
}

struct samples {
    std::vector<double> ns;  // one entry per batch

    double best() const { return *std::min_element(ns.begin(), ns.end()); }
    double median() const
    {
        std::vector<double> sorted = ns;
        std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
        return sorted[sorted.size() / 2];
    }
};

}  // namespace bench
