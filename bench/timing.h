#pragma once

// What the benchmarks share to time a piece of work inside their process.

#include <QElapsedTimer>
#include <QThread>

#include <algorithm>
#include <functional>
#include <vector>

// The times of RUNS runs of BODY, each after PAUSEMS of idleness (as a user scrolls or turns a plane
// now and then: threads asleep, caches cold; 0: none), in milliseconds, shortest first.
inline std::vector<double> sortedTimesAfterPause(int runs, int pauseMs, const std::function<void()>& body)
{
    std::vector<double> ms;
    for (int r = 0; r < runs; ++r) {
        if (pauseMs > 0)
            QThread::msleep(static_cast<unsigned long>(pauseMs));
        QElapsedTimer timer;
        timer.start();
        body();
        ms.push_back(timer.nsecsElapsed() / 1e6);
    }
    std::sort(ms.begin(), ms.end());
    return ms;
}

// The times of RUNS runs of BODY one after the other, after one run to warm up (caches, first
// allocations), in milliseconds, shortest first.
inline std::vector<double> sortedRunTimes(int runs, const std::function<void()>& body)
{
    body();
    return sortedTimesAfterPause(runs, 0, body);
}
