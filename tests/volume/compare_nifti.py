#!/usr/bin/python3
"""A NIfTI volume against dcm2niix's volumes of the same series, voxel by voxel in patient space.

Usage: compare_nifti.py VOLUME.nii[.gz] NIFTI_DIR

Every voxel centre of every frame of VOLUME is taken through its affine to scanner coordinates and
through the inverse affine of each volume (each frame of each file) in NIFTI_DIR to that volume's
voxel indices; nothing is resampled. A volume fits a frame when every centre lands within 0.01 mm
of one of its voxel centres and the two hold the same number of voxels. Each frame is matched to
the fitting volume whose real values (stored * scl_slope + scl_inter) differ least, no volume
matched twice. One line per frame, then the summary:

    frames N voxels M position P value V

The exit status is 2 when a frame fits no volume or two frames match one.
"""

import glob
import os
import sys

import numpy as np

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from compare_dcm2niix import read_nifti  # noqa: E402

FIT = 0.01  # mm


def centres(affine, shape):
    """Scanner coordinates of every voxel centre of a volume of SHAPE (i fastest, as stored)."""
    i, j, k = np.meshgrid(np.arange(shape[0]), np.arange(shape[1]), np.arange(shape[2]), indexing='ij')
    ijk = np.stack([i.ravel(order='F'), j.ravel(order='F'), k.ravel(order='F'), np.ones(i.size)])
    return (affine @ ijk)[:3].T


def fit(points, affine, shape):
    """(flat voxel indices, largest distance) of POINTS in a volume; None when one falls outside
    or off its voxel centres."""
    ijk = (np.linalg.inv(affine) @ np.hstack([points, np.ones((len(points), 1))]).T)[:3].T
    nearest = np.rint(ijk).astype(int)
    if (nearest < 0).any() or (nearest >= np.array(shape[:3])).any():
        return None
    placed = (affine @ np.hstack([nearest, np.ones((len(nearest), 1))]).T)[:3].T
    distance = np.linalg.norm(placed - points, axis=1).max()
    if distance > FIT:
        return None
    flat = nearest[:, 0] + shape[0] * (nearest[:, 1] + shape[1] * nearest[:, 2])
    return flat, distance


def main():
    affine, values = read_nifti(sys.argv[1])
    theirs = []
    for path in sorted(glob.glob(os.path.join(sys.argv[2], '*.nii'))):
        other_affine, other = read_nifti(path)
        theirs.append((os.path.basename(path), other_affine, other))
    if not theirs:
        print('no NIfTI file in', sys.argv[2])
        return 2
    points = centres(affine, values.shape)
    used = set()
    worst_position = worst_value = 0.0
    for t in range(values.shape[3]):
        mine = values[..., t].ravel(order='F')
        best = None
        for name, other_affine, other in theirs:
            if int(np.prod(other.shape[:3])) != mine.size:
                continue
            placed = fit(points, other_affine, other.shape)
            if placed is None:
                continue
            flat, distance = placed
            for u in range(other.shape[3]):
                difference = np.abs(other[..., u].ravel(order='F')[flat] - mine).max()
                if best is None or difference < best[0]:
                    best = (difference, distance, '%s[%d]' % (name, u))
        if best is None:
            print('frame %d fits no volume of %s' % (t, sys.argv[2]))
            return 2
        difference, distance, match = best
        if match in used:
            print('frame %d matches %s, as an earlier frame does' % (t, match))
            return 2
        used.add(match)
        print('frame %d %s position %.6g value %.6g' % (t, match, distance, difference))
        worst_position = max(worst_position, distance)
        worst_value = max(worst_value, difference)
    print('frames %d voxels %d position %.6g value %.6g' % (values.shape[3], values.size, worst_position, worst_value))
    return 0


if __name__ == '__main__':
    sys.exit(main())
