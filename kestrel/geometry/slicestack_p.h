#pragma once

// The slices of a series in space: which images make the volume, in which order, how far apart,
// and which way the stack runs. Worked out from the images' positions and orientations alone;
// QSeries::getVolumeSE and sortByPosition, NDicomVolume::sortFiles and the volume's axis queries
// all take their answers from here. Each ordering rule is one function of slicestack.cpp, named
// after what it decides, with its tolerances at the top of that file.

#include "geometry/geometry_p.h"
#include "platform/testexport_p.h"

#include <array>
#include <cstdint>
#include <vector>

namespace kestrel::internal::geometry {

// One image as the catalogue describes it.
struct StackImage {
    Vec3 position{}; // patient coordinates of the first pixel
    Vec3 row{};      // row direction cosines
    Vec3 column{};   // column direction cosines
    bool oriented = true; // false: no orientation was read, the image has no main axis
    int instanceNumber = 0;
    std::int64_t key = 0; // the caller's own, handed back with the results
    int rows = 0, columns = 0;
    std::array<double, 2> pixelSpacing{}; // between rows, between columns
    int acquisition = 0; // the caller's rank of what the image shows (echo, time point, ...), for frames
};

// One image taken at a slice position.
struct StackFrame {
    std::int64_t key = 0;
    int instanceNumber = 0;
    int acquisition = 0;
};

// A slice position and the images taken there, in the order given (several for echoes, time
// points or image types acquired at one position).
struct StackSlice {
    Vec3 position{};
    std::vector<StackFrame> frames;
};

// Neighbouring slices of the result whose distance is not the spacing.
struct StackGap {
    int slice = 0;       // index of the slice after the gap
    double distance = 0; // its distance to the slice before
};

struct SliceStack {
    std::vector<StackSlice> slices; // along the normal; empty when the images make no volume
    Vec3 normal{};                  // unit row × column of the first image given
    double spacing = 0;             // most common distance between neighbouring positions
    Vec3 axis{};                    // unit vector from the first slice to the last
    double step = 0;                // distance from the first slice to the last / (slices - 1)
    std::vector<std::int64_t> dropped; // images left out for their distance, in sorted order
    std::vector<StackGap> gaps;
    bool startsAtFirstImage = false; // the first slice lies exactly where the first image given does
    int framesPerSlice = 0;          // images at every slice position; 0 when the positions differ in it
};

// The normal an image stores: row × column, scaled by sqrt(Nx² + Ny·Nz + Nz²) rather than by
// its length, and left unscaled when that is not positive (a coronal normal gives 0). The
// instance's main axis and the volumes cached by earlier versions derive from this value; slice
// order does not.
KESTREL_TEST_EXPORT Vec3 imageNormal(const Vec3& row, const Vec3& column);

// Main axis of a normal by signed comparison: 0 if v[0] > v[1] else 1, kept if v[k] > v[2] else
// 2. Ties go to the higher index and negative components never win ((0, 0, -1) gives 1).
KESTREL_TEST_EXPORT int signedMainAxis(const Vec3& v);

// Order of IMAGES (indices) along the unit normal of the first image, whatever way it points.
// Images of another plane (a normal not parallel to it) keep their places and are not ordered
// against the rest; the order given is kept wherever it already runs along the normal, so images
// at one position keep it too. Given order when there are fewer than two or the first is not
// oriented.
KESTREL_TEST_EXPORT std::vector<int> orderAlongNormal(const std::vector<StackImage>& images);

// The volume that IMAGES (one plane, in the catalogue's order) make. Images at one position are
// the frames of one slice: none is dropped for standing where another stands.
KESTREL_TEST_EXPORT SliceStack buildSliceStack(const std::vector<StackImage>& images);

// Axis of COUNT slices in order from FIRST to LAST: the unit vector between them and the mean
// step. False, leaving both untouched, for fewer than two slices or coinciding ends.
KESTREL_TEST_EXPORT bool stackAxis(const Vec3& first, const Vec3& last, int count, Vec3& axis, double& step);

// Axis whose magnitude is strictly the largest, -1 when the largest is shared.
KESTREL_TEST_EXPORT int strictMainAxis(const Vec3& v);

// --- frames: several images at one slice position --------------------------------------------

// IMAGES (indices, in the order given) that share one grid: oriented, parallel row and column
// directions, one matrix size and pixel spacing. Groups in the order of their first image; images
// without orientation are in none.
KESTREL_TEST_EXPORT std::vector<std::vector<int>> gridGroups(const std::vector<StackImage>& images);

// Most images of IMAGES (one grid) that stand at one position, and the number of positions.
KESTREL_TEST_EXPORT int mostAtOnePosition(const std::vector<StackImage>& images, int* positions = nullptr);

// A frame: one image per slice of a stack, of one acquisition.
struct StackFrameSeries {
    int acquisition = 0;
    int repeat = 0;                  // 0 for the first image of the acquisition at each position, 1 the second, ...
    std::vector<std::int64_t> keys;  // per slice; kNoImage where the frame has none
    std::vector<int> instanceNumbers; // per slice, 0 where none
    int missing = 0;                 // slices without an image
};
constexpr std::int64_t kNoImage = -1;

struct FrameStack {
    SliceStack stack; // the slices of all the images (frames of one slice in the order given)
    std::vector<StackFrameSeries> frames; // by acquisition, then repeat
};

// The frames of IMAGES (one grid, given in instance-number order): the n-th image of an
// acquisition at a position goes to that acquisition's frame n. Slices, spacing, gaps and dropped
// images are those of the stack of all the images; a frame lacks the slices where it has no image.
// Keys must not be kNoImage.
KESTREL_TEST_EXPORT FrameStack buildFrameStack(const std::vector<StackImage>& images);

// Patient axis (0 = x, 1 = y, 2 = z) each voxel axis i, j, k of ORIENTATION (9 values, i, j, k
// directions) runs closest to, and the voxel axis running closest to PATIENTAXIS (k before j
// before i; -1 when none).
KESTREL_TEST_EXPORT void patientAxes(const double* orientation, int view[3]);
KESTREL_TEST_EXPORT int voxelAxisAlong(const double* orientation, int patientAxis);

} // namespace kestrel::internal::geometry
