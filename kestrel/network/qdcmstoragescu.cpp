#include "qdcmstoragescu.h"

#include "dicom/codecs_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "network/dcmnetwork_p.h"
#include "network/qdcmstoragescu_p.h"
#include "kestrelpaths.h"

#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/dcmdata/dcxfer.h>
#include <dcmtk/dcmnet/diutil.h>

#include <QDebug>
#include <QDir>
#include <QFile>
#include <QHash>
#include <QSet>

#include <memory>
#include <QSettings>

QDcmStorageSCU* QDcmStorageSCU::s_instance = nullptr;

QDcmStorageSCU* QDcmStorageSCU::instance()
{
    if (!s_instance)
        s_instance = new QDcmStorageSCU;
    return s_instance;
}

QDcmStorageSCU::QDcmStorageSCU(QObject* parent) : QObject(parent)
{
    kestrel::internal::disableNagleForDcmtk();
}

QDcmStorageSCU::~QDcmStorageSCU()
{
    if (s_instance == this)
        s_instance = nullptr;
    delete d;
}

void QDcmStorageSCU::setPeerHostName(QString host)
{
    m_peerHostName = host;
}

void QDcmStorageSCU::setAETitle(QString aeTitle)
{
    m_aeTitle = aeTitle;
}

void QDcmStorageSCU::setPeerAETitle(QString aeTitle)
{
    m_peerAETitle = aeTitle;
}

void QDcmStorageSCU::setPeerPort(short port)
{
    m_peerPort = port;
}

int QDcmStorageSCU::queuedFiles() const
{
    return m_queue.size();
}

void QDcmStorageSCU::SetSendConfig()
{
    if (!d) {
        kestrel::internal::registerDecoders();
        d = new QDcmStorageSCUPrivate;
        connect(d, SIGNAL(notifyInstanceSent()), this, SIGNAL(notifyInstanceSent()));
        connect(d, &QDcmStorageSCUPrivate::notifyInstanceWarning, this, &QDcmStorageSCU::notifyInstanceWarning);
        // A peer that accepts the connection but never answers must not hold the caller forever.
        d->setACSETimeout(30);
        d->setConnectionTimeout(10);
        // Files go out in the transfer syntax the peer accepted, decoded first when that is needed.
        d->setDatasetConversionMode(OFTrue);
    }
    d->setPeerPort(Uint16(m_peerPort));
    d->setAETitle(OFString(m_aeTitle.toUtf8().constData()));
    d->setPeerAETitle(OFString(m_peerAETitle.toUtf8().constData()));
    d->setPeerHostName(OFString(m_peerHostName.toUtf8().constData()));
}

void QDcmStorageSCU::SetForwardinfo(QString aeTitle, QString host, int port)
{
    setAETitle(aeTitle);
    setPeerAETitle(aeTitle);
    setPeerHostName(host);
    setPeerPort(short(port & 0xffff));
    SetSendConfig();
}

namespace {

// The series, SOP class and transfer syntax of FILE, read from its header; an error when it
// cannot be sent at all.
OFCondition readSendable(const QString& file, QString& seriesUID, QString& sopClassUID, QString& transferSyntaxUID)
{
    DcmFileFormat format;
    const QByteArray name = QFile::encodeName(file);
    const OFCondition cond = kestrel::internal::loadDicomFile(format, name, 256);
    if (cond.bad())
        return makeOFCondition(OFM_dcmnet, 0x3f0, OF_error,
                               QStringLiteral("not a readable DICOM file (%1)").arg(cond.text()).toUtf8().constData());
    DcmDataset* dataset = format.getDataset();
    for (const auto& [tag, what] : {std::pair{DCM_SOPClassUID, "SOP Class UID"}, {DCM_SOPInstanceUID, "SOP Instance UID"}})
        if (kestrel::internal::dcmString(dataset, tag).trimmed().isEmpty())
            return makeOFCondition(OFM_dcmnet, 0x3f1, OF_error,
                                   QStringLiteral("no %1 in its data set").arg(QLatin1String(what)).toUtf8().constData());
    seriesUID = kestrel::internal::dcmString(dataset, DCM_SeriesInstanceUID).trimmed();
    sopClassUID = kestrel::internal::dcmString(dataset, DCM_SOPClassUID).trimmed();
    transferSyntaxUID = kestrel::internal::dcmString(format.getMetaInfo(), DCM_TransferSyntaxUID).trimmed();
    return EC_Normal;
}

} // namespace

OFCondition QDcmStorageSCU::addDecoded(const QString& file)
{
    auto format = std::make_unique<DcmFileFormat>();
    OFCondition cond = kestrel::internal::loadPixelFile(*format, file, DCM_MaxReadLength);
    DcmDataset* dataset = format->getDataset();
    if (cond.good())
        cond = dataset->chooseRepresentation(EXS_LittleEndianExplicit, nullptr);
    if (cond.bad())
        return makeOFCondition(OFM_dcmnet, 0x3f2, OF_error,
                               QStringLiteral("its HTJ2K pixel data cannot be decoded (%1)").arg(cond.text()).toUtf8().constData());
    // Lossy pixels are not decompressed for sending, as with the other compressed syntaxes.
    if (!kestrel::internal::lossyCompressionNote(*format).isEmpty())
        return makeOFCondition(OFM_dcmnet, 0x3f3, OF_error,
                               "HTJ2K cannot be sent over this network, and its lossy pixels are not decompressed for it");
    return d->addDecodedFile(file, format->getAndRemoveDataset());
}

OFCondition QDcmStorageSCU::addDicomFile(QString file)
{
    if (!d)
        SetSendConfig();
    QueuedFile queued{file, {}, {}, {}};
    const OFCondition cond = readSendable(file, queued.seriesUID, queued.sopClassUID, queued.transferSyntaxUID);
    if (cond.good())
        m_queue.append(queued);
    return cond;
}

int QDcmStorageSCU::onNotifyAddOneDicomFile(QString file)
{
    const OFCondition cond = addDicomFile(file);
    if (cond.bad()) {
        qDebug() << "QDcmStorageSCU::onNotifyAddOneDicomFile" << -1 << file << cond.text();
        return -1;
    }
    return 0;
}

void QDcmStorageSCU::refuse(const QString& file, const QString& reason, int& refused)
{
    ++refused;
    emit notifyInstanceRefused(file, reason);
}

bool QDcmStorageSCU::sendSeries(const QVector<QueuedFile>& files, int& refused)
{
    // A fresh transfer list and association count for each series.
    d->clear();
    d->clearPresentationContexts();
    d->clearAnswered();
    // One unreadable file or one refusal does not stop the rest of the series.
    d->setHaltOnInvalidFileMode(OFFalse);
    d->setHaltOnUnsuccessfulStoreMode(OFFalse);
    d->setDecompressionMode(DcmStorageSCU::DM_losslessOnly);
    // Refusals counted from the private object's answers, then whatever it never answered.
    const QMetaObject::Connection counting = connect(d, &QDcmStorageSCUPrivate::notifyInstanceRefused, this,
                                                     [&](const QString& file, const QString& reason) {
                                                         refuse(file, reason, refused);
                                                     });
    QVector<QueuedFile> queued;
    for (const QueuedFile& file : files) {
        const OFCondition added = kestrel::internal::isHtj2kTransferSyntax(file.transferSyntaxUID)
                                      ? addDecoded(file.path)
                                      : d->addDicomFile(OFFilename(QFile::encodeName(file.path).constData()),
                                                        ERM_autoDetect, OFTrue);
        if (added.good())
            queued << file;
        else
            refuse(file.path, QString::fromLatin1(added.text()), refused);
    }
    OFCondition cond = EC_Normal;
    bool reachable = true;
    size_t waiting = d->getNumberOfSOPInstancesToBeSent();
    while (!queued.isEmpty() && waiting > 0) {
        cond = d->addPresentationContexts();
        if (cond.good())
            cond = d->initNetwork();
        if (cond.good()) {
            cond = d->negotiateAssociation();
            // Refused contexts concern these objects only; any other failure is the peer's.
            reachable = cond.good() || cond == NET_EC_NoAcceptablePresentationContexts;
        }
        if (cond.good()) {
            cond = d->sendSOPInstances();
            if (cond == DUL_PEERREQUESTEDRELEASE)
                d->closeAssociation(DCMSCU_PEER_REQUESTED_RELEASE);
            else if (cond == DUL_PEERABORTEDASSOCIATION)
                d->closeAssociation(DCMSCU_PEER_ABORTED_ASSOCIATION);
            else if (cond.good())
                cond = d->releaseAssociation();
        }
        if (d->isConnected())
            d->closeAssociation(DCMSCU_ABORT_ASSOCIATION);
        const size_t left = d->getNumberOfSOPInstancesToBeSent();
        if (cond.bad() || left >= waiting)
            break; // nothing more can go
        waiting = left;
    }
    disconnect(counting);
    const QString why = cond.bad() ? QString::fromLatin1(cond.text()) : QStringLiteral("not sent");
    for (const QueuedFile& file : qAsConst(queued)) {
        if (d->answered().contains(file.path))
            continue;
        if (cond == NET_EC_NoAcceptablePresentationContexts) {
            const QByteArray sopClass = file.sopClassUID.toLatin1(), syntax = file.transferSyntaxUID.toLatin1();
            refuse(file.path, QStringLiteral("the peer takes no %1 in %2")
                                  .arg(QString::fromLatin1(dcmFindNameOfUID(sopClass.constData(), sopClass.constData())))
                                  .arg(QString::fromLatin1(DcmXfer(syntax.constData()).getXferName())),
                   refused);
        } else {
            refuse(file.path, why, refused);
        }
    }
    if (cond.bad())
        m_lastError = why;
    return reachable;
}

int QDcmStorageSCU::sendQueued()
{
    if (!d || m_queue.isEmpty()) {
        m_lastError = QStringLiteral("nothing to send");
        return -1;
    }
    // Series in the order their first file was queued, each file once.
    QStringList order;
    QHash<QString, QVector<QueuedFile>> bySeries;
    QSet<QString> seen;
    for (const QueuedFile& file : qAsConst(m_queue)) {
        if (seen.contains(file.path))
            continue;
        seen.insert(file.path);
        QVector<QueuedFile>& files = bySeries[file.seriesUID];
        if (files.isEmpty())
            order << file.seriesUID;
        files << file;
    }
    m_lastError.clear();
    int refused = 0, total = 0;
    bool reachable = true;
    for (const QString& series : qAsConst(order)) {
        const QVector<QueuedFile>& files = bySeries[series];
        total += files.size();
        if (!reachable) {
            for (const QueuedFile& file : files)
                refuse(file.path, m_lastError, refused);
            continue;
        }
        reachable = sendSeries(files, refused);
    }
    if (refused > 0 && reachable)
        m_lastError = QStringLiteral("%1 of %2 objects did not arrive").arg(refused).arg(total);
    return refused == 0 ? 0 : -1;
}

int QDcmStorageSCU::onNotifySentDicomFiles()
{
    const int result = sendQueued();
    // Each batch is sent once: the next send starts from an empty queue and fresh contexts.
    m_queue.clear();
    if (d) {
        if (d->isConnected())
            d->closeAssociation(DCMSCU_ABORT_ASSOCIATION);
        d->clear();
        d->clearPresentationContexts();
    }
    return result;
}

int QDcmStorageSCU::echo()
{
    if (!d)
        SetSendConfig();
    d->clearPresentationContexts();
    OFList<OFString> syntaxes;
    syntaxes.push_back(UID_LittleEndianExplicitTransferSyntax);
    syntaxes.push_back(UID_LittleEndianImplicitTransferSyntax);
    OFCondition cond = d->addPresentationContext(UID_VerificationSOPClass, syntaxes);
    if (cond.good())
        cond = d->initNetwork();
    if (cond.good())
        cond = d->negotiateAssociation();
    if (cond.good())
        cond = d->sendECHORequest(0);
    if (cond.good())
        cond = d->releaseAssociation();
    if (d->isConnected())
        d->closeAssociation(DCMSCU_ABORT_ASSOCIATION);
    d->clearPresentationContexts();
    m_lastError = cond.good() ? QString() : QString::fromLatin1(cond.text());
    return cond.good() ? 0 : -1;
}

void QDcmStorageSCU::onNotifyForward(QStringList files)
{
    for (const QString& file : qAsConst(files))
        onNotifyAddOneDicomFile(file);
    onNotifySentDicomFiles();
}

void QDcmStorageSCU::onNotifySendSelectData(QStringList imagepath, QString AETitle, QString host, int port)
{
    qDebug() << "onNotifySendSelectData-onNotifySendSelectData";
    setAETitle(AETitle);
    setPeerAETitle(AETitle);
    setPeerHostName(host);
    setPeerPort(short(port & 0xffff));
    SetSendConfig();
    for (const QString& path : qAsConst(imagepath))
        onNotifyAddOneDicomFile(path);
    onNotifySentDicomFiles();
    qDebug() << "onNotifySendSelectData-onNotifySendSelectData";
}

void QDcmStorageSCU::onNotifySendMRA(int dataType, QString filepath)
{
    QSettings settings(Kestrel::configFilePath(QStringLiteral("dicomsendservice.ini")), QSettings::IniFormat);
    const QStringList groups = settings.childGroups();
    if (groups.isEmpty() || dataType != 1 || !groups.contains(QStringLiteral("MRA")))
        return;
    const QString group = QStringLiteral("MRA");
    const QString aeTitle = settings.value(QStringLiteral("%1/AETitle").arg(group)).toString();
    const int port = settings.value(QStringLiteral("%1/Port").arg(group)).toInt();
    const QString ip = settings.value(QStringLiteral("%1/IP").arg(group)).toString();

    const QDir dir(filepath);
    const QStringList files = dir.entryList(QDir::Files);
    // The node's AE title names both ends of the association, as on the other send paths.
    setAETitle(aeTitle);
    setPeerAETitle(aeTitle);
    setPeerHostName(ip);
    setPeerPort(short(port & 0xffff));
    SetSendConfig();
    for (const QString& name : files)
        onNotifyAddOneDicomFile(dir.filePath(name));
    onNotifySentDicomFiles();
}
