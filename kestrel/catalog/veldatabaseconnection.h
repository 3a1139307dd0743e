#pragma once

#include "kestrel_global.h"

#include <QColor>
#include <QList>
#include <QObject>
#include <QString>
#include <QStringList>

// Opens Qt SQL's default connection from "database.ini" (profile "currentdatabase/dbname",
// MySQL or SQLite), creating the schema from the scripts under ../database when it is missing.
// True when the caller may go on with the default connection; after a MySQL schema was
// created the caller connects again.
KESTREL_EXPORT bool createConnection();

// Why the last createConnection() failed, in one line naming the catalogue (the resolved SQLite
// path, or the server, user and schema) and the driver's text; empty after a success.
KESTREL_EXPORT QString getConnectionError();

// Reads of the catalogue on the default connection, for programs that show it.

// Keys (pk) of every patient, ascending; empty when there are none or the read fails.
KESTREL_EXPORT QList<qint64> getPatientKeys();

// Key (pk) of the first series whose SeriesInstanceUID is SERIESUID; -1 when there is none or
// the read fails.
KESTREL_EXPORT qint64 getSeriesKey(const QString& seriesUID);

// Number of stored advanced searches (table andvancequiry) named NAME; -1 when the read fails.
KESTREL_EXPORT int getStoredSearchCount(const QString& name);

// Number of received images of SERIESUID that the receive queue marked as imported (images
// with DBflag 1); 0 when the read fails.
KESTREL_EXPORT int getImportedImageCount(const QString& seriesUID);

// Checks the catalogue of the default connection against the disk: every image row's file exists
// and holds the row's SOP Instance UID, no two rows share a file, no image table holds one SOP
// Instance UID twice, every image has its rows in imageformat, imagepixel and mrimageinfo, no row
// lost its series, study or patient, the receive queue's files exist, and every volume cache
// registration names a cache file that its head describes (and every file of the cache folder is
// registered). Appends to REPORT (when given) one line per problem,
// "kind<TAB>table<TAB>key<TAB>path<TAB>what", then a summary line.
// With REPAIR the problems are mended as far as they can be: rows whose file is gone or holds
// another image, duplicate rows (the row of a complete image stays, else the lowest key), orphans
// and the series, studies and patients left without images are removed; files of removed rows
// that hold a readable image are catalogued again; registrations of unusable cache files, and of
// volumes whose images changed, are removed (the next view builds them again), stale heads are
// rewritten and unregistered cache files registered when their series or study is known. A user's
// file is never deleted or changed; only broken or unused files inside the cache folder are
// deleted. REPORT then also gets a line per kind of change made. Call again to see what is left.
// Returns the number of problems found (before any repair), -1 when the catalogue cannot be read
// (REPORT says why).
KESTREL_EXPORT int checkCatalog(bool repair, QStringList* report = nullptr);

// The simpler opener of the "database" group, reporting through message() instead of a box.
class KESTREL_EXPORT VelDatabaseConnection : public QObject
{
    Q_OBJECT
public:
    explicit VelDatabaseConnection(QObject* parent = nullptr);

    bool createConnection();

signals:
    void message(const QString& text, int level, const QColor& color);

private:
    QString m_settingsPath;
};
