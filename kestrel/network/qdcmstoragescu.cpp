#include "qdcmstoragescu.h"

#include "network/dcmnetwork_p.h"
#include "network/qdcmstoragescu_p.h"
#include "kestrelpaths.h"

#include <dcmtk/dcmnet/diutil.h>

#include <QDebug>
#include <QDir>
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
    return d ? int(d->getNumberOfSOPInstances()) : 0;
}

void QDcmStorageSCU::SetSendConfig()
{
    if (!d) {
        d = new QDcmStorageSCUPrivate;
        connect(d, SIGNAL(notifyInstanceSent()), this, SIGNAL(notifyInstanceSent()));
        // A peer that accepts the connection but never answers must not hold the caller forever.
        d->setACSETimeout(30);
        d->setConnectionTimeout(10);
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

OFCondition QDcmStorageSCU::addDicomFile(QString file)
{
    if (!d)
        SetSendConfig();
    return d->addDicomFile(OFFilename(file.toUtf8().constData()), ERM_autoDetect, OFTrue);
}

int QDcmStorageSCU::onNotifyAddOneDicomFile(QString file)
{
    const OFCondition cond = addDicomFile(file);
    if (cond.bad()) {
        qDebug() << "QDcmStorageSCU::onNotifyAddOneDicomFile" << -1;
        return -1;
    }
    return 0;
}

int QDcmStorageSCU::sendQueued()
{
    if (!d || d->getNumberOfSOPInstances() == 0)
        return -1;
    if (d->addPresentationContexts().bad())
        return -1;
    if (d->initNetwork().bad() || d->negotiateAssociation().bad())
        return -1;
    const OFCondition sent = d->sendSOPInstances();
    if (sent.bad()) {
        if (sent == DUL_PEERREQUESTEDRELEASE)
            d->closeAssociation(DCMSCU_PEER_REQUESTED_RELEASE);
        else if (sent == DUL_PEERABORTEDASSOCIATION)
            d->closeAssociation(DCMSCU_PEER_ABORTED_ASSOCIATION);
        return -1;
    }
    return d->releaseAssociation() == EC_Normal ? 0 : -1;
}

int QDcmStorageSCU::onNotifySentDicomFiles()
{
    const int result = sendQueued();
    // Each batch is sent once: the next send starts from an empty queue and fresh contexts.
    if (d) {
        if (d->isConnected())
            d->closeAssociation(DCMSCU_ABORT_ASSOCIATION);
        d->clear();
    }
    return result;
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
