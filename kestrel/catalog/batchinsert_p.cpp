#include "catalog/batchinsert_p.h"

#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"

#include <QSqlDriver>
#include <QSqlError>

#include <mysql.h>
#include <sqlite3.h>

#include <memory>
#include <string>
#include <utility>
#include <vector>

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

// Text handed to SQLite as UTF-8, the catalogue's encoding: bound as UTF-16 (as Qt's driver does)
// each value was converted again inside SQLite, with an allocation of its own. The bytes of one
// row live in ARENA until the row is stepped.
void appendUtf8(std::string& arena, const QString& text)
{
    const ushort* chars = reinterpret_cast<const ushort*>(text.constData());
    const size_t size = size_t(text.size());
    const size_t start = arena.size();
    // Most catalogue text is ASCII: narrowed in one pass, which the compiler vectorises.
    arena.resize(start + size);
    char* out = &arena[start];
    ushort seen = 0;
    for (size_t i = 0; i < size; ++i) {
        out[i] = char(chars[i]);
        seen |= chars[i];
    }
    if (seen < 0x80)
        return;
    arena.resize(start);
    const QByteArray utf8 = text.toUtf8();
    arena.append(utf8.constData(), size_t(utf8.size()));
}

// Binds the values of ROW the way Qt's SQLite driver does: null, blob, integer, real, else text.
// Nulls are left as sqlite3_clear_bindings left them.
int bindSqliteRow(sqlite3_stmt* statement, const QVector<QVariant>& row, std::string& arena,
                  std::vector<std::pair<int, size_t>>& texts)
{
    arena.clear();
    texts.clear();
    int status = SQLITE_OK;
    auto keep = [&status](int code) {
        if (code != SQLITE_OK)
            status = code;
    };
    for (int i = 0; i < row.size(); ++i) {
        const QVariant& value = row.at(i);
        const int index = i + 1;
        if (value.isNull())
            continue;
        switch (value.userType()) {
        case QMetaType::QByteArray: {
            const QByteArray* bytes = static_cast<const QByteArray*>(value.constData());
            keep(sqlite3_bind_blob(statement, index, bytes->constData(), bytes->size(), SQLITE_STATIC));
            break;
        }
        case QMetaType::Int:
        case QMetaType::Bool:
            keep(sqlite3_bind_int(statement, index, value.toInt()));
            break;
        case QMetaType::Double:
            keep(sqlite3_bind_double(statement, index, value.toDouble()));
            break;
        case QMetaType::UInt:
        case QMetaType::LongLong:
            keep(sqlite3_bind_int64(statement, index, value.toLongLong()));
            break;
        case QMetaType::QString:
            texts.emplace_back(index, arena.size());
            appendUtf8(arena, *static_cast<const QString*>(value.constData()));
            break;
        default:
            texts.emplace_back(index, arena.size());
            appendUtf8(arena, value.toString());
            break;
        }
    }
    // The arena has stopped growing: its bytes stay where they are until the next row.
    for (size_t t = 0; t < texts.size(); ++t) {
        const size_t begin = texts[t].second;
        const size_t end = t + 1 < texts.size() ? texts[t + 1].second : arena.size();
        keep(sqlite3_bind_text(statement, texts[t].first, arena.data() + begin, int(end - begin), SQLITE_STATIC));
    }
    return status;
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
    std::string arena;
    std::vector<std::pair<int, size_t>> texts;
    for (const QVector<QVariant>* row : rows) {
        if (row->size() != columns) {
            status = Status(Status::InvalidInput,
                            QStringLiteral("%1 values for the %2 columns of %3").arg(row->size()).arg(columns).arg(table));
            logSqlFailure(sql, status.text());
            continue;
        }
        const bool bound = bindSqliteRow(statement, *row, arena, texts) == SQLITE_OK;
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

// The MariaDB/MySQL client handle behind DB, or null for other drivers.
MYSQL* mysqlHandle(const QSqlDatabase& db)
{
    const QVariant handle = db.driver() ? db.driver()->handle() : QVariant();
    if (!handle.isValid() || qstrcmp(handle.typeName(), "MYSQL*") != 0)
        return nullptr;
    return *static_cast<MYSQL* const*>(handle.constData());
}

// One column of a bulk statement: its values side by side, in the type Qt's driver would have
// sent them (text, bytes, integer or double), nulls marked.
struct BulkColumn {
    enum Kind { Unset, Text, Bytes, Integer, Real, Mixed };
    Kind kind = Unset;
    std::string arena; // the text values, UTF-8, one after the other
    std::vector<const char*> pointers;
    std::vector<unsigned long> lengths;
    std::vector<long long> integers;
    std::vector<double> reals;
    std::vector<char> indicators;
};

BulkColumn::Kind bulkKind(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::QString:
        return BulkColumn::Text;
    case QMetaType::QByteArray:
        return BulkColumn::Bytes;
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::Bool:
        return BulkColumn::Integer;
    case QMetaType::Double:
        return BulkColumn::Real;
    default:
        return BulkColumn::Mixed;
    }
}

// Fills COLUMN with the values at INDEX of ROWS; false when they are not of one kind.
bool fillBulkColumn(BulkColumn& column, int index, const QVector<const QVector<QVariant>*>& rows)
{
    const size_t n = size_t(rows.size());
    column.indicators.assign(n, STMT_INDICATOR_NONE);
    for (size_t r = 0; r < n; ++r) {
        const QVariant& value = rows.at(int(r))->at(index);
        if (value.isNull()) {
            column.indicators[r] = STMT_INDICATOR_NULL;
            continue;
        }
        const BulkColumn::Kind kind = bulkKind(value);
        if (kind == BulkColumn::Mixed || (column.kind != BulkColumn::Unset && column.kind != kind))
            return false;
        column.kind = kind;
    }
    if (column.kind == BulkColumn::Unset)
        column.kind = BulkColumn::Text;
    if (column.kind == BulkColumn::Integer)
        column.integers.assign(n, 0);
    else if (column.kind == BulkColumn::Real)
        column.reals.assign(n, 0.0);
    else {
        column.pointers.assign(n, "");
        column.lengths.assign(n, 0);
    }
    // Text goes into one arena (a million values an import: one allocation each was a third of
    // the client's time); the pointers are set once it has stopped growing.
    std::vector<size_t> starts;
    if (column.kind == BulkColumn::Text || column.kind == BulkColumn::Bytes)
        starts.assign(n, 0);
    for (size_t r = 0; r < n; ++r) {
        if (column.indicators[r] == STMT_INDICATOR_NULL)
            continue;
        const QVariant& value = rows.at(int(r))->at(index);
        switch (column.kind) {
        case BulkColumn::Integer:
            column.integers[r] = value.toLongLong();
            break;
        case BulkColumn::Real:
            column.reals[r] = value.toDouble();
            break;
        case BulkColumn::Bytes: {
            const QByteArray bytes = value.toByteArray();
            starts[r] = column.arena.size();
            column.arena.append(bytes.constData(), size_t(bytes.size()));
            column.lengths[r] = static_cast<unsigned long>(bytes.size());
            break;
        }
        default:
            starts[r] = column.arena.size();
            appendUtf8(column.arena, *static_cast<const QString*>(value.constData()));
            column.lengths[r] = static_cast<unsigned long>(column.arena.size() - starts[r]);
        }
    }
    for (size_t r = 0; r < starts.size(); ++r)
        if (column.lengths[r])
            column.pointers[r] = column.arena.data() + starts[r];
    return true;
}

// MariaDB: the rows go to the server in one bulk execution of a single-row statement (the client
// library's array binding), values bound column by column. False when the driver or the values
// do not allow it (nothing was sent then); otherwise *STATUS tells how it went.
bool insertRowsBulk(QSqlDatabase db, const QString& table, int columns, const QVector<const QVector<QVariant>*>& rows,
                    bool ignoreTaken, int* inserted, Status* status)
{
    MYSQL* handle = mysqlHandle(db);
    if (!handle || !(mysql_get_server_version(handle) >= 100200 && mariadb_connection(handle)))
        return false;
    std::vector<BulkColumn> values(static_cast<size_t>(columns));
    for (const QVector<QVariant>* row : rows)
        if (row->size() != columns)
            return false;
    for (int c = 0; c < columns; ++c)
        if (!fillBulkColumn(values[size_t(c)], c, rows))
            return false;
    std::vector<MYSQL_BIND> binds(static_cast<size_t>(columns));
    for (size_t c = 0; c < binds.size(); ++c) {
        BulkColumn& column = values[c];
        MYSQL_BIND& bind = binds[c];
        bind = MYSQL_BIND();
        bind.u.indicator = column.indicators.data();
        switch (column.kind) {
        case BulkColumn::Integer:
            bind.buffer_type = MYSQL_TYPE_LONGLONG;
            bind.buffer = column.integers.data();
            break;
        case BulkColumn::Real:
            bind.buffer_type = MYSQL_TYPE_DOUBLE;
            bind.buffer = column.reals.data();
            break;
        default:
            bind.buffer_type = column.kind == BulkColumn::Bytes ? MYSQL_TYPE_BLOB : MYSQL_TYPE_STRING;
            bind.buffer = column.pointers.data();
            bind.length = column.lengths.data();
        }
    }
    QString sql = schema::insertHead(table) + schema::placeholders(columns);
    if (ignoreTaken)
        sql.replace(0, 6, QStringLiteral("INSERT IGNORE"));
    const QByteArray text = sql.toUtf8();
    MYSQL_STMT* statement = mysql_stmt_init(handle);
    if (!statement)
        return false;
    unsigned int size = static_cast<unsigned int>(rows.size());
    bool done = mysql_stmt_prepare(statement, text.constData(), text.size()) == 0
                && mysql_stmt_attr_set(statement, STMT_ATTR_ARRAY_SIZE, &size) == 0
                && mysql_stmt_bind_param(statement, binds.data()) == 0 && mysql_stmt_execute(statement) == 0;
    if (done) {
        if (inserted)
            *inserted += int(mysql_stmt_affected_rows(statement));
    } else {
        // The server said no (a lost connection, a lock wait): the caller's transaction decides,
        // as it would for the same error through Qt's driver.
        const QSqlError error(QStringLiteral("QMYSQL3: Unable to execute statement"),
                              QString::fromUtf8(mysql_stmt_error(statement)), QSqlError::StatementError,
                              QString::number(mysql_stmt_errno(statement)));
        logSqlFailure(sql, error.text());
        *status = sqlStatus(error);
        done = true;
    }
    mysql_stmt_close(statement);
    return done;
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
    Status status;
    if (insertRowsBulk(db, table, columns, rows, ignoreTaken, inserted, &status))
        return status;
    return insertRowsMultiRow(db, table, columns, rows, ignoreTaken, inserted);
}

} // namespace kestrel::internal
