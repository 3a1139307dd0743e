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

namespace {

// Four 32-bit sums divided by COUNT, truncated toward zero. In doubles the quotient of a 32-bit
// sum by a count under 2^16 lies at least 2^-16 from the next whole number, far more than its
// rounding error, so the truncation is that of the integer division.
inline __m128i divide4(__m128i sums, __m128d count)
{
    const __m128d lo = _mm_div_pd(_mm_cvtepi32_pd(sums), count);
    const __m128d hi = _mm_div_pd(_mm_cvtepi32_pd(_mm_shuffle_epi32(sums, _MM_SHUFFLE(1, 0, 3, 2))), count);
    return _mm_unpacklo_epi64(_mm_cvttpd_epi32(lo), _mm_cvttpd_epi32(hi));
}

} // namespace

void divideToS16(short* dst, const qint32* acc, qint64 n, int count)
{
    qint64 i = 0;
    if (count < 65536) {
        const __m128d c = _mm_set1_pd(count);
        for (; i + 8 <= n; i += 8) {
            const __m128i a = divide4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(acc + i)), c);
            const __m128i b = divide4(_mm_loadu_si128(reinterpret_cast<const __m128i*>(acc + i + 4)), c);
            // Each quotient wraps to 16 bits as the plain cast does.
            const __m128i mask = _mm_set1_epi32(0xFFFF);
            _mm_storeu_si128(reinterpret_cast<__m128i*>(dst + i), _mm_packus_epi32(_mm_and_si128(a, mask), _mm_and_si128(b, mask)));
        }
    }
    for (; i < n; ++i)
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

// The eight rows' 16-bit partial results (one vector a row) folded lane by lane into one vector,
// row r in lane r, by FOLD (max or min).
template <typename Fold>
inline __m128i foldEight(const __m128i* v, Fold fold)
{
    const __m128i a = fold(_mm_unpacklo_epi16(v[0], v[1]), _mm_unpackhi_epi16(v[0], v[1]));
    const __m128i b = fold(_mm_unpacklo_epi16(v[2], v[3]), _mm_unpackhi_epi16(v[2], v[3]));
    const __m128i c = fold(_mm_unpacklo_epi16(v[4], v[5]), _mm_unpackhi_epi16(v[4], v[5]));
    const __m128i d = fold(_mm_unpacklo_epi16(v[6], v[7]), _mm_unpackhi_epi16(v[6], v[7]));
    // a holds rows 0,1 interleaved in 16-bit pairs; fold the pairs of 32 bits, then of 64.
    const __m128i ab = fold(_mm_unpacklo_epi32(a, b), _mm_unpackhi_epi32(a, b));
    const __m128i cd = fold(_mm_unpacklo_epi32(c, d), _mm_unpackhi_epi32(c, d));
    return fold(_mm_unpacklo_epi64(ab, cd), _mm_unpackhi_epi64(ab, cd));
}

// Eight runs of COUNT (>= 8) values at P + r * STRIDE reduced to eight values (max or min): whole
// vectors from the run's start, then one vector ending at its end (overlapping is harmless here).
template <typename Fold>
inline __m128i extremeOfEight(const char* p, qint64 stride, int count, Fold fold)
{
    __m128i v[8];
    for (int r = 0; r < 8; ++r) {
        const short* run = reinterpret_cast<const short*>(p + r * stride);
        __m128i m = _mm_loadu_si128(reinterpret_cast<const __m128i*>(run + count - 8));
        for (int i = 0; i + 8 < count; i += 8)
            m = fold(m, _mm_loadu_si128(reinterpret_cast<const __m128i*>(run + i)));
        v[r] = m;
    }
    return foldEight(v, fold);
}

// The 32-bit sums of eight runs of COUNT (>= 8) values, rows 0-3 in LO and 4-7 in HI. The last
// vector ends at the run's end with the lanes already counted masked off.
inline void sumsOfEight(const char* p, qint64 stride, int count, __m128i* lo, __m128i* hi)
{
    const __m128i ones = _mm_set1_epi16(1);
    const int whole = count / 8 * 8, rest = count - whole;
    // Lanes 8 - REST .. 7 of the last vector are the run's last REST values.
    const __m128i keep = _mm_cmpgt_epi16(_mm_setr_epi16(1, 2, 3, 4, 5, 6, 7, 8), _mm_set1_epi16(short(8 - rest)));
    __m128i s[8];
    for (int r = 0; r < 8; ++r) {
        const short* run = reinterpret_cast<const short*>(p + r * stride);
        __m128i acc = _mm_madd_epi16(_mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i*>(run + count - 8)), keep), ones);
        for (int i = 0; i < whole; i += 8)
            acc = _mm_add_epi32(acc, _mm_madd_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(run + i)), ones));
        s[r] = acc;
    }
    *lo = _mm_hadd_epi32(_mm_hadd_epi32(s[0], s[1]), _mm_hadd_epi32(s[2], s[3]));
    *hi = _mm_hadd_epi32(_mm_hadd_epi32(s[4], s[5]), _mm_hadd_epi32(s[6], s[7]));
}

} // namespace

void reduceRunsS16(short* out, const char* first, qint64 stride, qint64 runs, int count, SlabRule rule)
{
    // How many runs ahead the passes fetch: enough to cover the memory's latency.
    constexpr int kAhead = 32;
    qint64 r = 0;
    // The vector sums and their division hold for runs under 2^16 values (divide4).
    if (count >= 8 && count < 65536) {
        const auto max = [](__m128i a, __m128i b) { return _mm_max_epi16(a, b); };
        const auto min = [](__m128i a, __m128i b) { return _mm_min_epi16(a, b); };
        const __m128d c = _mm_set1_pd(count);
        const __m128i mask = _mm_set1_epi32(0xFFFF);
        for (; r + 8 <= runs; r += 8) {
            const char* p = first + r * stride;
            // Rows far apart and short: fetch those of the next passes, the hardware does not guess them.
            for (int a = kAhead; a < kAhead + 8; ++a) {
                __builtin_prefetch(p + a * stride);
                __builtin_prefetch(p + a * stride + 2 * count - 2);
            }
            __m128i result;
            if (rule == SlabAverage) {
                __m128i lo, hi;
                sumsOfEight(p, stride, count, &lo, &hi);
                result = _mm_packus_epi32(_mm_and_si128(divide4(lo, c), mask), _mm_and_si128(divide4(hi, c), mask));
            } else {
                result = rule == SlabMin ? extremeOfEight(p, stride, count, min) : extremeOfEight(p, stride, count, max);
            }
            _mm_storeu_si128(reinterpret_cast<__m128i*>(out + r), result);
        }
    }
    if (r < runs)
        reduceRunsS16Scalar(out + r, first + r * stride, stride, runs - r, count, rule);
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

void sampleLineS16(const LineSource& source, const double* start, const double* step, int n, short* out,
                   qptrdiff stride)
{
    const double S[3] = {512.0 * start[0], 512.0 * start[1], 512.0 * start[2]};
    const double D[3] = {512.0 * step[0], 512.0 * step[1], 512.0 * step[2]};
    __m128d s[3], d[3];
    __m128i limit[3], top[3], strides[3];
    for (int a = 0; a < 3; ++a) {
        s[a] = _mm_set1_pd(S[a]);
        d[a] = _mm_set1_pd(D[a]);
        limit[a] = _mm_set1_epi32(512 * (source.size[a] - 1));
        top[a] = _mm_set1_epi32(source.size[a] - 2);
        strides[a] = _mm_set1_epi32(source.steps[a]);
    }
    const __m128i zero = _mm_setzero_si128(), full = _mm_set1_epi32(512);
    const char* data = source.data;
    const int s1 = source.steps[1], s2 = source.steps[2];
    int m = 0;
    // Four samples per pass: positions, indices and fractions as vectors, then the four pairs of
    // each sample (this row, next row, next slice, both) read as 32 bits and blended together.
    for (; m + 4 <= n; m += 4) {
        const __m128d n01 = _mm_set_pd(m + 1, m), n23 = _mm_set_pd(m + 3, m + 2);
        __m128i index[3], fraction[3];
        for (int a = 0; a < 3; ++a) {
            const __m128i lo = _mm_cvtpd_epi32(_mm_add_pd(s[a], _mm_mul_pd(n01, d[a])));
            const __m128i hi = _mm_cvtpd_epi32(_mm_add_pd(s[a], _mm_mul_pd(n23, d[a])));
            const __m128i p = _mm_min_epi32(_mm_max_epi32(_mm_unpacklo_epi64(lo, hi), zero), limit[a]);
            index[a] = _mm_min_epi32(_mm_srai_epi32(p, 9), top[a]);
            fraction[a] = _mm_sub_epi32(p, _mm_slli_epi32(index[a], 9));
        }
        const __m128i offset = _mm_add_epi32(_mm_add_epi32(_mm_mullo_epi32(index[0], strides[0]),
                                                           _mm_mullo_epi32(index[1], strides[1])),
                                             _mm_mullo_epi32(index[2], strides[2]));
        alignas(16) qint32 o[4];
        _mm_store_si128(reinterpret_cast<__m128i*>(o), offset);
        const char* p0 = data + o[0];
        const char* p1 = data + o[1];
        const char* p2 = data + o[2];
        const char* p3 = data + o[3];
        const __m128i a0 = _mm_set_epi32(read32(p3), read32(p2), read32(p1), read32(p0));
        const __m128i a1 = _mm_set_epi32(read32(p3 + s1), read32(p2 + s1), read32(p1 + s1), read32(p0 + s1));
        const __m128i a2 = _mm_set_epi32(read32(p3 + s2), read32(p2 + s2), read32(p1 + s2), read32(p0 + s2));
        const __m128i a3 = _mm_set_epi32(read32(p3 + s1 + s2), read32(p2 + s1 + s2), read32(p1 + s1 + s2),
                                         read32(p0 + s1 + s2));
        // Stage 1: (v(i) * (512 - f) + v(i+1) * f) >> 9 with one multiply-add per pair.
        const __m128i wx = _mm_or_si128(_mm_slli_epi32(fraction[0], 16), _mm_sub_epi32(full, fraction[0]));
        const __m128i r0 = _mm_srai_epi32(_mm_madd_epi16(a0, wx), 9);
        const __m128i r1 = _mm_srai_epi32(_mm_madd_epi16(a1, wx), 9);
        const __m128i r2 = _mm_srai_epi32(_mm_madd_epi16(a2, wx), 9);
        const __m128i r3 = _mm_srai_epi32(_mm_madd_epi16(a3, wx), 9);
        // Stages 2 and 3: a + ((b - a) * f >> 9), the same value.
        auto blend = [](__m128i a, __m128i b, __m128i f) {
            return _mm_add_epi32(a, _mm_srai_epi32(_mm_mullo_epi32(_mm_sub_epi32(b, a), f), 9));
        };
        const __m128i b0 = blend(r0, r1, fraction[1]), b1 = blend(r2, r3, fraction[1]);
        const __m128i v = _mm_packs_epi32(blend(b0, b1, fraction[2]), zero);
        if (stride == 1) {
            _mm_storel_epi64(reinterpret_cast<__m128i*>(out + m), v);
        } else {
            out[m * stride] = short(_mm_extract_epi16(v, 0));
            out[(m + 1) * stride] = short(_mm_extract_epi16(v, 1));
            out[(m + 2) * stride] = short(_mm_extract_epi16(v, 2));
            out[(m + 3) * stride] = short(_mm_extract_epi16(v, 3));
        }
    }
    for (; m < n; ++m)
        out[m * stride] = sampleLinePoint(source, S, D, m);
}

void lookupU16(quint32* out, const quint16* in, const quint32* table, qint64 n)
{
    static const bool avx2 = __builtin_cpu_supports("avx2");
    if (avx2) {
        lookupU16Avx2(out, in, table, n);
        return;
    }
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

