#include "catalog/transaction_p.h"

#include "catalog/statement_p.h"

#include <QThread>

namespace kestrel::internal {

Transaction::Transaction(QSqlDatabase db)
    : m_db(std::move(db))
{
    if (m_db.driverName() == QLatin1String("QSQLITE")) {
        // Writers take the file's write lock when they begin: two processes that both began by
        // reading could otherwise each wait for the other to finish reading, and one would fail.
        m_begun = Statement(m_db, QStringLiteral("BEGIN IMMEDIATE"), Statement::Direct).run();
        m_active = m_begun.isOk();
        return;
    }
    m_active = m_db.transaction();
    if (!m_active) {
        m_begun = sqlStatus(m_db.lastError());
        if (m_begun.isOk())
            m_begun = Status::failed(QStringLiteral("cannot begin a transaction"));
        logSqlFailure(QStringLiteral("BEGIN"), m_begun.text());
    }
}

Transaction::~Transaction()
{
    rollback();
}

Status Transaction::commit()
{
    if (!m_active)
        return m_begun.isOk() ? Status::failed(QStringLiteral("no transaction to commit")) : m_begun;
    if (m_db.commit()) {
        m_active = false;
        return Status::ok();
    }
    Status status = sqlStatus(m_db.lastError());
    if (status.isOk())
        status = Status::failed(QStringLiteral("cannot commit"));
    logSqlFailure(QStringLiteral("COMMIT"), status.text());
    rollback();
    return status;
}

void Transaction::rollback()
{
    if (!m_active)
        return;
    m_active = false;
    if (!m_db.rollback())
        logSqlFailure(QStringLiteral("ROLLBACK"), m_db.lastError().text());
}

Status runWrite(QSqlDatabase db, const std::function<Status(Transaction&)>& work, int retries)
{
    int pauseMs = 20;
    for (int attempt = 0;; ++attempt) {
        Status status;
        {
            Transaction transaction(db);
            status = transaction.begun();
            if (status)
                status = work(transaction);
            if (status && transaction.isActive())
                status = transaction.commit();
        }
        if (status.code() != Status::Busy || attempt >= retries)
            return status;
        QThread::msleep(ulong(pauseMs));
        pauseMs = qMin(pauseMs * 2, 1000);
    }
}

} // namespace kestrel::internal
