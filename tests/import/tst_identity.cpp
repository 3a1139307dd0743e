// Who a patient is, and the same catalogue for the same files: people who share an ID, IDs that
// differ only in case or accent, names beyond the Basic Multilingual Plane, every form of a DICOM
// time, folders reached through links, and tables identical byte for byte whatever the number of
// reading threads, the run or the backend.
#include "fileimage.h"
#include "ndicomvolume.h"
#include "qdcmfiles.h"
#include "qinstance.h"
#include "qseries.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include "catalog/catalogschema_p.h"
#include "programs.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QCryptographicHash>
#include <QSqlError>
#include <QSqlQuery>
#include <QSqlRecord>
#include <QtTest>

using namespace kestrel::internal;

namespace {

// Runs `kestrel import FOLDER` on the catalogue of CONFIG with THREADS reading threads (the
// library asks for four when it is given one: a thread limit keeps it at one).
QString importWithKestrel(const QString& config, const QString& folder, int threads = 2)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("OMP_NUM_THREADS", QString::number(threads));
    env.insert("OMP_THREAD_LIMIT", QString::number(threads));
    const HostRun run = runHost({"--config", config, "import", folder}, QString(), env, 300000);
    return run.exitCode == 0 ? run.out : "<import failed: " + run.err + ">";
}

SyntheticImage person(const QString& id, const QByteArray& nameUtf8, const QString& birth = "19700101")
{
    SyntheticImage image;
    image.specificCharacterSet = "ISO_IR 192";
    image.patientId = id;
    image.patientNameBytes = nameUtf8;
    image.studyUid = newTestUid();
    image.extra = {{DCM_PatientBirthDate, birth}};
    return image;
}

// Every row of every catalogue table, keys included, in key order (whole rows for the two tables
// without a key), one line a row.
QByteArray dumpCatalogue()
{
    QByteArray dump;
    QStringList tables = schema::tables();
    for (const QString& table : tables) {
        const QSqlRecord record = QSqlDatabase::database().record(table);
        QStringList order;
        for (int i = 0; i < record.count(); ++i)
            order << QString::number(i + 1);
        QSqlQuery query(QSqlDatabase::database());
        if (!query.exec(QString("SELECT * FROM %1 ORDER BY %2").arg(table, order.join(','))))
            return "<" + table.toUtf8() + ": " + query.lastError().text().toUtf8() + ">";
        while (query.next()) {
            QStringList row{table};
            for (int i = 0; i < record.count(); ++i)
                row << (query.isNull(i) ? QString("<null>") : query.value(i).toString());
            dump += row.join('|').toUtf8() + '\n';
        }
    }
    return dump;
}

// The voxels and head of the volume of the series whose description is DESCRIPTION.
QByteArray volumeOf(const QString& description)
{
    QSqlQuery query(QSqlDatabase::database());
    query.prepare("SELECT pk FROM generalseries WHERE SeriesDescription = ?");
    query.addBindValue(description);
    if (!query.exec() || !query.next())
        return "<no series " + description.toUtf8() + ">";
    QSeries series(query.value(0).toLongLong());
    series.searchSeriesInfo();
    series.searchInstance();
    for (QInstance* instance : series.getInstances())
        instance->searchInstanceInfo();
    NDicomVolume volume;
    volume.loadSeries(&series);
    if (!volume.isValid())
        return "<no volume>";
    const int* size = volume.geSize();
    QCryptographicHash hash(QCryptographicHash::Sha1);
    hash.addData(volume.volumeHeadtoString(*volume.getHead()).toUtf8());
    hash.addData(volume.getData(), qint64(size[0]) * size[1] * size[2] * 2);
    return hash.result().toHex();
}

} // namespace

class TestIdentity : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        KESTREL_REQUIRE_HOST();
    }

    void people_data() { TestCatalog::addBackendRows(); }
    void people()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString in = catalog.path("people");
        // One phantom ID for two people, the first of them written twice in other case and with
        // trailing separators; IDs that differ in case or accent only; a name with a character
        // beyond the Basic Multilingual Plane (four bytes in UTF-8).
        const struct {
            const char* id;
            const char* name;
            const char* birth;
        } files[] = {
            {"PH1", "Phantom^One", "19700101"},  {"PH1", "Other^Person", "19800202"}, {"PH1", "PHANTOM^ONE^^ ", "19700101"},
            {"ab12", "Lower^Case", "19700101"},  {"AB12", "Lower^Case", "19700101"},  {"Jos\xc3\xa9" "1", "Accent^A", "19700101"},
            {"Jose1", "Accent^A", "19700101"},   {"U4", "Clef^\xf0\x9d\x84\x9e", "19700101"},
        };
        for (int i = 0; i < int(std::size(files)); ++i)
            QVERIFY(writeSyntheticImage(QString("%1/%2.dcm").arg(in).arg(i),
                                        person(QString::fromUtf8(files[i].id), files[i].name, files[i].birth)));

        const QString output = importWithKestrel(catalog.configDir(), in);
        QVERIFY2(output.contains("images added:      8"), qPrintable(output));
        QVERIFY2(output.contains("patient ID PH1 also names 1 other person(s)"), qPrintable(output));
        QCOMPARE(TestCatalog::values("SELECT PatientID FROM patient ORDER BY PatientID, PatientName"),
                 (QStringList{"AB12", "Jose1", QString::fromUtf8("José1"), "PH1", "PH1", "U4", "ab12"}));
        for (const char* id : {"ab12", "AB12", "Jose1", "Jos\xc3\xa9" "1"})
            QCOMPARE(TestCatalog::count("patient", "PatientID = '" + QString::fromUtf8(id) + "'"), 1);
        QCOMPARE(TestCatalog::values("SELECT PatientName FROM patient WHERE PatientID = 'U4'"),
                 QStringList{QString::fromUtf8("Clef^\xf0\x9d\x84\x9e")});
        // The first spelling of a person names the row; the other spelling's study joins it.
        QCOMPARE(TestCatalog::values("SELECT p.PatientName, COUNT(*) FROM patient p JOIN generalstudy s ON s.patient_fk = p.pk "
                                     "WHERE p.PatientID = 'PH1' GROUP BY p.PatientName ORDER BY p.PatientName"),
                 (QStringList{"Other^Person", "1", "Phantom^One", "2"}));

        // A catalogue of an earlier version filed the second person's study under the first:
        // importing the files again puts it back under the person they name.
        const QString other = TestCatalog::value("SELECT pk FROM patient WHERE PatientName = 'Other^Person'");
        const QString first = TestCatalog::value("SELECT pk FROM patient WHERE PatientName = 'Phantom^One'");
        QCOMPARE(TestCatalog::values("UPDATE generalstudy SET patient_fk = ? WHERE patient_fk = ?", {first, other}), QStringList());
        const QString again = importWithKestrel(catalog.configDir(), in);
        QVERIFY2(again.contains(QString("moved from patient %1 to patient %2").arg(first, other)), qPrintable(again));
        QCOMPARE(TestCatalog::count("generalstudy", "patient_fk = " + other), 1);
        QCOMPARE(TestCatalog::count("imageformat"), 8);
    }

    // Study and series times in every form the standard allows; the content date as the file has it.
    void timesAndDates_data() { TestCatalog::addBackendRows(); }
    void timesAndDates()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QStringList forms{"10", "1050", "105030", "105030.123456", "10:50:30", "1", "10505"};
        for (int i = 0; i < forms.size(); ++i) {
            SyntheticImage image;
            image.studyUid = newTestUid();
            image.studyTime = forms[i];
            image.seriesTime = forms[i];
            image.studyDescription = QString::number(i);
            image.extra = {{DCM_ContentDate, "20240201"}};
            QVERIFY(writeSyntheticImage(catalog.path(QString("times/%1.dcm").arg(i)), image));
        }
        QDcmFiles().loadLocalFolderToDB(catalog.path("times"), 0, true);
        const QStringList expected{"10:00:00", "10:50:00", "10:50:30", "10:50:30", "10:50:30", "", ""};
        QCOMPARE(TestCatalog::values("SELECT StudyTime FROM generalstudy ORDER BY StudyDescription"), expected);
        QCOMPARE(TestCatalog::values("SELECT s.SeriesTime FROM generalseries s JOIN generalstudy st ON s.study_fk = st.pk "
                                     "ORDER BY st.StudyDescription"),
                 expected);
        QCOMPARE(TestCatalog::values("SELECT DISTINCT ContentDate FROM imageformat"), QStringList{"20240201"});
    }

    // Folders reached through links are walked, each real folder once; a link back up ends the
    // walk there; a link to nothing is named.
    void linkedFolders()
    {
        TestCatalog catalog("sqlite");
        QVERIFY(catalog.open());
        const QString root = catalog.path("walk");
        SyntheticImage a;
        writeSyntheticSeries(catalog.path("elsewhere/a"), a, 3);
        SyntheticImage b;
        b.seriesUid = newTestUid();
        writeSyntheticSeries(root + "/real/b", b, 2);
        QVERIFY(QFile::link(catalog.path("elsewhere/a"), root + "/a_link"));
        QVERIFY(QFile::link(root + "/real/b", root + "/b_again"));
        QVERIFY(QFile::link(root, root + "/real/up"));
        QVERIFY(QFile::link(catalog.path("gone"), root + "/dangling"));

        QStringList skipped;
        const QStringList files = QDcmFiles::filesBelow({root}, &skipped);
        QCOMPARE(files.size(), 5);
        QCOMPARE(skipped, QStringList{root + "/dangling: a link to nothing"});
        QDcmFiles importer;
        importer.loadLocalFolderToDB(root, 0, true);
        QCOMPARE(importer.lastRunCounts().imagesAdded, 5);
        QCOMPARE(importer.lastRunCounts().duplicates, 0);
        QCOMPARE(importer.lastRunCounts().skippedFiles, skipped);
    }

    // The same files give the same rows, keys and volumes: five runs each with one, two and eight
    // reading threads, on both backends. The files hold what used to make runs differ: two echoes
    // that share instance numbers, people who share an ID, one SOP Instance UID with two contents,
    // one series in two folders with the same file names.
    void sameCatalogueEveryRun()
    {
        QTemporaryDir dir;
        const QString in = dir.filePath("in");
        const QString echoes = sharedDataPath("siemens_gre_2echo");
        QVERIFY(QDir().mkpath(in));
        if (!echoes.isEmpty())
            QVERIFY(QFile::link(echoes, in + "/echoes"));
        for (const auto& [id, name] : {std::pair{"PH1", "Phantom^One"}, {"PH1", "Other^Person"}, {"PH1", "PHANTOM^ONE"}}) {
            SyntheticImage image = person(id, name);
            image.seriesDescription = "people";
            writeSyntheticSeries(in + "/people/" + QString::fromUtf8(name), image, 2);
        }
        SyntheticImage split;
        split.seriesUid = newTestUid();
        split.seriesDescription = "split";
        writeSyntheticSeries(in + "/export1", split, 4);
        split.instanceNumber = 5;
        split.position = {0, 0, 4};
        const QStringList second = writeSyntheticSeries(in + "/export2", split, 4);
        SyntheticImage twin = split;
        twin.sopUid = fileText(second[0], DCM_SOPInstanceUID);
        twin.pixel = [](int x, int, int) { return x; };
        QVERIFY(writeSyntheticImage(in + "/twin/slice_000.dcm", twin));

        QByteArray reference, referenceVolume;
        QString referenceBackend;
        for (const QString backend : {"sqlite", "mariadb"}) {
            for (int run = 0; run < 5; ++run) {
                for (int threads : {1, 2, 8}) {
                    TestCatalog catalog(backend);
                    if (!catalog.available())
                        break;
                    QVERIFY(catalog.open());
                    const QString output = importWithKestrel(catalog.configDir(), in, threads);
                    QVERIFY2(output.contains("other content"), qPrintable(output));
                    const QByteArray dump = dumpCatalogue();
                    const QByteArray volume = echoes.isEmpty() ? QByteArray() : volumeOf("gre_field_magph");
                    if (reference.isEmpty()) {
                        reference = dump;
                        referenceVolume = volume;
                        referenceBackend = backend;
                        QVERIFY(dump.count('\n') > 100);
                        continue;
                    }
                    const QString where = QString("%1, run %2, %3 threads against %4").arg(backend).arg(run).arg(threads).arg(referenceBackend);
                    if (dump != reference) {
                        const QList<QByteArray> a = reference.split('\n'), b = dump.split('\n');
                        for (int i = 0; i < qMin(a.size(), b.size()); ++i)
                            QVERIFY2(a[i] == b[i], qPrintable(where + ":\n" + a[i] + "\n" + b[i]));
                        QCOMPARE(b.size(), a.size());
                    }
                    QVERIFY2(volume == referenceVolume, qPrintable(where));
                }
            }
        }
    }
};

QTEST_GUILESS_MAIN(TestIdentity)
#include "tst_identity.moc"
