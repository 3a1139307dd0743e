#include "ndicomimage.h"

#include "dicom/codecs_p.h"
#include "dicom/dcmvalues_p.h"
#include "geometry/imagegeometry_p.h"
#include "image/imageio_p.h"
#include "image/regionscan_p.h"
#include "platform/shareout_p.h"
#include "simd/kernels_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <QDate>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QRegion>
#include <QTime>
#include <QUuid>
#include <QVector>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <limits>

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
    m_columnPoints.clear();
    m_columnSteps.clear();
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
    m_columnPoints = src->m_columnPoints;
    m_columnSteps = src->m_columnSteps;
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
    if (i >= 0 && i < m_size[0] && m_columnPoints.size() == 3 * m_size[0] && m_columnSteps.size() == 3 * m_size[0]) {
        const double* p = m_columnPoints.constData() + 3 * i;
        const double* d = m_columnSteps.constData() + 3 * i;
        x = p[0] + j * d[0];
        y = p[1] + j * d[1];
        z = p[2] + j * d[2];
        return;
    }
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

bool NDicomImage::getGrayImage32(double width, double centre, unsigned int* out)
{
    if (m_steps[0] == 4) {
        // Colour images go to the display as they are; the result says no windowing took place.
        if (m_pixels && out && m_steps[2] > 0)
            std::memcpy(out, m_pixels, size_t(m_steps[2]));
        return false;
    }
    if (m_steps[0] != 2)
        return false;
    if (!(width >= 2.0))
        width = 2.0;

    if (!m_table || m_tableSlope != m_slope || m_tableIntercept != m_intercept || m_tableWidth != width
        || m_tableCentre != centre) {
        if (!m_table)
            m_table.reset(new quint32[65536]);
        quint32* table = m_table.get();
        const double half = width / 2;
        for (int v = 0; v < 32767; ++v) {
            double g = (v * m_slope + m_intercept - centre + half) / width * 255.0;
            // Truncation toward zero, then 0..255 (not-a-number gives black); branch-free so that
            // the loop vectorises.
            g = g > 0.0 ? g : 0.0;
            g = g < 255.0 ? g : 255.0;
            table[v] = quint32(int(g)) * 0x01010101u;
        }
        // Stored values from 32767 up (negative when read as signed) display black: the
        // application marks padding and out-of-volume pixels with them.
        std::memset(table + 32767, 0, (65536 - 32767) * sizeof(quint32));
        m_tableSlope = m_slope;
        m_tableIntercept = m_intercept;
        m_tableWidth = width;
        m_tableCentre = centre;
    }

    const qint64 count = qint64(m_size[0]) * m_size[1];
    if (count <= 0 || !m_pixels || !out)
        return true;
    // The lookup is bound by the processor's table fetches, not by memory: a large image is
    // shared with the library's helper thread in chunks.
    constexpr qint64 kChunk = 32768;
    const qint64 chunks = (count + kChunk - 1) / kChunk;
    const auto* pixels = reinterpret_cast<const quint16*>(m_pixels);
    const quint32* table = m_table.get();
    const auto part = [&](qint64 c) { lookupU16(out + c * kChunk, pixels + c * kChunk, table, qMin(kChunk, count - c * kChunk)); };
    shareOut(chunks, part, chunks >= 4);
    return true;
}

bool NDicomImage::getStandardDicomImage(NDicomImage& src)
{
    if (&src != this)
        clone(&src);
    const int rowCode = imageDirectionCode(m_orientation[0]);
    const int colCode = imageDirectionCode(m_orientation[1]);
    const int rowAxis = std::abs(rowCode) - 1;
    const int colAxis = std::abs(colCode) - 1;
    if (rowAxis == colAxis)
        return false; // no display convention for such a plane

    int targetRow, targetCol;
    if (rowAxis != 2 && colAxis != 2) {
        targetRow = 1; // axial: row +x, column +y
        targetCol = 2;
    } else if (rowAxis != 1 && colAxis != 1) {
        targetRow = 1; // coronal: row +x, column -z
        targetCol = -3;
    } else {
        targetRow = 2; // sagittal: row +y, column -z
        targetCol = -3;
    }

    const bool transpose = rowAxis != std::abs(targetRow) - 1;
    double newRow[3], newCol[3];
    for (int k = 0; k < 3; ++k) {
        newRow[k] = transpose ? m_orientation[1][k] : m_orientation[0][k];
        newCol[k] = transpose ? m_orientation[0][k] : m_orientation[1][k];
    }
    const bool flipRow = (transpose ? colCode : rowCode) != targetRow;
    const bool flipCol = (transpose ? rowCode : colCode) != targetCol;
    if (!transpose && !flipRow && !flipCol)
        return true;
    for (int k = 0; k < 3; ++k) {
        if (flipRow)
            newRow[k] = -newRow[k];
        if (flipCol)
            newCol[k] = -newCol[k];
    }

    const int oldW = m_size[0];
    const int oldH = m_size[1];
    const int newW = transpose ? oldH : oldW;
    const int newH = transpose ? oldW : oldH;

    // Old pixel that becomes new pixel (0, 0), and the source offsets (in old pixels along the
    // old row and column) when the new x and the new y advance by one.
    int ox0, oy0, stepXx, stepXy, stepYx, stepYy;
    if (transpose) {
        ox0 = flipCol ? oldW - 1 : 0;
        oy0 = flipRow ? oldH - 1 : 0;
        stepXx = 0, stepXy = flipRow ? -1 : 1;
        stepYx = flipCol ? -1 : 1, stepYy = 0;
    } else {
        ox0 = flipRow ? oldW - 1 : 0;
        oy0 = flipCol ? oldH - 1 : 0;
        stepXx = flipRow ? -1 : 1, stepXy = 0;
        stepYx = 0, stepYy = flipCol ? -1 : 1;
    }

    const double* corner = getTopPointXYZ(ox0, oy0);
    setPosition(corner[0], corner[1], corner[2]);
    if (transpose)
        setPixelSpace(m_pixelSpacing[1], m_pixelSpacing[0]);
    setOriention(newRow[0], newRow[1], newRow[2], newCol[0], newCol[1], newCol[2]);

    // The old pixels are the source: the old buffer is kept aside (transposition) or copied.
    const int step = m_steps[0];
    const qptrdiff oldLine = m_steps[1];
    std::unique_ptr<unsigned char[]> source;
    if (!transpose && step == 2 && m_pixels && oldLine == qptrdiff(oldW) * 2) {
        // Reversals of 16-bit images are done in place.
        quint16* p = reinterpret_cast<quint16*>(m_pixels);
        const qptrdiff count = qptrdiff(oldW) * oldH;
        if (flipRow && flipCol) {
            reverseU16(p, p + count);
        } else if (flipRow) {
            for (int y = 0; y < oldH; ++y)
                reverseU16(p + qptrdiff(y) * oldW, p + qptrdiff(y + 1) * oldW);
        } else {
            std::vector<quint16> row(static_cast<size_t>(oldW));
            const size_t rowBytes = size_t(oldW) * 2;
            for (int y = 0; y < oldH / 2; ++y) {
                quint16* top = p + qptrdiff(y) * oldW;
                quint16* bottom = p + qptrdiff(oldH - 1 - y) * oldW;
                std::memcpy(row.data(), top, rowBytes);
                std::memcpy(top, bottom, rowBytes);
                std::memcpy(bottom, row.data(), rowBytes);
            }
        }
        return true;
    }
    if (transpose) {
        source.reset(m_pixels);
        m_pixels = nullptr;
        setSize(newW, newH);
    } else if (m_pixels) {
        source.reset(new unsigned char[size_t(m_steps[2])]);
        std::memcpy(source.get(), m_pixels, size_t(m_steps[2]));
    }
    if (!source || !m_pixels)
        return true;
    const qptrdiff dx = stepXx * qptrdiff(step) + stepXy * oldLine;
    const qptrdiff dy = stepYx * qptrdiff(step) + stepYy * oldLine;
    const unsigned char* from = source.get() + qptrdiff(ox0) * step + qptrdiff(oy0) * oldLine;
    if (step == 2) {
        const quint16* s0 = reinterpret_cast<const quint16*>(from);
        quint16* d0 = reinterpret_cast<quint16*>(m_pixels);
        const qptrdiff ex = dx / 2, ey = dy / 2, line = m_steps[1] / 2;
        if (!transpose) {
            for (int y = 0; y < newH; ++y) {
                const quint16* s = s0 + y * ey;
                quint16* d = d0 + y * line;
                if (ex == 1)
                    std::memcpy(d, s, size_t(newW) * 2);
                else
                    for (int x = 0; x < newW; ++x)
                        d[x] = s[-x];
            }
        } else {
            transposeU16(s0, ex, ey, d0, line, newW, newH);
        }
        return true;
    }
    for (int y = 0; y < newH; ++y) {
        const unsigned char* s = from + y * dy;
        unsigned char* d = m_pixels + qptrdiff(y) * m_steps[1];
        for (int x = 0; x < newW; ++x, s += dx, d += step)
            std::memcpy(d, s, size_t(step));
    }
    return true;
}

namespace {

bool readInt(DcmItem* ds, const DcmTagKey& tag, int& field)
{
    if (!dcmHas(ds, tag) || dcmStringAll(ds, tag).trimmed().isEmpty())
        return false;
    field = dcmInt(ds, tag, field);
    return true;
}

bool readDouble(DcmItem* ds, const DcmTagKey& tag, double& field)
{
    if (!dcmHas(ds, tag) || dcmStringAll(ds, tag).trimmed().isEmpty())
        return false;
    field = dcmDouble(ds, tag, field);
    return true;
}

} // namespace

bool NDicomImage::readReferenceFileInfo(QString file, bool flag)
{
    Q_UNUSED(flag); // callers pass true; reading does not depend on it
    m_referenceFile = file;
    m_lossyNote.clear();
    DcmFileFormat fileFormat;
    const OFCondition status = kestrel::internal::loadPixelFile(fileFormat, file);
    if (status.bad()) {
        qWarning() << "NDicomImage::readReferenceFileInfo: cannot read" << file << status.text();
        return false;
    }
    DcmDataset* ds = fileFormat.getDataset();

    readInt(ds, DCM_InstanceNumber, m_instanceNumber);
    readInt(ds, DCM_SeriesNumber, m_seriesNumber);
    if (dcmHas(ds, DCM_PatientPosition))
        m_refPatientPosition = dcmStringAll(ds, DCM_PatientPosition).trimmed();
    const QVector<double> cosines = dcmDoubles(ds, DCM_ImageOrientationPatient);
    if (cosines.size() >= 6)
        for (int i = 0; i < 6; ++i)
            m_orientation[i / 3][i % 3] = cosines[i];
    const int oldW = m_size[0], oldH = m_size[1], oldStep = m_steps[0];
    readInt(ds, DCM_Columns, m_size[0]);
    readInt(ds, DCM_Rows, m_size[1]);
    int bitsAllocated = 0;
    // 8-bit data is widened to 16-bit pixels.
    if (readInt(ds, DCM_BitsAllocated, bitsAllocated))
        m_steps[0] = bitsAllocated == 8 ? 2 : bitsAllocated / 8;
    if (!m_pixels || oldW != m_size[0] || oldH != m_size[1] || oldStep != m_steps[0]
        || m_steps[2] != m_size[1] * m_size[0] * m_steps[0])
        reallocate();
    readInt(ds, DCM_HighBit, m_highBit);
    readInt(ds, DCM_BitsStored, m_bitsStored);
    readInt(ds, DCM_SmallestImagePixelValue, m_smallestPixel);
    readInt(ds, DCM_LargestImagePixelValue, m_largestPixel);
    // Between rows first, then between columns (the spacing along a row).
    const QVector<double> spacing = dcmDoubles(ds, DCM_PixelSpacing);
    if (spacing.size() >= 2) {
        m_pixelSpacing[0] = spacing[1];
        m_pixelSpacing[1] = spacing[0];
    }
    const QVector<double> position = dcmDoubles(ds, DCM_ImagePositionPatient);
    if (position.size() >= 3)
        for (int i = 0; i < 3; ++i)
            m_position[i] = position[i];
    readDouble(ds, DCM_SliceThickness, m_thickness);
    m_intercept = 0.0;
    m_slope = 1.0;
    readDouble(ds, DCM_RescaleIntercept, m_intercept);
    readDouble(ds, DCM_RescaleSlope, m_slope);
    m_windowCenter = 0.0;
    m_windowWidth = 2000.0;
    readDouble(ds, DCM_WindowCenter, m_windowCenter);
    readDouble(ds, DCM_WindowWidth, m_windowWidth);
    int samples = 1;
    readInt(ds, DCM_SamplesPerPixel, samples);

    const bool monochrome = dcmString(ds, DCM_PhotometricInterpretation).trimmed().startsWith("MONOCHROME");
    if (m_steps[0] != 2 || samples != 1 || (bitsAllocated == 8 && !monochrome)) {
        qWarning() << "NDicomImage::readReferenceFileInfo:" << file << "has" << samples << "samples of"
                   << bitsAllocated << "bits per pixel; only single 16-bit or 8-bit grey samples are read";
        return false;
    }
    const E_TransferSyntax xfer = ds->getOriginalXfer();
    if (DcmXfer(xfer).isEncapsulated() && ds->chooseRepresentation(EXS_LittleEndianExplicit, nullptr).bad()) {
        qWarning() << "NDicomImage::readReferenceFileInfo: cannot decompress the pixel data of" << file;
        return false;
    }
    const qint64 pixels = qint64(m_size[0]) * m_size[1];
    if (pixels * 2 != qint64(m_steps[2]) || !m_pixels) {
        qWarning() << "NDicomImage::readReferenceFileInfo:" << file << "has no room for its" << m_size[0] << "x"
                   << m_size[1] << "pixels";
        return false;
    }
    const Status read = readGreyPixels(ds, pixels, reinterpret_cast<quint16*>(m_pixels), m_slope, m_intercept, file);
    if (!read) {
        qWarning("%s", qPrintable(read.text()));
        return false;
    }
    m_lossyNote = kestrel::internal::lossyCompressionNote(fileFormat);
    return true;
}

bool NDicomImage::saveAs(QString outFile, QString templateFile, QString seriesUID)
{
    DcmFileFormat fileFormat;
    if (kestrel::internal::loadPixelFile(fileFormat, templateFile, DCM_MaxReadLength).bad()) {
        qWarning() << "NDicomImage::saveAs: cannot read the template" << templateFile;
        return false;
    }
    // Everything into memory: the output may be the template itself.
    fileFormat.loadAllDataIntoMemory();
    if (!m_pixels || m_steps[0] != 2 || qint64(m_size[0]) * m_size[1] * 2 > m_steps[2]
        || m_steps[1] != m_size[0] * 2) {
        qWarning() << "NDicomImage::saveAs: the image has no 16-bit pixels to write";
        return false;
    }
    DcmDataset* ds = fileFormat.getDataset();
    const E_TransferSyntax templateXfer = ds->getOriginalXfer();
    char uid[100];
    dcmGenerateUniqueIdentifier(uid, "1.2.276.0.7230010.3.1.4");
    m_refSoftwareVersions = QStringLiteral("Orvena_V1.0");

    DerivedImage image;
    image.columns = m_size[0];
    image.rows = m_size[1];
    image.pixels = reinterpret_cast<const quint16*>(m_pixels);
    image.alongRow = m_pixelSpacing[0];
    image.downColumn = m_pixelSpacing[1];
    std::copy(m_position, m_position + 3, image.position);
    std::copy(m_orientation[0], m_orientation[0] + 3, image.row);
    std::copy(m_orientation[1], m_orientation[1] + 3, image.column);
    image.thickness = m_thickness;
    image.slope = m_slope;
    image.intercept = m_intercept;
    image.windowCentre = m_windowCenter;
    image.windowWidth = m_windowWidth;
    image.instanceNumber = m_instanceNumber;
    image.seriesNumber = m_seriesNumber;
    image.seriesDescription = m_seriesDescription;
    image.softwareVersions = m_refSoftwareVersions;
    const Status put = putDerivedImage(ds, image, seriesUID, QByteArray(uid), QDateTime::currentDateTime());
    if (!put) {
        qWarning() << "NDicomImage::saveAs:" << outFile << put.text();
        return false;
    }
    // The file meta information names the new instance too.
    fileFormat.getMetaInfo()->putAndInsertString(DCM_MediaStorageSOPInstanceUID, uid);

    // Pixel data was replaced uncompressed: a compressed template is written uncompressed.
    const E_TransferSyntax xfer =
        DcmXfer(templateXfer).isEncapsulated() ? EXS_LittleEndianExplicit : EXS_Unknown;
    // Written beside the target and renamed, so that no partial file is left behind.
    const QFileInfo target(outFile);
    const QString temporary = target.absolutePath() + "/." + target.fileName() + "."
        + QUuid::createUuid().toString(QUuid::WithoutBraces) + ".part";
    const OFCondition saved = fileFormat.saveFile(QFile::encodeName(temporary).constData(), xfer);
    if (saved.bad() || std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(outFile).constData()) != 0) {
        qWarning() << "NDicomImage::saveAs: cannot write" << outFile << (saved.bad() ? saved.text() : "");
        QFile::remove(temporary);
        return false;
    }
    return true;
}

// ---- Region measurements -------------------------------------------------------------------

namespace {

struct Accumulator {
    double sum = 0.0;
    qint64 count = 0;
    int max = -1; // kept at -1: the viewer shows -1 for regions of lower values
    int min = 2147483647;
    void add(int v, qint64 times = 1)
    {
        if (times <= 0)
            return;
        sum += double(v) * double(times);
        count += times;
        if (v > max)
            max = v;
        if (v < min)
            min = v;
    }
};

// True when the centre of pixel (x, y), the point (x + 0.5, y + 0.5), lies inside the ellipse
// inscribed in R.
bool centreInEllipse(const QRectF& r, qint64 x, qint64 y)
{
    const double dx = double(x) + 0.5 - r.x() - r.width() / 2;
    const double dy = double(y) + 0.5 - r.y() - r.height() / 2;
    return 4 * dx * dx / (r.width() * r.width()) + 4 * dy * dy / (r.height() * r.height()) < 1.0;
}

bool finite(const QRectF& r)
{
    return std::isfinite(r.x()) && std::isfinite(r.y()) && std::isfinite(r.width()) && std::isfinite(r.height());
}

// The rows of column X of R's scan (ROWS) whose pixel centres lie inside the ellipse of R: one
// interval, worked out from the ellipse's equation and settled by the exact test at its ends.
region::ScanAxis ellipseRows(const QRectF& r, qint64 x, const region::ScanAxis& rows)
{
    const double dx = double(x) + 0.5 - r.x() - r.width() / 2;
    const double t = 1.0 - 4 * dx * dx / (r.width() * r.width());
    if (!(t > 0) || rows.count == 0)
        return {};
    const double half = r.height() / 2 * std::sqrt(t);
    const double centre = r.y() + r.height() / 2 - 0.5;
    qint64 lo = std::max(rows.from, region::truncated(std::floor(centre - half)));
    qint64 hi = std::min(rows.end() - 1, region::truncated(std::ceil(centre + half)));
    while (lo <= hi && !centreInEllipse(r, x, lo))
        ++lo;
    while (hi >= lo && !centreInEllipse(r, x, hi))
        --hi;
    return {lo, std::max<qint64>(0, hi - lo + 1)};
}

// Pixels outside the image count with the value sampled there (the intercept), but are not
// visited: only the part of a region inside the image is read, whatever the region's size.
int outsideValue(double intercept)
{
    return short(int(intercept));
}

} // namespace

markShowValue NDicomImage::getRect(const QRectF& r)
{
    Accumulator acc;
    const double w = r.width(), h = r.height();
    const region::ScanAxis columns = region::scanAxis(r.x(), w), rows = region::scanAxis(r.y(), h);
    const region::ScanAxis inColumns = region::inside(columns, m_size[0]), inRows = region::inside(rows, m_size[1]);
    for (qint64 x = inColumns.from; x < inColumns.end(); ++x)
        for (qint64 y = inRows.from; y < inRows.end(); ++y)
            acc.add(sampled(int(x), int(y)));
    acc.add(outsideValue(m_intercept), columns.count * rows.count - inColumns.count * inRows.count);
    markShowValue value;
    // Divided by the nominal area, not the pixel count.
    value.mean = acc.sum / (w * h);
    value.max = acc.max;
    value.min = acc.min;
    value.size = w * h;
    if (!finite(r)) // refused: no pixel, no area
        value = markShowValue{0.0, -1, 2147483647, 0.0};
    return value;
}

markShowValue NDicomImage::getEllipse(const QRectF& r)
{
    Accumulator acc;
    if (finite(r)) {
        const region::ScanAxis columns = region::scanAxis(r.x(), r.width()), rows = region::scanAxis(r.y(), r.height());
        for (qint64 x = columns.from; x < columns.end(); ++x) {
            const region::ScanAxis in = ellipseRows(r, x, rows);
            const region::ScanAxis visited = x >= 0 && x < m_size[0] ? region::inside(in, m_size[1]) : region::ScanAxis{};
            for (qint64 y = visited.from; y < visited.end(); ++y)
                acc.add(sampled(int(x), int(y)));
            acc.add(outsideValue(m_intercept), in.count - visited.count);
        }
    }
    markShowValue value;
    value.mean = acc.sum / double(acc.count);
    value.max = acc.max;
    value.min = acc.min;
    value.size = double(acc.count);
    return value;
}

markShowValue NDicomImage::getPolygon(const QPolygonF& p)
{
    const QRectF box = p.boundingRect();
    Accumulator acc;
    // Every pixel of the box is tested against the polygon (64-bit: no bound overflows).
    const region::ScanAxis columns = region::scanAxis(box.x(), box.width()), rows = region::scanAxis(box.y(), box.height());
    for (qint64 x = columns.from; x < columns.end(); ++x)
        for (qint64 y = rows.from; y < rows.end(); ++y)
            if (p.containsPoint(QPointF(double(x), double(y)), Qt::OddEvenFill))
                acc.add(x >= 0 && x < m_size[0] && y >= 0 && y < m_size[1] ? sampled(int(x), int(y)) : outsideValue(m_intercept));
    markShowValue value;
    value.mean = acc.sum / double(acc.count);
    value.max = acc.max;
    value.min = acc.min;
    value.size = double(acc.count);
    return value;
}

markShowValue NDicomImage::getLine(const QLineF& l, double spacingX, double spacingY)
{
    markShowValue value;
    value.max = std::numeric_limits<int>::min();
    value.min = std::numeric_limits<int>::max();
    const double x1 = l.x1(), y1 = l.y1(), x2 = l.x2(), y2 = l.y2();
    if (!std::isfinite(x1) || !std::isfinite(y1) || !std::isfinite(x2) || !std::isfinite(y2))
        return markShowValue{0.0, -1, 2147483647, 0.0}; // refused
    double sum = 0.0;
    auto add = [&](int v, qint64 times) {
        if (times <= 0)
            return;
        sum += double(v) * double(times);
        value.max = std::max(value.max, v);
        value.min = std::min(value.min, v);
    };
    qint64 divisor;
    if (x1 == x2) {
        const region::ScanAxis rows = region::halfOpen(std::min(y1, y2), std::max(y1, y2));
        const qint64 x = region::truncated(x1);
        const region::ScanAxis visited = x >= 0 && x < m_size[0] ? region::inside(rows, m_size[1]) : region::ScanAxis{};
        for (qint64 y = visited.from; y < visited.end(); ++y)
            add(sampled(int(x), int(y)), 1);
        add(outsideValue(m_intercept), rows.count - visited.count);
        value.size = l.length() * spacingY;
        // One more than the samples: the viewer's figures for vertical lines rely on this divisor.
        divisor = rows.count + 1;
    } else {
        const double k = (y1 - y2) / (x1 - x2);
        const double c = y1 - x1 * k;
        // One sample per column whatever the slope, as the viewer has always measured.
        const region::ScanAxis columns = region::halfOpen(std::min(x1, x2), std::max(x1, x2));
        const region::ScanAxis visited = region::inside(columns, m_size[0]);
        qint64 read = 0;
        for (qint64 x = visited.from; x < visited.end(); ++x) {
            const qint64 y = region::truncated(double(x) * k + c);
            if (y >= 0 && y < m_size[1]) {
                add(sampled(int(x), int(y)), 1);
                ++read;
            }
        }
        add(outsideValue(m_intercept), columns.count - read);
        value.size = std::sqrt(((y2 - y1) * spacingY) * ((y2 - y1) * spacingY)
                               + ((x2 - x1) * spacingX) * ((x2 - x1) * spacingX));
        divisor = columns.count + 1;
    }
    if (l.length() != 0)
        value.mean = sum / double(divisor);
    return value;
}

markShowValue NDicomImage::getPolygonLine(const QPolygonF& p, double spacingX, double spacingY)
{
    markShowValue value;
    double weighted = 0.0;
    double weights = 0.0;
    for (int i = 0; i + 1 < p.size(); ++i) {
        const markShowValue segment = getLine(QLineF(p[i], p[i + 1]), spacingX, spacingY);
        value.size += segment.size;
        value.max = std::max(value.max, segment.max);
        value.min = std::min(value.min, segment.min);
        const double weight = int(std::max(p[i].x(), p[i + 1].x())) - int(std::min(p[i].x(), p[i + 1].x())) + 1;
        weighted += weight * segment.mean;
        weights += weight;
    }
    value.mean = weights > 0 ? weighted / weights : 0.0;
    return value;
}

bool NDicomImage::contains(const QRectF& r, const QPointF& p)
{
    const double dx = p.x() - r.x() - r.width() / 2;
    const double dy = p.y() - r.y() - r.height() / 2;
    return 4 * dx * dx / (r.width() * r.width()) + 4 * dy * dy / (r.height() * r.height()) < 1.0;
}

bool NDicomImage::ellipseContains(const QRectF& r, const QPointF& centre, const QPointF& p)
{
    const double dx = p.x() - centre.x();
    const double dy = p.y() - centre.y();
    return 4 * dx * dx / (r.width() * r.width()) + 4 * dy * dy / (r.height() * r.height()) < 1.0;
}

QPointF NDicomImage::pointbetween1(QPolygonF p)
{
    const QRectF box = p.boundingRect();
    float best = -1.0f;
    QPointF result(0, 0);
    for (int x = int(box.left() + 1); x < box.left() + box.width() - 1; ++x)
        for (int y = int(box.top() + 1); y < box.top() + box.height() - 1; ++y) {
            const float v = float(sampled(x, y));
            if (v > best) {
                best = v;
                result = QPointF(x, y);
            }
        }
    return result;
}

QPointF NDicomImage::pointbetween(QPolygonF p)
{
    const QRectF box = p.boundingRect();
    float best = -1.0f;
    QPointF result(0, 0);
    for (int x = int(box.left() + 1); x < box.left() + box.width() - 1; ++x)
        for (int y = int(box.top() + 1); y < box.top() + box.height() - 1; ++y) {
            const float gx = float(sampled(x + 1, y)) - float(sampled(x - 1, y));
            const float gy = float(sampled(x, y + 1)) - float(sampled(x, y - 1));
            const float score = gx * gx + gy * gy;
            if (score > best) {
                best = score;
                result = QPointF(x, y);
            }
        }
    return result;
}

QList<markShowValue> NDicomImage::getVesselInfo(const QRectF& r, QList<QPolygonF> polys, QLineF l1, QLineF l2)
{
    QVector<Accumulator> bins(4 + 4 * polys.size());
    const double x0 = r.x(), y0 = r.y(), w = r.width(), h = r.height();
    for (int x = int(x0); x < x0 + w; ++x)
        for (int y = int(y0); y < y0 + h; ++y) {
            if (!centreInEllipse(r, x, y))
                continue;
            const int sector = getSectorRegion(l1, l2, x, y);
            const int v = sampled(x, y);
            bins[sector].add(v);
            for (int i = 0; i < polys.size(); ++i)
                if (polys[i].containsPoint(QPointF(x, y), Qt::OddEvenFill))
                    bins[4 + 4 * i + sector].add(v);
        }
    QList<markShowValue> result;
    for (const Accumulator& acc : bins) {
        markShowValue value;
        value.mean = acc.sum / double(acc.count);
        value.max = acc.max;
        value.min = acc.min;
        value.size = double(acc.count);
        result.append(value);
    }
    return result;
}

int NDicomImage::getSectorRegion(QLineF l1, QLineF l2, int x, int y)
{
    auto leftOf = [x, y](const QLineF& l) {
        return (l.x2() - l.x1()) * (y - l.y1()) - (l.y2() - l.y1()) * (x - l.x1()) > 0;
    };
    return (leftOf(l1) ? 1 : 0) | (leftOf(l2) ? 2 : 0);
}
