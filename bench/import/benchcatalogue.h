#pragma once

// The import benchmark's catalogues and timed imports, shared by its tables.

#include <QString>

// A fresh catalogue on the default connection: SQLite under TMP (SOCKET empty), or a new MariaDB
// schema on SOCKET, named in *SCHEMA. CONFIGDIR gets the configuration that names it.
bool openCatalogue(const QString& configDir, const QString& tmp, const QString& socket, QString* schema);

// Closes the default connection, dropping SCHEMA when one was made.
void closeCatalogue(const QString& schema);

// Imports FOLDER once with a new importer: milliseconds, the images added, and the importer's
// phases in one line.
qint64 importOnce(const QString& folder, int* imagesAdded, QString* phases);
