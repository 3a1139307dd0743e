#include "catalog/connection_p.h"

#include "catalog/statement_p.h"

#include <QDebug>
#include <QSqlError>
#include <QUuid>

namespace kestrel::internal {

QSqlDatabase cloneDefaultConnection()
{
    const QString name = QUuid::createUuid().toString();
    QSqlDatabase db = QSqlDatabase::cloneDatabase(QLatin1String(QSqlDatabase::defaultConnection), name);
    if (!db.open())
        qWarning() << "cloneDefaultConnection: cannot open" << name << db.lastError().text();
    return db;
}

void removeClonedConnection(const QString& name)
{
    if (name.isEmpty() || !QSqlDatabase::contains(name))
        return;
    {
        QSqlDatabase db = QSqlDatabase::database(name, false);
        if (db.isOpen())
            db.close();
    }
    QSqlDatabase::removeDatabase(name);
}

bool reopenIfLost(QSqlDatabase db)
{
    if (db.isOpen() && db.driverName() == QLatin1String("QMYSQL")) {
        // Qt keeps a connection "open" after the server dropped it; only a round trip tells.
        const bool alive = Statement(db, QStringLiteral("SELECT 1"), Statement::Direct).run().isOk();
        if (alive)
            return true;
        qWarning() << "reopenIfLost: the database server went away, reconnecting" << db.connectionName();
        db.close();
    }
    return db.isOpen() || db.open();
}

} // namespace kestrel::internal
