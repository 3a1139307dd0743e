#pragma once

#include "import/importplan_p.h"
#include "platform/status_p.h"

#include <QSqlDatabase>
#include <QVariant>
#include <QVector>

#include <functional>
#include <vector>

// The patient, study and series rows an import files its images under: looked up for the whole
// plan at once, and the missing ones created together in one unit of work, so that a first import
// commits once for its parents however many series it brings.
namespace kestrel::internal::import {

struct ParentKeys {
    // Keys by plan index; -1 where the row could not be found or made.
    std::vector<qint64> patient, study, series;
    // The patient a study found in the catalogue is filed under (it may be another one).
    std::vector<qint64> studyOwner;
    // Rows this run made.
    std::vector<char> patientAdded, studyAdded, seriesAdded;
    // Why rows are missing: a file that no longer reads, or the catalogue's refusal.
    QStringList problems;
};

enum class ParentTable { Patient, Study, Series };

// The values of the new row of TABLE for the plan's entry INDEX, read from its file, the parent's
// key left open; false when the file does not read.
using ParentRowReader = std::function<bool(ParentTable table, int index, QVector<QVariant>* values)>;

Status findOrCreateParents(QSqlDatabase db, const ImportPlan& plan, const ParentRowReader& readRow, int retries,
                           ParentKeys* keys);

} // namespace kestrel::internal::import
