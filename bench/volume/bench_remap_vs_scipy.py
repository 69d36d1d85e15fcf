#!/usr/bin/python3
"""Volume remap of libqelr beside scipy.ndimage.map_coordinates, in one process.

Both read the same 128^3 source arrays at the same coordinates (a rotation by
20 degrees about z with a slight shrink and a wobble in z, all inside the
volume) and write 128^3 destinations. Orders are matched by kernel: order 0 is
nearest (mode 1), order 1 linear (mode 2), order 3 with prefilter=False is the
cubic B-spline applied to the samples (mode 5); the interpolating cubics
(modes 4 and 6) are timed against order 3 as well. Each figure is the median
of several runs, in millions of destination voxels per second. On a busy
machine the wall times of one-thread runs suffer from other processes; the
CPU-time figures (process time, one thread on both sides) are printed beside
them. "max |diff|" compares the results where every tap lies inside the
volume (the two treat positions outside the volume differently).

Run with Debian's interpreter, which has numpy and scipy:
    /usr/bin/python3 bench/volume/bench_remap_vs_scipy.py [build/release]
"""

import ctypes
import os
import statistics
import sys
import time

import numpy as np
import scipy
from scipy import ndimage

N = 128
RUNS = {0: 5, 1: 5, 3: 3}


class VolumeSize(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int32), ("height", ctypes.c_int32), ("depth", ctypes.c_int32)]


class Box3D(ctypes.Structure):
    _fields_ = [(n, ctypes.c_int32) for n in ("x", "y", "z", "width", "height", "depth")]


def load_libraries(build_dir):
    core = ctypes.CDLL(os.path.join(build_dir, "libqelcore.so"), mode=ctypes.RTLD_GLOBAL)
    lib = ctypes.CDLL(os.path.join(build_dir, "libqelr.so"))
    core.qelSetNumThreads.argtypes = [ctypes.c_int]
    core.ownGetNumThreads.restype = ctypes.c_int
    for name in ("qelrRemap_8u_C1PV", "qelrRemap_16u_C1PV", "qelrRemap_32f_C1PV"):
        fn = getattr(lib, name)
        fn.restype = ctypes.c_int32
        fn.argtypes = [ctypes.c_void_p, VolumeSize, ctypes.c_int, Box3D,
                       ctypes.c_void_p, ctypes.c_void_p, ctypes.c_void_p, ctypes.c_int,
                       ctypes.c_void_p, ctypes.c_int, VolumeSize, ctypes.c_int]
    return core, lib


def plane_pointers(array):
    """The PV layout of a C-contiguous (depth, height, width) array."""
    base = array.ctypes.data
    step = array.strides[0]
    return (ctypes.c_void_p * array.shape[0])(*[base + z * step for z in range(array.shape[0])])


def make_coordinates():
    c = (N - 1) / 2.0
    a = np.deg2rad(20.0)
    s = 0.92
    k, j, i = np.meshgrid(np.arange(N), np.arange(N), np.arange(N), indexing="ij")
    u, v, w = i - c, j - c, k - c
    x = c + s * (np.cos(a) * u - np.sin(a) * v)
    y = c + s * (np.sin(a) * u + np.cos(a) * v)
    z = c + s * w + 0.37 * np.sin(0.05 * i)
    return (np.ascontiguousarray(x, dtype=np.float32), np.ascontiguousarray(y, dtype=np.float32),
            np.ascontiguousarray(z, dtype=np.float32))


def median_seconds(fn, runs):
    """Median wall time and median process CPU time of `runs` calls."""
    fn()  # warm up
    wall, cpu = [], []
    for _ in range(runs):
        t0, c0 = time.perf_counter(), time.process_time()
        fn()
        wall.append(time.perf_counter() - t0)
        cpu.append(time.process_time() - c0)
    return statistics.median(wall), statistics.median(cpu)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    build_dir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "..", "build", "release")
    core, lib = load_libraries(build_dir)
    all_threads = core.ownGetNumThreads()
    x, y, z = make_coordinates()
    scipy_coords = np.stack([z, y, x])  # array axes are (z, y, x)
    inner = np.all((scipy_coords >= 2) & (scipy_coords <= N - 3), axis=0)
    maps = [plane_pointers(m) for m in (x, y, z)]
    rng = np.random.default_rng(1)
    size = VolumeSize(N, N, N)
    box = Box3D(0, 0, 0, N, N, N)
    voxels = N ** 3

    print(f"numpy {np.__version__}, scipy {scipy.__version__}, volume {N}^3, "
          f"libqelr threads: 1 and {all_threads}")
    print(f"{'type':5} {'mode':>4} {'order':>5} | wall Mvoxels/s: {'qelr 1t':>8} "
          f"{'qelr ' + str(all_threads) + 't':>8} {'scipy':>7} {'1t/scipy':>8} {'Nt/1t':>6} "
          f"| CPU Mvoxels/s: {'qelr 1t':>8} {'scipy':>7} {'1t/scipy':>8} | {'max |diff|':>10}")
    for dtype, name, fn in ((np.uint8, "8u", lib.qelrRemap_8u_C1PV),
                            (np.uint16, "16u", lib.qelrRemap_16u_C1PV),
                            (np.float32, "32f", lib.qelrRemap_32f_C1PV)):
        if dtype == np.float32:
            src = rng.uniform(0, 250, (N, N, N)).astype(np.float32)
        else:
            src = rng.integers(0, 250, (N, N, N)).astype(dtype)
        dst = np.zeros_like(src)
        src_planes, dst_planes = plane_pointers(src), plane_pointers(dst)
        row = N * src.itemsize
        scipy_out = {}
        for mode, order in ((1, 0), (2, 1), (5, 3), (4, 3), (6, 3)):
            def run_qelr():
                status = fn(src_planes, size, row, box, maps[0], maps[1], maps[2], N * 4,
                            dst_planes, row, size, mode)
                assert status == 0, status

            if order not in scipy_out:
                out = np.empty_like(src)

                def run_scipy():
                    ndimage.map_coordinates(src, scipy_coords, output=out, order=order,
                                            prefilter=False, mode="nearest")

                scipy_out[order] = (median_seconds(run_scipy, RUNS[order]), out)
            (scipy_wall, scipy_cpu), out = scipy_out[order]
            core.qelSetNumThreads(1)
            one_wall, one_cpu = median_seconds(run_qelr, RUNS[order])
            core.qelSetNumThreads(all_threads)
            many_wall, _ = median_seconds(run_qelr, RUNS[order])
            run_qelr()
            diff = np.max(np.abs(dst[inner].astype(np.float64) - out[inner].astype(np.float64)))
            note = "" if mode in (1, 2, 5) else " (other kernel)"

            def mv(seconds):
                return voxels / seconds / 1e6

            print(f"{name:5} {mode:4d} {order:5d} | {'':15} {mv(one_wall):8.1f} {mv(many_wall):8.1f} "
                  f"{mv(scipy_wall):7.1f} {scipy_wall / one_wall:7.2f}x {one_wall / many_wall:5.2f}x "
                  f"| {'':14} {mv(one_cpu):8.1f} {mv(scipy_cpu):7.1f} {scipy_cpu / one_cpu:7.2f}x "
                  f"| {diff:10.4g}{note}")
    core.qelSetNumThreads(all_threads)


if __name__ == "__main__":
    main()
