#include "testcatalog.h"

#include "catalog/catalogschema_p.h"
#include "catalog/catalogupgrade_p.h"
#include "kestrelpaths.h"
#include "programs.h"
#include "veldatabaseconnection.h"

#include <QSqlError>

#include <QFile>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

using namespace kestrel::internal;

class TestDatabase : public QObject
{
    Q_OBJECT

private:
    // Columns of TABLE as the catalogue created them, in order.
    static QStringList createdColumns(const TestCatalog& catalog, const QString& table)
    {
        QStringList names;
        QSqlQuery query(QSqlDatabase::database());
        if (catalog.isMariaDb()) {
            query.prepare("SELECT column_name FROM information_schema.columns WHERE table_schema = ? AND "
                          "table_name = ? ORDER BY ordinal_position");
            query.addBindValue(catalog.schemaName());
            query.addBindValue(table);
            query.exec();
        } else {
            query.exec(QString("PRAGMA table_info([%1])").arg(table));
        }
        while (query.next())
            names << query.value(catalog.isMariaDb() ? 0 : 1).toString();
        return names;
    }

private slots:
    void schemaMatchesColumnLists_data() { TestCatalog::addBackendRows(); }
    void schemaMatchesColumnLists()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        for (const QString& table : schema::tables()) {
            QStringList expected = schema::columns(table);
            const bool keyed = table != "series" && table != "images";
            if (keyed)
                expected.prepend("pk");
            QCOMPARE(createdColumns(catalog, table), expected);
        }
        for (const char* table : {"patientuser", "andvancequiry", "querypatientuser", "querygeneralstudyuser",
                                     "querygeneralseriesuser", "queryimageformatuser"})
            QVERIFY2(TestCatalog::count(table) >= 0, table);
        // The display tables mirror their level's columns, key first (a patient's identity key and
        // issuer are no display choices).
        QCOMPARE(createdColumns(catalog, "querypatientuser").mid(1, 28), schema::columns("patient").mid(0, 28));
    }

    void keysAreAssignedAndValuesBound_data() { TestCatalog::addBackendRows(); }
    void keysAreAssignedAndValuesBound()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QStringList columns = schema::columns("imagepixel");
        QSqlQuery insert(QSqlDatabase::database());
        QVERIFY(insert.prepare(schema::insertStatement("imagepixel")));
        const int firstNumeric = columns.indexOf("series_fk");
        for (const QString& sop : {QString("1.2.3"), QString("1.2.4")}) {
            for (int i = 0; i < columns.size(); ++i) {
                if (columns[i] == "ImageOrientationPatient")
                    insert.addBindValue(QString("1\\0\\0\\0\\1\\0"));
                else if (columns[i] == "SOPInstanceUID")
                    insert.addBindValue(sop);
                else if (i >= firstNumeric)
                    insert.addBindValue(0.5 * i);
                else
                    insert.addBindValue(QString("O'Brien; --"));
            }
            QVERIFY(insert.exec());
        }
        QSqlQuery read(QSqlDatabase::database());
        QVERIFY(read.exec("SELECT pk, ImageOrientationPatient FROM imagepixel ORDER BY pk"));
        QVERIFY(read.next());
        const qint64 first = read.value(0).toLongLong();
        QCOMPARE(read.value(1).toString(), QString("1\\0\\0\\0\\1\\0"));
        QVERIFY(read.next());
        QCOMPARE(read.value(0).toLongLong(), first + 1);
    }

    void reopeningKeepsTheCatalogue_data() { TestCatalog::addBackendRows(); }
    void reopeningKeepsTheCatalogue()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QVERIFY(QSqlQuery(QSqlDatabase::database()).exec("INSERT INTO patient (PatientID) VALUES ('42')"));
        QVERIFY(createConnection());
        QCOMPARE(TestCatalog::count("patient"), 1);
        QCOMPARE(TestCatalog::count("querypatientuser"), 1);
    }

    void readsForPrograms_data() { TestCatalog::addBackendRows(); }
    void readsForPrograms()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QCOMPARE(getPatientKeys(), QList<qint64>());
        QSqlQuery write(QSqlDatabase::database());
        for (const char* sql : {"INSERT INTO patient (pk, PatientID) VALUES (12, 'b')", "INSERT INTO patient (pk, PatientID) VALUES (3, 'a')",
                                "INSERT INTO generalseries (pk, SeriesInstanceUID) VALUES (9, '1.2.3')",
                                "INSERT INTO generalseries (pk, SeriesInstanceUID) VALUES (4, '1.2.30')",
                                "INSERT INTO andvancequiry (InquiryName) VALUES ('mine')", "INSERT INTO andvancequiry (InquiryName) VALUES ('mine')",
                                "INSERT INTO andvancequiry (InquiryName) VALUES ('Mine2')",
                                "INSERT INTO images (seriesUID, InstanceUID, DBflag) VALUES ('s', '1', 1)",
                                "INSERT INTO images (seriesUID, InstanceUID, DBflag) VALUES ('s', '2', 0)",
                                "INSERT INTO images (seriesUID, InstanceUID, DBflag) VALUES ('s', '3', 1)",
                                "INSERT INTO images (seriesUID, InstanceUID, DBflag) VALUES ('t', '4', 1)"})
            QVERIFY2(write.exec(sql), sql);
        QCOMPARE(getPatientKeys(), QList<qint64>({3, 12}));
        QCOMPARE(getSeriesKey("1.2.3"), qint64(9));
        QCOMPARE(getSeriesKey("1.2"), qint64(-1));
        QCOMPARE(getStoredSearchCount("mine"), 2);
        QCOMPARE(getStoredSearchCount("other"), 0);
        QCOMPARE(getImportedImageCount("s"), 2);
        QCOMPARE(getImportedImageCount("u"), 0);
        // A catalogue without the tables: the failure answers, not a count.
        for (const char* table : {"andvancequiry", "patient"})
            QVERIFY(write.exec(QString("DROP TABLE %1").arg(table)));
        QCOMPARE(getStoredSearchCount("mine"), -1);
        QCOMPARE(getPatientKeys(), QList<qint64>());
    }

    // A catalogue written before identities were enforced: duplicates merged into the lowest key,
    // what pointed to the others repointed, the keys enforced from then on, each merge said.
    void olderCatalogueGainsItsKeys_data() { TestCatalog::addBackendRows(); }
    void olderCatalogueGainsItsKeys()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QSqlDatabase db = QSqlDatabase::database();
        QSqlQuery sql(db);
        for (const UniqueKey& key : uniqueKeys()) {
            const QString index = QString("uq_%1_%2").arg(key.table, key.column);
            QVERIFY2(sql.exec(catalog.isMariaDb() ? QString("DROP INDEX %1 ON %2").arg(index, key.table) : "DROP INDEX " + index),
                     qPrintable(sql.lastError().text()));
        }
        QVERIFY(sql.exec("ALTER TABLE patient DROP COLUMN PatientKey"));
        for (const char* rows :
             {"INSERT INTO patient (pk, PatientID, PatientName) VALUES (1, 'P1', 'Doe^Jane'), (2, 'P1', 'DOE^JANE^'), (3, 'P1', 'Other^One')",
              "INSERT INTO generalstudy (pk, StudyInstanceUID, patient_fk) VALUES (1, '1.2', 1), (2, '1.2', 2), (3, '1.3', 3)",
              "INSERT INTO generalseries (pk, SeriesInstanceUID, SeriesBase, study_fk) VALUES (1, '1.2.1', '1.2.1#0', 2), "
              "(2, '1.2.1', '1.2.1#0', 1)",
              "INSERT INTO imageformat (SOPInstanceUID, series_fk) VALUES ('1.2.1.1', 2), ('1.2.1.1', 2), ('1.2.1.2', 1)"})
            QVERIFY2(sql.exec(rows), qPrintable(sql.lastError().text()));

        QStringList merged;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^catalogue upgrade: .*"));
        QVERIFY(upgradeCatalog(db, &merged));
        QVERIFY2(merged.contains("added the column patient.PatientKey"), qPrintable(merged.join('\n')));
        QVERIFY2(merged.contains("merged 2 rows of patient with PatientKey = " +
                                 TestCatalog::value("SELECT PatientKey FROM patient WHERE pk = 1") + " into pk 1"),
                 qPrintable(merged.join('\n')));
        QCOMPARE(TestCatalog::values("SELECT pk, PatientName FROM patient ORDER BY pk"), (QStringList{"1", "Doe^Jane", "3", "Other^One"}));
        QCOMPARE(TestCatalog::values("SELECT pk, patient_fk FROM generalstudy ORDER BY pk"), (QStringList{"1", "1", "3", "3"}));
        QCOMPARE(TestCatalog::values("SELECT pk, study_fk FROM generalseries"), (QStringList{"1", "1"}));
        QCOMPARE(TestCatalog::values("SELECT SOPInstanceUID, series_fk FROM imageformat ORDER BY SOPInstanceUID"),
                 (QStringList{"1.2.1.1", "1", "1.2.1.2", "1"}));
        // From now on the catalogue refuses a second row of one identity; opening it again is cheap.
        QVERIFY(!sql.exec("INSERT INTO generalstudy (StudyInstanceUID) VALUES ('1.3')"));
        QVERIFY(!sql.exec("INSERT INTO imageformat (SOPInstanceUID) VALUES ('1.2.1.2')"));
        merged.clear();
        QVERIFY(upgradeCatalog(db, &merged));
        QCOMPARE(merged, QStringList());
    }

    // A catalogue made before the read indexes: opening it adds each one the reads use (its planner
    // then finds a series' images and a stored search's series without scanning), once.
    void olderCatalogueGainsItsReadIndexes_data() { TestCatalog::addBackendRows(); }
    void olderCatalogueGainsItsReadIndexes()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QSqlDatabase db = QSqlDatabase::database();
        QSqlQuery sql(db);
        QStringList expected;
        for (const ReadIndex& index : readIndexes()) {
            const QString name = QString("idx_%1_%2").arg(index.table, index.column);
            QVERIFY2(sql.exec(catalog.isMariaDb() ? QString("DROP INDEX %1 ON %2").arg(name, index.table) : "DROP INDEX " + name),
                     qPrintable(name + ": " + sql.lastError().text()));
            expected << "added the index " + name;
        }
        QStringList report;
        QTest::ignoreMessage(QtWarningMsg, QRegularExpression("^catalogue upgrade: added the index .*"));
        QVERIFY(upgradeCatalog(db, &report));
        QCOMPARE(report, expected);
        for (const ReadIndex& index : readIndexes()) {
            const QString name = QString("idx_%1_%2").arg(index.table, index.column);
            const QString count = catalog.isMariaDb()
                ? QString("SELECT COUNT(*) FROM information_schema.STATISTICS WHERE TABLE_SCHEMA = DATABASE() AND INDEX_NAME = '%1'")
                      .arg(name)
                : QString("SELECT COUNT(*) FROM sqlite_master WHERE type = 'index' AND name = '%1'").arg(name);
            QCOMPARE(TestCatalog::value(count), QString("1"));
        }
        const QString plan = catalog.isMariaDb() ? "EXPLAIN SELECT pk FROM generalseries WHERE SeriesDescription = 'x'"
                                                 : "EXPLAIN QUERY PLAN SELECT pk FROM generalseries WHERE SeriesDescription = 'x'";
        QVERIFY2(TestCatalog::values(plan).join(' ').contains("idx_generalseries_SeriesDescription"),
                 qPrintable(TestCatalog::values(plan).join(' ')));
        report.clear();
        QVERIFY(upgradeCatalog(db, &report));
        QCOMPARE(report, QStringList());
    }

    // Whatever the profile is called and wherever the file lies; a schema a database administrator
    // made empty gets the server's tables; a failure names its cause.
    void openingNamesItsCause()
    {
        TestCatalog catalog("sqlite");
        // Written into the configuration of the catalogue made last: the one createConnection reads.
        const TestCatalog* current = &catalog;
        auto writeIni = [&](const QString& profile) {
            QFile ini(current->configDir() + "/database.ini");
            QVERIFY(ini.open(QIODevice::WriteOnly | QIODevice::Truncate));
            ini.write(QString("[currentdatabase]\ndbname=ward 2\n[ward 2]\n%1").arg(profile).toUtf8());
        };
        const QString absolute = catalog.path("elsewhere/site.sqlite");
        QDir().mkpath(catalog.path("elsewhere"));
        writeIni("databaseType=QSQLITE\ndatabaseName=" + absolute + "\n");
        QVERIFY(createConnection());
        QVERIFY(QFileInfo(absolute).size() > 0);
        QCOMPARE(TestCatalog::count("patient"), 0);

        writeIni("databaseType=QSQLITE\ndatabaseName=/nonexistent/dir/../dir/x.sqlite\n");
        QVERIFY(!createConnection());
        QVERIFY2(getConnectionError().startsWith("cannot open the SQLite catalogue /nonexistent/dir/x.sqlite: "),
                 qPrintable(getConnectionError()));

        TestCatalog server("mariadb");
        if (!server.available())
            QSKIP(qPrintable(server.skipReason()));
        QVERIFY(server.open());
        current = &server;
        const QString empty = server.schemaName() + "_empty";
        QSqlQuery root(QSqlDatabase::database());
        QVERIFY(root.exec(QString("CREATE DATABASE `%1`").arg(empty)));
        QVERIFY(root.exec("CREATE USER IF NOT EXISTS 'kestrel_reader'@'localhost' IDENTIFIED BY 'secret'"));
        QVERIFY(root.exec("GRANT SELECT ON *.* TO 'kestrel_reader'@'localhost'"));
        const QString mysql = "databaseType=QMYSQL\nhostName=localhost\ndefaultName=mysql\n";
        writeIni(mysql + "userName=root\npassword=\ndatabaseName=" + empty + "\n");
        QVERIFY(createConnection());
        for (const QString& table : schema::tables())
            QVERIFY2(TestCatalog::count(table) >= 0, qPrintable(table));
        QVERIFY(QSqlQuery(QSqlDatabase::database()).exec(QString("DROP DATABASE `%1`").arg(empty)));

        writeIni(mysql + "userName=kestrel_reader\npassword=secret\ndatabaseName=" + empty + "_new\n");
        QVERIFY(!createConnection());
        QVERIFY2(getConnectionError().contains("cannot create the catalogue " + empty + "_new") &&
                     getConnectionError().contains("denied"),
                 qPrintable(getConnectionError()));
        // The host says the same.
        const HostRun host = runHost({"--config", server.configDir(), "tree"});
        QVERIFY2(host.exitCode == 1 && host.err.contains("denied for user 'kestrel_reader'"), qPrintable(host.err));
    }

    void unreachableServerFails()
    {
        TestCatalog catalog("sqlite");
        QFile ini(catalog.configDir() + "/database.ini");
        QVERIFY(ini.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ini.write("[currentdatabase]\ndbname=remote\n[remote]\ndatabaseType=QMYSQL\nhostName=127.0.0.1\n"
                  "databaseName=orvena\ndefaultName=mysql\nuserName=nobody\n");
        ini.close();
        qputenv("MYSQL_TCP_PORT", "1"); // nothing listens there
        QTest::ignoreMessage(QtCriticalMsg, QRegularExpression("^Cannot open database: .+"));
        QVERIFY(!createConnection());
        qunsetenv("MYSQL_TCP_PORT");
    }

    void sqliteScriptSplitsOnSeparatorOnly()
    {
        // Every piece of the shipped script is one statement: a plain ";" never ends a piece.
        QFile script(Kestrel::applicationDir() + "/../database/vel-sqlite.sql");
        QVERIFY(script.open(QIODevice::ReadOnly));
        const QStringList pieces = QString::fromUtf8(script.readAll()).split(";#", Qt::SkipEmptyParts);
        QVERIFY(pieces.size() > schema::tables().size());
        for (const QString& piece : pieces)
            QVERIFY2(!piece.contains(';'), qPrintable(piece.left(80)));
    }

    void velDatabaseConnectionReportsProgress()
    {
        TestCatalog catalog("sqlite");
        QFile ini(catalog.configDir() + "/database.ini");
        QVERIFY(ini.open(QIODevice::WriteOnly | QIODevice::Truncate));
        // The user name is read outside the group: the one inside is ignored.
        ini.write(QString("[database]\ndatabaseType=QSQLITE\ndatabaseName=%1\nuserName=ignored\n")
                      .arg(catalog.path("vel.sqlite"))
                      .toUtf8());
        ini.close();
        VelDatabaseConnection connection;
        QSignalSpy spy(&connection, &VelDatabaseConnection::message);
        QVERIFY(connection.createConnection());
        QCOMPARE(spy.count(), 2);
        QCOMPARE(spy.at(0).at(0).toString(), QString("openning database.."));
        QCOMPARE(spy.at(1).at(0).toString(), QString("success open database"));
        QCOMPARE(spy.at(1).at(1).toInt(), 1);
        QCOMPARE(spy.at(1).at(2).value<QColor>(), QColor(0, 0, 0, 255));
        QCOMPARE(QSqlDatabase::database().userName(), QString("root"));

        ini.open(QIODevice::WriteOnly | QIODevice::Truncate);
        ini.write("[database]\ndatabaseType=QSQLITE\ndatabaseName=/nonexistent/dir/x.sqlite\n");
        ini.close();
        spy.clear();
        QVERIFY(!connection.createConnection());
        QVERIFY(spy.at(1).at(0).toString().startsWith("Cannot open database"));
    }
};

QTEST_MAIN(TestDatabase)
#include "tst_database.moc"
