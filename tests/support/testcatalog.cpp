#include "testcatalog.h"

#include "kestrelpaths.h"
#include "veldatabaseconnection.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QSqlError>
#include <QSettings>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QTest>
#include <QUuid>

namespace {

void copyTree(const QString& from, const QString& to)
{
    QDir().mkpath(to);
    QDirIterator it(from, QDir::Files | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString source = it.next();
        const QString target = to + "/" + QDir(from).relativeFilePath(source);
        QDir().mkpath(QFileInfo(target).path());
        QFile::copy(source, target);
    }
}

QString mysqlSocket()
{
    return qEnvironmentVariable("KESTREL_TEST_MYSQL_SOCKET");
}

} // namespace

void TestCatalog::addBackendRows()
{
    QTest::addColumn<QString>("backend");
    QTest::newRow("sqlite") << QString("sqlite");
    QTest::newRow("mariadb") << QString("mariadb");
}

TestCatalog::TestCatalog(const QString& backend)
    : m_backend(backend)
    , m_schema("kt_" + QUuid::createUuid().toString(QUuid::Id128).left(16))
{
    copyTree(Kestrel::applicationDir() + "/../config", configDir());
    Kestrel::setConfigDirectory(configDir());
}

TestCatalog::~TestCatalog()
{
    {
        QSqlDatabase db = QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false);
        if (isMariaDb() && db.isOpen())
            QSqlQuery(db).exec(QString("DROP DATABASE IF EXISTS `%1`").arg(m_schema));
        if (db.isValid())
            db.close();
    }
    QSqlDatabase::removeDatabase(QLatin1String(QSqlDatabase::defaultConnection));
    Kestrel::setConfigDirectory(QString());
    if (!m_previousCurrentDir.isEmpty())
        QDir::setCurrent(m_previousCurrentDir);
}

bool TestCatalog::setVolumeCache(const QString& folder)
{
    if (!QDir().mkpath(path("work")) || !QDir().mkpath(path("config")))
        return false;
    QSettings ini(path("config/cache.ini"), QSettings::IniFormat);
    ini.setValue("registration/cachepath", folder);
    ini.sync();
    if (m_previousCurrentDir.isEmpty())
        m_previousCurrentDir = QDir::currentPath();
    return ini.status() == QSettings::NoError && QDir::setCurrent(path("work"));
}

bool TestCatalog::available() const
{
    return !isMariaDb() || !mysqlSocket().isEmpty();
}

QString TestCatalog::skipReason() const
{
    return QStringLiteral("no MariaDB test server: KESTREL_TEST_MYSQL_SOCKET is not set (scripts/test.sh starts one)");
}

QString TestCatalog::configDir() const
{
    return m_dir.filePath("config");
}

void TestCatalog::writeDatabaseIni(const QString& extra) const
{
    QFile ini(configDir() + "/database.ini");
    ini.open(QIODevice::WriteOnly | QIODevice::Truncate | QIODevice::Text);
    // A profile of the site's own name: nothing may depend on the shipped one.
    QString text = "[currentdatabase]\ndbname=ward2\n\n[ward2]\n";
    if (isMariaDb()) {
        text += "databaseType=QMYSQL\nhostName=localhost\nuserName=root\npassword=\ndefaultName=mysql\n";
        text += "databaseName=" + m_schema + "\n";
    } else {
        // The SQLite file name is taken relative to the program's folder.
        const QString file = QDir(Kestrel::applicationDir()).relativeFilePath(m_dir.filePath("catalogue.sqlite"));
        text += "databaseType=QSQLITE\ndatabaseName=" + file + "\n";
    }
    ini.write((text + extra).toUtf8());
}

bool TestCatalog::open()
{
    if (!available() || !m_dir.isValid())
        return false;
    if (isMariaDb())
        qputenv("MYSQL_UNIX_PORT", mysqlSocket().toLocal8Bit());
    writeDatabaseIni();
    if (!createConnection())
        return false;
    // Asked without opening it: only createConnection opens it with its session settings.
    if (isMariaDb() && !QSqlDatabase::database(QLatin1String(QSqlDatabase::defaultConnection), false).isOpen() &&
        !createConnection())
        return false;
    return QSqlDatabase::database().isOpen() && count("patientuser") >= 0;
}

int TestCatalog::count(const QString& table, const QString& where)
{
    QSqlQuery query(QSqlDatabase::database());
    const QString text = QString("SELECT COUNT(*) FROM %1%2").arg(table, where.isEmpty() ? QString() : " WHERE " + where);
    if (!query.exec(text) || !query.next())
        return -1;
    return query.value(0).toInt();
}

QStringList TestCatalog::values(const QString& sql, const QVariantList& binds)
{
    QSqlQuery query(QSqlDatabase::database());
    query.prepare(sql);
    for (const QVariant& v : binds)
        query.addBindValue(v);
    if (!query.exec())
        return {"<query failed: " + query.lastError().text() + ">"};
    QStringList out;
    while (query.next())
        for (int i = 0; i < query.record().count(); ++i)
            out << query.value(i).toString();
    return out;
}

QString TestCatalog::value(const QString& sql, const QVariantList& binds)
{
    const QStringList all = values(sql, binds);
    return all.isEmpty() ? QStringLiteral("<no row>") : all.first();
}

QString sharedDataPath(const QString& relative)
{
    QString root = qEnvironmentVariable("KESTREL_SHARED_DATA");
    if (root.isEmpty())
        root = Kestrel::applicationDir() + "/../../../shared/data";
    const QString path = relative.isEmpty() ? root : root + "/" + relative;
    return QFileInfo::exists(path) ? QFileInfo(path).absoluteFilePath() : QString();
}
