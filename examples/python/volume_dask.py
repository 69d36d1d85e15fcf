#!/usr/bin/python3
"""A volume larger than the memory given to a Dask cluster, processed chunk
by chunk with qelr.dask: a synthetic phantom is written to disk as chunked
zarr, then resized, rotated and smoothed on a dask.distributed LocalCluster
(with Dask's progress bar), the result written to zarr and a PNG montage of
its slices.

    /usr/bin/python3 examples/python/volume_dask.py [--memory-limit 1GB]
        [--workers 2] [--chunk 128] [--size N] [--out DIR] [--in-process]

Without --size the phantom is made just larger than the memory limit (the
total of the workers' memory), so it never fits in the workers at once.
"""
import argparse
import math
import os
import sys
import time

import dask.array as da
import numpy as np
from dask.utils import format_bytes, parse_bytes
from distributed import Client, LocalCluster, progress

import qelr
import qelr.dask

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from png import write_png  # noqa: E402


def phantom_block(block_info=None):
    """One block of the phantom: nested ellipsoids, a few spheres and a
    gentle ramp, as uint16. Made from the block's position alone."""
    info = block_info[None]
    (z0, z1), (y0, y1), (x0, x1) = info["array-location"]
    n = info["shape"][0]
    z, y, x = np.ogrid[z0:z1, y0:y1, x0:x1]
    u, v, w = (x - n / 2) / n, (y - n / 2) / n, (z - n / 2) / n
    r = (u / 0.42) ** 2 + (v / 0.34) ** 2 + (w / 0.38) ** 2
    out = np.where(r < 1, 1000.0, 100.0) + np.where(r < 0.7, 800.0, 0.0)
    for cx, cy, cz, rad, val in ((0.1, 0.05, 0.0, 0.08, 1500), (-0.15, -0.1, 0.1, 0.06, 2500),
                                 (0.0, 0.15, -0.12, 0.1, 600)):
        out += np.where((u - cx) ** 2 + (v - cy) ** 2 + (w - cz) ** 2 < rad ** 2, val, 0)
    out += 300 * (u + 0.5)
    return out.astype(np.uint16)


def rotation(shape, degrees):
    """scipy.ndimage's (matrix, offset) of a rotation about the z axis
    through the centre: output index -> input index."""
    a = math.radians(degrees)
    m = np.array([[1, 0, 0], [0, math.cos(a), -math.sin(a)], [0, math.sin(a), math.cos(a)]])
    centre = (np.array(shape) - 1) / 2
    return m, centre - m @ centre


def montage(volume, count=6):
    """`count` evenly spaced z slices side by side, scaled to 8 bits."""
    picks = np.linspace(0, volume.shape[0] - 1, count + 2)[1:-1].round().astype(int)
    slices = [np.asarray(volume[z]) for z in picks]
    strip = np.concatenate(slices, axis=1).astype(np.float64)
    lo, hi = np.percentile(strip, (1, 99.5))
    return np.clip((strip - lo) / max(hi - lo, 1) * 255, 0, 255).astype(np.uint8)


def main():
    p = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    p.add_argument("--memory-limit", default="1GB", help="memory of all workers together")
    p.add_argument("--workers", type=int, default=2)
    p.add_argument("--chunk", type=int, default=128)
    p.add_argument("--size", type=int, help="edge of the cubic phantom (default: past the limit)")
    p.add_argument("--out", default="qelr-volume-dask")
    p.add_argument("--in-process", action="store_true",
                   help="workers as threads of this process (starts faster)")
    a = p.parse_args()
    limit = parse_bytes(a.memory_limit)
    n = a.size or a.chunk * math.ceil((limit * 1.05 / 2) ** (1 / 3) / a.chunk)
    os.makedirs(a.out, exist_ok=True)
    print("phantom %d^3 uint16 = %s on disk, cluster memory %s (%d workers)%s" % (
        n, format_bytes(2 * n ** 3), format_bytes(limit), a.workers,
        ": larger than memory" if 2 * n ** 3 > limit else ""))
    qelr.set_num_threads(1)  # one library thread per worker thread
    with LocalCluster(n_workers=a.workers, threads_per_worker=1, memory_limit=limit // a.workers,
                      processes=not a.in_process, dashboard_address=None) as cluster, Client(cluster) as client:
        client.run(qelr.set_num_threads, 1)
        phantom = da.map_blocks(phantom_block, dtype=np.uint16, meta=np.empty((0, 0, 0), np.uint16),
                                chunks=da.core.normalize_chunks(a.chunk, (n, n, n)))
        start = time.perf_counter()
        stored = client.compute(phantom.to_zarr(os.path.join(a.out, "phantom.zarr"), overwrite=True,
                                                compute=False))
        print("writing the phantom")
        progress(stored)
        stored.result()
        x = da.from_zarr(os.path.join(a.out, "phantom.zarr"))
        small = qelr.dask.resize(x, 0.75, mode="linear")
        matrix, offset = rotation(small.shape, 30)
        turned = qelr.dask.affine_transform(small, matrix, offset, mode="cubic")
        kernel = np.einsum("i,j,k->ijk", *[np.array([1, 2, 1])] * 3)  # binomial, sum 64
        smooth = qelr.dask.convolve(turned.astype(np.int16), kernel, divisor=64, mode="nearest")
        result = client.compute(smooth.to_zarr(os.path.join(a.out, "result.zarr"), overwrite=True,
                                               compute=False))
        print("\nresize x0.75 (linear), rotate 30 degrees (cubic), smooth 3x3x3 -> %s" %
              (smooth.shape,))
        progress(result)
        result.result()
        print("\ndone in %.1f s" % (time.perf_counter() - start))
    out = da.from_zarr(os.path.join(a.out, "result.zarr"))
    write_png(os.path.join(a.out, "montage.png"), montage(out))
    print("wrote %s and %s" % (os.path.join(a.out, "result.zarr"), os.path.join(a.out, "montage.png")))


if __name__ == "__main__":
    main()
