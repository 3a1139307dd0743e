#!/usr/bin/env python3
"""The peer of bench_reformat: scipy.ndimage.map_coordinates (order 1, no prefilter, one thread)
on the same volume and the same sample points as each case of the benchmark.

  peer_reformat.py CASES.json

CASES.json names the raw volume (int16, i fastest) and its size, and lists the cases: a grid in
voxel indices (origin, steps per column "dx", per row "dy", per layer "dz", width, height, layers,
rule) or a file of points ("points", float64 i, j, k), and how many of the case's repeats the peer
does ("repeat"; a fraction of the ours, scaled up). The coordinates are made before the clock
starts; the clock runs over map_coordinates and the reduction alone. One line per case:
"NAME best B median M range R0-R1 ms (xSCALE)".
"""
import json
import sys
import time

import numpy as np
from scipy.ndimage import map_coordinates


def coordinates(case, rows=None):
    if "points" in case:
        ijk = np.fromfile(case["points"], dtype=np.float64).reshape(-1, 3)
        return ijk[:, ::-1].T.copy()
    w, h, layers = case["width"], case["height"], case["layers"]
    y0, y1 = rows if rows else (0, h)
    o, dx, dy, dz = (np.array(case[k], dtype=np.float64) for k in ("origin", "dx", "dy", "dz"))
    t = np.arange(layers) - (layers - 1) / 2.0
    y = np.arange(y0, y1)
    x = np.arange(w)
    p = (o[None, None, None, :] + t[:, None, None, None] * dz + y[None, :, None, None] * dy
         + x[None, None, :, None] * dx)
    return p.reshape(-1, 3)[:, ::-1].T.copy()


def run(volume, case, background):
    rule = case.get("rule", "max")
    chunk = case.get("chunk_rows")
    if chunk:
        # Large grids go a band of rows at a time, the clock only on the resampling.
        total = 0.0
        for y0 in range(0, case["height"], chunk):
            c = coordinates(case, (y0, min(case["height"], y0 + chunk)))
            s = time.perf_counter()
            v = map_coordinates(volume, c, order=1, mode="constant", cval=background, prefilter=False)
            v = v.reshape(case["layers"], -1)
            v.max(axis=0) if rule == "max" else v.min(axis=0) if rule == "min" else v.mean(axis=0)
            total += time.perf_counter() - s
        return total
    c = coordinates(case)
    s = time.perf_counter()
    v = map_coordinates(volume, c, order=1, mode="constant", cval=background, prefilter=False)
    if case.get("layers", 1) > 1:
        v = v.reshape(case["layers"], -1)
        v.max(axis=0) if rule == "max" else v.min(axis=0) if rule == "min" else v.mean(axis=0)
    return time.perf_counter() - s


def main():
    setup = json.load(open(sys.argv[1]))
    n = setup["size"]
    volume = np.fromfile(setup["file"], dtype=np.int16, count=n[0] * n[1] * n[2]).reshape(n[2], n[1], n[0])
    background = float(volume.min())
    for case in setup["cases"]:
        runs = sorted(run(volume, case, background) * 1e3 for _ in range(case.get("runs", 3)))
        scale = case.get("scale", 1)
        runs = [r * scale for r in runs]
        print("%s best %.2f median %.2f range %.2f-%.2f ms%s" % (case["name"], runs[0], runs[len(runs) // 2], runs[0],
                                                               runs[-1], " (x%g)" % scale if scale != 1 else ""))
        sys.stdout.flush()


if __name__ == "__main__":
    main()
