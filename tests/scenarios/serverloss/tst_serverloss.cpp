#include "dicompeers.h"
#include "qdcmfiles.h"
#include "qdcmrecvfile.h"
#include "qdcmstoragescp.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include "catalog/connection_p.h"

#include <QDir>
#include <QElapsedTimer>
#include <QProcess>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

// The MariaDB server goes away in the middle of an import or while received series are being
// recorded: the importer says so and returns, the rows committed before stay, every received file
// stays on disk, and once the server is back importing the same folders again catalogues every
// image exactly once. Runs its own server (scripts/mariadb-test-server.sh).
namespace {

constexpr int kSeries = 8;
constexpr int kSlices = 15;

QString script()
{
    return qEnvironmentVariable("KESTREL_SOURCE_DIR") + "/scripts/mariadb-test-server.sh";
}

// Runs the server script; the socket path (start) or empty on failure. Bounded to 90 s.
QString serverScript(const QString& verb, const QString& dir)
{
    QProcess process;
    process.start("bash", {script(), verb, dir});
    if (!process.waitForFinished(90000)) {
        process.kill();
        process.waitForFinished(5000);
        return QString();
    }
    if (process.exitStatus() != QProcess::NormalExit || process.exitCode() != 0)
        return QString();
    const QString out = QString::fromLocal8Bit(process.readAllStandardOutput()).trimmed();
    return out.isEmpty() ? QStringLiteral("ok") : out;
}

// Each image of the catalogue once: as many rows as distinct UIDs, in every image table.
void verifyEachImageOnce(int images)
{
    for (const char* table : {"imageformat", "imagepixel", "mrimageinfo"}) {
        QCOMPARE(TestCatalog::count(table), images);
        QCOMPARE(TestCatalog::values(QString("SELECT COUNT(DISTINCT SOPInstanceUID) FROM %1").arg(table)).value(0).toInt(), images);
    }
    // Every image row hangs under a series of the catalogue.
    QCOMPARE(TestCatalog::values("SELECT COUNT(*) FROM imageformat i JOIN generalseries s ON i.series_fk = s.pk").value(0).toInt(),
             images);
}

} // namespace

class TestServerLoss : public QObject
{
    Q_OBJECT

    QTemporaryDir m_serverDir{"/tmp/kt-serverloss-XXXXXX"}; // short: the socket path has a length limit
    bool m_started = false;

private slots:
    void initTestCase()
    {
        if (!QFile::exists(script()))
            QSKIP("KESTREL_SOURCE_DIR does not point at the sources (run through CTest)");
        if (QStandardPaths::findExecutable("mariadbd").isEmpty())
            QSKIP("mariadbd is not installed");
        const QString socket = serverScript("start", m_serverDir.path());
        QVERIFY2(!socket.isEmpty(), "the private MariaDB server did not start");
        m_started = true;
        qputenv("KESTREL_TEST_MYSQL_SOCKET", socket.toLocal8Bit());
        qputenv("MYSQL_UNIX_PORT", socket.toLocal8Bit());
    }

    void cleanupTestCase()
    {
        if (m_started)
            serverScript("stop", m_serverDir.path());
    }

    void stoppedDuringImport()
    {
        KESTREL_OPEN_CATALOG(catalog, "mariadb");
        const QString folder = catalog.path("in");
        SyntheticImage base;
        base.patientId = "LOSS1";
        base.studyUid = newTestUid();
        for (int s = 0; s < kSeries; ++s) {
            base.seriesUid = newTestUid();
            base.seriesNumber = s + 1;
            if (s == kSeries / 2) { // a second patient half way
                base.patientId = "LOSS2";
                base.studyUid = newTestUid();
            }
            QCOMPARE(writeSyntheticSeries(folder + QString("/s%1").arg(s), base, kSlices).size(), kSlices);
        }
        const int total = kSeries * kSlices;

        // Stop the server half way through the import pass (percentages above 10 belong to it and
        // are emitted from the importing thread). A pause after the first series lets the
        // importer's half-second transaction commit, so that some rows were committed before.
        QDcmFiles importer;
        QSignalSpy errors(&importer, &QDcmFiles::errorInfo);
        bool paused = false;
        bool stopped = false;
        connect(&importer, QOverload<int, int>::of(&QDcmFiles::readInfo), this, [&](int value, int) {
            if (!paused && value > 10 && value < 50) {
                paused = true;
                QThread::msleep(700);
            }
            if (!stopped && value >= 50) {
                stopped = true;
                serverScript("stop", m_serverDir.path());
            }
        }, Qt::DirectConnection);
        QElapsedTimer timer;
        timer.start();
        importer.loadLocalFolderToDB(folder, 0, true);
        QVERIFY2(stopped, "the import ended before the server could be stopped");
        QVERIFY2(timer.elapsed() < 300000, "the import took over five minutes without its server");
        QVERIFY2(!errors.isEmpty(), "no errorInfo about the lost server");
        qInfo("%d errorInfo signals, the first: %s", int(errors.size()), qPrintable(errors.first().first().toString()));
        QVERIFY(!importer.lastImportSucceeded() || importer.lastRunCounts().failedBatches > 0);
        QVERIFY(importer.lastRunCounts().imagesAdded < total);

        // Back again: whatever was committed is still there.
        QVERIFY2(!serverScript("start", m_serverDir.path()).isEmpty(), "the server did not start again");
        QVERIFY(kestrel::internal::reopenIfLost(QSqlDatabase::database()));
        const QStringList committed = TestCatalog::values("SELECT SOPInstanceUID FROM imageformat");
        qInfo("committed before the server went away: %d of %d images", int(committed.size()), total);
        QVERIFY(!committed.isEmpty());

        QDcmFiles again;
        QSignalSpy againErrors(&again, &QDcmFiles::errorInfo);
        again.loadLocalFolderToDB(folder, 0, true);
        QVERIFY2(againErrors.isEmpty(), qPrintable(againErrors.value(0).value(0).toString()));
        QVERIFY(again.lastImportSucceeded());

        verifyEachImageOnce(total);
        QCOMPARE(TestCatalog::count("generalseries"), kSeries);
        QCOMPARE(TestCatalog::count("generalstudy"), 2);
        QCOMPARE(TestCatalog::count("patient"), 2);
        const QStringList after = TestCatalog::values("SELECT SOPInstanceUID FROM imageformat");
        for (const QString& uid : committed)
            QVERIFY2(after.contains(uid), qPrintable("lost: " + uid));
    }

    // storescu sends four series in one association; the server stops while the second arrives,
    // so the bookkeeping of the second to fourth series finds no server. Every object is stored
    // all the same, the bookkeeping picks the server up again for a later series, and importing
    // the receiving folder catalogues each image once.
    void stoppedDuringReceive()
    {
        if (QStandardPaths::findExecutable("storescu").isEmpty())
            QSKIP("DCMTK's storescu is not installed");
        KESTREL_OPEN_CATALOG(catalog, "mariadb");
        SyntheticImage base;
        base.patientId = "RECV1";
        base.studyUid = newTestUid();
        QStringList sent;
        for (int s = 0; s < 4; ++s) {
            base.seriesUid = newTestUid();
            base.seriesNumber = s + 1;
            sent += writeSyntheticSeries(catalog.path(QString("send/s%1").arg(s)), base, kSlices);
        }
        base.seriesUid = newTestUid();
        base.seriesNumber = 5;
        const QStringList later = writeSyntheticSeries(catalog.path("send/later"), base, kSlices);

        ReceivingChain chain;
        QVERIFY(chain.start(catalog.path("recv")));
        chain.recv()->timer()->setInterval(1000); // a short quiet period ends a batch sooner
        const Provider& provider = chain.provider;
        QSignalSpy saved(provider.scp, &QDcmStorageSCP::notifyInstanceSaved);
        QSignalSpy uploaded(chain.recv(), &QDcmRecvFile::notifyUploadDB);
        QSignalSpy importErrors(chain.importer.get(), &QDcmFiles::errorInfo);
        // The first series is recorded and imported when the second starts; three objects into
        // the second series the server stops (the provider keeps receiving meanwhile).
        // (The spy counts in the provider's thread; this slot runs queued behind the bookkeeping.)
        int handled = 0;
        bool stopped = false;
        connect(provider.scp, &QDcmStorageSCP::notifyInstanceSaved, this, [&] {
            if (++handled == kSlices + 3) {
                stopped = true;
                serverScript("stop", m_serverDir.path());
            }
        });

        QCOMPARE(storescu(provider.port, sent), 0);
        QTRY_COMPARE_WITH_TIMEOUT(saved.count(), sent.size(), 30000);
        QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 4, 15000);
        QVERIFY(stopped);
        QVERIFY2(!importErrors.isEmpty(), "the importer did not report the lost server");
        QStringList received;
        for (const QList<QVariant>& args : qAsConst(saved)) {
            received << args.at(0).toString();
            QVERIFY2(QFileInfo(received.last()).isFile(), qPrintable(received.last()));
        }
        QCOMPARE(QSet<QString>(received.begin(), received.end()).size(), sent.size());

        // Back again: the bookkeeping records (and the importer imports) a later series on its own.
        QVERIFY2(!serverScript("start", m_serverDir.path()).isEmpty(), "the server did not start again");
        QVERIFY(kestrel::internal::reopenIfLost(QSqlDatabase::database()));
        QCOMPARE(TestCatalog::count("images"), kSlices);
        QCOMPARE(storescu(provider.port, later), 0);
        QTRY_COMPARE_WITH_TIMEOUT(uploaded.count(), 5, 15000);
        QCOMPARE(TestCatalog::count("images"), 2 * kSlices);
        QCOMPARE(TestCatalog::count("images", "DBflag = 1"), 2 * kSlices);
        verifyEachImageOnce(2 * kSlices);

        // The series received while the server was away come in through their folder.
        QDcmFiles folder;
        QSignalSpy folderErrors(&folder, &QDcmFiles::errorInfo);
        folder.loadLocalFolderToDB(catalog.path("recv"), 0, true);
        QVERIFY2(folderErrors.isEmpty(), qPrintable(folderErrors.value(0).value(0).toString()));
        verifyEachImageOnce(sent.size() + later.size());
        qInfo("received %d objects, %d of them while the server was away; all catalogued once",
              int(sent.size() + later.size()), int(sent.size()) - kSlices);
        QCOMPARE(TestCatalog::count("generalseries"), 5);
        QCOMPARE(TestCatalog::count("patient"), 1);
    }
};

QTEST_GUILESS_MAIN(TestServerLoss)
#include "tst_serverloss.moc"
