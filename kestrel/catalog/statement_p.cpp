#include "catalog/statement_p.h"

#include <QDebug>

namespace kestrel::internal {

namespace {

bool isBusy(const QString& code, const QString& text)
{
    // SQLite: SQLITE_BUSY, SQLITE_LOCKED (Qt drops the code of a failed COMMIT, the text stays);
    // MySQL/MariaDB: lock wait timeout, deadlock.
    return code == QLatin1String("5") || code == QLatin1String("6") || code == QLatin1String("1205") ||
           code == QLatin1String("1213") || text.contains(QLatin1String("database is locked")) ||
           text.contains(QLatin1String("database table is locked"));
}

} // namespace

Status sqlStatus(const QSqlError& error)
{
    if (error.type() == QSqlError::NoError)
        return Status::ok();
    const QString code = error.nativeErrorCode();
    const QString text = error.text();
    if (isBusy(code, text))
        return Status(Status::Busy, text);
    if (code == QLatin1String("1062") || text.contains(QLatin1String("UNIQUE constraint failed")))
        return Status(Status::Conflict, text);
    if (error.type() == QSqlError::ConnectionError || code == QLatin1String("2006") || code == QLatin1String("2013"))
        return Status(Status::Unavailable, text);
    return Status(Status::Failed, text);
}

void logSqlFailure(const QString& what, const QString& driverText)
{
    qWarning().noquote() << "SQL failed:" << driverText << "--" << what.simplified();
}

Statement::Statement(QSqlDatabase db, QString sql, Mode mode)
    : m_query(db)
    , m_sql(std::move(sql))
    , m_mode(mode)
{
    m_query.setForwardOnly(true);
}

Statement& Statement::bind(const QVariant& value)
{
    m_values.append(value);
    return *this;
}

Statement& Statement::bindAll(const QVariantList& values)
{
    m_values += values;
    return *this;
}

Status Statement::run()
{
    bool ok = false;
    if (m_mode == Direct) {
        m_values.clear();
        ok = m_query.exec(m_sql);
    } else {
        if (!m_prepared)
            m_prepared = m_query.prepare(m_sql);
        if (m_prepared) {
            for (const QVariant& value : qAsConst(m_values))
                m_query.addBindValue(value);
            ok = m_query.exec();
        }
        m_values.clear();
    }
    if (ok)
        return Status::ok();
    Status status = sqlStatus(m_query.lastError());
    if (status.isOk()) // a driver that failed without saying why
        status = Status::failed(QStringLiteral("the statement did not run"));
    logSqlFailure(m_sql, status.text());
    return status;
}

bool Statement::next()
{
    return m_query.isActive() && m_query.next();
}

void Statement::drainResults()
{
    while (m_query.nextResult()) {
    }
}

Status execute(QSqlDatabase db, const QString& sql, const QVariantList& values)
{
    return Statement(db, sql).bindAll(values).run();
}

} // namespace kestrel::internal
