#include "veldatabaseconnection.h"

#include "catalog/statement_p.h"
#include "kestrelpaths.h"
#include "velmessageboxform.h"

#include <QCoreApplication>
#include <QFile>
#include <QSettings>
#include <QSqlDatabase>
#include <QSqlError>
#include <QTextStream>
#include <QUuid>

using kestrel::internal::Statement;

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

// Runs the SQLite schema piece by piece. A failing piece does not stop the others: the script
// creates tables "IF NOT EXISTS", so a partly initialised catalogue is completed.
void runSqliteSchema(QSqlDatabase db)
{
    QFile script(Kestrel::applicationDir() + "/../database/vel-sqlite.sql");
    if (!script.open(QIODevice::ReadOnly | QIODevice::Text))
        return;
    QTextStream in(&script);
    in.setCodec("UTF-8");
    const QStringList pieces = in.readAll().split(QStringLiteral(";#"), Qt::SkipEmptyParts);
    for (const QString& piece : pieces) {
        if (!piece.trimmed().isEmpty())
            Statement(db, piece, Statement::Direct).run(); // a failed piece is logged
    }
}

// Logs into the server's existing database ("defaultName") and creates the application's schema
// from vel.sql in one multi-statement text.
bool createMySqlDatabase()
{
    QSettings settings(Kestrel::configFilePath("database.ini"), QSettings::IniFormat);
    const QString profile = settings.value("currentdatabase/dbname").toString();
    const QString script = readWholeText(Kestrel::applicationDir() + "/../database/vel.sql");
    const QString connectionName = QUuid::createUuid().toString();
    bool created = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(settings.value(QString("%1/databaseType").arg(profile)).toString(),
                                                    connectionName);
        db.setHostName(settings.value(QString("%1/hostName").arg(profile)).toString());
        db.setDatabaseName(settings.value(QString("%1/defaultName").arg(profile)).toString());
        db.setUserName(settings.value(QString("%1/userName").arg(profile)).toString());
        db.setPassword(settings.value(QString("%1/password").arg(profile)).toString());
        if (db.open()) {
            const QString schema = settings.value(QString("%1/databaseName").arg(profile)).toString();
            QString text = QString("CREATE DATABASE IF NOT EXISTS `%1` DEFAULT CHARACTER SET utf8 COLLATE "
                                   "utf8_general_ci;USE `%1`;")
                               .arg(schema);
            text += script;
            {
                Statement script(db, text, Statement::Direct);
                script.run();
                // The server runs the statements one after the other while their results are
                // read: drain them all before closing, or the tables after the first few are
                // never made.
                script.drainResults();
                script.finish();
            }
            db.close();
            created = true;
        } else {
            const QString error = QString::fromLocal8Bit(db.lastError().text().toLocal8Bit());
            velMessageBoxForm::critical(nullptr, "Cannot open database", error, 1, 1);
        }
    }
    QSqlDatabase::removeDatabase(connectionName);
    return created;
}

} // namespace

bool createConnection()
{
    QSettings settings(Kestrel::configFilePath("database.ini"), QSettings::IniFormat);
    const QString profile = settings.value("currentdatabase/dbname", "orvena").toString();
    const QString type = settings.value(profile + "/databaseType", "QMYSQL").toString();

    QSqlDatabase db = QSqlDatabase::addDatabase(type, QLatin1String(QSqlDatabase::defaultConnection));
    db.setHostName(settings.value(profile + "/hostName", "localhost").toString());
    const QString name = settings.value(profile + "/databaseName", "orvena").toString();
    db.setDatabaseName(type == QLatin1String("QSQLITE") ? Kestrel::applicationDir() + "/" + name : name);
    db.setUserName(settings.value(profile + "/userName", "root").toString());
    db.setPassword(settings.value(profile + "/password", "").toString());

    if (!db.open()) {
        const QString error = db.lastError().text();
        Q_UNUSED(error)
        return createMySqlDatabase();
    }

    if (Statement(db, QStringLiteral("select pk from patientuser"), Statement::Direct).run())
        return true;
    // The tables are missing: the SQLite script is run whatever the driver, as the application
    // has always done for a fresh catalogue.
    runSqliteSchema(db);
    return true;
}

QList<qint64> getPatientKeys()
{
    QList<qint64> keys;
    Statement query(QSqlDatabase::database(), QStringLiteral("SELECT pk FROM patient ORDER BY pk"));
    if (query.run())
        while (query.next())
            keys << query.get<qint64>(0);
    return keys;
}

qint64 getSeriesKey(const QString& seriesUID)
{
    return kestrel::internal::selectValue<qint64>(QSqlDatabase::database(),
                                                  QStringLiteral("SELECT pk FROM generalseries WHERE SeriesInstanceUID = ?"),
                                                  {seriesUID}, -1);
}

int getStoredSearchCount(const QString& name)
{
    return kestrel::internal::selectValue<int>(QSqlDatabase::database(),
                                               QStringLiteral("SELECT COUNT(*) FROM andvancequiry WHERE InquiryName = ?"), {name}, -1);
}

int getImportedImageCount(const QString& seriesUID)
{
    return kestrel::internal::selectValue<int>(QSqlDatabase::database(),
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
