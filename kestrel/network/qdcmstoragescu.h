#pragma once

#include "kestrel_global.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/ofstd/ofcond.h>

#include <QObject>
#include <QString>
#include <QStringList>

class QDcmStorageSCUPrivate;

// The process-wide DICOM storage user. Each send negotiates one association with the configured
// peer, sends every queued file, releases the association and empties the queue; it blocks the
// calling thread.
class KESTREL_EXPORT QDcmStorageSCU : public QObject
{
    Q_OBJECT

public:
    static QDcmStorageSCU* instance();
    ~QDcmStorageSCU() override;

    void SetSendConfig();
    void SetForwardinfo(QString aeTitle, QString host, int port);
    OFCondition addDicomFile(QString file);

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
    void notifySendSelectData(QStringList imagepath, QString AETitle, QString host, int port);

protected:
    explicit QDcmStorageSCU(QObject* parent = nullptr);

private:
    int sendQueued();

    static QDcmStorageSCU* s_instance;
    QDcmStorageSCUPrivate* d = nullptr;
    short m_peerPort = 104;
    QString m_aeTitle;
    QString m_peerAETitle;
    QString m_peerHostName;
};
