"""Real spherical harmonics (orthonormal, Condon-Shortley phase) up to order 15.

Directions are [n, 3] float32 unit vectors (x, y, z per row; any strides).
Coefficient (l, m) of an order is at index l*l + l + m, (order + 1)**2 in
all. `method` chooses the library's closed forms ("direct") or its
three-term recurrence ("recurrence").
"""
from . import _core

__all__ = ["basis", "band", "project", "reconstruct"]


def basis(directions, order, *, method="direct"):
    """All bands 0..order at each direction: [n, (order + 1)**2] float32."""
    return _core.sh_basis(directions, order, method)


def band(directions, l):
    """Band l at each direction, m = -l..l: [n, 2l + 1] float32."""
    return _core.sh_band(directions, l)


def project(directions, values, order, *, method="direct"):
    """The sums sum_i values[i] * Y(directions[i]) over the samples, with no
    quadrature weight (fold weights into the values): [(order + 1)**2] for
    values [n], [3, (order + 1)**2] for values [n, 3] (three channels).
    Zero samples give zeros."""
    return _core.sh_project(directions, values, order, method)


def reconstruct(coeffs, directions, *, method="direct"):
    """The function with these coefficients at each direction: [n] for
    coeffs [(order + 1)**2], [n, 3] for coeffs [3, (order + 1)**2]."""
    return _core.sh_reconstruct(coeffs, directions, method)
