#include "internal/sqlconnection.h"

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

} // namespace kestrel::internal
