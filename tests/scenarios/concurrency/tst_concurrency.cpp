// Several workstations on one catalogue: real kestrel processes import overlapping folders, receive
// the same series and build the same volume at once. Every patient, study, series and image must
// end up exactly once, and the counts must equal an independent count of the files.
#include "dicompeers.h"
#include "syntheticdicom.h"
#include "testcatalog.h"

#include "programs.h"

#include "ndicomvolume.h"
#include "qinstance.h"
#include "qseries.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QSet>
#include <QThread>
#include <QtTest>

#include <memory>
#include <thread>
#include <vector>

namespace {

const int kRounds = 5;
const int kProcesses = 4;

QString text(DcmItem* item, const DcmTagKey& key)
{
    OFString value;
    item->findAndGetOFStringArray(key, value);
    return QString::fromLatin1(value.c_str()).trimmed();
}

// What an independent reader counts in a set of files: distinct images, series, studies, and
// patients by their identifying attributes (ID, issuer, birth date, name without case and
// trailing separators).
struct Expected {
    QSet<QString> images, series, studies, patients;
    void add(const QString& path)
    {
        DcmFileFormat file;
        if (file.loadFile(QFile::encodeName(path).constData()).bad())
            return;
        DcmDataset* d = file.getDataset();
        const QString sop = text(d, DCM_SOPInstanceUID);
        if (sop.isEmpty() || text(d, DCM_SeriesInstanceUID).isEmpty() || text(d, DCM_StudyInstanceUID).isEmpty())
            return;
        images << sop;
        series << text(d, DCM_SeriesInstanceUID);
        studies << text(d, DCM_StudyInstanceUID);
        QString name = text(d, DCM_PatientName);
        while (name.endsWith('^') || name.endsWith(' '))
            name.chop(1);
        patients << QStringList{text(d, DCM_PatientID), text(d, DCM_IssuerOfPatientID), text(d, DCM_PatientBirthDate),
                                name.toCaseFolded()}
                        .join('|');
    }
};

// A process of the host, started on its own.
struct Host {
    std::unique_ptr<QProcess> process = std::make_unique<QProcess>();
    QString label;
};

QString describe(const Host& host)
{
    return QString("%1: exit %2 (%3, %4)\n%5\n%6")
        .arg(host.label)
        .arg(host.process->exitCode())
        .arg(host.process->exitStatus() == QProcess::NormalExit ? "normal exit" : "crashed")
        .arg(host.process->errorString())
        .arg(QString::fromUtf8(host.process->readAllStandardOutput().right(800)),
             QString::fromUtf8(host.process->readAllStandardError().right(800)));
}

bool finishAll(std::vector<Host>& hosts, int timeoutMs, QString* failure)
{
    for (Host& host : hosts) {
        if (!host.process->waitForFinished(timeoutMs)) {
            host.process->kill();
            *failure = host.label + ": did not finish";
            return false;
        }
        if (host.process->exitStatus() != QProcess::NormalExit || host.process->exitCode() != 0) {
            *failure = describe(host);
            return false;
        }
    }
    return true;
}

} // namespace

class TestConcurrency : public QObject
{
    Q_OBJECT

private:
    QTemporaryDir m_inputs;
    QStringList m_sources;              // four folders; each process imports three of them
    Expected m_expected;

    // Catalogue rows that must be exactly the independent counts, and nothing orphaned or doubled.
    void checkCatalogue(const Expected& expected)
    {
        QCOMPARE(TestCatalog::count("patient"), expected.patients.size());
        QCOMPARE(TestCatalog::count("generalstudy"), expected.studies.size());
        QCOMPARE(TestCatalog::count("generalseries"), expected.series.size());
        for (const char* table : {"imageformat", "imagepixel", "mrimageinfo"}) {
            QCOMPARE(TestCatalog::count(table), expected.images.size());
            QCOMPARE(TestCatalog::value(QString("SELECT COUNT(DISTINCT SOPInstanceUID) FROM %1").arg(table)),
                     QString::number(expected.images.size()));
            QCOMPARE(TestCatalog::count(table, "series_fk NOT IN (SELECT pk FROM generalseries)"), 0);
        }
        QCOMPARE(TestCatalog::count("generalseries", "study_fk NOT IN (SELECT pk FROM generalstudy)"), 0);
        QCOMPARE(TestCatalog::count("generalstudy", "patient_fk NOT IN (SELECT pk FROM patient)"), 0);
    }

private slots:
    void initTestCase()
    {
        KESTREL_REQUIRE_HOST();
        // Four sources. Synthetic series are split across neighbouring sources, so that processes
        // race for the same patient, study and series rows; two people share one patient ID.
        for (int s = 0; s < 4; ++s)
            m_sources << m_inputs.filePath(QString("source%1").arg(s));
        struct Person { QString name, id, birth; };
        const Person people[] = {{"Alpha^Anna", "CC100", "19700101"}, {"Beta^Bert", "CC200", "19800202"},
                                 {"Gamma^Gus", "CC300", "19900303"}, {"Other^Olga", "CC100", "19650505"}};
        int written = 0;
        for (int p = 0; p < 4; ++p) {
            const QString study = newTestUid();
            for (int s = 0; s < 3; ++s) {
                SyntheticImage base;
                base.rows = base.columns = 8;
                base.patientName = people[p].name;
                base.patientId = people[p].id;
                base.extra.push_back({DCM_PatientBirthDate, people[p].birth});
                base.studyUid = study;
                base.seriesUid = newTestUid();
                base.seriesNumber = s + 1;
                const int count = 200;
                // Series s of person p: first half in source (p + s) % 4, second half in the next.
                for (int half = 0; half < 2; ++half) {
                    const QString dir = m_sources[(p + s + half) % 4] + QString("/p%1s%2h%3").arg(p).arg(s).arg(half);
                    SyntheticImage part = base;
                    part.instanceNumber = 1 + half * count / 2;
                    part.position = {0, 0, double(half * count / 2)};
                    written += writeSyntheticSeries(dir, part, count / 2, {0, 0, 1}).size();
                }
            }
        }
        QCOMPARE(written, 4 * 3 * 200);
        // Real series from other people's scanners, one per source where the data is there.
        const char* real[] = {"siemens_t1_sag", "siemens_gre_2echo", "philips_fmri_oblique", "ct_ge_3slice"};
        for (int s = 0; s < 4; ++s) {
            const QString path = sharedDataPath(real[s]);
            if (!path.isEmpty())
                QVERIFY(QFile::link(path, m_sources[s] + "/" + real[s]) || QDir(m_sources[s] + "/" + real[s]).exists());
        }
        for (const QString& source : m_sources) {
            QDirIterator it(source, QDir::Files, QDirIterator::Subdirectories | QDirIterator::FollowSymlinks);
            while (it.hasNext())
                m_expected.add(it.next());
        }
        QVERIFY(m_expected.images.size() >= 2400);
    }

    void importers_data()
    {
        QTest::addColumn<QString>("backend");
        QTest::addColumn<int>("round");
        for (const char* backend : {"sqlite", "mariadb"})
            for (int round = 0; round < kRounds; ++round)
                QTest::newRow(qPrintable(QString("%1 round %2").arg(backend).arg(round))) << QString(backend) << round;
    }

    // Four imports at once, each of three of the four sources, started with offsets that differ
    // from round to round.
    void importers()
    {
        QFETCH(QString, backend);
        QFETCH(int, round);
        KESTREL_OPEN_CATALOG(catalog, backend);
        std::vector<Host> hosts(kProcesses);
        QElapsedTimer clock;
        clock.start();
        for (int p = 0; p < kProcesses; ++p) {
            const int offsetMs = (p * (round + 1) * 37) % 120;
            while (clock.elapsed() < offsetMs)
                QThread::msleep(2);
            QStringList args{"--config", catalog.configDir(), "import"};
            for (int s = 0; s < 3; ++s)
                args << m_sources[(p + s + round) % 4];
            hosts[size_t(p)].label = QString("import %1").arg(p);
            hosts[size_t(p)].process->start(hostProgram(), args);
        }
        QString failure;
        QVERIFY2(finishAll(hosts, 300000, &failure), qPrintable(failure));
        checkCatalogue(m_expected);
    }

    void receivers_data() { TestCatalog::addBackendRows(); }

    // Two storage providers on one catalogue and one receiving folder; two senders send the same
    // series, one to each.
    void receivers()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        const QStringList files = filesBelow(m_sources[0] + "/p0s0h0") + filesBelow(m_sources[1] + "/p0s0h1");
        QCOMPARE(files.size(), 200);
        Expected expected;
        for (const QString& file : files)
            expected.add(file);
        std::vector<Host> listeners(2);
        QList<int> ports;
        for (int i = 0; i < 2; ++i) {
            ports << freePort();
            listeners[size_t(i)].label = QString("listen %1").arg(i);
            listeners[size_t(i)].process->setProcessEnvironment(peerEnvironment());
            listeners[size_t(i)].process->start(hostProgram(), {"--config", catalog.configDir(), "listen", "--port",
                                                           QString::number(ports.last()), "--out", catalog.path("received"),
                                                           "--import", "--seconds", "25"});
        }
        for (Host& listener : listeners) {
            QByteArray said;
            QElapsedTimer wait;
            wait.start();
            while (!said.contains("listening on port") && wait.elapsed() < 15000) {
                listener.process->waitForReadyRead(200);
                said += listener.process->readAllStandardOutput();
            }
            QVERIFY2(said.contains("listening on port"), qPrintable(describe(listener)));
        }
        std::vector<Host> senders(2);
        for (int i = 0; i < 2; ++i) {
            senders[size_t(i)].label = QString("storescu %1").arg(i);
            senders[size_t(i)].process->setProcessEnvironment(peerEnvironment());
            senders[size_t(i)].process->start("storescu", storescuArgs(ports[i], files, {"-v"}));
        }
        QString failure;
        QVERIFY2(finishAll(senders, 120000, &failure), qPrintable(failure));
        QVERIFY2(finishAll(listeners, 120000, &failure), qPrintable(failure));
        checkCatalogue(expected);
        // One file per image in the shared receiving folder, each a readable copy.
        Expected stored;
        const QStringList received = filesBelow(catalog.path("received"));
        for (const QString& file : received)
            stored.add(file);
        QCOMPARE(received.size(), expected.images.size());
        QCOMPARE(stored.images, expected.images);
    }

    void volumeBuilders_data() { TestCatalog::addBackendRows(); }

    // Two processes build the volume of one series at once: one registration row, one readable
    // cache file, and both draw the same planes.
    void volumeBuilders()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QProcess importer;
        importer.start(hostProgram(), {"--config", catalog.configDir(), "import", m_sources[0] + "/p0s0h0"});
        QVERIFY(importer.waitForFinished(60000));
        QCOMPARE(importer.exitCode(), 0);
        const QString seriesPk = TestCatalog::value("SELECT pk FROM generalseries");
        // The volume cache folder comes from ../config/cache.ini seen from the working folder.
        QDir().mkpath(catalog.path("work"));
        QSettings(catalog.configDir() + "/cache.ini", QSettings::IniFormat)
            .setValue("registration/cachepath", catalog.path("cache"));
        std::vector<Host> builders(2);
        for (int i = 0; i < 2; ++i) {
            builders[size_t(i)].label = QString("volume %1").arg(i);
            builders[size_t(i)].process->setWorkingDirectory(catalog.path("work"));
            builders[size_t(i)].process->start(hostProgram(), {"--config", catalog.configDir(), "volume", "--series", seriesPk,
                                                          "--out", catalog.path(QString("planes%1").arg(i))});
        }
        QString failure;
        QVERIFY2(finishAll(builders, 120000, &failure), qPrintable(failure));
        QCOMPARE(TestCatalog::count("registration"), 1);
        const QString cacheFile = TestCatalog::value("SELECT Savepath FROM registration");
        QVERIFY2(QFileInfo(cacheFile).size() > 100 * 8 * 8 * 2, qPrintable(cacheFile));
        QCOMPARE(QDir(catalog.path("cache")).entryList(QDir::Files).size(), 1);
        for (const char* plane : {"axial.png", "coronal.png", "sagittal.png"}) {
            QFile a(catalog.path("planes0/") + plane), b(catalog.path("planes1/") + plane);
            QVERIFY(a.open(QIODevice::ReadOnly) && b.open(QIODevice::ReadOnly));
            QCOMPARE(a.readAll(), b.readAll());
        }
        // A third run reads the cache that the two left behind.
        QProcess reader;
        reader.setWorkingDirectory(catalog.path("work"));
        reader.start(hostProgram(), {"--config", catalog.configDir(), "volume", "--series", seriesPk, "--out", catalog.path("planes2")});
        QVERIFY(reader.waitForFinished(60000));
        QCOMPARE(reader.exitCode(), 0);
        QCOMPARE(TestCatalog::count("registration"), 1);
    }

    void volumeOnWorkerThreads_data() { TestCatalog::addBackendRows(); }

    // A viewer builds volumes away from its window's thread: a series, its images and its volume
    // read on other threads equal those read on the thread that opened the catalogue, the cache
    // holds one registration, and each thread's connection ends with the thread.
    void volumeOnWorkerThreads()
    {
        QFETCH(QString, backend);
        KESTREL_OPEN_CATALOG(catalog, backend);
        QVERIFY(catalog.setVolumeCache(catalog.path("cache")));
        QCOMPARE(runHost({"--config", catalog.configDir(), "import", m_sources[0] + "/p0s0h0"}).exitCode, 0);
        const qint64 pk = TestCatalog::value("SELECT pk FROM generalseries").toLongLong();
        auto build = [pk]() -> QByteArray {
            QSeries series(pk);
            series.searchSeriesInfo();
            series.searchInstance();
            QByteArray read = series.getSeriesUID().toLatin1();
            for (QInstance* instance : series.getInstances()) {
                instance->searchInstanceInfo();
                read += instance->getFilePath().toUtf8();
            }
            NDicomVolume volume;
            if (!volume.getVolumeFromSeriesUID(&series))
                return read + "no volume";
            return read + QByteArray(reinterpret_cast<const char*>(volume.getHead()), sizeof(VolumeHead))
                   + QByteArray(volume.getData(), volume.getHead()->volumestep[3]);
        };
        const int connections = QSqlDatabase::connectionNames().size();
        QByteArray onWorker[2];
        std::thread first([&] { onWorker[0] = build(); });
        first.join();
        const QByteArray here = build();
        std::thread second([&] { onWorker[1] = build(); });
        second.join();
        QVERIFY(here.size() > 100 * 8 * 8 * 2);
        QCOMPARE(onWorker[0], here);
        QCOMPARE(onWorker[1], here);
        QCOMPARE(TestCatalog::count("registration"), 1);
        QCOMPARE(QSqlDatabase::connectionNames().size(), connections);
    }
};

QTEST_GUILESS_MAIN(TestConcurrency)
#include "tst_concurrency.moc"
