#pragma once

// Resampling a volume on any grid of patient points: a plane, a slab of planes reduced by a
// projection rule, a projection of the whole volume, or the columns of a curved image. Samples
// are trilinear (simd/sampleLineS16); points outside the volume take its background value. The
// axis-aligned cutters of nvolume.cpp are the fast case of the same thing.

#include "geometry/reslice_p.h"
#include "platform/status_p.h"
#include "platform/testexport_p.h"
#include "simd/kernels_p.h"

#include <vector>

class NVolume;

namespace kestrel::internal::reslice {

// A volume's current frame as the sampler reads it.
struct Source {
    LineSource voxels{};
    int size[3] = {};           // voxels per axis (voxels.size holds 2 for an axis of one)
    geometry::Affine toIndex;   // patient point -> fractional voxel index
    geometry::Affine toPatient; // and back
    short background = 0;       // the value of points outside
};

// The current frame of VOLUME with BACKGROUND; fails for an empty volume, one of fewer than two
// voxels along i or j, or a singular geometry.
KESTREL_TEST_EXPORT Status sourceOf(NVolume& volume, short background, Source& source);

// A grid of WIDTH x HEIGHT points, ORIGIN + x * ALONGROW + y * DOWNCOLUMN, each the middle of a
// line of LAYERS samples LAYERSTEP apart (a slab; 1 for a plane) reduced by RULE (RenderType:
// 1 minimum, 2 average, else maximum). Only samples inside the volume count: a point none of whose
// samples is inside gets the background.
struct Grid {
    geometry::Vec3 origin{}, alongRow{}, downColumn{};
    int width = 0, height = 0;
    geometry::Vec3 layerStep{};
    int layers = 1;
    int rule = 0;
};

// Samples GRID into OUT (WIDTH * HEIGHT values, rows top to bottom). Rows or columns are walked
// whichever runs closer to the voxel rows, in parallel when there is enough to do.
KESTREL_TEST_EXPORT void resample(const Source& source, const Grid& grid, short* out);

// Column c of a curved image: HEIGHT samples from TOPS[c] along DOWNS[c] (steps in mm), into
// OUT[y * width + c] with width = TOPS.size().
KESTREL_TEST_EXPORT void resampleColumns(const Source& source, const std::vector<geometry::Vec3>& tops,
                                         const std::vector<geometry::Vec3>& downs, int height, short* out);

// Along one line of GRID's layers: the patient offset of the sample that gives pixel (X, Y) its
// value (brightest for the maximum, darkest for the minimum, the middle of the samples inside for
// the average), in layer steps from the middle layer. False when no sample of it is inside.
KESTREL_TEST_EXPORT bool sourceLayer(const Source& source, const Grid& grid, int x, int y, double& layer);

} // namespace kestrel::internal::reslice
