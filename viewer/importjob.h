#pragma once

#include <QObject>
#include <QStringList>
#include <QThread>

// Imports files and folders into the catalogue in a thread of its own, one run at a time. The
// importer's messages and progress arrive here, in the thread that made the job.
class ImportJob : public QObject
{
    Q_OBJECT
public:
    explicit ImportJob(QObject* parent = nullptr);
    ~ImportJob() override;

    // False (and nothing started) while a run is going on.
    bool start(const QStringList& paths);
    bool isRunning() const { return m_running; }
    // Waits for the run to end, at most MSECS milliseconds; true when nothing is running.
    bool wait(int msecs);

signals:
    void text(const QString& text);
    void progress(int value, int maximum);
    // SUMMARY says what was added; OK is false when the import failed.
    void finished(bool ok, const QString& summary);

private:
    QThread m_thread;
    QObject* m_worker = nullptr;
    bool m_running = false;
};
