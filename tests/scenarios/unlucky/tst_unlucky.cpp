// What an unlucky user runs into with the host: files that name no study or no instance, folders
// given relative to the working folder and then moved, a catalogue server that accepts and never
// answers, images the picture commands cannot show. Each ends with rows where they belong and a
// message that names the cause.
#include "syntheticdicom.h"
#include "programs.h"
#include "testcatalog.h"

#include "veldatabaseconnection.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QElapsedTimer>
#include <QtTest>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// Rewrites FILE with TAG removed, or set to VALUE when one is given.
bool editFile(const QString& file, const DcmTagKey& tag, const char* value = nullptr)
{
    DcmFileFormat dicom;
    if (dicom.loadFile(QFile::encodeName(file).constData()).bad())
        return false;
    if (value)
        dicom.getDataset()->putAndInsertString(tag, value);
    else
        dicom.getDataset()->findAndDeleteElement(tag);
    return dicom.saveFile(QFile::encodeName(file).constData(), EXS_LittleEndianExplicit).good();
}

QString counts()
{
    QStringList out;
    for (const char* table : {"patient", "generalstudy", "generalseries", "imageformat"})
        out << QString::number(TestCatalog::count(table));
    return out.join(' ');
}

} // namespace

class TestUnlucky : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase()
    {
        KESTREL_REQUIRE_HOST();
    }

    // Files without a study or instance UID (absent or empty) are named and leave no rows; they
    // never join another patient's study, whatever is imported before or after.
    void filesThatNameNoStudy_data() { TestCatalog::addBackendRows(); }
    void filesThatNameNoStudy()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage b;
        b.patientId = "B";
        const QStringList broken = writeSyntheticSeries(catalog.path("broken"), b, 3);
        QVERIFY(editFile(broken[0], DCM_StudyInstanceUID));
        QVERIFY(editFile(broken[1], DCM_StudyInstanceUID, ""));
        QVERIFY(editFile(broken[2], DCM_SOPInstanceUID));
        for (int round = 0; round < 2; ++round) {
            const HostRun run = runHost({"--config", catalog.configDir(), "import", catalog.path("broken")});
            QCOMPARE(run.exitCode, 0);
            QVERIFY2(run.out.contains("files unreadable:  3") && run.out.contains(broken[0] + ": no StudyInstanceUID") &&
                         run.out.contains(broken[1] + ": no StudyInstanceUID") &&
                         run.out.contains(broken[2] + ": no SOPInstanceUID"),
                     qPrintable(run.out));
            QCOMPARE(counts(), QString("0 0 0 0"));
        }
        SyntheticImage a;
        a.patientId = "A";
        writeSyntheticSeries(catalog.path("good"), a, 2);
        for (const char* folder : {"good", "broken", "good"})
            QCOMPARE(runHost({"--config", catalog.configDir(), "import", catalog.path(folder)}).exitCode, 0);
        QCOMPARE(counts(), QString("1 1 1 2"));
        QCOMPARE(TestCatalog::values("SELECT DISTINCT PatientID FROM patient"), QStringList{"A"});
    }

    // A folder named relative to the working folder is catalogued by its absolute path; moved and
    // imported again, its rows follow it; the volume then builds from any working folder.
    void relativeFoldersMoved_data() { TestCatalog::addBackendRows(); }
    void relativeFoldersMoved()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        SyntheticImage image;
        image.rows = image.columns = 16;
        writeSyntheticSeries(catalog.path("work/series"), image, 4);
        QCOMPARE(runHost({"--config", catalog.configDir(), "import", "series"}, catalog.path("work")).exitCode, 0);
        const QString real = QFileInfo(catalog.path("work/series")).canonicalFilePath();
        for (const QString& path : TestCatalog::values("SELECT FilePath FROM imageformat"))
            QVERIFY2(path.startsWith(real + "/"), qPrintable(path));

        QVERIFY(QDir().rename(catalog.path("work/series"), catalog.path("work/moved")));
        QCOMPARE(runHost({"--config", catalog.configDir(), "import", "./moved/"}, catalog.path("work")).exitCode, 0);
        QCOMPARE(counts(), QString("1 1 1 4"));
        const QString moved = QFileInfo(catalog.path("work/moved")).canonicalFilePath();
        for (const QString& path : TestCatalog::values("SELECT FilePath FROM imageformat"))
            QVERIFY2(path.startsWith(moved + "/") && QFileInfo::exists(path), qPrintable(path));

        QDir().mkpath(catalog.path("elsewhere"));
        const QString series = TestCatalog::value("SELECT pk FROM generalseries");
        const HostRun volume = runHost({"--config", catalog.configDir(), "volume", "--series", series, "--out", "planes"},
                                   catalog.path("elsewhere"));
        QVERIFY2(volume.exitCode == 0 && QFileInfo::exists(catalog.path("elsewhere/planes/axial.png")), qPrintable(volume.err));
    }

    // A series with files missing in the middle and one that no longer reads: the volume is built
    // and the host says where slices are missing and which file was left out.
    void volumeWithMissingFiles()
    {
        TestCatalog catalog("sqlite");
        QVERIFY(catalog.open());
        SyntheticImage image;
        image.rows = image.columns = 16;
        const QStringList files = writeSyntheticSeries(catalog.path("series"), image, 10);
        QCOMPARE(runHost({"--config", catalog.configDir(), "import", catalog.path("series")}).exitCode, 0);
        QVERIFY(QFile::remove(files[4]) && QFile::remove(files[5]));
        QFile broken(files[8]);
        QVERIFY(broken.open(QIODevice::WriteOnly | QIODevice::Truncate));
        broken.write("gone bad");
        broken.close();
        const QString series = TestCatalog::value("SELECT pk FROM generalseries");
        const HostRun run = runHost({"--config", catalog.configDir(), "volume", "--series", series, "--out", catalog.path("planes")},
                                catalog.path("."));
        QVERIFY2(run.exitCode == 0, qPrintable(run.err));
        QVERIFY2(run.out.contains("gap: slice 4 lies ") && run.out.contains("left out: " + files[4] + ": cannot be read") &&
                     run.out.contains("left out: " + files[8] + ": cannot be read"),
                 qPrintable(run.out));
    }

    // A catalogue server that takes the connection and never answers: the host gives up within
    // seconds and says why, in one line.
    void silentServer()
    {
        TestCatalog catalog("sqlite");
        // Listening, so connections are taken, and never accepted or answered.
        const int silent = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        QVERIFY(::bind(silent, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0 && ::listen(silent, 8) == 0 &&
                ::getsockname(silent, reinterpret_cast<sockaddr*>(&address), &length) == 0);
        QFile ini(catalog.configDir() + "/database.ini");
        QVERIFY(ini.open(QIODevice::WriteOnly | QIODevice::Truncate));
        ini.write("[currentdatabase]\ndbname=site\n[site]\ndatabaseType=QMYSQL\nhostName=127.0.0.1\n"
                  "databaseName=kestrel\ndefaultName=mysql\nuserName=root\n");
        ini.close();
        qputenv("MYSQL_TCP_PORT", QByteArray::number(ntohs(address.sin_port)));
        QElapsedTimer clock;
        clock.start();
        const HostRun run = runHost({"--config", catalog.configDir(), "tree"});
        qunsetenv("MYSQL_TCP_PORT");
        ::close(silent);
        QVERIFY2(clock.elapsed() < 30000, qPrintable(QString::number(clock.elapsed())));
        QCOMPARE(run.exitCode, 1);
        const QString said = run.err.trimmed().split('\n').last();
        QVERIFY2(said.startsWith("kestrel tree: cannot open the catalogue of ") && said.contains("handshake"), qPrintable(run.err));
    }

    // The picture commands say what keeps them from showing an image.
    void imagesThatCannotBeShown()
    {
        QTemporaryDir dir;
        SyntheticImage eight;
        eight.bitsAllocated = eight.bitsStored = 8;
        QVERIFY(writeSyntheticImage(dir.filePath("eight.dcm"), eight));
        SyntheticImage colour;
        colour.samplesPerPixel = 3;
        colour.photometric = "RGB";
        colour.bitsAllocated = colour.bitsStored = 8;
        QVERIFY(writeSyntheticImage(dir.filePath("colour.dcm"), colour));
        QFile text(dir.filePath("notes.dcm"));
        QVERIFY(text.open(QIODevice::WriteOnly));
        text.write("not an image\n");
        text.close();
        const struct {
            const char* file;
            const char* cause;
        } cases[] = {{"colour.dcm", "3 samples per pixel (colour)"}, {"notes.dcm", "not a readable DICOM file"},
                     {"emri_small.dcm", "10 frames"}};
        for (const auto& c : cases) {
            QString file = dir.filePath(c.file);
            if (!QFileInfo::exists(file))
                file = sharedDataPath(QString("pydicom_data/") + c.file);
            if (file.isEmpty())
                continue;
            for (const QStringList& args : {QStringList{"image", file, "--png", dir.filePath("out.png")},
                                            QStringList{"roi", file, "rect", "0", "0", "2", "2"}}) {
                const HostRun run = runHost(args);
                QVERIFY2(run.exitCode != 0 && run.err.contains(c.cause), qPrintable(args.join(" ") + ": " + run.err));
            }
        }
        // Grey 8-bit images are shown.
        QCOMPARE(runHost({"image", dir.filePath("eight.dcm"), "--png", dir.filePath("eight.png")}).exitCode, 0);
        const HostRun inf = runHost({"roi", dir.filePath("eight.dcm"), "rect", "10", "10", "inf", "inf"});
        QVERIFY2(inf.exitCode != 0 && inf.err.contains("not a finite number: inf"), qPrintable(inf.err));
    }
};

QTEST_GUILESS_MAIN(TestUnlucky)
#include "tst_unlucky.moc"
