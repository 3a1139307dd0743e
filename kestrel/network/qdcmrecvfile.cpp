#include "qdcmrecvfile.h"

#include "catalog/connection_p.h"

#include <QDebug>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTimer>
#include <QVariant>

QDcmRecvFile* QDcmRecvFile::s_instance = nullptr;

QDcmRecvFile* QDcmRecvFile::instance()
{
    if (!s_instance)
        s_instance = new QDcmRecvFile;
    return s_instance;
}

QDcmRecvFile::QDcmRecvFile(QObject* parent) : QObject(parent)
{
    m_timer = new QTimer(this);
    QSqlDatabase db = kestrel::internal::cloneDefaultConnection();
    m_connectionName = db.connectionName();
    // A connection that does not open is tolerated: the signals still tell the rest of the system.
    connect(m_timer, SIGNAL(timeout()), this, SLOT(onTimerSlot()));
    m_timer->setInterval(10000);
}

QDcmRecvFile::~QDcmRecvFile()
{
    if (s_instance == this)
        s_instance = nullptr;
    kestrel::internal::removeClonedConnection(m_connectionName);
}

void QDcmRecvFile::setUserOption(bool toDB, bool toCloud, bool forward)
{
    m_toDB = toDB;
    m_toCloud = toCloud;
    m_forward = forward;
}

bool QDcmRecvFile::needtoWriteDB(QStringList seriesUIDs) const
{
    for (const QString& uid : qAsConst(seriesUIDs))
        if (m_writtenSeries.contains(uid, Qt::CaseSensitive))
            return false;
    return true;
}

void QDcmRecvFile::finishCurrentSeries(bool announce)
{
    const QString uid = m_current.seriesUID;
    writeSeriestoDatabase(&m_current);
    if (announce) {
        if (m_toDB)
            emit notifyUploadDB(uid);
        if (m_toCloud)
            emit notifyUploadCloud(uid);
    }
    m_current = _recvSeries();
}

void QDcmRecvFile::onNotifyInstanceSaved(const QString& filename, const QString&, const QString& sopInstanceUID,
                                         const QString& seriesUID)
{
    m_receivedFiles.append(filename);
    if (seriesUID != m_current.seriesUID) {
        if (!m_current.seriesUID.isEmpty())
            finishCurrentSeries(true);
        else
            m_current = _recvSeries();
        m_current.seriesUID = seriesUID;
    }
    m_current.instances.insert(sopInstanceUID, filename);
    m_timer->start();
    m_receiving = true;
}

void QDcmRecvFile::onTimerSlot()
{
    qDebug() << "QDcmRecvFile::onTimerSlot" << m_forward;
    if (!m_current.seriesUID.isEmpty()) {
        const QString uid = m_current.seriesUID;
        writeSeriestoDatabase(&m_current);
        if (m_toDB)
            emit notifyUploadDB(uid);
        if (m_toCloud)
            emit notifyUploadCloud(uid);
        // Without forwarding the list keeps growing; the host that forwards is the one that
        // empties it, and it has always been read that way.
        if (m_forward) {
            emit notifyForward(m_receivedFiles);
            m_receivedFiles.clear();
        }
        m_current = _recvSeries();
    }
    m_timer->stop();
    m_receiving = false;
}

void QDcmRecvFile::onNotifyWriteDB(const QStringList& seriesList, const QStringList& instanceList,
                                   const QStringList& fileList, QString text)
{
    // Files that came by another way are always meant for the cloud from now on.
    m_toCloud = true;
    const int n = qMin(seriesList.size(), qMin(instanceList.size(), fileList.size()));
    for (int i = 0; i < n; ++i) {
        if (seriesList[i] != m_current.seriesUID) {
            if (!m_current.seriesUID.isEmpty())
                finishCurrentSeries(false);
            m_current.seriesUID = seriesList[i];
        }
        m_current.instances.insert(instanceList[i], fileList[i]);
    }
    if (!m_current.seriesUID.isEmpty())
        finishCurrentSeries(false);
    emit notifyUploadFile(seriesList, instanceList, fileList, text);
}

void QDcmRecvFile::onNotifyStartReceiveSeriesFiles() {}

void QDcmRecvFile::onNotifyEndReceiveSeriesFiles(QString) {}

void QDcmRecvFile::writeSeriestoDatabase(_recvSeries* series)
{
    if (!series)
        return;
    QSqlDatabase db = QSqlDatabase::database(m_connectionName, false);
    if (!kestrel::internal::reopenIfLost(db)) {
        qWarning() << "QDcmRecvFile::writeSeriestoDatabase: no connection" << db.lastError().text();
    } else {
        db.transaction();
        const int count = series->instances.size();
        // The tables have no unique keys: the INSERT adds a row only when none exists for the
        // UID and otherwise falls back to the UPDATE, so a series received twice is recorded once.
        QSqlQuery query(db);
        query.prepare(QStringLiteral(
            "INSERT INTO series (seriesUID,recvnum,upDBnum,upCloudnum) SELECT ?, ?, ?, ? FROM (SELECT 1 AS one) "
            "AS single WHERE NOT EXISTS (SELECT 1 FROM series WHERE seriesUID = ?)"));
        query.addBindValue(series->seriesUID);
        query.addBindValue(count);
        query.addBindValue(0);
        query.addBindValue(0);
        query.addBindValue(series->seriesUID);
        if (!query.exec() || query.numRowsAffected() < 1) {
            QSqlQuery update(db);
            update.prepare(QStringLiteral("UPDATE series SET recvnum=?,upDBnum=0,upCloudnum=0 WHERE seriesUID = ?"));
            update.addBindValue(count);
            update.addBindValue(series->seriesUID);
            update.exec();
        }

        const int cloudflag = m_toCloud ? 0 : 2;
        QSqlQuery insert(db);
        insert.prepare(QStringLiteral(
            "INSERT INTO images (seriesUID,InstanceUID,DBflag,Cloudflag,filepath) SELECT ?, ?, ?, ?, ? FROM "
            "(SELECT 1 AS one) AS single WHERE NOT EXISTS (SELECT 1 FROM images WHERE InstanceUID = ?)"));
        QSqlQuery update(db);
        update.prepare(QStringLiteral("UPDATE images SET DBflag=0,Cloudflag=? WHERE InstanceUID = ?"));
        for (auto it = series->instances.constBegin(); it != series->instances.constEnd(); ++it) {
            insert.addBindValue(series->seriesUID);
            insert.addBindValue(it.key());
            insert.addBindValue(0);
            insert.addBindValue(cloudflag);
            insert.addBindValue(it.value());
            insert.addBindValue(it.key());
            if (!insert.exec() || insert.numRowsAffected() < 1) {
                // An existing row keeps its file path; only its flags start over.
                update.addBindValue(cloudflag);
                update.addBindValue(it.key());
                update.exec();
            }
        }
        if (!db.commit())
            qWarning() << "QDcmRecvFile::writeSeriestoDatabase: commit failed" << db.lastError().text();
    }
    m_writtenSeries.append(series->seriesUID);
}
