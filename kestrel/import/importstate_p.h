#pragma once

#include "qdcmfiles.h"

#include "import/importparents_p.h"
#include "import/importplan_p.h"

#include <QElapsedTimer>
#include <QSet>

#include <vector>

// What an importer knows of its files between the reading pass and the import pass. The facts of
// earlier runs stay until reinit(), as the grouping of the importer always has.
struct QDcmFiles::ImportState {
    std::vector<kestrel::internal::import::FileFacts> facts;
    QHash<QString, int> factIndex; // path -> index in facts
    kestrel::internal::import::ImportPlan plan;
    QSet<QString> notedPatientIDs; // IDs already reported as naming several people
    kestrel::internal::import::ParentKeys parents; // the rows the plan's images go under
    // The catalogued images of the series being imported, by SOP Instance UID: their file and
    // storage marker (IrradiationEventUID), read in one query.
    struct StoredImage {
        QString filePath, marker;
    };
    QHash<QString, StoredImage> storedImages;
    // The catalogued images of every series of the plan the catalogue already held, read together
    // before the first series is imported; a series whose pixel and MR rows all match is complete.
    struct StoredSeries {
        QHash<QString, StoredImage> images;
        bool complete = false;
    };
    QHash<qint64, StoredSeries> storedSeries;
    // New image rows waiting for their unit of work, the three tables' rows of each image together.
    struct PendingRows {
        QVector<QVector<QVariant>> format, pix, info;
        QElapsedTimer since; // started with the first row queued
        bool isEmpty() const { return format.isEmpty() && pix.isEmpty() && info.isEmpty(); }
    };
    PendingRows pending;
};
