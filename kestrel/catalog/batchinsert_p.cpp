#include "catalog/batchinsert_p.h"

#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"

#include <QSqlDriver>

#include <sqlite3.h>

#include <memory>

namespace kestrel::internal {

namespace {

// The SQLite handle behind DB, or null for other drivers.
sqlite3* sqliteHandle(const QSqlDatabase& db)
{
    const QVariant handle = db.driver() ? db.driver()->handle() : QVariant();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "sqlite3*") != 0)
        return nullptr;
    return *static_cast<sqlite3* const*>(handle.constData());
}

// Binds VALUE the way Qt's SQLite driver does: null, blob, integer, real, else text.
int bindSqlite(sqlite3_stmt* statement, int index, const QVariant& value)
{
    if (value.isNull())
        return sqlite3_bind_null(statement, index);
    switch (value.userType()) {
    case QMetaType::QByteArray: {
        const QByteArray* bytes = static_cast<const QByteArray*>(value.constData());
        return sqlite3_bind_blob(statement, index, bytes->constData(), bytes->size(), SQLITE_STATIC);
    }
    case QMetaType::Int:
    case QMetaType::Bool:
        return sqlite3_bind_int(statement, index, value.toInt());
    case QMetaType::Double:
        return sqlite3_bind_double(statement, index, value.toDouble());
    case QMetaType::UInt:
    case QMetaType::LongLong:
        return sqlite3_bind_int64(statement, index, value.toLongLong());
    case QMetaType::QString: {
        const QString* text = static_cast<const QString*>(value.constData());
        return sqlite3_bind_text16(statement, index, text->utf16(), text->size() * 2, SQLITE_STATIC);
    }
    default: {
        const QString text = value.toString();
        return sqlite3_bind_text16(statement, index, text.utf16(), text.size() * 2, SQLITE_TRANSIENT);
    }
    }
}

Status sqliteStatus(sqlite3* handle, const QString& table, const QString& sql)
{
    const int code = sqlite3_errcode(handle);
    const QString message = QString::fromUtf8(sqlite3_errmsg(handle));
    logSqlFailure(sql, message);
    const QString text = message + QStringLiteral(" Unable to insert into ") + table;
    if (code == SQLITE_BUSY || code == SQLITE_LOCKED)
        return Status(Status::Busy, text);
    if (code == SQLITE_CONSTRAINT && message.contains(QLatin1String("UNIQUE")))
        return Status(Status::Conflict, text);
    return Status(Status::Failed, text);
}

// SQLite: one single-row statement on the driver's own handle, stepped once per row. Qt's binding
// (a name lookup per value) cost as much as the inserts themselves; the values are bound as Qt
// would bind them, so the rows are the same either way.
Status insertRowsSqlite(sqlite3* handle, const QString& table, int columns, const QVector<const QVector<QVariant>*>& rows,
                        bool ignoreTaken, int* inserted)
{
    QString sql = schema::insertHead(table) + schema::placeholders(columns);
    if (ignoreTaken)
        sql.replace(0, 6, QStringLiteral("INSERT OR IGNORE"));
    const QByteArray text = sql.toUtf8();
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(handle, text.constData(), text.size(), &statement, nullptr) != SQLITE_OK)
        return sqliteStatus(handle, table, sql);
    Status status;
    for (const QVector<QVariant>* row : rows) {
        if (row->size() != columns) {
            status = Status(Status::InvalidInput,
                            QStringLiteral("%1 values for the %2 columns of %3").arg(row->size()).arg(columns).arg(table));
            logSqlFailure(sql, status.text());
            continue;
        }
        int index = 0;
        bool bound = true;
        for (const QVariant& value : *row)
            bound = bindSqlite(statement, ++index, value) == SQLITE_OK && bound;
        if (!bound || sqlite3_step(statement) != SQLITE_DONE)
            status = sqliteStatus(handle, table, sql);
        else if (inserted)
            *inserted += sqlite3_changes(handle);
        sqlite3_reset(statement);
        sqlite3_clear_bindings(statement);
    }
    sqlite3_finalize(statement);
    return status;
}

// MySQL: a series' rows go through one short multi-row statement, prepared once and run over the
// batch: MariaDB's bind buffers are rebuilt per statement, and about 256 values per statement
// measured fastest.
Status insertRowsMultiRow(QSqlDatabase db, const QString& table, int columns, const QVector<const QVector<QVariant>*>& rows,
                          bool ignoreTaken, int* inserted)
{
    const int rowsPerStatement = qMax(1, 256 / columns);
    QString head = schema::insertHead(table);
    if (ignoreTaken)
        head.replace(0, 6, QStringLiteral("INSERT IGNORE"));
    const QString oneRow = schema::placeholders(columns);
    auto text = [&](int n) {
        QString sql = head;
        sql.reserve(head.size() + n * (oneRow.size() + 1));
        for (int r = 0; r < n; ++r) {
            if (r)
                sql += ',';
            sql += oneRow;
        }
        return sql;
    };
    Status status;
    std::unique_ptr<Statement> statement;
    int prepared = 0;
    for (int first = 0; first < rows.size(); first += rowsPerStatement) {
        const int n = qMin(rowsPerStatement, rows.size() - first);
        if (n != prepared) {
            statement = std::make_unique<Statement>(db, text(n));
            prepared = n;
        }
        for (int r = 0; r < n; ++r)
            for (const QVariant& value : *rows.at(first + r))
                statement->bind(value);
        const Status run = statement->run();
        if (!run)
            status = run;
        else if (inserted)
            *inserted += qMax(0, statement->rowsAffected());
    }
    return status;
}

} // namespace

Status insertRows(QSqlDatabase db, const QString& table, const QVector<const QVector<QVariant>*>& rows, bool ignoreTaken,
                  int* inserted)
{
    if (inserted)
        *inserted = 0;
    if (rows.isEmpty())
        return Status::ok();
    const int columns = qMax(1, schema::columns(table).size());
    if (sqlite3* handle = sqliteHandle(db))
        return insertRowsSqlite(handle, table, columns, rows, ignoreTaken, inserted);
    return insertRowsMultiRow(db, table, columns, rows, ignoreTaken, inserted);
}

} // namespace kestrel::internal
