#include "simd/kernels_p.h"

#include <algorithm>
#include <cstring>

// The scalar twins of the vector kernels: the same results in the plainest form.
namespace kestrel::internal {

void maxInPlaceS16Scalar(short* dst, const short* src, qint64 n)
{
    for (qint64 i = 0; i < n; ++i)
        dst[i] = src[i] > dst[i] ? src[i] : dst[i];
}

void minInPlaceS16Scalar(short* dst, const short* src, qint64 n)
{
    for (qint64 i = 0; i < n; ++i)
        dst[i] = src[i] < dst[i] ? src[i] : dst[i];
}

void accumulateS16Scalar(qint32* acc, const short* src, qint64 n)
{
    for (qint64 i = 0; i < n; ++i)
        acc[i] += src[i];
}

void divideToS16Scalar(short* dst, const qint32* acc, qint64 n, int count)
{
    for (qint64 i = 0; i < n; ++i)
        dst[i] = short(acc[i] / count);
}

short reduceMaxS16Scalar(const short* src, qint64 n)
{
    short result = src[0];
    for (qint64 i = 1; i < n; ++i)
        result = src[i] > result ? src[i] : result;
    return result;
}

short reduceMinS16Scalar(const short* src, qint64 n)
{
    short result = src[0];
    for (qint64 i = 1; i < n; ++i)
        result = src[i] < result ? src[i] : result;
    return result;
}

qint32 reduceSumS16Scalar(const short* src, qint64 n)
{
    qint32 sum = 0;
    for (qint64 i = 0; i < n; ++i)
        sum += src[i];
    return sum;
}

void reduceRunsS16Scalar(short* out, const char* first, qint64 stride, qint64 runs, int count, SlabRule rule)
{
    for (qint64 r = 0; r < runs; ++r) {
        const char* p = first + r * stride;
        qint32 sum = 0;
        short v;
        std::memcpy(&v, p, 2);
        for (int i = 0; i < count; ++i) {
            short x;
            std::memcpy(&x, p + 2 * i, 2);
            sum += x;
            v = rule == SlabMin ? std::min(v, x) : std::max(v, x);
        }
        out[r] = rule == SlabAverage ? short(sum / count) : v;
    }
}

namespace {

// One blend stage: (a * (512 - f) + b * f) shifted right by 9 as unsigned, saturated to 16 bits.
// A negative sum thus becomes 32767; the oblique views have always sampled this way.
short blend(int a, int b, int f)
{
    const qint32 sum = a * (512 - f) + b * f;
    const quint32 shifted = quint32(sum) >> 9;
    return shifted > 32767u ? short(32767) : short(shifted);
}

short read16(const char* p)
{
    short v;
    std::memcpy(&v, p, 2);
    return v;
}

} // namespace

short sampleTrilinearS16Scalar(const char* data, const int* steps, float x, float y, float z)
{
    const FixedPoint fx = fixedPoint(x), fy = fixedPoint(y), fz = fixedPoint(z);
    const quint32 base = quint32(steps[0]) * quint32(fx.i) + quint32(steps[1]) * quint32(fy.i)
        + quint32(steps[2]) * quint32(fz.i);
    const char* p[4] = {data + base, data + base + steps[1], data + base + steps[2],
                        data + base + steps[1] + steps[2]};
    short s1[4];
    for (int n = 0; n < 4; ++n)
        s1[n] = blend(read16(p[n]), read16(p[n] + 2), fx.f);
    const short row0 = blend(s1[0], s1[1], fy.f);
    const short row1 = blend(s1[2], s1[3], fy.f);
    return blend(row0, row1, fz.f);
}

void sampleLineS16Scalar(const LineSource& source, const double* start, const double* step, int n, short* out,
                         qptrdiff stride)
{
    const double S[3] = {512.0 * start[0], 512.0 * start[1], 512.0 * start[2]};
    const double D[3] = {512.0 * step[0], 512.0 * step[1], 512.0 * step[2]};
    for (int m = 0; m < n; ++m)
        out[m * stride] = sampleLinePoint(source, S, D, m);
}

void lookupU16Scalar(quint32* out, const quint16* in, const quint32* table, qint64 n)
{
    for (qint64 i = 0; i < n; ++i)
        out[i] = table[in[i]];
}

void reverseU16Scalar(quint16* first, quint16* last)
{
    std::reverse(first, last);
}

void transposeU16Scalar(const quint16* s0, qptrdiff ex, qptrdiff ey, quint16* d0, qptrdiff line, int w, int h)
{
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            d0[y * line + x] = s0[y * ey + x * ex];
}

} // namespace kestrel::internal
