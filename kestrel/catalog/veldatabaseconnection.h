#pragma once

#include "kestrel_global.h"

#include <QColor>
#include <QList>
#include <QObject>
#include <QString>

// Opens Qt SQL's default connection from "database.ini" (profile "currentdatabase/dbname",
// MySQL or SQLite), creating the schema from the scripts under ../database when it is missing.
// True when the caller may go on with the default connection; after a MySQL schema was
// created the caller connects again.
KESTREL_EXPORT bool createConnection();

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
