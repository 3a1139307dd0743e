// Import benchmark: a synthetic MR corpus (single-frame 256x256 files, several patients, studies
// and series) read with DCMTK alone (the header-read limit) and imported by QDcmFiles into SQLite
// and MariaDB, first and repeated import, side by side.
//
//   bench_import [--files N] [--corpus DIR] [--mysql-socket PATH] [--repeat R]
//
// MariaDB runs when a socket is given (or KESTREL_TEST_MYSQL_SOCKET is set).
#include "benchcatalogue.h"
#include "growth.h"
#include "kestrelpaths.h"
#include "qdcmfiles.h"
#include "veldatabaseconnection.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcuid.h>
#include <dcmtk/oflog/oflog.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QTextStream>
#include <QUuid>

#include <omp.h>

#include <memory>
#include <vector>

// The importer's own timing lines: reading pass, grouping, import pass (milliseconds).
static QList<qint64> g_phases;

namespace {

QTextStream out(stdout);

QString uid()
{
    char buffer[100];
    return QString::fromLatin1(dcmGenerateUniqueIdentifier(buffer, "1.2.826.0.1.3680043.10.4321"));
}

void put(DcmDataset* ds, const DcmTagKey& tag, const QString& value)
{
    ds->putAndInsertString(tag, value.toLatin1().constData());
}

// Writes the corpus into DIR unless a complete one is there; returns the file list.
QStringList writeCorpus(const QString& dir, int files, int* patientsOut, int* seriesOut)
{
    const int patients = qMax(1, files / 1250);
    const int studies = 2, seriesPerStudy = 5;
    const int perSeries = qMax(1, files / (patients * studies * seriesPerStudy));
    *patientsOut = patients;
    *seriesOut = patients * studies * seriesPerStudy;
    const QString marker = dir + "/.complete";
    QStringList list;
    if (!QFile::exists(marker)) {
        QDir(dir).removeRecursively();
        QDir().mkpath(dir);
        out << "writing " << patients * studies * seriesPerStudy * perSeries << " files into " << dir << " ..." << Qt::endl;
        std::vector<Uint16> pixels(256 * 256);
        for (size_t i = 0; i < pixels.size(); ++i)
            pixels[i] = Uint16((i * 7) % 4096);
        for (int p = 0; p < patients; ++p) {
            for (int s = 0; s < studies; ++s) {
                const QString studyUid = uid();
                for (int e = 0; e < seriesPerStudy; ++e) {
                    const QString seriesUid = uid();
                    const QString folder = QString("%1/p%2/st%3/se%4").arg(dir).arg(p).arg(s).arg(e);
                    QDir().mkpath(folder);
                    for (int k = 0; k < perSeries; ++k) {
                        DcmFileFormat file;
                        DcmDataset* ds = file.getDataset();
                        put(ds, DCM_SpecificCharacterSet, "ISO_IR 100");
                        put(ds, DCM_ImageType, "ORIGINAL\\PRIMARY\\M\\ND");
                        put(ds, DCM_SOPClassUID, UID_MRImageStorage);
                        put(ds, DCM_SOPInstanceUID, uid());
                        put(ds, DCM_StudyDate, "20240131");
                        put(ds, DCM_StudyTime, "101500.000");
                        put(ds, DCM_SeriesTime, "102000");
                        put(ds, DCM_ContentDate, "20240131");
                        put(ds, DCM_Modality, "MR");
                        put(ds, DCM_Manufacturer, "Bench");
                        put(ds, DCM_InstitutionName, "Bench Hospital");
                        put(ds, DCM_StudyDescription, "Brain");
                        put(ds, DCM_SeriesDescription, QString("series %1").arg(e));
                        put(ds, DCM_PatientName, QString("Bench^Patient%1").arg(p));
                        put(ds, DCM_PatientID, QString("BENCH%1").arg(p));
                        put(ds, DCM_PatientBirthDate, "19700101");
                        put(ds, DCM_PatientSex, "O");
                        put(ds, DCM_ScanningSequence, "GR");
                        put(ds, DCM_SequenceVariant, "SP");
                        put(ds, DCM_MRAcquisitionType, "2D");
                        put(ds, DCM_SliceThickness, "3");
                        put(ds, DCM_RepetitionTime, "500");
                        put(ds, DCM_EchoTime, "12");
                        put(ds, DCM_MagneticFieldStrength, "3");
                        put(ds, DCM_SpacingBetweenSlices, "3");
                        put(ds, DCM_FlipAngle, "70");
                        put(ds, DCM_StudyInstanceUID, studyUid);
                        put(ds, DCM_SeriesInstanceUID, seriesUid);
                        put(ds, DCM_StudyID, QString::number(s + 1));
                        put(ds, DCM_SeriesNumber, QString::number(e + 1));
                        put(ds, DCM_InstanceNumber, QString::number(k + 1));
                        put(ds, DCM_ImagePositionPatient, QString("-120\\-120\\%1").arg(k * 3));
                        put(ds, DCM_ImageOrientationPatient, "1\\0\\0\\0\\1\\0");
                        put(ds, DCM_SliceLocation, QString::number(k * 3));
                        ds->putAndInsertUint16(DCM_SamplesPerPixel, 1);
                        put(ds, DCM_PhotometricInterpretation, "MONOCHROME2");
                        ds->putAndInsertUint16(DCM_Rows, 256);
                        ds->putAndInsertUint16(DCM_Columns, 256);
                        put(ds, DCM_PixelSpacing, "0.9375\\0.9375");
                        ds->putAndInsertUint16(DCM_BitsAllocated, 16);
                        ds->putAndInsertUint16(DCM_BitsStored, 12);
                        ds->putAndInsertUint16(DCM_HighBit, 11);
                        ds->putAndInsertUint16(DCM_PixelRepresentation, 0);
                        ds->putAndInsertUint16Array(DCM_PixelData, pixels.data(), pixels.size());
                        const QString path = QString("%1/im%2.dcm").arg(folder).arg(k, 4, 10, QChar('0'));
                        file.saveFile(QFile::encodeName(path).constData(), EXS_LittleEndianExplicit);
                    }
                }
            }
        }
        QFile(marker).open(QIODevice::WriteOnly);
    }
    QDirIterator it(dir, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        list << it.next();
    list.sort();
    return list;
}

// The header-read limit: every file loaded by DCMTK with maximum read length 1024, in parallel.
qint64 headerReadLimit(const QStringList& files)
{
    int threads = 1;
#pragma omp parallel
    {
#pragma omp master
        threads = omp_get_num_threads();
    }
    std::vector<std::unique_ptr<DcmFileFormat>> parsers;
    for (int i = 0; i < threads; ++i)
        parsers.push_back(std::make_unique<DcmFileFormat>());
    QElapsedTimer timer;
    timer.start();
    int failed = 0;
#pragma omp parallel for schedule(static) num_threads(threads) reduction(+ : failed)
    for (int i = 0; i < files.size(); ++i) {
        DcmFileFormat* parser = parsers[size_t(omp_get_thread_num())].get();
        parser->clear();
        if (parser->loadFile(QFile::encodeName(files.at(i)).constData(), EXS_Unknown, EGL_noChange, 1024).bad())
            ++failed;
        OFString value;
        parser->getDataset()->findAndGetOFString(DCM_SeriesInstanceUID, value);
    }
    if (failed)
        out << "warning: " << failed << " files failed to load" << Qt::endl;
    return timer.elapsed();
}

struct Row {
    QString name;
    qint64 ms;
    int images;
    QString phases;
};

void messageFilter(QtMsgType type, const QMessageLogContext&, const QString& text)
{
    if (text.startsWith("time elapsed:") || text.startsWith("add DB time elapsed:"))
        g_phases << text.section(':', 1).trimmed().toLongLong();
    if (type == QtCriticalMsg || type == QtFatalMsg)
        QTextStream(stderr) << text << '\n';
}

} // namespace

// A fresh catalogue on the default connection: SQLite under TMP, or a new MariaDB schema.
bool openCatalogue(const QString& configDir, const QString& tmp, const QString& socket, QString* schema)
{
    QDir().mkpath(configDir);
    QFile ini(configDir + "/database.ini");
    ini.open(QIODevice::WriteOnly | QIODevice::Truncate);
    QString text = "[currentdatabase]\ndbname=orvena\n\n[orvena]\n";
    if (socket.isEmpty()) {
        text += "databaseType=QSQLITE\ndatabaseName=" +
                QDir(Kestrel::applicationDir()).relativeFilePath(tmp + "/catalogue.sqlite") + "\n";
    } else {
        *schema = "kb_" + QUuid::createUuid().toString(QUuid::Id128).left(12);
        qputenv("MYSQL_UNIX_PORT", socket.toLocal8Bit());
        text += "databaseType=QMYSQL\nhostName=localhost\nuserName=root\npassword=\ndefaultName=mysql\ndatabaseName=" +
                *schema + "\n";
    }
    ini.write(text.toUtf8());
    ini.close();
    QFile::copy(Kestrel::applicationDir() + "/../config/main.ini", configDir + "/main.ini");
    Kestrel::setConfigDirectory(configDir);
    if (!createConnection())
        return false;
    if (!QSqlDatabase::database().isOpen() && !createConnection())
        return false;
    return QSqlDatabase::database().isOpen();
}

void closeCatalogue(const QString& schema)
{
    {
        QSqlDatabase db = QSqlDatabase::database();
        if (!schema.isEmpty())
            QSqlQuery(db).exec(QString("DROP DATABASE IF EXISTS `%1`").arg(schema));
        db.close();
    }
    QSqlDatabase::removeDatabase(QLatin1String(QSqlDatabase::defaultConnection));
}

qint64 importOnce(const QString& folder, int* imagesAdded, QString* phases)
{
    g_phases.clear();
    QDcmFiles importer;
    QElapsedTimer timer;
    timer.start();
    importer.loadLocalFolderToDB(folder, 0, true);
    const qint64 ms = timer.elapsed();
    *imagesAdded = importer.lastRunCounts().imagesAdded;
    if (g_phases.size() >= 3)
        *phases = QString("read %1 ms, group %2 ms, import pass %3 ms")
                          .arg(g_phases[0])
                          .arg(g_phases[1] - g_phases[0])
                          .arg(g_phases[2]);
    return ms;
}

int main(int argc, char* argv[])
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.addHelpOption();
    parser.addOption({"files", "Corpus size (default 10000).", "N", "10000"});
    parser.addOption({"corpus", "Corpus folder (reused when complete).", "DIR"});
    parser.addOption({"mysql-socket", "MariaDB socket (default: KESTREL_TEST_MYSQL_SOCKET).", "PATH"});
    parser.addOption({"repeat", "Rounds; each figure is the best round (default 2).", "R", "2"});
    parser.addOption({"grow", "Catalogue sizes (images, comma-separated) of the growth table; 0 leaves it out "
                              "(default 100000,1000000).", "SIZES", "100000,1000000"});
    parser.addOption({"grow-only", "Only the growth table."});
    parser.process(app);
    qInstallMessageHandler(messageFilter);
    OFLog::configure(OFLogger::FATAL_LOG_LEVEL);

    const int files = qMax(10, parser.value("files").toInt());
    const int repeat = qMax(1, parser.value("repeat").toInt());
    const QString corpus = parser.isSet("corpus") ? parser.value("corpus")
                                                  : QDir::tempPath() + QString("/kestrel-bench-import-%1").arg(files);
    const QString socket =
            parser.isSet("mysql-socket") ? parser.value("mysql-socket") : qEnvironmentVariable("KESTREL_TEST_MYSQL_SOCKET");
    int patients = 0, series = 0;
    const QStringList list = writeCorpus(corpus, files, &patients, &series);
    int threads = 1;
#pragma omp parallel
    {
#pragma omp master
        threads = omp_get_num_threads();
    }
    out << "corpus: " << list.size() << " MR files 256x256, " << patients << " patients, " << patients * 2 << " studies, "
        << series << " series; OpenMP threads: " << threads << Qt::endl;

    // The machine is shared: every figure is the best of REPEAT rounds, each round measuring the
    // limit and both imports into fresh catalogues.
    headerReadLimit(list); // warms the page cache
    QTemporaryDir tmp;
    QList<qint64> sizes;
    for (const QString& size : parser.value("grow").split(',', Qt::SkipEmptyParts))
        if (size.toLongLong() > 0)
            sizes << size.toLongLong();
    if (parser.isSet("grow-only")) {
        growthTable(corpus, list.size(), sizes, socket, tmp.path());
        return 0;
    }
    QList<Row> rows;
    auto keep = [&rows](const Row& row) {
        for (Row& known : rows) {
            if (known.name == row.name) {
                if (row.ms < known.ms)
                    known = row;
                return;
            }
        }
        rows.append(row);
    };
    for (int round = 0; round < repeat; ++round) {
        keep({"header-read limit (DCMTK, 1024 B)", headerReadLimit(list), list.size(), QString()});
        for (const QString& backend : {QString("SQLite"), QString("MariaDB")}) {
            const bool maria = backend == "MariaDB";
            if (maria && socket.isEmpty()) {
                if (round == 0)
                    out << "MariaDB skipped: no socket (--mysql-socket or KESTREL_TEST_MYSQL_SOCKET)" << Qt::endl;
                continue;
            }
            QString schema;
            const QString dir = QString("%1/round%2").arg(tmp.path()).arg(round);
            QDir().mkpath(dir);
            if (!openCatalogue(dir + "/config-" + backend, dir, maria ? socket : QString(), &schema)) {
                out << backend << ": cannot open the catalogue" << Qt::endl;
                continue;
            }
            int added = 0;
            QString phases;
            const qint64 first = importOnce(corpus, &added, &phases);
            keep({backend + " first import", first, added, phases});
            const qint64 again = importOnce(corpus, &added, &phases);
            keep({backend + " repeated import (all duplicates)", again, added, phases});
            closeCatalogue(schema);
        }
    }
    const qint64 limit = rows.first().ms;

    out << '\n'
        << QString("run").leftJustified(40) << QString("seconds").rightJustified(9) << QString("files/s").rightJustified(10)
        << QString("of limit").rightJustified(10) << QString("rows").rightJustified(8) << '\n';
    for (const Row& row : rows) {
        const double seconds = row.ms / 1000.0;
        const double rate = row.ms > 0 ? list.size() / seconds : 0;
        const double ratio = row.ms > 0 ? 100.0 * limit / row.ms : 0;
        out << row.name.leftJustified(40) << QString::number(seconds, 'f', 2).rightJustified(9)
            << QString::number(rate, 'f', 0).rightJustified(10) << (QString::number(ratio, 'f', 0) + "%").rightJustified(10)
            << QString::number(row.images).rightJustified(8) << "  " << row.phases << '\n';
    }
    out << "goal: first import >= 70% of the limit, repeated import >= 90%" << Qt::endl;
    if (!sizes.isEmpty())
        growthTable(corpus, list.size(), sizes, socket, tmp.path());
    return 0;
}
