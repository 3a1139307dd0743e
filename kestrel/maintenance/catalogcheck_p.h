#pragma once

#include "platform/status_p.h"

#include <QHash>
#include <QMap>
#include <QSet>
#include <QSqlDatabase>
#include <QString>
#include <QStringList>
#include <QVector>

// The catalogue checked against the disk: image rows against their files, the image tables
// against each other and the hierarchy, the receive queue against its files, and the volume
// cache registrations against the cache files. A check finds problems and plans their repair in
// one pass; the repair carries the plan out.
namespace kestrel::internal::maintenance {

// One thing wrong, as one report line.
struct Finding {
    QString kind;  // missing-file, wrong-image, broken-cache, ... (see catalogcheck_p.cpp)
    QString table;
    QString key;   // the row's pk; the SOP Instance UID for the receive queue
    QString path;  // the file concerned, empty when none
    QString what;

    // "kind<TAB>table<TAB>key<TAB>path<TAB>what", "-" for an empty field.
    QString line() const;
};

// What a repair does: rows to remove or change, files to catalogue again, cache files to drop
// or register. Filled by the check; nothing in it touches a file outside the cache folder.
struct RepairPlan {
    QSet<qint64> patients, studies, series;      // rows to remove
    QHash<QString, QSet<qint64>> images;         // image table -> pks to remove
    QVector<QPair<QString, QString>> queueRows;  // receive queue rows (InstanceUID, filepath) to remove
    QSet<qint64> registrations;                  // registration rows to remove
    QHash<qint64, QString> heads;                // registration pk -> head text of its file
    QVector<QStringList> toRegister;             // {key, file, head} registrations to add
    QStringList cacheFiles;                      // broken or unused cache files to delete
    QStringList reimport;                        // user files to catalogue again after the removals
    QStringList volumeKeys;                      // cache keys whose volumes the repair made stale
};

// The rows the check reads, keyed by pk.
struct CatalogueRows {
    struct Study { qint64 patient; QString uid; };
    struct Series { qint64 study; QString key; };
    struct Image { qint64 pk, series; QString sop, path; };
    QSet<qint64> patients;
    QMap<qint64, Study> studies; // maps: findings come in key order
    QMap<qint64, Series> series;
    QHash<QString, QVector<Image>> images; // imageformat, imagepixel, mrimageinfo
};

// Everything one check found.
struct CheckOutcome {
    Status status; // Failed when the catalogue could not be read
    QVector<Finding> findings;
    RepairPlan plan;
    int imageRows = 0, registrationRows = 0;
};

// The image tables, imageformat first (the one with the file path).
const QStringList& imageTables();

// Checks image rows, the hierarchy and the receive queue on DB; adds findings and their repairs
// to OUTCOME. ROWS receives what was read.
Status checkImages(QSqlDatabase db, CatalogueRows* rows, CheckOutcome* outcome);

// Checks the registration rows and the cache folder against ROWS and the repairs planned so far.
Status checkVolumeCache(QSqlDatabase db, const CatalogueRows& rows, CheckOutcome* outcome);

// True when PATH lies inside the volume cache folder FOLDER (the only files a repair may delete).
bool insideFolder(const QString& path, const QString& folder);

// Runs the whole check on DB and, with REPAIR, carries out its plan (removals in one write unit,
// then the cache files, then the user files catalogued again). REPAIRED, when given, receives one
// line per kind of change made.
CheckOutcome checkCatalogue(QSqlDatabase db, bool repair, QStringList* repaired = nullptr);

} // namespace kestrel::internal::maintenance
