#pragma once

#include "platform/testexport_p.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <memory>


// Helpers shared by the hierarchy classes (QPatient ... QInstance, QPatients).
namespace kestrel::internal {

// A stored DICOM multi-value text split into numbers: at the doubled backslash of escaped
// storage when the text holds one, else at the plain "\" separator. Parts that are not numbers
// give 0; an empty text gives no values.
KESTREL_TEST_EXPORT QVector<double> parseMultiValue(const QString& text);

// The column names of one hierarchy level, cached per catalogue (driver, host and database of
// the default connection): first MYSQLQUERY (information schema) with %1 = SCHEMA, and when that
// names nothing the SQLite PRAGMA statements in turn. An empty result is not cached.
QStringList cachedColumnNames(const QString& level, const QString& schema, const QString& mysqlQuery,
                              const QStringList& sqliteQueries);


} // namespace kestrel::internal
