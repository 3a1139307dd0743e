#pragma once

#include "platform/testexport_p.h"

#include <QString>
#include <QStringList>

// The catalogue's tables and their columns in insert order (the database assigns `pk`), held
// once here: INSERT statements are built from these lists and the schema scripts are checked
// against them.
namespace kestrel::internal::schema {

// Every table the library writes or reads by column, lower-case names.
KESTREL_TEST_EXPORT QStringList tables();

// The tables of the result view's column choices, patient, study, series and image level: one
// row of 0/1 flags each, in the column order of their level's table.
KESTREL_TEST_EXPORT const QStringList& displayTables();

// Columns of TABLE in insert order, without `pk`; empty for an unknown table.
KESTREL_TEST_EXPORT const QStringList& columns(const QString& table);

// "(?,?,...,?)" with N markers.
KESTREL_TEST_EXPORT QString placeholders(int n);

// "`c1`,`c2`,..." — column names quoted for both dialects (MariaDB reserves `Rows`, for one).
KESTREL_TEST_EXPORT QString quotedColumns(const QStringList& names);

// "INSERT INTO table (`c1`,`c2`,...) VALUES " — the head of a multi-row insert.
KESTREL_TEST_EXPORT QString insertHead(const QString& table);

// "INSERT INTO table (c1,...) VALUES (?,...)" — the single-row form with one marker per column.
KESTREL_TEST_EXPORT QString insertStatement(const QString& table);

} // namespace kestrel::internal::schema
