#include "dicom/codecs_p.h"

#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "dicom/jpeg2000codec_p.h"

#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcistrmf.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcrledrg.h>
#include <dcmtk/dcmjpeg/djdecode.h>
#include <dcmtk/dcmjpls/djdecode.h>

#include <QFile>

namespace kestrel::internal {

void registerDecoders()
{
    static const bool registered = [] {
        DcmRLEDecoderRegistration::registerCodecs();
        DJDecoderRegistration::registerCodecs();
        DJLSDecoderRegistration::registerCodecs();
        Jpeg2000Decoder::registerOnce();
        return true;
    }();
    Q_UNUSED(registered);
}

bool isHtj2kTransferSyntax(const QString& uid)
{
    const QString trimmed = uid.trimmed();
    return trimmed == QLatin1String(kHtj2kLosslessUid) || trimmed == QLatin1String(kHtj2kLosslessRpclUid)
           || trimmed == QLatin1String(kHtj2kUid);
}

namespace {

// DCMTK takes a data set of an unknown transfer syntax for explicit little endian; an HTJ2K
// data set is read again from behind its meta header as JPEG 2000, which it is in all but name.
OFCondition readAsJpeg2000(DcmFileFormat& file, const QByteArray& name, const QString& uid, Uint32 maxReadLength)
{
    const E_TransferSyntax xfer = uid.trimmed() == QLatin1String(kHtj2kUid) ? EXS_JPEG2000 : EXS_JPEG2000LosslessOnly;
    file.clear();
    DcmInputFileStream stream(name.constData());
    if (stream.status().bad())
        return stream.status();
    DcmMetaInfo* meta = file.getMetaInfo();
    meta->transferInit();
    OFCondition cond = meta->read(stream, EXS_Unknown, EGL_noChange, maxReadLength);
    meta->transferEnd();
    if (cond.bad())
        return cond;
    DcmDataset* dataset = file.getDataset();
    dataset->transferInit();
    cond = dataset->read(stream, xfer, EGL_noChange, maxReadLength);
    dataset->transferEnd();
    return cond;
}

} // namespace

OFCondition loadPixelFile(DcmFileFormat& file, const QString& path, Uint32 maxReadLength)
{
    registerDecoders();
    const QByteArray name = QFile::encodeName(path);
    if (path.isEmpty())
        return EC_InvalidFilename;
    OFCondition cond = loadDicomFile(file, name, maxReadLength);
    if (cond.bad())
        return cond;
    const QString uid = dcmString(file.getMetaInfo(), DCM_TransferSyntaxUID);
    if (isHtj2kTransferSyntax(uid))
        cond = guardedRead([&] { return readAsJpeg2000(file, name, uid, maxReadLength); });
    return cond;
}

QString lossyCompressionNote(DcmFileFormat& file)
{
    DcmDataset* dataset = file.getDataset();
    const bool flagged = dcmString(dataset, DCM_LossyImageCompression).trimmed() == QLatin1String("01");
    QString syntax;
    const QString uid = dcmString(file.getMetaInfo(), DCM_TransferSyntaxUID).trimmed();
    const DcmXfer xfer(uid.toLatin1().constData());
    // JPEG 2000 and HTJ2K may hold either; their decoder flags the irreversible codestreams.
    if (!uid.isEmpty() && !isHtj2kTransferSyntax(uid) && xfer.isLossy() && !Jpeg2000Decoder::handles(xfer.getXfer()))
        syntax = QString::fromLatin1(xfer.getXferName());
    if (!flagged && syntax.isEmpty())
        return QString();
    const QString method = dcmStringAll(dataset, DCM_LossyImageCompressionMethod).trimmed();
    const QString detail = method.isEmpty() ? syntax : method;
    return detail.isEmpty() ? QStringLiteral("lossy compressed") : QStringLiteral("lossy compressed (%1)").arg(detail);
}

} // namespace kestrel::internal
