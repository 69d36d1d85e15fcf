"""Spherical harmonics and scenes: the basis against float64 closed forms
from SciPy's associated Legendre functions, the transforms against float64
algebra on the bases, and nearest hits against a brute-force float64
ray-triangle test."""
import numpy as np
import pytest
from scipy import special

import qelr

RNG = np.random.default_rng(11)


def real_sh(d, order):
    """Y_l^m in float64: N P_l^|m|(z) (SciPy's P carries the Condon-Shortley phase), times sqrt(2) cos(m phi)
    for m > 0 and sqrt(2) sin(|m| phi) for m < 0, at index l*l + l + m."""
    x, y, z = d.astype(np.float64).T
    phi, out = np.arctan2(y, x), []
    for l in range(order + 1):
        for m in range(-l, l + 1):
            a = abs(m)
            p = np.sqrt((2 * l + 1) / (4 * np.pi) / np.prod(np.arange(l - a + 1, l + a + 1.0))) * special.lpmv(a, l, z)
            out.append(p if m == 0 else np.sqrt(2) * p * (np.cos(a * phi) if m > 0 else np.sin(a * phi)))
    return np.stack(out, axis=1)


@pytest.mark.parametrize("method", ["direct", "recurrence"])
@pytest.mark.parametrize("order", [0, 3, 15])
def test_sh_against_float64(method, order):
    n, K = 29, (order + 1) ** 2
    d = RNG.normal(size=(n, 3))
    d = (d / np.linalg.norm(d, axis=1, keepdims=True)).astype(np.float32)
    basis = qelr.sh.basis(d, order, method=method)
    exact = real_sh(d, order)
    np.testing.assert_allclose(basis, exact, rtol=0, atol=1e-5)
    np.testing.assert_array_equal(qelr.sh.basis(np.asfortranarray(d), order, method=method), basis)
    np.testing.assert_allclose(qelr.sh.band(d, order), exact[:, order * order:], rtol=0, atol=1e-5)
    values = RNG.uniform(-1, 1, (n, 3)).astype(np.float32)
    c3 = qelr.sh.project(d, values, order, method=method)
    np.testing.assert_allclose(c3, (exact.T @ values).T, rtol=1e-4, atol=1e-4)
    np.testing.assert_array_equal(qelr.sh.project(d, np.asfortranarray(values), order, method=method), c3)
    c1 = qelr.sh.project(d, values[:, 1].copy(), order, method=method)
    np.testing.assert_allclose(c1, c3[1], rtol=1e-5, atol=1e-5)
    np.testing.assert_allclose(qelr.sh.reconstruct(c3, d, method=method), exact @ c3.T, rtol=1e-4, atol=1e-3)
    np.testing.assert_allclose(qelr.sh.reconstruct(c1, d, method=method), exact @ c1, rtol=1e-4, atol=1e-3)
    assert qelr.sh.basis(d[:0], order).shape == (0, K) and not qelr.sh.project(d[:0], values[:0], order).any()


def soup(n):
    centres = RNG.uniform(-1, 1, (n, 1, 3))
    return (centres + RNG.normal(0, 0.15, (n, 3, 3))).reshape(-1, 3).astype(np.float32), np.arange(3 * n).reshape(n, 3)


def brute_force(v, t, o, d):
    """Per ray in float64 (Moller-Trumbore): nearest t, its triangle, all t in order."""
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


def test_scene_against_brute_force():
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
    np.testing.assert_allclose(layered.t[clear], layers[clear, :4], rtol=1e-4)  # the four nearest, in order
    np.testing.assert_array_equal(layered.triangle[:, 0][clear], tri[clear])
