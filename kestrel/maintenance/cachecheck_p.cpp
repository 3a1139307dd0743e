#include "maintenance/catalogcheck_p.h"

#include "catalog/statement_p.h"
#include "volume/volumecache_p.h"
#include "volume/volumeheadtext_p.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QMap>

// Kinds of problem found in the volume cache:
//   orphan-registration     the key names no series (SeriesBase, or its frames' key) and no study
//                           (StudyInstanceUID)
//   missing-cache           the registered cache file does not exist
//   broken-cache            the cache file cannot be loaded: too small, or its head does not
//                           describe it (a truncated file, say)
//   stale-head              the registration's head text is not the head of its file (rewritten)
//   duplicate-registration  a key registered more than once (the last registration stays)
//   unregistered-cache      a file of the cache folder that no registration names (registered
//                           when its key is known and has no registration, deleted otherwise)
// A registration that goes takes its cache file with it when the file lies inside the cache
// folder and no registration that stays names it. Volumes of series whose images the repair
// changes are stale: their registrations go too, so the next view builds them again.
namespace kestrel::internal::maintenance {

namespace {

struct Registration {
    qint64 pk;
    QString key, path, head;
};

// A cache file as its head describes it.
struct CacheFile {
    bool exists = false;
    QString fault; // why it cannot be used; empty when it can
    QString head;  // the head text of a usable file
};

QString cleanPath(const QString& path)
{
    return path.isEmpty() ? QString() : QDir::cleanPath(QFileInfo(path).absoluteFilePath());
}

CacheFile readCacheFile(const QString& path)
{
    CacheFile cache;
    QFile file(path);
    cache.exists = !path.isEmpty() && file.exists();
    if (!cache.exists)
        return cache;
    VolumeHead head{};
    if (!file.open(QIODevice::ReadOnly) || file.read(reinterpret_cast<char*>(&head), sizeof head) != qint64(sizeof head)) {
        cache.fault = file.isOpen() ? QStringLiteral("shorter than a volume head") : file.errorString();
        return cache;
    }
    cache.fault = volumeFileFault(head, file.size());
    if (cache.fault.isEmpty())
        cache.fault = volumecache::cachedHeadFault(head, kVolumeHeaderBlock);
    if (cache.fault.isEmpty() && file.size() != head.totallen)
        cache.fault = QStringLiteral("the head says %1 bytes, the file has %2").arg(head.totallen).arg(file.size());
    if (cache.fault.isEmpty())
        cache.head = volumeHeadText(head);
    return cache;
}

// The series or study whose volume KEY names: a frames key's series, else KEY itself.
QString ownerKey(const QString& key)
{
    const QString series = volumecache::framesKeySeries(key);
    return series.isEmpty() ? key : series;
}

Status readRegistrations(QSqlDatabase db, QVector<Registration>* registrations)
{
    Statement query(db, QStringLiteral("SELECT pk, SeriesInstanceUID, Savepath, VolumeHead FROM registration ORDER BY pk"));
    if (const Status status = query.run(); !status)
        return status;
    while (query.next())
        registrations->push_back({query.get<qint64>(0), query.get<QString>(1), query.get<QString>(2), query.get<QString>(3)});
    return Status::ok();
}

} // namespace

bool insideFolder(const QString& path, const QString& folder)
{
    const QString clean = cleanPath(path);
    const QString root = cleanPath(folder);
    return !clean.isEmpty() && !root.isEmpty() && clean.startsWith(root + QLatin1Char('/'));
}

Status checkVolumeCache(QSqlDatabase db, const CatalogueRows& rows, CheckOutcome* outcome)
{
    QVector<Registration> registrations;
    if (const Status status = readRegistrations(db, &registrations); !status)
        return status;
    outcome->registrationRows = registrations.size();
    RepairPlan& plan = outcome->plan;
    auto add = [&](const QString& kind, const QString& key, const QString& path, const QString& what) {
        outcome->findings.push_back({kind, QStringLiteral("registration"), key, path, what});
    };

    // Keys of the volumes that can be built: series keys and study UIDs, unless the repair removes
    // or changes them.
    QSet<QString> known, stale(plan.volumeKeys.cbegin(), plan.volumeKeys.cend());
    for (const CatalogueRows::Series& series : rows.series)
        known.insert(series.key);
    for (const CatalogueRows::Study& study : rows.studies)
        known.insert(study.uid);
    known.remove(QString());

    QHash<QString, CacheFile> files;
    QMap<QString, const Registration*> keptByKey; // the registration that stays for each key
    QStringList goingFiles;
    auto drop = [&](const Registration& registration) {
        plan.registrations.insert(registration.pk);
        goingFiles << registration.path;
    };
    for (const Registration& registration : qAsConst(registrations)) {
        if (!files.contains(registration.path))
            files.insert(registration.path, readCacheFile(registration.path));
        const CacheFile& file = files[registration.path];
        const QString pk = QString::number(registration.pk);
        const QString framesOf = volumecache::framesKeySeries(registration.key);
        if (!known.contains(ownerKey(registration.key))) {
            add(QStringLiteral("orphan-registration"), pk, registration.path,
                QStringLiteral("no series or study has the key %1").arg(registration.key));
            drop(registration);
        } else if (!file.exists) {
            add(QStringLiteral("missing-cache"), pk, registration.path, QStringLiteral("the cache file does not exist"));
            drop(registration);
        } else if (!file.fault.isEmpty()) {
            add(QStringLiteral("broken-cache"), pk, registration.path, file.fault);
            drop(registration);
        } else {
            // The frames' registration names its frames after the head.
            if (registration.head != file.head && (framesOf.isEmpty() || !registration.head.startsWith(file.head))) {
                add(QStringLiteral("stale-head"), pk, registration.path,
                    QStringLiteral("the registered head is not the head of the file"));
                plan.heads.insert(registration.pk, file.head);
            }
            if (const Registration* earlier = keptByKey.value(registration.key)) {
                add(QStringLiteral("duplicate-registration"), QString::number(earlier->pk), earlier->path,
                    QStringLiteral("the key %1 is registered again by pk %2, which stays").arg(registration.key).arg(pk));
                plan.heads.remove(earlier->pk);
                drop(*earlier);
            }
            keptByKey.insert(registration.key, &registration);
        }
    }
    // Volumes that the repair changes are built again.
    for (const Registration* registration : qAsConst(keptByKey)) {
        if (!stale.contains(ownerKey(registration->key)))
            continue;
        plan.heads.remove(registration->pk);
        drop(*registration);
    }
    QSet<QString> keptFiles, keptKeys;
    for (const Registration* registration : qAsConst(keptByKey)) {
        if (plan.registrations.contains(registration->pk))
            continue;
        keptFiles.insert(cleanPath(registration->path));
        keptKeys.insert(registration->key);
    }

    // Files of the cache folder that no registration names.
    const QString folder = volumecache::folder();
    QSet<QString> named;
    for (const Registration& registration : qAsConst(registrations))
        named.insert(cleanPath(registration.path));
    QHash<QString, QString> keyOfFile; // the file each key of the catalogue would be written to
    for (const QString& key : qAsConst(known))
        keyOfFile.insert(cleanPath(volumecache::fileFor(folder, key)), key);
    const QFileInfoList entries = QDir(folder).entryInfoList({QStringLiteral("*.data")}, QDir::Files, QDir::Name);
    for (const QFileInfo& entry : entries) {
        const QString path = cleanPath(entry.absoluteFilePath());
        if (named.contains(path))
            continue;
        const CacheFile file = readCacheFile(path);
        const QString key = keyOfFile.value(path);
        QString why = file.fault;
        if (why.isEmpty() && key.isEmpty())
            why = QStringLiteral("no series or study of the catalogue has its name");
        else if (why.isEmpty() && stale.contains(key))
            why = QStringLiteral("the volume of %1 is built again").arg(key);
        else if (why.isEmpty() && keptKeys.contains(key))
            why = QStringLiteral("%1 is registered with another file").arg(key);
        add(QStringLiteral("unregistered-cache"), QString(), path,
            why.isEmpty() ? QStringLiteral("no registration names this volume of %1").arg(key)
                          : QStringLiteral("no registration names it; ") + why);
        if (why.isEmpty()) {
            plan.toRegister.push_back({key, path, file.head});
            keptKeys.insert(key);
        } else {
            plan.cacheFiles << path;
        }
    }
    for (const QString& path : qAsConst(goingFiles))
        if (insideFolder(path, folder) && !keptFiles.contains(cleanPath(path)) && QFileInfo::exists(path))
            plan.cacheFiles << cleanPath(path);
    plan.cacheFiles.removeDuplicates();
    return Status::ok();
}

} // namespace kestrel::internal::maintenance
