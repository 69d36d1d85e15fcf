#!/usr/bin/python3
"""Affine warp and 3-D filter of libqelr beside scipy.ndimage on the same arrays.

Runs in one process: libqelr is loaded through ctypes, SciPy is called on the
same NumPy arrays. Every figure is the median of several runs, in Mvoxels/s of
destination. Single-thread figures use the process CPU time (robust on a
shared, busy machine; SciPy runs on one thread), thread scaling uses wall
time.

    /usr/bin/python3 bench/volume/bench_warp_filter_vs_scipy.py [build/release]
"""
import ctypes as C
import math
import os
import statistics
import sys
import time

import numpy as np
from scipy import ndimage

N = 128
VOXELS = N ** 3
RUNS = 5

build = sys.argv[1] if len(sys.argv) > 1 else os.path.join(
    os.path.dirname(os.path.abspath(__file__)), "..", "..", "build", "release")
core = C.CDLL(os.path.join(build, "libqelcore.so"), mode=C.RTLD_GLOBAL)
lib = C.CDLL(os.path.join(build, "libqelr.so"))


class VolumeSize(C.Structure):
    _fields_ = [("width", C.c_int), ("height", C.c_int), ("depth", C.c_int)]


class Box3D(C.Structure):
    _fields_ = [(n, C.c_int) for n in ("x", "y", "z", "width", "height", "depth")]


class Offset3D(C.Structure):
    _fields_ = [("x", C.c_int), ("y", C.c_int), ("z", C.c_int)]


for name in ("qelrWarpAffine_8u_C1PV", "qelrWarpAffine_16u_C1PV", "qelrWarpAffine_32f_C1PV"):
    fn = getattr(lib, name)
    fn.argtypes = [C.c_void_p, VolumeSize, C.c_int, Box3D, C.c_void_p, C.c_int, Box3D,
                   C.c_void_p, C.c_int]
    fn.restype = C.c_int
lib.qelrFilter_16s_C1PV.argtypes = [C.c_void_p, C.c_int, C.c_void_p, C.c_int, VolumeSize,
                                    C.c_void_p, VolumeSize, Offset3D, C.c_int, C.c_void_p]
lib.qelrFilter_16s_C1PV.restype = C.c_int
lib.qelrFilterGetBufSize.argtypes = [VolumeSize, VolumeSize, C.c_int, C.POINTER(C.c_int)]
core.qelSetNumThreads.argtypes = [C.c_int]
core.ownGetNumThreads.restype = C.c_int
ALL_THREADS = os.cpu_count()


def plane_pointers(a):
    """One pointer per plane (axis 0) of a C-ordered array."""
    return (C.c_void_p * a.shape[0])(*[a.ctypes.data + z * a.strides[0]
                                       for z in range(a.shape[0])])


def median_time(fn, clock):
    fn()  # warm-up
    times = []
    for _ in range(RUNS):
        t0 = clock()
        fn()
        times.append(clock() - t0)
    return statistics.median(times)


def rate(seconds):
    return VOXELS / seconds / 1e6


def measure_qelr(run):
    """Single-thread rate (CPU time), 1 -> 2 thread speed-up and all-thread rate (wall)."""
    core.qelSetNumThreads(1)
    one = rate(median_time(run, time.process_time))
    wall1 = median_time(run, time.perf_counter)
    core.qelSetNumThreads(2)
    wall2 = median_time(run, time.perf_counter)
    core.qelSetNumThreads(ALL_THREADS)
    every = rate(median_time(run, time.perf_counter))
    return one, wall1 / wall2, every


def rotation():
    """Forward transform (x, y, z): 30 degrees about z, 20 about x, about the centre."""
    a, b = math.radians(30), math.radians(20)
    r = np.array([[math.cos(a), -math.sin(a), 0],
                  [math.sin(a) * math.cos(b), math.cos(a) * math.cos(b), -math.sin(b)],
                  [math.sin(a) * math.sin(b), math.cos(a) * math.sin(b), math.cos(b)]])
    c = np.zeros((3, 4))
    c[:, :3] = r
    centre = np.full(3, (N - 1) / 2)
    c[:, 3] = centre - r @ centre
    return c


def phantom(dtype):
    z, y, x = np.mgrid[0:N, 0:N, 0:N].astype(np.float64)
    r = np.sqrt((x - 64) ** 2 + (y - 60) ** 2 + (z - 66) ** 2)
    v = np.where(r < 50, 150 + 30 * np.sin(0.2 * x), 20)
    v += np.random.default_rng(1).uniform(0, 20, v.shape)
    return v.astype(dtype)


def bench_warp():
    c = rotation()
    inv = np.linalg.inv(c[:, :3])
    # SciPy pulls: input[(z, y, x)] = M @ output[(z, y, x)] + offset, axes reversed.
    m_zyx = inv[::-1, ::-1].copy()
    off_zyx = (-inv @ c[:, 3])[::-1].copy()
    coeffs = (C.c_double * 12)(*c.ravel())
    grid = np.mgrid[0:N, 0:N, 0:N].reshape(3, -1)[::-1].astype(np.float64)  # x, y, z
    back = inv @ (grid - c[:, 3:4])
    interior = np.all((back >= 2) & (back <= N - 3), axis=0).reshape(N, N, N)
    size = VolumeSize(N, N, N)
    box = Box3D(0, 0, 0, N, N, N)
    print(f"Affine warp {N}^3, rotation 30/20 degrees (Mvoxels/s; single thread: CPU time)")
    print(f"{'type':5} {'mode':>4} {'qelr 1t':>9} {'scipy':>8} {'ratio':>6} {'qelr all':>9}"
          f" {'1->2t':>6}  check")
    for dtype, fn in ((np.uint8, lib.qelrWarpAffine_8u_C1PV),
                      (np.uint16, lib.qelrWarpAffine_16u_C1PV),
                      (np.float32, lib.qelrWarpAffine_32f_C1PV)):
        src = phantom(dtype)
        dst = np.zeros_like(src)
        step = src.strides[1]
        sp, dp = plane_pointers(src), plane_pointers(dst)
        scipy_rate = {}
        for mode, order in ((1, 0), (2, 1), (4, 3), (5, 3), (6, 3), (7, 3)):
            def run():
                assert fn(sp, size, step, box, dp, step, box, coeffs, mode) == 0
            one, speedup, every = measure_qelr(run)
            out = np.zeros_like(src)
            if order not in scipy_rate:
                scipy_rate[order] = rate(median_time(
                    lambda: ndimage.affine_transform(src, m_zyx, offset=off_zyx, order=order,
                                                     prefilter=False, output=out),
                    time.process_time))
            # Agreement with SciPy where the kernels are the same (linear, B-spline),
            # for voxels whose source neighbourhood stays off the faces, where
            # the edge rules differ (SciPy mirrors, qelr clamps).
            check = ""
            if mode in (2, 5):
                dst[...] = 0
                run()
                ref = ndimage.affine_transform(src.astype(np.float64), m_zyx, offset=off_zyx,
                                               order=order, prefilter=False)
                diff = np.abs(dst[interior].astype(np.float64) - ref[interior])
                check = f"max |qelr - scipy| = {diff.max():.3g} over {interior.sum()} voxels"
            sr = scipy_rate[order]
            print(f"{np.dtype(dtype).name:5} {mode:>4} {one:9.1f} {sr:8.1f} {one / sr:6.1f}"
                  f" {every:9.1f} {speedup:6.2f}  {check}")


def bench_filter():
    rng = np.random.default_rng(2)
    print(f"\n3-D filter int16 {N}^3 (Mvoxels/s; single thread: CPU time)")
    print(f"{'kernel':7} {'qelr 1t':>9} {'scipy':>8} {'ratio':>6} {'qelr all':>9} {'1->2t':>6}  check")
    for k in (3, 5):
        h = k // 2
        kernel = rng.integers(-3, 4, size=(k, k, k)).astype(np.int32)
        src = rng.integers(-200, 200, size=(N, N, N)).astype(np.int16)
        padded = np.pad(src, h, mode="symmetric")  # SciPy's default border, "reflect"
        dst = np.zeros_like(src)
        # Plane pointers and the row step address voxel (0, 0, 0) of the region;
        # the kernel reaches h planes below the first one.
        sp = (C.c_void_p * padded.shape[0])(*[
            padded.ctypes.data + z * padded.strides[0] + h * padded.strides[1] + h * 2
            for z in range(padded.shape[0])])
        first = C.c_void_p(C.addressof(sp) + h * C.sizeof(C.c_void_p))
        dp = plane_pointers(dst)
        roi, ks = VolumeSize(N, N, N), VolumeSize(k, k, k)
        kern = kernel.ctypes.data_as(C.c_void_p)
        buf_size = C.c_int()

        def run():
            assert lib.qelrFilter_16s_C1PV(first, padded.strides[1], dp, dst.strides[1], roi,
                                           kern, ks, Offset3D(h, h, h), 1, buf) == 0
        core.qelSetNumThreads(max(ALL_THREADS, 2))  # a buffer for every team size used
        lib.qelrFilterGetBufSize(roi, ks, 1, C.byref(buf_size))
        buf = (C.c_uint8 * buf_size.value)()
        one, speedup, every = measure_qelr(run)
        weights = kernel.astype(np.int16)
        sr = rate(median_time(lambda: ndimage.convolve(src, weights), time.process_time))
        ref = ndimage.convolve(src.astype(np.int64), kernel.astype(np.int64), mode="reflect")
        ok = np.array_equal(dst, np.clip(ref, -32768, 32767).astype(np.int16))
        print(f"{k}x{k}x{k}   {one:9.1f} {sr:8.1f} {one / sr:6.1f} {every:9.1f}"
              f" {speedup:6.2f}  {'equal to SciPy (int64, clamped)' if ok else 'DIFFERS'}")


if __name__ == "__main__":
    saved = core.ownGetNumThreads()
    bench_warp()
    bench_filter()
    core.qelSetNumThreads(saved)
