#!/usr/bin/python3
"""Exported planes against dcm2niix's volumes of the same series.

Usage: compare_dcm2niix.py NIFTI_DIR PLANE.dcm...

Each plane is read with pydicom by the DICOM rules: pixel (column c, row r) lies at
ImagePositionPatient + c * PixelSpacing[1] * row direction + r * PixelSpacing[0] * column direction
(LPS) and holds stored value * RescaleSlope + RescaleIntercept. Each NIfTI file of NIFTI_DIR (and
each volume of a 4-D file) is read with numpy: voxel (i, j, k) lies at sform * (i, j, k, 1) (RAS)
and holds stored value * scl_slope + scl_inter. For every plane the volume whose voxel centres it
sits on best is taken; the last line reports, over all planes and pixels, the largest distance
(mm) from a pixel to the nearest voxel centre and the largest difference of real values:

    planes N pixels M position P value V

The exit status is 2 when a plane cannot be read or sits on no volume.
"""

import glob
import gzip
import os
import struct
import sys

import numpy as np
import pydicom

NIFTI_TYPES = {2: np.uint8, 4: np.int16, 8: np.int32, 16: np.float32, 64: np.float64,
               256: np.int8, 512: np.uint16, 768: np.uint32}


def read_nifti(path):
    """(affine 4x4 RAS, real values [i, j, k, t]) of a NIfTI-1 file (.nii or .nii.gz)."""
    with (gzip.open if path.endswith('.gz') else open)(path, 'rb') as f:
        raw = f.read()
    endian = '<' if struct.unpack('<i', raw[0:4])[0] == 348 else '>'
    dims = struct.unpack(endian + '8h', raw[40:56])
    datatype = struct.unpack(endian + 'h', raw[70:72])[0]
    pixdim = struct.unpack(endian + '8f', raw[76:108])
    offset = int(struct.unpack(endian + 'f', raw[108:112])[0])
    slope, inter = struct.unpack(endian + '2f', raw[112:120])
    qform, sform = struct.unpack(endian + '2h', raw[252:256])
    if sform > 0:
        rows = struct.unpack(endian + '12f', raw[280:328])
        affine = np.vstack([np.array(rows, dtype=np.float64).reshape(3, 4), [0, 0, 0, 1]])
    else:
        b, c, d, qx, qy, qz = struct.unpack(endian + '6f', raw[256:280])
        a = np.sqrt(max(0.0, 1.0 - (b * b + c * c + d * d)))
        rot = np.array([[a * a + b * b - c * c - d * d, 2 * (b * c - a * d), 2 * (b * d + a * c)],
                        [2 * (b * c + a * d), a * a + c * c - b * b - d * d, 2 * (c * d - a * b)],
                        [2 * (b * d - a * c), 2 * (c * d + a * b), a * a + d * d - c * c - b * b]])
        qfac = -1.0 if pixdim[0] < 0 else 1.0
        scale = np.diag([pixdim[1], pixdim[2], pixdim[3] * qfac])
        affine = np.eye(4)
        affine[:3, :3] = rot @ scale
        affine[:3, 3] = [qx, qy, qz]
    shape = [max(1, d) for d in dims[1:1 + dims[0]]] + [1] * (4 - dims[0])
    count = int(np.prod(shape[:4]))
    dtype = np.dtype(NIFTI_TYPES[datatype]).newbyteorder(endian)
    data = np.frombuffer(raw, dtype=dtype, count=count, offset=offset).reshape(shape[:4], order='F')
    values = data.astype(np.float64)
    if slope != 0 and not (slope == 1 and inter == 0):
        values = values * slope + inter
    return affine, values


def read_plane(path):
    """(positions [rows, columns, 3] LPS, real values [rows, columns]) of a DICOM image."""
    ds = pydicom.dcmread(path)
    ipp = np.array([float(v) for v in ds.ImagePositionPatient])
    iop = np.array([float(v) for v in ds.ImageOrientationPatient])
    between_rows, between_columns = (float(v) for v in ds.PixelSpacing)
    rows, columns = int(ds.Rows), int(ds.Columns)
    r, c = np.meshgrid(np.arange(rows), np.arange(columns), indexing='ij')
    positions = (ipp[None, None, :] + (c * between_columns)[..., None] * iop[None, None, 0:3]
                 + (r * between_rows)[..., None] * iop[None, None, 3:6])
    slope = float(ds.get('RescaleSlope', 1) or 1)
    intercept = float(ds.get('RescaleIntercept', 0) or 0)
    return positions, ds.pixel_array.astype(np.float64) * slope + intercept


def compare(positions, real, affine, values):
    """(largest distance to a voxel centre, largest real-value difference) against one volume
    of VALUES; None when a pixel falls outside it."""
    ras = positions.reshape(-1, 3) * np.array([-1.0, -1.0, 1.0])
    ijk = (np.linalg.inv(affine) @ np.hstack([ras, np.ones((len(ras), 1))]).T)[:3].T
    nearest = np.rint(ijk).astype(int)
    shape = np.array(values.shape[:3])
    if (nearest < 0).any() or (nearest >= shape).any():
        return None
    centres = (affine @ np.hstack([nearest, np.ones((len(nearest), 1))]).T)[:3].T
    distance = np.linalg.norm(centres - ras, axis=1).max()
    best = None
    for t in range(values.shape[3]):
        voxel = values[nearest[:, 0], nearest[:, 1], nearest[:, 2], t]
        difference = np.abs(voxel - real.reshape(-1)).max()
        if best is None or difference < best:
            best = difference
    return distance, best


def main():
    volumes = [read_nifti(p) for p in sorted(glob.glob(os.path.join(sys.argv[1], '*.nii')))]
    if not volumes:
        print('no NIfTI file in', sys.argv[1])
        return 2
    worst_position = worst_value = 0.0
    pixels = 0
    for path in sys.argv[2:]:
        positions, real = read_plane(path)
        results = [r for r in (compare(positions, real, a, v) for a, v in volumes) if r is not None]
        if not results:
            print('sits on no volume:', path)
            return 2
        position, value = min(results)
        print('%s position %.6g value %.6g' % (os.path.basename(path), position, value))
        worst_position = max(worst_position, position)
        worst_value = max(worst_value, value)
        pixels += real.size
    print('planes %d pixels %d position %.6g value %.6g' % (len(sys.argv) - 2, pixels, worst_position, worst_value))
    return 0


if __name__ == '__main__':
    sys.exit(main())
