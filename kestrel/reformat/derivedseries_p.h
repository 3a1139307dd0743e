#pragma once

// New DICOM series made from volumes: what a derived series takes from its source, and the
// checks that keep a reformat in its patient's space.

#include "platform/status_p.h"
#include "platform/testexport_p.h"

#include <QString>

namespace kestrel::internal::reformat {

// What a derived series takes from the first file of its source series.
struct SeriesTemplate {
    QString file;             // the template of every image (patient, study, equipment)
    QString frameOfReference; // (0020,0052), empty when the file has none
    int seriesNumber = 0;     // the new series' number: 1000 + the source's
    QString description;      // "MPR " + the source's description, at most 64 characters
};

// Reads FILE's header for a derived series.
KESTREL_TEST_EXPORT Status readSeriesTemplate(const QString& file, SeriesTemplate& out);

// A reformat onto another series needs both in one Frame of Reference (and both must name it).
KESTREL_TEST_EXPORT Status sameFrameOfReference(const SeriesTemplate& source, const SeriesTemplate& reference);

} // namespace kestrel::internal::reformat
