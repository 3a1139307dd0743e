#include "volume/volumecache_p.h"

#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "kestrelpaths.h"

#include <QDir>
#include <QSettings>
#include <QSqlDatabase>

namespace kestrel::internal::volumecache {

QString folder()
{
    QSettings settings(QStringLiteral("../config/cache.ini"), QSettings::IniFormat);
    QString path = settings.value(QStringLiteral("registration/cachepath"), QStringLiteral("../cache")).toString();
    if (QDir::isRelativePath(path))
        path = QDir(Kestrel::applicationDir()).absoluteFilePath(path);
    path = QDir::cleanPath(path);
    QDir().mkpath(path);
    return path;
}

QString fileFor(const QString& folder, const QString& key)
{
    QString name = key;
    name.replace('/', '_').replace('\\', '_');
    return folder + "/" + name + ".data";
}

QString framesKey(const QString& seriesKey, int group)
{
    return seriesKey + QStringLiteral("#frames") + QString::number(group);
}

QString framesKeySeries(const QString& key)
{
    const int at = key.lastIndexOf(QStringLiteral("#frames"));
    if (at <= 0)
        return QString();
    bool number = false;
    key.mid(at + 7).toInt(&number);
    return number ? key.left(at) : QString();
}

QString registeredFile(const QString& key, QString* head)
{
    QString file;
    Statement query(QSqlDatabase::database(), QStringLiteral("SELECT * FROM registration WHERE SeriesInstanceUID = ?"));
    if (query.bind(key).run())
        while (query.next()) {
            file = query.get<QString>(3); // pk, SeriesInstanceUID, ServerAddress, Savepath, VolumeHead
            if (head)
                *head = query.get<QString>(4);
        }
    return file;
}

Status registerFile(const QString& key, const QString& file, const QString& head)
{
    QSqlDatabase db = QSqlDatabase::database();
    // One row per key whatever several processes do at once: the row is added where none is, and
    // otherwise names the file just written.
    const QString verb = db.driverName() == QLatin1String("QMYSQL") ? QStringLiteral("INSERT IGNORE")
                                                                     : QStringLiteral("INSERT OR IGNORE");
    return runWrite(db, [&](Transaction&) {
        Statement insert(db, verb + QStringLiteral(" INTO registration (SeriesInstanceUID,ServerAddress,Savepath,VolumeHead) "
                                                   "VALUES (?, ?, ?, ?)"));
        const Status inserted = insert.bindAll({key, QString(""), file, head}).run();
        if (!inserted || insert.rowsAffected() > 0)
            return inserted;
        return execute(db, QStringLiteral("UPDATE registration SET Savepath = ?, VolumeHead = ? WHERE SeriesInstanceUID = ?"),
                       {file, head, key});
    }, 8);
}

Status forget(const QString& key)
{
    QSqlDatabase db = QSqlDatabase::database();
    return runWrite(db, [&](Transaction&) {
        return execute(db, QStringLiteral("DELETE FROM registration WHERE SeriesInstanceUID = ?"), {key});
    });
}

void readSeriesUIDs(qint64 seriesPk)
{
    Statement query(QSqlDatabase::database(),
                    QStringLiteral("SELECT generalstudy.StudyInstanceUID,generalseries.SeriesInstanceUID FROM generalstudy "
                                   "inner join generalseries inner join imageformat WHERE generalstudy.pk=generalseries.study_fk "
                                   "and generalseries.pk=imageformat.series_fk and imageformat.series_fk=?"));
    if (!query.bind(seriesPk).run())
        return;
    while (query.next()) {
        const QString studyUid = query.get<QString>(0);
        const QString seriesUid = query.get<QString>(1);
        Q_UNUSED(studyUid);
        Q_UNUSED(seriesUid);
    }
}

} // namespace kestrel::internal::volumecache
