// Windowing and standard orientation of a 512 x 512 image, each beside its memory-speed limit.
#include "ndicomimage.h"

#include "../timing.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <vector>

namespace {

struct Case {
    const char* name;
    std::function<void()> call;
    std::vector<double> times;
};

// Median time of one call in microseconds. The cases are measured in turns (round after round) so
// that a busy machine slows them alike and the ratios stay comparable; the first case is the limit.
void runSideBySide(std::vector<Case>& cases, int repeat, int rounds = 15)
{
    for (Case& c : cases)
        c.call();
    for (int r = 0; r < rounds; ++r)
        for (Case& c : cases) {
            const auto start = std::chrono::steady_clock::now();
            for (int i = 0; i < repeat; ++i)
                c.call();
            const auto end = std::chrono::steady_clock::now();
            c.times.push_back(std::chrono::duration<double, std::micro>(end - start).count() / repeat);
        }
    double reference = 0;
    for (Case& c : cases) {
        std::sort(c.times.begin(), c.times.end());
        const double median = c.times[c.times.size() / 2];
        if (reference == 0)
            reference = median;
        std::printf("  %-46s %9.1f us  %5.2fx\n", c.name, median, median / reference);
    }
}

} // namespace

int main()
{
    const int n = 512;
    NDicomImage image(n, n, 2);
    unsigned int seed = 12345;
    for (int y = 0; y < n; ++y)
        for (int x = 0; x < n; ++x) {
            seed = seed * 1103515245u + 12345u;
            image.setValue16u(x, y, quint16((seed >> 16) % 4096)); // MR-like 12-bit values
        }
    image.setSlopeAndIntercept(1.0, -1024.0);
    std::vector<unsigned int> out(size_t(n) * n);
    std::vector<unsigned int> source(size_t(n) * n, 7);
    volatile unsigned int sink = 0;

    std::printf("getGrayImage32, %d x %d, output %zu KiB (median per call)\n", n, n, out.size() * 4 / 1024);
    double width = 400;
    NDicomImage pixel(1, 1, 2);
    pixel.setValue16u(0, 0, 100);
    unsigned int one = 0;
    std::vector<Case> windowing{
        {"memcpy of the output size (limit)", [&] { std::memcpy(out.data(), source.data(), out.size() * 4); sink = sink + out[1]; }, {}},
        {"getGrayImage32, table reused", [&] { image.getGrayImage32(400, 40, out.data()); sink = sink + out[1]; }, {}},
        {"getGrayImage32, window changed every call", [&] {
             width = width == 400 ? 401 : 400;
             image.getGrayImage32(width, 40, out.data());
             sink = sink + out[1];
         }, {}},
        {"table build alone (1-pixel image, new window)", [&] {
             width = width == 400 ? 401 : 400;
             pixel.getGrayImage32(width, 40, &one);
             sink = sink + one;
         }, {}},
    };
    runSideBySide(windowing, 200);
    {
        // Large images are shared out to both cores; a call after a pause also pays for waking
        // the second core's thread (as the viewer's first picture after the user stops does).
        const std::vector<double> idle = sortedTimesAfterPause(60, 20, [&] { image.getGrayImage32(400, 40, out.data()); });
        std::printf("  %-46s %9.1f us  (one call after 20 ms idle, median of 60)\n", "getGrayImage32, table reused, idle first",
                    idle[idle.size() / 2] * 1000);
    }

    std::printf("\ngetStandardDicomImage, %d x %d 16-bit (median per call)\n", n, n);
    std::vector<char> bytes(size_t(n) * n * 2);
    std::vector<Case> standard{
        {"memcpy of the image (limit)", [&] { std::memcpy(bytes.data(), image.data(), bytes.size()); sink = sink + bytes[3]; }, {}},
        {"transposed axial -> standard", [&] {
             image.setOriention(0, 1, 0, -1, 0, 0); // swap and reverse
             image.getStandardDicomImage(image);
         }, {}},
        {"reversed axial -> standard", [&] {
             image.setOriention(-1, 0, 0, 0, -1, 0); // both axes reversed, in place
             image.getStandardDicomImage(image);
         }, {}},
        {"reversed coronal -> standard", [&] {
             image.setOriention(1, 0, 0, 0, 0, 1); // rows swapped
             image.getStandardDicomImage(image);
         }, {}},
    };
    runSideBySide(standard, 50);
    return sink == 42 ? 1 : 0;
}
