#include "qdcmanonymize.h"

#include "anonymize/anonymousmapping_p.h"
#include "anonymize/deidentifier_p.h"
#include "anonymize/deidentprofile_p.h"
#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "dicom/dcmvalues_p.h"
#include "dicom/filestream_p.h"
#include "dicom/dicomtext_p.h"
#include "kestrelpaths.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dcdatset.h>
#include <dcmtk/dcmdata/dcdeftag.h>
#include <dcmtk/dcmdata/dcfilefo.h>
#include <dcmtk/dcmdata/dcmetinf.h>
#include <dcmtk/dcmdata/dcsequen.h>

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
};

// The attributes whose original values anonymousimage also keeps in columns of their own (after
// series_fk, in this order); rows written before the restoring record are restored from them.
const Emptied kEmptied[] = {
        {"AccessionNumber", DCM_AccessionNumber},
        {"PatientBirthTime", DCM_PatientBirthTime},
        {"PatientName", DCM_PatientName},
        {"TypeOfPatientID", DCM_TypeOfPatientID},
        {"PatientBirthDate", DCM_PatientBirthDate},
        {"OtherPatientIDs", DCM_RETIRED_OtherPatientIDs},
        {"OtherPatientNames", DCM_OtherPatientNames},
        {"OtherPatientIDsSequence", DCM_OtherPatientIDsSequence},
        {"EthnicGroup", DCM_EthnicGroup},
        {"PatientSpeciesCodeSequence", DCM_PatientSpeciesCodeSequence},
        {"PatientBreedCodeSequence", DCM_PatientBreedCodeSequence},
        {"BreedRegistrationSequence", DCM_BreedRegistrationSequence},
        {"BreedRegistrationNumber", DCM_BreedRegistrationNumber},
        {"BreedRegistryCodeSequence", DCM_BreedRegistryCodeSequence},
        {"ResponsiblePerson", DCM_ResponsiblePerson},
        {"ResponsiblePersonRole", DCM_ResponsiblePersonRole},
        {"ResponsibleOrganization", DCM_ResponsibleOrganization},
        {"StudyID", DCM_StudyID},
        {"ReferringPhysicianName", DCM_ReferringPhysicianName},
        {"ReferringPhysicianIdentificationSequence", DCM_ReferringPhysicianIdentificationSequence},
        {"PhysiciansOfRecord", DCM_PhysiciansOfRecord},
        {"PhysiciansOfRecordIdentificationSequence", DCM_PhysiciansOfRecordIdentificationSequence},
        {"PerformingPhysicianIdentificationSequence", DCM_PerformingPhysicianIdentificationSequence},
        {"PerformingPhysicianName", DCM_PerformingPhysicianName},
        {"NameOfPhysiciansReadingStudy", DCM_NameOfPhysiciansReadingStudy},
        {"PhysiciansReadingStudyIdentificationSequence", DCM_PhysiciansReadingStudyIdentificationSequence},
        {"OperatorsName", DCM_OperatorsName},
        {"OperatorIdentificationSequence", DCM_OperatorIdentificationSequence},
        {"InstitutionName", DCM_InstitutionName},
};

// The identifiers that are always replaced; a file without one of the UIDs is not anonymized.
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

// The values of the emptying table's columns, read before anything changes: NULL for an absent
// attribute, sequences with their items as encoded elements, text decoded.
QVariantList columnValues(DcmDataset* ds)
{
    const DicomCharset charset = charsetOf(ds);
    QVariantList values;
    for (const Emptied& e : kEmptied) {
        DcmElement* element = nullptr;
        if (ds->findAndGetElement(e.tag, element).bad() || !element) {
            values << QVariant(QVariant::String);
        } else if (element->ident() == EVR_SQ) {
            DeidentRecord holder;
            holder.elements.insert(OFstatic_cast(DcmElement*, element->clone()));
            values << holder.elementsText();
        } else {
            values << decodeValue(dcmBytes(ds, e.tag), charset, e.tag);
        }
    }
    return values;
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

struct Pseudonyms {
    QString patientID, studyUID, seriesUID, sopUID;
};

// Plans the pseudonyms of the loaded file, de-identifies it and stores the mapping with the
// record that restores it.
Status anonymizeLoaded(DcmFileFormat& file, QSqlDatabase db, const DeidentProfile& profile, const DeidentOptions& options,
                       const std::function<QString()>& drawPatientID, Pseudonyms* given)
{
    DcmDataset* ds = file.getDataset();
    const DicomCharset charset = charsetOf(ds);
    MappingPlan plan(db, options.uids);
    const Status planned = plan.planPatient(decodeValue(dcmBytes(ds, DCM_PatientName), charset, DCM_PatientName),
                                            decodeValue(dcmBytes(ds, DCM_PatientID), charset, DCM_PatientID),
                                            drawPatientID);
    if (!planned)
        return planned;
    const QString studyUID = dcmString(ds, DCM_StudyInstanceUID), seriesUID = dcmString(ds, DCM_SeriesInstanceUID),
                  sopUID = dcmString(ds, DCM_SOPInstanceUID);
    given->patientID = plan.patientPseudonym();
    given->studyUID = plan.uid(studyUID, kStudyRoot);
    given->seriesUID = plan.uid(seriesUID, kSeriesRoot);
    given->sopUID = plan.uid(sopUID, kSOPRoot);
    if (given->studyUID.isEmpty() || given->seriesUID.isEmpty() || given->sopUID.isEmpty())
        return Status::failed(QStringLiteral("cannot read the UID mapping"));
    const QVariantList legacy = columnValues(ds);

    DeidentPseudonyms pseudonyms;
    pseudonyms.uid = [&plan](const QString& uid) { return plan.uid(uid, kSOPRoot); };
    pseudonyms.patientId = plan.patientPseudonym();
    pseudonyms.patientName = QStringLiteral("Anonymous^") + plan.patientPseudonym();
    pseudonyms.dateShiftDays = plan.dateShift();
    Deidentifier deidentifier(profile, options, pseudonyms);
    if (const Status applied = deidentifier.apply(file); !applied)
        return applied;
    // The meta header names the new instance.
    file.getMetaInfo()->putAndInsertString(DCM_MediaStorageSOPInstanceUID, dcmString(ds, DCM_SOPInstanceUID).toLatin1().constData());
    return plan.write(studyUID, seriesUID, sopUID, legacy, deidentifier.record());
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
    return loadDicomFile(*m_file, name, kReadLimit).good();
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
    // The date offset is drawn when the first file of the patient needs it.
    return runMapping(this, database(), schema::insertStatement("anonymouspatient"),
                      {decodeValue(dcmBytes(ds, DCM_PatientName), charset, DCM_PatientName),
                       decodeValue(dcmBytes(ds, DCM_PatientID), charset, DCM_PatientID), m_anonPatientID, QVariant(QVariant::String)},
                      Write)
            .isOk();
}

// A study, series or image row for the loaded file's UID at TAG, with its pseudonym (the one the
// UID mapping holds, else a new one under ROOT, entered there too). VALUES follow the first three
// columns of the row.
bool QDcmAnonymize::addMappingRow(const QString& table, const DcmTagKey& tag, const char* root, qint64 parentPk,
                                  const QVariantList& values, QString* pseudonym)
{
    const QString original = dcmString(m_file ? m_file->getDataset() : nullptr, tag);
    MappingPlan plan(database(), false);
    *pseudonym = plan.uid(original, root);
    const bool made = !plan.newUids().isEmpty();
    QVariantList row{original, *pseudonym, parentPk};
    row << values;
    while (row.size() < schema::columns(table).size())
        row << QVariant(QVariant::String);
    const Status status = runWrite(database(), [&](Transaction&) -> Status {
        if (made)
            if (const Status added = execute(database(), schema::insertStatement("anonymousuid"), {original, *pseudonym}); !added)
                return added;
        return execute(database(), schema::insertStatement(table), row);
    });
    if (!status)
        emit errorInfo(status.text());
    return status.isOk();
}

bool QDcmAnonymize::addAnonymousStudyDataBase(qint64 patientPk)
{
    return addMappingRow("anonymousstudy", DCM_StudyInstanceUID, kStudyRoot, patientPk, {}, &m_anonStudyUID);
}

bool QDcmAnonymize::addAnonymousSeriesDataBase(qint64 studyPk)
{
    return addMappingRow("anonymousseries", DCM_SeriesInstanceUID, kSeriesRoot, studyPk, {}, &m_anonSeriesUID);
}

bool QDcmAnonymize::addAnonymousImageDataBase(qint64 seriesPk)
{
    DcmDataset* ds = m_file ? m_file->getDataset() : nullptr;
    if (!ds)
        return false;
    return addMappingRow("anonymousimage", DCM_SOPInstanceUID, kSOPRoot, seriesPk, columnValues(ds), &m_anonSOPUID);
}

// ---------------------------------------------------------------------------------------------
// Anonymize and restore

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
    Status status;
    const DeidentProfile* profile = DeidentProfile::shared(DeidentProfile::defaultPath(), &status);
    if (!profile) {
        fail(tr("%1: nothing written").arg(status.text()));
        return 0;
    }
    std::unique_ptr<QSettings> shipped;
    QSettings* settings = m_settings;
    if (!settings) {
        shipped = std::make_unique<QSettings>(Kestrel::configFilePath(QStringLiteral("anonymize.ini")), QSettings::IniFormat);
        settings = shipped.get();
    }
    const DeidentOptions options = DeidentOptions::fromSettings(settings);

    // Planned again from the source when another writer handed out the same pseudonyms meanwhile.
    for (int attempt = 0; attempt < 3; ++attempt) {
        if (!loadSource(source)) {
            m_unreadable = true;
            fail(tr("cannot read %1 as DICOM").arg(source));
            return 0;
        }
        DcmDataset* ds = m_file->getDataset();
        for (const Identifier& id : kIdentifiers) {
            if (id.tag != DCM_PatientID && dcmString(ds, id.tag).trimmed().isEmpty()) {
                fail(tr("%1 has no %2: not anonymized").arg(source, QLatin1String(id.keyword)));
                return 0;
            }
        }
        Pseudonyms given;
        status = anonymizeLoaded(*m_file, database(), *profile, options, [this] { return drawPatientID(); }, &given);
        m_anonPatientID = given.patientID;
        m_anonStudyUID = given.studyUID;
        m_anonSeriesUID = given.seriesUID;
        m_anonSOPUID = given.sopUID;
        if (status.code() != Status::Conflict)
            break;
    }
    // No file leaves without its way back.
    if (!status) {
        fail(tr("the mapping of %1 could not be stored: %2; nothing written").arg(source, status.text()));
        return 0;
    }
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
    if (row.value("OriginalElements").isNull()) {
        if (!restoreColumns(row, source))
            return -1;
    } else {
        DeidentRecord record;
        if (!record.read(row.value("OriginalElements").toString(), row.value("AddedElements").toString())) {
            fail(tr("the stored record of %1 cannot be read: nothing written").arg(source));
            return -1;
        }
        record.restore(*m_file);
    }
    return saveTo(destination) ? 0 : -1;
}

// Rows written before the record existed: the identifiers and the fixed columns.
bool QDcmAnonymize::restoreColumns(const QSqlRecord& row, const QString& source)
{
    DcmDataset* ds = m_file->getDataset();
    const QString patientID = readText("SELECT PatientID FROM anonymouspatient WHERE AnonymousPatientID = ?", dcmString(ds, DCM_PatientID));
    const QString studyUID = readText("SELECT StudyInstanceUID FROM anonymousstudy WHERE AnonymousStudyInstanceUID = ?",
                                      dcmString(ds, DCM_StudyInstanceUID));
    const QString seriesUID = readText("SELECT SeriesInstanceUID FROM anonymousseries WHERE AnonymousSeriesInstanceUID = ?",
                                       dcmString(ds, DCM_SeriesInstanceUID));
    if (patientID.isEmpty() || studyUID.isEmpty() || seriesUID.isEmpty())
        return fail(tr("the patient, study or series of %1 is unknown to this catalogue: nothing written").arg(source));

    const DicomCharset charset = charsetOf(ds);
    ds->putAndInsertString(DCM_SOPInstanceUID, row.value("SOPInstanceUID").toString().toLatin1().constData(), true);
    for (const Emptied& e : kEmptied) {
        const QVariant value = row.value(QString::fromLatin1(e.keyword));
        if (value.isNull()) {
            // The original had no such attribute.
            delete ds->remove(e.tag);
        } else if (isSequence(e)) {
            DeidentRecord holder;
            DcmElement* sequence = holder.read(value.toString(), QString()) ? holder.elements.remove(e.tag) : nullptr;
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
    return true;
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
