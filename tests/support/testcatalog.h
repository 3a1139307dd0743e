#pragma once

#include <QSqlDatabase>
#include <QString>
#include <QStringList>
#include <QVariantList>
#include <QTemporaryDir>

// A private catalogue for one test: its own configuration folder (a copy of the shipped config/
// with its own database.ini), and either its own SQLite file or its own schema on the MariaDB
// server that scripts/test.sh starts (socket in KESTREL_TEST_MYSQL_SOCKET).
class TestCatalog
{
public:
    // Data-driven tests: a QString column "backend" with the rows "sqlite" and "mariadb".
    static void addBackendRows();

    explicit TestCatalog(const QString& backend);
    ~TestCatalog();

    // False for "mariadb" when no test server is configured; skipReason() says why.
    bool available() const;
    QString skipReason() const;

    // Writes database.ini and opens the default connection through createConnection() (twice
    // on MariaDB: the first call creates the schema).
    bool open();

    QString backend() const { return m_backend; }
    bool isMariaDb() const { return m_backend == QLatin1String("mariadb"); }
    QString dir() const { return m_dir.path(); }
    QString configDir() const;
    QString schemaName() const { return m_schema; }
    // A scratch path inside the test's folder.
    QString path(const QString& name) const { return m_dir.filePath(name); }

    // Rows of TABLE on the default connection, -1 when the query fails.
    static int count(const QString& table, const QString& where = QString());
    // Every value of every row of SQL (with bound BINDS) on the default connection, row by row;
    // empty without rows, {"<query failed: ...>"} on failure.
    static QStringList values(const QString& sql, const QVariantList& binds = {});
    // The first value of the first row, "<no row>" when there is none.
    static QString value(const QString& sql, const QVariantList& binds = {});
    // The volume cache reads ../config/cache.ini relative to the working directory: makes
    // path("work") the working directory until the catalogue closes and points the cache at FOLDER.
    bool setVolumeCache(const QString& folder);
    // Writes the database.ini of this catalogue (done by open(); public for tests of the opener).
    void writeDatabaseIni(const QString& extra = QString()) const;

private:
    QString m_backend;
    QTemporaryDir m_dir;
    QString m_schema;
    QString m_previousCurrentDir;
};

// Opens a catalogue for the current data row or skips the test with the reason.
#define KESTREL_OPEN_CATALOG(var, backend)                                    \
    TestCatalog var(backend);                                                 \
    if (!var.available())                                                     \
        QSKIP(qPrintable(var.skipReason()));                                  \
    QVERIFY2(var.open(), "cannot open the test catalogue")

// Path of a folder of the real DICOM data shared with the developers, empty when absent.
QString sharedDataPath(const QString& relative = QString());
