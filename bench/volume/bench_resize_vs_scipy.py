#!/usr/bin/python3
"""Volume resize beside scipy.ndimage.zoom, on the same arrays in one process.

Times qelrResize_*_C1V (through ctypes) and scipy.ndimage.zoom (order 0, 1 and
3 without prefilter) for 128^3 -> 192^3 and 256^3 -> 128^3, prints destination
Mvoxels/s (median of several runs) and the ratios, the one- to two-thread
speed-up of the parallel 32f variant, and the copy rate of the same output
(the memory limit).

Usage: /usr/bin/python3 bench/volume/bench_resize_vs_scipy.py [library dir]
(default: build/release of this tree). Run it with Debian's python3, which has
numpy and scipy.
"""
import ctypes
import functools
import os
import statistics
import sys
import time

import numpy as np
from scipy import ndimage

print = functools.partial(print, flush=True)  # progress shows while it runs


class VolumeSize(ctypes.Structure):
    _fields_ = [("width", ctypes.c_int32), ("height", ctypes.c_int32), ("depth", ctypes.c_int32)]


class Box3D(ctypes.Structure):
    _fields_ = [(n, ctypes.c_int32) for n in ("x", "y", "z", "width", "height", "depth")]


MODES = [(1, "nearest", 0), (2, "linear", 1), (4, "cubic", 3), (5, "bspline", 3),
         (6, "catmull-rom", 3), (7, "b05c03", 3)]
TYPES = [(np.uint8, "8u"), (np.uint16, "16u"), (np.float32, "32f")]
CASES = [(128, 192, 1.5), (256, 128, 0.5)]
TARGET = {0: 3.0, 1: 10.0, 3: 10.0}


def load(libdir):
    ctypes.CDLL(os.path.join(libdir, "libqelcore.so"), mode=ctypes.RTLD_GLOBAL)
    core = ctypes.CDLL(os.path.join(libdir, "libqelcore.so"))
    lib = ctypes.CDLL(os.path.join(libdir, "libqelr.so"))
    core.qelSetNumThreads.argtypes = [ctypes.c_int]
    core.ownGetNumThreads.restype = ctypes.c_int
    lib.qelrResizeGetBufSize.argtypes = [Box3D, Box3D, ctypes.c_int, ctypes.c_int,
                                         ctypes.POINTER(ctypes.c_int)]
    for _, suffix in TYPES:
        f = getattr(lib, "qelrResize_%s_C1V" % suffix)
        f.argtypes = ([ctypes.c_void_p, VolumeSize, ctypes.c_int, ctypes.c_int, Box3D,
                       ctypes.c_void_p, ctypes.c_int, ctypes.c_int, Box3D] +
                      [ctypes.c_double] * 6 + [ctypes.c_int, ctypes.c_void_p])
    return core, lib


def median_seconds(fn, runs):
    fn()  # warm up: pages touched, caches filled
    times = []
    for _ in range(runs):
        t0 = time.perf_counter()
        fn()
        times.append(time.perf_counter() - t0)
    return statistics.median(times)


def qelr_resize(lib, suffix, src, dst, factor, mode):
    n, m = src.shape[0], dst.shape[0]
    es = src.itemsize
    box_src, box_dst = Box3D(0, 0, 0, n, n, n), Box3D(0, 0, 0, m, m, m)
    size = ctypes.c_int()
    assert lib.qelrResizeGetBufSize(box_src, box_dst, 1, mode, ctypes.byref(size)) == 0
    buf = np.empty(size.value, np.uint8)
    fn = getattr(lib, "qelrResize_%s_C1V" % suffix)
    args = (src.ctypes.data, VolumeSize(n, n, n), n * es, n * n * es, box_src,
            dst.ctypes.data, m * es, m * m * es, box_dst,
            factor, factor, factor, 0.0, 0.0, 0.0, mode, buf.ctypes.data)

    def run():  # holds `buf`: args only carries its address
        assert fn(*args) == 0 and buf.size == size.value
    return run


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    libdir = sys.argv[1] if len(sys.argv) > 1 else os.path.join(here, "..", "..", "build", "release")
    core, lib = load(libdir)
    all_threads = core.ownGetNumThreads()
    rng = np.random.default_rng(3)
    runs = 5
    print("destination Mvoxels/s, median of %d runs; qelr on 1 thread unless noted" % runs)
    # The thread speed-up needs idle cores: a busy neighbour on one of them
    # makes the even plane split wait for the slower thread.
    print("load average at start: %.2f %.2f %.2f on %d processors" % (os.getloadavg() + (os.cpu_count(),)))
    print("%-4s %-13s %-12s %9s %9s %8s %7s" % ("type", "case", "mode", "qelr", "scipy", "ratio", "target"))
    speedups = []
    for n, m, factor in CASES:
        case = "%d^3->%d^3" % (n, m)
        for dtype, suffix in TYPES:
            src = (rng.random((n, n, n)) * 255).astype(dtype)
            dst = np.zeros((m, m, m), dtype)
            mvox = m ** 3 * 1e-6
            scipy_rate = {}
            for order in (0, 1, 3):
                out = np.zeros((m, m, m), dtype)
                t = median_seconds(lambda: ndimage.zoom(src, factor, output=out, order=order,
                                                        prefilter=False), 3 if order == 3 else runs)
                scipy_rate[order] = mvox / t
            for mode, name, order in MODES:
                core.qelSetNumThreads(1)
                run = qelr_resize(lib, suffix, src, dst, factor, mode)
                rate = mvox / median_seconds(run, runs)
                ratio = rate / scipy_rate[order]
                print("%-4s %-13s %-12s %9.1f %9.1f %7.1fx %6.0fx%s" % (
                    suffix, case, name, rate, scipy_rate[order], ratio, TARGET[order],
                    "" if ratio >= TARGET[order] else "  (short)"))
                if suffix == "32f":
                    core.qelSetNumThreads(2)
                    run2 = qelr_resize(lib, suffix, src, dst, factor, mode)
                    rate2 = mvox / median_seconds(run2, runs)
                    speedups.append((case, name, rate, rate2))
            copy_src = np.ones((m, m, m), dtype)
            copy_dst = np.empty_like(copy_src)
            copy = mvox / median_seconds(lambda: np.copyto(copy_dst, copy_src), runs)
            print("%-4s %-13s %-12s %9.1f   (copy of the output, the memory limit)" % (suffix, case, "copy", copy))
    core.qelSetNumThreads(all_threads)
    print("\nqelrResize_32f_C1V, 1 -> 2 threads (target 1.8x)")
    for case, name, r1, r2 in speedups:
        print("%-13s %-12s %9.1f %9.1f %6.2fx" % (case, name, r1, r2, r2 / r1))


if __name__ == "__main__":
    main()
