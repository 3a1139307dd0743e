#pragma once

#include "platform/testexport_p.h"

#include <QtGlobal>

// Reduction kernels of the plane and slab cutters over signed 16-bit voxels, vectorised with
// SSE2/SSE4.1, each with a plain scalar twin that the tests use as the reference.
namespace kestrel::internal {

// dst[n] = max(dst[n], src[n]) / min(...), signed 16-bit, for N values.
KESTREL_TEST_EXPORT void maxInPlaceS16(short* dst, const short* src, qint64 n);
KESTREL_TEST_EXPORT void minInPlaceS16(short* dst, const short* src, qint64 n);
// acc[n] += src[n] in 32 bits.
KESTREL_TEST_EXPORT void accumulateS16(qint32* acc, const short* src, qint64 n);
// dst[n] = acc[n] / count, truncated toward zero, stored as 16 bits.
KESTREL_TEST_EXPORT void divideToS16(short* dst, const qint32* acc, qint64 n, int count);

// Maximum, minimum and 32-bit sum of N (> 0) contiguous values.
KESTREL_TEST_EXPORT short reduceMaxS16(const short* src, qint64 n);
KESTREL_TEST_EXPORT short reduceMinS16(const short* src, qint64 n);
KESTREL_TEST_EXPORT qint32 reduceSumS16(const short* src, qint64 n);

KESTREL_TEST_EXPORT short reduceMaxS16Scalar(const short* src, qint64 n);
KESTREL_TEST_EXPORT short reduceMinS16Scalar(const short* src, qint64 n);
KESTREL_TEST_EXPORT qint32 reduceSumS16Scalar(const short* src, qint64 n);

KESTREL_TEST_EXPORT void maxInPlaceS16Scalar(short* dst, const short* src, qint64 n);
KESTREL_TEST_EXPORT void minInPlaceS16Scalar(short* dst, const short* src, qint64 n);
KESTREL_TEST_EXPORT void accumulateS16Scalar(qint32* acc, const short* src, qint64 n);
KESTREL_TEST_EXPORT void divideToS16Scalar(short* dst, const qint32* acc, qint64 n, int count);

// The fixed-point trilinear sample of voxel_valued_sse4_s16, written out in scalar code.
KESTREL_TEST_EXPORT short voxelValuedScalarS16(const char* data, const int* steps, float x, float y, float z);

} // namespace kestrel::internal
