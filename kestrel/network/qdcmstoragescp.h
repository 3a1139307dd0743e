#pragma once

#include "kestrel_global.h"

#include <QMutex>
#include <QObject>
#include <QString>

#include <atomic>

class QDcmStorageSCPPrivate;

// One DICOM storage provider. It is moved into a worker thread of its own by QDicomService; its
// listen() runs DCMTK's association loop there and re-emits every stored object.
class KESTREL_EXPORT QDcmStorageSCP : public QObject
{
    Q_OBJECT

public:
    explicit QDcmStorageSCP(QObject* parent = nullptr);
    ~QDcmStorageSCP() override;

    void setPort(short port);
    void setAETitle(QString aeTitle);
    int setOutputDirectory(QString dir);
    void setSCPAssociationConfiguration(QString cfgFile, QString profile);
    void setRespondWithCalledAETitle(bool respond);

    short port() const { return m_port; }
    QString aeTitle() const { return m_aeTitle; }
    QString outputDirectory() const { return m_outputDirectory; }
    QString configurationFile() const { return m_cfgFile; }
    QString profile() const { return m_profile; }

    // Runs the association loop until the provider is stopped; DCMTK's status as an int
    // (0 = ended normally, i.e. stopped).
    int listen();
    // Stores DIR; a running provider stores the objects it receives from now on there.
    int setOutputDirectoryAndRun(QString dir);
    bool isConnected();
    // True while listen() runs in the worker thread.
    bool isListening() const { return m_running; }
    // True while the port is open and associations are accepted.
    bool isAccepting() const { return m_accepting; }
    // What the last listen() returned (0 also before the first).
    int lastListenStatus() const { return m_lastStatus; }

public slots:
    void onStartService();
    void onStopService();
    void onReleaseInternal();

signals:
    void notifyInstanceSaved(const QString& filename, const QString& sopClassUID, const QString& sopInstanceUID,
                             const QString& seriesUID);
    void notifyStartReceveSeriesFiles();
    void notifyRecvedSeriesFiles(QString seriesUID);
    // The port is open: senders may connect.
    void notifyListening();
    // listen() has returned with STATUS (0 when stopped normally) and DCMTK's text.
    void notifyListenFinished(int status, const QString& message);

private:
    QDcmStorageSCPPrivate* d = nullptr;
    QMutex m_lock; // guards d's creation against a stop from the host's thread
    std::atomic<bool> m_running{false};
    std::atomic<bool> m_stopped{false};
    std::atomic<bool> m_accepting{false};
    std::atomic<int> m_lastStatus{0};
    short m_port = 104;
    QString m_aeTitle;
    QString m_outputDirectory;
    QString m_cfgFile;
    QString m_profile;
};
