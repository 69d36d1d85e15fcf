"""Spherical harmonics and scenes: bits against direct C calls on the same
data, the layouts against float64 algebra on the bases, and nearest hits
against a brute-force float64 ray-triangle test."""
import ctypes as C

import numpy as np
import pytest

import qelr
from conftest import LIB, i32s, p3

RNG = np.random.default_rng(11)


def unit_directions(n):
    d = RNG.normal(size=(n, 3))
    return (d / np.linalg.norm(d, axis=1, keepdims=True)).astype(np.float32)


def c_engine(order, method):
    size = C.c_uint32()
    assert LIB.qelrSHGetSize_32f(order, method, C.byref(size)) == 0
    engine = np.zeros(size.value // 4 + 16, np.float32)[4:]  # 16-byte aligned inside
    assert LIB.qelrSHInit_32f(C.c_void_p(engine.ctypes.data), order, method) == 0
    return engine


@pytest.mark.parametrize("method", ["direct", "recurrence"])
@pytest.mark.parametrize("order", [0, 3, 15])
def test_sh_matches_c(method, order):
    n, K = 29, (order + 1) ** 2
    d = unit_directions(n)
    xyz = [np.ascontiguousarray(d[:, c]) for c in range(3)]
    engine = c_engine(order, method == "recurrence")
    e = C.c_void_p(engine.ctypes.data)
    want = np.zeros((n, K), np.float32)
    assert LIB.qelrSH_32f(*p3(*xyz), n, C.c_void_p(want.ctypes.data), order, e) == 0
    basis = qelr.sh.basis(d, order, method=method)
    np.testing.assert_array_equal(basis, want)
    np.testing.assert_array_equal(qelr.sh.basis(np.asfortranarray(d), order, method=method), want)
    band = np.zeros((n, 2 * order + 1), np.float32)
    assert LIB.qelrSHBand_32f(*p3(*xyz), n, C.c_void_p(band.ctypes.data), order) == 0
    np.testing.assert_array_equal(qelr.sh.band(d, order), band)
    np.testing.assert_allclose(band, basis[:, order * order:], atol=2e-5)
    values = RNG.uniform(-1, 1, (n, 3)).astype(np.float32)
    c1 = np.zeros(K, np.float32)
    assert LIB.qelrSHTFwd_32f_C1I(*p3(*xyz), C.c_void_p(values[:, 0].copy().ctypes.data), n,
                                  C.c_void_p(c1.ctypes.data), order, e) == 0
    np.testing.assert_array_equal(qelr.sh.project(d, values[:, 0].copy(), order, method=method), c1)
    c3 = np.zeros((3, K), np.float32)
    assert LIB.qelrSHTFwd_32f_C3P3I(*p3(*xyz), C.c_void_p(values.ctypes.data), n, p3(*c3), order, e) == 0
    np.testing.assert_array_equal(qelr.sh.project(d, values, order, method=method), c3)
    np.testing.assert_array_equal(qelr.sh.project(d, np.asfortranarray(values), order, method=method), c3)
    np.testing.assert_allclose(c3, (basis.astype(np.float64).T @ values).T, rtol=1e-4, atol=1e-4)
    r1 = np.zeros(n, np.float32)
    assert LIB.qelrSHTInv_32f_C1(C.c_void_p(c1.ctypes.data), order, *p3(*xyz), C.c_void_p(r1.ctypes.data), n, e) == 0
    np.testing.assert_array_equal(qelr.sh.reconstruct(c1, d, method=method), r1)
    r3 = np.zeros((n, 3), np.float32)
    assert LIB.qelrSHTInv_32f_P3C3(p3(*c3), order, *p3(*xyz), C.c_void_p(r3.ctypes.data), n, e) == 0
    np.testing.assert_array_equal(qelr.sh.reconstruct(c3, d, method=method), r3)
    np.testing.assert_allclose(r3, basis.astype(np.float64) @ c3.T, rtol=1e-4, atol=1e-3)
    assert qelr.sh.basis(d[:0], order).shape == (0, K) and not qelr.sh.project(d[:0], values[:0], order).any()


def soup(n):
    centres = RNG.uniform(-1, 1, (n, 1, 3))
    return (centres + RNG.normal(0, 0.15, (n, 3, 3))).reshape(-1, 3).astype(np.float32), np.arange(3 * n).reshape(n, 3)


def brute_force(v, t, o, d):
    """Nearest hit per ray in float64 (Moller-Trumbore): t and triangle."""
    a, b, c = (v[t[:, k]].astype(np.float64) for k in range(3))
    e1, e2 = b - a, c - a
    p = np.cross(d[:, None], e2)
    det = np.einsum("tk,rtk->rt", e1, p)
    s = o[:, None] - a
    u = np.einsum("rtk,rtk->rt", s, p) / det
    q = np.cross(s, e1)
    w = np.einsum("rk,rtk->rt", d, q) / det
    dist = np.einsum("tk,rtk->rt", e2, q) / det
    dist[~((u >= 0) & (w >= 0) & (u + w <= 1) & (dist > 0))] = np.inf
    return dist.min(axis=1), np.where(np.isfinite(dist.min(axis=1)), dist.argmin(axis=1), -1), np.sort(dist, axis=1)


def test_scene_matches_c_and_brute_force():
    v, t = soup(60)
    scene = qelr.Scene(v, t, quality=0.5)
    assert scene.triangle_count == 60 and scene.tree_bytes > 0
    assert np.all(scene.bounds[0] < v.min(axis=0)) and np.all(scene.bounds[1] > v.max(axis=0))
    n = 53  # not a multiple of 16: the wrapper pads the pack
    o = np.array([0.1, -0.2, 3.0], np.float32)
    d = np.c_[RNG.uniform(-0.4, 0.4, (n, 2)), -np.ones(n)].astype(np.float32)
    hits = scene.intersect(o, d)
    dist, tri, layers = brute_force(v, t, o.astype(np.float64)[None].repeat(n, 0), d.astype(np.float64))
    with np.errstate(invalid="ignore"):
        clear = ~(layers[:, 1] - layers[:, 0] <= 1e-3)  # no second hit within rounding
    np.testing.assert_array_equal(hits.triangle[clear], tri[clear])
    np.testing.assert_allclose(hits.t[clear], dist[clear], rtol=1e-4)
    same = scene.intersect(np.tile(o, (n, 1)), d)
    for a, b in zip(hits, same):
        np.testing.assert_array_equal(a, b)
    blocked = scene.occluded(o, d * np.float32(4))
    far = np.abs(dist - 4) > 1e-3  # the first hit not at the segment's end
    np.testing.assert_array_equal(blocked[far], dist[far] < 4)
    layered = scene.intersect_all(o, d, 4)
    assert layered.t.shape == (n, 4)
    np.testing.assert_array_equal(layered.triangle[:, 0][clear], tri[clear])
    # The same rays through the library as one 4 x 16 pack (the first 64
    # rays, the rest repeated), traced by the packet path as the wrapper does.
    m = 64
    dd = [np.ascontiguousarray(np.resize(d[:, c], m)) for c in range(3)]
    recs = np.zeros(60 * 10, np.float32)
    t4 = np.c_[t, np.zeros(60, int)].astype(np.int32)
    LIB.qelrTriangleAccelInit(C.c_void_p(recs.ctypes.data), C.c_void_p(v.ctypes.data), C.c_void_p(t4.ctypes.data), 60)
    tree, size = C.c_void_p(), C.c_int()
    params = i32s(0x2D07705B, 50, 0, 1024, 0, 0)
    C.cast(params, C.POINTER(C.c_float))[2] = 0.5
    assert LIB.qelrKDTreeBuildAlloc(C.byref(tree), C.c_void_p(v.ctypes.data), C.c_void_p(t4.ctypes.data),
                                    len(v), 60, C.byref(size), params) == 0
    box = scene.bounds.ravel().copy()
    ctx = (C.c_void_p * 3)(box.ctypes.data, recs.ctypes.data, tree.value)
    dist0, uv, idx = np.full(m, np.inf, np.float32), np.zeros((2, m), np.float32), np.zeros(m, np.int32)
    LIB.qelrIntersectEyeSO_32f(C.c_void_p(o.ctypes.data), p3(*dd), C.c_void_p(dist0.ctypes.data), p3(*uv),
                               C.c_void_p(idx.ctypes.data), ctx, C.c_int64(4 | 16 << 32))  # QelSize2D by value
    LIB.qelrKDTreeFree(tree)
    assert size.value == scene.tree_bytes
    for got, want in zip(hits, (dist0, uv[0], uv[1], idx)):
        np.testing.assert_array_equal(got[:48], want[:48])
