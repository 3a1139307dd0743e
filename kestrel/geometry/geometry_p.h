#pragma once

// Small vector maths on patient coordinates (millimetres, DICOM LPS axes: +x towards the
// patient's left, +y posterior, +z head). Header-only and free of Qt and DCMTK so that every
// layer (hierarchy, volumes, images) can use it.

#include <array>
#include <cmath>
#include <string>

namespace kestrel::internal::geometry {

using Vec3 = std::array<double, 3>;

inline Vec3 cross(const Vec3& a, const Vec3& b)
{
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}

inline double dot(const Vec3& a, const Vec3& b)
{
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

inline double length(const Vec3& a)
{
    return std::sqrt(dot(a, a));
}

// A divided by its length; A itself when its length is 0.
inline Vec3 normalized(const Vec3& a)
{
    const double l = length(a);
    if (!(l > 0))
        return a;
    return {a[0] / l, a[1] / l, a[2] / l};
}

inline Vec3 subtract(const Vec3& a, const Vec3& b)
{
    return {a[0] - b[0], a[1] - b[1], a[2] - b[2]};
}

inline double distance(const Vec3& a, const Vec3& b)
{
    return length(subtract(a, b));
}

// Slice normal of an image: row direction × column direction (not normalised).
inline Vec3 sliceNormal(const Vec3& row, const Vec3& column)
{
    return cross(row, column);
}

// Axis of the largest absolute component (ties to the lower index): the axis a direction
// mostly runs along.
inline int dominantAxis(const Vec3& v)
{
    int k = 0;
    for (int i = 1; i < 3; ++i)
        if (std::fabs(v[i]) > std::fabs(v[k]))
            k = i;
    return k;
}

// Patient-direction letter of one axis and sign: +x 'L', -x 'R', +y 'P', -y 'A', +z 'H', -z 'F'.
inline char directionLetter(int axis, bool positive)
{
    static const char letters[3][2] = {{'R', 'L'}, {'A', 'P'}, {'F', 'H'}};
    if (axis < 0 || axis > 2)
        return '?';
    return letters[axis][positive ? 1 : 0];
}

// Direction code of V as the letters of its components whose absolute value exceeds THRESHOLD,
// largest first ("L", "LP", "FAR", ...); empty for a null vector.
inline std::string directionCode(const Vec3& v, double threshold = 0.0001)
{
    std::array<int, 3> order{0, 1, 2};
    // Three elements: a fixed exchange sort by absolute value, descending, stable for ties.
    for (int i = 0; i < 2; ++i)
        for (int j = 0; j < 2 - i; ++j)
            if (std::fabs(v[order[j + 1]]) > std::fabs(v[order[j]]))
                std::swap(order[j], order[j + 1]);
    std::string code;
    for (int axis : order)
        if (std::fabs(v[axis]) > threshold)
            code += directionLetter(axis, v[axis] > 0);
    return code;
}

} // namespace kestrel::internal::geometry
