#pragma once

#include "platform/testexport_p.h"
#include "volumehead.h"

#include <QList>
#include <QString>
#include <QStringList>

#include <vector>

class NDicomVolume;
struct SeriesFrames;

namespace kestrel::internal {

// The voxels of one slice as read: real value = voxel * slope + intercept, voxels (unsigned)
// from LOWEST to HIGHEST.
struct SliceRescale {
    double slope = 1, intercept = 0;
    qint64 lowest = 0, highest = 0;
};

// One slope and intercept for several slices: slice s's voxels become factor[s] * voxel +
// offset[s], after which every slice's real values are voxel * SLOPE + INTERCEPT.
struct SharedRescale {
    double slope = 1, intercept = 0;
    std::vector<qint64> factor, offset;
};

// The shared rescale of SLICES whose voxels stay within 0..LARGEST: the smallest slope, when every
// slope is a whole multiple of it, and the smallest intercept, when every intercept lies a whole
// number of slopes above it. Slices of one rescale keep their voxels. False when there is none.
KESTREL_TEST_EXPORT bool sharedRescale(const std::vector<SliceRescale>& slices, qint64 largest, SharedRescale& out);

// The head string of a volume of frames: the volume's own, then the frames of its group it holds
// ("frames:0,2,3;") and, where the frames have rescales of their own, those ("rescale:slope,
// intercept,slope,intercept,...;", full precision).
KESTREL_TEST_EXPORT QString frameVolumeHeadText(const VolumeHead& head, const QList<int>& frames,
                                                const std::vector<std::pair<double, double>>& rescales);

// The rescale of time frame FRAME that head string TEXT gives (its "rescale" item, else the head's
// fields in HEAD). False when FRAME is not one of the volume's frames.
KESTREL_TEST_EXPORT bool frameRescale(const QString& text, const VolumeHead& head, int frame, double& slope,
                                      double& intercept);

// The frames item of head string TEXT; empty when it has none.
KESTREL_TEST_EXPORT QList<int> headTextFrames(const QString& text);

// Adds to PROBLEMS a line for each incomplete frame of group GROUP of FRAMES.
void noteIncomplete(const SeriesFrames& frames, int group, QStringList* problems);

// Builds volumes of frames with the volume's own loading steps (NDicomVolume names it a friend).
class FrameVolumeBuilder
{
public:
    static bool build(NDicomVolume& volume, const SeriesFrames& frames, int group, QStringList* problems);
    static bool buildThroughCache(NDicomVolume& volume, const SeriesFrames& frames, int group, QStringList* problems);
    // The voxels of time frame T of VOLUME (null past the frames in its buffer).
    static const char* frameData(NDicomVolume& volume, int t);

private:
    static bool readFrame(NDicomVolume& volume, const QStringList& files, char* slot,
                          std::vector<SliceRescale>& slices, QString& why);
    // Gives VOLUME's frames (the first FRAMES.size() of its buffer, slices as read) one rescale, or
    // each its own; frames whose own slices share none are taken out. The kept frames' rescales.
    static std::vector<std::pair<double, double>> rescaleFrames(NDicomVolume& volume, QList<int>& frames,
                                                                std::vector<std::vector<SliceRescale>>& slices,
                                                                QStringList* problems);
    static void setVolumeSeries(NDicomVolume& volume, const SeriesFrames& frames, int group, int frame);
};

} // namespace kestrel::internal
