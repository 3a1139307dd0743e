#!/usr/bin/env python3
"""A series resampled onto another series' grid, as dcm2niix reads both, against scipy.

  reference_oracle.py VOLUME.json NEW_DIR REFERENCE_DIR [TOLERANCE]

NEW_DIR and REFERENCE_DIR each hold dcm2niix's one NIfTI file of a series. The new series must lie
on the reference's grid (same shape, affines within 0.001 mm), and each of its voxels must hold
the real value of the source volume (VOLUME.json, as trilinear_oracle.py reads it, plus its rescale
"slope" and "intercept") sampled by scipy.ndimage.map_coordinates (order 1) at that voxel's centre,
within TOLERANCE stored steps (default 3, and what the rounding of positions can change, as in
trilinear_oracle.py); voxel centres outside the source hold its minimum.
Prints "shape S affine A inside N worst W wrongoutside B"; exits 1 when any of it fails.
"""
import glob
import json
import os
import sys

import numpy as np
from scipy.ndimage import map_coordinates

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "volume"))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from compare_dcm2niix import read_nifti  # noqa: E402
from trilinear_oracle import load_voxels, rounding, voxel_indices  # noqa: E402


def one_nifti(folder):
    files = sorted(glob.glob(os.path.join(folder, "*.nii")))
    if len(files) != 1:
        sys.exit("expected one NIfTI file in %s, found %d" % (folder, len(files)))
    return read_nifti(files[0])


def main():
    setup = json.load(open(sys.argv[1]))
    new_affine, new_values = one_nifti(sys.argv[2])
    ref_affine, ref_values = one_nifti(sys.argv[3])
    tolerance = float(sys.argv[4]) if len(sys.argv) > 4 else 3.0
    n = setup["size"]
    voxels = load_voxels(setup)
    slope, intercept = setup["slope"], setup["intercept"]
    tolerance += rounding(voxels)
    same_shape = new_values.shape == ref_values.shape
    affine_error = float(np.max(np.abs(new_affine - ref_affine)))
    # NIfTI voxel centres in scanner (RAS) millimetres, then DICOM patient (LPS) ones.
    shape = new_values.shape[:3]
    grid = np.stack(np.meshgrid(*[np.arange(s) for s in shape], indexing="ij"), axis=-1).reshape(-1, 3)
    ras = (new_affine[:3, :3] @ grid.T).T + new_affine[:3, 3]
    lps = ras * np.array([-1.0, -1.0, 1.0])
    ijk = voxel_indices(setup, lps)
    upper = np.array(n, dtype=np.float64) - 1
    inside = np.all((ijk >= -1e-3) & (ijk <= upper + 1e-3), axis=1)
    outside = np.any((ijk < -2e-3) | (ijk > upper + 2e-3), axis=1)
    values = new_values[..., 0].reshape(-1)
    expected = map_coordinates(voxels.astype(np.float64), np.clip(ijk[inside], 0, upper)[:, ::-1].T, order=1,
                               mode="nearest", prefilter=False) * slope + intercept
    worst = float(np.max(np.abs(expected - values[inside]))) / abs(slope) if inside.any() else 0.0
    wrong_outside = int(np.count_nonzero(np.abs(values[outside] - (voxels.min() * slope + intercept)) > 1e-6))
    print("shape %s affine %.6f inside %d worst %.4f wrongoutside %d"
          % ("x".join(str(s) for s in new_values.shape[:3]), affine_error, int(inside.sum()), worst, wrong_outside))
    ok = same_shape and affine_error <= 1e-3 and inside.any() and worst <= tolerance and wrong_outside == 0
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
