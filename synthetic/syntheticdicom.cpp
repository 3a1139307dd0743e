#include "syntheticdicom.h"

#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QDir>

#include <vector>

namespace {

QString joinDoubles(const QVector<double>& values)
{
    QStringList parts;
    for (double v : values)
        parts << QString::number(v, 'g', 10);
    return parts.join('\\');
}

void putText(DcmDataset* ds, const DcmTagKey& tag, const QString& value)
{
    if (!value.isEmpty())
        ds->putAndInsertString(tag, value.toLatin1().constData());
}

} // namespace

QString newTestUid()
{
    char uid[100];
    return QString::fromLatin1(dcmGenerateUniqueIdentifier(uid, "1.2.826.0.1.3680043.10.1234"));
}

bool writeSyntheticImage(const QString& path, SyntheticImage image, QString* error)
{
    if (image.studyUid.isEmpty())
        image.studyUid = newTestUid();
    if (image.seriesUid.isEmpty())
        image.seriesUid = newTestUid();
    if (image.sopUid.isEmpty())
        image.sopUid = newTestUid();

    DcmFileFormat file;
    DcmDataset* ds = file.getDataset();
    putText(ds, DCM_SpecificCharacterSet, image.specificCharacterSet);
    putText(ds, DCM_ImageType, image.imageType);
    putText(ds, DCM_SOPClassUID, image.sopClassUid);
    putText(ds, DCM_SOPInstanceUID, image.sopUid);
    putText(ds, DCM_StudyDate, image.studyDate);
    putText(ds, DCM_SeriesDate, image.seriesDate);
    putText(ds, DCM_StudyTime, image.studyTime);
    putText(ds, DCM_SeriesTime, image.seriesTime);
    putText(ds, DCM_AcquisitionTime, image.acquisitionTime);
    putText(ds, DCM_AccessionNumber, image.accessionNumber);
    putText(ds, DCM_Modality, image.modality);
    putText(ds, DCM_StudyDescription, image.studyDescription);
    putText(ds, DCM_SeriesDescription, image.seriesDescription);
    if (!image.patientNameBytes.isEmpty())
        ds->putAndInsertString(DCM_PatientName, image.patientNameBytes.constData());
    else
        putText(ds, DCM_PatientName, image.patientName);
    putText(ds, DCM_PatientID, image.patientId);
    putText(ds, DCM_StudyInstanceUID, image.studyUid);
    putText(ds, DCM_SeriesInstanceUID, image.seriesUid);
    putText(ds, DCM_StudyID, image.studyId);
    putText(ds, DCM_SeriesNumber, QString::number(image.seriesNumber));
    putText(ds, DCM_InstanceNumber, QString::number(image.instanceNumber));
    if (image.writeGeometry) {
        putText(ds, DCM_ImagePositionPatient, joinDoubles(image.position));
        putText(ds, DCM_ImageOrientationPatient, joinDoubles(image.orientation));
        putText(ds, DCM_PixelSpacing, joinDoubles({image.rowSpacing, image.columnSpacing}));
        putText(ds, DCM_SliceThickness, QString::number(image.sliceThickness, 'g', 10));
    }
    if (image.hasRescale) {
        putText(ds, DCM_RescaleIntercept, QString::number(image.rescaleIntercept, 'g', 10));
        putText(ds, DCM_RescaleSlope, QString::number(image.rescaleSlope, 'g', 10));
    }
    if (image.windowWidth > 0) {
        putText(ds, DCM_WindowCenter, QString::number(image.windowCenter, 'g', 10));
        putText(ds, DCM_WindowWidth, QString::number(image.windowWidth, 'g', 10));
    }
    for (const auto& [tag, value] : image.extra)
        ds->putAndInsertString(tag, value.toLatin1().constData());

    ds->putAndInsertUint16(DCM_SamplesPerPixel, static_cast<Uint16>(image.samplesPerPixel));
    putText(ds, DCM_PhotometricInterpretation, image.photometric);
    if (image.samplesPerPixel > 1)
        ds->putAndInsertUint16(DCM_PlanarConfiguration, 0);
    ds->putAndInsertUint16(DCM_Rows, static_cast<Uint16>(image.rows));
    ds->putAndInsertUint16(DCM_Columns, static_cast<Uint16>(image.columns));
    ds->putAndInsertUint16(DCM_BitsAllocated, static_cast<Uint16>(image.bitsAllocated));
    ds->putAndInsertUint16(DCM_BitsStored, static_cast<Uint16>(image.bitsStored));
    ds->putAndInsertUint16(DCM_HighBit, static_cast<Uint16>(image.bitsStored - 1));
    ds->putAndInsertUint16(DCM_PixelRepresentation, static_cast<Uint16>(image.pixelRepresentation));

    auto value = image.pixel ? image.pixel : [](int x, int y, int) { return x + y; };
    const size_t samples = size_t(image.rows) * image.columns * image.samplesPerPixel;
    if (image.bitsAllocated == 8) {
        std::vector<Uint8> pixels(samples);
        size_t n = 0;
        for (int y = 0; y < image.rows; ++y)
            for (int x = 0; x < image.columns; ++x)
                for (int s = 0; s < image.samplesPerPixel; ++s)
                    pixels[n++] = static_cast<Uint8>(value(x, y, s));
        ds->putAndInsertUint8Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
    } else if (image.bitsAllocated == 32) {
        std::vector<Uint32> pixels(samples);
        size_t n = 0;
        for (int y = 0; y < image.rows; ++y)
            for (int x = 0; x < image.columns; ++x)
                for (int s = 0; s < image.samplesPerPixel; ++s)
                    pixels[n++] = static_cast<Uint32>(value(x, y, s));
        ds->putAndInsertUint8Array(DCM_PixelData, reinterpret_cast<Uint8*>(pixels.data()),
                                   static_cast<unsigned long>(pixels.size() * 4));
    } else {
        std::vector<Uint16> pixels(samples);
        size_t n = 0;
        for (int y = 0; y < image.rows; ++y)
            for (int x = 0; x < image.columns; ++x)
                for (int s = 0; s < image.samplesPerPixel; ++s)
                    pixels[n++] = static_cast<Uint16>(value(x, y, s));
        ds->putAndInsertUint16Array(DCM_PixelData, pixels.data(), static_cast<unsigned long>(pixels.size()));
    }

    QDir().mkpath(QFileInfo(path).absolutePath());
    const OFCondition status =
        file.saveFile(QFile::encodeName(path).constData(), image.transferSyntax, EET_ExplicitLength);
    if (status.bad() && error)
        *error = QString::fromLatin1(status.text());
    return status.good();
}

QStringList writeSyntheticSeries(const QString& dir, SyntheticImage base, int count, const QVector<double>& step)
{
    if (base.studyUid.isEmpty())
        base.studyUid = newTestUid();
    if (base.seriesUid.isEmpty())
        base.seriesUid = newTestUid();
    const QVector<double> origin = base.position;
    QStringList paths;
    for (int k = 0; k < count; ++k) {
        SyntheticImage slice = base;
        slice.sopUid = newTestUid();
        slice.instanceNumber = base.instanceNumber + k;
        slice.position = {origin.value(0) + k * step.value(0), origin.value(1) + k * step.value(1),
                          origin.value(2) + k * step.value(2)};
        const QString path = QDir(dir).filePath(QString("slice_%1.dcm").arg(k, 3, 10, QChar('0')));
        if (writeSyntheticImage(path, slice))
            paths << path;
    }
    return paths;
}

QVector<double> normalStep(const SyntheticImage& base, double spacing)
{
    const QVector<double>& o = base.orientation;
    const double nx = o.value(1) * o.value(5) - o.value(2) * o.value(4);
    const double ny = o.value(2) * o.value(3) - o.value(0) * o.value(5);
    const double nz = o.value(0) * o.value(4) - o.value(1) * o.value(3);
    return {nx * spacing, ny * spacing, nz * spacing};
}
