#include "simd/kernels_p.h"

#include "nvolume.h"

#include <smmintrin.h>

#include <cmath>
#include <cstring>

namespace kestrel::internal {

void maxInPlaceS16(short* dst, const short* src, qint64 n)
{
    qint64 i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(dst + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm_max_epi16(a, b));
    }
    for (; i < n; ++i)
        if (src[i] > dst[i])
            dst[i] = src[i];
}

void minInPlaceS16(short* dst, const short* src, qint64 n)
{
    qint64 i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(dst + i));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm_min_epi16(a, b));
    }
    for (; i < n; ++i)
        if (src[i] < dst[i])
            dst[i] = src[i];
}

void accumulateS16(qint32* acc, const short* src, qint64 n)
{
    qint64 i = 0;
    for (; i + 8 <= n; i += 8) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i));
        const __m128i lo = _mm_cvtepi16_epi32(v);
        const __m128i hi = _mm_cvtepi16_epi32(_mm_srli_si128(v, 8));
        __m128i* a = reinterpret_cast<__m128i*>(acc + i);
        _mm_storeu_si128(a, _mm_add_epi32(_mm_loadu_si128(a), lo));
        _mm_storeu_si128(a + 1, _mm_add_epi32(_mm_loadu_si128(a + 1), hi));
    }
    for (; i < n; ++i)
        acc[i] += src[i];
}

void divideToS16(short* dst, const qint32* acc, qint64 n, int count)
{
    // Integer division has no packed form; the compiler turns this into a reciprocal multiply.
    for (qint64 i = 0; i < n; ++i)
        dst[i] = short(acc[i] / count);
}

short reduceMaxS16(const short* src, qint64 n)
{
    short result = src[0];
    qint64 i = 0;
    if (n >= 8) {
        __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
        for (i = 8; i + 8 <= n; i += 8)
            m = _mm_max_epi16(m, _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        m = _mm_max_epi16(m, _mm_shuffle_epi32(m, _MM_SHUFFLE(1, 0, 3, 2)));
        m = _mm_max_epi16(m, _mm_shuffle_epi32(m, _MM_SHUFFLE(2, 3, 0, 1)));
        m = _mm_max_epi16(m, _mm_shufflelo_epi16(m, _MM_SHUFFLE(2, 3, 0, 1)));
        result = short(_mm_extract_epi16(m, 0));
    }
    for (; i < n; ++i)
        if (src[i] > result)
            result = src[i];
    return result;
}

short reduceMinS16(const short* src, qint64 n)
{
    short result = src[0];
    qint64 i = 0;
    if (n >= 8) {
        __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(src));
        for (i = 8; i + 8 <= n; i += 8)
            m = _mm_min_epi16(m, _mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)));
        m = _mm_min_epi16(m, _mm_shuffle_epi32(m, _MM_SHUFFLE(1, 0, 3, 2)));
        m = _mm_min_epi16(m, _mm_shuffle_epi32(m, _MM_SHUFFLE(2, 3, 0, 1)));
        m = _mm_min_epi16(m, _mm_shufflelo_epi16(m, _MM_SHUFFLE(2, 3, 0, 1)));
        result = short(_mm_extract_epi16(m, 0));
    }
    for (; i < n; ++i)
        if (src[i] < result)
            result = src[i];
    return result;
}

qint32 reduceSumS16(const short* src, qint64 n)
{
    qint64 i = 0;
    __m128i acc = _mm_setzero_si128();
    const __m128i ones = _mm_set1_epi16(1);
    for (; i + 8 <= n; i += 8)
        acc = _mm_add_epi32(acc, _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(src + i)), ones));
    acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, _MM_SHUFFLE(1, 0, 3, 2)));
    acc = _mm_add_epi32(acc, _mm_shuffle_epi32(acc, _MM_SHUFFLE(2, 3, 0, 1)));
    qint32 sum = _mm_cvtsi128_si32(acc);
    for (; i < n; ++i)
        sum += src[i];
    return sum;
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

namespace {

// One blend stage: (a * (512 - f) + b * f) shifted right by 9 as unsigned, saturated to 16 bits.
// A negative sum thus becomes 32767; the oblique views have always sampled this way.
short blend(int a, int b, int f)
{
    const qint32 sum = a * (512 - f) + b * f;
    const quint32 shifted = quint32(sum) >> 9;
    return shifted > 32767u ? short(32767) : short(shifted);
}

struct Fixed {
    int i, f;
};

Fixed fixedPoint(float v)
{
    const int i = int(v);
    return {i, int(std::lrint(512.0f * v)) - 512 * i};
}

short read16(const char* p)
{
    short v;
    std::memcpy(&v, p, 2);
    return v;
}

qint32 read32(const char* p)
{
    qint32 v;
    std::memcpy(&v, p, 4);
    return v;
}

} // namespace

short voxelValuedScalarS16(const char* data, const int* steps, float x, float y, float z)
{
    const Fixed fx = fixedPoint(x), fy = fixedPoint(y), fz = fixedPoint(z);
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

} // namespace kestrel::internal

using namespace kestrel::internal;

short voxel_valued_sse4_s16(char* data, int* steps, float x, float y, float z)
{
    const Fixed fx = fixedPoint(x), fy = fixedPoint(y), fz = fixedPoint(z);
    const quint32 base = quint32(steps[0]) * quint32(fx.i) + quint32(steps[1]) * quint32(fy.i)
        + quint32(steps[2]) * quint32(fz.i);
    const char* p = data + base;
    // Four (v(i), v(i+1)) pairs: this row, next row, next slice, next slice's next row.
    const __m128i pairs = _mm_set_epi32(read32(p + steps[1] + steps[2]), read32(p + steps[2]),
                                        read32(p + steps[1]), read32(p));
    const __m128i wx = _mm_set1_epi32(int((quint32(fx.f) << 16) | quint32(512 - fx.f)));
    const __m128i wy = _mm_set1_epi32(int((quint32(fy.f) << 16) | quint32(512 - fy.f)));
    const __m128i wz = _mm_set1_epi32(int((quint32(fz.f) << 16) | quint32(512 - fz.f)));
    // Each stage: multiply-add the pair by its weights, logical shift by 9, saturate to 16 bits;
    // the packed results line up as the pairs of the next stage.
    __m128i s = _mm_packs_epi32(_mm_srli_epi32(_mm_madd_epi16(pairs, wx), 9), _mm_setzero_si128());
    s = _mm_packs_epi32(_mm_srli_epi32(_mm_madd_epi16(s, wy), 9), _mm_setzero_si128());
    s = _mm_packs_epi32(_mm_srli_epi32(_mm_madd_epi16(s, wz), 9), _mm_setzero_si128());
    return short(_mm_extract_epi16(s, 0));
}
