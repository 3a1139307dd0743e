#include "image/regionscan_p.h"

#include <algorithm>
#include <cmath>

namespace kestrel::internal::region {

namespace {
constexpr double kLimit = 4503599627370496.0; // 2^52
}

qint64 truncated(double v)
{
    if (std::isnan(v))
        return 0;
    return qint64(std::trunc(std::clamp(v, -kLimit, kLimit)));
}

ScanAxis scanAxis(double start, double length)
{
    const double stop = start + length;
    if (!std::isfinite(start) || !std::isfinite(stop))
        return {};
    const qint64 from = truncated(start);
    // The last v with v < stop is ceil(stop) - 1.
    const qint64 last = truncated(std::ceil(stop)) - 1;
    return {from, std::max<qint64>(0, last - from + 1)};
}

ScanAxis halfOpen(double from, double to)
{
    if (!std::isfinite(from) || !std::isfinite(to))
        return {};
    const qint64 a = truncated(from), b = truncated(to);
    return {a, std::max<qint64>(0, b - a)};
}

ScanAxis inside(const ScanAxis& axis, qint64 size)
{
    const qint64 from = std::max<qint64>(axis.from, 0);
    const qint64 end = std::min<qint64>(axis.end(), size);
    return {from, std::max<qint64>(0, end - from)};
}

} // namespace kestrel::internal::region
