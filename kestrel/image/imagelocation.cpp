// Where images meet in space: reference lines of one image's plane on another, patient points
// as pixel coordinates, and the column geometry of curved images.
#include "ndicomimage.h"

#include "geometry/reslice_p.h"

#include <cmath>

using namespace kestrel::internal::geometry;

namespace {

// The plane of IMAGE; false for a curved image or one without two directions.
bool planeOf(NDicomImage& image, ImagePlane& plane)
{
    if (!image.getColumnPoints().isEmpty())
        return false;
    const double* o = image.getOrientation();
    const double* p = image.getPosition();
    plane.origin = {p[0], p[1], p[2]};
    plane.row = normalized({o[0], o[1], o[2]});
    plane.column = normalized({o[3], o[4], o[5]});
    plane.spacing[0] = image.getPixelSpacing()[0];
    plane.spacing[1] = image.getPixelSpacing()[1];
    plane.width = image.width();
    plane.height = image.height();
    return length(cross(plane.row, plane.column)) > 1e-6 && plane.spacing[0] > 0 && plane.spacing[1] > 0;
}

} // namespace

void NDicomImage::setColumnGeometry(const QVector<double>& points, const QVector<double>& steps)
{
    m_columnPoints = points;
    m_columnSteps = steps;
}

bool NDicomImage::getLocationLine(NDicomImage& other, QLineF& line)
{
    ImagePlane here, there;
    if (!planeOf(*this, here) || !planeOf(other, there))
        return false;
    double x0, y0, x1, y1;
    if (!planeCutsImage(here, there.origin, cross(there.row, there.column), &x0, &y0, &x1, &y1))
        return false;
    line = QLineF(x0, y0, x1, y1);
    return true;
}

QPointF NDicomImage::getLocationIJ(double x, double y, double z, double* distance)
{
    ImagePlane here;
    if (!planeOf(*this, here)) {
        if (distance)
            *distance = std::nan("");
        return QPointF(std::nan(""), std::nan(""));
    }
    double px, py;
    here.pixelOf({x, y, z}, px, py);
    if (distance)
        *distance = dot(subtract({x, y, z}, here.origin), normalized(cross(here.row, here.column)));
    return QPointF(px, py);
}
