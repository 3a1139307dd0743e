#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QSqlDatabase>
#include <QString>
#include <QVariant>
#include <QVector>

// The fast writers of many catalogue rows (the import pass writes a series' images at once).
namespace kestrel::internal {

// One INSERT of ROWS into TABLE (a table of the schema's lists; columns in its insert order) on
// DB. SQLite: one single-row statement on the driver's own handle, stepped per row; MySQL: short
// multi-row statements of about 256 values each. Every value is bound. A failed statement is
// logged; the status of the last failure comes back (its text as the application has always
// shown it), and the other rows are still written. With IGNORETAKEN a row whose unique key another
// row already holds (written by this or another process) is skipped without an error; *INSERTED
// counts the rows written.
KESTREL_TEST_EXPORT Status insertRows(QSqlDatabase db, const QString& table, const QVector<const QVector<QVariant>*>& rows,
                                      bool ignoreTaken = false, int* inserted = nullptr);

} // namespace kestrel::internal
