#pragma once

#include <QStringList>

class QObject;
class QSeries;

// A series object for FILES (in the catalogue's order, by instance number) as the catalogue
// would give it: geometry and instance numbers read from the files,
// series key PK, SeriesBase "<SeriesInstanceUID>#0". Owned by PARENT (or the caller).
QSeries* seriesFromFiles(const QStringList& files, qint64 pk, QObject* parent = nullptr);

// The files of FOLDER matching PATTERN in the catalogue's order, by instance number.
QStringList seriesFiles(const QString& folder, const QString& pattern = "*");

// For tests of series built from files: an empty in-memory catalogue as the default connection
// (the instances' lookups find nothing and stay quiet) and DCMTK's log at errors only. False when
// the catalogue does not open.
bool openEmptyCatalogue();
