#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QSqlDatabase>
#include <QStringList>

// Opening a catalogue written by an earlier version: what the identities need is added in place.
namespace kestrel::internal {

// One unique key of the catalogue: TABLE's COLUMN, and the rows of other tables that point to a
// row of TABLE (FKCOLUMN of each comma-separated CHILDTABLE), repointed when duplicates are merged.
struct UniqueKey {
    const char* table;
    const char* column;
    const char* childTable; // null: nothing points here
    const char* fkColumn;
};

// Every unique key the catalogue enforces, parents before their children.
KESTREL_TEST_EXPORT const QList<UniqueKey>& uniqueKeys();

// A plain index (idx_TABLE_COLUMN) that keeps a read's cost from growing with the catalogue: the
// hierarchy's lookups by parent key, and the columns stored searches commonly ask for. TEXT marks
// a text column, which MariaDB indexes by its first 64 characters.
struct ReadIndex {
    const char* table;
    const char* column;
    bool text;
};

KESTREL_TEST_EXPORT const QList<ReadIndex>& readIndexes();

// Brings DB up to the current schema: missing columns added, patient identity keys filled in,
// identifying columns compared byte for byte (MariaDB), rows that repeat a unique key merged
// (the row with the lowest key stays, what pointed to the others points to it), then the unique
// indexes created, and the read indexes a catalogue lacks. Each merge and each index added is
// described in *MERGED. Cheap when nothing is missing.
KESTREL_TEST_EXPORT Status upgradeCatalog(QSqlDatabase db, QStringList* merged = nullptr);

} // namespace kestrel::internal
