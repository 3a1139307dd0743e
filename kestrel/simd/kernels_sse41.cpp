#include "simd/kernels_p.h"

#include <smmintrin.h>

#include <algorithm>
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

namespace {

qint32 read32(const char* p)
{
    qint32 v;
    std::memcpy(&v, p, 4);
    return v;
}

inline __m128i reverse8(__m128i v)
{
    v = _mm_shufflelo_epi16(v, 0x1B);
    v = _mm_shufflehi_epi16(v, 0x1B);
    return _mm_shuffle_epi32(v, 0x4E);
}

// R[i] holds row i of an 8 x 8 block of 16-bit values; afterwards R[j] holds column j.
inline void transpose8(__m128i* r)
{
    const __m128i a0 = _mm_unpacklo_epi16(r[0], r[1]), a1 = _mm_unpackhi_epi16(r[0], r[1]);
    const __m128i a2 = _mm_unpacklo_epi16(r[2], r[3]), a3 = _mm_unpackhi_epi16(r[2], r[3]);
    const __m128i a4 = _mm_unpacklo_epi16(r[4], r[5]), a5 = _mm_unpackhi_epi16(r[4], r[5]);
    const __m128i a6 = _mm_unpacklo_epi16(r[6], r[7]), a7 = _mm_unpackhi_epi16(r[6], r[7]);
    const __m128i b0 = _mm_unpacklo_epi32(a0, a2), b1 = _mm_unpackhi_epi32(a0, a2);
    const __m128i b2 = _mm_unpacklo_epi32(a1, a3), b3 = _mm_unpackhi_epi32(a1, a3);
    const __m128i b4 = _mm_unpacklo_epi32(a4, a6), b5 = _mm_unpackhi_epi32(a4, a6);
    const __m128i b6 = _mm_unpacklo_epi32(a5, a7), b7 = _mm_unpackhi_epi32(a5, a7);
    r[0] = _mm_unpacklo_epi64(b0, b4);
    r[1] = _mm_unpackhi_epi64(b0, b4);
    r[2] = _mm_unpacklo_epi64(b1, b5);
    r[3] = _mm_unpackhi_epi64(b1, b5);
    r[4] = _mm_unpacklo_epi64(b2, b6);
    r[5] = _mm_unpackhi_epi64(b2, b6);
    r[6] = _mm_unpacklo_epi64(b3, b7);
    r[7] = _mm_unpackhi_epi64(b3, b7);
}

} // namespace

short sampleTrilinearS16(const char* data, const int* steps, float x, float y, float z)
{
    const FixedPoint fx = fixedPoint(x), fy = fixedPoint(y), fz = fixedPoint(z);
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

void lookupU16(quint32* out, const quint16* in, const quint32* table, qint64 n)
{
    // Eight indices per two 64-bit loads, eight entries per two 128-bit stores: the pass is bound
    // by the table loads alone.
    qint64 i = 0;
    for (; i + 8 <= n; i += 8) {
        quint64 a, b;
        std::memcpy(&a, in + i, 8);
        std::memcpy(&b, in + i + 4, 8);
        const __m128i lo = _mm_set_epi32(int(table[a >> 48]), int(table[(a >> 32) & 0xFFFF]),
                                         int(table[(a >> 16) & 0xFFFF]), int(table[a & 0xFFFF]));
        const __m128i hi = _mm_set_epi32(int(table[b >> 48]), int(table[(b >> 32) & 0xFFFF]),
                                         int(table[(b >> 16) & 0xFFFF]), int(table[b & 0xFFFF]));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i), lo);
        _mm_storeu_si128(reinterpret_cast<__m128i*>(out + i + 4), hi);
    }
    for (; i < n; ++i)
        out[i] = table[in[i]];
}

void reverseU16(quint16* first, quint16* last)
{
    // Eight from each end swap places per step; the middle (under 16) is left to std::reverse.
    for (; last - first >= 16; first += 8, last -= 8) {
        const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i*>(first));
        const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i*>(last - 8));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(first), reverse8(b));
        _mm_storeu_si128(reinterpret_cast<__m128i*>(last - 8), reverse8(a));
    }
    std::reverse(first, last);
}

void transposeU16(const quint16* s0, qptrdiff ex, qptrdiff ey, quint16* d0, qptrdiff line, int w, int h)
{
    // 8 x 8 blocks: eight source columns (contiguous along y, reversed when EY is -1) in, eight
    // destination rows out. The right and bottom remainders go value by value.
    const int w8 = w & ~7, h8 = h & ~7;
    for (int by = 0; by < h8; by += 8)
        for (int bx = 0; bx < w8; bx += 8) {
            __m128i r[8];
            for (int k = 0; k < 8; ++k) {
                const quint16* column = s0 + (bx + k) * ex + by * ey;
                r[k] = ey > 0 ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(column))
                              : reverse8(_mm_loadu_si128(reinterpret_cast<const __m128i*>(column - 7)));
            }
            transpose8(r);
            for (int j = 0; j < 8; ++j)
                _mm_storeu_si128(reinterpret_cast<__m128i*>(d0 + (by + j) * line + bx), r[j]);
        }
    for (int y = 0; y < h; ++y) {
        const quint16* s = s0 + y * ey;
        quint16* d = d0 + y * line;
        for (int x = y < h8 ? w8 : 0; x < w; ++x)
            d[x] = s[x * ex];
    }
}

} // namespace kestrel::internal

