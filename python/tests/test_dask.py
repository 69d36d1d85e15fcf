"""qelr.dask against the in-memory functions, bit for bit, for chunkings
with chunks smaller than the kernels' reach, odd sizes and one chunk; and
the graphs run on a dask.distributed cluster of worker processes."""
import dask
import dask.array as da
import numpy as np
import pytest

import qelr
import qelr.dask as qd

RNG = np.random.default_rng(5)
SHAPE = (9, 10, 11)
CHUNKINGS = [(9, 10, 11), (4, 5, 6), (2, 3, 2), (5, 10, 1)]


def cases():
    """(function of the module and a volume, whether it takes the int16 one)."""
    matrix = np.array([[0.9, 0.2, 0.1], [-0.2, 0.95, 0.05], [0.1, 0.0, 1.05]])
    z, y, x = np.mgrid[0:9, 0:10, 0:11].astype(np.float32)
    coords = np.stack([z * 1.1 - 1, y + 0.3 * x - 2, x * 0.9 + RNG.normal(0, 2, x.shape)])
    coords[0, 3, 4, 5], coords[2, 6, 6, 6] = np.nan, -np.inf
    flat = coords[:, :2].reshape(3, 20, 11)
    kernel = RNG.integers(-4, 5, (5, 2, 7))
    for a in ("nearest", "linear", "cubic", "b05c03"):
        yield lambda m, v, a=a: m.resize(v, (1.7, 0.6, 2.3), mode=a, offset=(0.5, -1, 2)), False
        yield lambda m, v, a=a: m.affine_transform(v, matrix, (2, -3, 1.5), mode=a, cval=-1), False
        yield lambda m, v, a=a: m.affine_transform(v, matrix, output_shape=(6, 23, 9), mode=a), False
        yield lambda m, v, a=a: m.map_coordinates(v, coords, mode=a, cval=7), False
        yield lambda m, v, a=a: m.map_coordinates(
            v, flat if m is qelr else da.from_array(flat, chunks=(3, 9, 5)), mode=a), False
    for b in ("reflect", "mirror", "nearest", "wrap", "constant"):
        yield lambda m, v, b=b: m.convolve(v, kernel, divisor=3, mode=b, cval=5), True


@pytest.mark.parametrize("chunks", CHUNKINGS)
def test_dask_matches_in_memory(chunks):
    v = RNG.uniform(0, 250, SHAPE).astype(np.float32)
    vi = RNG.integers(-500, 500, SHAPE).astype(np.int16)
    for call, int16 in cases():
        volume = vi if int16 else v
        want = call(qelr, volume)
        x = da.from_array(volume, chunks=chunks)
        got = call(qd, x)
        assert got.dtype == want.dtype
        if got.shape == SHAPE:
            assert got.chunks == x.chunks  # output chunks follow the input's
        np.testing.assert_array_equal(got.compute(scheduler="threads"), want)


def test_distributed_cluster():
    distributed = pytest.importorskip("distributed")
    v = RNG.integers(0, 60000, (20, 24, 28)).astype(np.uint16)
    x = da.from_array(v, chunks=(7, 8, 9))
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True,
                                  dashboard_address=None) as cluster, distributed.Client(cluster):
        small = qd.resize(x, 0.7, mode="cubic")
        turned = qd.affine_transform(small, np.eye(3) * 1.1, mode="linear")
        got = dask.compute(small, turned, qd.convolve(x.astype(np.int16) // 2, np.ones((3, 3, 3), int)))
    small = qelr.resize(v, 0.7, mode="cubic")
    np.testing.assert_array_equal(got[0], small)
    np.testing.assert_array_equal(got[1], qelr.affine_transform(small, np.eye(3) * 1.1, mode="linear"))
    np.testing.assert_array_equal(got[2], qelr.convolve((v.astype(np.int16) // 2), np.ones((3, 3, 3), int)))
