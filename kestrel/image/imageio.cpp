#include "image/imageio_p.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/dicomtext_p.h"
#include "dicom/pixelvalues_p.h"
#include "geometry/geometry_p.h"
#include "platform/textnumbers_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcelem.h>
#include <dcmtk/dcmimgle/dcmimage.h>
#include <dcmtk/dcmimgle/dipixel.h>

#include <QStringList>

#include <cstring>
#include <vector>

namespace kestrel::internal {

namespace {

// Attributes of the template that speak of its own pixels, plane or display and would misstate
// the derived image's.
const DcmTagKey kTemplateOnly[] = {
    DCM_SmallestImagePixelValue, DCM_LargestImagePixelValue, DCM_SmallestPixelValueInSeries,
    DCM_LargestPixelValueInSeries, DCM_PixelPaddingValue, DCM_PixelPaddingRangeLimit, DCM_ModalityLUTSequence,
    DCM_VOILUTSequence, DCM_WindowCenterWidthExplanation, DCM_SliceLocation, DCM_NumberOfFrames,
    DCM_PlanarConfiguration, DCM_IconImageSequence, DCM_SpacingBetweenSlices};

QString decimals(const double* values, int count)
{
    QStringList parts;
    for (int i = 0; i < count; ++i)
        parts << formatDecimalString(values[i]);
    return parts.join('\\');
}

QByteArray encodeText(const QString& text, DcmDataset* ds)
{
    return DicomCharset(dcmCharacterSet(ds)).encode(text);
}

// Removes the overlay groups (60xx): they belong to the template's pixels.
void removeOverlays(DcmDataset* ds)
{
    std::vector<DcmTagKey> overlays;
    for (unsigned long i = 0; i < ds->card(); ++i) {
        const DcmTagKey tag = ds->getElement(i)->getTag();
        if (tag.getGroup() >= 0x6000 && tag.getGroup() <= 0x60FF && tag.getGroup() % 2 == 0)
            overlays.push_back(tag);
    }
    for (const DcmTagKey& tag : overlays)
        delete ds->remove(tag);
}

bool anyNegative(const DerivedImage& image)
{
    const qint64 count = qint64(image.columns) * image.rows;
    for (qint64 n = 0; n < count; ++n)
        if (image.pixels[n] & 0x8000)
            return true;
    return false;
}

// Stored = value - m with m the smallest value, at most -1; the shift becomes the intercept.
template <typename T>
qint64 shiftToUnsigned(const T* values, qint64 count, quint16* out)
{
    qint64 m = -1;
    for (qint64 i = 0; i < count; ++i)
        if (values[i] < m)
            m = values[i];
    for (qint64 i = 0; i < count; ++i) {
        const qint64 v = qint64(values[i]) - m;
        out[i] = quint16(v > 65535 ? 65535 : v);
    }
    return m;
}

// Signed data: the modality-transformed values, in the representation of the file's declared
// pixel format rather than of the values' actual range.
Status signedGreyPixels(DcmDataset* ds, qint64 pixels, quint16* out, double& slope, double& intercept,
                        const QString& file)
{
    DicomImage image(ds, ds->getCurrentXfer(), CIF_UseAbsolutePixelRange, 0, 1);
    const DiPixel* inter = image.getStatus() == EIS_Normal ? image.getInterData() : nullptr;
    if (!inter || !inter->getData() || qint64(inter->getCount()) < pixels)
        return Status::failed(QStringLiteral("NDicomImage::readReferenceFileInfo: DCMTK cannot render %1 %2")
                                  .arg(file, QString::fromLatin1(DicomImage::getString(image.getStatus()))));
    const void* data = inter->getData();
    slope = 1.0;
    intercept = 0.0;
    switch (inter->getRepresentation()) {
    case EPR_Sint8:
        intercept = double(shiftToUnsigned(static_cast<const Sint8*>(data), pixels, out));
        break;
    case EPR_Sint16:
        intercept = double(shiftToUnsigned(static_cast<const Sint16*>(data), pixels, out));
        break;
    case EPR_Sint32:
        // Rescaled values that need 32 bits get the same shift; values beyond 65535 after it saturate.
        intercept = double(shiftToUnsigned(static_cast<const Sint32*>(data), pixels, out));
        break;
    case EPR_Uint8:
        for (qint64 i = 0; i < pixels; ++i)
            out[i] = static_cast<const Uint8*>(data)[i];
        break;
    case EPR_Uint16:
        std::memcpy(out, data, size_t(pixels) * 2);
        break;
    case EPR_Uint32:
        for (qint64 i = 0; i < pixels; ++i)
            out[i] = quint16(static_cast<const Uint32*>(data)[i] & 0xFFFF);
        break;
    default:
        // The source position stays in the message: support scripts search the logs for it.
        return Status::failed(QStringLiteral("ndicomimage.cpp 728 NDicomImage::readReferenceFileInfo: unsupported "
                                             "intermediate pixel representation %1 in %2")
                                  .arg(int(inter->getRepresentation()))
                                  .arg(file));
    }
    return Status::ok();
}

} // namespace

Status readGreyPixels(DcmDataset* ds, qint64 pixels, quint16* out, double& slope, double& intercept,
                      const QString& file)
{
    const int allocated = dcmInt(ds, DCM_BitsAllocated, 16);
    const int stored = dcmInt(ds, DCM_BitsStored, allocated);
    const int high = dcmInt(ds, DCM_HighBit, stored - 1);
    const Uint16* words = nullptr;
    const Uint8* bytes = nullptr;
    unsigned long count = 0;
    const bool found = allocated == 8 ? ds->findAndGetUint8Array(DCM_PixelData, bytes, &count).good() && bytes
                                      : ds->findAndGetUint16Array(DCM_PixelData, words, &count).good() && words;
    // Byte data of an odd length carries one byte of padding.
    if (!found || qint64(count) < pixels || qint64(count) > pixels + (bytes ? 1 : 0))
        return Status(Status::InvalidInput,
                      QStringLiteral("NDicomImage::readReferenceFileInfo: %1 has no pixel data of the image's size")
                          .arg(file));
    if (dcmInt(ds, DCM_PixelRepresentation, 0) == 1)
        return signedGreyPixels(ds, pixels, out, slope, intercept, file);
    if (words) {
        unsignedStoredValues(words, pixels, stored, high, out);
    } else {
        for (qint64 i = 0; i < pixels; ++i)
            out[i] = bytes[i];
        unsignedStoredValues(out, pixels, stored, high, out);
    }
    return Status::ok();
}

QString patientOrientation(const double* row, const double* column)
{
    // Components below a thousandth are rounding noise of the cosines, not a direction.
    const geometry::Vec3 r{row[0], row[1], row[2]}, c{column[0], column[1], column[2]};
    return QString::fromStdString(geometry::directionCode(r, 0.001)) + '\\'
        + QString::fromStdString(geometry::directionCode(c, 0.001));
}

// Digits as such, whatever the process's locale.
QString dicomDate(const QDate& date)
{
    return QStringLiteral("%1%2%3").arg(date.year(), 4, 10, QChar('0')).arg(date.month(), 2, 10, QChar('0'))
        .arg(date.day(), 2, 10, QChar('0'));
}

QString dicomTime(const QTime& time)
{
    return QStringLiteral("%1%2%3").arg(time.hour(), 2, 10, QChar('0')).arg(time.minute(), 2, 10, QChar('0'))
        .arg(time.second(), 2, 10, QChar('0'));
}

Status putDerivedImage(DcmDataset* ds, const DerivedImage& image, const QString& seriesUid, const QByteArray& sopUid,
                       const QDateTime& now)
{
    const qint64 pixels = qint64(image.columns) * image.rows;
    if (!ds || !image.pixels || image.columns <= 0 || image.rows <= 0 || image.columns > 65535 || image.rows > 65535
        || pixels > 0xFFFFFFFFLL / 2)
        return Status(Status::InvalidInput, QStringLiteral("the image has no pixels to write"));
    for (const DcmTagKey& tag : kTemplateOnly)
        delete ds->remove(tag);
    removeOverlays(ds);

    // The pixels are written as they are, read as signed when any is negative; the rescale pair
    // is the image's, so that every reader gets the image's real values. A template without one
    // gets it only when it is not the identity.
    const bool isSigned = anyNegative(image);
    const bool rescale = ds->tagExists(DCM_RescaleSlope) || ds->tagExists(DCM_RescaleIntercept) || image.slope != 1
        || image.intercept != 0;
    const QString date = dicomDate(now.date()), time = dicomTime(now.time());
    auto put = [ds](const DcmTagKey& tag, const QByteArray& value) {
        return ds->putAndInsertString(DcmTag(tag), value.constData()).good();
    };
    auto text = [&put](const DcmTagKey& tag, const QString& value) { return put(tag, value.toLatin1()); };
    auto number = [&text](const DcmTagKey& tag, double value) { return text(tag, formatDecimalString(value)); };
    auto u16 = [ds](const DcmTagKey& tag, int value) { return ds->putAndInsertUint16(tag, Uint16(value)).good(); };
    const double cosines[6] = {image.row[0], image.row[1], image.row[2], image.column[0], image.column[1], image.column[2]};
    const double spacing[2] = {image.downColumn, image.alongRow};
    const bool ok = text(DCM_SeriesInstanceUID, seriesUid)
        && text(DCM_InstanceNumber, QString::number(image.instanceNumber))
        && text(DCM_SeriesNumber, QString::number(image.seriesNumber))
        && text(DCM_PatientOrientation, patientOrientation(image.row, image.column))
        && put(DCM_SeriesDescription, encodeText(image.seriesDescription, ds))
        && text(DCM_ImageOrientationPatient, decimals(cosines, 6)) && u16(DCM_Columns, image.columns)
        && u16(DCM_Rows, image.rows) && u16(DCM_SamplesPerPixel, 1)
        && (dcmString(ds, DCM_PhotometricInterpretation).trimmed().startsWith("MONOCHROME")
            || text(DCM_PhotometricInterpretation, QStringLiteral("MONOCHROME2")))
        && u16(DCM_BitsAllocated, 16) && u16(DCM_BitsStored, 16) && u16(DCM_HighBit, 15)
        && u16(DCM_PixelRepresentation, isSigned ? 1 : 0) && text(DCM_PixelSpacing, decimals(spacing, 2))
        && text(DCM_ImagePositionPatient, decimals(image.position, 3)) && number(DCM_SliceThickness, image.thickness)
        && (!rescale || (number(DCM_RescaleIntercept, image.intercept) && number(DCM_RescaleSlope, image.slope)))
        && text(DCM_InstanceCreationDate, date) && text(DCM_SeriesDate, date) && text(DCM_ContentDate, date)
        && text(DCM_InstanceCreationTime, time) && text(DCM_SeriesTime, time) && text(DCM_ContentTime, time)
        && put(DCM_SOPInstanceUID, sopUid) && text(DCM_ImageType, QStringLiteral("DERIVED\\SECONDARY\\MPR"))
        && text(DCM_SoftwareVersions, image.softwareVersions)
        && ds->putAndInsertUint16Array(DCM_PixelData, image.pixels, static_cast<unsigned long>(pixels)).good()
        && number(DCM_WindowWidth, image.windowWidth) && number(DCM_WindowCenter, image.windowCentre);
    if (!ok)
        return Status::failed(QStringLiteral("cannot set the attributes of the derived image"));
    return Status::ok();
}

} // namespace kestrel::internal
