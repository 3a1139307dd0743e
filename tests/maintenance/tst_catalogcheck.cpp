// The catalogue checked against the disk: each planted damage is found as its kind of problem,
// the repair leaves a clean catalogue and no user file is deleted or changed.
#include "ndicomvolume.h"
#include "qdcmfiles.h"
#include "qseries.h"
#include "qinstance.h"
#include "syntheticdicom.h"
#include "testcatalog.h"
#include "veldatabaseconnection.h"

#include "programs.h"

#include <QCryptographicHash>
#include <QDirIterator>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

namespace {

// Every file below DIR with a digest of its bytes.
QMap<QString, QByteArray> userFiles(const QString& dir)
{
    QMap<QString, QByteArray> files;
    QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly))
            files.insert(file.fileName(), QCryptographicHash::hash(file.readAll(), QCryptographicHash::Sha1));
    }
    return files;
}

// Kinds of the problem lines of a report (five tab-separated fields), sorted.
QStringList kinds(const QStringList& report)
{
    QStringList found;
    for (const QString& line : report)
        if (line.count('\t') == 4)
            found << line.section('\t', 0, 0);
    found.sort();
    return found;
}

// Views the volume of series SERIESUID: 1 when it came from the cache, 0 when it was built, -1
// when there is no volume.
int viewVolume(const QString& seriesUid)
{
    QSeries series(getSeriesKey(seriesUid));
    series.searchSeriesInfo();
    series.searchInstance();
    for (QInstance* instance : series.getInstances())
        instance->searchInstanceInfo();
    NDicomVolume volume;
    QSignalSpy info(&volume, &NDicomVolume::registrationInfo);
    volume.getVolumeFromSeriesUID(&series);
    return volume.isValid() && info.size() == 1 ? info[0][0].toInt() : -1;
}

bool run(const QString& sql, const QVariantList& values = {})
{
    QSqlQuery query;
    query.prepare(sql);
    for (const QVariant& value : values)
        query.addBindValue(value);
    if (!query.exec())
        qWarning() << sql << query.lastError().text();
    return query.lastError().type() == QSqlError::NoError;
}

// Adds a copy of the row of TABLE with SOP Instance UID SOP, under the UID NEWSOP.
bool copyImageRow(const QString& table, const QString& sop, const QString& newSop)
{
    QSqlQuery select;
    select.prepare(QString("SELECT * FROM %1 WHERE SOPInstanceUID = ?").arg(table));
    select.addBindValue(sop);
    if (!select.exec() || !select.next())
        return false;
    const QSqlRecord record = select.record();
    QStringList columns, marks;
    QVariantList values;
    for (int i = 0; i < record.count(); ++i) {
        if (record.fieldName(i) == "pk")
            continue;
        columns << '`' + record.fieldName(i) + '`'; // Rows is a reserved word of MariaDB
        marks << "?";
        values << (record.fieldName(i) == "SOPInstanceUID" ? QVariant(newSop) : record.value(i));
    }
    return run(QString("INSERT INTO %1 (%2) VALUES (%3)").arg(table, columns.join(','), marks.join(',')), values);
}

// Drops the unique indexes of TABLE other than its key, so that a test can plant a duplicate.
bool dropUniqueIndexes(const QString& table, bool mariaDb)
{
    const QStringList names =
        mariaDb ? TestCatalog::values("SELECT DISTINCT INDEX_NAME FROM information_schema.STATISTICS WHERE "
                                      "TABLE_SCHEMA = DATABASE() AND TABLE_NAME = ? AND NON_UNIQUE = 0 AND INDEX_NAME <> 'PRIMARY'",
                                      {table})
                : TestCatalog::values("SELECT name FROM sqlite_master WHERE type = 'index' AND tbl_name = ? AND sql LIKE '%UNIQUE%'",
                                      {table});
    for (const QString& name : names)
        if (!run(mariaDb ? QString("DROP INDEX `%1` ON %2").arg(name, table) : QString("DROP INDEX \"%1\"").arg(name)))
            return false;
    return true;
}

} // namespace

class TestCatalogCheck : public QObject
{
    Q_OBJECT

private:
    // A catalogue of two patients: series A (10 slices, its volume built and cached) and series B
    // (3 slices), imported in place from IN. The volume is over 128 KiB, as cache files must be.
    QString m_seriesA, m_seriesB;
    QStringList m_filesA, m_filesB;

    bool build(TestCatalog& catalog)
    {
        SyntheticImage a;
        a.rows = 64;
        a.columns = 128;
        a.patientId = "CHK1";
        m_filesA = writeSyntheticSeries(catalog.path("in/a"), a, 10);
        SyntheticImage b;
        b.rows = b.columns = 16;
        b.patientId = "CHK2";
        b.patientName = "Other^Person";
        m_filesB = writeSyntheticSeries(catalog.path("in/b"), b, 3);
        QDcmFiles importer;
        importer.loadLocalFolderToDB(catalog.path("in"), 0, true);
        m_seriesA = TestCatalog::value("SELECT SeriesInstanceUID FROM imageformat f JOIN generalseries s ON f.series_fk = s.pk "
                                       "WHERE f.FilePath = ?", {m_filesA[0]});
        m_seriesB = TestCatalog::value("SELECT SeriesInstanceUID FROM imageformat f JOIN generalseries s ON f.series_fk = s.pk "
                                       "WHERE f.FilePath = ?", {m_filesB[0]});
        return importer.lastRunCounts().imagesAdded == 13 && viewVolume(m_seriesA) == 0
            && TestCatalog::count("registration") == 1;
    }

    static QString sopOf(const QString& file)
    {
        return TestCatalog::value("SELECT SOPInstanceUID FROM imageformat WHERE FilePath = ?", {file});
    }

    // Plants damage NAME; false when it could not be planted.
    bool plant(const QString& name, TestCatalog& catalog)
    {
        const QString cacheFile = TestCatalog::value("SELECT Savepath FROM registration");
        const QString third = m_filesA[3];
        if (name == "file deleted")
            return QFile::remove(third);
        if (name == "file replaced by a catalogued image")
            return QFile::remove(third) && QFile::copy(m_filesA[5], third);
        if (name == "file replaced by an unknown image") {
            SyntheticImage stranger;
            stranger.patientId = "CHK3";
            return writeSyntheticImage(third, stranger);
        }
        if (name == "file replaced by text") {
            QFile file(third);
            return file.open(QIODevice::WriteOnly | QIODevice::Truncate) && file.write("not an image\n") > 0;
        }
        if (name == "cache file truncated") {
            QFile file(cacheFile);
            return file.resize(file.size() - 4096);
        }
        if (name == "cache file deleted")
            return QFile::remove(cacheFile);
        if (name == "second row on one file") {
            for (const char* table : {"imageformat", "imagepixel", "mrimageinfo"})
                if (!copyImageRow(table, sopOf(third), sopOf(third) + ".9"))
                    return false;
            return true;
        }
        if (name == "same image twice") {
            for (const char* table : {"imageformat", "imagepixel", "mrimageinfo"})
                if (!dropUniqueIndexes(table, catalog.isMariaDb()) || !copyImageRow(table, sopOf(third), sopOf(third)))
                    return false;
            return true;
        }
        if (name == "image without its mrimageinfo row")
            return run("DELETE FROM mrimageinfo WHERE SOPInstanceUID = ?", {sopOf(third)});
        if (name == "images without series")
            return run("DELETE FROM generalseries WHERE SeriesInstanceUID = ?", {m_seriesB});
        if (name == "series without study")
            return run("DELETE FROM generalstudy WHERE StudyInstanceUID = (SELECT StudyInstanceUID FROM generalseries "
                       "WHERE SeriesInstanceUID = ?)", {m_seriesB});
        if (name == "study without patient")
            return run("DELETE FROM patient WHERE PatientID = 'CHK2'");
        if (name == "stale receive queue row")
            return run("INSERT INTO images (seriesUID, InstanceUID, DBflag, Cloudflag, filepath) VALUES (?, ?, 0, 0, ?)",
                       {m_seriesB, "1.2.3.4.5", catalog.path("received/gone.dcm")});
        if (name == "registration head changed")
            return run("UPDATE registration SET VolumeHead = 'magic:DCVM;totallen:512;'");
        if (name == "registration lost")
            return run("DELETE FROM registration");
        if (name == "registration of nothing") {
            const QString copy = catalog.path("cache/elsewhere.data");
            return QFile::copy(cacheFile, copy)
                && run("INSERT INTO registration (SeriesInstanceUID, ServerAddress, Savepath, VolumeHead) "
                       "SELECT 'no.such.series#0', '', ?, VolumeHead FROM registration", {copy});
        }
        return false;
    }

private slots:
    void initTestCase() { qputenv("OMP_NUM_THREADS", "2"); }

    void damages_data();
    void damages();
    void host_data() { TestCatalog::addBackendRows(); }
    void host();
    void framesVolume_data() { TestCatalog::addBackendRows(); }
    void framesVolume();
    void unreadableCatalogue();
};

void TestCatalogCheck::damages_data()
{
    QTest::addColumn<QString>("backend");
    QTest::addColumn<QString>("damage");
    QTest::addColumn<QStringList>("found");
    QTest::addColumn<int>("imagesAfter"); // imageformat rows after the repair
    QTest::addColumn<int>("viewAfter");   // 1: the repair kept the cached volume, 0: it is built again
    struct Row {
        const char* damage;
        QStringList found;
        int imagesAfter, viewAfter;
    };
    const Row rows[] = {
        {"file deleted", {"missing-file"}, 12, 0},
        {"file replaced by a catalogued image", {"wrong-image"}, 12, 0},
        {"file replaced by an unknown image", {"wrong-image"}, 13, 0}, // the stranger is catalogued
        {"file replaced by text", {"not-an-image"}, 12, 0},
        {"cache file truncated", {"broken-cache"}, 13, 0},
        {"cache file deleted", {"missing-cache"}, 13, 0},
        {"second row on one file", {"shared-file"}, 13, 0},
        {"same image twice", {"duplicate-row", "duplicate-row", "duplicate-row"}, 13, 0},
        {"image without its mrimageinfo row", {"incomplete-image"}, 13, 0}, // catalogued again, whole
        {"images without series", {"orphan-image", "orphan-image", "orphan-image", "orphan-image", "orphan-image",
                                   "orphan-image", "orphan-image", "orphan-image", "orphan-image"}, 13, 1},
        {"series without study", {"orphan-series"}, 13, 1},
        {"study without patient", {"orphan-study"}, 13, 1}, // series B catalogued again in each
        {"stale receive queue row", {"stale-queue"}, 13, 1},
        {"registration head changed", {"stale-head"}, 13, 1},
        {"registration lost", {"unregistered-cache"}, 13, 1},
        {"registration of nothing", {"orphan-registration"}, 13, 1},
    };
    for (const char* backend : {"sqlite", "mariadb"})
        for (const Row& row : rows)
            QTest::newRow(qPrintable(QString("%1: %2").arg(backend, row.damage)))
                << QString(backend) << QString(row.damage) << row.found << row.imagesAfter << row.viewAfter;
}

void TestCatalogCheck::damages()
{
    QFETCH(QString, backend);
    QFETCH(QString, damage);
    QFETCH(QStringList, found);
    QFETCH(int, imagesAfter);
    QFETCH(int, viewAfter);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    QVERIFY(build(catalog));
    QStringList report;
    QCOMPARE(checkCatalog(false, &report), 0);
    QCOMPARE(report, QStringList{"clean: 13 images and 1 cache registrations checked"});

    QVERIFY2(plant(damage, catalog), qPrintable(damage));
    const QMap<QString, QByteArray> planted = userFiles(catalog.path("in"));
    report.clear();
    QCOMPARE(checkCatalog(false, &report), found.size());
    QCOMPARE(kinds(report), found);
    QVERIFY2(report.last().startsWith(QString("%1 problem").arg(found.size())), qPrintable(report.last()));
    // The check alone changes nothing.
    QStringList again;
    QCOMPARE(checkCatalog(false, &again), found.size());
    QCOMPARE(again, report);

    report.clear();
    QCOMPARE(checkCatalog(true, &report), found.size());
    QVERIFY2(!report.filter(QRegularExpression("^repair: ")).isEmpty() && report.filter("repair failed").isEmpty(),
             qPrintable(report.join('\n')));
    report.clear();
    QCOMPARE(checkCatalog(false, &report), 0);
    QCOMPARE(TestCatalog::count("imageformat"), imagesAfter);
    for (const char* table : {"imagepixel", "mrimageinfo"})
        QCOMPARE(TestCatalog::count(table), imagesAfter);
    QCOMPARE(TestCatalog::count("patient"), damage.contains("unknown image") ? 3 : 2); // the stranger is a patient of its own
    // No user file was deleted or changed.
    QCOMPARE(userFiles(catalog.path("in")), planted);
    // The next view finds the cache or builds the volume again, registered once.
    QCOMPARE(viewVolume(m_seriesA), viewAfter);
    QCOMPARE(TestCatalog::count("registration"), 1);
    QCOMPARE(QDir(catalog.path("cache")).entryList(QDir::Files).size(), 1);
    QCOMPARE(checkCatalog(false), 0);
}

// The host prints one line per problem and a summary; exit 0 only when clean.
void TestCatalogCheck::host()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    KESTREL_REQUIRE_HOST();
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    QVERIFY(build(catalog));
    const QString pk = TestCatalog::value("SELECT pk FROM imageformat WHERE FilePath = ?", {m_filesB[1]});
    QVERIFY(QFile::remove(m_filesB[1]));
    QVERIFY(plant("cache file truncated", catalog));
    const QString cacheFile = TestCatalog::value("SELECT Savepath FROM registration");

    auto check = [&](const QStringList& args, QStringList* lines) {
        const HostRun run = runHost(QStringList{"--config", catalog.configDir(), "check"} + args, catalog.path("work"));
        *lines = run.out.split('\n', Qt::SkipEmptyParts);
        return run.exitCode;
    };
    QStringList lines;
    QCOMPARE(check({}, &lines), 1);
    QCOMPARE(lines.size(), 3);
    QCOMPARE(lines[0], QString("missing-file\timageformat\t%1\t%2\tthe file does not exist").arg(pk, m_filesB[1]));
    QVERIFY2(lines[1].startsWith(QString("broken-cache\tregistration\t%1\t%2\tthe head says ")
                                     .arg(TestCatalog::value("SELECT pk FROM registration"), cacheFile)),
             qPrintable(lines[1]));
    QCOMPARE(lines[2], QString("2 problems (1 broken-cache, 1 missing-file); 13 images and 1 cache registrations checked"));

    QCOMPARE(check({"--repair"}, &lines), 0);
    QVERIFY2(lines.contains("after repair: clean: 12 images and 0 cache registrations checked"), qPrintable(lines.join('\n')));
    QVERIFY(!QFileInfo::exists(cacheFile));
    QCOMPARE(check({}, &lines), 0);
    QCOMPARE(lines, QStringList{"clean: 12 images and 0 cache registrations checked"});
    QCOMPARE(check({"extra"}, &lines), 2);
}

// The volume of a series' frames, cached under its own key with its frames in the registered
// head, is a clean registration of that series, and goes when the series' images change.
void TestCatalogCheck::framesVolume()
{
    QFETCH(QString, backend);
    KESTREL_OPEN_CATALOG(catalog, backend);
    QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
    QVERIFY(build(catalog));
    QSeries series(getSeriesKey(m_seriesA));
    series.searchSeriesInfo();
    series.searchInstance();
    NDicomVolume volume;
    QVERIFY(getVolumeFromSeriesFrames(volume, getSeriesFrames(&series), 0));
    QCOMPARE(TestCatalog::count("registration"), 2);
    QStringList report;
    QCOMPARE(checkCatalog(false, &report), 0);
    QCOMPARE(report, QStringList{"clean: 13 images and 2 cache registrations checked"});

    QVERIFY(plant("file deleted", catalog));
    report.clear();
    QCOMPARE(checkCatalog(true, &report), 1);
    QCOMPARE(kinds(report), QStringList{"missing-file"});
    QCOMPARE(TestCatalog::count("registration"), 0);
    QCOMPARE(QDir(catalog.path("cache")).entryList(QDir::Files).size(), 0);
    QCOMPARE(checkCatalog(false), 0);
}

// A catalogue without tables cannot be checked: -1 and the driver's text.
void TestCatalogCheck::unreadableCatalogue()
{
    QTemporaryDir dir;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase("QSQLITE");
        db.setDatabaseName(dir.filePath("empty.db"));
        QVERIFY(db.open());
        QStringList report;
        QCOMPARE(checkCatalog(true, &report), -1);
        QCOMPARE(report.size(), 1);
        QVERIFY2(report[0].startsWith("cannot read the catalogue: ") && report[0].contains("patient"), qPrintable(report[0]));
        db.close();
    }
    QSqlDatabase::removeDatabase(QLatin1String(QSqlDatabase::defaultConnection));
}

QTEST_GUILESS_MAIN(TestCatalogCheck)
#include "tst_catalogcheck.moc"
