#pragma once

#include "platform/testexport_p.h"

#include <QString>
#include <QStringList>
#include <QVector>

#include <vector>

class DcmItem;

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
    QString patientID, issuer, birthDate, patientName; // decoded by the file's character set
    int instanceNumber = 0;
};

// Fills FACTS from ITEM (PATH and READ stay as they are; PHASE is the caller's).
KESTREL_TEST_EXPORT void readFacts(DcmItem* item, FileFacts& facts);

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

// The plan for FACTS (unread files are left out; the caller counts them).
KESTREL_TEST_EXPORT ImportPlan planImport(const std::vector<FileFacts>& facts);

} // namespace kestrel::internal::import
