#include "network/qdcmstoragescp_p.h"

#include "dicom/dcmvalues_p.h"
#include "platform/fileplacement_p.h"

#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>

#include <QDebug>
#include <QDir>
#include <QFile>

QDcmStorageSCPPrivate::QDcmStorageSCPPrivate(QObject* parent) : QObject(parent) {}

QDcmStorageSCPPrivate::~QDcmStorageSCPPrivate() = default;

OFCondition QDcmStorageSCPPrivate::abortAssociation()
{
    return DcmStorageSCP::abortAssociation();
}

QString QDcmStorageSCPPrivate::normalizedFileName(const OFString& filename)
{
    QString name = QString::fromUtf8(filename.c_str(), int(filename.length()));
    name.replace(QLatin1String("\\\\"), QLatin1String("\\"));
    return name;
}

OFCondition QDcmStorageSCPPrivate::openListenPort()
{
    const OFCondition cond = DcmStorageSCP::openListenPort();
    if (cond.good())
        emit notifyListening();
    return cond;
}

OFCondition QDcmStorageSCPPrivate::handleIncomingCommand(T_DIMSE_Message* incomingMsg,
                                                         const DcmPresentationContextInfo& presInfo)
{
    if (m_abortRequested.exchange(false)) {
        // An error ends DCMTK's association loop, which then aborts the association itself.
        return makeOFCondition(OFM_dcmnet, 0x3ff, OF_error, "association aborted: the provider is stopping");
    }
    return DcmStorageSCP::handleIncomingCommand(incomingMsg, presInfo);
}

void QDcmStorageSCPPrivate::notifyAssociationAcknowledge()
{
    DcmStorageSCP::notifyAssociationAcknowledge();
    emit notifyStartReceveSeriesFiles();
}

void QDcmStorageSCPPrivate::notifyReleaseRequest()
{
    DcmStorageSCP::notifyReleaseRequest();
    emit notifyRecvedSeriesFiles(m_seriesUID);
}

void QDcmStorageSCPPrivate::notifyAbortRequest()
{
    DcmStorageSCP::notifyAbortRequest();
}

void QDcmStorageSCPPrivate::notifyAssociationTermination()
{
    DcmStorageSCP::notifyAssociationTermination();
}

void QDcmStorageSCPPrivate::notifyDIMSEError(const OFCondition& cond)
{
    DcmStorageSCP::notifyDIMSEError(cond);
    qDebug() << "Error store dicom File:" << cond.text();
}

OFBool QDcmStorageSCPPrivate::stopAfterCurrentAssociation()
{
    return m_stop;
}

OFBool QDcmStorageSCPPrivate::stopAfterConnectionTimeout()
{
    // The loop waits for connections one second at a time so that a stop is seen while idle.
    return m_stop;
}

Uint16 QDcmStorageSCPPrivate::checkAndProcessSTORERequest(const T_DIMSE_C_StoreRQ& reqMessage, DcmFileFormat& fileformat)
{
    DcmDataset* dataset = fileformat.getDataset();
    if (!dataset || dataset->isEmpty())
        return STATUS_STORE_Error_CannotUnderstand;
    OFString filename, directory;
    OFString sopClassUID = reqMessage.AffectedSOPClassUID;
    OFString sopInstanceUID = reqMessage.AffectedSOPInstanceUID;
    if (generateDirAndFilename(filename, directory, sopClassUID, sopInstanceUID, dataset).bad())
        return STATUS_STORE_Error_CannotUnderstand;
    // Another provider may be making the same folder at this moment: what counts is that it is there.
    const QString folder = QFile::decodeName(directory.c_str());
    if (!QDir().mkpath(folder)) {
        qWarning() << "QDcmStorageSCPPrivate: cannot create" << folder;
        return STATUS_STORE_Refused_OutOfResources;
    }
    fileformat.getMetaInfo()->putAndInsertString(DCM_SourceApplicationEntityTitle, getPeerAETitle().c_str());

    const QString target = normalizedFileName(filename);
    QString placed = target;
    for (int attempt = 1;; ++attempt) {
        const QString part = kestrel::internal::partName(placed);
        if (fileformat.saveFile(QFile::encodeName(part).constData()).bad()) {
            QFile::remove(part);
            qWarning() << "QDcmStorageSCPPrivate: cannot store a received object as" << part;
            return STATUS_STORE_Refused_OutOfResources;
        }
        const kestrel::internal::Placement result = kestrel::internal::placeFile(part, placed);
        if (result == kestrel::internal::Placement::Placed || result == kestrel::internal::Placement::AlreadyThere)
            break;
        if (result == kestrel::internal::Placement::Failed || attempt >= 100)
            return STATUS_STORE_Refused_OutOfResources;
        // Another object holds the name (UIDs that differ only past what a file name keeps):
        // this one gets a name of its own.
        placed = QStringLiteral("%1-%2").arg(target).arg(attempt + 1);
    }
    notifyInstanceStored(OFString(QFile::encodeName(placed).constData()), sopClassUID, sopInstanceUID, dataset);
    return STATUS_Success;
}

void QDcmStorageSCPPrivate::notifyInstanceStored(const OFString& filename, const OFString& sopClassUID,
                                                 const OFString& sopInstanceUID, DcmDataset* dataset) const
{
    DcmStorageSCP::notifyInstanceStored(filename, sopClassUID, sopInstanceUID, dataset);
    const QString name = normalizedFileName(filename);
    // An object without a Series Instance UID is announced under the previous object's series.
    if (dataset && kestrel::internal::dcmHas(dataset, DCM_SeriesInstanceUID)) {
        const QString uid = kestrel::internal::dcmString(dataset, DCM_SeriesInstanceUID);
        if (!uid.isEmpty())
            m_seriesUID = uid;
    }
    auto* self = const_cast<QDcmStorageSCPPrivate*>(this);
    emit self->notifyInstanceSaved(name, QString::fromLatin1(sopClassUID.c_str()),
                                   QString::fromLatin1(sopInstanceUID.c_str()), m_seriesUID);
}
