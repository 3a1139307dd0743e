#pragma once

#include "kestrel_global.h"

#include <QColor>
#include <QObject>
#include <QString>

// Opens Qt SQL's default connection from "database.ini" (profile "currentdatabase/dbname",
// MySQL or SQLite), creating the schema from the scripts under ../database when it is missing.
// True when the caller may go on with the default connection; after a MySQL schema was
// created the caller connects again.
KESTREL_EXPORT bool createConnection();

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
