#include "phantom.h"

#include "syntheticdicom.h"

#include <dcmtk/dcmdata/dcdeftag.h>

#include <QDir>
#include <QFileInfo>

#include <cmath>

namespace app {

namespace {

// Inside test of an axis-aligned ellipsoid centred at (cx, cy, cz) with semi-axes (a, b, c).
double ellipsoid(double x, double y, double z, double cx, double cy, double cz, double a, double b, double c)
{
    const double dx = (x - cx) / a, dy = (y - cy) / b, dz = (z - cz) / c;
    return dx * dx + dy * dy + dz * dz;
}

// Fixed identifiers so that every run writes the same study.
const char* const kStudyUid = "1.2.826.0.1.3680043.10.1234.1.1";
const char* const kAxialUid = "1.2.826.0.1.3680043.10.1234.1.1.1";
const char* const kSagittalUid = "1.2.826.0.1.3680043.10.1234.1.1.2";

SyntheticImage phantomBase()
{
    SyntheticImage base;
    base.patientName = "Phantom^Kestrel";
    base.patientId = "KESTREL-DEMO";
    base.specificCharacterSet = "ISO_IR 100";
    base.studyUid = kStudyUid;
    base.studyDescription = "Head phantom";
    base.bitsStored = 12;
    base.windowCenter = 600;
    base.windowWidth = 1200;
    base.extra = {{DCM_RepetitionTime, "520"}, {DCM_EchoTime, "12"}, {DCM_MagneticFieldStrength, "3"},
                  {DCM_PatientAge, "042Y"}, {DCM_PatientSex, "O"}, {DCM_PatientPosition, "HFS"},
                  {DCM_BodyPartExamined, "HEAD"}, {DCM_InstitutionName, "Kestrel demo"}};
    return base;
}

QStringList writeSeries(const QString& dir, SyntheticImage base, int count, double spacing)
{
    const QVector<double> step = normalStep(base, spacing);
    const QVector<double> origin = base.position;
    QStringList files;
    for (int k = 0; k < count; ++k) {
        const QString path = QDir(dir).filePath(QString("IM%1.dcm").arg(k + 1, 4, 10, QChar('0')));
        files << path;
        if (QFileInfo::exists(path))
            continue;
        SyntheticImage slice = base;
        slice.sopUid = QString("%1.%2").arg(base.seriesUid).arg(k + 1);
        slice.instanceNumber = k + 1;
        slice.position = {origin[0] + k * step[0], origin[1] + k * step[1], origin[2] + k * step[2]};
        const QVector<double> o = base.orientation, p = slice.position;
        const double dr = base.rowSpacing, dc = base.columnSpacing;
        slice.pixel = [o, p, dr, dc](int i, int j, int) {
            // Pixel (i, j) lies at p + i * column spacing * row direction + j * row spacing * column direction.
            return phantomValue(p[0] + i * dc * o[0] + j * dr * o[3], p[1] + i * dc * o[1] + j * dr * o[4],
                                p[2] + i * dc * o[2] + j * dr * o[5]);
        };
        writeSyntheticImage(path, slice);
    }
    return files;
}

} // namespace

QString phantomAxialSeriesUid()
{
    return QString::fromLatin1(kAxialUid);
}

int phantomValue(double x, double y, double z)
{
    if (ellipsoid(x, y, z, 0, 0, 0, 80, 100, 75) > 1.0)
        return 0;                                              // air
    if (ellipsoid(x, y, z, 0, 0, 0, 72, 92, 67) > 1.0)
        return 1500;                                           // scalp and skull marrow
    if (ellipsoid(x, y, z, 0, 0, 0, 68, 88, 63) > 1.0)
        return 80;                                             // cortical bone
    if (ellipsoid(x, y, z, 0, 6, 8, 6, 22, 14) <= 1.0 || ellipsoid(x, y, z, -14, 6, 8, 6, 22, 14) <= 1.0 ||
        ellipsoid(x, y, z, 14, 6, 8, 6, 22, 14) <= 1.0)
        return 1800;                                           // ventricles (bright, T2-like)
    if (ellipsoid(x, y, z, 28, -40, 30, 9, 9, 9) <= 1.0)
        return 2400;                                           // lesion
    if (ellipsoid(x, y, z, 0, 20, -40, 30, 30, 18) <= 1.0)
        return 900;                                            // brain stem and cerebellum
    // Grey matter rim around white matter, with a gentle texture.
    const double wm = ellipsoid(x, y, z, 0, 0, 2, 58, 78, 55);
    const int texture = int(40 * std::sin(x / 6.0) * std::cos(y / 7.0));
    return wm <= 1.0 ? 700 + texture : 1000 + texture;
}

PhantomStudy writePhantomStudy(const QString& dir, int size, int axialSlices)
{
    PhantomStudy study;
    const double fov = 220.0, pixel = fov / size;

    SyntheticImage axial = phantomBase();
    axial.seriesUid = kAxialUid;
    axial.seriesNumber = 2;
    axial.seriesDescription = "T1 axial";
    axial.rows = axial.columns = size;
    axial.rowSpacing = axial.columnSpacing = pixel;
    axial.sliceThickness = 160.0 / axialSlices;
    axial.orientation = {1, 0, 0, 0, 1, 0};
    axial.position = {-fov / 2, -fov / 2, -80};
    study.axialFiles = writeSeries(dir + "/axial", axial, axialSlices, axial.sliceThickness);

    SyntheticImage sagittal = phantomBase();
    sagittal.seriesUid = kSagittalUid;
    sagittal.seriesNumber = 3;
    sagittal.seriesDescription = "T1 sagittal";
    sagittal.rows = sagittal.columns = size;
    sagittal.rowSpacing = sagittal.columnSpacing = pixel;
    sagittal.sliceThickness = 4.0;
    sagittal.orientation = {0, 1, 0, 0, 0, -1};
    sagittal.position = {-60, -fov / 2, fov / 2};
    study.sagittalFiles = writeSeries(dir + "/sagittal", sagittal, 31, -4.0);
    return study;
}

} // namespace app
