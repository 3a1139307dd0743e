#include "catalog/catalogupgrade_p.h"

#include "catalog/catalogschema_p.h"
#include "catalog/identity_p.h"
#include "catalog/statement_p.h"
#include "catalog/transaction_p.h"

#include <QDebug>
#include <QSet>
#include <QSqlField>
#include <QSqlRecord>

namespace kestrel::internal {

namespace {

bool isMySql(const QSqlDatabase& db)
{
    return db.driverName() == QLatin1String("QMYSQL");
}

QString indexName(const UniqueKey& key)
{
    return QStringLiteral("uq_%1_%2").arg(QLatin1String(key.table), QLatin1String(key.column));
}

// Columns that identify something and so compare byte for byte on MariaDB, beside the unique keys.
const char* const kBinaryColumns[][2] = {
    {"patient", "PatientID"}, {"patient", "IssuerOfPatientID"}, {"generalseries", "SeriesInstanceUID"},
    {"generalseries", "StudyInstanceUID"}, {"imageformat", "FilePath"}, {"images", "seriesUID"},
    {"images", "filepath"}, {"registration", "Savepath"}, {"registration", "SeriesBase"},
    {"anonymouspatient", "PatientID"}, {"anonymouspatient", "PatientName"},
};

QString indexName(const ReadIndex& index)
{
    return QStringLiteral("idx_%1_%2").arg(QLatin1String(index.table), QLatin1String(index.column));
}

// The names of the catalogue's indexes, read in one statement; empty when the read fails.
QSet<QString> indexNames(QSqlDatabase db)
{
    Statement read(db, isMySql(db) ? QStringLiteral("SELECT DISTINCT INDEX_NAME FROM information_schema.STATISTICS WHERE "
                                                    "TABLE_SCHEMA = DATABASE()")
                                   : QStringLiteral("SELECT name FROM sqlite_master WHERE type = 'index'"));
    QSet<QString> names;
    if (read.run())
        while (read.next())
            names.insert(read.get<QString>(0));
    return names;
}

// The read indexes the catalogue lacks, created (on tables it has).
Status addReadIndexes(QSqlDatabase db, const QSet<QString>& present, QStringList* report)
{
    for (const ReadIndex& index : readIndexes()) {
        if (present.contains(indexName(index)) || !db.record(QLatin1String(index.table)).contains(QLatin1String(index.column)))
            continue;
        const QString prefix = index.text && isMySql(db) ? QStringLiteral("(64)") : QString();
        const Status made = execute(db, QStringLiteral("CREATE INDEX %1 ON %2 (%3%4)")
                                            .arg(indexName(index), QLatin1String(index.table),
                                                 schema::quotedColumns({QLatin1String(index.column)}), prefix));
        if (!made)
            return made.context(QStringLiteral("adding the index %1: ").arg(indexName(index)));
        if (report)
            *report << QStringLiteral("added the index %1").arg(indexName(index));
    }
    return Status::ok();
}

// Columns of the schema's lists that TABLE lacks, added as text.
Status addMissingColumns(QSqlDatabase db, QStringList* report)
{
    for (const QString& table : schema::tables()) {
        const QSqlRecord present = db.record(table);
        if (present.isEmpty())
            continue; // a table the scripts create; nothing to extend
        for (const QString& column : schema::columns(table)) {
            if (present.contains(column))
                continue;
            QString type = isMySql(db) ? QStringLiteral("LONGTEXT") : QStringLiteral("TEXT");
            if (column == QLatin1String("PatientKey") && isMySql(db))
                type = QStringLiteral("VARCHAR(64) CHARACTER SET ascii COLLATE ascii_bin");
            const Status added =
                execute(db, QStringLiteral("ALTER TABLE %1 ADD COLUMN %2 %3").arg(table, schema::quotedColumns({column}), type));
            if (!added)
                return added.context(QStringLiteral("adding %1.%2: ").arg(table, column));
            if (report)
                *report << QStringLiteral("added the column %1.%2").arg(table, column);
        }
    }
    return Status::ok();
}

// Tables added after catalogues were first made, created (with a key and text columns) where they
// are missing; other missing tables are left missing. The UID mapping starts with the study, series
// and instance pseudonyms handed out before it.
Status addMissingTables(QSqlDatabase db, QStringList* report)
{
    for (const QString& table : QStringList{QStringLiteral("anonymousuid")}) {
        if (!db.record(table).isEmpty())
            continue;
        QStringList columns;
        for (const QString& column : schema::columns(table))
            columns << schema::quotedColumns({column}) + (isMySql(db) ? QStringLiteral(" LONGTEXT") : QStringLiteral(" TEXT"));
        const QString key = isMySql(db) ? QStringLiteral("pk BIGINT NOT NULL AUTO_INCREMENT PRIMARY KEY")
                                        : QStringLiteral("pk INTEGER PRIMARY KEY AUTOINCREMENT");
        if (const Status made = execute(db, QStringLiteral("CREATE TABLE %1 (%2, %3)").arg(table, key, columns.join(QStringLiteral(", ")))); !made)
            return made.context(QStringLiteral("adding the table %1: ").arg(table));
        if (report)
            *report << QStringLiteral("added the table %1").arg(table);
        for (const char* level : {"SELECT StudyInstanceUID, AnonymousStudyInstanceUID FROM anonymousstudy",
                                  "SELECT SeriesInstanceUID, AnonymousSeriesInstanceUID FROM anonymousseries",
                                  "SELECT SOPInstanceUID, AnonymousSOPInstanceUID FROM anonymousimage"})
            if (const Status filled = execute(db, QStringLiteral("INSERT INTO anonymousuid (UID, AnonymousUID) ") + QLatin1String(level)); !filled)
                return filled.context(QStringLiteral("filling anonymousuid: "));
    }
    return Status::ok();
}

Status fillPatientKeys(QSqlDatabase db)
{
    struct Row { qint64 pk; QString key; };
    QList<Row> rows;
    Statement read(db, QStringLiteral("SELECT pk, PatientID, IssuerOfPatientID, PatientBirthDate, PatientName FROM patient "
                                      "WHERE PatientKey IS NULL OR PatientKey = ''"));
    if (const Status status = read.run(); !status)
        return status;
    while (read.next())
        rows.append({read.get<qint64>(0), patientIdentityKey(read.value(1).toString(), read.value(2).toString(),
                                                             read.value(3).toString(), read.value(4).toString())});
    read.finish();
    if (rows.isEmpty())
        return Status::ok();
    return runWrite(db, [&](Transaction&) {
        Statement update(db, QStringLiteral("UPDATE patient SET PatientKey = ? WHERE pk = ?"));
        for (const Row& row : rows)
            if (const Status status = update.bind(row.key).bind(row.pk).run(); !status)
                return status;
        return Status::ok();
    });
}

// MariaDB: identifying columns compared byte for byte, and short enough for a unique index.
Status binaryCollations(QSqlDatabase db)
{
    if (!isMySql(db))
        return Status::ok();
    auto collationOf = [&](const QString& table, const QString& column) {
        return selectValue<QString>(db,
                                    QStringLiteral("SELECT COALESCE(COLLATION_NAME, '') FROM information_schema.COLUMNS WHERE "
                                                   "TABLE_SCHEMA = DATABASE() AND TABLE_NAME = ? AND COLUMN_NAME = ?"),
                                    {table, column}, QString());
    };
    auto makeBinary = [&](const QString& table, const QString& column, const QString& type) {
        const QString current = collationOf(table, column);
        if (current.isEmpty() || current == QLatin1String("utf8mb4_bin") || current == QLatin1String("ascii_bin"))
            return Status::ok();
        return execute(db, QStringLiteral("ALTER TABLE %1 MODIFY %2 %3 CHARACTER SET utf8mb4 COLLATE utf8mb4_bin")
                               .arg(table, schema::quotedColumns({column}), type));
    };
    for (const UniqueKey& key : uniqueKeys()) {
        if (QLatin1String(key.column) == QLatin1String("PatientKey"))
            continue;
        if (const Status status = makeBinary(key.table, key.column, QStringLiteral("LONGTEXT")); !status)
            return status;
    }
    for (const auto& column : kBinaryColumns)
        if (const Status status = makeBinary(column[0], column[1], QStringLiteral("LONGTEXT")); !status)
            return status;
    return Status::ok();
}

// Rows of KEY's table that repeat a value: the lowest key stays, the children of the others point
// to it, the others go. Tables without keys keep their first row of each value.
Status mergeDuplicates(QSqlDatabase db, const UniqueKey& key, QStringList* report)
{
    const QString table = QLatin1String(key.table);
    const QString column = schema::quotedColumns({QLatin1String(key.column)});
    QStringList values;
    {
        Statement dupes(db, QStringLiteral("SELECT %1 FROM %2 WHERE %1 IS NOT NULL GROUP BY %1 HAVING COUNT(*) > 1")
                                .arg(column, table));
        if (const Status status = dupes.run(); !status)
            return status;
        while (dupes.next())
            values << dupes.value(0).toString();
    }
    if (values.isEmpty())
        return Status::ok();
    const bool keyed = db.record(table).contains(QStringLiteral("pk"));
    return runWrite(db, [&](Transaction&) {
        for (const QString& value : values) {
            if (keyed) {
                QList<qint64> keys;
                Statement rows(db, QStringLiteral("SELECT pk FROM %1 WHERE %2 = ? ORDER BY pk").arg(table, column));
                if (const Status status = rows.bind(value).run(); !status)
                    return status;
                while (rows.next())
                    keys << rows.get<qint64>(0);
                rows.finish();
                for (int i = 1; i < keys.size(); ++i) {
                    const QStringList children = QString::fromLatin1(key.childTable ? key.childTable : "").split(',', Qt::SkipEmptyParts);
                    for (const QString& child : children) {
                        const Status moved = execute(db, QStringLiteral("UPDATE %1 SET %2 = ? WHERE %2 = ?")
                                                             .arg(child, QLatin1String(key.fkColumn)),
                                                     {keys.first(), keys.at(i)});
                        if (!moved)
                            return moved;
                    }
                    if (const Status gone = execute(db, QStringLiteral("DELETE FROM %1 WHERE pk = ?").arg(table), {keys.at(i)}); !gone)
                        return gone;
                }
                if (report)
                    *report << QStringLiteral("merged %1 rows of %2 with %3 = %4 into pk %5")
                                   .arg(keys.size()).arg(table, QLatin1String(key.column), value).arg(keys.first());
            } else {
                // The receive queue has no keys: its first row of the value is written back alone.
                Statement rows(db, QStringLiteral("SELECT * FROM %1 WHERE %2 = ?").arg(table, column));
                if (const Status status = rows.bind(value).run(); !status || !rows.next())
                    return status;
                const QSqlRecord first = rows.record();
                QStringList names;
                QVariantList kept;
                for (int i = 0; i < first.count(); ++i) {
                    names << first.fieldName(i);
                    kept << first.value(i);
                }
                rows.finish();
                if (const Status gone = execute(db, QStringLiteral("DELETE FROM %1 WHERE %2 = ?").arg(table, column), {value}); !gone)
                    return gone;
                const Status back = execute(db, QStringLiteral("INSERT INTO %1 (%2) VALUES %3")
                                                    .arg(table, schema::quotedColumns(names), schema::placeholders(names.size())),
                                            kept);
                if (!back)
                    return back;
                if (report)
                    *report << QStringLiteral("kept one row of %1 with %2 = %3").arg(table, QLatin1String(key.column), value);
            }
        }
        return Status::ok();
    });
}

} // namespace

const QList<ReadIndex>& readIndexes()
{
    static const QList<ReadIndex> indexes{
        {"patient", "PatientID", true},
        {"generalstudy", "patient_fk", false},
        {"generalstudy", "StudyDate", true},
        {"generalseries", "study_fk", false},
        {"generalseries", "SeriesInstanceUID", true},
        {"generalseries", "SeriesDescription", true},
        {"generalseries", "Modality", true},
        {"imageformat", "series_fk", false},
        {"imagepixel", "series_fk", false},
        {"mrimageinfo", "series_fk", false},
        {"registration", "SeriesBase", true},
    };
    return indexes;
}

const QList<UniqueKey>& uniqueKeys()
{
    static const QList<UniqueKey> keys{
        {"patient", "PatientKey", "generalstudy", "patient_fk"},
        {"generalstudy", "StudyInstanceUID", "generalseries", "study_fk"},
        {"generalseries", "SeriesBase", "imageformat,imagepixel,mrimageinfo", "series_fk"},
        {"imageformat", "SOPInstanceUID", nullptr, nullptr},
        {"imagepixel", "SOPInstanceUID", nullptr, nullptr},
        {"mrimageinfo", "SOPInstanceUID", nullptr, nullptr},
        {"registration", "SeriesInstanceUID", nullptr, nullptr},
        {"anonymouspatient", "AnonymousPatientID", "anonymousstudy", "patient_fk"},
        {"anonymousstudy", "StudyInstanceUID", "anonymousseries", "study_fk"},
        {"anonymousstudy", "AnonymousStudyInstanceUID", "anonymousseries", "study_fk"},
        {"anonymousseries", "SeriesInstanceUID", "anonymousimage", "series_fk"},
        {"anonymousseries", "AnonymousSeriesInstanceUID", "anonymousimage", "series_fk"},
        {"anonymousimage", "SOPInstanceUID", nullptr, nullptr},
        {"anonymousimage", "AnonymousSOPInstanceUID", nullptr, nullptr},
        {"anonymousuid", "UID", nullptr, nullptr},
        {"anonymousuid", "AnonymousUID", nullptr, nullptr},
        {"series", "seriesUID", nullptr, nullptr},
        {"images", "InstanceUID", nullptr, nullptr},
    };
    return keys;
}

Status upgradeCatalog(QSqlDatabase db, QStringList* merged)
{
    const QSet<QString> present = indexNames(db);
    bool complete = db.record(QStringLiteral("patient")).contains(QStringLiteral("PatientKey"));
    for (int i = 0; complete && i < uniqueKeys().size(); ++i)
        complete = present.contains(indexName(uniqueKeys().at(i)));
    for (int i = 0; complete && i < readIndexes().size(); ++i)
        complete = present.contains(indexName(readIndexes().at(i)));
    if (complete)
        return Status::ok();

    QStringList report;
    Status status = addMissingTables(db, &report);
    if (status)
        status = addMissingColumns(db, &report);
    if (status)
        status = fillPatientKeys(db);
    if (status)
        status = binaryCollations(db);
    for (int i = 0; status && i < uniqueKeys().size(); ++i) {
        const UniqueKey& key = uniqueKeys().at(i);
        if (present.contains(indexName(key)) || db.record(QLatin1String(key.table)).isEmpty())
            continue;
        status = mergeDuplicates(db, key, &report);
        // MariaDB indexes long text by a prefix: 255 characters, far beyond any valid UID.
        const bool prefix = isMySql(db) && QLatin1String(key.column) != QLatin1String("PatientKey");
        if (status)
            status = execute(db, QStringLiteral("CREATE UNIQUE INDEX %1 ON %2 (%3%4)")
                                     .arg(indexName(key), QLatin1String(key.table), schema::quotedColumns({QLatin1String(key.column)}),
                                          prefix ? QStringLiteral("(255)") : QString()));
    }
    if (status)
        status = addReadIndexes(db, present, &report);
    for (const QString& line : report)
        qWarning().noquote() << "catalogue upgrade:" << line;
    if (merged)
        *merged << report;
    return status.context(QStringLiteral("upgrading the catalogue: "));
}

} // namespace kestrel::internal
