#pragma once

#include <cmath>

// Small vector helpers for the two-dimensional image's plane geometry.
namespace kestrel::internal {

inline void imageCross(const double* a, const double* b, double* out)
{
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

// Dominant axis of a direction: x if |x| > |y| else y; that stays if its magnitude exceeds |z|,
// else z. Ties go to the later axis. Returns +-(axis + 1), positive when that component is > 0.
inline int imageDirectionCode(const double* d)
{
    int axis = std::fabs(d[0]) > std::fabs(d[1]) ? 0 : 1;
    if (!(std::fabs(d[axis]) > std::fabs(d[2])))
        axis = 2;
    return d[axis] > 0 ? axis + 1 : -(axis + 1);
}

} // namespace kestrel::internal
