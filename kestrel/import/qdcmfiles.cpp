#include "qdcmfiles.h"

#include "catalog/catalogschema_p.h"
#include "dicom/dcmvalues_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importrecords_p.h"
#include "catalog/connection_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "import/storagetree_p.h"
#include "kestrelpaths.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QDate>
#include <QDebug>
#include <QDir>
#include <QDirIterator>
#include <QElapsedTimer>
#include <QFile>
#include <QFileInfo>
#include <QSettings>
#include <QSqlError>

#include <omp.h>

#include <memory>
#include <vector>

using namespace kestrel::internal;

namespace {

// The scanners this application serves mark several acquisitions of one series with this
// private element.
const DcmTagKey kPhaseTag(0x5501, 0x111F);

const QString kImageFormat = QStringLiteral("imageformat");
const QString kImagePixel = QStringLiteral("imagepixel");
const QString kMrImageInfo = QStringLiteral("mrimageinfo");

// Header reads: the grouping pass, the study and patient passes, the record pass.
constexpr unsigned int kGroupReadLength = 1024;
constexpr unsigned int kSortReadLength = 2048;
constexpr unsigned int kRecordReadLength = 4096;

bool loadHeader(DcmFileFormat* parser, const QString& path, unsigned int maxReadLength)
{
    parser->clear();
    const QByteArray name = QFile::encodeName(path);
    return guardedRead([&] {
               return parser->loadFile(name.constData(), EXS_Unknown, EGL_noChange, maxReadLength, ERM_autoDetect);
           })
            .good();
}

using Parsers = std::vector<std::unique_ptr<DcmFileFormat>>;

Parsers makeParsers(int count)
{
    Parsers parsers;
    for (int i = 0; i < count; ++i)
        parsers.push_back(std::make_unique<DcmFileFormat>());
    return parsers;
}

int newRecords(const ImageFormat* records, int count)
{
    int n = 0;
    for (int i = 0; i < count; ++i)
        n += records[i].state == ImageRecord::New && !records[i].values.isEmpty();
    return n;
}

} // namespace

QDcmFiles::QDcmFiles(QObject* parent)
    : QObject(parent)
    , m_fileFormat(new DcmFileFormat)
{
    QSqlDatabase db = cloneDefaultConnection();
    m_connectionName = db.connectionName();
    if (!db.isOpen())
        emit errorInfo(db.lastError().text());
}

QDcmFiles::~QDcmFiles()
{
    delete m_fileFormat;
    m_writes.reset();
    removeClonedConnection(m_connectionName);
}

QSqlDatabase QDcmFiles::database() const
{
    return QSqlDatabase::database(m_connectionName, false);
}

void QDcmFiles::reinit()
{
    m_fileList.clear();
    m_seriesFiles.clear();
    m_studySeries.clear();
    m_patientStudies.clear();
    m_prefetched.clear();
    m_fileFormat->clear();
}

int QDcmFiles::workerCount()
{
    int workers = 1;
#pragma omp parallel
    {
#pragma omp master
        workers = omp_get_num_threads();
    }
    if (workers == 1) {
        omp_set_num_threads(4);
        workers = 4;
    }
    return workers;
}

bool QDcmFiles::loadWithParser(const QString& file, unsigned int maxReadLength)
{
    return loadHeader(m_fileFormat, file, maxReadLength);
}

QString QDcmFiles::phaseOf(const QString& seriesUID, DcmFileFormat* file)
{
    const QStringList parts = seriesUID.split('.');
    if (parts.size() <= 3 || parts.at(3) != QLatin1String("30917"))
        return QStringLiteral("0");
    DcmItem* item = file ? file->getDataset() : nullptr;
    DcmElement* element = nullptr;
    if (!item || item->findAndGetElement(kPhaseTag, element).bad() || !element)
        return QStringLiteral("0");
    Sint32 number = 0;
    Uint32 unsigned32 = 0;
    Sint16 signed16 = 0;
    Uint16 unsigned16 = 0;
    if (element->getSint32(number).good())
        return QString::number(number);
    if (element->getUint32(unsigned32).good())
        return QString::number(unsigned32);
    if (element->getSint16(signed16).good())
        return QString::number(signed16);
    if (element->getUint16(unsigned16).good())
        return QString::number(unsigned16);
    // Without its private dictionary (implicit VR files) the element is plain bytes: a number
    // written as text, or a little-endian binary integer.
    Uint8* bytes = nullptr;
    const Uint32 length = element->getLength();
    if (element->getUint8Array(bytes).bad() || !bytes)
        return QStringLiteral("0");
    bool ok = false;
    const int parsed = QByteArray(reinterpret_cast<const char*>(bytes), int(length)).trimmed().replace('\0', "").toInt(&ok);
    if (ok)
        return QString::number(parsed);
    if (length == 2)
        return QString::number(qint16(bytes[0] | (bytes[1] << 8)));
    if (length == 4)
        return QString::number(qint32(quint32(bytes[0]) | (quint32(bytes[1]) << 8) | (quint32(bytes[2]) << 16) |
                                      (quint32(bytes[3]) << 24)));
    return QStringLiteral("0");
}

// ---------------------------------------------------------------------------------------------
// Reading and grouping

int QDcmFiles::loadLocalFolderToDB(QString path, int copyMode, bool recursive)
{
    // The walk always descends into sub-folders; callers rely on that whatever they pass.
    Q_UNUSED(recursive)
    emit finishReadFiles(false);
    emit readInfo(tr("Traversal"));
    QList<QString> files;
    const QFileInfo info(path);
    if (info.isFile()) {
        files.append(path);
    } else if (info.isDir()) {
        QDirIterator it(path, QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                        QDirIterator::Subdirectories);
        while (it.hasNext())
            files.append(it.next());
    }
    return loadLocalFilesToDB(files, copyMode);
}

int QDcmFiles::loadLocalFilesToDB(QList<QString> files, int copyMode)
{
    QElapsedTimer run;
    run.start();
    m_counts = RunCounts();
    m_counts.filesListed = files.size();
    m_lastError.clear();
    m_lastImportOk = true;
    m_copyMode = copyMode;
    m_fileList += files;
    reopenIfLost(database());
    emit readInfo(QStringLiteral("read file "));
    emit readInfo(1, 100);
    m_total = files.size();
    m_processed = 0;

    const int workers = workerCount();
    Parsers parsers = makeParsers(workers);
    QElapsedTimer timer;
    timer.start();
    readingPass(files, parsers);
    qWarning() << "time elapsed: " << timer.elapsed();

    emit readInfo(10, 100);
    emit readInfo(QStringLiteral("sort dicom"));
    sortStudy();
    sortPatient();
    qWarning() << "time elapsed: " << timer.elapsed();

    emit readInfo(QStringLiteral("add data base"));
    qDebug() << "11111111111111111111111" << m_copyMode;
    m_lastImportOk = m_copyMode ? addAndCopyDataBase() : addDataBase();

    emit readInfo(100, 100);
    m_counts.elapsedMs = run.elapsed();
    emit finishReadFiles(true);
    return 0;
}

void QDcmFiles::readingPass(const QList<QString>& files, std::vector<std::unique_ptr<DcmFileFormat>>& parsers)
{
    const int count = files.size();
    int unreadable = 0;
    const bool prefetch = count + m_prefetched.size() <= kPrefetchLimit;
    // Files of series the catalogue already holds are most likely duplicates: their records are
    // only built if the record pass finds them new.
    const QSet<QString> catalogued = prefetch ? cataloguedSeries() : QSet<QString>();
    std::vector<ImageRecords> records(prefetch ? size_t(count) : 0);
#pragma omp parallel for schedule(static) num_threads(int(parsers.size())) reduction(+ : unreadable)
    for (int i = 0; i < count; ++i) {
        DcmFileFormat* parser = parsers[size_t(omp_get_thread_num())].get();
        const QString& path = files.at(i);
        if (!loadHeader(parser, path, kGroupReadLength)) {
            ++unreadable;
            continue;
        }
        DcmDataset* dataset = parser->getDataset();
        const QString seriesUID = dcmString(dataset, DCM_SeriesInstanceUID);
        const QString sopUID = dcmString(dataset, DCM_SOPInstanceUID);
        const QString phase = phaseOf(seriesUID, parser);
        if (prefetch && !seriesUID.isEmpty() && !catalogued.contains(seriesUID + '#' + phase)) {
            ImageRecords& r = records[size_t(i)];
            r.format.filePath = path;
            readImageRecords(&r.format, &r.pix, &r.info, dataset);
            r.seriesUID = seriesUID;
        }
#pragma omp critical(qdcmfiles_reading)
        {
            ++m_processed;
            if (m_processed % 100 == 0) {
                emit readInfo(QStringLiteral("read file %1/%2").arg(m_processed).arg(m_total));
                emit readInfo(m_processed * 9 / qMax(1, m_total) + 1, 100);
            }
            // Objects without a series (DICOMDIR, reports without one) are no images to catalogue.
            if (seriesUID.isEmpty())
                ++m_counts.unreadable;
            else
                m_seriesFiles[seriesUID + '#' + phase].append(NameAndPhase{phase, path, sopUID});
        }
    }
    for (size_t i = 0; i < records.size(); ++i) {
        if (!records[i].seriesUID.isEmpty())
            m_prefetched.insert(files.at(int(i)), std::move(records[i]));
    }
    // m_counts.unreadable holds the objects without a series so far.
    m_counts.filesRead = m_processed - m_counts.unreadable;
    m_counts.unreadable += unreadable;
}

QSet<QString> QDcmFiles::cataloguedSeries()
{
    QSet<QString> keys;
    Statement query(database(), QStringLiteral("SELECT SeriesBase FROM generalseries"));
    if (query.run()) {
        while (query.next())
            keys.insert(query.get<QString>(0));
    }
    return keys;
}

void QDcmFiles::onReadInfo()
{
    emit readInfo(QStringLiteral("read file:%1/%2").arg(m_processed).arg(m_total));
    emit readInfo(m_processed * 9 / qMax(1, m_total) + 1, 100);
}

bool QDcmFiles::addFile(QString file, QString& seriesUID)
{
    if (!loadWithParser(file, kGroupReadLength))
        return false;
    seriesUID = dcmString(m_fileFormat->getDataset(), DCM_SeriesInstanceUID);
    return true;
}

int QDcmFiles::sortStudy()
{
    for (auto it = m_seriesFiles.cbegin(); it != m_seriesFiles.cend(); ++it) {
        if (it.value().isEmpty())
            continue;
        QString studyUID;
        addStudyFile(it.value().first(), studyUID);
    }
    return m_studySeries.size();
}

bool QDcmFiles::addStudyFile(NameAndPhase file, QString& studyUID)
{
    if (!loadWithParser(file.path, kSortReadLength))
        return false;
    DcmDataset* dataset = m_fileFormat->getDataset();
    studyUID = dcmString(dataset, DCM_StudyInstanceUID);
    const UIDandFile series{dcmString(dataset, DCM_SeriesInstanceUID) + '#' + file.phase, file.path};
    QList<UIDandFile>& list = m_studySeries[studyUID];
    // Hashes accumulate across runs: a series already listed for its study stays listed once.
    for (const UIDandFile& known : list) {
        if (known.uid == series.uid)
            return true;
    }
    list.append(series);
    return true;
}

int QDcmFiles::sortPatient()
{
    for (auto it = m_studySeries.cbegin(); it != m_studySeries.cend(); ++it) {
        if (it.value().isEmpty())
            continue;
        QString error;
        addPatientFile(it.value().first().path, error);
    }
    return m_patientStudies.size();
}

bool QDcmFiles::addPatientFile(QString file, QString& error)
{
    if (!loadWithParser(file, kSortReadLength)) {
        error = tr("cannot read %1").arg(file);
        return false;
    }
    DcmDataset* dataset = m_fileFormat->getDataset();
    const QString patientID = dcmString(dataset, DCM_PatientID);
    const QString studyUID = dcmString(dataset, DCM_StudyInstanceUID);
    QList<UIDandFile>& list = m_patientStudies[patientID];
    for (const UIDandFile& known : list) {
        if (known.uid == studyUID)
            return true;
    }
    list.append(UIDandFile{studyUID, file});
    return true;
}

// ---------------------------------------------------------------------------------------------
// Import pass

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
    beginWrites();
    if (copy) {
        m_savePath = storage::storageRoot();
        m_dayPath = storage::subFolder(m_savePath, QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd")));
    }

    for (auto patient = m_patientStudies.cbegin(); patient != m_patientStudies.cend(); ++patient) {
        const QList<UIDandFile>& studies = patient.value();
        if (studies.isEmpty())
            continue;
        if (patient.key().trimmed().isEmpty()) {
            skipWithoutPatientID(studies);
            continue;
        }
        const QString& file = studies.first().path;
        qint64 patientPk = getPatientIDAndName(file);
        if (patientPk == -1) {
            addPatientDataBase(file);
            patientPk = getPatientIDAndName(file);
            if (patientPk >= 0)
                ++m_counts.patientsAdded;
        }
        if (patientPk < 0) {
            commitWrites(true);
            m_prefetched.clear();
            m_lastError = patientPk == -2 && database().lastError().isValid()
                                  ? tr("patient lookup failed: %1").arg(database().lastError().text())
                                  : tr("cannot find or create the patient %1 (%2)").arg(patient.key(), file);
            emit errorInfo(m_lastError);
            return false;
        }
        const QString patientDir = copy ? storage::subFolder(m_dayPath, patient.key()) : QString();
        const QList<PKAndUID> knownStudies = getStudyPKAndUIDByPatientFK(patientPk);
        for (const UIDandFile& study : studies)
            importStudy(study, patientPk, knownStudies, patientDir, copy);
    }
    commitWrites(true);
    m_prefetched.clear();
    qWarning() << "add DB time elapsed: " << timer.elapsed();
    return true;
}

void QDcmFiles::beginWrites()
{
    // Without a transaction (the begin failed) the rows are written one statement at a time.
    m_writes = std::make_unique<Transaction>(database());
    if (!m_writes->isActive())
        m_writes.reset();
    m_commitTimer.start();
}

void QDcmFiles::commitWrites(bool force)
{
    if (!m_writes || (!force && m_commitTimer.elapsed() < 500))
        return;
    const Status committed = m_writes->commit();
    if (!committed) {
        ++m_counts.failedBatches;
        emit errorInfo(tr("cannot commit the imported rows: %1").arg(committed.text()));
    }
    m_writes.reset();
    if (!force)
        beginWrites();
}

void QDcmFiles::skipWithoutPatientID(const QList<UIDandFile>& studies)
{
    int files = 0;
    for (const UIDandFile& study : studies) {
        for (const UIDandFile& series : m_studySeries.value(study.uid))
            files += m_seriesFiles.value(series.uid).size();
    }
    m_counts.skippedNoPatientID += files;
    emit errorInfo(tr("%1 file(s) without PatientID skipped").arg(files));
}

void QDcmFiles::importStudy(const UIDandFile& study, qint64 patientPk, const QList<PKAndUID>& knownStudies,
                            const QString& patientDir, bool copy)
{
    qint64 studyPk = -1;
    for (const PKAndUID& known : knownStudies) {
        if (known.uid == study.uid) {
            studyPk = known.pk;
            break;
        }
    }
    if (studyPk == -1) {
        addStudyDataBase(study.path, patientPk);
        studyPk = getStudyPKByStudyUID(study.uid);
        if (studyPk < 0) {
            emit errorInfo(tr("cannot create the study %1: %2").arg(study.uid, database().lastError().text()));
            return;
        }
        ++m_counts.studiesAdded;
    }
    const QString studyDir = copy ? storage::subFolder(patientDir, study.uid) : QString();
    const QList<PKAndUID> knownSeries = getSeriesPKAndUIDByStudyFK(studyPk);
    for (const UIDandFile& series : m_studySeries.value(study.uid)) {
        QElapsedTimer timer;
        timer.start();
        bool found = false;
        qint64 seriesPk = -1;
        for (const PKAndUID& known : knownSeries) {
            if (known.uid == series.uid) {
                seriesPk = known.pk;
                found = true;
                break;
            }
        }
        if (!found) {
            if (!addGeneralSeriesDataBase(series, studyPk)) {
                emit errorInfo(tr("cannot create the series %1: %2").arg(series.uid, m_lastError));
                continue;
            }
            ++m_counts.seriesAdded;
            // The lookup compares the series key with the bare SeriesInstanceUID column and so
            // yields -1 for a series created here; the record pass then resolves the key per
            // file from the file's own SeriesInstanceUID. The application's catalogues were all
            // built this way, so the sequence is kept.
            seriesPk = getSeriesPKBySeriesUID(series.uid);
        }
        const QString seriesDir = copy ? storage::subFolder(studyDir, series.uid) : QString();
        importSeries(series.uid, seriesPk, seriesDir);
        emit readInfo(QStringLiteral("time %1 add data base:%2/%3").arg(timer.elapsed()).arg(m_processed).arg(m_total));
        emit readInfo(qMin(100, m_processed * 90 / qMax(1, m_total) + 10), 100);
    }
}

void QDcmFiles::importSeries(const QString& seriesKey, qint64 seriesPk, const QString& seriesDir)
{
    QElapsedTimer timer;
    timer.start();
    const QList<NameAndPhase> files = m_seriesFiles.value(seriesKey);
    const int count = files.size();
    const bool copy = m_copyMode != 0;

    QSet<QString> knownFormat, knownPix, knownMR;
    QHash<QString, QString> storedMarkers;
    if (seriesPk != -1) {
        getImageInstanceUID(kImageFormat, seriesPk, knownFormat);
        getImageInstanceUID(kImagePixel, seriesPk, knownPix);
        getImageInstanceUID(kMrImageInfo, seriesPk, knownMR);
        if (copy)
            storedMarkers = irradiationMarkers(seriesPk);
    }

    const size_t n = size_t(count);
    std::vector<ImageFormat> formats(n);
    std::vector<ImagePix> pixs(n);
    std::vector<MRImageInfo> infos(n);
    std::vector<QString> seriesUIDs(n);
    std::vector<char> stored(n, 0);
    for (int i = 0; i < count; ++i) {
        const NameAndPhase& file = files.at(i);
        formats[size_t(i)].filePath = file.path;
        // A file whose UID all three tables hold for this series is a duplicate: no second read.
        stored[size_t(i)] = !file.sopInstanceUID.isEmpty() && knownFormat.contains(file.sopInstanceUID) &&
                            knownPix.contains(file.sopInstanceUID) && knownMR.contains(file.sopInstanceUID);
    }

    // Records the reading pass kept need no second read.
    std::vector<char> filled(n, 0);
    for (int i = 0; i < count; ++i) {
        const size_t k = size_t(i);
        auto hit = m_prefetched.find(files.at(i).path);
        if (hit == m_prefetched.end())
            continue;
        if (!stored[k]) {
            formats[k] = std::move(hit->format);
            pixs[k] = std::move(hit->pix);
            infos[k] = std::move(hit->info);
            seriesUIDs[k] = hit->seriesUID;
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
#pragma omp parallel for schedule(static) num_threads(workers) if (toRead > 1)
    for (int i = 0; i < count; ++i) {
        if (stored[size_t(i)] || filled[size_t(i)])
            continue;
        DcmFileFormat* parser = parsers[size_t(omp_get_thread_num())].get();
        if (!loadHeader(parser, files.at(i).path, kRecordReadLength))
            continue;
        DcmDataset* dataset = parser->getDataset();
        readImageRecords(&formats[size_t(i)], &pixs[size_t(i)], &infos[size_t(i)], dataset);
        seriesUIDs[size_t(i)] = dcmString(dataset, DCM_SeriesInstanceUID);
    }

    // Duplicates are decided in file order on this thread, against the three sets.
    QHash<QString, qint64> seriesPkByUID;
    auto resolve = [&](ImageRecord* record, const QString& table, QSet<QString>& known, const QString& seriesUID) {
        if (known.contains(record->sopInstanceUID)) {
            record->state = ImageRecord::Duplicate;
            return;
        }
        known.insert(record->sopInstanceUID);
        qint64 pk = seriesPk;
        if (pk == -1) {
            auto hit = seriesPkByUID.constFind(seriesUID);
            pk = hit != seriesPkByUID.constEnd() ? *hit : seriesPkByUID.insert(seriesUID, getSeriesPKBySeriesUID(seriesUID)).value();
        }
        record->seriesPk = pk;
        setColumn(record, table, "series_fk", pk);
        setColumn(record, table, "SOPInstanceUID", record->sopInstanceUID);
        record->state = ImageRecord::New;
    };
    for (int i = 0; i < count; ++i) {
        const size_t k = size_t(i);
        if (stored[k]) {
            formats[k].sopInstanceUID = pixs[k].sopInstanceUID = infos[k].sopInstanceUID = files.at(i).sopInstanceUID;
            formats[k].state = pixs[k].state = infos[k].state = ImageRecord::Duplicate;
        } else if (!formats[k].values.isEmpty() && !formats[k].sopInstanceUID.isEmpty()) {
            resolve(&formats[k], kImageFormat, knownFormat, seriesUIDs[k]);
            resolve(&pixs[k], kImagePixel, knownPix, seriesUIDs[k]);
            resolve(&infos[k], kMrImageInfo, knownMR, seriesUIDs[k]);
        } else {
            ++m_counts.unreadable;
            continue;
        }
        if (formats[k].state == ImageRecord::Duplicate) {
            ++m_counts.duplicates;
            if (copy) {
                formats[k].values = QVector<QVariant>(schema::columns(kImageFormat).size());
                setColumn(&formats[k], kImageFormat, "IrradiationEventUID", storedMarkers.value(formats[k].sopInstanceUID));
            }
        }
    }
    m_processed += count;
    qWarning() << "get Info time elapsed: " << timer.elapsed();

    if (copy)
        copySeriesFiles(formats.data(), count, seriesDir);
    if (addImageFormatsToDB(formats.data(), count))
        m_counts.imagesAdded += newRecords(formats.data(), count);
    addImagePixsToDB(pixs.data(), count);
    addMRImageInfosToDB(infos.data(), count);
    commitWrites(false);
    qWarning() << "add DB   time elapsed: " << timer.elapsed();
}

// ---------------------------------------------------------------------------------------------
// Receive queue

void QDcmFiles::onNotifyUploadDB(QString seriesUID)
{
    const QString ini = Kestrel::configFilePath(QStringLiteral("main.ini"));
    if (!QFileInfo::exists(ini))
        return;
    const int copyMode = QSettings(ini, QSettings::IniFormat).value(QStringLiteral("dataCopyType/dataCopyType"), 0).toInt();

    QSqlDatabase db = database();
    reopenIfLost(db);
    QStringList instanceUIDs;
    QList<QString> paths;
    {
        Statement query(db, QStringLiteral("SELECT InstanceUID,filepath FROM images WHERE DBflag = 0"));
        const Status read = query.run();
        if (!read) {
            emit errorInfo(read.text());
            return;
        }
        while (query.next()) {
            instanceUIDs << query.get<QString>(0);
            paths << query.get<QString>(1);
        }
    }
    if (paths.isEmpty())
        return;

    // The waiting files are a set of their own: earlier runs' groups are not walked again.
    reinit();
    loadLocalFilesToDB(paths, copyMode);

    // The queue's flags and the series' count change together or not at all.
    const Status flagged = runWrite(db, [&](Transaction&) {
        Statement flag(db, QStringLiteral("UPDATE images SET DBflag=1 WHERE InstanceUID = ?"));
        for (const QString& uid : qAsConst(instanceUIDs)) {
            if (const Status status = flag.bind(uid).run(); !status)
                return status;
        }
        Statement count(db, QStringLiteral("SELECT count(*) FROM images WHERE seriesUID = ? And DBflag=1"));
        if (const Status status = count.bind(seriesUID).run(); !status)
            return status;
        if (!count.next())
            return Status::ok();
        const qint64 imported = count.get<qint64>(0);
        count.finish();
        return execute(db, QStringLiteral("UPDATE series SET upDBnum=? WHERE seriesUID=?"), {imported, seriesUID});
    });
    if (!flagged)
        emit errorInfo(tr("cannot mark the received files of %1 as imported: %2").arg(seriesUID, flagged.text()));
    emit notifyUpdateMainWindow();
    emit notifyNewSeriesUID(seriesUID);
}
