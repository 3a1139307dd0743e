#include "network/qdcmstoragescu_p.h"

#include "network/dcmnetwork_p.h"

#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmdata/dcxfer.h>

#include <QFile>

QDcmStorageSCUPrivate::QDcmStorageSCUPrivate(QObject* parent) : QObject(parent) {}

QDcmStorageSCUPrivate::~QDcmStorageSCUPrivate() = default;

OFCondition QDcmStorageSCUPrivate::addDecodedFile(const QString& file, DcmDataset* dataset)
{
    OFString sop;
    dataset->findAndGetOFString(DCM_SOPInstanceUID, sop);
    const OFCondition cond = addDataset(dataset, EXS_LittleEndianExplicit, HM_deleteAfterSend, OFTrue);
    if (cond.good())
        m_datasetFiles.insert(QString::fromLatin1(sop.c_str()), file);
    else
        delete dataset;
    return cond;
}

void QDcmStorageSCUPrivate::notifySOPInstanceSent(const TransferEntry& transferEntry)
{
    DcmStorageSCU::notifySOPInstanceSent(transferEntry);
    const QString file = transferEntry.Filename.isEmpty()
                             ? m_datasetFiles.value(QString::fromLatin1(transferEntry.SOPInstanceUID.c_str()))
                             : QFile::decodeName(transferEntry.Filename.getCharPointer());
    m_answered.insert(file);
    if (!transferEntry.RequestSent) {
        const char* sopClass = dcmFindNameOfUID(transferEntry.SOPClassUID.c_str(), transferEntry.SOPClassUID.c_str());
        const DcmXfer xfer(transferEntry.TransferSyntaxUID.c_str());
        emit notifyInstanceRefused(file, transferEntry.PresentationContextID == 0
            ? QStringLiteral("the peer takes no %1 in %2").arg(QString::fromLatin1(sopClass))
                  .arg(QString::fromLatin1(xfer.getXferName()))
            : QStringLiteral("not sent"));
        return;
    }
    const quint16 status = transferEntry.ResponseStatusCode;
    switch (kestrel::internal::storeAnswer(status)) {
    case kestrel::internal::StoreAnswer::Success:
        emit notifyInstanceSent();
        break;
    case kestrel::internal::StoreAnswer::Warning:
        emit notifyInstanceWarning(file, kestrel::internal::storeStatusText(status));
        emit notifyInstanceSent();
        break;
    case kestrel::internal::StoreAnswer::Failure:
        emit notifyInstanceRefused(file, kestrel::internal::storeStatusText(status));
        break;
    }
}

OFBool QDcmStorageSCUPrivate::shouldStopAfterCurrentSOPInstance()
{
    return DcmStorageSCU::shouldStopAfterCurrentSOPInstance();
}
