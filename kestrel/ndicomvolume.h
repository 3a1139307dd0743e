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
};
