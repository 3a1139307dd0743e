#include "fileimage.h"
#include "qdcmfiles.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include "dicom/dcmvalues_p.h"
#include "programs.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcvris.h>

#include <QtSql>
#include <QtTest>

namespace {

// Rows of the patient, study, series and the three image tables.
QString catalogueCounts()
{
    QStringList counts;
    for (const char* table : {"patient", "generalstudy", "generalseries", "imageformat", "imagepixel", "mrimageinfo"})
        counts << QString::number(TestCatalog::count(table));
    return counts.join(' ');
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

// Image rows of TABLE whose series, study and patient rows exist and agree on the study UID.
int linkedImages(const QString& table)
{
    return TestCatalog::values(QString("SELECT COUNT(*) FROM %1 i JOIN generalseries s ON i.series_fk = s.pk "
                          "JOIN generalstudy st ON s.study_fk = st.pk JOIN patient p ON st.patient_fk = p.pk "
                          "WHERE s.StudyInstanceUID = st.StudyInstanceUID")
                      .arg(table))
        .value(0)
        .toInt();
}

} // namespace

QByteArray readBytes(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("<unreadable>");
}

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
        QFile whole(s1.last());
        whole.open(QIODevice::ReadOnly);
        for (const auto& [name, bytes] : {std::pair{"notes.txt", QByteArray("not a DICOM file\n")},
                                          {"empty.dcm", QByteArray()}, {"truncated.dcm", whole.read(200)}}) {
            QFile file(dir + "/" + name);
            file.open(QIODevice::WriteOnly);
            file.write(bytes);
        }
    }

private slots:
    void initTestCase_data() { TestCatalog::addBackendRows(); }
    void initTestCase() { qputenv("OMP_NUM_THREADS", "2"); }

    void hierarchyAndDeduplication()
    {
        QFETCH_GLOBAL(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString dir = catalog.path("in");
        writeMixedFolder(dir);

        QDcmFiles importer;
        QCOMPARE(importer.loadLocalFolderToDB(dir, 0, true), 0);
        QVERIFY(importer.lastImportSucceeded());
        QCOMPARE(catalogueCounts(), QString("2 2 3 7 7 7"));
        for (const char* table : {"imageformat", "imagepixel", "mrimageinfo"})
            QCOMPARE(linkedImages(table), 7);
        const QDcmFiles::RunCounts counts = importer.lastRunCounts();
        QCOMPARE((QList<int>{counts.imagesAdded, counts.duplicates, counts.skippedNoPatientID}), (QList<int>{7, 1, 1}));
        QVERIFY2(counts.unreadable >= 3, qPrintable(QString::number(counts.unreadable)));

        // Values read from the files are bound: SQL text and apostrophes are data.
        const QString sqlId = "P'1; DROP TABLE patient;--";
        const QString ofPatient = "(SELECT pk FROM patient WHERE PatientID = ?)";
        QCOMPARE(TestCatalog::values("SELECT PatientName FROM patient WHERE PatientID = ?", {sqlId}), QStringList{"O'Brien^Anne"});
        QCOMPARE(TestCatalog::values("SELECT DISTINCT StudyTime FROM generalstudy WHERE patient_fk = " + ofPatient, {sqlId}),
                 QStringList{"10:15:30"});
        QCOMPARE(TestCatalog::values("SELECT DISTINCT Status FROM generalseries"), QStringList{QString::fromUtf8("未上传")});
        const QStringList keys = TestCatalog::values("SELECT SeriesInstanceUID, SeriesBase FROM generalseries");
        for (int i = 0; i < keys.size(); i += 2)
            QCOMPARE(keys[i + 1], keys[i] + "#0");
        // Multi-valued attributes stay whole; the component columns hold them by index.
        QCOMPARE(TestCatalog::values("SELECT DISTINCT f.ImageType, f.ContentDate, p.ImageOrientationPatient FROM imageformat f "
                        "JOIN imagepixel p ON p.SOPInstanceUID = f.SOPInstanceUID"),
                 (QStringList{"ORIGINAL\\PRIMARY\\M", "", "1\\0\\0\\0\\1\\0"}));
        QCOMPARE(TestCatalog::values("SELECT PixelSpacing, SpacingX, SpacingY, OrientationYY, PositionX, ImagePositionPatient "
                        "FROM imagepixel WHERE PositionZ = 35"),
                 (QStringList{"0.5\\0.75", "0.5", "0.75", "1", "-10", "-10\\20\\35"}));
        QCOMPARE(TestCatalog::values("SELECT InstanceNumber FROM imageformat WHERE series_fk = (SELECT pk FROM generalseries WHERE "
                        "SeriesNumber = '1' AND study_fk IN (SELECT pk FROM generalstudy WHERE patient_fk = " + ofPatient +
                        ")) ORDER BY InstanceNumber",
                        {sqlId}),
                 (QStringList{"1", "2", "3"}));

        // A second run over the same folder, by another importer, writes nothing.
        QDcmFiles again;
        again.loadLocalFolderToDB(dir, 0, true);
        QVERIFY(again.lastImportSucceeded());
        QCOMPARE(catalogueCounts(), QString("2 2 3 7 7 7"));
        QCOMPARE(again.lastRunCounts().duplicates, 8);
        QCOMPARE(again.lastRunCounts().imagesAdded, 0);

        // New images of a known series join it.
        SyntheticImage extra;
        extra.patientId = "P2";
        extra.studyUid = TestCatalog::values("SELECT StudyInstanceUID FROM generalstudy WHERE patient_fk = " + ofPatient, {"P2"}).value(0);
        extra.seriesUid = TestCatalog::values("SELECT SeriesInstanceUID FROM generalseries WHERE StudyInstanceUID = ?", {extra.studyUid}).value(0);
        extra.instanceNumber = 3;
        QVERIFY(writeSyntheticImage(catalog.path("late.dcm"), extra));
        again.reinit();
        again.loadLocalFilesToDB({catalog.path("late.dcm")}, 0);
        QCOMPARE(TestCatalog::count("generalseries"), 3);
        QCOMPARE(TestCatalog::values("SELECT COUNT(*) FROM imageformat i JOIN generalseries s ON i.series_fk = s.pk WHERE s.SeriesInstanceUID = ?",
                        {extra.seriesUid}),
                 QStringList{"3"});
    }

    void phases()
    {
        QFETCH_GLOBAL(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        // Fourth component "30917": the served scanners' phase element splits one series UID.
        SyntheticImage served;
        served.studyUid = newTestUid();
        served.seriesUid = "1.2.840.30917.77." + QString::number(QDateTime::currentMSecsSinceEpoch());
        const QStringList first = writeSyntheticSeries(catalog.path("served/p1"), served, 2);
        served.instanceNumber = 3;
        const QStringList second = writeSyntheticSeries(catalog.path("served/p2"), served, 3);
        // Any other UID ignores the element.
        SyntheticImage other;
        other.studyUid = served.studyUid;
        other.seriesUid = "1.2.840.30918.1.2";
        const QStringList third = writeSyntheticSeries(catalog.path("served/other"), other, 2);
        for (const auto& [files, phase] : {std::pair{first, 1}, {second, 2}, {third, 5}})
            for (const QString& f : files)
                QVERIFY(setPhase(f, phase));

        // Each series row gets its own images, also after a second run over the same files.
        for (int run = 0; run < 2; ++run) {
            QDcmFiles importer;
            importer.loadLocalFolderToDB(catalog.path("served"), 0, true);
            QCOMPARE(TestCatalog::values("SELECT SeriesBase FROM generalseries ORDER BY SeriesBase"),
                     (QStringList{served.seriesUid + "#1", served.seriesUid + "#2", other.seriesUid + "#0"}));
            QCOMPARE(TestCatalog::values("SELECT s.SeriesBase, COUNT(*) FROM imagepixel i JOIN generalseries s ON i.series_fk = s.pk "
                            "GROUP BY s.SeriesBase ORDER BY s.SeriesBase"),
                     (QStringList{served.seriesUid + "#1", "2", served.seriesUid + "#2", "3", other.seriesUid + "#0", "2"}));
            QCOMPARE(TestCatalog::count("imageformat"), 7);
        }
    }

    // Two exports of one series with the same file names, and an image that repeats a stored
    // image's UID with other content: every image stored once, nothing overwritten.
    void copyModeNamesBySopUid()
    {
        QFETCH_GLOBAL(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QSettings(catalog.configDir() + "/datasavepath.ini", QSettings::IniFormat).setValue("save/savepath", catalog.path("storage"));
        SyntheticImage image;
        image.studyUid = newTestUid();
        image.seriesUid = newTestUid();
        QStringList first = writeSyntheticSeries(catalog.path("export1"), image, 10);
        image.instanceNumber = 11;
        QStringList second = writeSyntheticSeries(catalog.path("export2"), image, 10);
        QCOMPARE(QFileInfo(first[0]).fileName(), QFileInfo(second[0]).fileName());
        QDcmFiles importer;
        importer.loadLocalFilesToDB(first + second, 1);
        QCOMPARE(TestCatalog::count("imageformat"), 20);
        QCOMPARE(TestCatalog::value("SELECT COUNT(DISTINCT FilePath) FROM imageformat"), QString("20"));
        for (const QString& stored : TestCatalog::values("SELECT FilePath FROM imageformat"))
            QVERIFY2(QFileInfo::exists(stored) && stored.startsWith(catalog.path("storage")), qPrintable(stored));

        // Another content under a stored UID: reported, the stored copy and its row stay.
        const QString stored = TestCatalog::value("SELECT FilePath FROM imageformat WHERE InstanceNumber = 1");
        const QByteArray before = readBytes(stored);
        SyntheticImage impostor = image;
        impostor.sopUid = fileText(first[0], DCM_SOPInstanceUID);
        impostor.pixel = [](int, int, int) { return 7; };
        QVERIFY(writeSyntheticImage(catalog.path("impostor/x.dcm"), impostor));
        QDcmFiles again;
        again.loadLocalFolderToDB(catalog.path("impostor"), 1, true);
        QCOMPARE(readBytes(stored), before);
        QCOMPARE(TestCatalog::count("imageformat"), 20);
        QCOMPARE(again.lastRunCounts().skippedFiles.size(), 1);
        QVERIFY(again.lastRunCounts().skippedFiles.first().contains("other content"));
    }

    void copyMode()
    {
        QFETCH_GLOBAL(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QString storage = catalog.path("storage");
        QSettings(catalog.configDir() + "/datasavepath.ini", QSettings::IniFormat).setValue("save/savepath", storage);
        SyntheticImage image;
        image.patientId = "PID/with slash";
        image.studyUid = newTestUid();
        image.seriesUid = newTestUid();
        const QStringList sources = writeSyntheticSeries(catalog.path("src"), image, 3);
        const QString seriesDir = storage + "/" + QDate::currentDate().toString("yyyy-MM-dd") + "/PID_with_slash/" +
                                  image.studyUid + "/" + image.seriesUid + "_0";
        // Stored copies are named after their SOP Instance UID.
        QStringList copies;
        for (const QString& source : sources)
            copies << seriesDir + "/" + fileText(source, DCM_SOPInstanceUID) + ".dcm";
        // The third file's destination is blocked by a folder that cannot be replaced.
        QDir().mkpath(copies[2] + "/keep");

        QDcmFiles importer;
        importer.loadLocalFolderToDB(catalog.path("src"), 1, true);
        QCOMPARE(TestCatalog::values("SELECT FilePath, IrradiationEventUID FROM imageformat ORDER BY InstanceNumber"),
                 (QStringList{copies[0], "copy", copies[1], "copy", sources[2], ""})); // the failed copy keeps the source
        QVERIFY(QFileInfo::exists(copies[0]) && QFileInfo::exists(copies[1]));

        // The same files again on the same day: the vanished copy and the failed one stored, no new row.
        QDir(copies[2]).removeRecursively();
        QFile::remove(copies[0]);
        QDcmFiles again;
        again.loadLocalFolderToDB(catalog.path("src"), 1, true);
        QCOMPARE(TestCatalog::values("SELECT FilePath FROM imageformat ORDER BY InstanceNumber"), copies);
        QVERIFY(QFileInfo::exists(copies[0]) && QFileInfo(copies[2]).isFile());

        // Images marked "reserved" stay where their rows say.
        QCOMPARE(TestCatalog::values("UPDATE imageformat SET IrradiationEventUID = 'reserved', FilePath = 'kept'"), QStringList());
        QDcmFiles third;
        third.loadLocalFolderToDB(catalog.path("src"), 1, true);
        QCOMPARE(TestCatalog::values("SELECT FilePath FROM imageformat"), (QStringList{"kept", "kept", "kept"}));
    }

    void commandLine()
    {
        QFETCH_GLOBAL(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        writeSyntheticSeries(catalog.path("cli"), SyntheticImage(), 3);
        QFile(catalog.path("cli/readme.txt")).open(QIODevice::WriteOnly);
        KESTREL_REQUIRE_HOST();
        HostRun run = runHost({"--config", catalog.configDir(), "import", catalog.path("cli")});
        QCOMPARE(run.exitCode, 0);
        QVERIFY2(run.out.contains("images added:      3") && run.out.contains("files unreadable:  1"), qPrintable(run.out));
        QCOMPARE(TestCatalog::count("imageformat"), 3);

        run = runHost({"--config", catalog.configDir(), "import", catalog.path("missing")});
        QVERIFY(run.exitCode != 0);
        QVERIFY(run.err.contains("no such file or folder"));
    }

    void receiveQueue()
    {
        QFETCH_GLOBAL(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage image;
        image.seriesUid = newTestUid();
        const QStringList files = writeSyntheticSeries(catalog.path("recv"), image, 3);
        QCOMPARE(TestCatalog::values("INSERT INTO series (seriesUID, recvnum, upDBnum, upCloudnum) VALUES (?, 3, 0, 0)", {image.seriesUid}),
                 QStringList());
        for (const QString& file : files) {
            DcmFileFormat ff;
            QVERIFY(ff.loadFile(QFile::encodeName(file).constData()).good());
            QCOMPARE(TestCatalog::values("INSERT INTO images (seriesUID, InstanceUID, DBflag, Cloudflag, filepath) VALUES (?, ?, 0, 0, ?)",
                            {image.seriesUid, kestrel::internal::dcmString(ff.getDataset(), DCM_SOPInstanceUID), file}),
                     QStringList());
        }

        QDcmFiles importer;
        QStringList order;
        connect(&importer, &QDcmFiles::notifyUpdateMainWindow, [&] { order << "update"; });
        connect(&importer, &QDcmFiles::notifyNewSeriesUID, [&](const QString& uid) { order << "new:" + uid; });
        importer.onNotifyUploadDB(image.seriesUid);
        QCOMPARE(order, (QStringList{"update", "new:" + image.seriesUid}));
        QCOMPARE(TestCatalog::count("imageformat"), 3);
        QCOMPARE(TestCatalog::count("images", "DBflag = 1"), 3);
        QCOMPARE(TestCatalog::values("SELECT upDBnum FROM series"), QStringList{"3"});

        // Nothing waiting: no run, no signal.
        order.clear();
        importer.onNotifyUploadDB(image.seriesUid);
        QVERIFY(order.isEmpty());
        QCOMPARE(TestCatalog::count("imageformat"), 3);
    }

    void characterSets()
    {
        QFETCH_GLOBAL(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const struct {
            QString charset;
            QByteArray bytes;
            QString expected;
        } cases[] = {
            {"ISO_IR 100", QByteArray("Buc^J\xe9r\xf4me"), QString::fromUtf8("Buc^Jérôme")},
            {"ISO_IR 192", QByteArray("Wang^XiaoDong=\xe7\x8e\x8b^\xe5\xb0\x8f\xe6\x9d\xb1="), QString::fromUtf8("Wang^XiaoDong=王^小東=")},
            {"GB18030", QByteArray("Wang^XiaoDong=\xcd\xf5^\xd0\xa1\xb6\xab="), QString::fromUtf8("Wang^XiaoDong=王^小东=")},
        };
        // The GB18030 file comes first: the next files' names and an accented path still read right.
        for (int i = 2; i >= 0; --i) {
            SyntheticImage image;
            image.specificCharacterSet = cases[i].charset;
            image.patientNameBytes = cases[i].bytes;
            image.patientId = "CS" + QString::number(i);
            const QString path = catalog.path(QString::fromUtf8("données_é/%1.dcm").arg(i));
            QDir().mkpath(QFileInfo(path).path());
            QVERIFY(writeSyntheticImage(path, image));
            QDcmFiles().loadLocalFilesToDB({path}, 0);
        }
        for (int i = 0; i < 3; ++i)
            QCOMPARE(TestCatalog::values("SELECT PatientName FROM patient WHERE PatientID = ?", {"CS" + QString::number(i)}),
                     QStringList{cases[i].expected});
        QCOMPARE(TestCatalog::count("imageformat"), 3);

        // The shared files in every character set: each patient's name as it reads (the
        // files' own list of names), code extensions and sets of names included.
        const QString real = sharedDataPath("pydicom/charset_files");
        if (real.isEmpty())
            return;
        const struct {
            const char* file;
            const char* patientId;
            const char* name;
        } files[] = {
            {"chrArab.dcm", "SCSARAB", "قباني^لنزار"},
            {"chrFren.dcm", "SCSFREN", "Buc^Jérôme"},
            {"chrFrenMulti.dcm", "SCSFREN", "Buc^Jérôme"},
            {"chrGerm.dcm", "SCSGERM", "Äneas^Rüdiger"},
            {"chrGreek.dcm", "SCSGREEK", "Διονυσιος"},
            {"chrH31.dcm", "H31EXAMPLE", "Yamada^Tarou=山田^太郎=やまだ^たろう"},
            {"chrH32.dcm", "H32EXAMPLE", "ﾔﾏﾀﾞ^ﾀﾛｳ=山田^太郎=やまだ^たろう"},
            {"chrHbrw.dcm", "SCSHBRW", "שרון^דבורה"},
            {"chrI2.dcm", "I2EXAMPLE", "Hong^Gildong=洪^吉洞=홍^길동"},
            {"chrJapMulti.dcm", "2008-4", "やまだ^たろう"},
            {"chrJapMultiExplicitIR6.dcm", "2008-4", "やまだ^たろう"},
            {"chrKoreanMulti.dcm", "2008-3", "김희중"},
            {"chrRuss.dcm", "SCSRUSS", "Люкceмбypг"},
            {"chrX1.dcm", "X1EXAMPLE", "Wang^XiaoDong=王^小東="},
            {"chrX2.dcm", "X2EXAMPLE", "Wang^XiaoDong=王^小东="},
        };
        QStringList paths;
        for (const auto& f : files)
            paths << real + "/" + f.file;
        QDcmFiles().loadLocalFilesToDB(paths, 0);
        for (const auto& f : files)
            QCOMPARE(TestCatalog::values("SELECT PatientName FROM patient WHERE PatientID = ?", {f.patientId}),
                     QStringList{QString::fromUtf8(f.name)});
        // A multi-valued name column, read through the catalogue's column plan.
        QCOMPARE(TestCatalog::values("SELECT OtherPatientNames FROM patient WHERE PatientID = ?", {"2008-3"}),
                 QStringList{QString::fromUtf8("김희중\\김희중")});
    }

    void signalSequence()
    {
        QFETCH_GLOBAL(QString, backend);
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
        QCOMPARE(texts.size(), 8);
        QVERIFY2(QRegularExpression("^time \\d+ add data base:230/230$").match(texts.last()).hasMatch(), qPrintable(texts.last()));
        QCOMPARE(texts.mid(0, 7), (QStringList{"Traversal", "read file ", "read file 100/230", "read file 200/230", "sort dicom",
                                               "add data base", "start add data base "}));
        QCOMPARE(progress, (QList<int>{1, 4, 8, 10, 100, 100}));

        // No file at all: progress is reported, nothing is written, nothing divides by zero.
        progress.clear();
        QDcmFiles empty;
        connect(&empty, qOverload<int, int>(&QDcmFiles::readInfo), [&](int value, int) { progress << value; });
        empty.loadLocalFolderToDB(catalog.path("does-not-exist"), 0, true);
        QCOMPARE(progress, (QList<int>{1, 10, 100}));
        QCOMPARE(TestCatalog::count("imageformat"), 230);
    }

    void sharedData()
    {
        QFETCH_GLOBAL(QString, backend);
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
            auto text = [&file](const DcmTagKey& tag) {
                OFString v;
                file.getDataset()->findAndGetOFString(tag, v);
                return QString::fromLatin1(v.c_str());
            };
            if (text(DCM_SeriesInstanceUID).isEmpty() || text(DCM_PatientID).isEmpty() || text(DCM_SOPInstanceUID).isEmpty() ||
                text(DCM_StudyInstanceUID).isEmpty())
                continue;
            // A person is the ID with its issuer, the birth date and the name (case and trailing
            // separators aside): several people share IDs in real data.
            QString name = text(DCM_PatientName).trimmed();
            while (name.endsWith('^'))
                name.chop(1);
            patients << QStringList{text(DCM_PatientID), text(DCM_IssuerOfPatientID), text(DCM_PatientBirthDate),
                                    name.toCaseFolded()}.join('|');
            studies << text(DCM_StudyInstanceUID);
            series << text(DCM_SeriesInstanceUID) + "#" + QDcmFiles::phaseOf(text(DCM_SeriesInstanceUID), &file);
            images << text(DCM_SOPInstanceUID);
        }
        QDcmFiles importer;
        importer.loadLocalFolderToDB(root, 0, true);
        QVERIFY(importer.lastImportSucceeded());
        QCOMPARE(catalogueCounts(), QString("%1 %2 %3 %4 %4 %4").arg(patients.size()).arg(studies.size()).arg(series.size()).arg(images.size()));
        QCOMPARE(linkedImages("imagepixel"), images.size());
        QCOMPARE(TestCatalog::values("SELECT DISTINCT ImageOrientationPatient FROM imagepixel i JOIN generalseries s ON "
                        "i.series_fk = s.pk WHERE s.SeriesDescription = 't1_fl2d_sag'"),
                 QStringList{"0\\1\\0\\0\\0\\-1"});
    }
};

QTEST_GUILESS_MAIN(TestImport)
#include "tst_import.moc"
