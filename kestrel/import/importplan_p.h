#pragma once

#include "platform/testexport_p.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <functional>
#include <vector>

class DcmItem;

namespace kestrel::internal {
class HeaderScan;
}

// What the import does with a set of files, decided before anything is written: which files are
// catalogued, in which patient, study and series, and in which order. The order depends on the
// files' identifying values and paths only, never on the thread that read them or on hash
// order, so the same files always give the same rows and keys.
namespace kestrel::internal::import {

// The identifying values of one file, read in the parallel reading pass.
struct FileFacts {
    QString path;
    bool read = false; // DCMTK read the header
    QString sopInstanceUID, seriesUID, phase, studyUID;
    int instanceNumber = 0;
    // Who the patient is, decoded by the file's character set: read for the files whose study
    // rows are made (see planImport), not for every file.
    bool identityRead = false;
    QString patientID, issuer, birthDate, patientName;
};

// Fills the UIDs and the instance number of FACTS from ITEM (PATH and READ stay as they are;
// PHASE is the caller's).
KESTREL_TEST_EXPORT void readFacts(DcmItem* item, FileFacts& facts);

// The same from a header read without DCMTK; false where only DCMTK can say (an instance number
// that is not a plain integer). FACTTAGS are the attributes it reads.
KESTREL_TEST_EXPORT bool readFacts(const HeaderScan& scan, FileFacts& facts);
KESTREL_TEST_EXPORT std::vector<quint32> factTags();

// Fills the patient's identifying values of FACTS from ITEM.
KESTREL_TEST_EXPORT void readIdentity(DcmItem* item, FileFacts& facts);

struct PlannedSeries {
    QString key;           // SeriesInstanceUID "#" phase
    QVector<int> files;    // indices into the facts, by instance number, then path
};

struct PlannedStudy {
    QString uid;
    QVector<int> series;   // indices into ImportPlan::series, by key
    int firstFile = -1;    // the file the study's row is read from
};

struct PlannedPatient {
    QString key;           // patientIdentityKey of the identifying values
    QString patientID;
    QString name;          // as the first file has it (for messages)
    QVector<int> studies;  // indices into ImportPlan::studies, by UID
    int firstFile = -1;    // the file the patient's row is read from
};

struct ImportPlan {
    std::vector<PlannedPatient> patients; // by identity key
    std::vector<PlannedStudy> studies;
    std::vector<PlannedSeries> series;
    QStringList notCatalogued;   // "path: reason" for files read but lacking an identifying UID
    QVector<int> withoutPatientID; // files skipped for an empty PatientID
    // Files repeating the SOP Instance UID of an earlier file of the run: (repeat, kept) indices.
    QVector<QPair<int, int>> repeats;
};

// The plan for FACTS (unread files are left out; the caller counts them). The patient of a study
// is that of its first file: READIDENTITY fills that file's identifying values where they were not
// read yet (it may leave them empty when the file no longer reads).
KESTREL_TEST_EXPORT ImportPlan planImport(std::vector<FileFacts>& facts, const std::function<void(FileFacts&)>& readIdentity);

} // namespace kestrel::internal::import
