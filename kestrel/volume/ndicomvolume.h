#pragma once

#include "kestrel_global.h"
#include "nvolume.h"

#include <QList>
#include <QPair>
#include <QString>
#include <QVector>

#include <functional>

class DcmFileFormat;
class QSeries;

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

signals:
    void processBar(int value, int maximum);
    void registrationInfo(int state);
    void seUID(QString seriesUid);

private:
    // Voxel axis (1 = i, 2 = j, 3 = k) that the view towards patient axis TARGET is cut across.
    int viewAxis(int target) const;
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
    void lookupAndLoad(const QString& key, const std::function<void()>& build);
    int writeCache(const QString& key);

    QSeries* m_volumeSeries = nullptr;
    QString m_curVolumeDataPath;
    void* m_reserved[4] = {};
    int m_sourceBits = 0;       // BitsAllocated of the first file
};
