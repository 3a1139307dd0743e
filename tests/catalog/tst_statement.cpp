#include "testcatalog.h"

#include "catalog/connection_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"

#include <QSqlDatabase>
#include <QSqlQuery>
#include <QUuid>
#include <QtTest>

#include <memory>

using namespace kestrel::internal;

namespace {

// Warnings logged while one of these lives.
class LogCapture
{
public:
    LogCapture()
    {
        s_lines.clear();
        m_previous = qInstallMessageHandler(&LogCapture::handle);
    }
    ~LogCapture() { qInstallMessageHandler(m_previous); }
    static QString all() { return s_lines.join('\n'); }

private:
    static void handle(QtMsgType type, const QMessageLogContext&, const QString& text)
    {
        if (type == QtWarningMsg)
            s_lines << text;
    }
    static QStringList s_lines;
    QtMessageHandler m_previous = nullptr;
};
QStringList LogCapture::s_lines;

// A second connection to the test catalogue, closed and removed with the object.
class OtherConnection
{
public:
    // SQLite waits BUSYMS for a lock before it answers "database is locked" (Qt's default is 5 s).
    explicit OtherConnection(int busyMs = 5000)
        : m_name(QUuid::createUuid().toString())
    {
        QSqlDatabase db = QSqlDatabase::cloneDatabase(QLatin1String(QSqlDatabase::defaultConnection), m_name);
        if (db.driverName() == QLatin1String("QSQLITE"))
            db.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(busyMs));
        db.open();
    }
    ~OtherConnection() { removeClonedConnection(m_name); }
    QSqlDatabase db() const { return QSqlDatabase::database(m_name, false); }

private:
    QString m_name;
};

QString patientName(qint64 pk)
{
    return TestCatalog::value("SELECT PatientName FROM patient WHERE pk = ?", {pk});
}

} // namespace

class TestStatement : public QObject
{
    Q_OBJECT

private slots:
    void failedStatementReportsDriverTextAndSql_data()
    {
        QTest::addColumn<QString>("backend");
        QTest::addColumn<QString>("sql");
        QTest::addColumn<int>("mode");
        for (const char* backend : {"sqlite", "mariadb"}) {
            QTest::addRow("%s prepared syntax", backend)
                    << backend << "SELECT pk FRM patient WHERE PatientID = ?" << int(Statement::Prepared);
            QTest::addRow("%s prepared unknown column", backend)
                    << backend << "SELECT NoSuchColumn FROM patient WHERE PatientID = ?" << int(Statement::Prepared);
            QTest::addRow("%s direct unknown table", backend)
                    << backend << "SELECT pk FROM nosuchtable" << int(Statement::Direct);
        }
    }
    void failedStatementReportsDriverTextAndSql()
    {
        QFETCH(QString, backend);
        QFETCH(QString, sql);
        QFETCH(int, mode);
        KESTREL_OPEN_CATALOG(catalog, backend);
        LogCapture log;
        Statement statement(QSqlDatabase::database(), sql, Statement::Mode(mode));
        const Status status = statement.bind(QString("42")).run();
        QVERIFY(!status);
        QCOMPARE(status.code(), Status::Failed);
        QVERIFY(!status.text().trimmed().isEmpty());
        // The text is the driver's own, as the public signals show it.
        QCOMPARE(status.text(), statement.lastError().text());
        QVERIFY2(log.all().contains(sql), qPrintable(log.all()));
        QVERIFY2(log.all().contains(status.text()), qPrintable(log.all()));
        QVERIFY(!statement.next());
    }

    void boundValuesReachTheirMarkersOnEveryRun_data() { TestCatalog::addBackendRows(); }
    void boundValuesReachTheirMarkersOnEveryRun()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QStringList names{"O'Brien; --", "back\\slash", "?", ""};
        Statement insert(QSqlDatabase::database(), "INSERT INTO patient (PatientID, PatientName) VALUES (?, ?)");
        for (int i = 0; i < names.size(); ++i)
            QVERIFY(insert.bind(QString::number(100 + i)).bind(names[i]).run());
        Statement read(QSqlDatabase::database(), "SELECT PatientID, PatientName FROM patient WHERE PatientID >= ? ORDER BY pk");
        QVERIFY(read.bind(QString("100")).run());
        QStringList rows;
        while (read.next())
            rows << QString::number(read.get<qint64>(0)) + '=' + read.get<QString>(1);
        QCOMPARE(rows, QStringList({"100=O'Brien; --", "101=back\\slash", "102=?", "103="}));
        // A value left over from a failed run does not shift the next run's markers.
        QVERIFY(!Statement(QSqlDatabase::database(), "SELECT pk FROM nosuchtable WHERE pk = ?").bind(1).run());
        QCOMPARE(selectValue<QString>(QSqlDatabase::database(), "SELECT PatientName FROM patient WHERE PatientID = ?",
                                      {QString("101")}, QString("<none>")),
                 QString("back\\slash"));
    }

    void transactionKeepsOnlyWhatIsCommitted_data()
    {
        QTest::addColumn<QString>("backend");
        QTest::addColumn<QString>("end");
        QTest::addColumn<int>("rows");
        for (const char* backend : {"sqlite", "mariadb"}) {
            QTest::addRow("%s committed", backend) << backend << "commit" << 2;
            QTest::addRow("%s left", backend) << backend << "none" << 0;
            QTest::addRow("%s rolled back", backend) << backend << "rollback" << 0;
        }
    }
    void transactionKeepsOnlyWhatIsCommitted()
    {
        QFETCH(QString, backend);
        QFETCH(QString, end);
        QFETCH(int, rows);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QSqlDatabase db = QSqlDatabase::database();
        {
            Transaction transaction(db);
            QVERIFY(transaction.begun());
            QVERIFY(transaction.isActive());
            QVERIFY(execute(db, "INSERT INTO patient (PatientID) VALUES (?)", {QString("1")}));
            QVERIFY(execute(db, "INSERT INTO patient (PatientID) VALUES (?)", {QString("2")}));
            if (end == "commit")
                QVERIFY(transaction.commit());
            else if (end == "rollback")
                transaction.rollback();
            QVERIFY(!transaction.isActive() || end == "none");
        }
        QCOMPARE(TestCatalog::count("patient"), rows);
        // The connection is free for the next unit.
        Transaction next(db);
        QVERIFY(next.begun());
    }

    void runWriteRetriesWhileTheCatalogueIsHeld_data()
    {
        QTest::addColumn<QString>("backend");
        QTest::addColumn<int>("releaseBefore"); // the attempt before which the other writer lets go; 0: never
        QTest::addColumn<int>("attempts");
        // SQLite writers take the file's lock when they begin: while another holds it, the unit
        // never starts and gives up Busy after its retries.
        QTest::addRow("sqlite held throughout") << "sqlite" << 0 << 0;
        QTest::addRow("mariadb held throughout") << "mariadb" << 0 << 3;
        QTest::addRow("mariadb released after the first attempt") << "mariadb" << 2 << 2;
    }
    void runWriteRetriesWhileTheCatalogueIsHeld()
    {
        QFETCH(QString, backend);
        QFETCH(int, releaseBefore);
        QFETCH(int, attempts);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QVERIFY(execute(QSqlDatabase::database(), "INSERT INTO patient (pk, PatientName) VALUES (?, ?)", {1, QString("first")}));
        OtherConnection writer(20);
        QVERIFY(writer.db().isOpen());
        if (catalog.isMariaDb())
            QVERIFY(QSqlQuery(writer.db()).exec("SET SESSION innodb_lock_wait_timeout = 1"));
        OtherConnection holder;
        // The holder's open write transaction: a reserved lock on the SQLite file, a row lock on MariaDB.
        auto held = std::make_unique<Transaction>(holder.db());
        QVERIFY(held->begun());
        QVERIFY(execute(holder.db(), "UPDATE patient SET PatientName = ? WHERE pk = ?", {QString("holder"), 1}));

        int tries = 0;
        const Status status = runWrite(
                writer.db(),
                [&](Transaction&) {
                    if (++tries == releaseBefore)
                        held.reset(); // rolled back
                    return execute(writer.db(), "UPDATE patient SET PatientName = ? WHERE pk = ?", {QString("writer"), 1});
                },
                2);
        QCOMPARE(tries, attempts);
        held.reset();
        if (releaseBefore) {
            QVERIFY2(status, qPrintable(status.text()));
            QCOMPARE(patientName(1), QString("writer"));
        } else {
            QCOMPARE(status.code(), Status::Busy);
            QCOMPARE(patientName(1), QString("first"));
        }
    }

    void runWriteGivesUpAtOnceOnOtherFailures_data()
    {
        QTest::addColumn<QString>("backend");
        QTest::addColumn<QString>("sql");
        QTest::addColumn<int>("code");
        for (const char* backend : {"sqlite", "mariadb"}) {
            QTest::addRow("%s syntax", backend) << backend << "INSERT INTO patient (NoSuchColumn) VALUES (?)" << int(Status::Failed);
            QTest::addRow("%s taken key", backend) << backend << "INSERT INTO patient (pk) VALUES (?)" << int(Status::Conflict);
        }
    }
    void runWriteGivesUpAtOnceOnOtherFailures()
    {
        QFETCH(QString, backend);
        QFETCH(QString, sql);
        QFETCH(int, code);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QSqlDatabase db = QSqlDatabase::database();
        QVERIFY(execute(db, "INSERT INTO patient (pk, PatientID) VALUES (?, ?)", {7, QString("kept")}));
        int tries = 0;
        const Status status = runWrite(
                db,
                [&](Transaction&) {
                    ++tries;
                    if (const Status first = execute(db, "INSERT INTO patient (PatientID) VALUES (?)", {QString("dropped")}); !first)
                        return first;
                    return execute(db, sql, {7});
                },
                3);
        QCOMPARE(tries, 1);
        QCOMPARE(int(status.code()), code);
        // The whole unit is gone, its first row too.
        QCOMPARE(TestCatalog::values("SELECT PatientID FROM patient ORDER BY pk"), QStringList({"kept"}));
    }
};

QTEST_GUILESS_MAIN(TestStatement)
#include "tst_statement.moc"
