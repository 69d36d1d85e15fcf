"""Volume wrappers: strided views, mode numbers and integer types against
the float32 call on the same data, the scipy.ndimage conventions on interior
voxels, the border modes of the filter against an exact int64 convolution,
and the errors."""
import warnings

import numpy as np
import pytest
from scipy import ndimage

import qelr

MODE_VALUE = {"nearest": 1, "linear": 2, "cubic": 4, "bspline": 5, "catmull-rom": 6, "b05c03": 7}
VOLUME_TYPES = [np.uint8, np.uint16, np.float32]
RNG = np.random.default_rng(7)
BASE = RNG.uniform(0, 255, (19, 22, 27)).round()


def strided(v):
    """The same values in a view with odd strides (every other plane of a
    larger array, rows reversed), to exercise the stride handling."""
    big = np.zeros((2 * v.shape[0], v.shape[1], v.shape[2]), v.dtype)
    big[::2] = v[:, ::-1]
    return big[::2, ::-1]


@pytest.mark.parametrize("mode", MODE_VALUE)
def test_paths_agree(mode):
    """A strided view gives the bits of a contiguous copy and the mode's number
    those of its name; an integer type gives the float32 result saturated and
    rounded (within half a unit)."""
    z, y, x = np.mgrid[0:9, 0:14, 0:17].astype(np.float64)
    coords = np.stack([z * 2.3 - 1, y * 1.6 + 0.3 * x, x * 1.7 - 0.5 + RNG.normal(0, 1, x.shape)])
    a = np.radians(25)
    matrix = np.array([[1.05, 0.1, 0], [0, np.cos(a), -np.sin(a)], [0, np.sin(a), np.cos(a)]])
    calls = [lambda v, m: qelr.resize(v, (1.6, 0.7, 2.2), mode=m, offset=(0.5, -1.0, 3.0)),
             lambda v, m: qelr.resize(v, 0.5, mode=m),
             lambda v, m: qelr.map_coordinates(v, coords, mode=m, cval=9),
             lambda v, m: qelr.affine_transform(v, matrix, (0.5, 4.0, -3.0), output_shape=(21, 20, 25), mode=m,
                                                cval=3)]
    for call in calls:
        ref = call(BASE.astype(np.float32), mode)
        for dtype in VOLUME_TYPES:
            got = call(BASE.astype(dtype), mode)
            assert got.dtype == dtype
            np.testing.assert_array_equal(call(strided(BASE.astype(dtype)), MODE_VALUE[mode]), got)
            if dtype != np.float32:
                info = np.iinfo(dtype)
                np.testing.assert_allclose(got, np.clip(ref, info.min, info.max), rtol=0, atol=0.5)


def test_scipy_conventions():
    v = BASE.astype(np.float32)
    inner = (slice(3, -3),) * 3
    for order, mode in ((1, "linear"), (3, "bspline")):
        kw = dict(order=order, prefilter=False)
        zoomed = ndimage.zoom(v[:18], (1.5, 0.5, 2.0), grid_mode=True, mode="nearest", **kw)
        np.testing.assert_allclose(qelr.resize(v[:18], (1.5, 0.5, 2.0), mode=mode)[inner], zoomed[inner], rtol=1e-4, atol=1e-3)
        c = np.mgrid[0:19, 0:22, 0:27] * 0.9 + 0.7
        np.testing.assert_allclose(qelr.map_coordinates(v, c, mode=mode)[inner],
                                   ndimage.map_coordinates(v, c, **kw)[inner], rtol=1e-4, atol=1e-3)
        matrix = np.array([[0.95, 0.1, 0.0], [-0.1, 0.95, 0.05], [0.0, -0.05, 1.0]])
        got = qelr.affine_transform(v, matrix, (1.0, 0.5, -0.5), mode=mode)
        np.testing.assert_allclose(got[inner], ndimage.affine_transform(v, matrix, (1.0, 0.5, -0.5), **kw)[inner],
                                   rtol=1e-4, atol=1e-3)
        hom = np.eye(4)
        hom[:3, :3], hom[:3, 3] = matrix, (1.0, 0.5, -0.5)
        np.testing.assert_array_equal(qelr.affine_transform(v, hom, mode=mode), got)
    # The offset's y term on a ramp v = y: row 0 samples (0 + 0.5) / 0.5 - (-1) / 0.5 - 0.5 = 2.5.
    ramp = np.indices(v.shape)[1].astype(np.float32)
    got = qelr.resize(ramp, (1.5, 0.5, 2.0), mode="linear", offset=(2.0, -1.0, 3.0))
    assert got.shape == (29, 10, 54) and np.all(got[:, :3] == [[2.5], [4.5], [6.5]])


@pytest.mark.parametrize("shape", [(3, 3, 3), (2, 5, 4), (1, 1, 6)])
@pytest.mark.parametrize("border", ["reflect", "mirror", "nearest", "wrap", "constant"])
def test_convolve_exact(shape, border):
    v = RNG.integers(-3000, 3000, (17, 16, 18)).astype(np.int16)
    w = RNG.integers(-9, 10, shape)
    saved = qelr.get_num_threads()
    for divisor, threads in ((1, 1), (3, 3), (-4, 1), (-4, 3)):
        qelr.set_num_threads(threads)
        exact = ndimage.convolve(v.astype(np.int64), w, mode=border, cval=-7) / divisor
        want = np.clip(np.round(exact), -32768, 32767)  # numpy rounds ties to even, as the library
        got = qelr.convolve(strided(v), w.astype(np.int8), divisor=divisor, mode=border, cval=-7)
        assert got.dtype == np.int16
        np.testing.assert_array_equal(got, want)
    qelr.set_num_threads(saved)


def test_errors():
    v, vi, d = BASE.astype(np.float32), BASE.astype(np.int16), np.ones((4, 3), np.float32)
    triangle = (np.eye(3, dtype=np.float32), np.array([[0, 1, 2]]))
    cases = [  # (call, exception, status)
        (lambda: qelr.resize(v.astype(np.int32), 2), TypeError, None),
        (lambda: qelr.resize(v[0], 2), ValueError, None),
        (lambda: qelr.resize(v[:, :, :0], 2), ValueError, None),
        (lambda: qelr.resize(v, 2, mode="bogus"), ValueError, None),
        (lambda: qelr.resize(v, 2, mode=3), qelr.QelrError, -22),
        (lambda: qelr.resize(v, 0), qelr.QelrError, -23),
        (lambda: qelr.resize(v, (1, 2)), ValueError, None),
        (lambda: qelr.map_coordinates(v, np.zeros((2, 5))), ValueError, None),
        (lambda: qelr.map_coordinates(v[:1], np.zeros((3, 5)), mode="bspline"), qelr.QelrError, -22),
        (lambda: qelr.map_coordinates(v.astype(np.uint8), np.zeros((3, 5)), cval=300), ValueError, None),
        (lambda: qelr.affine_transform(v.astype(np.uint16), np.eye(3), cval=2.5), ValueError, None),
        (lambda: qelr.affine_transform(v, np.zeros((3, 3))), qelr.QelrError, -56),
        (lambda: qelr.affine_transform(v, np.eye(2)), ValueError, None),
        (lambda: qelr.convolve(v, np.ones((3, 3, 3), int)), TypeError, None),
        (lambda: qelr.convolve(vi, np.ones((3, 3, 3))), TypeError, None),
        (lambda: qelr.convolve(vi, np.ones((3, 3), int)), ValueError, None),
        (lambda: qelr.convolve(vi, np.ones((1, 1, 1), int), divisor=0), qelr.QelrError, -6),
        (lambda: qelr.convolve(vi, np.ones((1, 1, 1), int), mode="grid"), ValueError, None),
        (lambda: qelr.sh.basis(d.astype(np.float64), 2), TypeError, None),
        (lambda: qelr.sh.basis(d[:, :2], 2), ValueError, None),
        (lambda: qelr.sh.basis(d, 16), qelr.QelrError, -6),
        (lambda: qelr.sh.basis(d, 16, method="recurrence"), qelr.QelrError, -7),
        (lambda: qelr.sh.band(d, 16), qelr.QelrError, -7),
        (lambda: qelr.sh.project(d, np.ones(5, np.float32), 2), ValueError, None),
        (lambda: qelr.sh.reconstruct(np.ones(5, np.float32), d), ValueError, None),
        (lambda: qelr.Scene(triangle[0].astype(np.float64), triangle[1]), TypeError, None),
        (lambda: qelr.Scene(triangle[0], triangle[1] + 1), ValueError, None),
        (lambda: qelr.Scene(*triangle, quality=2.0), qelr.QelrError, -11),
        (lambda: qelr.Scene(*triangle).intersect(np.zeros(2, np.float32), d), ValueError, None),
        (lambda: qelr.set_num_threads(0), ValueError, None),
    ]
    for call, error, status in cases:
        with pytest.raises(error) as info:
            call()
        if status is not None:
            assert info.value.status == status and str(status) in str(info.value)
    with pytest.warns(qelr.QelrWarning, match="qelWarnNothingToDo"):
        assert qelr.resize(v, 0.01).shape == (0, 0, 0)
    with warnings.catch_warnings():
        warnings.simplefilter("error")
        with pytest.raises(qelr.QelrWarning):
            qelr.resize(v, 0.01)
