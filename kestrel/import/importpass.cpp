// QDcmFiles, the import pass: the run's plan written into the catalogue. Every row is written by an
// insert-or-look-up against the catalogue's unique keys, so that several processes importing the
// same files at once end with each patient, study, series and image once; each unit of work is
// retried while another process holds the catalogue.
#include "qdcmfiles.h"

#include "catalog/batchinsert_p.h"
#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "dicom/dcmvalues_p.h"
#include "import/headerread_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importparents_p.h"
#include "import/importrecords_p.h"
#include "import/importstate_p.h"
#include "import/storagetree_p.h"
#include "platform/fileplacement_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>

#include <QDate>
#include <QDebug>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>

#include <omp.h>

using namespace kestrel::internal;
using namespace kestrel::internal::import;

namespace {

const QString kImageFormat = QStringLiteral("imageformat");
const QString kImagePixel = QStringLiteral("imagepixel");
const QString kMrImageInfo = QStringLiteral("mrimageinfo");

// A unit of work waits up to a minute for the catalogue on SQLite (its busy timeout), and a
// deadlock on MariaDB costs a retry: a few are plenty.
constexpr int kRetries = 8;
// Image rows of one unit of work: several series' worth, so that a large import commits a few dozen
// times, and a conflict with another process costs the retry of a fraction of a second of writing.
// Rows wait at most half a second, so what was read is soon in the catalogue for everyone.
constexpr int kImagesPerUnit = 1000;
constexpr qint64 kUnitMs = 500;

// The row of a study or series read from ITEM: its time of day, its parent's key and the status.
QVector<QVariant> parentRow(const QString& table, const char* timeColumn, const char* fkColumn, qint64 fk, DcmItem* item)
{
    QVector<QVariant> values = records::readColumns(table, item);
    const int time = records::columnIndex(table, timeColumn);
    values[time] = records::timeOfDay(values.at(time).toString());
    values[records::columnIndex(table, fkColumn)] = fk;
    values[records::columnIndex(table, "Status")] = records::notUploadedStatus();
    return values;
}

} // namespace

bool QDcmFiles::addDataBase()
{
    return importPass(false);
}

bool QDcmFiles::addAndCopyDataBase()
{
    return importPass(true);
}

bool QDcmFiles::importPass(bool copy)
{
    emit readInfo(QStringLiteral("start add data base "));
    m_workers = workerCount();
    QElapsedTimer timer;
    timer.start();
    m_processed = 0;
    if (copy) {
        m_savePath = storage::storageRoot();
        m_dayPath = storage::subFolder(m_savePath, QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd")));
    }
    const ImportPlan& plan = m_state->plan;
    const std::vector<FileFacts>& facts = m_state->facts;

    if (!plan.withoutPatientID.isEmpty()) {
        m_counts.skippedNoPatientID += plan.withoutPatientID.size();
        emit errorInfo(tr("%1 file(s) without PatientID skipped").arg(plan.withoutPatientID.size()));
    }
    // Files that repeat an earlier file's SOP Instance UID: one of them is catalogued, always the
    // same one; a repeat with other content is named.
    for (const auto& [repeat, kept] : plan.repeats) {
        ++m_counts.duplicates;
        const QString& path = facts[size_t(repeat)].path;
        const QString& keptPath = facts[size_t(kept)].path;
        if (!sameContent(path, keptPath)) {
            skipFile(tr("%1: the SOP Instance UID of %2, with other content").arg(path, keptPath));
        }
    }

    QSqlDatabase db = database();
    // Every patient, study and series row the plan needs, found or made at once.
    ParentKeys& keys = m_state->parents;
    const Status parents = findOrCreateParents(db, plan, [&](ParentTable table, int index, QVector<QVariant>* values) {
        return readParentRow(int(table), index, values);
    }, kRetries, &keys);
    for (const QString& problem : qAsConst(keys.problems))
        emit errorInfo(problem);
    prefetchStoredImages();
    for (size_t p = 0; p < plan.patients.size(); ++p) {
        const PlannedPatient& patient = plan.patients[p];
        const qint64 patientPk = keys.patient[p];
        if (patientPk < 0) {
            writePendingImages();
            m_prefetched.clear();
            m_lastError = tr("cannot find or create the patient %1 (%2): %3")
                              .arg(patient.patientID, facts[size_t(patient.firstFile)].path,
                                   !parents ? parents.text() : tr("the row is missing after it was written"));
            emit errorInfo(m_lastError);
            return false;
        }
        if (keys.patientAdded[p]) {
            ++m_counts.patientsAdded;
            notePatientIDShared(int(p), patientPk);
        }
        const QString patientDir = copy ? storage::subFolder(m_dayPath, patient.patientID) : QString();
        for (int study : patient.studies)
            importStudy(study, patientPk, patientDir, copy);
    }
    writePendingImages();
    m_prefetched.clear();
    m_state->storedSeries.clear();
    qWarning() << "add DB time elapsed: " << timer.elapsed();
    return true;
}

bool QDcmFiles::readParentRow(int table, int index, QVector<QVariant>* values)
{
    const ImportPlan& plan = m_state->plan;
    const ParentTable which = ParentTable(table);
    const int file = which == ParentTable::Patient ? plan.patients[size_t(index)].firstFile
                     : which == ParentTable::Study ? plan.studies[size_t(index)].firstFile
                                                   : plan.series[size_t(index)].files.value(0, -1);
    if (file < 0 || !loadWithParser(m_state->facts[size_t(file)].path, kSortReadLength))
        return false;
    DcmItem* item = m_fileFormat->getDataset();
    switch (which) {
    case ParentTable::Patient:
        *values = records::readColumns(QStringLiteral("patient"), item);
        (*values)[records::columnIndex("patient", "Status")] = records::notUploadedStatus();
        (*values)[records::columnIndex("patient", "PatientKey")] = plan.patients[size_t(index)].key;
        break;
    case ParentTable::Study:
        *values = parentRow(QStringLiteral("generalstudy"), "StudyTime", "patient_fk", -1, item);
        break;
    case ParentTable::Series:
        *values = parentRow(QStringLiteral("generalseries"), "SeriesTime", "study_fk", -1, item);
        (*values)[records::columnIndex("generalseries", "SeriesBase")] = plan.series[size_t(index)].key;
        break;
    }
    return true;
}

void QDcmFiles::notePatientIDShared(int patientIndex, qint64 patientPk)
{
    const PlannedPatient& patient = m_state->plan.patients[size_t(patientIndex)];
    // One ID, several people: kept apart, and said.
    if (m_state->notedPatientIDs.contains(patient.patientID))
        return;
    const int others = selectValue<int>(database(), QStringLiteral("SELECT COUNT(*) FROM patient WHERE PatientID = ? AND pk <> ?"),
                                        {patient.patientID, patientPk}, 0);
    if (others <= 0)
        return;
    m_state->notedPatientIDs.insert(patient.patientID);
    const QString note = tr("patient ID %1 also names %2 other person(s) in the catalogue: %3 is "
                            "catalogued as a patient of its own")
                             .arg(patient.patientID)
                             .arg(others)
                             .arg(patient.name);
    m_counts.notes << note;
    emit readInfo(note);
}

void QDcmFiles::importStudy(int studyIndex, qint64 patientPk, const QString& patientDir, bool copy)
{
    const ImportPlan& plan = m_state->plan;
    const PlannedStudy& study = plan.studies[size_t(studyIndex)];
    const ParentKeys& keys = m_state->parents;
    QSqlDatabase db = database();
    const qint64 studyPk = keys.study[size_t(studyIndex)], owner = keys.studyOwner[size_t(studyIndex)];
    if (studyPk < 0) {
        emit errorInfo(tr("cannot create the study %1: %2").arg(study.uid, tr("the row is missing")));
        return;
    }
    m_counts.studiesAdded += keys.studyAdded[size_t(studyIndex)] ? 1 : 0;
    // A study filed under another patient (catalogues that merged patients on their ID alone) goes
    // to the patient its files name.
    if (owner != patientPk) {
        const Status moved = runWrite(db, [&](Transaction&) {
            return execute(db, QStringLiteral("UPDATE generalstudy SET patient_fk = ? WHERE pk = ?"), {patientPk, studyPk});
        }, kRetries);
        if (moved) {
            const QString note = tr("study %1 moved from patient %2 to patient %3, whom its files name")
                                     .arg(study.uid).arg(owner).arg(patientPk);
            m_counts.notes << note;
            emit readInfo(note);
        }
    }

    const QString studyDir = copy ? storage::subFolder(patientDir, study.uid) : QString();
    for (int seriesIndex : study.series) {
        QElapsedTimer timer;
        timer.start();
        const PlannedSeries& series = plan.series[size_t(seriesIndex)];
        const qint64 seriesPk = keys.series[size_t(seriesIndex)];
        if (seriesPk < 0) {
            emit errorInfo(tr("cannot create the series %1: %2").arg(series.key, tr("the row is missing")));
            continue;
        }
        m_counts.seriesAdded += keys.seriesAdded[size_t(seriesIndex)] ? 1 : 0;
        const QString seriesDir = copy ? storage::subFolder(studyDir, series.key) : QString();
        importSeries(seriesIndex, seriesPk, seriesDir);
        emit readInfo(QStringLiteral("time %1 add data base:%2/%3").arg(timer.elapsed()).arg(m_processed).arg(m_total));
        emit readInfo(qMin(100, m_processed * 90 / qMax(1, m_total) + 10), 100);
    }
}

void QDcmFiles::importSeries(int seriesIndex, qint64 seriesPk, const QString& seriesDir)
{
    QElapsedTimer timer;
    timer.start();
    const PlannedSeries& series = m_state->plan.series[size_t(seriesIndex)];
    const int count = series.files.size();
    const bool copy = m_copyMode != 0;
    const std::vector<FileFacts>& facts = m_state->facts;
    auto fact = [&](int i) -> const FileFacts& { return facts[size_t(series.files.at(i))]; };

    QSet<QString> knownFormat, knownPix, knownMR;
    // A series this run made holds no images yet (another process adding some now is met by the
    // inserts, which skip what is taken).
    if (m_state->parents.seriesAdded[size_t(seriesIndex)])
        m_state->storedImages.clear();
    else
        loadStoredImages(seriesPk, &knownPix, &knownMR);
    for (auto it = m_state->storedImages.cbegin(); it != m_state->storedImages.cend(); ++it)
        knownFormat.insert(it.key());

    const size_t n = size_t(count);
    std::vector<ImageFormat> formats(n);
    std::vector<ImagePix> pixs(n);
    std::vector<MRImageInfo> infos(n);
    std::vector<char> stored(n, 0);
    for (int i = 0; i < count; ++i) {
        formats[size_t(i)].filePath = fact(i).path;
        // A file whose UID all three tables hold for this series is a duplicate: no second read.
        const QString& sop = fact(i).sopInstanceUID;
        stored[size_t(i)] = knownFormat.contains(sop) && knownPix.contains(sop) && knownMR.contains(sop);
    }

    // Records the reading pass kept need no second read.
    std::vector<char> filled(n, 0);
    for (int i = 0; i < count; ++i) {
        const size_t k = size_t(i);
        auto hit = m_prefetched.find(fact(i).path);
        if (hit == m_prefetched.end())
            continue;
        if (!stored[k]) {
            formats[k] = std::move(hit->format);
            pixs[k] = std::move(hit->pix);
            infos[k] = std::move(hit->info);
            filled[k] = 1;
        }
        m_prefetched.erase(hit);
    }

    // Reading the records touches no shared state: one parser per worker. Starting the workers
    // costs a scheduling round on a busy machine: skipped when every record is at hand.
    int toRead = 0;
    for (size_t k = 0; k < n; ++k)
        toRead += !stored[k] && !filled[k];
    const int workers = toRead > 1 ? m_workers : 1;
    Parsers parsers = makeParsers(workers);
    std::vector<HeaderScan> scans = makeScans(workers);
#pragma omp parallel for schedule(static) num_threads(workers) if (toRead > 1)
    for (int i = 0; i < count; ++i) {
        if (stored[size_t(i)] || filled[size_t(i)])
            continue;
        const int worker = omp_get_thread_num();
        HeaderScan& scan = scans[size_t(worker)];
        if (scan.scan(QFile::encodeName(fact(i).path))) {
            readImageRecords(&formats[size_t(i)], &pixs[size_t(i)], &infos[size_t(i)], scan);
            continue;
        }
        DcmFileFormat* parser = parsers[size_t(worker)].get();
        if (!loadHeader(parser, fact(i).path, kRecordReadLength))
            continue;
        readImageRecords(&formats[size_t(i)], &pixs[size_t(i)], &infos[size_t(i)], parser->getDataset());
    }

    // Duplicates are decided in the plan's file order, against the three sets.
    auto resolve = [&](ImageRecord* record, const QString& table, QSet<QString>& known) {
        if (known.contains(record->sopInstanceUID)) {
            record->state = ImageRecord::Duplicate;
            return;
        }
        known.insert(record->sopInstanceUID);
        record->seriesPk = seriesPk;
        setColumn(record, table, "series_fk", seriesPk);
        setColumn(record, table, "SOPInstanceUID", record->sopInstanceUID);
        record->state = ImageRecord::New;
    };
    for (int i = 0; i < count; ++i) {
        const size_t k = size_t(i);
        if (stored[k]) {
            formats[k].sopInstanceUID = pixs[k].sopInstanceUID = infos[k].sopInstanceUID = fact(i).sopInstanceUID;
            formats[k].state = pixs[k].state = infos[k].state = ImageRecord::Duplicate;
        } else if (!formats[k].values.isEmpty() && !formats[k].sopInstanceUID.isEmpty()) {
            resolve(&formats[k], kImageFormat, knownFormat);
            resolve(&pixs[k], kImagePixel, knownPix);
            resolve(&infos[k], kMrImageInfo, knownMR);
        } else {
            ++m_counts.unreadable;
            continue;
        }
        if (formats[k].state == ImageRecord::Duplicate) {
            ++m_counts.duplicates;
            if (copy) {
                formats[k].values = QVector<QVariant>(schema::columns(kImageFormat).size());
                setColumn(&formats[k], kImageFormat, "IrradiationEventUID",
                          m_state->storedImages.value(formats[k].sopInstanceUID).marker);
            }
        }
    }
    m_processed += count;

    if (copy)
        copySeriesFiles(formats.data(), count, seriesDir);
    else
        checkRepeatedFiles(formats.data(), count);

    // New rows wait for the next unit of work, which several series share.
    ImportState::PendingRows& pending = m_state->pending;
    if (pending.isEmpty())
        pending.since.start();
    for (size_t k = 0; k < n; ++k) {
        if (formats[k].state == ImageRecord::New && !formats[k].values.isEmpty())
            pending.format.append(std::move(formats[k].values));
        if (pixs[k].state == ImageRecord::New && !pixs[k].values.isEmpty())
            pending.pix.append(std::move(pixs[k].values));
        if (infos[k].state == ImageRecord::New && !infos[k].values.isEmpty())
            pending.info.append(std::move(infos[k].values));
    }
    if (pending.format.size() >= kImagesPerUnit || pending.since.elapsed() >= kUnitMs)
        writePendingImages();
    qWarning() << "add DB   time elapsed: " << timer.elapsed();
}

void QDcmFiles::writePendingImages()
{
    ImportState::PendingRows& pending = m_state->pending;
    if (pending.isEmpty())
        return;
    auto pointers = [](const QVector<QVector<QVariant>>& rows) {
        QVector<const QVector<QVariant>*> out;
        out.reserve(rows.size());
        for (const QVector<QVariant>& row : rows)
            out.append(&row);
        return out;
    };
    const QVector<const QVector<QVariant>*> formatRows = pointers(pending.format), pixRows = pointers(pending.pix),
                                            infoRows = pointers(pending.info);
    int added = 0;
    QSqlDatabase db = database();
    // Rows another process wrote meanwhile are skipped.
    const Status written = runWrite(db, [&](Transaction&) {
        added = 0;
        int ignored = 0;
        Status status = insertRows(db, kImageFormat, formatRows, true, &added);
        if (status)
            status = insertRows(db, kImagePixel, pixRows, true, &ignored);
        if (status)
            status = insertRows(db, kMrImageInfo, infoRows, true, &ignored);
        return status;
    }, kRetries);
    if (written) {
        m_counts.imagesAdded += added;
        m_counts.duplicates += formatRows.size() - added; // written by another process meanwhile
    } else {
        ++m_counts.failedBatches;
        emit errorInfo(written.text());
    }
    pending = ImportState::PendingRows();
}

void QDcmFiles::checkRepeatedFiles(const ImageFormat* records, int count)
{
    QHash<QString, QString> ours;
    for (int i = 0; i < count; ++i)
        if (records[i].state == ImageRecord::Duplicate)
            ours.insert(records[i].sopInstanceUID, records[i].filePath);
    if (ours.isEmpty())
        return;
    QList<QPair<QString, QString>> moved;
    for (auto it = ours.cbegin(); it != ours.cend(); ++it) {
        const QString stored = storedPathOf(it.key());
        if (stored.isEmpty() || stored == it.value())
            continue;
        if (!QFileInfo::exists(stored)) {
            // The catalogued file is gone (moved, or catalogued from another working folder):
            // the row follows the file that is here.
            moved.append({it.key(), it.value()});
        } else if (!sameContent(stored, it.value())) {
            skipFile(tr("%1: the SOP Instance UID of the catalogued %2, with other content").arg(it.value(), stored));
        }
    }
    updateFilePaths(moved);
}

void QDcmFiles::updateFilePaths(const QList<QPair<QString, QString>>& rows)
{
    if (rows.isEmpty())
        return;
    QSqlDatabase db = database();
    const Status updated = runWrite(db, [&](Transaction&) {
        Statement update(db, QStringLiteral("UPDATE imageformat SET FilePath = ? WHERE SOPInstanceUID = ?"));
        for (const auto& [sop, path] : rows)
            if (const Status status = update.bind(path).bind(sop).run(); !status)
                return status;
        return Status::ok();
    }, kRetries);
    if (!updated)
        emit errorInfo(updated.text());
}

void QDcmFiles::skipFile(const QString& reason)
{
    m_counts.skippedFiles << reason;
    emit errorInfo(tr("not catalogued: %1").arg(reason));
}
