#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <dcmtk/config/osconfig.h>
#include <dcmtk/dcmdata/dctagkey.h>

#include <QHash>
#include <QList>
#include <QPair>
#include <QSqlDatabase>
#include <QString>
#include <QVariantList>

#include <functional>


namespace kestrel::internal {

struct DeidentRecord;

// The pseudonyms of one file: read from the mapping tables, or made new and written with the
// file's restoring record in one unit of work.
class KESTREL_TEST_EXPORT MappingPlan
{
public:
    // KEEPUIDS: every UID is its own pseudonym (the Retain UIDs option).
    MappingPlan(QSqlDatabase db, bool keepUids);

    // The patient known by NAME and ID (exact text), or a new pseudonym from DRAW and a new date
    // offset when none is.
    Status planPatient(const QString& name, const QString& id, const std::function<QString()>& draw);
    const QString& patientPseudonym() const { return m_patient.pseudonym; }
    int dateShift() const { return m_patient.shift; }

    // The pseudonym of ORIGINAL, the same for every file; a new one is made under ROOT. Empty
    // when the mapping cannot be read.
    QString uid(const QString& original, const char* root);
    // The pseudonyms uid() made, not yet written.
    const QList<QPair<QString, QString>>& newUids() const { return m_newUids; }

    // Writes what is new: patient, study, series and UID rows and the image row with the values
    // of the fixed columns (LEGACY, in their order) and the restoring RECORD (merged with the
    // record of an earlier run of the same source file). Status::Conflict when another
    // writer handed out one of these pseudonyms meanwhile: the file must be planned again.
    Status write(const QString& studyUid, const QString& seriesUid, const QString& sopUid, const QVariantList& legacy,
                 DeidentRecord& record);

private:
    struct Patient {
        QString name, id, pseudonym;
        qint64 pk = -1;
        int shift = 0;
        bool storedShift = false;
    };
    QString pseudonymOf(const QString& original) const;
    Status writePatient(Patient& patient);
    Status writeLevel(const QString& table, const QString& column, const QString& original, qint64 parentPk, qint64* pk);
    Status writeImage(const QString& sopUid, qint64 seriesPk, const QVariantList& legacy, DeidentRecord& record);

    QSqlDatabase m_db;
    bool m_keepUids;
    Patient m_patient;
    QHash<QString, QString> m_uids;          // original -> pseudonym, read or made
    QList<QPair<QString, QString>> m_newUids; // made in this plan
};

} // namespace kestrel::internal
