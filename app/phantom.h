#pragma once

#include <QString>
#include <QStringList>

// A head-like MR phantom written as DICOM through the library's synthetic writer: skull, brain,
// ventricles, eyes and a bright lesion, sampled by an axial and a sagittal series of one study.
namespace app {

struct PhantomStudy {
    QStringList axialFiles;
    QStringList sagittalFiles;
};

// Writes the study under DIR/axial and DIR/sagittal (AXIAL_SLICES slices of SIZE x SIZE).
// Files already there are kept as they are, so a second run imports the same instances.
PhantomStudy writePhantomStudy(const QString& dir, int size = 128, int axialSlices = 60);

// Series instance UID of the phantom's axial series.
QString phantomAxialSeriesUid();

// Signal of the phantom at a patient position in millimetres (0 outside the head).
int phantomValue(double x, double y, double z);

} // namespace app
