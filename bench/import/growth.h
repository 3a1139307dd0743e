#pragma once

#include <QList>
#include <QString>

// The import of CORPUS (FILES new files) into catalogues already holding each of SIZES images
// (rows written through SQL), beside the same import into an empty catalogue, and the hierarchy's
// reads at each size; SQLite, then MariaDB on SOCKET when one is given. Catalogues live under TMP.
void growthTable(const QString& corpus, int files, const QList<qint64>& sizes, const QString& socket, const QString& tmp);
