#pragma once

#include "kestrel_global.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/ofstd/ofcond.h>

#include <QObject>
#include <QString>
#include <QStringList>
#include <QVector>

class QDcmStorageSCUPrivate;

// The process-wide DICOM storage user. A send delivers every queued file to the configured peer,
// one association per series (more when a series needs more than 128 presentation contexts), and
// empties the queue; it blocks the calling thread. Each file is offered in its own transfer
// syntax and, when it can be decompressed without loss, uncompressed too, and converted when the
// peer takes only that (HTJ2K, which DCMTK cannot carry, goes uncompressed). Every file gets an answer: sent (notifyInstanceSent, also after a
// warning, which notifyInstanceWarning reports) or refused (notifyInstanceRefused, with the
// peer's status or why it was not sent); a send with any refusal fails.
class KESTREL_EXPORT QDcmStorageSCU : public QObject
{
    Q_OBJECT

public:
    static QDcmStorageSCU* instance();
    ~QDcmStorageSCU() override;

    void SetSendConfig();
    void SetForwardinfo(QString aeTitle, QString host, int port);
    // Queues FILE; an error (and nothing queued) when it cannot be read or has no SOP Class or
    // Instance UID in its data set.
    OFCondition addDicomFile(QString file);
    // C-ECHO to the configured peer: 0 when it answered success, -1 otherwise (lastError says why).
    int echo();
    // Why the last send or echo failed; empty after one that succeeded.
    QString lastError() const { return m_lastError; }

    QString aeTitle() const { return m_aeTitle; }
    QString peerAETitle() const { return m_peerAETitle; }
    QString peerHostName() const { return m_peerHostName; }
    short peerPort() const { return m_peerPort; }
    // Files queued for the next send.
    int queuedFiles() const;

public slots:
    virtual void setPeerHostName(QString host);
    virtual void setAETitle(QString aeTitle);
    virtual void setPeerAETitle(QString aeTitle);
    virtual void setPeerPort(short port);

    int onNotifyAddOneDicomFile(QString file);
    int onNotifySentDicomFiles();
    // Forwards FILES (the received objects) to the configured peer.
    void onNotifyForward(QStringList files = QStringList());
    void onNotifySendSelectData(QStringList imagepath, QString AETitle, QString host, int port);
    void onNotifySendMRA(int dataType, QString filepath);

signals:
    void notifyInstanceSent();
    // FILE was stored by the peer with a warning (REASON: its status).
    void notifyInstanceWarning(const QString& file, const QString& reason);
    // FILE did not arrive: the peer's status, no accepted presentation context, or an association
    // that failed before it was sent.
    void notifyInstanceRefused(const QString& file, const QString& reason);
    void notifySendSelectData(QStringList imagepath, QString AETitle, QString host, int port);

protected:
    explicit QDcmStorageSCU(QObject* parent = nullptr);

private:
    struct QueuedFile {
        QString path;
        QString seriesUID;
        QString sopClassUID;
        QString transferSyntaxUID;
    };
    int sendQueued();
    // Sends FILES (one series) in as many associations as their presentation contexts need;
    // false when the peer cannot be reached at all, so that the next series need not try.
    bool sendSeries(const QVector<QueuedFile>& files, int& refused);
    void refuse(const QString& file, const QString& reason, int& refused);
    // Queues an HTJ2K file decoded: DCMTK cannot send that syntax, so it goes uncompressed.
    OFCondition addDecoded(const QString& file);

    static QDcmStorageSCU* s_instance;
    QDcmStorageSCUPrivate* d = nullptr;
    short m_peerPort = 104;
    QString m_aeTitle;
    QString m_peerAETitle;
    QString m_peerHostName;
    QVector<QueuedFile> m_queue;
    QString m_lastError;
};
