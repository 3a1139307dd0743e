#include "ndicomimage.h"

#include "internal/imagegeometry.h"

#include <cmath>
#include <cstring>

using namespace kestrel::internal;

NDicomImage::NDicomImage(QObject* parent)
    : QObject(parent)
{
}

NDicomImage::NDicomImage(int width, int height, int pixStep)
{
    setImage(width, height, pixStep);
}

NDicomImage::NDicomImage(const int* size, const double* spacing, const double* position,
                         const double* orientation, double thickness, int pixStep, int lineBytes, int totalBytes)
{
    InitImageInfo(size, spacing, position, orientation, thickness, pixStep, lineBytes, totalBytes);
}

NDicomImage::~NDicomImage()
{
    freePixels();
}

void NDicomImage::freePixels()
{
    delete[] m_pixels;
    m_pixels = nullptr;
}

// Steps from size and pixStep, buffer allocated anew (not cleared: callers fill it).
void NDicomImage::reallocate()
{
    m_steps[1] = m_size[0] * m_steps[0];
    m_steps[2] = m_size[1] * m_steps[1];
    freePixels();
    if (m_steps[2] > 0)
        m_pixels = new unsigned char[size_t(m_steps[2])];
}

void NDicomImage::InitImageInfo(const int* size, const double* spacing, const double* position,
                                const double* orientation, double thickness, int pixStep, int lineBytes,
                                int totalBytes)
{
    m_size[0] = size[0];
    m_size[1] = size[1];
    m_pixelSpacing[0] = spacing[0];
    m_pixelSpacing[1] = spacing[1];
    for (int i = 0; i < 3; ++i)
        m_position[i] = position[i];
    for (int i = 0; i < 6; ++i)
        m_orientation[i / 3][i % 3] = orientation[i];
    m_steps[0] = pixStep;
    m_thickness = thickness;
    m_steps[1] = lineBytes >= 1 ? lineBytes : m_size[0] * pixStep;
    m_steps[2] = totalBytes >= 1 ? totalBytes : m_size[1] * m_steps[1];
    freePixels();
    if (m_steps[2] > 0)
        m_pixels = new unsigned char[size_t(m_steps[2])];
}

void NDicomImage::InitImageInfo(const int* size, const double* spacing, const double* position,
                                const double (*orientation)[3], double thickness, int pixStep, int lineBytes,
                                int totalBytes)
{
    const double flat[6] = {orientation[0][0], orientation[0][1], orientation[0][2],
                            orientation[1][0], orientation[1][1], orientation[1][2]};
    InitImageInfo(size, spacing, position, flat, thickness, pixStep, lineBytes, totalBytes);
}

bool NDicomImage::InitImageInfo(QString fileName)
{
    // The caller looks at the image itself; the reader's result is not passed on.
    readReferenceFileInfo(fileName, true);
    return true;
}

void NDicomImage::clone(NDicomImage* src)
{
    if (!src || src == this)
        return;
    InitImageInfo(src->m_size, src->m_pixelSpacing, src->m_position, &src->m_orientation[0][0],
                  src->m_thickness, src->m_steps[0], src->m_steps[1], src->m_steps[2]);
    m_seriesDescription = src->m_seriesDescription;
    m_userValue = src->m_userValue;
    m_slope = src->m_slope;
    m_intercept = src->m_intercept;
    m_windowWidth = src->m_windowWidth;
    m_windowCenter = src->m_windowCenter;
    if (m_pixels && src->m_pixels)
        std::memcpy(m_pixels, src->m_pixels, size_t(m_steps[2]));
}

void NDicomImage::setPixelSpace(double spacingX, double spacingY)
{
    m_pixelSpacing[0] = spacingX;
    m_pixelSpacing[1] = spacingY;
}

void NDicomImage::setPosition(double x, double y, double z)
{
    m_position[0] = x;
    m_position[1] = y;
    m_position[2] = z;
}

double* NDicomImage::getOrientation(int i)
{
    if (i == 0 || i == 1)
        return m_orientation[i];
    return nullptr;
}

void NDicomImage::setSlopeAndIntercept(double slope, double intercept)
{
    m_slope = slope;
    m_intercept = intercept;
}

void NDicomImage::setreorientationz(double x, double y, double z)
{
    m_reorientationz[0] = x;
    m_reorientationz[1] = y;
    m_reorientationz[2] = z;
}

void NDicomImage::setImage(int width, int height, int pixStep)
{
    m_size[0] = width;
    m_size[1] = height;
    m_steps[0] = pixStep;
    reallocate();
}

void NDicomImage::setSize(int width, int height)
{
    m_size[0] = width;
    m_size[1] = height;
    reallocate();
}

void NDicomImage::setSize(int width, int height, int type)
{
    setImage(width, height, type == 13 ? 4 : 2);
}

void NDicomImage::setOriention(double rx, double ry, double rz, double cx, double cy, double cz)
{
    m_orientation[0][0] = rx;
    m_orientation[0][1] = ry;
    m_orientation[0][2] = rz;
    m_orientation[1][0] = cx;
    m_orientation[1][1] = cy;
    m_orientation[1][2] = cz;
    double n[3];
    imageCross(m_orientation[0], m_orientation[1], n);
    // Parallel directions give a zero length and thus a not-a-number normal; callers never pass them.
    const double length = std::sqrt(n[0] * n[0] + n[1] * n[1] + n[2] * n[2]);
    for (int i = 0; i < 3; ++i)
        m_reorientationz[i] = n[i] / length;
}

bool NDicomImage::setPixData(const char* data, int bytes)
{
    if (!data)
        return false;
    if (!m_pixels && m_steps[2] > 0) {
        m_pixels = new unsigned char[size_t(m_steps[2])];
        std::memset(m_pixels, 0, size_t(m_steps[2]));
    }
    if (bytes != m_steps[2] || !m_pixels)
        return false;
    std::memcpy(m_pixels, data, size_t(bytes));
    return true;
}

unsigned short NDicomImage::getValue16u(int x, int y) const
{
    unsigned short v;
    std::memcpy(&v, m_pixels + qptrdiff(x) * m_steps[0] + qptrdiff(y) * m_steps[1], sizeof v);
    return v;
}

void NDicomImage::setValue16u(int x, int y, unsigned short value)
{
    std::memcpy(m_pixels + qptrdiff(x) * m_steps[0] + qptrdiff(y) * m_steps[1], &value, sizeof value);
}

int NDicomImage::sampled(int x, int y) const
{
    if (m_pixels && m_steps[0] == 2 && x >= 0 && x < m_size[0] && y >= 0 && y < m_size[1]) {
        short v;
        std::memcpy(&v, m_pixels + qptrdiff(x) * 2 + qptrdiff(y) * m_steps[1], sizeof v);
        return short(int(v * m_slope + m_intercept));
    }
    return short(int(m_intercept));
}

short NDicomImage::getValue16s(int x, int y) const
{
    return short(sampled(x, y));
}

void NDicomImage::getXYZ(int i, int j, double& x, double& y, double& z) const
{
    const double di = i * m_pixelSpacing[0];
    const double dj = j * m_pixelSpacing[1];
    x = m_position[0] + di * m_orientation[0][0] + dj * m_orientation[1][0];
    y = m_position[1] + di * m_orientation[0][1] + dj * m_orientation[1][1];
    z = m_position[2] + di * m_orientation[0][2] + dj * m_orientation[1][2];
}

double* NDicomImage::getTopPointXYZ(int i, int j)
{
    getXYZ(i, j, m_topPoint[0], m_topPoint[1], m_topPoint[2]);
    return m_topPoint;
}

void NDicomImage::caclulateImageMidPoint()
{
    getXYZ(m_size[0] / 2, m_size[1] / 2, m_imageMidPoint[0], m_imageMidPoint[1], m_imageMidPoint[2]);
}

void NDicomImage::expandImageSize()
{
    const int w = m_size[0];
    const int h = m_size[1];
    const double dx = std::floor((w - w / 0.7) * 0.5);
    const double dy = std::floor((h - h / 0.7) * 0.5);
    for (int k = 0; k < 3; ++k)
        m_position[k] += dx * m_pixelSpacing[0] * m_orientation[0][k] + dy * m_pixelSpacing[1] * m_orientation[1][k];
    m_size[0] = int(w / 0.7);
    m_size[1] = int(h / 0.7);
    reallocate();
}

bool NDicomImage::getGrayImage32(double, double, unsigned int*)
{
    return false;
}

bool NDicomImage::getStandardDicomImage(NDicomImage&)
{
    return false;
}

bool NDicomImage::readReferenceFileInfo(QString file, bool)
{
    m_referenceFile = file;
    return false;
}

bool NDicomImage::saveAs(QString, QString, QString)
{
    return false;
}

markShowValue NDicomImage::getRect(const QRectF&) { return markShowValue(); }
markShowValue NDicomImage::getEllipse(const QRectF&) { return markShowValue(); }
markShowValue NDicomImage::getPolygon(const QPolygonF&) { return markShowValue(); }
markShowValue NDicomImage::getLine(const QLineF&, double, double) { return markShowValue(); }
markShowValue NDicomImage::getPolygonLine(const QPolygonF&, double, double) { return markShowValue(); }
bool NDicomImage::contains(const QRectF&, const QPointF&) { return false; }
bool NDicomImage::ellipseContains(const QRectF&, const QPointF&, const QPointF&) { return false; }
QPointF NDicomImage::pointbetween1(QPolygonF) { return QPointF(); }
QPointF NDicomImage::pointbetween(QPolygonF) { return QPointF(); }
QList<markShowValue> NDicomImage::getVesselInfo(const QRectF&, QList<QPolygonF>, QLineF, QLineF) { return {}; }
int NDicomImage::getSectorRegion(QLineF, QLineF, int, int) { return 0; }
