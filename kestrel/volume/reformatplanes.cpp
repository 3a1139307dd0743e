// The reformats of a volume: oblique planes and slabs, projections seen from any direction,
// curved planes, and the axis queries of the three standard views. The sampling itself is in
// volume/reslice_p; these members state the geometry and fill the images.
#include "ndicomvolume.h"
#include "nvolume.h"

#include "geometry/reslice_p.h"
#include "geometry/slicestack_p.h"
#include "simd/kernels_p.h"
#include "volume/reslice_p.h"
#include "ndicomimage.h"

#include <algorithm>
#include <cmath>
#include <limits>

using namespace kestrel::internal;
using geometry::Vec3;

namespace {

Vec3 vec(const double* v)
{
    return {v[0], v[1], v[2]};
}

Vec3 scaled(const Vec3& v, double f)
{
    return {v[0] * f, v[1] * f, v[2] * f};
}

Vec3 plus(const Vec3& a, const Vec3& b)
{
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}

double smallestSpacing(const VolumeHead& head)
{
    double s = std::numeric_limits<double>::max();
    for (double v : head.voxelspace)
        if (v > 0)
            s = std::min(s, v);
    return s == std::numeric_limits<double>::max() ? 1.0 : s;
}

// The volume's rescale and window on an image cut from it.
void describe(NDicomImage& image, const VolumeHead& head, double thickness)
{
    image.setSlopeAndIntercept(head.RescaleSlope != 0 ? head.RescaleSlope : 1.0, head.RescaleIntercept);
    image.setWindowWidth(head.WindowWidth);
    image.setWindowCenter(head.WindowCenter);
    image.setThickness(thickness);
    image.setOriThickness(head.thinkness);
}

// Puts GRID's plane (its middle layer) on IMAGE and samples it.
void fill(NDicomImage& image, const reslice::Source& source, const reslice::Grid& grid, const Vec3& row,
          const Vec3& column, double spacingX, double spacingY)
{
    image.setImage(grid.width, grid.height, 2);
    image.setPixelSpace(spacingX, spacingY);
    image.setPosition(grid.origin[0], grid.origin[1], grid.origin[2]);
    image.setOriention(row[0], row[1], row[2], column[0], column[1], column[2]);
    image.setColumnGeometry({}, {});
    reslice::resample(source, grid, reinterpret_cast<short*>(image.data()));
    image.caclulateImageMidPoint();
}

} // namespace

short NVolume::backgroundValue()
{
    if (m_data && m_backgroundFor == m_data)
        return m_background;
    const int* n = m_head.volumesize;
    const qint64 count = qint64(n[0]) * n[1] * n[2];
    m_background = 0;
    if (m_data && count > 0 && framesAvailable() > 0) {
        if (m_head.volumestep[0] == 2 && m_head.volumestep[1] == 2 * n[0] && m_head.volumestep[2] == 2 * n[0] * n[1]) {
            m_background = reduceMinS16(reinterpret_cast<const short*>(m_data), count);
        } else {
            m_background = std::numeric_limits<short>::max();
            for (int k = 0; k < n[2]; ++k)
                for (int j = 0; j < n[1]; ++j)
                    for (int i = 0; i < n[0]; ++i)
                        m_background = std::min(m_background, short(getVoxel(i, j, k)));
        }
    }
    m_backgroundFor = m_data;
    return m_background;
}

bool NVolume::getDicomImage(NDicomImage& image, const double* centre, const double* row, const double* column,
                            int width, int height, double spacingX, double spacingY, double thickness, RenderType render)
{
    if (!centre || !row || !column || width < 1 || height < 1)
        return false;
    Vec3 r = vec(row), c = vec(column);
    if (std::fabs(geometry::length(r) - 1) > 1e-3 || std::fabs(geometry::length(c) - 1) > 1e-3
        || std::fabs(geometry::dot(r, c)) > 1e-3)
        return false;
    r = geometry::normalized(r);
    c = geometry::normalized(c);
    reslice::Source source;
    if (!reslice::sourceOf(*this, backgroundValue(), source))
        return false;
    const double smallest = smallestSpacing(m_head);
    if (!(spacingX > 0))
        spacingX = m_referenceSpacing[0] > 0 ? m_referenceSpacing[0] : smallest;
    if (!(spacingY > 0))
        spacingY = m_referenceSpacing[1] > 0 ? m_referenceSpacing[1] : smallest;
    reslice::Grid grid;
    grid.width = width;
    grid.height = height;
    grid.alongRow = scaled(r, spacingX);
    grid.downColumn = scaled(c, spacingY);
    grid.origin = plus(plus(vec(centre), scaled(grid.alongRow, -(width - 1) / 2.0)),
                       scaled(grid.downColumn, -(height - 1) / 2.0));
    grid.rule = render;
    if (thickness > 0) {
        grid.layers = std::max(1, int(std::lround(thickness / smallest)));
        grid.layerStep = scaled(geometry::normalized(geometry::cross(r, c)), smallest);
    }
    fill(image, source, grid, r, c, spacingX, spacingY);
    describe(image, m_head, thickness > 0 ? grid.layers * smallest : smallest);
    return true;
}

bool NVolume::getDicomImage3D(NDicomImage& image, double azimuth, double elevation, RenderType render,
                              const double* centre, double spacing)
{
    reslice::Source source;
    if (!reslice::sourceOf(*this, backgroundValue(), source))
        return false;
    const double step = spacing > 0 ? spacing : smallestSpacing(m_head);
    Vec3 row, column, direction;
    geometry::viewAxes(azimuth, elevation, row, column, direction);
    const int* n = m_head.volumesize;
    const Vec3 middle = source.toPatient.apply({(n[0] - 1) / 2.0, (n[1] - 1) / 2.0, (n[2] - 1) / 2.0});
    const Vec3 at = centre ? vec(centre) : middle;
    // The longest diagonal of the volume, and as much again as the centre lies off its middle.
    double diagonal = 0;
    for (int s = 0; s < 4; ++s) {
        const Vec3 d{double(n[0] - 1) * (s & 1 ? -1 : 1), double(n[1] - 1) * (s & 2 ? -1 : 1), double(n[2] - 1)};
        diagonal = std::max(diagonal, geometry::length(source.toPatient.applyLinear(d)));
    }
    const double extent = diagonal + 2 * geometry::distance(at, middle);
    const int size = int(std::ceil(extent / step)) + 1;
    if (size > 16384)
        return false;
    reslice::Grid grid;
    grid.width = grid.height = grid.layers = size;
    grid.alongRow = scaled(row, step);
    grid.downColumn = scaled(column, step);
    grid.origin = plus(plus(at, scaled(grid.alongRow, -(size - 1) / 2.0)), scaled(grid.downColumn, -(size - 1) / 2.0));
    grid.layerStep = scaled(direction, step);
    grid.rule = render;
    fill(image, source, grid, row, column, step, step);
    describe(image, m_head, size * step);
    double* ijk = image.getijkxyz();
    ijk[0] = size;
    ijk[1] = step;
    ijk[2] = render;
    return true;
}

double NVolume::getProjectShift(NDicomImage& projection, int x, int y)
{
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double* ijk = projection.getijkxyz();
    reslice::Source source;
    if (!(ijk[0] >= 1) || !(ijk[1] > 0) || x < 0 || y < 0 || x >= projection.width() || y >= projection.height()
        || !reslice::sourceOf(*this, backgroundValue(), source))
        return nan;
    const double* o = projection.getOrientation();
    const Vec3 row = geometry::normalized(vec(o)), column = geometry::normalized(vec(o + 3));
    reslice::Grid grid;
    grid.origin = vec(projection.getPosition());
    grid.alongRow = scaled(row, projection.getPixelSpacing()[0]);
    grid.downColumn = scaled(column, projection.getPixelSpacing()[1]);
    grid.width = projection.width();
    grid.height = projection.height();
    grid.layers = int(ijk[0]);
    grid.layerStep = scaled(geometry::normalized(geometry::cross(row, column)), ijk[1]);
    grid.rule = int(ijk[2]);
    double layer = 0;
    if (!reslice::sourceLayer(source, grid, x, y, layer))
        return nan;
    return layer * ijk[1];
}

// --- axis queries ------------------------------------------------------------------------------

int NDicomVolume::getAxi()
{
    const int axis = viewAxis(2);
    return axis ? axis : 3;
}

int NDicomVolume::getCor()
{
    const int axis = viewAxis(1);
    return axis ? axis : 3;
}

int NDicomVolume::getSag()
{
    const int axis = viewAxis(0);
    return axis ? axis : 3;
}

int NDicomVolume::viewIndex(int target, double x, double y, double z)
{
    const int axis = target == 2 ? getAxi() : target == 1 ? getCor() : getSag();
    const int n = m_head.volumesize[axis - 1];
    if (n < 1)
        return 0;
    const float* f = getPointFIJK(x, y, z);
    if (!std::isfinite(f[axis - 1]))
        return 0;
    return int(std::min<long>(std::max<long>(std::lround(f[axis - 1]), 0), n - 1));
}

int NDicomVolume::viewDirection(int target)
{
    const int axis = target == 2 ? getAxi() : target == 1 ? getCor() : getSag();
    return m_head.orientation[3 * (axis - 1) + target] > 0 ? 1 : -1;
}

int NDicomVolume::getAxiIndex(double x, double y, double z)
{
    return viewIndex(2, x, y, z);
}

int NDicomVolume::getCorIndex(double x, double y, double z)
{
    return viewIndex(1, x, y, z);
}

int NDicomVolume::getSagIndex(double x, double y, double z)
{
    return viewIndex(0, x, y, z);
}

int NDicomVolume::getAxiMainDirection()
{
    return viewDirection(2);
}

int NDicomVolume::getCorMainDirection()
{
    return viewDirection(1);
}

int NDicomVolume::getSagMainDirection()
{
    return viewDirection(0);
}

int NDicomVolume::getOrinentMaxIdex(int axis)
{
    if (axis < 1 || axis > 3)
        return -1;
    int view[3];
    geometry::patientAxes(m_head.orientation, view);
    return view[axis - 1];
}

int NDicomVolume::getMainDirection(int axis)
{
    const int patient = getOrinentMaxIdex(axis);
    if (patient < 0)
        return 0;
    return m_head.orientation[3 * (axis - 1) + patient] > 0 ? 1 : -1;
}

// --- curved reformats ----------------------------------------------------------------------------

QList<QVector3D> NDicomVolume::getInterpolationPoints(const QList<QVector3D>& points, double step)
{
    std::vector<Vec3> given;
    for (const QVector3D& p : points)
        given.push_back({p.x(), p.y(), p.z()});
    QList<QVector3D> curve;
    for (const Vec3& p : geometry::smoothCurve(given, step))
        curve << QVector3D(float(p[0]), float(p[1]), float(p[2]));
    return curve;
}

bool NDicomVolume::getCurvedMPRImagePlane(NDicomImage& image, const QList<QVector3D>& curve,
                                          const QVector3D& direction, int height, double spacing)
{
    return curvedImage(image, curve, direction, height, spacing, false);
}

bool NDicomVolume::getCurvedMPRImagePlaneMethodTwo(NDicomImage& image, const QList<QVector3D>& curve,
                                                   const QVector3D& direction, int height, double spacing)
{
    return curvedImage(image, curve, direction, height, spacing, true);
}

bool NDicomVolume::curvedImage(NDicomImage& image, const QList<QVector3D>& curve, const QVector3D& direction,
                               int height, double spacing, bool straightened)
{
    const Vec3 up = geometry::normalized({direction.x(), direction.y(), direction.z()});
    const int width = curve.size();
    if (width < 2 || height < 1 || !(spacing > 0) || !(geometry::length(up) > 0.5))
        return false;
    reslice::Source source;
    if (!reslice::sourceOf(*this, backgroundValue(), source))
        return false;
    std::vector<Vec3> points;
    for (const QVector3D& p : curve)
        points.push_back({p.x(), p.y(), p.z()});
    double length = 0;
    for (int c = 1; c < width; ++c)
        length += geometry::distance(points[size_t(c - 1)], points[size_t(c)]);
    if (!(length > 0))
        return false;
    std::vector<Vec3> tops(static_cast<size_t>(width)), downs(static_cast<size_t>(width));
    QVector<double> flatTops, flatSteps;
    Vec3 previous = up;
    for (int c = 0; c < width; ++c) {
        Vec3 way = up;
        if (straightened) {
            const Vec3 tangent = geometry::normalized(
                geometry::subtract(points[size_t(std::min(c + 1, width - 1))], points[size_t(std::max(c - 1, 0))]));
            const Vec3 across = geometry::subtract(up, scaled(tangent, geometry::dot(up, tangent)));
            way = geometry::length(across) > 1e-6 ? geometry::normalized(across) : previous;
            previous = way;
        }
        downs[size_t(c)] = scaled(way, spacing);
        tops[size_t(c)] = plus(points[size_t(c)], scaled(downs[size_t(c)], -(height - 1) / 2.0));
        flatTops << tops[size_t(c)][0] << tops[size_t(c)][1] << tops[size_t(c)][2];
        flatSteps << downs[size_t(c)][0] << downs[size_t(c)][1] << downs[size_t(c)][2];
    }
    image.setImage(width, height, 2);
    reslice::resampleColumns(source, tops, downs, height, reinterpret_cast<short*>(image.data()));
    // The plane that best names the image: the chord of the curve square to the first column.
    const Vec3 column = geometry::normalized(downs.front());
    Vec3 chord = geometry::subtract(points.back(), points.front());
    chord = geometry::subtract(chord, scaled(column, geometry::dot(chord, column)));
    Vec3 row = geometry::normalized(chord);
    if (!(geometry::length(chord) > 1e-6))
        row = geometry::normalized(geometry::cross(column, std::fabs(column[0]) < 0.9 ? Vec3{1, 0, 0} : Vec3{0, 1, 0}));
    image.setPixelSpace(length / (width - 1), spacing);
    image.setPosition(tops.front()[0], tops.front()[1], tops.front()[2]);
    image.setOriention(row[0], row[1], row[2], column[0], column[1], column[2]);
    image.setColumnGeometry(flatTops, flatSteps);
    image.caclulateImageMidPoint();
    describe(image, m_head, smallestSpacing(m_head));
    return true;
}
