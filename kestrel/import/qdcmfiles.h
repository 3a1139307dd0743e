#pragma once

#include "kestrel_global.h"

#include <QElapsedTimer>
#include <QHash>
#include <QList>
#include <QObject>
#include <QSet>
#include <QString>
#include <QStringList>
#include <QVariant>
#include <QSqlDatabase>
#include <QVector>

#include <memory>
#include <vector>

class DcmFileFormat;


// One file of a series found by the reading pass: its phase, its path, and the SOPInstanceUID read
// on the way (lets the record pass recognise files the catalogue already holds without reading
// them again).
struct NameAndPhase {
    QString phase;
    QString path;
    QString sopInstanceUID;
};

// A key and a representative file: a series key in the study hash, a StudyInstanceUID in the
// patient hash.
struct UIDandFile {
    QString uid;
    QString path;
};

// A row key and the UID (or series key) it belongs to.
struct PKAndUID {
    qint64 pk = -1;
    QString uid;
};

// In-memory image rows, one per image table. `values` holds one entry per column of the table in
// insert order (the column lists of the catalogue schema); the state tells the batch writer what
// to do with the record.
struct ImageRecord {
    enum State { NotFilled = 0, New = 1, Duplicate = 2 };
    int state = NotFilled;
    QVector<QVariant> values;
    qint64 seriesPk = -1;
    QString sopInstanceUID;
};

struct ImageFormat : ImageRecord {
    QString filePath;
};

struct ImagePix : ImageRecord {
    float sliceThickness = 0.0f;
    float sliceLocation = 0.0f;
};

struct MRImageInfo : ImageRecord {
};

// The three records of one file as the reading pass found them, so that the record pass need not
// read the file a second time.
struct ImageRecords {
    ImageFormat format;
    ImagePix pix;
    MRImageInfo info;
    QString seriesUID;
};

// Imports DICOM files into the catalogue: reads every header in parallel and groups the files by
// series key (SeriesInstanceUID "#" phase), finds each series' study and each study's patient, then
// walks patients, studies and series, writing the rows that are missing and one multi-row INSERT
// per image table and series. With a copy mode the files are first copied into the dated storage
// tree. Uses its own clone of the default connection, so an importer may live in a worker thread.
class KESTREL_EXPORT QDcmFiles : public QObject
{
    Q_OBJECT
public:
    // What the last run did, for status displays and the command line.
    struct RunCounts {
        int filesListed = 0;      // paths given to the run
        int filesRead = 0;        // read as DICOM with a SeriesInstanceUID
        int unreadable = 0;       // not DICOM, truncated, folders, objects without a series
        int patientsAdded = 0;
        int studiesAdded = 0;
        int seriesAdded = 0;
        int imagesAdded = 0;
        int duplicates = 0;       // images already catalogued or seen twice in the run
        int skippedNoPatientID = 0;
        int failedBatches = 0;    // image batches the database rejected
        qint64 elapsedMs = 0;
        // Files read but not catalogued ("path: reason": no StudyInstanceUID, no SOPInstanceUID,
        // the SOP Instance UID of another file with other content), and paths skipped by the folder
        // walk (unreadable folders, broken links).
        QStringList skippedFiles;
        // What a person should know about the run: a patient ID that also names another person,
        // a study that moved to the patient its files name.
        QStringList notes;
    };

    explicit QDcmFiles(QObject* parent = nullptr);
    ~QDcmFiles() override;

    int loadLocalFilesToDB(QList<QString> files, int copyMode);

    // Every file under PATHS (files as they are, folders with all their sub-folders), by its
    // absolute, canonical path. Links are followed and each real folder is walked once, so a link
    // back up cannot loop; unreadable folders and links to nothing are named in *SKIPPED
    // ("path: reason").
    static QStringList filesBelow(const QStringList& paths, QStringList* skipped = nullptr);
    int loadLocalFolderToDB(QString path, int copyMode, bool recursive);

    bool addDataBase();
    bool addAndCopyDataBase();

    bool addFile(QString file, QString& seriesUID);
    bool addPatientFile(QString file, QString& error);
    bool addStudyFile(NameAndPhase file, QString& studyUID);

    void reinit();

    // Counts of the last loadLocalFilesToDB (import pass included) and the cause of a failed pass.
    RunCounts lastRunCounts() const { return m_counts; }
    QString lastError() const { return m_lastError; }
    // The result of the last import pass (addDataBase / addAndCopyDataBase).
    bool lastImportSucceeded() const { return m_lastImportOk; }
    QString connectionName() const { return m_connectionName; }

    // Patient, study and series rows and their lookups. Lookups return the key, -1 when no row
    // matches; the patient lookups return -2 on a failed read or query.
    qint64 getPatientIDAndName(QString file);
    qint64 getPatientPKByNameAndID(QString name, QString id);
    bool addPatientDataBase(QString file);
    bool addStudyDataBase(QString file, qint64 patientPk);
    bool addGeneralSeriesDataBase(UIDandFile series, qint64 studyPk);
    QList<PKAndUID> getStudyPKAndUIDByPatientFK(qint64 patientPk);
    qint64 getStudyPKByStudyUID(QString studyUID);
    QList<PKAndUID> getSeriesPKAndUIDByStudyFK(qint64 studyPk);
    qint64 getSeriesPKBySeriesUID(QString seriesUID);
    qint64 getSeriesPkBySeriesBase(QString seriesBase);
    qint64 getStudyUid(QString file);
    qint64 getSeriesUid(QString file);
    bool getPatientName(QString file, QString& name);
    bool getSeriesInstanceUID(QString file, QString& seriesUID);

    // Image records: fill from a parsed file (marking duplicates against KNOWN), write batches,
    // and the one-file forms with the single-row INSERTs.
    bool getImageFormat(ImageFormat* record, QSet<QString>& known, qint64 seriesPk, DcmFileFormat* file);
    bool getImagePix(ImagePix* record, QSet<QString>& known, qint64 seriesPk, DcmFileFormat* file);
    bool getMRImageInfo(MRImageInfo* record, QSet<QString>& known, qint64 seriesPk, DcmFileFormat* file);
    bool addImageFormatsToDB(ImageFormat* records, int count);
    bool addImagePixsToDB(ImagePix* records, int count);
    bool addMRImageInfosToDB(MRImageInfo* records, int count);
    bool addImageFormatDataBase(QSet<QString>& known, QString file, qint64 seriesPk);
    bool addImagePixDataBase(QSet<QString>& known, QString file, qint64 seriesPk);
    bool addMRImageInfoDataBase(QSet<QString>& known, QString file, qint64 seriesPk);
    bool getImageInstanceUID(QString table, qint64 seriesPk, QSet<QString>& known);
    bool IsImageFormatTableExist();
    bool IsImagePixTableExist();
    bool getEchoTime(qint64 seriesPk, QString& echoTime);
    bool getEchoTime(QString file, QString& echoTime);
    bool getMagneticFieldStrength(qint64 seriesPk, QString& strength);
    bool getMagneticFieldStrength(QString file, QString& strength);

    // The phase of a file: "0" unless the SeriesInstanceUID's fourth component is "30917", then the
    // integer of (5501,111F) ("0" when absent).
    static QString phaseOf(const QString& seriesUID, DcmFileFormat* file);

public slots:
    void onReadInfo();
    void onNotifyUploadDB(QString seriesUID);

signals:
    // Progress: texts of each stage, and percentages (maximum always 100): 1 at the start, up to
    // 10 over the reading pass, up to 100 over the import pass. Emitted from the importing thread
    // and, during the reading pass, from OpenMP workers: connect queued across threads.
    void readInfo(const QString& text);
    void readInfo(int value, int maximum);
    // false when a folder import starts, true when a run has ended.
    void finishReadFiles(bool finished);
    // Database errors (connection, rejected batches); the run goes on.
    void errorInfo(QString text);
    // A file a derived importer could not handle.
    void fileError(const QString& file);
    // After the receive queue was imported.
    void notifyNewSeriesUID(QString seriesUID);
    void notifyUpdateMainWindow();

protected:
    int sortPatient();
    int sortStudy();

    // This importer's own connection.
    QSqlDatabase database() const;
    // The grouping pass: every file's series key, in parallel (one parser per worker).
    void readingPass(const QList<QString>& files, std::vector<std::unique_ptr<DcmFileFormat>>& parsers);
    // Every series key (SeriesBase) of the catalogue.
    QSet<QString> cataloguedSeries();
    // loadLocalFilesToDB's run; RESOLVEPATHS makes each path absolute and canonical first (the
    // folder walk's paths are already).
    int importFiles(QList<QString> files, int copyMode, bool resolvePaths);
    // The import pass shared by both modes; COPY adds the storage tree. Patients, studies and
    // series are written in the order of the run's plan, each row by an insert-or-look-up in a
    // unit of work of its own that is retried while another process holds the catalogue.
    bool importPass(bool copy);
    void importStudy(int study, qint64 patientPk, const QString& patientDir, bool copy);
    // The values of a new patient (0), study (1) or series (2) row of the plan's entry INDEX.
    bool readParentRow(int table, int index, QVector<QVariant>* values);
    // Says when the new patient PATIENTINDEX shares its ID with other people of the catalogue.
    void notePatientIDShared(int patientIndex, qint64 patientPk);
    // Records of one series: read (in parallel), de-duplicate, copy when asked, queue for writing.
    void importSeries(int series, qint64 seriesPk, const QString& seriesDir);
    // Writes the queued image rows in one unit of work.
    void writePendingImages();
    // Reads the file and storage marker of a series' catalogued images into the run's state, and
    // which of them have their pixel and MR rows into *PIX and *MR, in one query.
    void loadStoredImages(qint64 seriesPk, QSet<QString>* pix, QSet<QString>* mr);
    // Reads the stored images of the plan's series that were in the catalogue before this run.
    void prefetchStoredImages();
    // The file the catalogue names for SOP (from the series read last, else looked up); empty
    // when no row has it.
    QString storedPathOf(const QString& sop);
    // Writes RECORD's values as one row of TABLE (state New only).
    bool insertRecord(const QString& table, const ImageRecord& record);
    // Copies new images into SERIESDIR and handles the duplicates' stored copies (copy mode).
    void copySeriesFiles(ImageFormat* records, int count, const QString& seriesDir);
    // Files of the catalogue's rows that another file repeats: the row's file is checked, a
    // vanished one replaced by the new path, another content reported.
    void checkRepeatedFiles(const ImageFormat* records, int count);
    // Points the image rows of the given (SOP Instance UID, path) pairs at their new files.
    void updateFilePaths(const QList<QPair<QString, QString>>& rows);
    // A file read but not catalogued: counted with its reason ("path: why") and reported.
    void skipFile(const QString& reason);
    // Worker count of the parallel passes (4 when the runtime offers a single thread).
    static int workerCount();
    // Loads FILE with the object's parser up to MAXREADLENGTH bytes per value.
    bool loadWithParser(const QString& file, unsigned int maxReadLength);

    DcmFileFormat* m_fileFormat = nullptr;
    QList<QString> m_fileList;
    QHash<QString, QList<NameAndPhase>> m_seriesFiles;
    QHash<QString, QList<UIDandFile>> m_studySeries;
    QHash<QString, QList<UIDandFile>> m_patientStudies;
    int m_total = 0;
    int m_processed = 0;
    QString m_connectionName;
    int m_copyMode = 0;
    QString m_savePath;      // storage root of the copy mode
    QString m_dayPath;       // the import day's folder below it

    QString m_patientID;     // PatientID of the last getPatientIDAndName
    // Records filled by the reading pass (path -> records), taken by the record pass; kept for at
    // most kPrefetchLimit files of a run, the record pass reads any others again.
    QHash<QString, ImageRecords> m_prefetched;
    static constexpr int kPrefetchLimit = 50000;
    // The run's files (their identifying values) and its plan.
    struct ImportState;
    std::unique_ptr<ImportState> m_state;
    int m_workers = 1;       // OpenMP workers of the import pass
    RunCounts m_counts;
    QString m_lastError;
    bool m_lastImportOk = true;
};
