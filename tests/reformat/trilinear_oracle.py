#!/usr/bin/env python3
"""Independent trilinear values at patient points, for the reformat tests.

  trilinear_oracle.py VOLUME.json POINTS.f64 VALUES.i16 [TOLERANCE [LAYERS RULE]]

VOLUME.json names the raw voxels (int16, i fastest) and their geometry: size, spacing, the nine
direction cosines (i, j, k directions) and the origin. POINTS holds x, y, z per pixel (float64),
VALUES the value the library gave it. Each point is mapped to voxel indices with numpy's inverse of
the volume's matrix and sampled by scipy.ndimage.map_coordinates (order 1, no prefilter). Points
outside the voxel centres' box must hold the volume's minimum; points inside are compared with the
interpolation. With LAYERS > 1 each value has LAYERS points in a row
(a slab or a ray), reduced by RULE (max, min or avg: the mean truncated toward zero) over those
inside; a value none of whose points is inside must be the minimum. TOLERANCE (three blends each
rounded down) grows by what the library's rounding of positions to 1/512 of a voxel can change: the
largest step between neighbouring voxels along each axis, over 1024. Prints "points N inside M outside O worst W wrongoutside B"
and exits 1 when W exceeds TOLERANCE (default 3) or B > 0.
"""
import json
import sys

import numpy as np
from scipy.ndimage import map_coordinates


def load_voxels(setup):
    """The raw voxels named by VOLUME.json, indexed [k, j, i]."""
    n = setup["size"]
    return np.fromfile(setup["file"], dtype=np.int16, count=n[0] * n[1] * n[2]).reshape(n[2], n[1], n[0])


def voxel_indices(setup, points):
    """Patient points (x, y, z rows) as voxel indices (i, j, k rows), by the inverse of the volume's matrix."""
    o = np.array(setup["orientation"], dtype=np.float64).reshape(3, 3)  # rows: i, j, k directions
    m = np.eye(4)
    m[:3, :3] = (o * np.array(setup["spacing"], dtype=np.float64)[:, None]).T
    m[:3, 3] = setup["origin"]
    inverse = np.linalg.inv(m)
    return (inverse[:3, :3] @ points.T).T + inverse[:3, 3]


def rounding(voxels):
    """What rounding a position by half of 1/512 of a voxel along each axis can change a value by."""
    v = voxels.astype(np.int64)
    return sum(float(np.max(np.abs(np.diff(v, axis=a)))) / 1024.0 for a in range(3) if v.shape[a] > 1)


def main():
    setup = json.load(open(sys.argv[1]))
    points = np.fromfile(sys.argv[2], dtype=np.float64).reshape(-1, 3)
    values = np.fromfile(sys.argv[3], dtype=np.int16).astype(np.float64)
    tolerance = float(sys.argv[4]) if len(sys.argv) > 4 else 3.0
    layers = int(sys.argv[5]) if len(sys.argv) > 5 else 1
    rule = sys.argv[6] if len(sys.argv) > 6 else "max"
    n = setup["size"]
    voxels = load_voxels(setup)
    ijk = voxel_indices(setup, points)
    # The library counts a point as inside within a millionth of a voxel of the box; points in the
    # band around that are left out of the comparison.
    upper = np.array(n, dtype=np.float64) - 1
    inside = np.all((ijk >= -1e-7) & (ijk <= upper + 1e-7), axis=1)
    outside = np.any((ijk < -2e-6) | (ijk > upper + 2e-6), axis=1)
    tolerance += rounding(voxels)
    sampled = np.full(len(points), np.nan)
    clipped = np.clip(ijk[inside], 0, upper)
    sampled[inside] = map_coordinates(voxels.astype(np.float64), clipped[:, ::-1].T, order=1, mode="nearest",
                                      prefilter=False)
    # A point in the band between the two margins is neither compared nor counted outside.
    sampled[~inside & ~outside] = np.inf
    sampled = sampled.reshape(len(values), layers)
    known = ~np.isinf(sampled).any(axis=1)
    hit = ~np.isnan(sampled).all(axis=1) & known
    empty = np.isnan(sampled).all(axis=1)
    with np.errstate(all="ignore"):
        if rule == "min":
            expected = np.nanmin(sampled[hit], axis=1)
        elif rule == "avg":
            expected = np.nanmean(sampled[hit], axis=1)
        else:
            expected = np.nanmax(sampled[hit], axis=1)
    # The library's average is of rounded samples, truncated: one more step of rounding.
    slack = 1.0 if rule == "avg" and layers > 1 else 0.0
    worst = float(np.max(np.abs(expected - values[hit]))) if hit.any() else 0.0
    wrong_outside = int(np.count_nonzero(values[empty] != voxels.min()))
    print("points %d inside %d outside %d worst %.4f wrongoutside %d"
          % (len(values), int(hit.sum()), int(empty.sum()), worst, wrong_outside))
    return 0 if worst <= tolerance + slack and wrong_outside == 0 else 1


if __name__ == "__main__":
    sys.exit(main())
