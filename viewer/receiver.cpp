#include "receiver.h"

#include <qdcmfiles.h>
#include <qdcmrecvfile.h>
#include <qdcmstoragescp.h>
#include <qdicomservice.h>
#include <veldatabaseconnection.h>

#include <QDir>
#include <QTimer>

Receiver::Receiver(QObject* parent)
    : QObject(parent)
{
}

Receiver::~Receiver()
{
    stop();
}

bool Receiver::start(QString* error)
{
    if (m_provider)
        return true;
    QString folder = QDir(m_folder).absolutePath();
    if (m_folder.isEmpty() || !QDir().mkpath(folder)) {
        *error = "cannot create the receiving folder " + folder;
        return false;
    }
    if (!folder.endsWith('/'))
        folder += '/';
    // The bookkeeper and the importer clone the catalogue's connection when made: both are made
    // here and dropped on stop, so they follow the catalogue open now.
    QDcmRecvFile* recv = QDcmRecvFile::instance();
    recv->setUserOption(true, false, false);
    connect(recv, &QDcmRecvFile::notifyUploadDB, this, [this](const QString& uid) {
        if (!m_importer)
            return;
        m_importer->onNotifyUploadDB(uid);
        emit message(QString("received series %1: %2 images in the catalogue").arg(uid).arg(getImportedImageCount(uid)));
        emit seriesImported(uid);
    });
    m_importer = std::make_unique<QDcmFiles>();
    connect(m_importer.get(), &QDcmFiles::errorInfo, this, &Receiver::message);

    QDicomService* service = QDicomService::instance();
    service->setPort(short(m_port));
    service->setAETitle(m_aeTitle);
    service->setOutputDirectory(folder);
    m_provider = service->listen();
    if (!m_provider) {
        *error = "the storage provider could not be started";
        delete recv;
        m_importer.reset();
        return false;
    }
    connect(m_provider, &QDcmStorageSCP::notifyInstanceSaved, recv, &QDcmRecvFile::onNotifyInstanceSaved);
    connect(m_provider, &QDcmStorageSCP::notifyListenFinished, this, [this](int code, const QString& text) {
        if (!m_provider)
            return;
        emit message(code == 0 ? QString("receiving stopped") : "receiving stopped: " + text);
        stop();
        emit stopped(code, text);
    });
    if (m_provider->lastListenStatus() != 0) {
        const int code = m_provider->lastListenStatus();
        QTimer::singleShot(0, this, [this, code] {
            if (!m_provider)
                return;
            stop();
            emit stopped(code, QString("cannot listen on port %1").arg(m_port));
        });
    }
    emit message(QString("receiving on port %1 as %2 into %3").arg(m_port).arg(m_aeTitle, folder));
    return true;
}

void Receiver::stop()
{
    if (!m_provider)
        return;
    m_provider = nullptr;
    QDicomService::instance()->destroyAllstoreScp();
    // Series announced just before the stop are recorded now rather than lost with the timer.
    QDcmRecvFile* recv = QDcmRecvFile::instance();
    if (recv->isToDataBase())
        recv->onTimerSlot();
    delete recv;
    m_importer.reset();
}
