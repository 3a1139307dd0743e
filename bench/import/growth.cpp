// Growth with the catalogue: the corpus imported into catalogues that already hold many images,
// their rows written straight through SQL (100 images a series, 5 series a study, 2 studies a
// patient), and the hierarchy's reads timed at that size.
#include "growth.h"

#include "benchcatalogue.h"
#include "../timing.h"

#include "ndicomvolume.h"
#include "qpatient.h"
#include "qpatients.h"
#include "qseries.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QElapsedTimer>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QTextStream>
#include <QThread>

#include <functional>
#include <vector>

#include <unistd.h>

namespace {

constexpr qint64 kImagesPerSeries = 100, kSeriesPerStudy = 5, kStudiesPerPatient = 2;
constexpr qint64 kImagesPerPatient = kImagesPerSeries * kSeriesPerStudy * kStudiesPerPatient;
constexpr qint64 kSearchSeries = 100;
constexpr qint64 kChunk = 100000;
const char* const kRoot = "1.2.826.0.1.3680043.10.4321.77.";
const char* const kSearchName = "bench growth";

QTextStream out(stdout);

// The two dialects' spellings of what the fill statements need.
struct Dialect {
    bool maria;
    QString cat(const QStringList& parts) const
    {
        return maria ? QStringLiteral("CONCAT(%1)").arg(parts.join(',')) : QStringLiteral("(%1)").arg(parts.join("||"));
    }
    // The whole quotient of A by B.
    QString div(const QString& a, qint64 b) const
    {
        return QStringLiteral("((%1) %2 %3)").arg(a, maria ? "DIV" : "/").arg(b);
    }
    // INSERT INTO TABLE (COLUMNS) SELECT EXPRESSIONS over rows n.seq = LO..HI.
    QString insert(const QString& table, const QString& columns, const QString& expressions, qint64 lo, qint64 hi) const
    {
        if (maria)
            return QStringLiteral("INSERT INTO %1 (%2) SELECT %3 FROM seq_%4_to_%5 n").arg(table, columns, expressions).arg(lo).arg(hi);
        return QStringLiteral("WITH RECURSIVE n(seq) AS (SELECT %4 UNION ALL SELECT seq + 1 FROM n WHERE seq < %5) "
                              "INSERT INTO %1 (%2) SELECT %3 FROM n")
            .arg(table, columns, expressions)
            .arg(lo)
            .arg(hi);
    }
};

QString text(const char* value)
{
    return QStringLiteral("'%1'").arg(QLatin1String(value));
}

bool run(QSqlDatabase db, const QString& sql)
{
    QSqlQuery query(db);
    if (query.exec(sql))
        return true;
    out << "fill failed: " << query.lastError().text() << "\n  " << sql.left(300) << Qt::endl;
    return false;
}

// IMAGES images (a whole number of patients) with their patients, studies, series, cached
// volumes and one stored search that finds 100 of the series.
bool fill(QSqlDatabase db, bool maria, qint64 images)
{
    const Dialect d{maria};
    const qint64 patients = images / kImagesPerPatient, studies = patients * kStudiesPerPatient;
    const qint64 series = studies * kSeriesPerStudy;
    const QString seq = QStringLiteral("n.seq");
    const QString studyUid = d.cat({text(kRoot), "'1.'", seq});
    const QString seriesUid = d.cat({text(kRoot), "'2.'", seq});
    std::vector<QString> statements;
    statements.push_back(d.insert("patient", "pk,PatientID,PatientName,PatientKey,PatientSex",
                                  QStringList{seq, d.cat({"'GROW'", seq}), d.cat({"'Grow^Patient'", seq}),
                                              d.cat({"'grow-key-'", seq}), "'O'"}
                                      .join(','),
                                  1, patients));
    statements.push_back(d.insert("generalstudy", "pk,StudyInstanceUID,StudyID,StudyDescription,patient_fk",
                                  QStringList{seq, studyUid, "'1'", "'Grown'", d.div(seq + " - 1", kStudiesPerPatient) + " + 1"}
                                      .join(','),
                                  1, studies));
    // Every (series / 100)th series carries the description the stored search asks for.
    const QString description = QStringLiteral("CASE WHEN n.seq % %1 = 0 THEN 'grow search' ELSE 'Grown' END")
                                    .arg(qMax<qint64>(1, series / kSearchSeries));
    statements.push_back(d.insert(
        "generalseries", "pk,SeriesInstanceUID,StudyInstanceUID,SeriesBase,SeriesDescription,SeriesNumber,Modality,study_fk",
        QStringList{seq, seriesUid, d.cat({text(kRoot), "'1.'", d.div(seq + " - 1", kSeriesPerStudy) + " + 1"}),
                    d.cat({seriesUid, "'#0'"}), description, "'1'", "'MR'", d.div(seq + " - 1", kSeriesPerStudy) + " + 1"}
            .join(','),
        1, series));
    for (qint64 lo = 1; lo <= images; lo += kChunk)
        statements.push_back(d.insert("imageformat", "SOPInstanceUID,series_fk,InstanceNumber,FilePath,ImageType",
                                      QStringList{d.cat({text(kRoot), "'3.'", seq}), d.div(seq + " - 1", kImagesPerSeries) + " + 1",
                                                  QStringLiteral("(n.seq - 1) % %1 + 1").arg(kImagesPerSeries),
                                                  d.cat({"'/grown/'", seq, "'.dcm'"}), "'ORIGINAL'"}
                                          .join(','),
                                      lo, qMin(images, lo + kChunk - 1)));
    // Copied a chunk of series at a time (the image keys may leave gaps between statements).
    for (const char* table : {"imagepixel", "mrimageinfo"})
        for (qint64 lo = 1; lo <= series; lo += kChunk / kImagesPerSeries)
            statements.push_back(QStringLiteral("INSERT INTO %1 (SOPInstanceUID,series_fk) SELECT SOPInstanceUID,series_fk FROM "
                                                "imageformat WHERE series_fk BETWEEN %2 AND %3")
                                     .arg(QLatin1String(table))
                                     .arg(lo)
                                     .arg(qMin(series, lo + kChunk / kImagesPerSeries - 1)));
    statements.push_back("INSERT INTO registration (SeriesInstanceUID,Savepath,VolumeHead,SeriesBase) SELECT "
                         "SeriesBase," + d.cat({"'/grown/cache/'", "pk", "'.data'"}) + ",'',SeriesBase FROM generalseries");
    statements.push_back(QStringLiteral("INSERT INTO andvancequiry (InquiryName,UserName,TableName,ColumnName,Operator,Value,"
                                        "Connector,MatchKind) VALUES ('%1','admin','generalseries','SeriesDescription','=',"
                                        "'grow search','and','Precise')")
                             .arg(QLatin1String(kSearchName)));
    if (!maria)
        db.transaction();
    for (const QString& sql : statements)
        if (!run(db, sql))
            return false;
    if (!maria)
        db.commit();
    // The planner's statistics, as a catalogue in use has them.
    return run(db, maria ? QStringLiteral("ANALYZE TABLE patient,generalstudy,generalseries,imageformat,imagepixel,mrimageinfo,"
                                          "registration")
                         : QStringLiteral("ANALYZE"));
}

// Lets the fill's writes reach the disk before anything is timed: a catalogue of that size grew
// over months, not a moment ago. The server flushes its dirty pages (waited for up to a minute),
// the system its page cache.
void settle(QSqlDatabase db, bool maria)
{
    if (maria) {
        QSqlQuery query(db);
        query.exec(QStringLiteral("SELECT @@GLOBAL.innodb_max_dirty_pages_pct"));
        const QString before = query.next() ? query.value(0).toString() : QStringLiteral("90");
        run(db, QStringLiteral("SET GLOBAL innodb_max_dirty_pages_pct = 0"));
        QElapsedTimer waited;
        waited.start();
        while (waited.elapsed() < 60000) {
            query.exec(QStringLiteral("SHOW GLOBAL STATUS LIKE 'Innodb_buffer_pool_pages_dirty'"));
            if (!query.next() || query.value(1).toLongLong() < 100)
                break;
            QThread::msleep(200);
        }
        run(db, QStringLiteral("SET GLOBAL innodb_max_dirty_pages_pct = %1").arg(before.toDouble()));
    }
    ::sync();
}

// Reads every file of the corpus once. The empty catalogue's import finds them in the page cache;
// after a long fill the system may have paged them out (this machine pages out what was not read
// for a minute), and the comparison is about the catalogue, not the cache.
void warm(const QString& corpus)
{
    QByteArray buffer(1 << 20, Qt::Uninitialized);
    for (QDirIterator it(corpus, QDir::Files, QDirIterator::Subdirectories); it.hasNext();) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly))
            while (file.read(buffer.data(), buffer.size()) > 0) {
            }
    }
}

struct Reads {
    std::vector<double> patient, series, search, cache;
};

// The hierarchy's reads at the catalogue's size, each repeated after one run to warm it.
Reads timeReads(qint64 images)
{
    const qint64 patients = images / kImagesPerPatient;
    const qint64 patientPk = patients / 2 + 1;
    const qint64 seriesPk = (patientPk - 1) * kStudiesPerPatient * kSeriesPerStudy + 3;
    const QString seriesKey = QStringLiteral("%1%2.%3#0").arg(QLatin1String(kRoot)).arg(2).arg(seriesPk);
    Reads r;
    int studies = 0, instances = 0, found = 0;
    QString cached;
    r.patient = sortedRunTimes(5, [&] {
        QPatient patient(patientPk);
        patient.searchStudys();
        studies = patient.getStudys().size();
    });
    r.series = sortedRunTimes(5, [&] {
        QSeries series(seriesPk);
        series.searchInstance();
        series.searchAllInfo();
        instances = series.getInstances().size();
    });
    r.search = sortedRunTimes(5, [&] {
        QPatients tree;
        tree.advanceQueryByName(QLatin1String(kSearchName));
        found = tree.getAllSeries().size();
    });
    r.cache = sortedRunTimes(5, [&] { cached = getCachedVolumePath(seriesKey); });
    if (studies != kStudiesPerPatient || instances != kImagesPerSeries || found != kSearchSeries || cached.isEmpty())
        out << "warning: the reads found " << studies << " studies, " << instances << " instances, " << found
            << " series by the search, cache file \"" << cached << "\"" << Qt::endl;
    return r;
}

QString median(const std::vector<double>& ms)
{
    return QStringLiteral("%1 (%2-%3)")
        .arg(ms[ms.size() / 2], 0, 'f', 1)
        .arg(ms.front(), 0, 'f', 1)
        .arg(ms.back(), 0, 'f', 1);
}

} // namespace

void growthTable(const QString& corpus, int files, const QList<qint64>& sizes, const QString& socket, const QString& tmp)
{
    out << "\ncatalogue growth: " << files << " new files imported into a catalogue already holding N images; reads are "
        << "median (range) ms of 5 runs after a warm-up, before the import" << Qt::endl;
    out << QString("backend").leftJustified(9) << QString("N").rightJustified(9) << QString("fill s").rightJustified(8)
        << QString("import s").rightJustified(9) << QString("files/s").rightJustified(9) << QString("of empty").rightJustified(9)
        << "  " << QString("patient's studies+series").leftJustified(25) << QString("series searchAllInfo").leftJustified(22)
        << QString("stored search (100)").leftJustified(22) << "volume-cache lookup" << Qt::endl;
    for (const bool maria : {false, true}) {
        if (maria && socket.isEmpty()) {
            out << "MariaDB skipped: no socket" << Qt::endl;
            continue;
        }
        const QString backend = maria ? QStringLiteral("MariaDB") : QStringLiteral("SQLite");
        qint64 emptyMs = 0;
        // The empty catalogue twice: the first import of a run also warms the server and the files.
        QList<qint64> all{0, 0};
        all << sizes;
        for (int run = 0; run < all.size(); ++run) {
            const qint64 images = (all[run] + kImagesPerPatient - 1) / kImagesPerPatient * kImagesPerPatient;
            const QString dir = QStringLiteral("%1/growth-%2-%3").arg(tmp, backend).arg(run);
            QDir().mkpath(dir);
            QString schema;
            if (!openCatalogue(dir + "/config", dir, maria ? socket : QString(), &schema)) {
                out << backend << ": cannot open the catalogue" << Qt::endl;
                break;
            }
            QElapsedTimer timer;
            timer.start();
            const bool filled = images == 0 || fill(QSqlDatabase::database(), maria, images);
            const double fillSeconds = timer.elapsed() / 1000.0;
            if (filled && images > 0)
                settle(QSqlDatabase::database(), maria);
            Reads reads;
            if (filled && images > 0)
                reads = timeReads(images);
            int added = 0;
            QString phases;
            if (filled)
                warm(corpus);
            const qint64 ms = filled ? importOnce(corpus, &added, &phases) : 0;
            closeCatalogue(schema);
            if (!filled)
                break;
            if (images == 0)
                emptyMs = emptyMs > 0 ? qMin(emptyMs, ms) : ms;
            out << backend.leftJustified(9) << QString::number(images).rightJustified(9)
                << QString::number(fillSeconds, 'f', 1).rightJustified(8) << QString::number(ms / 1000.0, 'f', 2).rightJustified(9)
                << QString::number(ms > 0 ? files * 1000.0 / ms : 0, 'f', 0).rightJustified(9)
                << (QString::number(ms > 0 ? 100.0 * emptyMs / ms : 0, 'f', 0) + "%").rightJustified(9);
            if (images > 0)
                out << "  " << median(reads.patient).leftJustified(25) << median(reads.series).leftJustified(22)
                    << median(reads.search).leftJustified(22) << median(reads.cache);
            out << "  " << phases;
            if (added != files)
                out << "  (" << added << " images added)";
            out << Qt::endl;
        }
    }
    out << "goal: import >= 90% of the empty catalogue's rate; each read <= 20 ms at 1,000,000 images" << Qt::endl;
}
