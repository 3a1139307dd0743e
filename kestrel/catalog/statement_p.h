#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QString>
#include <QVariant>
#include <QVariantList>

namespace kestrel::internal {

// The status of a failed driver call: Busy when another connection holds the catalogue (SQLite
// "database is locked", MySQL lock wait timeout 1205 and deadlock 1213), Conflict for a taken
// unique key, Unavailable when the server went away, Failed otherwise. The text is the driver's
// own (QSqlError::text()), as the public signals have always shown it. Ok for no error.
KESTREL_TEST_EXPORT Status sqlStatus(const QSqlError& error);

// The one log line of a failed statement: what failed (WHAT, the SQL text) and the driver's text.
KESTREL_TEST_EXPORT void logSqlFailure(const QString& what, const QString& driverText);

// One SQL statement on a connection: prepared on the first run, values bound in order, run as
// often as needed (bind again before each run). A failure is logged with the SQL text and the
// driver's text and comes back as a Status. Results are read forward only.
//
//   Statement s(db, "SELECT pk FROM patient WHERE PatientID = ?");
//   if (s.bind(id).run())
//       while (s.next()) keys << s.get<qint64>(0);
class KESTREL_TEST_EXPORT Statement
{
public:
    enum Mode {
        Prepared, // bound values, "?" markers
        Direct,   // the text as it is: multi-statement scripts, PRAGMAs, a caller's own SELECT
    };

    Statement(QSqlDatabase db, QString sql, Mode mode = Prepared);
    Statement(const Statement&) = delete;
    Statement& operator=(const Statement&) = delete;

    // Values for the next run, in marker order.
    Statement& bind(const QVariant& value);
    Statement& bindAll(const QVariantList& values);

    // Runs with the values bound since the last run (which are then used up).
    Status run();

    // Rows of the last run.
    bool next();
    QVariant value(int column) const { return m_query.value(column); }
    template <typename T>
    T get(int column) const
    {
        return m_query.value(column).value<T>();
    }
    QSqlRecord record() const { return m_query.record(); }
    // Rows changed by the last run (-1 when the driver cannot tell).
    int rowsAffected() const { return m_query.numRowsAffected(); }
    // Skips every further result of a Direct multi-statement text, so the server runs them all.
    void drainResults();
    // Frees the result of the last run; the statement stays prepared.
    void finish() { m_query.finish(); }

    const QString& sql() const { return m_sql; }
    QSqlError lastError() const { return m_query.lastError(); }

private:
    QSqlQuery m_query;
    QString m_sql;
    Mode m_mode;
    bool m_prepared = false;
    QVariantList m_values;
};

// One statement run once: prepared, VALUES bound, run; the status says how it went.
KESTREL_TEST_EXPORT Status execute(QSqlDatabase db, const QString& sql, const QVariantList& values = {});

// The first column of the first row of SQL (with VALUES), as T; FALLBACK without a row or on a
// failure (then *STATUS, when given, says why).
template <typename T>
T selectValue(QSqlDatabase db, const QString& sql, const QVariantList& values, T fallback, Status* status = nullptr)
{
    Statement statement(db, sql);
    const Status result = statement.bindAll(values).run();
    if (status)
        *status = result;
    return result && statement.next() ? statement.get<T>(0) : fallback;
}

} // namespace kestrel::internal
