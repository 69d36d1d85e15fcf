"""Real spherical harmonics (orthonormal, Condon-Shortley phase) up to order 15.

Directions are [n, 3] float32 unit vectors. Coefficient (l, m) of an order
is at index l*l + l + m, (order + 1)**2 per set. `method` chooses the
library's closed forms ("direct") or its three-term recurrence
("recurrence").

- basis(directions, order, *, method="direct") -> [n, (order + 1)**2]
- band(directions, l) -> [n, 2l + 1]
- project(directions, values, order, *, method="direct"): the sums
  sum_i values[i] * Y(directions[i]) -> [(order + 1)**2] for values [n], or
  [3, (order + 1)**2] for values [n, 3]; no weights are applied.
- reconstruct(coeffs, directions, *, method="direct"): the inverse, [n] for
  coeffs [K], [n, 3] for coeffs [3, K].
"""
from ._core import sh as _sh

basis = _sh.basis
band = _sh.band
project = _sh.project
reconstruct = _sh.reconstruct

__all__ = ["basis", "band", "project", "reconstruct"]
