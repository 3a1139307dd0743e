#pragma once

#include <QStringList>

class QObject;
class QSeries;

// A series object for FILES as the catalogue would give it: geometry read from the files,
// series key PK, SeriesBase "<SeriesInstanceUID>#0". Owned by PARENT (or the caller).
QSeries* seriesFromFiles(const QStringList& files, qint64 pk, QObject* parent = nullptr);
