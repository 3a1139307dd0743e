#include "import/importparents_p.h"

#include "catalog/batchinsert_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"
#include "import/importrecords_p.h"

#include <QHash>
#include <QSet>

namespace kestrel::internal::import {

namespace {

// Lookups go in chunks of this many keys (well below every driver's limit on bound values).
constexpr int kKeysPerLookup = 400;

struct Found {
    qint64 pk = -1;
    qint64 parent = -1;
};

// The rows of TABLE whose KEYCOLUMN is one of KEYS: key -> (pk, PARENTCOLUMN when given).
Status lookUpMany(QSqlDatabase db, const QString& table, const QString& keyColumn, const QString& parentColumn,
                  const QStringList& keys, QHash<QString, Found>* found)
{
    for (int first = 0; first < keys.size(); first += kKeysPerLookup) {
        const QStringList chunk = keys.mid(first, kKeysPerLookup);
        QString marks = QStringLiteral("?");
        for (int i = 1; i < chunk.size(); ++i)
            marks += QStringLiteral(",?");
        const QString columns = parentColumn.isEmpty() ? QStringLiteral("pk, %1").arg(keyColumn)
                                                       : QStringLiteral("pk, %1, %2").arg(keyColumn, parentColumn);
        Statement query(db, QStringLiteral("SELECT %1 FROM %2 WHERE %3 IN (%4)").arg(columns, table, keyColumn, marks));
        for (const QString& key : chunk)
            query.bind(key);
        if (const Status status = query.run(); !status)
            return status;
        while (query.next())
            (*found)[query.get<QString>(1)] = {query.get<qint64>(0), parentColumn.isEmpty() ? -1 : query.get<qint64>(2)};
    }
    return Status::ok();
}

// One table's part of the pass: the plan's keys, the rows to make for those missing, and where
// each row's parent key goes.
struct Level {
    QString table, keyColumn, parentColumn;
    QStringList keys;                 // by plan index
    std::vector<qint64>* pks = nullptr;
    std::vector<char>* added = nullptr;
    std::vector<qint64>* owners = nullptr;
    QVector<QVector<QVariant>> rows;  // by plan index; empty for rows found or not readable
    std::vector<int> parentOf;        // plan index of the parent in the level above, -1 at the top
    std::vector<char> reached;        // under a patient of the plan (files left out reach none)
};

// Looks up LEVEL's keys; those found get their keys, the others keep -1.
Status resolve(QSqlDatabase db, Level& level, const std::vector<char>& wanted)
{
    QStringList keys;
    for (int i = 0; i < level.keys.size(); ++i)
        if (wanted[size_t(i)])
            keys << level.keys.at(i);
    QHash<QString, Found> found;
    if (const Status status = lookUpMany(db, level.table, level.keyColumn, level.owners ? level.parentColumn : QString(),
                                         keys, &found);
        !status)
        return status;
    for (int i = 0; i < level.keys.size(); ++i) {
        const auto hit = found.constFind(level.keys.at(i));
        if (!wanted[size_t(i)] || hit == found.constEnd())
            continue;
        (*level.pks)[size_t(i)] = hit->pk;
        if (level.owners)
            (*level.owners)[size_t(i)] = hit->parent;
    }
    return Status::ok();
}

// In the unit of work: makes LEVEL's missing rows whose parent exists (another process may have
// made some meanwhile: those are taken as they are), then looks them all up.
Status create(QSqlDatabase db, Level& level, const std::vector<qint64>* parents)
{
    std::vector<char> missing(size_t(level.keys.size()), 0);
    bool any = false;
    for (int i = 0; i < level.keys.size(); ++i) {
        const int parent = level.parentOf[size_t(i)];
        missing[size_t(i)] = level.reached[size_t(i)] && (*level.pks)[size_t(i)] < 0 && !level.rows.at(i).isEmpty()
                             && (!parents || (*parents)[size_t(parent)] >= 0);
        any = any || missing[size_t(i)];
    }
    if (!any)
        return Status::ok();
    if (const Status status = resolve(db, level, missing); !status)
        return status;
    QVector<const QVector<QVariant>*> rows;
    std::vector<int> made;
    const int fk = parents ? records::columnIndex(level.table, level.parentColumn) : -1;
    // A key the plan holds twice (a study under two patients) gets one row, made for the first.
    QSet<QString> queued;
    for (int i = 0; i < level.keys.size(); ++i) {
        if (!missing[size_t(i)] || (*level.pks)[size_t(i)] >= 0 || queued.contains(level.keys.at(i)))
            continue;
        queued.insert(level.keys.at(i));
        if (fk >= 0) {
            level.rows[i][fk] = (*parents)[size_t(level.parentOf[size_t(i)])];
            if (level.owners)
                (*level.owners)[size_t(i)] = level.rows[i][fk].toLongLong();
        }
        rows.append(&level.rows[i]);
        made.push_back(i);
    }
    if (rows.isEmpty())
        return Status::ok();
    int inserted = 0;
    if (const Status status = insertRows(db, level.table, rows, true, &inserted); !status)
        return status;
    if (const Status status = resolve(db, level, missing); !status)
        return status;
    // Rows another process made in the meantime were skipped by the insert. Which ones is not
    // told: when only some went in, none is counted as this run's.
    for (int i : made)
        (*level.added)[size_t(i)] = inserted == rows.size() && (*level.pks)[size_t(i)] >= 0;
    return Status::ok();
}

} // namespace

Status findOrCreateParents(QSqlDatabase db, const ImportPlan& plan, const ParentRowReader& readRow, int retries,
                           ParentKeys* keys)
{
    const size_t patients = plan.patients.size(), studies = plan.studies.size(), series = plan.series.size();
    keys->patient.assign(patients, -1);
    keys->study.assign(studies, -1);
    keys->studyOwner.assign(studies, -1);
    keys->series.assign(series, -1);
    keys->patientAdded.assign(patients, 0);
    keys->studyAdded.assign(studies, 0);
    keys->seriesAdded.assign(series, 0);

    Level levels[3];
    auto setUp = [](Level& level, const char* table, const char* keyColumn, const char* parentColumn,
                    std::vector<qint64>* pks, std::vector<char>* added, std::vector<qint64>* owners) {
        level.table = QLatin1String(table);
        level.keyColumn = QLatin1String(keyColumn);
        level.parentColumn = QLatin1String(parentColumn);
        level.pks = pks;
        level.added = added;
        level.owners = owners;
    };
    setUp(levels[0], "patient", "PatientKey", "", &keys->patient, &keys->patientAdded, nullptr);
    setUp(levels[1], "generalstudy", "StudyInstanceUID", "patient_fk", &keys->study, &keys->studyAdded, &keys->studyOwner);
    setUp(levels[2], "generalseries", "SeriesBase", "study_fk", &keys->series, &keys->seriesAdded, nullptr);
    for (const PlannedPatient& patient : plan.patients)
        levels[0].keys << patient.key;
    levels[0].parentOf.assign(patients, -1);
    levels[1].parentOf.assign(studies, -1);
    levels[2].parentOf.assign(series, -1);
    for (size_t p = 0; p < patients; ++p)
        for (int s : plan.patients[p].studies)
            levels[1].parentOf[size_t(s)] = int(p);
    for (size_t s = 0; s < studies; ++s)
        for (int e : plan.studies[s].series)
            levels[2].parentOf[size_t(e)] = int(s);
    levels[0].reached.assign(patients, 1);
    levels[1].reached.assign(studies, 0);
    levels[2].reached.assign(series, 0);
    for (size_t s = 0; s < studies; ++s)
        levels[1].reached[s] = levels[1].parentOf[s] >= 0;
    for (size_t e = 0; e < series; ++e)
        levels[2].reached[e] = levels[2].parentOf[e] >= 0 && levels[1].reached[size_t(levels[2].parentOf[e])];
    for (const PlannedStudy& study : plan.studies)
        levels[1].keys << study.uid;
    for (const PlannedSeries& one : plan.series)
        levels[2].keys << one.key;

    // Read first, without a unit of work: on a repeated import every row is there.
    for (Level& level : levels)
        if (const Status status = resolve(db, level, std::vector<char>(size_t(level.keys.size()), 1)); !status)
            return status;

    // The rows of those missing, read from their files before anything is locked.
    const ParentTable tables[3] = {ParentTable::Patient, ParentTable::Study, ParentTable::Series};
    bool missing = false;
    for (int l = 0; l < 3; ++l) {
        Level& level = levels[l];
        level.rows.resize(level.keys.size());
        for (int i = 0; i < level.keys.size(); ++i) {
            if ((*level.pks)[size_t(i)] >= 0 || !level.reached[size_t(i)])
                continue;
            missing = true;
            if (!readRow(tables[l], i, &level.rows[i])) {
                level.rows[i].clear();
                keys->problems << QStringLiteral("%1 %2: its file does not read").arg(level.table, level.keys.at(i));
            }
        }
    }
    if (!missing)
        return Status::ok();
    const std::vector<qint64> found[3] = {keys->patient, keys->study, keys->series};
    const std::vector<qint64> owners = keys->studyOwner;
    return runWrite(db, [&](Transaction&) {
        // A retry starts again from what the first reading found.
        *levels[0].pks = found[0];
        *levels[1].pks = found[1];
        *levels[2].pks = found[2];
        keys->studyOwner = owners;
        Status status = create(db, levels[0], nullptr);
        if (status)
            status = create(db, levels[1], levels[0].pks);
        if (status)
            status = create(db, levels[2], levels[1].pks);
        return status;
    }, retries);
}

} // namespace kestrel::internal::import
