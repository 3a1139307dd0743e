#pragma once

#include "catalog/statement_p.h"
#include "platform/testexport_p.h"

#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QVector>

#include <functional>
#include <memory>


// Helpers shared by the hierarchy classes (QPatient ... QInstance, QPatients).
namespace kestrel::internal {

// A stored DICOM multi-value text split into numbers: at the doubled backslash of escaped
// storage when the text holds one, else at the plain "\" separator. Parts that are not numbers
// give 0; an empty text gives no values.
KESTREL_TEST_EXPORT QVector<double> parseMultiValue(const QString& text);

// The column names of TABLES (of the schema's lists) in turn, cached per catalogue (driver, host
// and database of the default connection) under LEVEL: from the information schema of SCHEMA on
// MySQL, from SQLite's table_info otherwise. An empty result is not cached.
QStringList cachedColumnNames(const QString& level, const QString& schema, const QStringList& tables);

// Runs SQL on the default connection with VALUES bound and hands each row to ROW. A failed query
// is logged with its cause and gives no rows.
void forEachRow(const QString& sql, const QVariantList& values, const std::function<void(const Statement&)>& row);


} // namespace kestrel::internal
