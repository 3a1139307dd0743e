#include "qdicomservice.h"

#include "qdcmstoragescp.h"

#include "network/dcmnetwork_p.h"

#include <QCoreApplication>
#include <QDate>
#include <QDebug>
#include <QDir>
#include <QThread>

QDicomService* QDicomService::s_instance = nullptr;

QDicomService* QDicomService::instance()
{
    if (!s_instance)
        s_instance = new QDicomService;
    return s_instance;
}

QDicomService::QDicomService(QObject* parent)
    : QObject(parent),
      m_cfgFile(QCoreApplication::applicationDirPath() + QLatin1String("/../dicom/storscp.cfg")),
      m_profile(QStringLiteral("Default"))
{
    kestrel::internal::disableNagleForDcmtk();
}

void QDicomService::setPort(short port)
{
    m_port = port;
}

void QDicomService::setAETitle(QString aeTitle)
{
    m_aeTitle = aeTitle;
}

int QDicomService::setOutputDirectory(QString dir)
{
    m_outputDirectory = dir;
    return 0;
}

void QDicomService::setSCPAssociationConfiguration(QString cfgFile, QString profile)
{
    m_cfgFile = cfgFile;
    m_profile = profile;
}

void QDicomService::setRespondWithCalledAETitle(bool) {}

QString QDicomService::receivingDirectory(const QString& dir, const QDate& date)
{
    // No separator is inserted: the configured base ends with one ("D:/recv/"), and the
    // application's folders rely on exactly this concatenation.
    return dir + date.toString(QStringLiteral("yyyy-MM-dd")) + QLatin1Char('/');
}

QDcmStorageSCP* QDicomService::listen()
{
    auto* provider = new QDcmStorageSCP;
    m_current = provider;
    provider->setPort(m_port);
    provider->setAETitle(m_aeTitle);

    const QString dir = receivingDirectory(m_outputDirectory, QDate::currentDate());
    QDir check(dir);
    if (!check.exists())
        QDir().mkdir(dir);
    provider->setOutputDirectory(dir);
    provider->setSCPAssociationConfiguration(m_cfgFile, m_profile);

    m_thread = new QThread;
    provider->moveToThread(m_thread);
    connect(m_thread, &QThread::finished, m_thread, &QObject::deleteLater);
    m_thread->start(QThread::InheritPriority);

    // Every listen() emits startService() again, which reaches every provider connected so far;
    // a provider that is still listening takes it after its loop ends, a stopped one ignores it.
    connect(this, SIGNAL(startService()), provider, SLOT(onStartService()));
    emit startService();
    m_providers.append(provider);
    return provider;
}

bool QDicomService::isConnected()
{
    for (QDcmStorageSCP* provider : qAsConst(m_providers))
        if (provider->isConnected())
            return true;
    return false;
}

void QDicomService::stop()
{
    if (m_current)
        m_current->onStopService();
    if (s_instance == this)
        s_instance = nullptr;
}

void QDicomService::destroyAllstoreScp()
{
    qDebug() << "destroyAllstoreScp-destroyAllstoreScp:" << m_providers.size();
    for (QDcmStorageSCP* provider : qAsConst(m_providers)) {
        provider->onStopService();
        // The worker's event loop runs again once listen() has returned; then the thread ends.
        QThread* thread = provider->thread();
        if (thread && thread != QThread::currentThread()) {
            thread->quit();
            thread->wait();
        }
        provider->onReleaseInternal();
        delete provider;
    }
    m_providers.clear();
    m_current = nullptr;
    m_thread = nullptr;
}
