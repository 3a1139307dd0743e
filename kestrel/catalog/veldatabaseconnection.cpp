#include "veldatabaseconnection.h"

#include "catalog/catalogupgrade_p.h"
#include "catalog/connection_p.h"
#include "catalog/statement_p.h"
#include "kestrelpaths.h"
#include "velmessageboxform.h"

#include <QCoreApplication>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QTextStream>
#include <QUuid>

using kestrel::internal::Statement;
using kestrel::internal::Status;

namespace {

QString readWholeText(const QString& path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return QString();
    QTextStream in(&file);
    in.setCodec("UTF-8");
    return in.readAll();
}

QString g_connectionError;

QString scriptPath(const QString& name)
{
    return Kestrel::applicationDir() + QStringLiteral("/../database/") + name;
}

// Runs the SQLite schema piece by piece. A failing piece does not stop the others: the script
// creates tables "IF NOT EXISTS", so a partly initialised catalogue is completed.
Status runSqliteSchema(QSqlDatabase db)
{
    QFile script(scriptPath(QStringLiteral("vel-sqlite.sql")));
    if (!script.open(QIODevice::ReadOnly | QIODevice::Text))
        return Status::failed(QStringLiteral("cannot read the schema script %1").arg(script.fileName()));
    QTextStream in(&script);
    in.setCodec("UTF-8");
    const QStringList pieces = in.readAll().split(QStringLiteral(";#"), Qt::SkipEmptyParts);
    Status last;
    for (const QString& piece : pieces) {
        if (piece.trimmed().isEmpty())
            continue;
        const Status status = Statement(db, piece, Statement::Direct).run(); // a failed piece is logged
        if (!status)
            last = status;
    }
    return last;
}

// Runs the MySQL schema script as one multi-statement text on DB (whose schema is selected).
Status runMySqlSchema(QSqlDatabase db, const QString& prefix = QString())
{
    const QString script = readWholeText(scriptPath(QStringLiteral("vel.sql")));
    if (script.isEmpty())
        return Status::failed(QStringLiteral("cannot read the schema script %1").arg(scriptPath(QStringLiteral("vel.sql"))));
    Statement statements(db, prefix + script, Statement::Direct);
    const Status status = statements.run();
    // The server runs the statements one after the other while their results are read: drain
    // them all before closing, or the tables after the first few are never made.
    statements.drainResults();
    statements.finish();
    return status;
}

// Logs into the server's existing database ("defaultName") and creates the application's schema
// from vel.sql in one multi-statement text.
bool createMySqlDatabase(const QString& profile)
{
    QSettings settings(Kestrel::configFilePath("database.ini"), QSettings::IniFormat);
    const QString connectionName = QUuid::createUuid().toString();
    bool created = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(settings.value(QString("%1/databaseType").arg(profile)).toString(),
                                                    connectionName);
        db.setHostName(settings.value(QString("%1/hostName").arg(profile)).toString());
        db.setDatabaseName(settings.value(QString("%1/defaultName").arg(profile)).toString());
        db.setUserName(settings.value(QString("%1/userName").arg(profile)).toString());
        db.setPassword(settings.value(QString("%1/password").arg(profile)).toString());
        db.setConnectOptions(kestrel::internal::catalogConnectOptions(db.driverName()));
        if (db.open()) {
            kestrel::internal::prepareConnection(db);
            const QString schema = settings.value(QString("%1/databaseName").arg(profile)).toString();
            const Status status = runMySqlSchema(
                db, QString("CREATE DATABASE IF NOT EXISTS `%1` DEFAULT CHARACTER SET utf8mb4 COLLATE "
                            "utf8mb4_general_ci;USE `%1`;")
                        .arg(schema));
            if (status)
                created = true;
            else
                g_connectionError = QStringLiteral("cannot create the catalogue %1 on %2: %3")
                                        .arg(schema, db.hostName(), status.text());
            db.close();
        } else {
            const QString error = QString::fromLocal8Bit(db.lastError().text().toLocal8Bit());
            g_connectionError = QStringLiteral("cannot connect to %1 as %2: %3").arg(db.hostName(), db.userName(), error);
            velMessageBoxForm::critical(nullptr, "Cannot open database", error, 1, 1);
        }
    }
    QSqlDatabase::removeDatabase(connectionName);
    return created;
}

} // namespace

bool createConnection()
{
    g_connectionError.clear();
    QSettings settings(Kestrel::configFilePath("database.ini"), QSettings::IniFormat);
    const QString profile = settings.value("currentdatabase/dbname", "orvena").toString();
    const QString type = settings.value(profile + "/databaseType", "QMYSQL").toString();
    const bool sqlite = type == QLatin1String("QSQLITE");

    QSqlDatabase db = QSqlDatabase::addDatabase(type, QLatin1String(QSqlDatabase::defaultConnection));
    kestrel::internal::noteDefaultConnectionMade();
    db.setHostName(settings.value(profile + "/hostName", "localhost").toString());
    const QString name = settings.value(profile + "/databaseName", "orvena").toString();
    // An SQLite file named relative to the program's folder, or by its absolute path.
    db.setDatabaseName(sqlite && QDir::isRelativePath(name) ? Kestrel::applicationDir() + "/" + name : name);
    db.setUserName(settings.value(profile + "/userName", "root").toString());
    db.setPassword(settings.value(profile + "/password", "").toString());
    db.setConnectOptions(kestrel::internal::catalogConnectOptions(type));

    if (!db.open()) {
        if (sqlite) {
            g_connectionError = QStringLiteral("cannot open the SQLite catalogue %1: %2")
                                    .arg(QDir::cleanPath(db.databaseName()), db.lastError().text());
            return false;
        }
        // The schema does not exist yet: made from vel.sql, and the caller connects again.
        return createMySqlDatabase(profile);
    }
    kestrel::internal::prepareConnection(db);

    if (!Statement(db, QStringLiteral("select pk from patientuser"), Statement::Direct).run()) {
        // The tables are missing (a new SQLite file, or a schema a database administrator created
        // empty): made by the script of this driver.
        const Status made = sqlite ? runSqliteSchema(db) : runMySqlSchema(db);
        if (!Statement(db, QStringLiteral("select pk from patientuser"), Statement::Direct).run()) {
            g_connectionError = QStringLiteral("cannot create the catalogue's tables in %1: %2")
                                    .arg(QDir::cleanPath(db.databaseName()), made.text());
            return false;
        }
    }
    const Status upgraded = kestrel::internal::upgradeCatalog(db);
    if (!upgraded) {
        g_connectionError = upgraded.text();
        return false;
    }
    return true;
}

QString getConnectionError()
{
    return g_connectionError;
}

QList<qint64> getPatientKeys()
{
    QList<qint64> keys;
    Statement query(kestrel::internal::catalogDatabase(), QStringLiteral("SELECT pk FROM patient ORDER BY pk"));
    if (query.run())
        while (query.next())
            keys << query.get<qint64>(0);
    return keys;
}

qint64 getSeriesKey(const QString& seriesUID)
{
    return kestrel::internal::selectValue<qint64>(kestrel::internal::catalogDatabase(),
                                                  QStringLiteral("SELECT pk FROM generalseries WHERE SeriesInstanceUID = ?"),
                                                  {seriesUID}, -1);
}

int getStoredSearchCount(const QString& name)
{
    return kestrel::internal::selectValue<int>(kestrel::internal::catalogDatabase(),
                                               QStringLiteral("SELECT COUNT(*) FROM andvancequiry WHERE InquiryName = ?"), {name}, -1);
}

int getImportedImageCount(const QString& seriesUID)
{
    return kestrel::internal::selectValue<int>(kestrel::internal::catalogDatabase(),
                                               QStringLiteral("SELECT COUNT(*) FROM images WHERE seriesUID = ? AND DBflag = 1"),
                                               {seriesUID}, 0);
}

VelDatabaseConnection::VelDatabaseConnection(QObject* parent)
    : QObject(parent)
    , m_settingsPath(Kestrel::configFilePath("database.ini"))
{
}

bool VelDatabaseConnection::createConnection()
{
    const QColor black(0, 0, 0, 255);
    emit message("openning database..", 1, black);
    QSettings settings(m_settingsPath, QSettings::IniFormat);
    QSqlDatabase db = QSqlDatabase::addDatabase(settings.value("database/databaseType", "QMYSQL").toString(),
                                                QLatin1String(QSqlDatabase::defaultConnection));
    db.setHostName(settings.value("database/hostName", "localhost").toString());
    db.setDatabaseName(settings.value("database/databaseName", "orvena").toString());
    // User and password live outside the "database" group; existing installations depend on it.
    db.setUserName(settings.value("userName", "root").toString());
    db.setPassword(settings.value("password", "").toString());
    if (db.open()) {
        emit message("success open database", 1, black);
        return true;
    }
    emit message(QString("Cannot open database%1").arg(db.lastError().text()), 1, black);
    return false;
}
