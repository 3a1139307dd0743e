#pragma once

#include <QtGlobal>

#include <cstddef>
#include <cstdint>

// The fixed 368-byte record that describes a volume. It is also the first block of every volume
// file, written and read byte for byte, so its layout is a file format: little-endian, natural
// alignment, every byte named (the padding word at 180 included) so that copying the record
// copies all 368 bytes.
struct VolumeHead {
    char magic[8];              // "DCVM" then four zero bytes
    qint64 totallen;            // 512 + voxel bytes of all frames
    qint64 SEPK;                // key of the source series
    char SEUID[64];             // Series Instance UID, zero-padded, no terminator when 64 long
    char STUID[64];             // Study Instance UID, same rule
    qint32 volumesize[3];       // voxels along i, j, k
    qint32 volumestep[4];       // bytes per voxel, row, slice, frame
    qint32 padding;             // zero
    double voxelspace[3];       // mm along i, j, k
    double thinkness;           // slice thickness in mm
    double topxyz[3];           // patient position of voxel (0,0,0)
    double orientation[9];      // i direction, j direction, k direction
    qint32 SamplesPerPixel;
    qint32 PhotometricInterpretation; // code, see photometricCode()
    qint32 BitsAllocated;
    qint32 HighBit;
    double RescaleIntercept;
    double RescaleSlope;
    double WindowCenter;
    double WindowWidth;
    qint32 isOrder;             // +1 or -1
    qint32 timeNum;             // time frames
};

static_assert(sizeof(VolumeHead) == 368, "VolumeHead is a 368-byte file record");
static_assert(offsetof(VolumeHead, totallen) == 8, "VolumeHead layout");
static_assert(offsetof(VolumeHead, SEPK) == 16, "VolumeHead layout");
static_assert(offsetof(VolumeHead, SEUID) == 24, "VolumeHead layout");
static_assert(offsetof(VolumeHead, STUID) == 88, "VolumeHead layout");
static_assert(offsetof(VolumeHead, volumesize) == 152, "VolumeHead layout");
static_assert(offsetof(VolumeHead, volumestep) == 164, "VolumeHead layout");
static_assert(offsetof(VolumeHead, voxelspace) == 184, "VolumeHead layout");
static_assert(offsetof(VolumeHead, thinkness) == 208, "VolumeHead layout");
static_assert(offsetof(VolumeHead, topxyz) == 216, "VolumeHead layout");
static_assert(offsetof(VolumeHead, orientation) == 240, "VolumeHead layout");
static_assert(offsetof(VolumeHead, SamplesPerPixel) == 312, "VolumeHead layout");
static_assert(offsetof(VolumeHead, PhotometricInterpretation) == 316, "VolumeHead layout");
static_assert(offsetof(VolumeHead, BitsAllocated) == 320, "VolumeHead layout");
static_assert(offsetof(VolumeHead, HighBit) == 324, "VolumeHead layout");
static_assert(offsetof(VolumeHead, RescaleIntercept) == 328, "VolumeHead layout");
static_assert(offsetof(VolumeHead, RescaleSlope) == 336, "VolumeHead layout");
static_assert(offsetof(VolumeHead, WindowCenter) == 344, "VolumeHead layout");
static_assert(offsetof(VolumeHead, WindowWidth) == 352, "VolumeHead layout");
static_assert(offsetof(VolumeHead, isOrder) == 360, "VolumeHead layout");
static_assert(offsetof(VolumeHead, timeNum) == 364, "VolumeHead layout");

// Size of the header block in front of the voxels of a volume buffer and file.
constexpr int kVolumeHeaderBlock = 512;
