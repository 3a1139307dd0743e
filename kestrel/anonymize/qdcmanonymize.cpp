#include "qdcmanonymize.h"

#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/dicomtext_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcistrmb.h>
#include <dcmtk/dcmdata/dcostrmb.h>
#include <dcmtk/dcmdata/dcsequen.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRandomGenerator>
#include <QSettings>
#include <QSqlRecord>
#include <QUuid>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>

using namespace kestrel::internal;

namespace {

// Headers only: the pixel data stays on disk until the dataset is saved.
constexpr Uint32 kReadLimit = 2048;

const char* const kStudyRoot = "1.2.276.0.7230010.3.1.2";
const char* const kSeriesRoot = "1.2.276.0.7230010.3.1.3";
const char* const kSOPRoot = "1.2.276.0.7230010.3.1.4";

struct Emptied {
    const char* keyword;
    DcmTagKey tag;
    const char* fixedText; // null: emptied
};

// The emptying table read column by column; also the order of the anonymousimage columns after
// series_fk.
const Emptied kEmptied[] = {
        {"AccessionNumber", DCM_AccessionNumber, nullptr},
        {"PatientBirthTime", DCM_PatientBirthTime, nullptr},
        {"PatientName", DCM_PatientName, "Anonymized"},
        {"TypeOfPatientID", DCM_TypeOfPatientID, nullptr},
        {"PatientBirthDate", DCM_PatientBirthDate, nullptr},
        {"OtherPatientIDs", DCM_RETIRED_OtherPatientIDs, nullptr},
        {"OtherPatientNames", DCM_OtherPatientNames, nullptr},
        {"OtherPatientIDsSequence", DCM_OtherPatientIDsSequence, nullptr},
        {"EthnicGroup", DCM_EthnicGroup, nullptr},
        {"PatientSpeciesCodeSequence", DCM_PatientSpeciesCodeSequence, nullptr},
        {"PatientBreedCodeSequence", DCM_PatientBreedCodeSequence, nullptr},
        {"BreedRegistrationSequence", DCM_BreedRegistrationSequence, nullptr},
        {"BreedRegistrationNumber", DCM_BreedRegistrationNumber, nullptr},
        {"BreedRegistryCodeSequence", DCM_BreedRegistryCodeSequence, nullptr},
        {"ResponsiblePerson", DCM_ResponsiblePerson, nullptr},
        {"ResponsiblePersonRole", DCM_ResponsiblePersonRole, nullptr},
        {"ResponsibleOrganization", DCM_ResponsibleOrganization, nullptr},
        {"StudyID", DCM_StudyID, "1"},
        {"ReferringPhysicianName", DCM_ReferringPhysicianName, nullptr},
        {"ReferringPhysicianIdentificationSequence", DCM_ReferringPhysicianIdentificationSequence, nullptr},
        {"PhysiciansOfRecord", DCM_PhysiciansOfRecord, nullptr},
        {"PhysiciansOfRecordIdentificationSequence", DCM_PhysiciansOfRecordIdentificationSequence, nullptr},
        {"PerformingPhysicianIdentificationSequence", DCM_PerformingPhysicianIdentificationSequence, nullptr},
        {"PerformingPhysicianName", DCM_PerformingPhysicianName, nullptr},
        {"NameOfPhysiciansReadingStudy", DCM_NameOfPhysiciansReadingStudy, nullptr},
        {"PhysiciansReadingStudyIdentificationSequence", DCM_PhysiciansReadingStudyIdentificationSequence, nullptr},
        {"OperatorsName", DCM_OperatorsName, nullptr},
        {"OperatorIdentificationSequence", DCM_OperatorIdentificationSequence, nullptr},
        {"InstitutionName", DCM_InstitutionName, nullptr},
};

// The identifiers that are always replaced; a file without one of them is not anonymized.
struct Identifier {
    DcmTagKey tag;
    const char* keyword;
};
const Identifier kIdentifiers[] = {{DCM_PatientID, "PatientID"},
                                   {DCM_StudyInstanceUID, "StudyInstanceUID"},
                                   {DCM_SeriesInstanceUID, "SeriesInstanceUID"},
                                   {DCM_SOPInstanceUID, "SOPInstanceUID"}};

bool isSequence(const Emptied& e)
{
    return QByteArray(e.keyword).endsWith("Sequence");
}

// Text values are kept as readable text in the file's character set (DicomCharset: an unknown
// set goes through Latin-1, which maps every byte to one character and back).
DicomCharset charsetOf(DcmItem* ds)
{
    return DicomCharset(dcmCharacterSet(ds));
}

// Never a null string: an empty value must stay apart from a missing attribute (NULL).
QString decodeValue(const QByteArray& bytes, const DicomCharset& charset, const DcmTagKey& tag)
{
    if (bytes.isEmpty())
        return QStringLiteral("");
    return charset.decode(bytes, dcmIsPersonName(tag));
}

QByteArray encodeValue(const QString& text, const DicomCharset& charset, const DcmTagKey& tag)
{
    return charset.encode(text, dcmIsPersonName(tag));
}

// A sequence with its items as base64 text of its Explicit VR Little Endian encoding.
QString encodeSequence(DcmElement* element)
{
    element->loadAllDataIntoMemory();
    DcmDataset holder;
    if (holder.insert(OFstatic_cast(DcmElement*, element->clone())).bad())
        return QString();
    const Uint32 length = holder.getLength(EXS_LittleEndianExplicit, EET_ExplicitLength);
    QByteArray bytes(int(length), '\0');
    DcmOutputBufferStream out(bytes.data(), length);
    holder.transferInit();
    const OFCondition status = holder.write(out, EXS_LittleEndianExplicit, EET_ExplicitLength, nullptr);
    holder.transferEnd();
    if (status.bad())
        return QString();
    return QString::fromLatin1(bytes.toBase64());
}

// The element stored by encodeSequence, or null when TEXT holds none for TAG.
DcmElement* decodeSequence(const QString& text, const DcmTagKey& tag)
{
    const QByteArray bytes = QByteArray::fromBase64(text.toLatin1());
    DcmInputBufferStream in;
    in.setBuffer(bytes.constData(), bytes.size());
    in.setEos();
    DcmDataset holder;
    holder.transferInit();
    const OFCondition status = holder.read(in, EXS_LittleEndianExplicit);
    holder.transferEnd();
    if (status.bad())
        return nullptr;
    return holder.remove(tag);
}

QString newUid(const char* root)
{
    char buffer[100];
    dcmGenerateUniqueIdentifier(buffer, root);
    return QString::fromLatin1(buffer);
}


// How a mapping statement runs: a read, or a write in a unit of its own (retried while the
// catalogue is busy); a failure goes out as errorInfo unless the caller reports it itself.
enum MappingRun { Read = 0, Write = 1, Quiet = 2 };

// Every statement on the mapping tables: SQL with VALUES bound; ROW sees each row until it
// returns false.
Status runMapping(QDcmAnonymize* anonymizer, QSqlDatabase db, const QString& sql, const QVariantList& values,
                  int how = Read, const std::function<bool(const Statement&)>& row = nullptr)
{
    auto once = [&]() -> Status {
        Statement statement(db, sql);
        const Status status = statement.bindAll(values).run();
        while (status && row && statement.next() && row(statement)) {
        }
        return status;
    };
    const Status status = (how & Write) ? runWrite(db, [&](Transaction&) { return once(); }) : once();
    if (!status && !(how & Quiet))
        emit anonymizer->errorInfo(status.text());
    return status;
}

// The first value of the first row, as T; FALLBACK without a row or on a failure.
template <typename T>
T firstValue(QDcmAnonymize* anonymizer, QSqlDatabase db, const QString& sql, const QVariant& value, T fallback)
{
    T result = fallback;
    runMapping(anonymizer, db, sql, {value}, Read, [&](const Statement& s) {
        result = s.get<T>(0);
        return false;
    });
    return result;
}

} // namespace

QDcmAnonymize::QDcmAnonymize(QObject* parent)
    : QDcmFiles(parent)
{
}

QDcmAnonymize::~QDcmAnonymize() = default;

void QDcmAnonymize::setAnonymizeSetting(QSettings* settings)
{
    m_settings = settings;
}

QStringList QDcmAnonymize::emptiedAttributes()
{
    QStringList names;
    for (const Emptied& e : kEmptied)
        names << QString::fromLatin1(e.keyword);
    return names;
}

bool QDcmAnonymize::loadSource(const QString& file)
{
    if (!m_file)
        m_file = std::make_unique<DcmFileFormat>();
    m_file->clear();
    const QByteArray name = QFile::encodeName(file);
    return guardedRead([&] {
               return m_file->loadFile(name.constData(), EXS_Unknown, EGL_noChange, kReadLimit, ERM_autoDetect);
           })
            .good();
}

bool QDcmAnonymize::fail(const QString& reason)
{
    m_failure = reason;
    emit errorInfo(reason);
    return false;
}

QString QDcmAnonymize::readText(const QString& sql, const QVariant& value)
{
    return firstValue<QString>(this, database(), sql, value, QString());
}

qint64 QDcmAnonymize::readKey(const QString& sql, const QVariant& value)
{
    return firstValue<qint64>(this, database(), sql, value, -1);
}

// ---------------------------------------------------------------------------------------------
// Lookups on the loaded file

qint64 QDcmAnonymize::getAnonymousPatientPKByNameAndID()
{
    DcmDataset* ds = m_file ? m_file->getDataset() : nullptr;
    if (!ds)
        return -1;
    const DicomCharset charset = charsetOf(ds);
    const QString id = decodeValue(dcmBytes(ds, DCM_PatientID), charset, DCM_PatientID);
    const QString name = decodeValue(dcmBytes(ds, DCM_PatientName), charset, DCM_PatientName);
    // MariaDB compares text without regard to case or trailing blanks: two patients differing
    // only so are still two patients.
    qint64 pk = -1;
    runMapping(this, database(), "SELECT pk, PatientID, PatientName FROM anonymouspatient WHERE PatientID = ? and PatientName = ?",
               {id, name}, Read, [&](const Statement& row) {
                   if (row.get<QString>(1) == id && row.get<QString>(2) == name)
                       pk = row.get<qint64>(0);
                   return pk < 0;
               });
    return pk;
}

qint64 QDcmAnonymize::getAnonymousStudyPKByStudyInstanceUID()
{
    return readKey("SELECT pk FROM anonymousstudy WHERE StudyInstanceUID = ?",
                   dcmString(m_file ? m_file->getDataset() : nullptr, DCM_StudyInstanceUID));
}

qint64 QDcmAnonymize::getAnonymousSeriesPKBySeriesInstanceUID()
{
    return readKey("SELECT pk FROM anonymousseries WHERE SeriesInstanceUID = ?",
                   dcmString(m_file ? m_file->getDataset() : nullptr, DCM_SeriesInstanceUID));
}

qint64 QDcmAnonymize::getAnonymousImagePKBySOPInstanceUID()
{
    return readKey("SELECT pk FROM anonymousimage WHERE SOPInstanceUID = ?",
                   dcmString(m_file ? m_file->getDataset() : nullptr, DCM_SOPInstanceUID));
}

qint64 QDcmAnonymize::getDe_anonymizeImagePKBySOPInstanceUID()
{
    return readKey("SELECT pk FROM anonymousimage WHERE AnonymousSOPInstanceUID = ?",
                   dcmString(m_file ? m_file->getDataset() : nullptr, DCM_SOPInstanceUID));
}

QString QDcmAnonymize::getAnonymousPatientIDInDB()
{
    const qint64 pk = getAnonymousPatientPKByNameAndID();
    return pk < 0 ? QString() : readText("SELECT AnonymousPatientID FROM anonymouspatient WHERE pk = ?", pk);
}

QString QDcmAnonymize::getAnonymousStudyUIDInDB()
{
    return readText("SELECT AnonymousStudyInstanceUID FROM anonymousstudy WHERE StudyInstanceUID = ?",
                    dcmString(m_file ? m_file->getDataset() : nullptr, DCM_StudyInstanceUID));
}

QString QDcmAnonymize::getAnonymousSeriesUIDInDB()
{
    return readText("SELECT AnonymousSeriesInstanceUID FROM anonymousseries WHERE SeriesInstanceUID = ?",
                    dcmString(m_file ? m_file->getDataset() : nullptr, DCM_SeriesInstanceUID));
}

QString QDcmAnonymize::getAnonymousSOPUIDInDB()
{
    return readText("SELECT AnonymousSOPInstanceUID FROM anonymousimage WHERE SOPInstanceUID = ?",
                    dcmString(m_file ? m_file->getDataset() : nullptr, DCM_SOPInstanceUID));
}

// ---------------------------------------------------------------------------------------------
// Mapping rows

QString QDcmAnonymize::drawPatientID()
{
    const QTime now = QTime::currentTime();
    QRandomGenerator random(quint32(now.second() * 10000 + now.msec()));
    // The range ends at 199998 (remainder of 99999), not 199999: pseudonyms already handed out
    // follow this formula, so it stays.
    for (int attempt = 0; attempt < 10000; ++attempt) {
        const QString id = QString::number(random.generate() % 99999 + 100000);
        const qint64 taken = readKey("SELECT pk FROM anonymouspatient WHERE AnonymousPatientID = ?", id);
        if (taken < 0)
            return id;
    }
    return QString();
}

bool QDcmAnonymize::addAnonymousPatientDataBase()
{
    DcmDataset* ds = m_file ? m_file->getDataset() : nullptr;
    if (!ds)
        return false;
    m_anonPatientID = drawPatientID();
    if (m_anonPatientID.isEmpty()) {
        emit errorInfo(tr("no free anonymous patient ID is left"));
        return false;
    }
    const DicomCharset charset = charsetOf(ds);
    return runMapping(this, database(), schema::insertStatement("anonymouspatient"),
                      {decodeValue(dcmBytes(ds, DCM_PatientName), charset, DCM_PatientName),
                       decodeValue(dcmBytes(ds, DCM_PatientID), charset, DCM_PatientID), m_anonPatientID},
                      Write)
            .isOk();
}

bool QDcmAnonymize::addAnonymousStudyDataBase(qint64 patientPk)
{
    m_anonStudyUID = newUid(kStudyRoot);
    return runMapping(this, database(), schema::insertStatement("anonymousstudy"),
                      {dcmString(m_file ? m_file->getDataset() : nullptr, DCM_StudyInstanceUID), m_anonStudyUID, patientPk},
                      Write)
            .isOk();
}

bool QDcmAnonymize::addAnonymousSeriesDataBase(qint64 studyPk)
{
    m_anonSeriesUID = newUid(kSeriesRoot);
    return runMapping(this, database(), schema::insertStatement("anonymousseries"),
                      {dcmString(m_file ? m_file->getDataset() : nullptr, DCM_SeriesInstanceUID), m_anonSeriesUID, studyPk},
                      Write)
            .isOk();
}

bool QDcmAnonymize::addAnonymousImageDataBase(qint64 seriesPk)
{
    DcmDataset* ds = m_file ? m_file->getDataset() : nullptr;
    if (!ds)
        return false;
    m_anonSOPUID = newUid(kSOPRoot);
    const DicomCharset charset = charsetOf(ds);
    QVariantList values{dcmString(ds, DCM_SOPInstanceUID), m_anonSOPUID, seriesPk};
    for (const Emptied& e : kEmptied) {
        DcmElement* element = nullptr;
        if (ds->findAndGetElement(e.tag, element).bad() || !element)
            values << QVariant(QVariant::String); // absent: NULL
        else if (element->ident() == EVR_SQ)
            values << encodeSequence(element);
        else
            values << decodeValue(dcmBytes(ds, e.tag), charset, e.tag);
    }
    return runMapping(this, database(), schema::insertStatement("anonymousimage"), values, Write).isOk();
}

// ---------------------------------------------------------------------------------------------
// Anonymize and restore

void QDcmAnonymize::applyEmptyingTable()
{
    if (!m_settings)
        return;
    DcmDataset* ds = m_file->getDataset();
    for (const Emptied& e : kEmptied) {
        if (!m_settings->value(QString::fromLatin1(e.keyword), true).toBool())
            continue;
        if (e.fixedText)
            ds->putAndInsertString(e.tag, e.fixedText, true);
        else
            ds->insertEmptyElement(e.tag, true); // a sequence becomes a sequence without items
    }
}

bool QDcmAnonymize::saveTo(const QString& destination)
{
    const QString temporary = destination + ".part-" + QUuid::createUuid().toString(QUuid::Id128).left(12);
    const OFCondition status = m_file->saveFile(QFile::encodeName(temporary).constData(), EXS_Unknown,
                                                EET_UndefinedLength, EGL_recalcGL, EPD_noChange);
    if (status.bad()) {
        QFile::remove(temporary);
        return fail(tr("cannot write %1: %2").arg(destination, QString::fromLatin1(status.text())));
    }
    if (std::rename(QFile::encodeName(temporary).constData(), QFile::encodeName(destination).constData()) != 0) {
        QFile::remove(temporary);
        return fail(tr("cannot write %1: %2").arg(destination, QString::fromLocal8Bit(std::strerror(errno))));
    }
    return true;
}

int QDcmAnonymize::anonymize(QString source, QString destination)
{
    m_failure.clear();
    m_unreadable = false;
    if (!loadSource(source)) {
        m_unreadable = true;
        fail(tr("cannot read %1 as DICOM").arg(source));
        return 0;
    }
    DcmDataset* ds = m_file->getDataset();
    for (const Identifier& id : kIdentifiers) {
        if (dcmString(ds, id.tag).trimmed().isEmpty()) {
            fail(tr("%1 has no %2: not anonymized").arg(source, QLatin1String(id.keyword)));
            return 0;
        }
    }

    QString patientID, studyUID, seriesUID, sopUID;
    const qint64 imagePk = getAnonymousImagePKBySOPInstanceUID();
    if (imagePk >= 0) {
        // Already anonymized once: the same pseudonyms again, no new row.
        runMapping(this, database(),
                   "SELECT p.AnonymousPatientID, st.AnonymousStudyInstanceUID, se.AnonymousSeriesInstanceUID, "
                   "i.AnonymousSOPInstanceUID FROM anonymousimage i JOIN anonymousseries se ON i.series_fk = se.pk "
                   "JOIN anonymousstudy st ON se.study_fk = st.pk JOIN anonymouspatient p ON st.patient_fk = p.pk "
                   "WHERE i.pk = ?",
                   {imagePk}, Quiet, [&](const Statement& row) {
                       patientID = row.get<QString>(0);
                       studyUID = row.get<QString>(1);
                       seriesUID = row.get<QString>(2);
                       sopUID = row.get<QString>(3);
                       return false;
                   });
    } else {
        qint64 patientPk = getAnonymousPatientPKByNameAndID();
        if (patientPk >= 0)
            patientID = readText("SELECT AnonymousPatientID FROM anonymouspatient WHERE pk = ?", patientPk);
        else if (addAnonymousPatientDataBase() && (patientPk = getAnonymousPatientPKByNameAndID()) >= 0)
            patientID = m_anonPatientID;

        qint64 studyPk = patientPk >= 0 ? getAnonymousStudyPKByStudyInstanceUID() : -1;
        if (studyPk >= 0)
            studyUID = readText("SELECT AnonymousStudyInstanceUID FROM anonymousstudy WHERE pk = ?", studyPk);
        else if (patientPk >= 0 && addAnonymousStudyDataBase(patientPk) && (studyPk = getAnonymousStudyPKByStudyInstanceUID()) >= 0)
            studyUID = m_anonStudyUID;

        qint64 seriesPk = studyPk >= 0 ? getAnonymousSeriesPKBySeriesInstanceUID() : -1;
        if (seriesPk >= 0)
            seriesUID = readText("SELECT AnonymousSeriesInstanceUID FROM anonymousseries WHERE pk = ?", seriesPk);
        else if (studyPk >= 0 && addAnonymousSeriesDataBase(studyPk) && (seriesPk = getAnonymousSeriesPKBySeriesInstanceUID()) >= 0)
            seriesUID = m_anonSeriesUID;

        if (seriesPk >= 0 && addAnonymousImageDataBase(seriesPk) && getAnonymousImagePKBySOPInstanceUID() >= 0)
            sopUID = m_anonSOPUID;
    }
    // No file leaves without its way back.
    if (patientID.isEmpty() || studyUID.isEmpty() || seriesUID.isEmpty() || sopUID.isEmpty()) {
        fail(tr("the mapping of %1 could not be stored: nothing written").arg(source));
        return 0;
    }

    ds->putAndInsertString(DCM_PatientID, patientID.toLatin1().constData(), true);
    ds->putAndInsertString(DCM_StudyInstanceUID, studyUID.toLatin1().constData(), true);
    ds->putAndInsertString(DCM_SeriesInstanceUID, seriesUID.toLatin1().constData(), true);
    ds->putAndInsertString(DCM_SOPInstanceUID, sopUID.toLatin1().constData(), true);
    applyEmptyingTable();

    saveTo(destination);
    return 0;
}

int QDcmAnonymize::de_anonymize(QString source, QString destination)
{
    m_failure.clear();
    m_unreadable = false;
    const bool loaded = loadSource(source);
    const qint64 imagePk = loaded ? getDe_anonymizeImagePKBySOPInstanceUID() : -1;
    if (imagePk < 0) {
        emit readInfo(QStringLiteral("Orvena database does not include : ") + source + QStringLiteral("!"));
        m_unreadable = !loaded;
        fail(loaded ? tr("%1 is not an anonymized file of this catalogue").arg(source) : tr("cannot read %1 as DICOM").arg(source));
        return -1;
    }
    DcmDataset* ds = m_file->getDataset();

    QSqlRecord row;
    const Status read = runMapping(this, database(), "SELECT * FROM anonymousimage WHERE pk = ?", {imagePk}, Quiet,
                                   [&](const Statement& s) {
                                       row = s.record();
                                       return false;
                                   });
    if (row.isEmpty()) {
        fail(tr("cannot read the mapping of %1: %2").arg(source, read.text()));
        return -1;
    }
    const QString patientID = readText("SELECT PatientID FROM anonymouspatient WHERE AnonymousPatientID = ?", dcmString(ds, DCM_PatientID));
    const QString studyUID = readText("SELECT StudyInstanceUID FROM anonymousstudy WHERE AnonymousStudyInstanceUID = ?",
                                      dcmString(ds, DCM_StudyInstanceUID));
    const QString seriesUID = readText("SELECT SeriesInstanceUID FROM anonymousseries WHERE AnonymousSeriesInstanceUID = ?",
                                       dcmString(ds, DCM_SeriesInstanceUID));
    if (patientID.isEmpty() || studyUID.isEmpty() || seriesUID.isEmpty()) {
        fail(tr("the patient, study or series of %1 is unknown to this catalogue: nothing written").arg(source));
        return -1;
    }

    const DicomCharset charset = charsetOf(ds);
    ds->putAndInsertString(DCM_SOPInstanceUID, row.value("SOPInstanceUID").toString().toLatin1().constData(), true);
    for (const Emptied& e : kEmptied) {
        const QVariant value = row.value(QString::fromLatin1(e.keyword));
        if (value.isNull()) {
            // The original had no such attribute.
            delete ds->remove(e.tag);
        } else if (isSequence(e)) {
            DcmElement* sequence = decodeSequence(value.toString(), e.tag);
            if (sequence)
                ds->insert(sequence, true);
            else
                ds->insertEmptyElement(e.tag, true);
        } else {
            const QByteArray bytes = encodeValue(value.toString(), charset, e.tag);
            ds->putAndInsertString(e.tag, bytes.constData(), true);
        }
    }
    ds->putAndInsertString(DCM_PatientID, encodeValue(patientID, charset, DCM_PatientID).constData(), true);
    ds->putAndInsertString(DCM_StudyInstanceUID, studyUID.toLatin1().constData(), true);
    ds->putAndInsertString(DCM_SeriesInstanceUID, seriesUID.toLatin1().constData(), true);

    return saveTo(destination) ? 0 : -1;
}

QString QDcmAnonymize::getAnonymousLogicalPath(QString file)
{
    if (!loadSource(file))
        return QString();
    DcmDataset* ds = m_file->getDataset();
    QString suffix = QFileInfo(file).suffix();
    if (suffix.isEmpty())
        suffix = QStringLiteral("dcm");
    return "PA" + dcmString(ds, DCM_PatientID) + "/ST0" + dcmString(ds, DCM_StudyID) + "/SE0" + dcmString(ds, DCM_SeriesNumber) +
           "/" + dcmString(ds, DCM_InstanceNumber) + "." + suffix;
}

// ---------------------------------------------------------------------------------------------
// Files and folders

QDcmAnonymize::BatchCounts QDcmAnonymize::processPath(const QString& in, const QString& out, bool restore)
{
    BatchCounts counts;
    QList<QPair<QString, QString>> jobs;
    const QFileInfo input(in);
    if (input.isDir()) {
        const QString base = input.absoluteFilePath();
        QStringList files;
        QDirIterator it(base, QDir::Files | QDir::Hidden | QDir::NoDotAndDotDot, QDirIterator::Subdirectories);
        while (it.hasNext())
            files << it.next();
        files.sort();
        const QDir root(base);
        for (const QString& file : files)
            jobs.append({file, QDir(out).filePath(root.relativeFilePath(file))});
    } else if (QFileInfo(out).isDir()) {
        jobs.append({in, QDir(out).filePath(input.fileName())});
    } else {
        jobs.append({in, out});
    }

    counts.files = jobs.size();
    int done = 0;
    emit sendAnonymizeProgressInfo(0, counts.files);
    for (const auto& [source, destination] : jobs) {
        emit sendAnonymizeProgressInfo((restore ? tr("restoring %1") : tr("anonymizing %1")).arg(source));
        QDir().mkpath(QFileInfo(destination).absolutePath());
        if (restore)
            de_anonymize(source, destination);
        else
            anonymize(source, destination);
        if (m_failure.isEmpty())
            ++counts.written;
        else {
            ++(m_unreadable ? counts.unreadable : counts.failed);
            counts.failures << m_failure;
        }
        emit sendAnonymizeProgressInfo(++done, counts.files);
    }
    return counts;
}
