#pragma once

#include "kestrel_global.h"
#include "nvolume.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QVector3D>
#include <QVector>

#include <functional>

class DcmFileFormat;
class QSeries;
namespace kestrel::internal {
class FrameVolumeBuilder;
}

// The volume file the cache has registered for KEY (a series' SeriesBase, a study's UID), as
// NDicomVolume would load it; empty when none is registered. The file itself may be gone.
KESTREL_EXPORT QString getCachedVolumePath(const QString& key);

// A volume built from DICOM data: from a head and its voxel bytes, or from a series of the
// catalogue (one time frame per series for a list), with a disk cache of built volumes
// registered in the `registration` table, and the axial, coronal and sagittal views of its planes.
class KESTREL_EXPORT NDicomVolume : public NVolume
{
    Q_OBJECT

public:
    explicit NDicomVolume(QObject* parent = nullptr);
    // A volume of LENGTH voxel bytes described by HEAD; empty when either pointer is null.
    NDicomVolume(VolumeHead* head, char* data, qint64 length, QObject* parent = nullptr);
    ~NDicomVolume() override;

    using NVolume::clone;
    virtual void clone(NDicomVolume* src);

    // Building from series.
    void loadSeries(QSeries* series);
    void loadSeries(QList<QSeries*> series);
    void sortFiles(QSeries* series);
    bool fillHead();
    QSeries* getVolumeSeries() const { return m_volumeSeries; }

    // The cache: load the registered volume file or build and register it.
    bool getVolumeFromSeriesUID(QSeries* series);
    bool getVolumeFromStudyUID(QList<QSeries*> series);
    int saveVolumeToDefaultPath();
    bool saveVolumeToDefaultPath(QList<QSeries*> series);
    QString getCurVolumeDataPath() const { return m_curVolumeDataPath; }

    // Nearest slice to a patient position (0 when outside the in-plane extent), mirrored when the
    // series runs against its slice direction.
    int getSliceIndexByPosition(double x, double y, double z);
    // Re-orders the slices so that the slice direction's dominant component is positive.
    void getStandardDicomVolume();

    // The axial, coronal or sagittal image at INDEX, whatever the acquisition direction.
    bool getDicomImagePlaneAxi(NDicomImage& image, int index, int thickness, RenderType render);
    bool getDicomImagePlaneCor(NDicomImage& image, int index, int thickness, RenderType render);
    bool getDicomImagePlaneSag(NDicomImage& image, int index, int thickness, RenderType render);
    // Number of planes of the axial, coronal and sagittal views (the size of the voxel axis each
    // view is cut across).
    int getAxiSliceNum();
    int getCorSliceNum();
    int getSagSliceNum();
    // Placeholder: sizes the image like a k plane and copies no pixels; always false.
    bool getDicomImagePlaneByIndex(NDicomImage& image, int index);

    // Axis queries. The voxel axis (1 = i, 2 = j, 3 = k) the axial, coronal or sagittal view is
    // cut across: the one running closest to the patient's z, y or x axis (k when none does, as
    // the views then fall back to the k planes).
    int getAxi();
    int getCor();
    int getSag();
    // The plane of that view nearest to patient point (X, Y, Z), clamped to the planes there
    // are: the index to give getDicomImagePlaneAxi, Cor or Sag for a crosshair.
    int getAxiIndex(double x, double y, double z);
    int getCorIndex(double x, double y, double z);
    int getSagIndex(double x, double y, double z);
    // +1 when the view's plane index grows towards the head (axial), the back (coronal) or the
    // patient's left (sagittal), -1 when it grows the other way.
    int getAxiMainDirection();
    int getCorMainDirection();
    int getSagMainDirection();
    // For voxel axis AXIS (1 = i, 2 = j, 3 = k): the patient axis (0 = x, 1 = y, 2 = z) it runs
    // closest to, by the rule of the views (|x| > |y| for x, then that one only when larger than
    // |z|), and +1 or -1 as it runs towards that axis' positive or negative side. -1 and 0 for
    // other values of AXIS.
    int getOrinentMaxIdex(int axis);
    int getMainDirection(int axis);

    // Curved reformats. The smooth curve through POINTS clicked in patient space (at least two):
    // a centripetal Catmull-Rom spline through every point, sampled every STEP mm of its length
    // from the first point (the last point ends it). Empty for fewer than two distinct points or a
    // STEP of 0 or less.
    static QList<QVector3D> getInterpolationPoints(const QList<QVector3D>& points, double step);
    // The stretched curved reformat of CURVE (samples of getInterpolationPoints): column c samples
    // the line through CURVE[c] along DIRECTION, HEIGHT rows SPACING mm apart with the curve in
    // row (HEIGHT - 1) / 2. Rows of the image thus keep one direction; columns lie the curve's
    // step apart (its pixel spacing along the row is the mean distance between samples). The
    // image records each column's point of row 0 and its step (setColumnGeometry), so getXYZ of
    // any pixel is where it was sampled. False for fewer than two samples, a HEIGHT below 1, a
    // SPACING of 0 or less, or a DIRECTION of no length.
    bool getCurvedMPRImagePlane(NDicomImage& image, const QList<QVector3D>& curve, const QVector3D& direction,
                                int height, double spacing);
    // The straightened curved reformat: as above, but column c runs perpendicular to the curve's
    // tangent at CURVE[c], along DIRECTION with its part along the tangent taken away (where the
    // curve runs along DIRECTION, the column keeps the way of its neighbour).
    bool getCurvedMPRImagePlaneMethodTwo(NDicomImage& image, const QList<QVector3D>& curve,
                                         const QVector3D& direction, int height, double spacing);

    // New series from this volume, written into FOLDER as derived DICOM images of one new Series
    // Instance UID on the first file of the volume's series (its patient, study and Frame of
    // Reference): Instance Numbers from 1, Series Number 1000 + the source's, the volume's rescale
    // and window, positions along the stack's normal. With IMPORT the files are catalogued
    // (QDcmFiles, on the default connection's catalogue). FILES, when given, receives the files
    // written in instance order; ERROR a one-line reason when the result is false.
    //
    // COUNT parallel planes of getDicomImage: the first centred on CENTRE, each next SLICESPACING
    // mm further along ROW x COLUMN, each WIDTH x HEIGHT pixels of SPACINGX by SPACINGY mm, a
    // slab of THICKNESS mm reduced by RENDER when THICKNESS > 0.
    bool createNewSeriesbyManual(const QString& folder, const double* centre, const double* row, const double* column,
                                 int width, int height, double spacingX, double spacingY, double sliceSpacing,
                                 int count, double thickness, RenderType render, bool import,
                                 QStringList* files = nullptr, QString* error = nullptr);
    // The volume resampled onto the exact geometry of REFERENCE, a catalogued series of the same
    // Frame of Reference: one image per image of REFERENCE (in its order), each with that image's
    // position, orientation, matrix and pixel spacing.
    bool createNewSeriesbyReference(QSeries* reference, const QString& folder, bool import,
                                    QStringList* files = nullptr, QString* error = nullptr);
    // Each slice k of the volume (current frame) as it is.
    bool saveVolumeToImage(const QString& folder, bool import, QStringList* files = nullptr, QString* error = nullptr);
    // The volume with every voxel whose bit in MASK (of the volume's size) is clear set to the
    // background (the smallest voxel), the others unchanged, written slice by slice.
    bool maskDicomVolume(NBitVolume* mask, const QString& folder, bool import, QStringList* files = nullptr,
                         QString* error = nullptr);

signals:
    void processBar(int value, int maximum);
    void registrationInfo(int state);
    void seUID(QString seriesUid);

private:
    // Voxel axis (1 = i, 2 = j, 3 = k) that the view towards patient axis TARGET is cut across.
    int viewAxis(int target) const;
    // The plane index of the view towards TARGET nearest to a patient point; its direction sign.
    int viewIndex(int target, double x, double y, double z);
    int viewDirection(int target);
    // The curved reformats: columns through CURVE along DIRECTION, straightened or not.
    bool curvedImage(NDicomImage& image, const QList<QVector3D>& curve, const QVector3D& direction, int height,
                     double spacing, bool straightened);
    // Writes COUNT images made by MAKE (image n of the series, 0 first) as one new derived series
    // (see createNewSeriesbyManual).
    bool writeDerivedSeries(int count, const std::function<bool(int, NDicomImage&, QString*)>& make,
                            const QString& folder, bool import, QStringList* files, QString* error);
    bool planeTowards(NDicomImage& image, int index, int thickness, RenderType render, int target);
    // Loads FILE as fillHead does; null when it cannot be read.
    static DcmFileFormat* loadFile(const QString& file);
    // Reads the slices of the current volume series into the frame starting at FRAME. Signed
    // slices are stored shifted by their own minimum, listed in SHIFTED (slice, minimum) until
    // shiftToCommonMinimum gives the whole volume one.
    void readFrame(char* frame, int progressBase, int progressSpan, QVector<QPair<char*, qint64>>& shifted);
    bool storeSlice(DcmFileFormat& file, const QString& path, char* frame, qint64& written, qint64& shift);
    void shiftToCommonMinimum(const QVector<QPair<char*, qint64>>& shifted);
    bool prepareBuffer();
    // Loads the volume registered under KEY when its head text is of the present rules (and
    // ACCEPTS it, when given), else forgets it and runs BUILD.
    void lookupAndLoad(const QString& key, const std::function<void()>& build,
                       const std::function<bool(const QString&)>& accepts = nullptr);
    // Writes the cache file of KEY and registers it with HEADTEXT (default: the head's text).
    int writeCache(const QString& key, const QString& headText = QString());

    // Builds volumes of a series' frames (getVolumeFromSeriesFrames) with the members above.
    friend class kestrel::internal::FrameVolumeBuilder;

    QSeries* m_volumeSeries = nullptr;
    QString m_curVolumeDataPath;
    void* m_reserved[4] = {};
    int m_sourceBits = 0;       // BitsAllocated of the first file
};

// --- frames: series with several images per slice position ----------------------------------
//
// Multi-echo, magnitude and phase, time series and diffusion series hold several images at each
// slice position. A frame is one image per position: the images of one acquisition (image type,
// echo, diffusion weighting, time point), and when images still repeat a position, the n-th of
// each position in instance-number order. Frames on one grid make one 4-D volume, one time frame
// per frame. The volume built from a series (loadSeries, getVolumeFromSeriesUID) is not changed
// by any of this.

// One frame of a series.
struct SeriesFrame {
    int index = 0;          // place among the frames of its group
    QString label;          // what tells it from the others: "echo 2 TE 7.65 ms", "time 3", "phase", ...
    QStringList files;      // its image at each slice of the group, in slice order; empty where it has none
    QList<int> missing;     // the slices where it has no image
    bool isComplete() const { return missing.isEmpty(); }
    int imageCount() const { return files.size() - missing.size(); }
};

// Frames on one grid: one orientation, matrix and pixel spacing, one set of slice positions.
struct SeriesFrameGroup {
    int rows = 0, columns = 0;
    double pixelSpacing[2] = {};   // between rows, between columns
    double orientation[6] = {};    // row direction, column direction
    QVector<double> positions;     // x, y, z of each slice in turn, along the slice normal
    double spacing = 0;            // most common distance between neighbouring slices
    QList<QPair<int, double>> gaps; // (slice after the gap, its distance) where that is not the spacing
    int isOrder = -1;              // 1 when instance numbers run along the slices, as QSeries::getIsOrder
    QList<SeriesFrame> frames;
    int sliceCount() const { return int(positions.size() / 3); }
    QList<int> completeFrames() const
    {
        QList<int> complete;
        for (const SeriesFrame& frame : frames)
            if (frame.isComplete())
                complete << frame.index;
        return complete;
    }
};

struct KESTREL_EXPORT SeriesFrames {
    qint64 seriesPk = 0;
    QString seriesUid, seriesBase;
    QList<SeriesFrameGroup> groups; // in the order of their first image
    QStringList skipped;            // "file: why" for each image in no frame
    // The group with the most images (the earliest on a tie), -1 without groups.
    int largestGroup() const;
    // True when a group has more than one frame.
    bool severalPerPosition() const;
};

// The frames of SERIES' images (in its list order, which should be by instance number), read from
// the files' headers. Empty when SERIES is null.
KESTREL_EXPORT SeriesFrames getSeriesFrames(QSeries* series);

// Builds VOLUME from the complete frames of group GROUP of FRAMES, time frame t holding the t-th
// complete frame, every frame on the grid of the first. Each incomplete frame, and each frame that
// cannot be read or kept exact, is left out with a line in PROBLEMS. The head string
// (getStrVolumeHead) then names the frames built and, where the frames need different rescales,
// each frame's own (see getVolumeFrames, getFrameRescale); saveAs puts the plain head string in its
// place, as for any volume. False when no frame was built.
KESTREL_EXPORT bool loadSeriesFrames(NDicomVolume& volume, const SeriesFrames& frames, int group,
                                     QStringList* problems = nullptr);

// The same through the volume cache, under the key SeriesBase + "#frames" + GROUP: the registered
// volume when it holds the frames that are complete now, built and registered otherwise.
KESTREL_EXPORT bool getVolumeFromSeriesFrames(NDicomVolume& volume, const SeriesFrames& frames, int group,
                                              QStringList* problems = nullptr);

// The frames of its group a volume of loadSeriesFrames holds, by time index; empty for other volumes.
KESTREL_EXPORT QList<int> getVolumeFrames(NVolume& volume);

// Real value = voxel (unsigned 16-bit) * SLOPE + INTERCEPT for time frame FRAME of VOLUME: the
// head's rescale unless the head string gives the frame its own. False when FRAME is out of range.
KESTREL_EXPORT bool getFrameRescale(NVolume& volume, int frame, double& slope, double& intercept);

// Writes VOLUME (all its time frames) as NIfTI-1 to FILE (".nii", or ".nii.gz" compressed):
// scanner coordinates (RAS) in qform and sform, voxel sizes, the real values through
// scl_slope/scl_inter (as 32-bit floats where the frames' rescales differ). LABELS, when given,
// name the time frames in FILE's JSON side file (the name without ".nii"/".nii.gz", plus ".json").
KESTREL_EXPORT bool saveVolumeAsNifti(NDicomVolume& volume, const QString& file, const QStringList& labels = {},
                                      QString* error = nullptr);
