#pragma once

// What the benchmarks share to time a piece of work inside their process.

#include <QElapsedTimer>

#include <algorithm>
#include <functional>
#include <vector>

// The times of RUNS runs of BODY, after one run to warm up (caches, first allocations), in
// milliseconds, shortest first.
inline std::vector<double> sortedRunTimes(int runs, const std::function<void()>& body)
{
    body();
    std::vector<double> ms;
    for (int r = 0; r < runs; ++r) {
        QElapsedTimer timer;
        timer.start();
        body();
        ms.push_back(timer.nsecsElapsed() / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    return ms;
}
