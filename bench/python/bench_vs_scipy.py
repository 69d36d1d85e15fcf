#!/usr/bin/python3
"""The qelr Python package beside SciPy, on the same arrays in one process.

Sections (all by default, or those named with --only):
- resize, remap, warp, filter: qelr.resize / map_coordinates /
  affine_transform / convolve against scipy.ndimage's zoom /
  map_coordinates / affine_transform / convolve on 128^3 volumes (resize:
  128^3 -> 192^3 and 256^3 -> 128^3), kernels
  matched (order 0 nearest, order 1 linear, order 3 without prefilter the
  B-spline; the other cubics are timed against order 3 too). Single-thread
  process CPU time (qelr at 1 thread; SciPy runs on one), median of
  interleaved runs, in destination Mvoxels/s, with the ratio and its target.
  The last column is qelr's 1 -> 2 thread wall-time speed-up.
- tiny: the cost of one call on a tiny array (median per call, microseconds).
- dask: qelr.dask.convolve on a 512^3 int16 volume in 128^3 chunks against
  dask.array.map_overlap over scipy.ndimage.convolve, both on Dask's
  threaded scheduler with 2 workers (qelr at 1 thread per task): wall time,
  median of interleaved runs.

    PYTHONPATH=build/release/python /usr/bin/python3 bench/python/bench_vs_scipy.py [--only ...]
"""
import argparse
import functools
import math
import os
import statistics
import time
import timeit

import dask
import dask.array as da
import numpy as np
import scipy
from scipy import ndimage

import qelr
import qelr.dask

print = functools.partial(print, flush=True)
N = 128
MODES = [("nearest", 0), ("linear", 1), ("cubic", 3), ("bspline", 3), ("catmull-rom", 3), ("b05c03", 3)]
TYPES = [np.uint8, np.uint16, np.float32]


def interleaved(fns, runs, clock=time.process_time, both=False):
    """Median time of each function, the runs taken in turn; with `both`,
    (wall, process CPU) pairs."""
    for fn in fns:
        fn()  # warm up
    times = [[] for _ in fns]
    for _ in range(runs):
        for fn, t in zip(fns, times):
            w0, c0 = time.perf_counter(), clock()
            fn()
            t.append((time.perf_counter() - w0, clock() - c0))
    if both:
        return [(statistics.median(w for w, _ in t), statistics.median(c for _, c in t)) for t in times]
    return [statistics.median(c for _, c in t) for t in times]


def wall_speedup(fn, runs=3):
    """Wall time at 1 thread over wall time at 2 threads."""
    qelr.set_num_threads(1)
    one = interleaved([fn], runs, time.perf_counter)[0]
    qelr.set_num_threads(2)
    two = interleaved([fn], runs, time.perf_counter)[0]
    qelr.set_num_threads(1)
    return one / two


def volume(dtype, rng, n=N):
    z, y, x = np.mgrid[0:n, 0:n, 0:n].astype(np.float32) * (N / n)
    r = np.sqrt((x - 64) ** 2 + (y - 60) ** 2 + (z - 66) ** 2)
    v = np.where(r < 50, 150 + 30 * np.sin(0.2 * x), 20) + rng.uniform(0, 20, r.shape)
    return v.astype(dtype)


def table(title, rows_fn):
    print("\n" + title)
    print("%-8s %-12s %9s %9s %8s %7s %7s" % ("type", "mode", "qelr", "scipy", "ratio", "target", "1->2t"))
    for dtype, mode, q, s, target, speed in rows_fn():
        ratio = s / q
        print("%-8s %-12s %9.1f %9.1f %7.1fx %6.0fx %6.2fx%s" % (
            np.dtype(dtype).name, mode, voxels_out / q / 1e6, voxels_out / s / 1e6, ratio, target,
            speed, "" if ratio >= target else "  (short)"))


voxels_out = N ** 3


def bench_resize(rng, runs):
    """128^3 -> 192^3 and 256^3 -> 128^3, as the C-level comparison did."""
    global voxels_out
    for n, factor in ((N, 1.5), (2 * N, 0.5)):
        m = round(n * factor)
        voxels_out = m ** 3

        def rows():
            for dtype in TYPES:
                v = volume(dtype, rng, n)
                scipy_time = {}
                for mode, order in MODES:
                    target = 10 if mode in ("linear", "cubic") else 5
                    q = lambda: qelr.resize(v, factor, mode=mode)
                    s = lambda: ndimage.zoom(v, factor, order=order, prefilter=False, grid_mode=True,
                                             mode="nearest")
                    if order in scipy_time:
                        (tq,), ts = interleaved([q], runs), scipy_time[order]
                    else:
                        tq, ts = interleaved([q, s], runs if order < 3 else max(3, runs // 2))
                        scipy_time[order] = ts
                    yield dtype, mode, tq, ts, target, wall_speedup(q)
        table("resize %d^3 -> %d^3 (Mvoxels/s of output, single-thread CPU time)" % (n, m), rows)
    voxels_out = N ** 3


def rotation_zyx(degrees_z, degrees_x):
    a, b = math.radians(degrees_z), math.radians(degrees_x)
    rz = np.array([[1, 0, 0], [0, math.cos(a), -math.sin(a)], [0, math.sin(a), math.cos(a)]])
    rx = np.array([[math.cos(b), -math.sin(b), 0], [math.sin(b), math.cos(b), 0], [0, 0, 1]])
    m = rz @ rx
    c = np.full(3, (N - 1) / 2)
    return m, c - m @ c


def bench_remap(rng, runs):
    m, off = rotation_zyx(20, 0)
    grid = np.mgrid[0:N, 0:N, 0:N].reshape(3, -1).astype(np.float64)
    coords = (0.92 * (m @ grid) + off[:, None]).reshape(3, N, N, N)
    coords[0] += 0.37 * np.sin(0.05 * np.arange(N))
    coords32 = coords.astype(np.float32)

    def rows():
        for dtype in TYPES:
            v = volume(dtype, rng)
            for mode, order in MODES:
                q = lambda: qelr.map_coordinates(v, coords32, mode=mode)
                s = lambda: ndimage.map_coordinates(v, coords32, order=order, prefilter=False, mode="nearest")
                tq, ts = interleaved([q, s], runs if order < 3 else max(3, runs // 2))
                yield dtype, mode, tq, ts, 5, wall_speedup(q)
    table("map_coordinates %d^3, rotation with a shrink and a wobble (Mvoxels/s, single-thread CPU)" % N, rows)


def bench_warp(rng, runs):
    m, off = rotation_zyx(30, 20)

    def rows():
        for dtype in TYPES:
            v = volume(dtype, rng)
            for mode, order in MODES:
                q = lambda: qelr.affine_transform(v, m, off, mode=mode)
                s = lambda: ndimage.affine_transform(v, m, off, order=order, prefilter=False)
                tq, ts = interleaved([q, s], runs if order < 3 else max(3, runs // 2))
                yield dtype, mode, tq, ts, 5, wall_speedup(q)
    table("affine_transform %d^3, rotation 30/20 degrees (Mvoxels/s, single-thread CPU)" % N, rows)


def bench_filter(rng, runs):
    def rows():
        v = rng.integers(-200, 200, (N, N, N)).astype(np.int16)
        for k in (3, 5):
            w = rng.integers(-3, 4, (k, k, k))
            q = lambda: qelr.convolve(v, w)
            s = lambda: ndimage.convolve(v, w.astype(np.int16))
            tq, ts = interleaved([q, s], runs)
            yield np.int16, "%dx%dx%d" % (k, k, k), tq, ts, 5, wall_speedup(q)
    table("convolve int16 %d^3, reflect border (Mvoxels/s, single-thread CPU)" % N, rows)


def bench_tiny():
    print("\ncost of one call on a tiny array (process CPU time, median of 7 x 2000 calls, microseconds)")
    v8 = np.zeros((4, 4, 4), np.float32)
    vi = np.zeros((4, 4, 4), np.int16)
    k1 = np.ones((1, 1, 1), np.int64)
    c = np.zeros((3, 1, 1, 4), np.float32)
    d = np.array([[0, 0, 1]], np.float32)
    verts = np.array([[0, 0, 0], [1, 0, 0], [0, 1, 0]], np.float32)
    scene = qelr.Scene(verts, np.array([[0, 1, 2]]))
    o = np.array([0.2, 0.2, 1], np.float32)
    down = np.array([[0, 0, -1]], np.float32)
    calls = [("resize 4^3 x1 linear", lambda: qelr.resize(v8, 1.0)),
             ("map_coordinates 4 points", lambda: qelr.map_coordinates(v8, c)),
             ("affine_transform 4^3", lambda: qelr.affine_transform(v8, np.eye(3))),
             ("convolve 4^3 1x1x1", lambda: qelr.convolve(vi, k1)),
             ("sh.basis 1 direction order 2", lambda: qelr.sh.basis(d, 2)),
             ("Scene.intersect 1 ray", lambda: scene.intersect(o, down)),
             ("scipy zoom 4^3 order 1", lambda: ndimage.zoom(v8, 1.0, order=1)),
             ("numpy empty_like (reference)", lambda: np.empty_like(v8))]
    for name, fn in calls:
        per = statistics.median(timeit.repeat(fn, number=2000, repeat=7, timer=time.process_time)) / 2000 * 1e6
        target = "" if name.startswith(("scipy", "numpy")) else ("  (target 5)" + ("" if per < 5 else " short"))
        print("%-32s %7.2f%s" % (name, per, target))


def bench_dask(runs):
    n, chunk = 512, 128
    rng = np.random.default_rng(4)
    v = rng.integers(-1000, 1000, (n, n, n)).astype(np.int16)
    x = da.from_array(v, chunks=chunk)
    qelr.set_num_threads(1)
    sink = np.zeros_like(v)  # touched once, so storing costs no page faults
    print("\nqelr.dask.convolve %d^3 int16 in %d^3 chunks against map_overlap(scipy.ndimage.convolve),"
          " 2 Dask threads; seconds, median of interleaved runs; the result computed to a new array"
          " (compute) or stored into an existing one (store)" % (n, chunk))
    for k in (3, 5):
        w = rng.integers(-3, 4, (k, k, k))
        w16 = w.astype(np.int16)
        ours = lambda: qelr.dask.convolve(x, w)
        theirs = lambda: x.map_overlap(ndimage.convolve, depth=k // 2, boundary="reflect", weights=w16,
                                       dtype=np.int16)
        for sink_name, run in (("compute", lambda a: a.compute(scheduler="threads", num_workers=2)),
                               ("store", lambda a: da.store(a, sink, scheduler="threads", num_workers=2))):
            (wq, cq), (ws, cs) = interleaved([lambda: run(ours()), lambda: run(theirs())], runs, both=True)
            print("%dx%dx%d %-7s wall: qelr.dask %.2f, scipy %.2f, %.1fx   CPU: qelr.dask %.2f, scipy %.2f,"
                  " %.1fx   (target 3x)" % (k, k, k, sink_name, wq, ws, ws / wq, cq, cs, cs / cq))


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--only", default="resize,remap,warp,filter,tiny,dask")
    p.add_argument("--runs", type=int, default=5)
    a = p.parse_args()
    parts = a.only.split(",")
    rng = np.random.default_rng(3)
    saved = qelr.get_num_threads()
    print("qelr %s, numpy %s, scipy %s, dask %s; load average %.2f %.2f %.2f on %d processors" % (
        qelr.__version__, np.__version__, scipy.__version__, dask.__version__, *os.getloadavg(), os.cpu_count()))
    qelr.set_num_threads(1)
    for name, fn in (("resize", bench_resize), ("remap", bench_remap), ("warp", bench_warp),
                     ("filter", bench_filter)):
        if name in parts:
            fn(rng, a.runs)
    if "tiny" in parts:
        bench_tiny()
    if "dask" in parts:
        bench_dask(3)
    qelr.set_num_threads(saved)


if __name__ == "__main__":
    main()
