#include "anonymize/anonymousmapping_p.h"

#include "anonymize/deidentifier_p.h"
#include "catalog/catalogschema_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"

#include <dcmtk/dcmdata/dcelem.h>
#include <dcmtk/dcmdata/dcuid.h>

#include <QRandomGenerator>

namespace kestrel::internal {

namespace {

// Dates move back by one to ten years, whole days.
int drawDateShift()
{
    return -int(QRandomGenerator::global()->bounded(1, 3653));
}

QString newUid(const char* root)
{
    char buffer[100];
    dcmGenerateUniqueIdentifier(buffer, root);
    return QString::fromLatin1(buffer);
}

} // namespace

MappingPlan::MappingPlan(QSqlDatabase db, bool keepUids)
    : m_db(db), m_keepUids(keepUids)
{
}

Status MappingPlan::planPatient(const QString& name, const QString& id, const std::function<QString()>& draw)
{
    m_patient = Patient();
    m_patient.name = name;
    m_patient.id = id;
    Statement read(m_db, QStringLiteral("SELECT pk, PatientID, PatientName, AnonymousPatientID, DateShift FROM anonymouspatient "
                                        "WHERE PatientID = ? AND PatientName = ?"));
    if (const Status status = read.bind(id).bind(name).run(); !status)
        return status;
    // Text compared here too: two patients differing only in case or trailing blanks stay two.
    while (read.next()) {
        if (read.get<QString>(1) != id || read.get<QString>(2) != name)
            continue;
        m_patient.pk = read.get<qint64>(0);
        m_patient.pseudonym = read.get<QString>(3);
        m_patient.storedShift = !read.value(4).isNull() && !read.get<QString>(4).isEmpty();
        m_patient.shift = m_patient.storedShift ? read.get<int>(4) : drawDateShift();
        return Status::ok();
    }
    m_patient.pseudonym = draw();
    m_patient.shift = drawDateShift();
    if (m_patient.pseudonym.isEmpty())
        return Status::failed(QStringLiteral("no free anonymous patient ID is left"));
    return Status::ok();
}

QString MappingPlan::uid(const QString& original, const char* root)
{
    if (m_keepUids)
        return original;
    const auto known = m_uids.constFind(original);
    if (known != m_uids.constEnd())
        return *known;
    Status status;
    QString pseudonym =
            selectValue<QString>(m_db, QStringLiteral("SELECT AnonymousUID FROM anonymousuid WHERE UID = ?"), {original}, QString(), &status);
    if (!status)
        return QString();
    if (pseudonym.isEmpty()) {
        pseudonym = newUid(root);
        m_newUids.append({original, pseudonym});
    }
    m_uids.insert(original, pseudonym);
    return pseudonym;
}

// The pseudonym the file was given: a UID the walk left alone (one the standard defines) is its own.
QString MappingPlan::pseudonymOf(const QString& original) const
{
    return m_keepUids ? original : m_uids.value(original, original);
}

Status MappingPlan::write(const QString& studyUid, const QString& seriesUid, const QString& sopUid, const QVariantList& legacy,
                          DeidentRecord& record)
{
    return runWrite(m_db, [&](Transaction&) -> Status {
        Patient patient = m_patient; // a retried unit starts from the plan again
        if (const Status status = writePatient(patient); !status)
            return status;
        qint64 studyPk = -1, seriesPk = -1;
        if (const Status status = writeLevel(QStringLiteral("anonymousstudy"), QStringLiteral("StudyInstanceUID"), studyUid,
                                             patient.pk, &studyPk);
            !status)
            return status;
        if (const Status status = writeLevel(QStringLiteral("anonymousseries"), QStringLiteral("SeriesInstanceUID"), seriesUid,
                                             studyPk, &seriesPk);
            !status)
            return status;
        if (!m_keepUids) {
            Statement insert(m_db, schema::insertStatement(QStringLiteral("anonymousuid")));
            for (const auto& [original, pseudonym] : m_newUids)
                if (const Status status = insert.bind(original).bind(pseudonym).run(); !status)
                    return status;
        }
        return writeImage(sopUid, seriesPk, legacy, record);
    });
}

Status MappingPlan::writePatient(Patient& patient)
{
    if (patient.pk >= 0) {
        if (patient.storedShift)
            return Status::ok();
        return execute(m_db, QStringLiteral("UPDATE anonymouspatient SET DateShift = ? WHERE pk = ?"),
                       {QString::number(patient.shift), patient.pk});
    }
    const Status inserted = execute(m_db, schema::insertStatement(QStringLiteral("anonymouspatient")),
                                    {patient.name, patient.id, patient.pseudonym, QString::number(patient.shift)});
    if (!inserted)
        return inserted;
    Status status;
    patient.pk = selectValue<qint64>(m_db, QStringLiteral("SELECT pk FROM anonymouspatient WHERE AnonymousPatientID = ?"),
                                     {patient.pseudonym}, -1, &status);
    return status;
}

// One study or series row: the pseudonym already stored must be the one the file was given.
Status MappingPlan::writeLevel(const QString& table, const QString& column, const QString& original, qint64 parentPk, qint64* pk)
{
    const QString pseudonym = pseudonymOf(original);
    Statement read(m_db, QStringLiteral("SELECT pk, Anonymous%1 FROM %2 WHERE %1 = ?").arg(column, table));
    if (const Status status = read.bind(original).run(); !status)
        return status;
    if (read.next()) {
        *pk = read.get<qint64>(0);
        if (read.get<QString>(1) != pseudonym)
            return Status(Status::Conflict, QStringLiteral("%1 %2 has another pseudonym in the catalogue").arg(column, original));
        return Status::ok();
    }
    read.finish();
    if (const Status inserted = execute(m_db, schema::insertStatement(table), {original, pseudonym, parentPk}); !inserted)
        return inserted;
    Status status;
    *pk = selectValue<qint64>(m_db, QStringLiteral("SELECT pk FROM %1 WHERE %2 = ?").arg(table, column), {original}, -1, &status);
    return status;
}

Status MappingPlan::writeImage(const QString& sopUid, qint64 seriesPk, const QVariantList& legacy, DeidentRecord& record)
{
    const QString pseudonym = pseudonymOf(sopUid);
    Statement read(m_db, QStringLiteral("SELECT pk, AnonymousSOPInstanceUID, OriginalElements, AddedElements, SourceDigest "
                                        "FROM anonymousimage WHERE SOPInstanceUID = ?"));
    if (const Status status = read.bind(sopUid).run(); !status)
        return status;
    if (!read.next()) {
        read.finish();
        QVariantList values{sopUid, pseudonym, seriesPk};
        values << legacy << record.elementsText() << record.addedText() << record.sourceDigest;
        return execute(m_db, schema::insertStatement(QStringLiteral("anonymousimage")), values);
    }
    // Anonymized before: the record keeps what either run changed, so both copies restore.
    const qint64 pk = read.get<qint64>(0);
    if (read.get<QString>(1) != pseudonym)
        return Status(Status::Conflict, QStringLiteral("SOPInstanceUID %1 has another pseudonym in the catalogue").arg(sopUid));
    DeidentRecord earlier;
    const bool readable = read.value(2).isNull() || earlier.read(read.get<QString>(2), read.get<QString>(3));
    const QString digest = read.get<QString>(4);
    read.finish();
    // A row from before the digest was kept trusts that it is the same file.
    if (!readable || (!digest.isEmpty() && digest != record.sourceDigest))
        return Status(Status::InvalidInput, QStringLiteral("SOPInstanceUID %1 was anonymized before from a file with other content, "
                                                           "and one record cannot restore both")
                                                    .arg(sopUid));
    record.merge(earlier.elements, earlier.meta, earlier.added);
    return execute(m_db, QStringLiteral("UPDATE anonymousimage SET OriginalElements = ?, AddedElements = ?, SourceDigest = ? WHERE pk = ?"),
                   {record.elementsText(), record.addedText(), record.sourceDigest, pk});
}

} // namespace kestrel::internal
