#pragma once

#include "platform/status_p.h"
#include "platform/testexport_p.h"
#include "volumehead.h"

#include <QString>
#include <QStringList>

#include <array>
#include <utility>
#include <vector>

// Volumes written as NIfTI-1 files (Debian's NIfTI library), as researchers' tools read them.
namespace kestrel::internal::nifti {

struct NiftiVolume {
    VolumeHead head{};                  // geometry and pixel format
    const char* voxels = nullptr;       // head.timeNum frames one after the other
    std::vector<std::pair<double, double>> rescales; // slope and intercept of each frame
    QStringList labels;                 // names of the frames for the side file; none written when empty
};

// The scanner-space (RAS) matrix of HEAD's voxel grid, row after row: DICOM's patient axes (LPS)
// with x and y turned round.
KESTREL_TEST_EXPORT std::array<double, 16> rasAffine(const VolumeHead& head);

// FILE without ".nii" or ".nii.gz", plus ".json".
KESTREL_TEST_EXPORT QString sideFileName(const QString& file);

// Writes VOLUME to FILE (".nii", or ".nii.gz" compressed): stored voxels with scl_slope and
// scl_inter when every frame has one rescale, 32-bit float real values otherwise; and the labels'
// side file.
KESTREL_TEST_EXPORT Status writeNifti(const NiftiVolume& volume, const QString& file);

} // namespace kestrel::internal::nifti
