#include "qdcmfiles.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include "kestrelpaths.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcvris.h>

#include <QDate>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSet>
#include <QSettings>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QtTest>

namespace {

// Values of one column over the rows of a query, in row order.
QStringList column(const QString& sql, const QVariantList& values = {})
{
    QSqlQuery query(QSqlDatabase::database());
    query.prepare(sql);
    for (const QVariant& v : values)
        query.addBindValue(v);
    QStringList out;
    if (!query.exec())
        return {"<query failed>"};
    while (query.next())
        out << query.value(0).toString();
    return out;
}

int imageRowsPerTable(int* pixel = nullptr, int* mr = nullptr)
{
    if (pixel)
        *pixel = TestCatalog::count("imagepixel");
    if (mr)
        *mr = TestCatalog::count("mrimageinfo");
    return TestCatalog::count("imageformat");
}

// Adds the phase element the served scanners write, with an explicit IS value.
bool setPhase(const QString& path, int phase)
{
    DcmFileFormat file;
    if (file.loadFile(QFile::encodeName(path).constData()).bad())
        return false;
    auto* element = new DcmIntegerString(DcmTag(0x5501, 0x111F, EVR_IS));
    element->putString(QByteArray::number(phase).constData());
    file.getDataset()->insert(element, true);
    return file.saveFile(QFile::encodeName(path).constData(), EXS_LittleEndianExplicit).good();
}

// Every image row of TABLE whose series, study and patient rows exist and agree with the file's
// own UIDs (checked through the stored SOPInstanceUID in imageformat/generalseries).
int linkedImages(const QString& table)
{
    return column(QString("SELECT COUNT(*) FROM %1 i JOIN generalseries s ON i.series_fk = s.pk "
                          "JOIN generalstudy st ON s.study_fk = st.pk JOIN patient p ON st.patient_fk = p.pk "
                          "WHERE s.StudyInstanceUID = st.StudyInstanceUID")
                          .arg(table))
            .value(0)
            .toInt();
}

} // namespace

class TestImport : public QObject
{
    Q_OBJECT

private:
    // Two patients (one with SQL text in its ID and an apostrophe in its name), three series,
    // seven images; one duplicate copy; bad files beside them.
    static void writeMixedFolder(const QString& dir)
    {
        QDir().mkpath(dir + "/sub/deeper");
        SyntheticImage a;
        a.patientId = "P'1; DROP TABLE patient;--";
        a.patientName = "O'Brien^Anne";
        a.studyUid = newTestUid();
        a.studyTime = "101530.123";
        a.rowSpacing = 0.5;
        a.columnSpacing = 0.75;
        a.orientation = {1, 0, 0, 0, 1, 0};
        a.position = {-10, 20, 30};
        const QStringList s1 = writeSyntheticSeries(dir + "/a1", a, 3, {0, 0, 2.5});
        a.seriesDescription = "T2";
        a.seriesNumber = 2;
        writeSyntheticSeries(dir + "/sub/a2", a, 2);
        SyntheticImage b;
        b.patientId = "P2";
        b.patientName = "Second^Bob";
        writeSyntheticSeries(dir + "/sub/deeper/b", b, 2);
        QFile::copy(s1.first(), dir + "/sub/copy_of_first.dcm");

        SyntheticImage anonymous;
        anonymous.patientId.clear();
        writeSyntheticImage(dir + "/no_id.dcm", anonymous);
        QFile text(dir + "/notes.txt");
        text.open(QIODevice::WriteOnly);
        text.write("not a DICOM file\n");
        QFile(dir + "/empty.dcm").open(QIODevice::WriteOnly);
        QFile whole(s1.last());
        whole.open(QIODevice::ReadOnly);
        QFile cut(dir + "/truncated.dcm");
        cut.open(QIODevice::WriteOnly);
        cut.write(whole.read(200));
    }

private slots:
    void initTestCase() { qputenv("OMP_NUM_THREADS", "2"); }

    void hierarchyAndDeduplication_data() { TestCatalog::addBackendRows(); }
    void hierarchyAndDeduplication()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString dir = catalog.path("in");
        writeMixedFolder(dir);

        QDcmFiles importer;
        QCOMPARE(importer.loadLocalFolderToDB(dir, 0, true), 0);
        QVERIFY(importer.lastImportSucceeded());
        QCOMPARE(TestCatalog::count("patient"), 2);
        QCOMPARE(TestCatalog::count("generalstudy"), 2);
        QCOMPARE(TestCatalog::count("generalseries"), 3);
        int pixel = 0, mr = 0;
        QCOMPARE(imageRowsPerTable(&pixel, &mr), 7);
        QCOMPARE(pixel, 7);
        QCOMPARE(mr, 7);
        for (const char* table : {"imageformat", "imagepixel", "mrimageinfo"})
            QCOMPARE(linkedImages(table), 7);
        QDcmFiles::RunCounts counts = importer.lastRunCounts();
        QCOMPARE(counts.imagesAdded, 7);
        QCOMPARE(counts.duplicates, 1);
        QCOMPARE(counts.skippedNoPatientID, 1);
        QVERIFY2(counts.unreadable >= 3, qPrintable(QString::number(counts.unreadable)));

        // Values read from the files are bound: SQL text and apostrophes are data.
        QCOMPARE(column("SELECT PatientName FROM patient WHERE PatientID = ?", {"P'1; DROP TABLE patient;--"}),
                 QStringList{"O'Brien^Anne"});
        QCOMPARE(column("SELECT DISTINCT StudyTime FROM generalstudy WHERE patient_fk = "
                        "(SELECT pk FROM patient WHERE PatientID = ?)",
                        {"P'1; DROP TABLE patient;--"}),
                 QStringList{"10:15:30"});
        QCOMPARE(column("SELECT DISTINCT Status FROM generalseries"), QStringList{QString::fromUtf8("未上传")});
        QSqlQuery keys(QSqlDatabase::database());
        QVERIFY(keys.exec("SELECT SeriesInstanceUID, SeriesBase FROM generalseries"));
        while (keys.next())
            QCOMPARE(keys.value(1).toString(), keys.value(0).toString() + "#0");
        // Multi-valued attributes stay whole; the component columns hold them by index.
        QCOMPARE(column("SELECT DISTINCT ImageOrientationPatient FROM imagepixel"), QStringList{"1\\0\\0\\0\\1\\0"});
        QCOMPARE(column("SELECT PixelSpacing FROM imagepixel WHERE PositionZ = 35"), QStringList{"0.5\\0.75"});
        QSqlQuery geometry(QSqlDatabase::database());
        QVERIFY(geometry.exec("SELECT SpacingX, SpacingY, OrientationYY, PositionX, PositionZ, ImagePositionPatient "
                              "FROM imagepixel WHERE PositionZ = 35"));
        QVERIFY(geometry.next());
        QCOMPARE(geometry.value(0).toDouble(), 0.5);
        QCOMPARE(geometry.value(1).toDouble(), 0.75);
        QCOMPARE(geometry.value(2).toDouble(), 1.0);
        QCOMPARE(geometry.value(3).toDouble(), -10.0);
        QCOMPARE(geometry.value(5).toString(), QString("-10\\20\\35"));
        geometry.finish();
        QCOMPARE(column("SELECT DISTINCT ImageType FROM imageformat"), QStringList{"ORIGINAL\\PRIMARY\\M"});
        QCOMPARE(column("SELECT DISTINCT ContentDate FROM imageformat"), QStringList{""});
        QCOMPARE(column("SELECT InstanceNumber FROM imageformat WHERE series_fk = "
                        "(SELECT pk FROM generalseries WHERE SeriesNumber = '1' AND study_fk IN "
                        "(SELECT pk FROM generalstudy WHERE patient_fk = (SELECT pk FROM patient WHERE PatientID = ?))) "
                        "ORDER BY InstanceNumber",
                        {"P'1; DROP TABLE patient;--"}),
                 (QStringList{"1", "2", "3"}));

        // A second run over the same folder, by another importer, writes nothing.
        QDcmFiles again;
        again.loadLocalFolderToDB(dir, 0, true);
        QVERIFY(again.lastImportSucceeded());
        QCOMPARE(TestCatalog::count("patient"), 2);
        QCOMPARE(TestCatalog::count("generalstudy"), 2);
        QCOMPARE(TestCatalog::count("generalseries"), 3);
        QCOMPARE(imageRowsPerTable(&pixel, &mr), 7);
        QCOMPARE(pixel + mr, 14);
        QCOMPARE(again.lastRunCounts().duplicates, 8);
        QCOMPARE(again.lastRunCounts().imagesAdded, 0);

        // New images of a known series join it.
        SyntheticImage extra;
        extra.patientId = "P2";
        extra.studyUid = column("SELECT StudyInstanceUID FROM generalstudy WHERE patient_fk = "
                                "(SELECT pk FROM patient WHERE PatientID = 'P2')")
                                 .value(0);
        extra.seriesUid = column("SELECT SeriesInstanceUID FROM generalseries WHERE StudyInstanceUID = ?",
                                 {extra.studyUid})
                                  .value(0);
        extra.instanceNumber = 3;
        QVERIFY(writeSyntheticImage(catalog.path("late.dcm"), extra));
        again.reinit();
        again.loadLocalFilesToDB({catalog.path("late.dcm")}, 0);
        QCOMPARE(TestCatalog::count("generalseries"), 3);
        QCOMPARE(column("SELECT COUNT(*) FROM imageformat i JOIN generalseries s ON i.series_fk = s.pk "
                        "WHERE s.SeriesInstanceUID = ?",
                        {extra.seriesUid}),
                 QStringList{"3"});
    }

    void phases_data() { TestCatalog::addBackendRows(); }
    void phases()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        // Fourth component "30917": the served scanners' phase element splits one series UID.
        SyntheticImage served;
        served.studyUid = newTestUid();
        served.seriesUid = "1.2.840.30917.77." + QString::number(QDateTime::currentMSecsSinceEpoch());
        QStringList files = writeSyntheticSeries(catalog.path("served/p1"), served, 2);
        served.sopUid.clear();
        served.instanceNumber = 3;
        const QStringList second = writeSyntheticSeries(catalog.path("served/p2"), served, 3);
        for (const QString& f : files)
            QVERIFY(setPhase(f, 1));
        for (const QString& f : second)
            QVERIFY(setPhase(f, 2));
        // Any other UID ignores the element.
        SyntheticImage other;
        other.patientId = "P0001";
        other.studyUid = served.studyUid;
        other.seriesUid = "1.2.840.30918.1.2";
        for (const QString& f : writeSyntheticSeries(catalog.path("served/other"), other, 2))
            QVERIFY(setPhase(f, 5));

        QDcmFiles importer;
        importer.loadLocalFolderToDB(catalog.path("served"), 0, true);
        QCOMPARE(TestCatalog::count("generalseries"), 3);
        QCOMPARE(column("SELECT SeriesBase FROM generalseries ORDER BY SeriesBase"),
                 (QStringList{served.seriesUid + "#1", served.seriesUid + "#2", other.seriesUid + "#0"}));
        QCOMPARE(column("SELECT s.SeriesBase, COUNT(*) FROM imagepixel i JOIN generalseries s ON i.series_fk = s.pk "
                        "GROUP BY s.SeriesBase ORDER BY s.SeriesBase"),
                 (QStringList{served.seriesUid + "#1", served.seriesUid + "#2", other.seriesUid + "#0"}));
        QCOMPARE(column("SELECT COUNT(*) FROM imagepixel i JOIN generalseries s ON i.series_fk = s.pk "
                        "WHERE s.SeriesBase = ?",
                        {served.seriesUid + "#2"}),
                 QStringList{"3"});
        QCOMPARE(TestCatalog::count("imageformat"), 7);
        QDcmFiles again;
        again.loadLocalFolderToDB(catalog.path("served"), 0, true);
        QCOMPARE(TestCatalog::count("generalseries"), 3);
        QCOMPARE(TestCatalog::count("imageformat"), 7);
    }

    void copyMode_data() { TestCatalog::addBackendRows(); }
    void copyMode()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString storage = catalog.path("storage");
        {
            QSettings ini(catalog.configDir() + "/datasavepath.ini", QSettings::IniFormat);
            ini.setValue("save/savepath", storage);
        }
        SyntheticImage image;
        image.patientId = "PID/with slash";
        image.studyUid = newTestUid();
        image.seriesUid = newTestUid();
        const QStringList sources = writeSyntheticSeries(catalog.path("src"), image, 3);
        const QString seriesDir = storage + "/" + QDate::currentDate().toString("yyyy-MM-dd") + "/PID_with_slash/" +
                                  image.studyUid + "/" + image.seriesUid + "_0";
        // The third file's destination is blocked by a folder that cannot be replaced.
        QDir().mkpath(seriesDir + "/slice_002.dcm/keep");

        QDcmFiles importer;
        importer.loadLocalFolderToDB(catalog.path("src"), 1, true);
        QCOMPARE(TestCatalog::count("imageformat"), 3);
        const QStringList paths = column("SELECT FilePath FROM imageformat ORDER BY InstanceNumber");
        QCOMPARE(paths.value(0), seriesDir + "/slice_000.dcm");
        QCOMPARE(paths.value(1), seriesDir + "/slice_001.dcm");
        QCOMPARE(paths.value(2), sources.value(2)); // the failed copy keeps the source
        QVERIFY(QFileInfo::exists(paths.value(0)) && QFileInfo::exists(paths.value(1)));
        QCOMPARE(column("SELECT IrradiationEventUID FROM imageformat ORDER BY InstanceNumber"),
                 (QStringList{"copy", "copy", ""}));

        // The same files again on the same day: copies overwritten, FilePath updated, no new row.
        QDir(seriesDir + "/slice_002.dcm").removeRecursively();
        QFile::remove(paths.value(0));
        QDcmFiles again;
        again.loadLocalFolderToDB(catalog.path("src"), 1, true);
        QCOMPARE(TestCatalog::count("imageformat"), 3);
        QCOMPARE(column("SELECT FilePath FROM imageformat ORDER BY InstanceNumber"),
                 (QStringList{seriesDir + "/slice_000.dcm", seriesDir + "/slice_001.dcm", seriesDir + "/slice_002.dcm"}));
        QVERIFY(QFileInfo::exists(seriesDir + "/slice_000.dcm"));
        QVERIFY(QFileInfo::exists(seriesDir + "/slice_002.dcm"));

        // Images marked "reserved" stay where their rows say.
        QSqlQuery reserve(QSqlDatabase::database());
        QVERIFY(reserve.exec("UPDATE imageformat SET IrradiationEventUID = 'reserved', FilePath = 'kept'"));
        QDcmFiles third;
        third.loadLocalFolderToDB(catalog.path("src"), 1, true);
        QCOMPARE(column("SELECT DISTINCT FilePath FROM imageformat"), QStringList{"kept"});
        QCOMPARE(TestCatalog::count("imageformat"), 3);
    }

    void commandLine()
    {
        KESTREL_OPEN_CATALOG(catalog, QString("sqlite"));
        SyntheticImage image;
        writeSyntheticSeries(catalog.path("cli"), image, 3);
        QFile(catalog.path("cli/readme.txt")).open(QIODevice::WriteOnly);
        const QString program = Kestrel::applicationDir() + "/kestrel";
        if (!QFileInfo::exists(program))
            QSKIP("the kestrel host is not built");
        QProcess run;
        run.start(program, {"--config", catalog.configDir(), "import", catalog.path("cli")});
        QVERIFY(run.waitForFinished(60000));
        const QString output = QString::fromUtf8(run.readAllStandardOutput());
        QCOMPARE(run.exitCode(), 0);
        QVERIFY2(output.contains("images added:      3") && output.contains("files unreadable:  1"), qPrintable(output));
        QCOMPARE(TestCatalog::count("imageformat"), 3);

        run.start(program, {"--config", catalog.configDir(), "import", catalog.path("missing")});
        QVERIFY(run.waitForFinished(60000));
        QVERIFY(run.exitCode() != 0);
        QVERIFY(QString::fromUtf8(run.readAllStandardError()).contains("no such file or folder"));
    }

    void receiveQueue_data() { TestCatalog::addBackendRows(); }
    void receiveQueue()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage image;
        image.seriesUid = newTestUid();
        const QStringList files = writeSyntheticSeries(catalog.path("recv"), image, 3);
        QSqlQuery insert(QSqlDatabase::database());
        insert.prepare("INSERT INTO series (seriesUID, recvnum, upDBnum, upCloudnum) VALUES (?, 3, 0, 0)");
        insert.addBindValue(image.seriesUid);
        QVERIFY(insert.exec());
        for (const QString& file : files) {
            DcmFileFormat ff;
            QVERIFY(ff.loadFile(QFile::encodeName(file).constData()).good());
            OFString sop;
            ff.getDataset()->findAndGetOFString(DCM_SOPInstanceUID, sop);
            insert.prepare("INSERT INTO images (seriesUID, InstanceUID, DBflag, Cloudflag, filepath) VALUES (?, ?, 0, 0, ?)");
            insert.addBindValue(image.seriesUid);
            insert.addBindValue(QString::fromLatin1(sop.c_str()));
            insert.addBindValue(file);
            QVERIFY(insert.exec());
        }

        QDcmFiles importer;
        QStringList order;
        connect(&importer, &QDcmFiles::notifyUpdateMainWindow, [&] { order << "update"; });
        connect(&importer, &QDcmFiles::notifyNewSeriesUID, [&](const QString& uid) { order << "new:" + uid; });
        importer.onNotifyUploadDB(image.seriesUid);
        QCOMPARE(order, (QStringList{"update", "new:" + image.seriesUid}));
        QCOMPARE(TestCatalog::count("imageformat"), 3);
        QCOMPARE(TestCatalog::count("images", "DBflag = 1"), 3);
        QCOMPARE(column("SELECT upDBnum FROM series"), QStringList{"3"});

        // Nothing waiting: no run, no signal.
        order.clear();
        importer.onNotifyUploadDB(image.seriesUid);
        QVERIFY(order.isEmpty());
        QCOMPARE(TestCatalog::count("imageformat"), 3);
    }

    void characterSets_data() { TestCatalog::addBackendRows(); }
    void characterSets()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        struct Case {
            QString charset;
            QByteArray bytes;
            QString expected;
        };
        const QList<Case> cases{
                {"ISO_IR 100", QByteArray("Buc^J\xe9r\xf4me"), QString::fromUtf8("Buc^Jérôme")},
                {"ISO_IR 192", QByteArray("Wang^XiaoDong=\xe7\x8e\x8b^\xe5\xb0\x8f\xe6\x9d\xb1="),
                 QString::fromUtf8("Wang^XiaoDong=王^小東=")},
                {"GB18030", QByteArray("Wang^XiaoDong=\xcd\xf5^\xd0\xa1\xb6\xab="), QString::fromUtf8("Wang^XiaoDong=王^小东=")},
        };
        // The GB18030 file comes first: the next files' names and an accented path still read right.
        QStringList paths;
        for (int i = cases.size() - 1; i >= 0; --i) {
            SyntheticImage image;
            image.specificCharacterSet = cases[i].charset;
            image.patientNameBytes = cases[i].bytes;
            image.patientId = "CS" + QString::number(i);
            paths << catalog.path(QString::fromUtf8("données_é/%1.dcm").arg(i));
            QDir().mkpath(QFileInfo(paths.last()).path());
            QVERIFY(writeSyntheticImage(paths.last(), image));
            QDcmFiles importer;
            importer.loadLocalFilesToDB({paths.last()}, 0);
        }
        for (int i = 0; i < cases.size(); ++i)
            QCOMPARE(column("SELECT PatientName FROM patient WHERE PatientID = ?", {"CS" + QString::number(i)}),
                     QStringList{cases[i].expected});
        QCOMPARE(TestCatalog::count("imageformat"), 3);

        const QString real = sharedDataPath("pydicom/charset_files");
        if (real.isEmpty())
            return;
        QDcmFiles importer;
        importer.loadLocalFilesToDB({real + "/chrX2.dcm", real + "/chrFren.dcm", real + "/chrX1.dcm", real + "/chrGerm.dcm"},
                                    0);
        const QStringList names = column("SELECT PatientName FROM patient ORDER BY PatientName");
        for (const char* name : {"Buc^Jérôme", "Äneas^Rüdiger", "Wang^XiaoDong=王^小東=", "Wang^XiaoDong=王^小东="})
            QVERIFY2(names.contains(QString::fromUtf8(name)), name);
    }

    void signalSequence_data() { TestCatalog::addBackendRows(); }
    void signalSequence()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage image;
        image.rows = image.columns = 8;
        writeSyntheticSeries(catalog.path("many"), image, 230);

        QDcmFiles importer;
        QStringList texts;
        QList<int> progress;
        QList<bool> finished;
        connect(&importer, qOverload<const QString&>(&QDcmFiles::readInfo), [&](const QString& t) { texts << t; });
        connect(&importer, qOverload<int, int>(&QDcmFiles::readInfo), [&](int value, int maximum) {
            QCOMPARE(maximum, 100);
            progress << value;
        });
        connect(&importer, &QDcmFiles::finishReadFiles, [&](bool done) { finished << done; });
        importer.loadLocalFolderToDB(catalog.path("many"), 0, true);

        QCOMPARE(finished, (QList<bool>{false, true}));
        QCOMPARE(texts.mid(0, 5), (QStringList{"Traversal", "read file ", "read file 100/230", "read file 200/230",
                                               "sort dicom"}));
        QCOMPARE(texts.at(5), QString("add data base"));
        QCOMPARE(texts.at(6), QString("start add data base "));
        QVERIFY2(QRegularExpression("^time \\d+ add data base:230/230$").match(texts.value(7)).hasMatch(),
                 qPrintable(texts.value(7)));
        QCOMPARE(texts.size(), 8);
        QCOMPARE(progress, (QList<int>{1, 4, 8, 10, 100, 100}));

        // No file at all: progress is reported, nothing is written, nothing divides by zero.
        progress.clear();
        QDcmFiles empty;
        connect(&empty, qOverload<int, int>(&QDcmFiles::readInfo), [&](int value, int) { progress << value; });
        empty.loadLocalFolderToDB(catalog.path("does-not-exist"), 0, true);
        QCOMPARE(progress, (QList<int>{1, 10, 100}));
        QCOMPARE(TestCatalog::count("imageformat"), 230);
    }

    void sharedData_data() { TestCatalog::addBackendRows(); }
    void sharedData()
    {
        QFETCH(QString, backend);
        const QString root = sharedDataPath();
        if (root.isEmpty())
            QSKIP("the shared DICOM data is not present");
        KESTREL_OPEN_CATALOG(catalog, backend);
        // Independent count from the files' own UIDs.
        QSet<QString> patients, studies, series, images;
        QDirIterator it(root, QDir::Files, QDirIterator::Subdirectories);
        while (it.hasNext()) {
            DcmFileFormat file;
            if (file.loadFile(QFile::encodeName(it.next()).constData(), EXS_Unknown, EGL_noChange, 1024).bad())
                continue;
            DcmDataset* ds = file.getDataset();
            auto text = [ds](const DcmTagKey& tag) {
                OFString v;
                ds->findAndGetOFString(tag, v);
                return QString::fromLatin1(v.c_str());
            };
            if (text(DCM_SeriesInstanceUID).isEmpty() || text(DCM_PatientID).isEmpty() || text(DCM_SOPInstanceUID).isEmpty())
                continue;
            patients << text(DCM_PatientID);
            studies << text(DCM_StudyInstanceUID);
            series << text(DCM_SeriesInstanceUID) + "#" + QDcmFiles::phaseOf(text(DCM_SeriesInstanceUID), &file);
            images << text(DCM_SOPInstanceUID);
        }
        QDcmFiles importer;
        importer.loadLocalFolderToDB(root, 0, true);
        QVERIFY(importer.lastImportSucceeded());
        QCOMPARE(TestCatalog::count("patient"), patients.size());
        QCOMPARE(TestCatalog::count("generalstudy"), studies.size());
        QCOMPARE(TestCatalog::count("generalseries"), series.size());
        QCOMPARE(TestCatalog::count("imageformat"), images.size());
        QCOMPARE(TestCatalog::count("imagepixel"), images.size());
        QCOMPARE(TestCatalog::count("mrimageinfo"), images.size());
        QCOMPARE(linkedImages("imagepixel"), images.size());
        QCOMPARE(column("SELECT DISTINCT ImageOrientationPatient FROM imagepixel i JOIN generalseries s ON "
                        "i.series_fk = s.pk WHERE s.SeriesDescription = 't1_fl2d_sag'"),
                 QStringList{"0\\1\\0\\0\\0\\-1"});
    }
};

QTEST_GUILESS_MAIN(TestImport)
#include "tst_import.moc"
