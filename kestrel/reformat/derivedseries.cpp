// The series builders of NDicomVolume: stacks of oblique planes, the volume resampled onto
// another series' images, the volume slice by slice and masked, written as derived DICOM series
// and catalogued on request. They sit above the volume and the importer, which they join.
#include "reformat/derivedseries_p.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "ndicomimage.h"
#include "ndicomvolume.h"
#include "nbitvolume.h"
#include "qdcmfiles.h"
#include "qinstance.h"
#include "qseries.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cmath>
#include <memory>

using namespace kestrel::internal;
using namespace kestrel::internal::reformat;

namespace kestrel::internal::reformat {

Status readSeriesTemplate(const QString& file, SeriesTemplate& out)
{
    DcmFileFormat format;
    if (file.isEmpty() || loadDicomFile(format, QFile::encodeName(file), 4096).bad())
        return Status(Status::InvalidInput, QStringLiteral("cannot read %1").arg(file.isEmpty() ? "the source's first file" : file));
    DcmDataset* ds = format.getDataset();
    out.file = file;
    out.frameOfReference = dcmString(ds, DCM_FrameOfReferenceUID).trimmed();
    out.seriesNumber = 1000 + dcmInt(ds, DCM_SeriesNumber, 0);
    out.description = QStringLiteral("MPR %1").arg(dcmString(ds, DCM_SeriesDescription)).trimmed().left(64);
    return Status::ok();
}

Status sameFrameOfReference(const SeriesTemplate& source, const SeriesTemplate& reference)
{
    if (source.frameOfReference.isEmpty() || reference.frameOfReference.isEmpty())
        return Status(Status::InvalidInput,
                      QStringLiteral("%1 names no Frame of Reference: its space cannot be matched")
                          .arg(source.frameOfReference.isEmpty() ? source.file : reference.file));
    if (source.frameOfReference != reference.frameOfReference)
        return Status(Status::InvalidInput, QStringLiteral("the series lie in another Frame of Reference (%1, not %2)")
                                                .arg(reference.frameOfReference, source.frameOfReference));
    return Status::ok();
}

} // namespace kestrel::internal::reformat

namespace {

bool failed(QString* error, const QString& why)
{
    qWarning().noquote() << "NDicomVolume:" << why;
    if (error)
        *error = why;
    return false;
}

// The first file of the series VOLUME was built from: its own series, else the catalogue's
// series of the head's key (a volume loaded from the cache has no series object).
QString firstFileOf(NDicomVolume& volume)
{
    if (QSeries* series = volume.getVolumeSeries(); series && !series->getInstances().isEmpty())
        return series->getInstances().first()->getFilePath();
    if (volume.getHead()->SEPK <= 0)
        return {};
    QSeries series(volume.getHead()->SEPK);
    series.searchInstance();
    return series.getInstances().isEmpty() ? QString() : series.getInstances().first()->getFilePath();
}

} // namespace

bool NDicomVolume::writeDerivedSeries(int count, const std::function<bool(int, NDicomImage&, QString*)>& make,
                                      const QString& folder, bool import, QStringList* files, QString* error)
{
    SeriesTemplate source;
    if (const Status read = readSeriesTemplate(firstFileOf(*this), source); !read)
        return failed(error, read.text());
    if (count < 1)
        return failed(error, QStringLiteral("a series needs at least one image"));
    if (folder.isEmpty() || !QDir().mkpath(folder))
        return failed(error, QStringLiteral("cannot create the folder %1").arg(folder));
    char uid[100];
    dcmGenerateUniqueIdentifier(uid, SITE_SERIES_UID_ROOT);
    QStringList written;
    for (int n = 0; n < count; ++n) {
        NDicomImage image;
        QString why;
        if (!make(n, image, &why))
            return failed(error, why.isEmpty() ? QStringLiteral("image %1 cannot be made").arg(n + 1) : why);
        image.setInstanceNumber(n + 1);
        image.setSeriesNumber(source.seriesNumber);
        image.setSeriesDescription(source.description);
        const QString file = QDir(folder).filePath(QStringLiteral("IMG%1.dcm").arg(n + 1, 4, 10, QChar('0')));
        if (!image.saveAs(file, source.file, QString::fromLatin1(uid)))
            return failed(error, QStringLiteral("cannot write %1").arg(file));
        written << file;
    }
    if (import) {
        QDcmFiles importer;
        importer.loadLocalFilesToDB(written, 0);
        const QDcmFiles::RunCounts counts = importer.lastRunCounts();
        if (!importer.lastImportSucceeded() || counts.imagesAdded != written.size())
            return failed(error, QStringLiteral("the catalogue took %1 of %2 images%3")
                                     .arg(counts.imagesAdded)
                                     .arg(written.size())
                                     .arg(importer.lastError().isEmpty() ? QString() : ": " + importer.lastError()));
    }
    if (files)
        *files = written;
    return true;
}

bool NDicomVolume::createNewSeriesbyManual(const QString& folder, const double* centre, const double* row,
                                           const double* column, int width, int height, double spacingX,
                                           double spacingY, double sliceSpacing, int count, double thickness,
                                           RenderType render, bool import, QStringList* files, QString* error)
{
    if (!centre || !row || !column)
        return failed(error, QStringLiteral("the plane needs a centre and two directions"));
    const double normal[3] = {row[1] * column[2] - row[2] * column[1], row[2] * column[0] - row[0] * column[2],
                              row[0] * column[1] - row[1] * column[0]};
    const double length = std::sqrt(normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2]);
    const double dot = row[0] * column[0] + row[1] * column[1] + row[2] * column[2];
    if (!(length > 1e-6))
        return failed(error, QStringLiteral("the row and column directions are parallel"));
    if (std::fabs(dot) > 1e-3)
        return failed(error, QStringLiteral("the row and column directions are not at right angles"));
    if (count > 1 && !(sliceSpacing > 0))
        return failed(error, QStringLiteral("a stack needs a slice spacing above 0"));
    return writeDerivedSeries(
        count,
        [&](int n, NDicomImage& image, QString* why) {
            double at[3];
            for (int a = 0; a < 3; ++a)
                at[a] = centre[a] + n * sliceSpacing * normal[a] / length;
            if (getDicomImage(image, at, row, column, width, height, spacingX, spacingY, thickness, render))
                return true;
            *why = QStringLiteral("plane %1 cannot be cut (unit directions, sizes of at least 1)").arg(n + 1);
            return false;
        },
        folder, import, files, error);
}

bool NDicomVolume::createNewSeriesbyReference(QSeries* reference, const QString& folder, bool import,
                                              QStringList* files, QString* error)
{
    if (!reference)
        return failed(error, QStringLiteral("no reference series"));
    if (reference->getInstances().isEmpty())
        reference->searchInstance();
    QList<QInstance*> images = reference->getInstances();
    if (images.isEmpty())
        return failed(error, QStringLiteral("the reference series has no images"));
    SeriesTemplate source, target;
    if (const Status read = readSeriesTemplate(firstFileOf(*this), source); !read)
        return failed(error, read.text());
    if (const Status read = readSeriesTemplate(images.first()->getFilePath(), target); !read)
        return failed(error, read.text());
    if (const Status same = sameFrameOfReference(source, target); !same)
        return failed(error, same.text());
    for (QInstance* image : images)
        if (!image->isGeometryValid())
            image->searchInstanceInfo();
    return writeDerivedSeries(
        images.size(),
        [&](int n, NDicomImage& image, QString* why) {
            const QInstance* like = images[n];
            const int columns = like->getImageSize()[1], rows = like->getImageSize()[0];
            const double* spacing = like->getPixelSpacing(); // between rows, between columns
            const double* position = like->getPosition();
            const double* r = like->getOrientation(0);
            const double* c = like->getOrientation(1);
            double centre[3];
            for (int a = 0; a < 3; ++a)
                centre[a] = position[a] + (columns - 1) / 2.0 * spacing[1] * r[a] + (rows - 1) / 2.0 * spacing[0] * c[a];
            if (like->isGeometryValid() && spacing[0] > 0 && spacing[1] > 0
                && getDicomImage(image, centre, r, c, columns, rows, spacing[1], spacing[0], 0, RenderMax)) {
                // The reference's own position, not its recomputation from the centre.
                image.setPosition(position[0], position[1], position[2]);
                return true;
            }
            *why = QStringLiteral("image %1 of the reference series has no usable geometry (%2)")
                       .arg(n + 1)
                       .arg(like->getFilePath());
            return false;
        },
        folder, import, files, error);
}

namespace {

// Slice K of VOLUME as an image of its own plane; voxels of MASK's clear bits set to BACKGROUND.
bool sliceImage(NDicomVolume& volume, int k, NDicomImage& image, NBitVolume* mask, short background)
{
    if (!volume.getDicomImagePlane(image, k, 1, AxisK, RenderMax))
        return false;
    const VolumeHead& head = *volume.getHead();
    const double* p = volume.getPointXYZ(0, 0, k);
    image.setPosition(p[0], p[1], p[2]);
    const double* o = head.orientation;
    image.setOriention(o[0], o[1], o[2], o[3], o[4], o[5]);
    image.setSlopeAndIntercept(head.RescaleSlope != 0 ? head.RescaleSlope : 1.0, head.RescaleIntercept);
    image.setWindowWidth(head.WindowWidth);
    image.setWindowCenter(head.WindowCenter);
    image.setThickness(head.thinkness > 0 ? head.thinkness : head.voxelspace[2]);
    if (mask)
        for (int j = 0; j < image.height(); ++j)
            for (int i = 0; i < image.width(); ++i)
                if (!mask->GetVoxel(i, j, k))
                    image.setValue16u(i, j, quint16(background));
    return true;
}

} // namespace

bool NDicomVolume::saveVolumeToImage(const QString& folder, bool import, QStringList* files, QString* error)
{
    if (!isValid() || !getData())
        return failed(error, QStringLiteral("the volume is empty"));
    return writeDerivedSeries(
        m_head.volumesize[2], [&](int k, NDicomImage& image, QString*) { return sliceImage(*this, k, image, nullptr, 0); },
        folder, import, files, error);
}

bool NDicomVolume::maskDicomVolume(NBitVolume* mask, const QString& folder, bool import, QStringList* files,
                                   QString* error)
{
    if (!isValid() || !getData())
        return failed(error, QStringLiteral("the volume is empty"));
    const int* n = m_head.volumesize;
    if (!mask || !mask->GetBuffer())
        return failed(error, QStringLiteral("no mask"));
    if (mask->GetSizeX() != n[0] || mask->GetSizeY() != n[1] || mask->GetSizeZ() != n[2])
        return failed(error, QStringLiteral("the mask is %1 x %2 x %3 voxels, the volume %4 x %5 x %6")
                                 .arg(mask->GetSizeX()).arg(mask->GetSizeY()).arg(mask->GetSizeZ())
                                 .arg(n[0]).arg(n[1]).arg(n[2]));
    const short background = backgroundValue();
    return writeDerivedSeries(
        n[2], [&](int k, NDicomImage& image, QString*) { return sliceImage(*this, k, image, mask, background); }, folder,
        import, files, error);
}
