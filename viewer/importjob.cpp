#include "importjob.h"

#include <qdcmfiles.h>

#include <QCoreApplication>
#include <QElapsedTimer>

ImportJob::ImportJob(QObject* parent)
    : QObject(parent)
{
    m_thread.setObjectName("import");
    m_worker = new QObject;
    m_worker->moveToThread(&m_thread);
    connect(&m_thread, &QThread::finished, m_worker, &QObject::deleteLater);
    m_thread.start();
}

ImportJob::~ImportJob()
{
    m_thread.quit();
    m_thread.wait();
}

bool ImportJob::start(const QStringList& paths)
{
    if (m_running)
        return false;
    m_running = true;
    QMetaObject::invokeMethod(m_worker, [this, paths] {
        QStringList skipped;
        const QStringList files = QDcmFiles::filesBelow(paths, &skipped);
        // The importer clones the catalogue's connection in this thread and uses only that clone.
        QDcmFiles importer;
        connect(&importer, QOverload<const QString&>::of(&QDcmFiles::readInfo), this, &ImportJob::text);
        connect(&importer, QOverload<int, int>::of(&QDcmFiles::readInfo), this, &ImportJob::progress);
        connect(&importer, &QDcmFiles::errorInfo, this, &ImportJob::text);
        if (!files.isEmpty())
            importer.loadLocalFilesToDB(files, 0);
        const QDcmFiles::RunCounts c = importer.lastRunCounts();
        QString summary = files.isEmpty()
                              ? QString("no files to import")
                              : QString("imported %1 images in %2 series (%3 already catalogued, %4 unreadable)")
                                    .arg(c.imagesAdded)
                                    .arg(c.seriesAdded)
                                    .arg(c.duplicates)
                                    .arg(c.unreadable + skipped.size());
        const bool ok = files.isEmpty() || importer.lastImportSucceeded();
        if (!ok)
            summary = "import failed: " + importer.lastError();
        QMetaObject::invokeMethod(this, [this, ok, summary] {
            m_running = false;
            emit finished(ok, summary);
        });
    });
    return true;
}

bool ImportJob::wait(int msecs)
{
    QElapsedTimer timer;
    timer.start();
    while (m_running && timer.elapsed() < msecs)
        QCoreApplication::processEvents(QEventLoop::AllEvents, 50);
    return !m_running;
}
