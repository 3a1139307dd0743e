#pragma once

#include "platform/testexport_p.h"

#include <QtGlobal>

#include <algorithm>
#include <cmath>
#include <cstring>

// The library's vector kernels. Each has a plain scalar twin of the same result, which the tests
// use as the reference. The kernels live in kernels_sse41.cpp (the one file built for SSE4.1; the
// few that gain from AVX2 hand over to kernels_avx2.cpp where the processor has it), the twins in
// kernels_scalar.cpp.
namespace kestrel::internal {

// --- reductions of the plane and slab cutters over signed 16-bit voxels ---

// dst[n] = max(dst[n], src[n]) / min(...), signed 16-bit, for N values.
KESTREL_TEST_EXPORT void maxInPlaceS16(short* dst, const short* src, qint64 n);
KESTREL_TEST_EXPORT void minInPlaceS16(short* dst, const short* src, qint64 n);
// acc[n] += src[n] in 32 bits.
KESTREL_TEST_EXPORT void accumulateS16(qint32* acc, const short* src, qint64 n);
// dst[n] = acc[n] / count, truncated toward zero, stored as 16 bits.
KESTREL_TEST_EXPORT void divideToS16(short* dst, const qint32* acc, qint64 n, int count);

// The rules a slab is folded by.
enum SlabRule { SlabMax = 0, SlabMin = 1, SlabAverage = 2 };

// out[r] = the maximum, minimum or average (32-bit sum divided by COUNT, truncated toward zero) of
// the COUNT (> 0) contiguous values at FIRST + r * STRIDE bytes, for r < RUNS: the runs across a
// slab when the slab's axis is the contiguous one. Nothing outside the runs is read.
KESTREL_TEST_EXPORT void reduceRunsS16(short* out, const char* first, qint64 stride, qint64 runs, int count, SlabRule rule);
KESTREL_TEST_EXPORT void reduceRunsS16Scalar(short* out, const char* first, qint64 stride, qint64 runs, int count,
                                             SlabRule rule);

// Maximum, minimum and 32-bit sum of N (> 0) contiguous values.
KESTREL_TEST_EXPORT short reduceMaxS16(const short* src, qint64 n);
KESTREL_TEST_EXPORT short reduceMinS16(const short* src, qint64 n);
KESTREL_TEST_EXPORT qint32 reduceSumS16(const short* src, qint64 n);

KESTREL_TEST_EXPORT void maxInPlaceS16Scalar(short* dst, const short* src, qint64 n);
KESTREL_TEST_EXPORT void minInPlaceS16Scalar(short* dst, const short* src, qint64 n);
KESTREL_TEST_EXPORT void accumulateS16Scalar(qint32* acc, const short* src, qint64 n);
KESTREL_TEST_EXPORT void divideToS16Scalar(short* dst, const qint32* acc, qint64 n, int count);

KESTREL_TEST_EXPORT short reduceMaxS16Scalar(const short* src, qint64 n);
KESTREL_TEST_EXPORT short reduceMinS16Scalar(const short* src, qint64 n);
KESTREL_TEST_EXPORT qint32 reduceSumS16Scalar(const short* src, qint64 n);

// --- trilinear sample of the oblique views ---

// The voxel value at fractional position (x, y, z) of 16-bit signed voxels, in 9-bit fixed point.
// STEPS holds the byte strides per voxel, row and slice (the next voxel along a row is read 2 bytes
// on); the position lies one voxel short of each far edge. Each of the three blends is (a * (512 - f) + b * f) shifted right by 9 as unsigned and
// saturated to 32767, so a negative weighted sum gives 32767.
KESTREL_TEST_EXPORT short sampleTrilinearS16(const char* data, const int* steps, float x, float y, float z);
KESTREL_TEST_EXPORT short sampleTrilinearS16Scalar(const char* data, const int* steps, float x, float y,
                                                   float z);

// Whole voxel and 9-bit fraction of a sampler coordinate. Internal linkage: the two kernel files
// are built for different instruction sets and must not share one copy.
struct FixedPoint {
    int i, f;
};

static inline FixedPoint fixedPoint(float v)
{
    const int i = int(v);
    return {i, int(std::lrint(512.0f * v)) - 512 * i};
}

// --- trilinear samples along a line, for oblique planes, slabs, projections and curves ---

// The voxels a line sampler reads: 16-bit signed voxels with byte strides STEPS (2 along i) and
// SIZE voxels per axis. An axis of one voxel is given as stride 0 and size 2.
struct LineSource {
    const char* data;
    int steps[3];
    int size[3];
};

// Samples N points START + n * STEP (fractional voxel indices i, j, k), each inside [0, size - 1]
// on every axis (a position rounding past an edge is held at it), into OUT[n * STRIDE]. The value
// is sampleTrilinearS16's: 9-bit fractions of round(512 * position), three blends of
// (a * (512 - f) + b * f) >> 9, but the shift is arithmetic, so negative voxels blend as they are
// (rounded down) instead of giving 32767. Non-negative voxels give the same values.
KESTREL_TEST_EXPORT void sampleLineS16(const LineSource& source, const double* start, const double* step, int n,
                                       short* out, qptrdiff stride);
KESTREL_TEST_EXPORT void sampleLineS16Scalar(const LineSource& source, const double* start, const double* step, int n,
                                             short* out, qptrdiff stride);

// Sample N of such a line, the twins' common definition. S and D are START and STEP times 512
// (exact: a power of two), so 512 * (start + n * step) is S + n * D to the last bit.
static inline short sampleLinePoint(const LineSource& source, const double* S, const double* D, int n)
{
    int index[3], fraction[3];
    for (int a = 0; a < 3; ++a) {
        const int limit = 512 * (source.size[a] - 1);
        const int p = std::min(std::max(int(std::lrint(S[a] + double(n) * D[a])), 0), limit);
        index[a] = std::min(p >> 9, source.size[a] - 2);
        fraction[a] = p - (index[a] << 9);
    }
    const char* base = source.data + qptrdiff(index[0]) * source.steps[0] + qptrdiff(index[1]) * source.steps[1]
        + qptrdiff(index[2]) * source.steps[2];
    auto voxel = [](const char* p) {
        short v;
        std::memcpy(&v, p, 2);
        return int(v);
    };
    // (a * (512 - f) + b * f) >> 9 = a + ((b - a) * f >> 9): the multiple of 512 leaves the floor alone.
    auto blend = [](int a, int b, int f) { return a + (((b - a) * f) >> 9); };
    const int s1 = source.steps[1], s2 = source.steps[2], fx = fraction[0];
    const int r0 = blend(voxel(base), voxel(base + 2), fx);
    const int r1 = blend(voxel(base + s1), voxel(base + s1 + 2), fx);
    const int r2 = blend(voxel(base + s2), voxel(base + s2 + 2), fx);
    const int r3 = blend(voxel(base + s1 + s2), voxel(base + s1 + s2 + 2), fx);
    return short(blend(blend(r0, r1, fraction[1]), blend(r2, r3, fraction[1]), fraction[2]));
}

// --- display kernels of 16-bit images ---

// out[n] = table[in[n]] for N values: the window lookup of the grey images.
KESTREL_TEST_EXPORT void lookupU16(quint32* out, const quint16* in, const quint32* table, qint64 n);
KESTREL_TEST_EXPORT void lookupU16Scalar(quint32* out, const quint16* in, const quint32* table, qint64 n);
// The same with AVX2 gathers (kernels_avx2.cpp); lookupU16 calls it where the processor has AVX2.
void lookupU16Avx2(quint32* out, const quint16* in, const quint32* table, qint64 n);

// Reverses [first, last) in place.
KESTREL_TEST_EXPORT void reverseU16(quint16* first, quint16* last);
KESTREL_TEST_EXPORT void reverseU16Scalar(quint16* first, quint16* last);

// Fills W x H values of D (LINE values per row) from S0: d[y * LINE + x] = s0[y * EY + x * EX].
// EY is +1 or -1 (a source column runs along memory), EX any stride.
KESTREL_TEST_EXPORT void transposeU16(const quint16* s0, qptrdiff ex, qptrdiff ey, quint16* d0, qptrdiff line, int w,
                                      int h);
KESTREL_TEST_EXPORT void transposeU16Scalar(const quint16* s0, qptrdiff ex, qptrdiff ey, quint16* d0, qptrdiff line,
                                            int w, int h);

} // namespace kestrel::internal
