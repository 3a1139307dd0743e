#pragma once

#include "kestrel_global.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <memory>

class NDicomImage;

// Helpers shared by the hierarchy classes (QPatient ... QInstance, QPatients).
namespace kestrel::internal {

// A stored DICOM multi-value text split into numbers: at the doubled backslash of escaped
// storage when the text holds one, else at the plain "\" separator. Parts that are not numbers
// give 0; an empty text gives no values.
KESTREL_EXPORT QVector<double> parseMultiValue(const QString& text);

// The column names of one hierarchy level, cached per catalogue (driver, host and database of
// the default connection): first MYSQLQUERY (information schema) with %1 = SCHEMA, and when that
// names nothing the SQLite PRAGMA statements in turn. An empty result is not cached.
QStringList cachedColumnNames(const QString& level, const QString& schema, const QString& mysqlQuery,
                              const QStringList& sqliteQueries);

// Makes the decoded image of a file. The default reads it with NDicomImage; tests replace it to
// count reads. An empty FACTORY restores the default.
using DicomImageFactory = std::function<std::shared_ptr<NDicomImage>(const QString& filePath)>;
KESTREL_EXPORT void setDicomImageFactory(DicomImageFactory factory);
std::shared_ptr<NDicomImage> makeDicomImage(const QString& filePath);

} // namespace kestrel::internal
