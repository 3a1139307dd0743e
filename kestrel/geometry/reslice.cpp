#include "geometry/reslice_p.h"

#include <algorithm>
#include <cmath>

namespace kestrel::internal::geometry {

namespace {

// A position this close to an edge of the voxel grid counts as on it.
constexpr double kEdgeTolerance = 1e-6;

Vec3 add(const Vec3& a, const Vec3& b)
{
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}

Vec3 scaled(const Vec3& a, double f)
{
    return {a[0] * f, a[1] * f, a[2] * f};
}

// (1 - w) * a + w * b.
Vec3 mix(const Vec3& a, const Vec3& b, double w)
{
    return add(scaled(a, 1 - w), scaled(b, w));
}

} // namespace

Affine indexToPatient(const double* orientation, const double* spacing, const double* origin)
{
    Affine a;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c)
            a.m[r][c] = orientation[3 * c + r] * spacing[c];
        a.m[r][3] = origin[r];
    }
    return a;
}

bool invert(const Affine& a, Affine& inverse)
{
    const auto& m = a.m;
    const double c00 = m[1][1] * m[2][2] - m[1][2] * m[2][1];
    const double c01 = m[1][2] * m[2][0] - m[1][0] * m[2][2];
    const double c02 = m[1][0] * m[2][1] - m[1][1] * m[2][0];
    const double det = m[0][0] * c00 + m[0][1] * c01 + m[0][2] * c02;
    if (!(std::fabs(det) > 1e-12))
        return false;
    double l[3][3];
    l[0][0] = c00 / det;
    l[1][0] = c01 / det;
    l[2][0] = c02 / det;
    l[0][1] = (m[0][2] * m[2][1] - m[0][1] * m[2][2]) / det;
    l[1][1] = (m[0][0] * m[2][2] - m[0][2] * m[2][0]) / det;
    l[2][1] = (m[0][1] * m[2][0] - m[0][0] * m[2][1]) / det;
    l[0][2] = (m[0][1] * m[1][2] - m[0][2] * m[1][1]) / det;
    l[1][2] = (m[0][2] * m[1][0] - m[0][0] * m[1][2]) / det;
    l[2][2] = (m[0][0] * m[1][1] - m[0][1] * m[1][0]) / det;
    for (int r = 0; r < 3; ++r) {
        for (int c = 0; c < 3; ++c)
            inverse.m[r][c] = l[r][c];
        inverse.m[r][3] = -(l[r][0] * m[0][3] + l[r][1] * m[1][3] + l[r][2] * m[2][3]);
    }
    return true;
}

void insideRange(const Vec3& start, const Vec3& step, const int* size, int count, int& first, int& last)
{
    double lo = 0, hi = count - 1;
    for (int a = 0; a < 3 && lo <= hi; ++a) {
        const double min = -kEdgeTolerance, max = size[a] - 1 + kEdgeTolerance;
        if (std::fabs(step[a]) < 1e-15) {
            if (start[a] < min || start[a] > max)
                hi = -1;
            continue;
        }
        double t0 = (min - start[a]) / step[a], t1 = (max - start[a]) / step[a];
        if (t0 > t1)
            std::swap(t0, t1);
        lo = std::max(lo, t0);
        hi = std::min(hi, t1);
    }
    if (lo > hi) {
        first = last = 0;
        return;
    }
    first = std::max(0, int(std::ceil(lo - 1e-9)));
    last = std::min(count, int(std::floor(hi + 1e-9)) + 1);
    // The bounds above came from divisions; the samples at the ends are checked as they are.
    auto inside = [&](int n) {
        for (int a = 0; a < 3; ++a) {
            const double v = start[a] + n * step[a];
            if (v < -kEdgeTolerance || v > size[a] - 1 + kEdgeTolerance)
                return false;
        }
        return true;
    };
    while (first < last && !inside(first))
        ++first;
    while (last > first && !inside(last - 1))
        --last;
}

std::vector<Vec3> smoothCurve(const std::vector<Vec3>& given, double step)
{
    std::vector<Vec3> points;
    for (const Vec3& p : given)
        if (points.empty() || distance(points.back(), p) > 1e-9)
            points.push_back(p);
    if (points.size() < 2 || !(step > 0))
        return {};
    // A dense polyline along the spline, then equal steps along its length.
    std::vector<Vec3> dense{points.front()};
    const size_t n = points.size();
    for (size_t s = 0; s + 1 < n; ++s) {
        const Vec3& p1 = points[s];
        const Vec3& p2 = points[s + 1];
        const Vec3 p0 = s > 0 ? points[s - 1] : subtract(scaled(p1, 2), p2);
        const Vec3 p3 = s + 2 < n ? points[s + 2] : subtract(scaled(p2, 2), p1);
        // Centripetal knots: the square root of each chord's length.
        const double t0 = 0, t1 = t0 + std::sqrt(std::max(distance(p0, p1), 1e-12));
        const double t2 = t1 + std::sqrt(distance(p1, p2)), t3 = t2 + std::sqrt(std::max(distance(p2, p3), 1e-12));
        const int pieces = std::max(16, int(std::ceil(8 * distance(p1, p2) / step)));
        for (int q = 1; q <= pieces; ++q) {
            const double t = t1 + (t2 - t1) * q / pieces;
            const Vec3 a1 = mix(p0, p1, (t - t0) / (t1 - t0));
            const Vec3 a2 = mix(p1, p2, (t - t1) / (t2 - t1));
            const Vec3 a3 = mix(p2, p3, (t - t2) / (t3 - t2));
            const Vec3 b1 = mix(a1, a2, (t - t0) / (t2 - t0));
            const Vec3 b2 = mix(a2, a3, (t - t1) / (t3 - t1));
            dense.push_back(q == pieces ? p2 : mix(b1, b2, (t - t1) / (t2 - t1)));
        }
    }
    std::vector<Vec3> curve{dense.front()};
    double walked = 0;       // length of the polyline up to dense[i]
    double next = step;      // length at which the next sample lies
    for (size_t i = 0; i + 1 < dense.size(); ++i) {
        const double piece = distance(dense[i], dense[i + 1]);
        while (piece > 0 && next <= walked + piece + 1e-9) {
            curve.push_back(mix(dense[i], dense[i + 1], std::min(1.0, (next - walked) / piece)));
            next += step;
        }
        walked += piece;
    }
    if (distance(curve.back(), dense.back()) > step * 1e-6)
        curve.push_back(dense.back());
    return curve;
}

void viewAxes(double azimuth, double elevation, Vec3& row, Vec3& column, Vec3& direction)
{
    const double a = azimuth * M_PI / 180, e = elevation * M_PI / 180;
    const Vec3 up{0, 0, 1};
    const Vec3 ahead{-std::sin(a), std::cos(a), 0};
    row = {std::cos(a), std::sin(a), 0};
    direction = subtract(scaled(ahead, std::cos(e)), scaled(up, std::sin(e)));
    column = scaled(add(scaled(up, std::cos(e)), scaled(ahead, std::sin(e))), -1);
}

bool planeCutsImage(const ImagePlane& image, const Vec3& point, const Vec3& normal, double* x0, double* y0, double* x1,
                    double* y1)
{
    const Vec3 n = normalized(normal);
    if (length(cross(normalized(cross(image.row, image.column)), n)) < 1e-3)
        return false;
    // a x + b y + c = 0 in pixel coordinates.
    const double a = image.spacing[0] * dot(image.row, n), b = image.spacing[1] * dot(image.column, n);
    const double c = dot(subtract(image.origin, point), n);
    const double norm = a * a + b * b;
    const double px = -c * a / norm, py = -c * b / norm, ux = -b, uy = a;
    // Liang-Barsky against the image's area.
    double lo = -1e300, hi = 1e300;
    const double bounds[2][2] = {{-0.5, image.width - 0.5}, {-0.5, image.height - 0.5}};
    const double p[2] = {px, py}, u[2] = {ux, uy};
    for (int axis = 0; axis < 2; ++axis) {
        if (std::fabs(u[axis]) < 1e-15) {
            if (p[axis] < bounds[axis][0] || p[axis] > bounds[axis][1])
                return false;
            continue;
        }
        double t0 = (bounds[axis][0] - p[axis]) / u[axis], t1 = (bounds[axis][1] - p[axis]) / u[axis];
        if (t0 > t1)
            std::swap(t0, t1);
        lo = std::max(lo, t0);
        hi = std::min(hi, t1);
    }
    if (!(lo < hi))
        return false;
    *x0 = px + lo * ux;
    *y0 = py + lo * uy;
    *x1 = px + hi * ux;
    *y1 = py + hi * uy;
    return true;
}

} // namespace kestrel::internal::geometry
