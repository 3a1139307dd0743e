#pragma once

// The pixel scans of the region measurements in 64-bit arithmetic: which columns and rows a
// region's box covers, and which of them lie inside the image, so that pixels outside are counted
// without being visited (a viewer measures on every mouse move, whatever the region's size).

#include "platform/testexport_p.h"

#include <QtGlobal>

namespace kestrel::internal::region {

// The integers v = trunc(start), trunc(start) + 1, ... while v < start + length.
struct ScanAxis {
    qint64 from = 0;
    qint64 count = 0;
    qint64 end() const { return from + count; }
};

// The scan of one axis; empty for non-finite input or beyond ±2^52 (no pixel is there).
KESTREL_TEST_EXPORT ScanAxis scanAxis(double start, double length);

// The integers from FROM up to but excluding TO (the columns of a line), bounded as scanAxis is.
KESTREL_TEST_EXPORT ScanAxis halfOpen(double from, double to);

// The part of AXIS inside [0, SIZE).
KESTREL_TEST_EXPORT ScanAxis inside(const ScanAxis& axis, qint64 size);

// Truncation toward zero, bounded to ±2^52 (far outside any image) so that it fits 64 bits.
KESTREL_TEST_EXPORT qint64 truncated(double v);

} // namespace kestrel::internal::region
