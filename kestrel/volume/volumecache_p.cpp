#include "volume/volumecache_p.h"

#include "catalog/connection_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "kestrelpaths.h"

#include "volumehead.h"

#include <QDir>
#include <QSettings>
#include <QSqlDatabase>

#include <zlib.h>

#include <cmath>

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

QString registeredFile(const QString& key, QString* head, QString* checksum)
{
    QString file;
    Statement query(catalogDatabase(),
                    QStringLiteral("SELECT Savepath, VolumeHead, VoxelChecksum FROM registration WHERE SeriesInstanceUID = ?"));
    if (query.bind(key).run())
        while (query.next()) {
            file = query.get<QString>(0);
            if (head)
                *head = query.get<QString>(1);
            if (checksum)
                *checksum = query.get<QString>(2);
        }
    return file;
}

Status registerFile(const QString& key, const QString& file, const QString& head, const QString& checksum)
{
    QSqlDatabase db = catalogDatabase();
    // One row per key whatever several processes do at once: the row is added where none is, and
    // otherwise names the file just written.
    const QString verb = db.driverName() == QLatin1String("QMYSQL") ? QStringLiteral("INSERT IGNORE")
                                                                     : QStringLiteral("INSERT OR IGNORE");
    return runWrite(db, [&](Transaction&) {
        Statement insert(db, verb + QStringLiteral(" INTO registration (SeriesInstanceUID,ServerAddress,Savepath,VolumeHead,"
                                                   "VoxelChecksum) VALUES (?, ?, ?, ?, ?)"));
        const Status inserted = insert.bindAll({key, QString(""), file, head, checksum}).run();
        if (!inserted || insert.rowsAffected() > 0)
            return inserted;
        return execute(db, QStringLiteral("UPDATE registration SET Savepath = ?, VolumeHead = ?, VoxelChecksum = ? WHERE "
                                          "SeriesInstanceUID = ?"),
                       {file, head, checksum, key});
    }, 8);
}

Status forget(const QString& key)
{
    QSqlDatabase db = catalogDatabase();
    return runWrite(db, [&](Transaction&) {
        return execute(db, QStringLiteral("DELETE FROM registration WHERE SeriesInstanceUID = ?"), {key});
    });
}

void readSeriesUIDs(qint64 seriesPk)
{
    Statement query(catalogDatabase(),
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

namespace {

QString crcText(const char* data, qint64 length)
{
    uLong crc = crc32(0L, Z_NULL, 0);
    for (qint64 done = 0; done < length;) {
        const uInt chunk = uInt(qMin<qint64>(length - done, 1 << 30));
        crc = crc32(crc, reinterpret_cast<const Bytef*>(data + done), chunk);
        done += chunk;
    }
    return QStringLiteral("%1").arg(quint32(crc), 8, 16, QLatin1Char('0'));
}

} // namespace

QString voxelChecksum(const char* voxels, qint64 length)
{
    return voxels && length >= 0 ? crcText(voxels, length) : QString();
}

QString cachedHeadFault(const VolumeHead& h, qint64 headerBlock)
{
    const qint32* n = h.volumesize;
    const qint32* step = h.volumestep;
    if (n[0] < 1 || n[1] < 1 || n[2] < 1 || h.timeNum < 1)
        return QStringLiteral("sizes %1 x %2 x %3 with %4 frames").arg(n[0]).arg(n[1]).arg(n[2]).arg(h.timeNum);
    const qint64 row = 2LL * n[0], slice = row * n[1], frame = slice * n[2];
    if (step[0] != 2 || step[1] != row || step[2] != slice || (h.timeNum > 1 && step[3] != frame))
        return QStringLiteral("strides %1,%2,%3,%4 for sizes %5 x %6 x %7")
            .arg(step[0]).arg(step[1]).arg(step[2]).arg(step[3]).arg(n[0]).arg(n[1]).arg(n[2]);
    if (h.totallen != headerBlock + frame * h.timeNum)
        return QStringLiteral("%1 bytes for %2 frames of %3").arg(h.totallen).arg(h.timeNum).arg(frame);
    for (double spacing : h.voxelspace)
        if (!std::isfinite(spacing) || spacing <= 0)
            return QStringLiteral("a voxel spacing of %1").arg(spacing);
    return QString();
}

} // namespace kestrel::internal::volumecache
