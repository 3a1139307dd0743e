#include "qdcmrecvfile.h"

#include "catalog/connection_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"

#include <QDebug>
#include <QSqlDatabase>
#include <QSqlError>
#include <QTimer>
#include <QVariant>

QDcmRecvFile* QDcmRecvFile::s_instance = nullptr;

namespace {

using kestrel::internal::Statement;
using kestrel::internal::Status;

// Runs INSERT and, when it adds no row, UPDATE (both with their values bound).
Status insertOrUpdate(Statement& insert, const QVariantList& insertValues, Statement& update,
                      const QVariantList& updateValues)
{
    // A failed INSERT is logged; the UPDATE decides.
    if (insert.bindAll(insertValues).run() && insert.rowsAffected() >= 1)
        return Status::ok();
    return update.bindAll(updateValues).run();
}

// The series row and one row per image of SERIES, each added or, when there, reset. The UIDs are
// the tables' unique keys: the INSERT adds a row only where none is (another process's included)
// and otherwise the UPDATE resets it, so a series received twice is recorded once.
Status recordSeries(QSqlDatabase db, const _recvSeries& series, int cloudflag)
{
    const int count = series.instances.size();
    const QString insertVerb = db.driverName() == QLatin1String("QMYSQL") ? QStringLiteral("INSERT IGNORE")
                                                                           : QStringLiteral("INSERT OR IGNORE");
    Statement insertSeries(db, insertVerb + QStringLiteral(" INTO series (seriesUID,recvnum,upDBnum,upCloudnum) VALUES (?, ?, ?, ?)"));
    Statement updateSeries(db, QStringLiteral("UPDATE series SET recvnum=?,upDBnum=0,upCloudnum=0 WHERE seriesUID = ?"));
    Status status = insertOrUpdate(insertSeries, {series.seriesUID, count, 0, 0}, updateSeries, {count, series.seriesUID});
    if (!status)
        return status;

    Statement insert(db, insertVerb + QStringLiteral(" INTO images (seriesUID,InstanceUID,DBflag,Cloudflag,filepath) VALUES (?, ?, ?, ?, ?)"));
    // An object received again: its flags start over and its row points at the file just stored
    // (the earlier one may be gone).
    Statement update(db, QStringLiteral("UPDATE images SET DBflag=0,Cloudflag=?,filepath=? WHERE InstanceUID = ?"));
    for (auto it = series.instances.constBegin(); it != series.instances.constEnd(); ++it) {
        status = insertOrUpdate(insert, {series.seriesUID, it.key(), 0, cloudflag, it.value()}, update,
                                {cloudflag, it.value(), it.key()});
        if (!status)
            return status;
    }
    return Status::ok();
}

} // namespace

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
        const kestrel::internal::Status recorded = kestrel::internal::runWrite(
                db, [&](kestrel::internal::Transaction&) { return recordSeries(db, *series, m_toCloud ? 0 : 2); });
        if (!recorded)
            qWarning() << "QDcmRecvFile::writeSeriestoDatabase: the series is not recorded:" << recorded.text();
    }
    m_writtenSeries.append(series->seriesUID);
}
