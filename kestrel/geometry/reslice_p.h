#pragma once

// Geometry of reformats, free of volumes and pixels: the map between voxel indices and patient
// millimetres, the part of a line of samples that lies inside a volume, smooth curves through
// clicked points, the axes of a projection seen from a direction, and where a plane cuts an image.

#include "geometry/geometry_p.h"
#include "platform/testexport_p.h"

#include <vector>

namespace kestrel::internal::geometry {

// y = L x + t, L the 3 x 3 block m[r][0..2], t the column m[r][3].
struct Affine {
    double m[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
    Vec3 apply(const Vec3& x) const
    {
        return {m[0][0] * x[0] + m[0][1] * x[1] + m[0][2] * x[2] + m[0][3],
                m[1][0] * x[0] + m[1][1] * x[1] + m[1][2] * x[2] + m[1][3],
                m[2][0] * x[0] + m[2][1] * x[1] + m[2][2] * x[2] + m[2][3]};
    }
    // The linear part alone: how a step moves.
    Vec3 applyLinear(const Vec3& x) const
    {
        return {m[0][0] * x[0] + m[0][1] * x[1] + m[0][2] * x[2], m[1][0] * x[0] + m[1][1] * x[1] + m[1][2] * x[2],
                m[2][0] * x[0] + m[2][1] * x[1] + m[2][2] * x[2]};
    }
};

// Voxel index (i, j, k) to patient point for a volume of ORIENTATION (i, j, k directions, 9
// values), SPACING and ORIGIN (the point of voxel 0, 0, 0).
KESTREL_TEST_EXPORT Affine indexToPatient(const double* orientation, const double* spacing, const double* origin);

// The inverse map; false when A is singular (or nearly: a determinant below 1e-12).
KESTREL_TEST_EXPORT bool invert(const Affine& a, Affine& inverse);

// The samples n of [0, COUNT) for which every coordinate of START + n * STEP (voxel indices) lies
// within [0, size[a] - 1], give or take a millionth of a voxel: [FIRST, LAST), empty when
// FIRST >= LAST. The samples inside a box along a line are always one run.
KESTREL_TEST_EXPORT void insideRange(const Vec3& start, const Vec3& step, const int* size, int count, int& first,
                                     int& last);

// A smooth curve through POINTS (at least two, in order): the centripetal Catmull-Rom spline
// through every point (ends continued by mirroring the neighbouring point), sampled every STEP
// millimetres of its length from the first point; the last point closes the list when the length
// is not a multiple of STEP. Points repeating their predecessor are dropped first. Empty when
// fewer than two distinct points remain or STEP is not positive.
KESTREL_TEST_EXPORT std::vector<Vec3> smoothCurve(const std::vector<Vec3>& points, double step);

// The axes of a projection seen from azimuth AZIMUTH and elevation ELEVATION (degrees): at (0, 0)
// the viewer stands in front of the patient, looking along +y (DIRECTION), rows run along +x and
// columns towards the feet (-z), as a coronal image. The azimuth turns all three about the z axis
// (from +x towards +y), the elevation then lifts the viewer towards the head about the row axis.
KESTREL_TEST_EXPORT void viewAxes(double azimuth, double elevation, Vec3& row, Vec3& column, Vec3& direction);

// An image plane: the point of pixel (0, 0), unit row and column directions, pixel spacing along
// the row and down the column, and its size.
struct ImagePlane {
    Vec3 origin{}, row{}, column{};
    double spacing[2] = {1, 1};
    int width = 0, height = 0;
    // Fractional pixel (x = column, y = row) of a point projected onto the plane.
    void pixelOf(const Vec3& p, double& x, double& y) const
    {
        const Vec3 d = subtract(p, origin);
        x = dot(d, row) / spacing[0];
        y = dot(d, column) / spacing[1];
    }
};

// The segment (pixel coordinates of IMAGE) where the plane through POINT with normal NORMAL cuts
// IMAGE, clipped to the image's area ([-0.5, width - 0.5] x [-0.5, height - 0.5]). False when
// the planes are parallel (within a thousandth of a radian) or the line misses the area.
KESTREL_TEST_EXPORT bool planeCutsImage(const ImagePlane& image, const Vec3& point, const Vec3& normal, double* x0,
                                        double* y0, double* x1, double* y1);

} // namespace kestrel::internal::geometry
