#pragma once

#include "kestrel_global.h"

#include <QObject>
#include <QString>
#include <QVector>

class QDcmStorageSCP;
class QThread;

// The process-wide DICOM receiving service: holds the settings of the next storage provider and
// starts each provider in a worker thread of its own. Touch it from the main thread only.
class KESTREL_EXPORT QDicomService : public QObject
{
    Q_OBJECT

public:
    static QDicomService* instance();

    void setPort(short port);
    void setAETitle(QString aeTitle);
    int setOutputDirectory(QString dir);
    void setSCPAssociationConfiguration(QString cfgFile, QString profile);
    void setRespondWithCalledAETitle(bool respond);

    // Starts one provider receiving into <output directory><yyyy-MM-dd>/ and returns it.
    QDcmStorageSCP* listen();
    bool isConnected();
    // Stops the current provider and forgets the singleton (the object itself stays).
    void stop();
    // Stops, releases and deletes every provider made so far, ending their worker threads.
    void destroyAllstoreScp();

    // The receiving directory for the base DIR on DATE: DIR + "yyyy-MM-dd" + "/".
    static QString receivingDirectory(const QString& dir, const class QDate& date);

    QThread* workerThread() const { return m_thread; }
    QDcmStorageSCP* currentProvider() const { return m_current; }
    QVector<QDcmStorageSCP*> providers() const { return m_providers; }

signals:
    void startService();

private:
    explicit QDicomService(QObject* parent = nullptr);

    static QDicomService* s_instance;
    QThread* m_thread = nullptr;
    short m_port = 104;
    QString m_aeTitle;
    QString m_outputDirectory;
    QString m_cfgFile;
    QString m_profile;
    QDcmStorageSCP* m_current = nullptr;
    QVector<QDcmStorageSCP*> m_providers;
};
