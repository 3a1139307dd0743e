#pragma once

#include "kestrel_global.h"
#include "nvolume.h"

// A volume built from DICOM data: from a head and its voxel bytes, or from a series of the
// catalogue, with the axial, coronal and sagittal views of its planes.
class KESTREL_EXPORT NDicomVolume : public NVolume
{
    Q_OBJECT

public:
    explicit NDicomVolume(QObject* parent = nullptr);
    // A volume of LENGTH voxel bytes described by HEAD; empty when either pointer is null.
    NDicomVolume(VolumeHead* head, char* data, qint64 length, QObject* parent = nullptr);
    ~NDicomVolume() override;

    // The axial, coronal or sagittal image at INDEX, whatever the acquisition direction.
    bool getDicomImagePlaneAxi(NDicomImage& image, int index, int thickness, RenderType render);
    bool getDicomImagePlaneCor(NDicomImage& image, int index, int thickness, RenderType render);
    bool getDicomImagePlaneSag(NDicomImage& image, int index, int thickness, RenderType render);
    // Placeholder: sizes the image like a k plane and copies no pixels; always false.
    bool getDicomImagePlaneByIndex(NDicomImage& image, int index);

private:
    bool planeTowards(NDicomImage& image, int index, int thickness, RenderType render, int target);
};
