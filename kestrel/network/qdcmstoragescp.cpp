#include "qdcmstoragescp.h"

#include "dicom/dcmvalues_p.h"

#include "network/dcmnetwork_p.h"
#include "network/qdcmstoragescp_p.h"

#include <dcmtk/dcmnet/diutil.h>

#include <QCoreApplication>
#include <QDebug>
#include <QMutexLocker>
#include <QThread>

QDcmStorageSCP::QDcmStorageSCP(QObject* parent)
    : QObject(parent),
      m_cfgFile(QCoreApplication::applicationDirPath() + QLatin1String("/../dicom/storscp.cfg")),
      m_profile(QStringLiteral("Default"))
{
    kestrel::internal::disableNagleForDcmtk();
}

QDcmStorageSCP::~QDcmStorageSCP()
{
    onStopService();
    onReleaseInternal();
}

void QDcmStorageSCP::setPort(short port)
{
    m_port = port;
}

void QDcmStorageSCP::setAETitle(QString aeTitle)
{
    m_aeTitle = aeTitle;
}

int QDcmStorageSCP::setOutputDirectory(QString dir)
{
    m_outputDirectory = dir;
    return 0;
}

void QDcmStorageSCP::setSCPAssociationConfiguration(QString cfgFile, QString profile)
{
    m_cfgFile = cfgFile;
    m_profile = profile;
}

void QDcmStorageSCP::setRespondWithCalledAETitle(bool) {}

int QDcmStorageSCP::setOutputDirectoryAndRun(QString dir)
{
    m_outputDirectory = dir;
    QMutexLocker locker(&m_lock);
    if (d)
        d->setReceivingFolder(dir);
    return 0;
}

bool QDcmStorageSCP::isConnected()
{
    QMutexLocker locker(&m_lock);
    return d && d->associationOpen();
}

void QDcmStorageSCP::onStartService()
{
    listen();
}

int QDcmStorageSCP::listen()
{
    {
        QMutexLocker locker(&m_lock);
        // A stopped provider stays stopped (the stop flag is never reset).
        if (m_stopped) {
            emit notifyListenFinished(0, QStringLiteral("stopped"));
            return 0;
        }
        if (!d) {
            d = new QDcmStorageSCPPrivate;
            // Emitted in the thread serving the association while this object's thread is inside
            // listen(): passed on there and then, each receiver decides how it takes them.
            connect(d, &QDcmStorageSCPPrivate::notifyInstanceSaved, this, &QDcmStorageSCP::notifyInstanceSaved,
                    Qt::DirectConnection);
            connect(d, &QDcmStorageSCPPrivate::notifyStartReceveSeriesFiles, this,
                    &QDcmStorageSCP::notifyStartReceveSeriesFiles, Qt::DirectConnection);
            connect(d, &QDcmStorageSCPPrivate::notifyRecvedSeriesFiles, this, &QDcmStorageSCP::notifyRecvedSeriesFiles,
                    Qt::DirectConnection);
            connect(d, &QDcmStorageSCPPrivate::notifyListening, this, [this] {
                m_accepting = true;
                emit notifyListening();
            }, Qt::DirectConnection);
        }
        m_running = true;
    }

    d->setPort(Uint16(m_port));
    d->setAETitle(OFString(m_aeTitle.toUtf8().constData()));
    d->setReceivingFolder(m_outputDirectory);
    d->setDirectoryGenerationMode(DcmStorageSCP::DGM_SeriesDate);
    d->setPeerRules(kestrel::internal::readPeerRules());
    // Wait for connections a second at a time so that a stop is noticed while no sender is there.
    d->setConnectionBlockingMode(DUL_NOBLOCK);
    d->setConnectionTimeout(1);
    // Inside an association DCMTK reads without polling first: a sender that stays silent is
    // dropped by the connection's own receive timeout (a minute), and a stop shuts the
    // connection down at once.
    d->setDIMSEBlockingMode(DIMSE_BLOCKING);
    // Senders cut objects into pieces no larger than this: the largest DCMTK takes means fewer
    // reads and writes per received object.
    d->setMaxReceivePDULength(ASC_MAXIMUMPDUSIZE);
    d->setDIMSETimeout(60);

    // The profile is kept for the caller; DCMTK's default profile name matches "Default".
    OFCondition cond = d->loadAssociationCfgFile(OFString(m_cfgFile.toUtf8().constData()));
    if (cond.bad()) {
        qWarning() << "QDcmStorageSCP::listen: cannot load the association configuration" << m_cfgFile
                   << cond.text();
    } else {
        // An object that makes DCMTK's parser throw ends the loop with an error, not the program.
        cond = kestrel::internal::guardedRead([&] { return d->listen(); });
        // Stopping through the flag is the normal end of the loop.
        if (cond == NET_EC_StopAfterConnectionTimeout || cond == NET_EC_StopAfterAssociation)
            cond = EC_Normal;
        if (cond.bad())
            qWarning() << "QDcmStorageSCP::listen:" << cond.text();
    }
    const int status = cond.good() ? 0 : int(cond.code() ? cond.code() : 1);
    m_lastStatus = status;
    m_accepting = false;
    m_running = false;
    emit notifyListenFinished(status, QString::fromLatin1(cond.text()));
    return status;
}

void QDcmStorageSCP::onStopService()
{
    m_stopped = true;
    QMutexLocker locker(&m_lock);
    if (!d)
        return;
    // Every open association is aborted; the listening loop ends within a second.
    d->requestAbort();
    d->setStop(true);
}

void QDcmStorageSCP::onReleaseInternal()
{
    // The private object goes only once listen() has returned in the worker thread and no
    // association is open.
    for (;;) {
        {
            QMutexLocker locker(&m_lock);
            if (!d)
                return;
            // A provider that was not stopped keeps listening: nothing to release yet.
            if (m_running && !m_stopped)
                return;
            if (!m_running && !d->associationOpen()) {
                delete d;
                d = nullptr;
                return;
            }
        }
        if (QThread::currentThread() == thread() && m_running)
            return; // called from inside listen(): it cannot end while we wait here
        QThread::msleep(100);
    }
}
