#include "qdcmfiles.h"

#include "catalog/catalogschema_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/headerscan_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importrecords_p.h"
#include "import/importstate_p.h"
#include "import/headerread_p.h"
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
using namespace kestrel::internal::import;

namespace {

// The scanners this application serves mark several acquisitions of one series with this
// private element.
const DcmTagKey kPhaseTag(0x5501, 0x111F);


} // namespace

QDcmFiles::QDcmFiles(QObject* parent)
    : QObject(parent)
    , m_fileFormat(new DcmFileFormat)
    , m_state(std::make_unique<ImportState>())
{
    QSqlDatabase db = cloneDefaultConnection();
    m_connectionName = db.connectionName();
    if (!db.isOpen())
        emit errorInfo(db.lastError().text());
}

QDcmFiles::~QDcmFiles()
{
    delete m_fileFormat;
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
    *m_state = ImportState();
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

namespace {

// Only one maker's series hold several phases under one UID (told apart by a private attribute).
bool phasedSeries(const QString& seriesUID)
{
    // The fourth component is "30917" (asked of every file read: no split).
    int start = 0;
    for (int dots = 0; dots < 3; ++dots) {
        start = seriesUID.indexOf(QLatin1Char('.'), start) + 1;
        if (start == 0)
            return false;
    }
    const int end = seriesUID.indexOf(QLatin1Char('.'), start);
    return QStringView(seriesUID).mid(start, (end < 0 ? seriesUID.size() : end) - start) == QLatin1String("30917");
}

} // namespace

QString QDcmFiles::phaseOf(const QString& seriesUID, DcmFileFormat* file)
{
    if (!phasedSeries(seriesUID))
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

QStringList QDcmFiles::filesBelow(const QStringList& paths, QStringList* skipped)
{
    QStringList files;
    QSet<QString> visited;
    for (const QString& path : paths) {
        const QFileInfo info(path);
        if (!info.isDir()) {
            if (info.exists())
                files.append(info.canonicalFilePath());
            else if (skipped)
                *skipped << path + QStringLiteral(": no such file");
            continue;
        }
        QStringList folders{info.absoluteFilePath()};
        while (!folders.isEmpty()) {
            const QString folder = folders.takeFirst();
            const QString real = QFileInfo(folder).canonicalFilePath();
            if (real.isEmpty() || visited.contains(real))
                continue;
            visited.insert(real);
            // Listed by its real path: the files' paths are canonical as they come.
            const QDir dir(real);
            if (!dir.isReadable()) {
                if (skipped)
                    *skipped << folder + QStringLiteral(": the folder cannot be read");
                continue;
            }
            const QFileInfoList entries =
                dir.entryInfoList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot, QDir::Name);
            for (const QFileInfo& entry : entries) {
                if (entry.isDir())
                    folders.append(entry.absoluteFilePath());
                else if (entry.isSymLink() && !entry.exists()) {
                    if (skipped)
                        *skipped << folder + QLatin1Char('/') + entry.fileName() + QStringLiteral(": a link to nothing");
                } else
                    files.append(entry.isSymLink() ? entry.canonicalFilePath() : entry.absoluteFilePath());
            }
        }
    }
    return files;
}

int QDcmFiles::loadLocalFolderToDB(QString path, int copyMode, bool recursive)
{
    // The walk always descends into sub-folders; callers rely on that whatever they pass.
    Q_UNUSED(recursive)
    emit finishReadFiles(false);
    emit readInfo(tr("Traversal"));
    QStringList skipped;
    const QList<QString> files = QFileInfo::exists(path) ? filesBelow({path}, &skipped) : QStringList();
    const int result = importFiles(files, copyMode, false);
    m_counts.skippedFiles = skipped + m_counts.skippedFiles;
    m_counts.unreadable += skipped.size();
    return result;
}

int QDcmFiles::loadLocalFilesToDB(QList<QString> files, int copyMode)
{
    return importFiles(files, copyMode, true);
}

int QDcmFiles::importFiles(QList<QString> files, int copyMode, bool resolvePaths)
{
    QElapsedTimer run;
    run.start();
    m_counts = RunCounts();
    m_counts.filesListed = files.size();
    m_lastError.clear();
    m_lastImportOk = true;
    m_copyMode = copyMode;
    // Paths are catalogued absolute and canonical: a catalogue read from another working folder
    // finds its files, and a file reached through two links is one file.
    // Each folder is resolved once; a file is resolved on its own only when it is a link. (The
    // folder walk gives canonical paths already.)
    QHash<QString, QString> canonicalFolders;
    if (resolvePaths) {
        for (QString& file : files) {
            const QFileInfo info(file);
            const QString folder = info.absolutePath();
            auto known = canonicalFolders.find(folder);
            if (known == canonicalFolders.end())
                known = canonicalFolders.insert(folder, QFileInfo(folder).canonicalFilePath());
            if (!known->isEmpty() && !info.isSymLink()) {
                file = *known + QLatin1Char('/') + info.fileName();
                continue;
            }
            const QString canonical = info.canonicalFilePath();
            file = canonical.isEmpty() ? info.absoluteFilePath() : canonical;
        }
    }

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
    // Who the patient is is read from the first file of each study only.
    m_state->plan = import::planImport(m_state->facts, [this](import::FileFacts& facts) {
        if (loadWithParser(facts.path, kSortReadLength))
            import::readIdentity(m_fileFormat->getDataset(), facts);
    });
    for (const QString& reason : qAsConst(m_state->plan.notCatalogued))
        skipFile(reason);
    m_counts.unreadable += m_state->plan.notCatalogued.size();
    m_counts.filesRead -= m_state->plan.notCatalogued.size();
    qWarning() << "time elapsed: " << timer.elapsed();

    emit readInfo(QStringLiteral("add data base"));
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
    std::vector<import::FileFacts> facts(static_cast<size_t>(count));
    // Most headers are read without DCMTK (HeaderScan), the others by DCMTK as always.
    std::vector<HeaderScan> scans = makeScans(int(parsers.size()));
#pragma omp parallel for schedule(static) num_threads(int(parsers.size())) reduction(+ : unreadable)
    for (int i = 0; i < count; ++i) {
        DcmFileFormat* parser = parsers[size_t(omp_get_thread_num())].get();
        HeaderScan& scan = scans[size_t(omp_get_thread_num())];
        const QString& path = files.at(i);
        import::FileFacts& fact = facts[size_t(i)];
        const bool scanned = scan.scan(QFile::encodeName(path)) && import::readFacts(scan, fact) && !phasedSeries(fact.seriesUID);
        DcmDataset* dataset = nullptr;
        if (!scanned) {
            fact = import::FileFacts();
            if (!loadHeader(parser, path, kGroupReadLength)) {
                ++unreadable;
                continue;
            }
            dataset = parser->getDataset();
            import::readFacts(dataset, fact);
        }
        fact.read = true;
        const QString& seriesUID = fact.seriesUID;
        const QString& sopUID = fact.sopInstanceUID;
        const QString phase = scanned ? QStringLiteral("0") : phaseOf(seriesUID, parser);
        fact.phase = phase;
        if (prefetch && !seriesUID.isEmpty() && !catalogued.contains(seriesUID + '#' + phase)) {
            ImageRecords& r = records[size_t(i)];
            r.format.filePath = path;
            if (scanned)
                readImageRecords(&r.format, &r.pix, &r.info, scan);
            else
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
    for (int i = 0; i < count; ++i) {
        facts[size_t(i)].path = files.at(i);
        const auto known = m_state->factIndex.constFind(files.at(i));
        if (known != m_state->factIndex.constEnd()) {
            m_state->facts[size_t(*known)] = std::move(facts[size_t(i)]);
        } else {
            m_state->factIndex.insert(files.at(i), int(m_state->facts.size()));
            m_state->facts.push_back(std::move(facts[size_t(i)]));
        }
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
        // Only what reached the catalogue is marked: the rest waits and is tried again with the
        // next received series.
        Statement flag(db, QStringLiteral("UPDATE images SET DBflag=1 WHERE InstanceUID = ? AND EXISTS "
                                          "(SELECT 1 FROM imageformat WHERE SOPInstanceUID = ?)"));
        for (const QString& uid : qAsConst(instanceUIDs)) {
            if (const Status status = flag.bind(uid).bind(uid).run(); !status)
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
