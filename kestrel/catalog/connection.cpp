#include "catalog/connection_p.h"

#include "catalog/statement_p.h"

#include <QCoreApplication>
#include <QDebug>
#include <QSqlError>
#include <QThread>
#include <QUuid>

#include <atomic>

namespace kestrel::internal {

QString catalogConnectOptions(const QString& driverName)
{
    if (driverName == QLatin1String("QSQLITE"))
        return QStringLiteral("QSQLITE_BUSY_TIMEOUT=60000");
    if (driverName == QLatin1String("QMYSQL"))
        return QStringLiteral("MYSQL_OPT_CONNECT_TIMEOUT=5;MYSQL_OPT_READ_TIMEOUT=60;MYSQL_OPT_WRITE_TIMEOUT=60");
    return QString();
}

Status prepareConnection(QSqlDatabase db)
{
    if (!db.isOpen())
        return Status(Status::Unavailable, db.lastError().text());
    if (db.driverName() == QLatin1String("QSQLITE")) {
        // WAL is a property of the file: set once, kept by every later connection.
        Statement(db, QStringLiteral("PRAGMA journal_mode=WAL"), Statement::Direct).run();
        // An import writes tens of megabytes: the log is copied into the file every 40 MB rather
        // than every 4, which saves a tenth of a large import's writing time.
        Statement(db, QStringLiteral("PRAGMA wal_autocheckpoint=10000"), Statement::Direct).run();
        return Statement(db, QStringLiteral("PRAGMA synchronous=NORMAL"), Statement::Direct).run();
    }
    if (db.driverName() == QLatin1String("QMYSQL")) {
        // Each statement sees what other workstations committed before it: an insert-or-look-up
        // that finds its key taken then reads the row that won.
        Statement(db, QStringLiteral("SET SESSION TRANSACTION ISOLATION LEVEL READ COMMITTED"), Statement::Direct).run();
        return Statement(db, QStringLiteral("SET NAMES utf8mb4"), Statement::Direct).run();
    }
    return Status::ok();
}

QSqlDatabase cloneDefaultConnection()
{
    const QString name = QUuid::createUuid().toString();
    QSqlDatabase db = QSqlDatabase::cloneDatabase(QLatin1String(QSqlDatabase::defaultConnection), name);
    if (!db.open())
        qWarning() << "cloneDefaultConnection: cannot open" << name << db.lastError().text();
    else
        prepareConnection(db);
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

namespace {

std::atomic<QThread*> g_defaultThread{nullptr};
std::atomic<int> g_defaultGeneration{0};

// A thread's own clone of the default connection, removed with the thread.
struct ThreadConnection {
    QString name;
    int generation = -1;
    ~ThreadConnection() { removeClonedConnection(name); }
};

} // namespace

void noteDefaultConnectionMade()
{
    g_defaultThread = QThread::currentThread();
    ++g_defaultGeneration;
}

QSqlDatabase catalogDatabase()
{
    QThread* owner = g_defaultThread.load();
    if (!owner && QCoreApplication::instance())
        owner = QCoreApplication::instance()->thread();
    if (!owner || owner == QThread::currentThread())
        return QSqlDatabase::database();
    static thread_local ThreadConnection own;
    const int generation = g_defaultGeneration.load();
    if (own.name.isEmpty() || own.generation != generation || !QSqlDatabase::contains(own.name)) {
        removeClonedConnection(own.name);
        own.name = cloneDefaultConnection().connectionName();
        own.generation = generation;
    }
    return QSqlDatabase::database(own.name, false);
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
    if (db.isOpen())
        return true;
    if (!db.open())
        return false;
    prepareConnection(db);
    return true;
}

} // namespace kestrel::internal
