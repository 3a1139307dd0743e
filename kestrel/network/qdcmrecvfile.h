#pragma once

#include "kestrel_global.h"

#include <QMap>
#include <QObject>
#include <QString>
#include <QStringList>

class QTimer;

// One series being received: SOP Instance UID -> file path (a later file with the same UID
// replaces the earlier one).
struct _recvSeries {
    QString seriesUID;
    QMap<QString, QString> instances;
};

// Bookkeeping of the objects received by the storage provider: groups them by series and, when
// a series is finished (another series starts, or 10 s pass without an object), records it in
// the `series` and `images` tables on a connection of its own and announces it. Lives in the
// main thread; the provider's signals reach it queued.
class KESTREL_EXPORT QDcmRecvFile : public QObject
{
    Q_OBJECT

public:
    static QDcmRecvFile* instance();
    ~QDcmRecvFile() override;

    void setUserOption(bool toDB, bool toCloud, bool forward);
    // True while objects of a batch are arriving (until the timer expires).
    bool isToDataBase() const { return m_receiving; }
    // False as soon as one of SERIESUIDS has already been recorded.
    bool needtoWriteDB(QStringList seriesUIDs) const;

    QString connectionName() const { return m_connectionName; }
    QTimer* timer() const { return m_timer; }
    QString currentSeriesUID() const { return m_current.seriesUID; }

public slots:
    void onNotifyInstanceSaved(const QString& filename, const QString& sopClassUID, const QString& sopInstanceUID,
                               const QString& seriesUID);
    void onNotifyWriteDB(const QStringList& seriesList, const QStringList& instanceList, const QStringList& fileList,
                         QString text);
    void onNotifyStartReceiveSeriesFiles();
    void onNotifyEndReceiveSeriesFiles(QString seriesUID);
    void onTimerSlot();

signals:
    void notifyUploadDB(QString SeriesUID);
    void notifyUploadCloud(QString seriesUID);
    void notifyForward(QStringList files);
    void notifyUploadFile(QStringList seriesList, QStringList instanceList, QStringList fileList, QString text);

protected:
    explicit QDcmRecvFile(QObject* parent = nullptr);
    void writeSeriestoDatabase(_recvSeries* series);

private:
    void finishCurrentSeries(bool announce);

    static QDcmRecvFile* s_instance;
    QTimer* m_timer = nullptr;
    QString m_connectionName;
    _recvSeries m_current;
    bool m_toDB = false;
    bool m_toCloud = false;
    bool m_forward = false;
    QStringList m_writtenSeries;
    QStringList m_receivedFiles;
    bool m_receiving = false;
};
