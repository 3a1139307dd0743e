#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QSqlDatabase>

#include <functional>

namespace kestrel::internal {

// A transaction on one connection: begun on construction, rolled back on destruction unless
// commit() succeeded. One at a time per connection.
class KESTREL_TEST_EXPORT Transaction
{
public:
    explicit Transaction(QSqlDatabase db);
    ~Transaction();
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;

    // How the begin went; writes without a begun transaction are the caller's choice.
    const Status& begun() const { return m_begun; }
    // Begun and neither committed nor rolled back yet.
    bool isActive() const { return m_active; }

    // Commits; on failure the transaction is rolled back and the status says why.
    Status commit();
    void rollback();

    QSqlDatabase database() const { return m_db; }

private:
    QSqlDatabase m_db;
    Status m_begun;
    bool m_active = false;
};

// One unit of work in a transaction of its own: WORK runs, and when it returns Ok the transaction
// is committed (unless WORK committed it itself). When a run fails because another connection held
// the catalogue (Status::Busy: SQLite busy/locked, MySQL lock wait timeout or deadlock) everything is
// rolled back and the whole unit runs again, up to RETRIES more times after a short, growing pause.
// Any other failure is returned at once. The status of the last run comes back.
KESTREL_TEST_EXPORT Status runWrite(QSqlDatabase db, const std::function<Status(Transaction&)>& work, int retries = 3);

} // namespace kestrel::internal
