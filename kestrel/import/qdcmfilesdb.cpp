// QDcmFiles: the patient, study and series rows, the image records and their writers, and the
// lookups of the import pass. Every statement runs on the importer's own connection with bound
// values.
#include "qdcmfiles.h"

#include "catalog/batchinsert_p.h"
#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/headerscan_p.h"
#include "import/imagerecordfill_p.h"
#include "import/importrecords_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>

#include <QDate>

using namespace kestrel::internal;

namespace {

const QString kImageFormat = QStringLiteral("imageformat");
const QString kImagePixel = QStringLiteral("imagepixel");
const QString kMrImageInfo = QStringLiteral("mrimageinfo");

constexpr unsigned int kSortReadLength = 2048;
constexpr unsigned int kRecordReadLength = 4096;

// The key of the last row, -1 without rows, FAILED when the query fails.
qint64 lastKey(QSqlDatabase db, const QString& text, const QVariant& value, qint64 failed = -1)
{
    Statement query(db, text);
    if (!query.bind(value).run())
        return failed;
    qint64 pk = -1;
    while (query.next())
        pk = query.get<qint64>(0);
    return pk;
}

QList<PKAndUID> keysAndUIDs(QSqlDatabase db, const QString& text, qint64 parentPk)
{
    QList<PKAndUID> list;
    Statement query(db, text);
    if (query.bind(parentPk).run()) {
        while (query.next())
            list.append(PKAndUID{query.get<qint64>(0), query.get<QString>(1)});
    }
    return list;
}

// The first value of SQL's first row as text, false without a row or when the query fails.
bool firstText(QSqlDatabase db, const QString& sql, const QVariant& value, QString* text)
{
    Statement query(db, sql);
    if (!query.bind(value).run() || !query.next())
        return false;
    *text = query.get<QString>(0);
    return true;
}

// Writes ROWS into TABLE; false with *ERROR set when a statement failed.
bool write(QSqlDatabase db, const QString& table, const QVector<const QVector<QVariant>*>& rows, QString* error)
{
    const Status status = insertRows(db, table, rows);
    if (!status && error)
        *error = status.text();
    return status.isOk();
}

// Marks RECORD against KNOWN: a duplicate stops here; otherwise the UID is claimed and the series
// key resolved (per file from its SeriesInstanceUID when the series was created in this run).
bool claim(QDcmFiles* importer, ImageRecord* record, QSet<QString>& known, qint64 seriesPk, DcmItem* item)
{
    record->sopInstanceUID = dcmString(item, DCM_SOPInstanceUID);
    if (known.contains(record->sopInstanceUID)) {
        record->state = ImageRecord::Duplicate;
        return false;
    }
    known.insert(record->sopInstanceUID);
    record->seriesPk = seriesPk == -1 ? importer->getSeriesPKBySeriesUID(dcmString(item, DCM_SeriesInstanceUID)) : seriesPk;
    return true;
}

void finish(ImageRecord* record, const QString& table)
{
    setColumn(record, table, "series_fk", record->seriesPk);
    setColumn(record, table, "SOPInstanceUID", record->sopInstanceUID);
    record->state = ImageRecord::New;
}

} // namespace

namespace kestrel::internal {

void setColumn(ImageRecord* record, const QString& table, const QString& column, const QVariant& value)
{
    const int index = records::columnIndex(table, column);
    if (index >= 0 && index < record->values.size())
        record->values[index] = value;
}

QVariant columnValue(const ImageRecord& record, const QString& table, const QString& column)
{
    const int index = records::columnIndex(table, column);
    return index >= 0 && index < record.values.size() ? record.values.at(index) : QVariant();
}

namespace {

void finishImageFormat(ImageFormat* record, const QString& sop)
{
    // ContentDate as the file has it (a DICOM date, YYYYMMDD).
    setColumn(record, kImageFormat, "ContentDate", columnValue(*record, kImageFormat, "ContentDate").toString().trimmed());
    setColumn(record, kImageFormat, "FilePath", record->filePath);
    record->sopInstanceUID = sop;
}

void finishImagePix(ImagePix* record, const QString& sop)
{
    record->sliceThickness = columnValue(*record, kImagePixel, "SliceThickness").toString().section('\\', 0, 0).toFloat();
    record->sliceLocation = columnValue(*record, kImagePixel, "SliceLocation").toString().section('\\', 0, 0).toFloat();
    record->sopInstanceUID = sop;
}

} // namespace

void readImageFormat(ImageFormat* record, DcmItem* item)
{
    record->values = records::readColumns(kImageFormat, item);
    finishImageFormat(record, dcmString(item, DCM_SOPInstanceUID));
}

void readImagePix(ImagePix* record, DcmItem* item)
{
    record->values = records::readColumns(kImagePixel, item);
    finishImagePix(record, dcmString(item, DCM_SOPInstanceUID));
}

void readMRImageInfo(MRImageInfo* record, DcmItem* item)
{
    record->values = records::readColumns(kMrImageInfo, item);
    record->sopInstanceUID = dcmString(item, DCM_SOPInstanceUID);
}

namespace {

// The three records from the tables' VALUES (as readColumns gives them) and the file's SOP.
void fillImageRecords(ImageFormat* format, ImagePix* pix, MRImageInfo* info, QVector<QVector<QVariant>> values,
                      const QString& sop)
{
    format->values = std::move(values[0]);
    pix->values = std::move(values[1]);
    info->values = std::move(values[2]);
    finishImageFormat(format, sop);
    finishImagePix(pix, sop);
    info->sopInstanceUID = sop;
}

} // namespace

void readImageRecords(ImageFormat* format, ImagePix* pix, MRImageInfo* info, DcmItem* item)
{
    fillImageRecords(format, pix, info, records::readColumns(imageTables(), item), dcmString(item, DCM_SOPInstanceUID));
}

void readImageRecords(ImageFormat* format, ImagePix* pix, MRImageInfo* info, const HeaderScan& scan)
{
    fillImageRecords(format, pix, info, records::readColumns(imageTables(), scan),
                     scan.string(dcmTagCode(DCM_SOPInstanceUID)));
}

const QStringList& imageTables()
{
    static const QStringList tables{kImageFormat, kImagePixel, kMrImageInfo};
    return tables;
}

} // namespace kestrel::internal

// ---------------------------------------------------------------------------------------------
// Patients, studies, series

qint64 QDcmFiles::getPatientIDAndName(QString file)
{
    if (!loadWithParser(file, kSortReadLength))
        return -2;
    DcmDataset* dataset = m_fileFormat->getDataset();
    // The ID as the patient row stores it (the whole value, decoded by the file's character set):
    // any other form misses rows with several values or non-ASCII text and adds the patient again.
    const QString id = dcmDecodedString(dataset, DCM_PatientID);
    const QString name = dcmDecodedString(dataset, DCM_PatientName);
    // A file without PatientID cannot be placed; one without a name is catalogued under its ID.
    if (id.isEmpty())
        return -2;
    m_patientID = id;
    return getPatientPKByNameAndID(name, id);
}

qint64 QDcmFiles::getPatientPKByNameAndID(QString name, QString id)
{
    // Patients are identified by PatientID alone: two names under one ID are one patient.
    Q_UNUSED(name)
    return lastKey(database(), QStringLiteral("SELECT pk FROM patient WHERE PatientID = ?"), id, -2);
}

bool QDcmFiles::addPatientDataBase(QString file)
{
    if (!loadWithParser(file, kSortReadLength))
        return false;
    QVector<QVariant> values = records::readColumns(QStringLiteral("patient"), m_fileFormat->getDataset());
    values[records::columnIndex("patient", "Status")] = records::notUploadedStatus();
    return write(database(), QStringLiteral("patient"), {&values}, &m_lastError);
}

bool QDcmFiles::addStudyDataBase(QString file, qint64 patientPk)
{
    if (!loadWithParser(file, kSortReadLength))
        return false;
    const QString table = QStringLiteral("generalstudy");
    QVector<QVariant> values = records::readColumns(table, m_fileFormat->getDataset());
    const int time = records::columnIndex(table, "StudyTime");
    values[time] = records::timeOfDay(values.at(time).toString());
    values[records::columnIndex(table, "patient_fk")] = patientPk;
    values[records::columnIndex(table, "Status")] = records::notUploadedStatus();
    return write(database(), table, {&values}, &m_lastError);
}

bool QDcmFiles::addGeneralSeriesDataBase(UIDandFile series, qint64 studyPk)
{
    if (!loadWithParser(series.path, kSortReadLength)) {
        m_lastError = tr("cannot read %1").arg(series.path);
        return false;
    }
    const QString table = QStringLiteral("generalseries");
    QVector<QVariant> values = records::readColumns(table, m_fileFormat->getDataset());
    const int time = records::columnIndex(table, "SeriesTime");
    values[time] = records::timeOfDay(values.at(time).toString());
    values[records::columnIndex(table, "study_fk")] = studyPk;
    values[records::columnIndex(table, "SeriesBase")] = series.uid;
    values[records::columnIndex(table, "Status")] = records::notUploadedStatus();
    return write(database(), table, {&values}, &m_lastError);
}

QList<PKAndUID> QDcmFiles::getStudyPKAndUIDByPatientFK(qint64 patientPk)
{
    return keysAndUIDs(database(), QStringLiteral("SELECT pk,StudyInstanceUID FROM generalstudy WHERE patient_fk = ?"), patientPk);
}

qint64 QDcmFiles::getStudyPKByStudyUID(QString studyUID)
{
    return lastKey(database(), QStringLiteral("SELECT pk FROM generalstudy WHERE StudyInstanceUID = ?"), studyUID);
}

QList<PKAndUID> QDcmFiles::getSeriesPKAndUIDByStudyFK(qint64 studyPk)
{
    return keysAndUIDs(database(), QStringLiteral("SELECT pk,SeriesBase FROM generalseries WHERE study_fk = ?"), studyPk);
}

qint64 QDcmFiles::getSeriesPKBySeriesUID(QString seriesUID)
{
    return lastKey(database(), QStringLiteral("SELECT pk FROM generalseries WHERE SeriesInstanceUID = ?"), seriesUID);
}

qint64 QDcmFiles::getSeriesPkBySeriesBase(QString seriesBase)
{
    return lastKey(database(), QStringLiteral("SELECT pk FROM generalseries WHERE SeriesBase = ?"), seriesBase);
}

qint64 QDcmFiles::getStudyUid(QString file)
{
    // The key of the study the file belongs to.
    if (!loadWithParser(file, kSortReadLength))
        return -1;
    return getStudyPKByStudyUID(dcmString(m_fileFormat->getDataset(), DCM_StudyInstanceUID));
}

qint64 QDcmFiles::getSeriesUid(QString file)
{
    // The key of the (last) series row with the file's SeriesInstanceUID.
    if (!loadWithParser(file, kSortReadLength))
        return -1;
    return getSeriesPKBySeriesUID(dcmString(m_fileFormat->getDataset(), DCM_SeriesInstanceUID));
}

bool QDcmFiles::getPatientName(QString file, QString& name)
{
    if (!loadWithParser(file, kSortReadLength))
        return false;
    name = dcmDecodedString(m_fileFormat->getDataset(), DCM_PatientName);
    return true;
}

bool QDcmFiles::getSeriesInstanceUID(QString file, QString& seriesUID)
{
    if (!loadWithParser(file, kSortReadLength))
        return false;
    seriesUID = dcmString(m_fileFormat->getDataset(), DCM_SeriesInstanceUID);
    return true;
}

// ---------------------------------------------------------------------------------------------
// Image records

bool QDcmFiles::getImageFormat(ImageFormat* record, QSet<QString>& known, qint64 seriesPk, DcmFileFormat* file)
{
    DcmDataset* dataset = file->getDataset();
    if (!claim(this, record, known, seriesPk, dataset)) {
        if (m_copyMode) {
            // In copy mode the stored row's IrradiationEventUID is the storage marker.
            record->values = QVector<QVariant>(schema::columns(kImageFormat).size());
            QString marker;
            if (firstText(database(), QStringLiteral("SELECT IrradiationEventUID FROM imageformat WHERE SOPInstanceUID = ?"),
                          record->sopInstanceUID, &marker))
                setColumn(record, kImageFormat, "IrradiationEventUID", marker);
        }
        return true;
    }
    const qint64 pk = record->seriesPk;
    readImageFormat(record, dataset);
    record->seriesPk = pk;
    finish(record, kImageFormat);
    return true;
}

bool QDcmFiles::getImagePix(ImagePix* record, QSet<QString>& known, qint64 seriesPk, DcmFileFormat* file)
{
    DcmDataset* dataset = file->getDataset();
    if (!claim(this, record, known, seriesPk, dataset))
        return true;
    const qint64 pk = record->seriesPk;
    readImagePix(record, dataset);
    record->seriesPk = pk;
    finish(record, kImagePixel);
    return true;
}

bool QDcmFiles::getMRImageInfo(MRImageInfo* record, QSet<QString>& known, qint64 seriesPk, DcmFileFormat* file)
{
    DcmDataset* dataset = file->getDataset();
    if (!claim(this, record, known, seriesPk, dataset))
        return true;
    const qint64 pk = record->seriesPk;
    readMRImageInfo(record, dataset);
    record->seriesPk = pk;
    finish(record, kMrImageInfo);
    return true;
}

// The batch writers bind every value: ImageType's backslashes and any apostrophe reach the column as
// they are on both databases.
template <typename Record>
static bool writeBatch(QSqlDatabase db, const QString& table, Record* records, int count, QString* error)
{
    QVector<const QVector<QVariant>*> rows;
    for (int i = 0; i < count; ++i) {
        if (records[i].state == ImageRecord::New && !records[i].values.isEmpty())
            rows.append(&records[i].values);
    }
    return write(db, table, rows, error);
}

bool QDcmFiles::addImageFormatsToDB(ImageFormat* records, int count)
{
    QString error;
    if (writeBatch(database(), kImageFormat, records, count, &error))
        return true;
    ++m_counts.failedBatches;
    emit errorInfo(error);
    return false;
}

bool QDcmFiles::addImagePixsToDB(ImagePix* records, int count)
{
    QString error;
    if (writeBatch(database(), kImagePixel, records, count, &error))
        return true;
    ++m_counts.failedBatches;
    emit errorInfo(error);
    return false;
}

bool QDcmFiles::addMRImageInfosToDB(MRImageInfo* records, int count)
{
    QString error;
    if (writeBatch(database(), kMrImageInfo, records, count, &error))
        return true;
    ++m_counts.failedBatches;
    emit errorInfo(error);
    return false;
}

bool QDcmFiles::insertRecord(const QString& table, const ImageRecord& record)
{
    if (record.state != ImageRecord::New)
        return false;
    return write(database(), table, {&record.values}, &m_lastError);
}

bool QDcmFiles::addImageFormatDataBase(QSet<QString>& known, QString file, qint64 seriesPk)
{
    if (!loadWithParser(file, kRecordReadLength))
        return false;
    ImageFormat record;
    record.filePath = file;
    getImageFormat(&record, known, seriesPk, m_fileFormat);
    return insertRecord(kImageFormat, record);
}

bool QDcmFiles::addImagePixDataBase(QSet<QString>& known, QString file, qint64 seriesPk)
{
    if (!loadWithParser(file, kRecordReadLength))
        return false;
    ImagePix record;
    getImagePix(&record, known, seriesPk, m_fileFormat);
    return insertRecord(kImagePixel, record);
}

bool QDcmFiles::addMRImageInfoDataBase(QSet<QString>& known, QString file, qint64 seriesPk)
{
    if (!loadWithParser(file, kRecordReadLength))
        return false;
    MRImageInfo record;
    getMRImageInfo(&record, known, seriesPk, m_fileFormat);
    return insertRecord(kMrImageInfo, record);
}

bool QDcmFiles::getImageInstanceUID(QString table, qint64 seriesPk, QSet<QString>& known)
{
    if (table != kImageFormat && table != kImagePixel && table != kMrImageInfo)
        return false;
    // TABLE is one of the schema's three image tables (checked above).
    Statement query(database(), QStringLiteral("SELECT SOPInstanceUID FROM %1 WHERE series_fk = ?").arg(table));
    if (!query.bind(seriesPk).run())
        return false;
    while (query.next())
        known.insert(query.get<QString>(0));
    return true;
}

bool QDcmFiles::IsImageFormatTableExist()
{
    return execute(database(), QStringLiteral("SELECT * FROM imageformat WHERE InstanceNumber = NULL")).isOk();
}

bool QDcmFiles::IsImagePixTableExist()
{
    return execute(database(), QStringLiteral("SELECT * FROM imagepixel WHERE SliceThickness = NULL")).isOk();
}

bool QDcmFiles::getEchoTime(qint64 seriesPk, QString& echoTime)
{
    return firstText(database(), QStringLiteral("SELECT EchoTime FROM mrimageinfo WHERE series_fk = ?"), seriesPk, &echoTime);
}

bool QDcmFiles::getEchoTime(QString file, QString& echoTime)
{
    if (!loadWithParser(file, kRecordReadLength))
        return false;
    echoTime = dcmStringAll(m_fileFormat->getDataset(), DCM_EchoTime);
    return true;
}

bool QDcmFiles::getMagneticFieldStrength(qint64 seriesPk, QString& strength)
{
    return firstText(database(), QStringLiteral("SELECT MagneticFieldStrength FROM mrimageinfo WHERE series_fk = ?"),
                     seriesPk, &strength);
}

bool QDcmFiles::getMagneticFieldStrength(QString file, QString& strength)
{
    if (!loadWithParser(file, kRecordReadLength))
        return false;
    strength = dcmStringAll(m_fileFormat->getDataset(), DCM_MagneticFieldStrength);
    return true;
}
