"""The volume functions of qelr on dask arrays, chunk by chunk.

`resize`, `map_coordinates`, `affine_transform` and `convolve` take and return
dask arrays and give, bit for bit, the array that the in-memory function
gives on the whole volume, for any chunking. Each output block is computed by
one task from the region of the input it needs: the taps of the resize around
the block's source positions, the positions the coordinates of the block
reach, the back-mapped box of the block under the transform, or the block
grown by the kernel's reach (through the border mode at the faces). The
library is handed the whole volume's size and box with plane pointers that
address the region, so it clamps and tests positions exactly as on the whole
volume; regions carry two elements of margin beyond the last tap.

Output chunks follow the input's chunk sizes (the first chunk size of each
axis where the output's shape differs). The affine warp accumulates
positions along each output row from the row's first voxel, so it computes
whole rows (one task per z and y chunk) and splits them into the x chunks.

`map_coordinates` computes the coordinates once ahead of the graph, to find
each block's reach (a dask array of coordinates is therefore computed twice
unless it is persisted).

The tasks are plain functions of this module, so the graphs pickle and run
on dask.distributed. Each task runs the library with its team size
(qelr.set_num_threads, per process): where Dask runs as many tasks at once
as there are cores, a team of 1 avoids oversubscription.
"""
import math
import operator
from itertools import product

import dask
import dask.array as da
import numpy as np
from dask.base import tokenize
from dask.highlevelgraph import HighLevelGraph

from . import _core

__all__ = ["resize", "map_coordinates", "affine_transform", "convolve"]

_MARGIN = 2  # elements beyond the last tap that a region also holds


# ---------------------------------------------------------------------------
# Blocks and regions

def _as_volume(x, dtypes, what="volume"):
    x = da.asarray(x)
    if x.ndim != 3:
        raise ValueError("%s: expected a 3-D array indexed [z, y, x], got %d-D" % (what, x.ndim))
    if x.dtype not in dtypes:
        raise TypeError("%s: expected %s, got %s" % (what, " or ".join(map(str, dtypes)), x.dtype))
    if any(math.isnan(c) for cs in x.chunks for c in cs):
        raise ValueError("%s: the chunk sizes must be known" % what)
    return x


# Tasks call these, not the extension's functions, which do not pickle.
def _resize_block(*args):
    return _core._resize_block(*args)


def _warp_block(*args):
    return _core._warp_block(*args)


def _convolve_mapped(*args):
    return _core._convolve_mapped(*args)


def _starts(chunks):
    return [list(np.cumsum((0,) + tuple(c))) for c in chunks]


def _assemble(shape, dtype, placements, blocks):
    """The region `shape` made of pieces of input blocks; a piece's source
    indices are slices, or index arrays where the region skips elements."""
    out = np.empty(shape, dtype)
    for (dst, src), block in zip(placements, blocks):
        if any(isinstance(i, np.ndarray) for i in src):
            src = np.ix_(*[np.arange(i.start, i.stop) if isinstance(i, slice) else i for i in src])
        out[dst] = block[src]
    return out


def _gather_task(x, starts, elements):
    """A task giving x[np.ix_(*elements)] from x's blocks, for sorted lists
    of elements per axis (contiguous runs become slices)."""
    pieces = []
    for a in range(3):
        u, s, axis = elements[a], starts[a], []
        for i in range(len(s) - 1):
            p0, p1 = np.searchsorted(u, s[i]), np.searchsorted(u, s[i + 1])
            if p1 > p0:
                src = u[p0:p1] - s[i]
                if src[-1] - src[0] == p1 - p0 - 1:
                    src = slice(int(src[0]), int(src[-1]) + 1)
                axis.append((i, slice(int(p0), int(p1)), src))
        pieces.append(axis)
    placements, keys = [], []
    for combo in product(*pieces):
        placements.append((tuple(c[1] for c in combo), tuple(c[2] for c in combo)))
        keys.append((x.name,) + tuple(c[0] for c in combo))
    if len(keys) == 1 and all(isinstance(src, slice) and src == slice(0, starts[a][i + 1] - starts[a][i])
                              for a, (src, i) in enumerate(zip(placements[0][1], keys[0][1:]))):
        return keys[0]  # exactly one input block
    shape = tuple(len(u) for u in elements)
    return (_assemble, shape, x.dtype, tuple(placements), keys)


def _region_task(x, starts, lo, hi):
    """A task giving x[lo[0]:hi[0], lo[1]:hi[1], lo[2]:hi[2]] from x's blocks."""
    return _gather_task(x, starts, [np.arange(l, h) for l, h in zip(lo, hi)])


def _clamped(lo, hi, n):
    """The inclusive tap range [lo, hi] grown by the margin, inside [0, n)."""
    return max(0, min(n - 1, lo - _MARGIN)), min(n - 1, max(0, hi + _MARGIN)) + 1


def _array(name, graph_layer, x_deps, chunks, dtype):
    graph = HighLevelGraph.from_collections(name, graph_layer, dependencies=x_deps)
    return da.Array(graph, name, chunks, dtype=dtype, meta=np.empty((0,) * len(chunks), dtype))


def _output_chunks(x, shape):
    if tuple(shape) == x.shape:
        return x.chunks
    return da.core.normalize_chunks(tuple(max(1, c[0]) for c in x.chunks), tuple(shape))


# ---------------------------------------------------------------------------
# Resize

def resize(volume, scale, *, mode="linear", offset=(0, 0, 0)):
    """qelr.resize of a dask volume, chunk by chunk (same bits)."""
    x = _as_volume(volume, (np.uint8, np.uint16, np.float32))
    z0, y0, x0, d, h, w = _core._resize_shape(x.shape, scale, offset, mode)
    sc = np.broadcast_to(np.asarray(scale, dtype=np.float64), (3,))
    off = np.broadcast_to(np.asarray(offset, dtype=np.float64), (3,))
    if d == 0:
        return da.zeros((0, 0, 0), dtype=x.dtype)
    if not np.all(np.isfinite(sc)) or not np.all(np.isfinite(off)):
        raise ValueError("scale and offset: expected finite numbers")
    chunks = _output_chunks(x, (d, h, w))
    name = "qelr-resize-" + tokenize(x, scale, offset, mode)
    starts, out_starts = _starts(x.chunks), _starts(chunks)
    origin = (z0, y0, x0)
    layer = {}
    for idx in product(*(range(len(c)) for c in chunks)):
        box_lo = [origin[a] + out_starts[a][i] for a, i in enumerate(idx)]
        box_n = [chunks[a][i] for a, i in enumerate(idx)]
        lo, hi = [], []
        for a in range(3):
            # Source position of destination element t: (t + 0.5) / F - S / F - 0.5.
            p = lambda t: (t + 0.5) / sc[a] + (-off[a] / sc[a] - 0.5)
            r = _clamped(math.floor(p(box_lo[a])) - 1, math.floor(p(box_lo[a] + box_n[a] - 1)) + 2,
                         x.shape[a])
            lo.append(r[0])
            hi.append(r[1])
        layer[(name,) + idx] = (_resize_block, _region_task(x, starts, lo, hi), tuple(lo),
                                x.shape, scale, offset, mode, tuple(box_lo) + tuple(box_n))
    return _array(name, layer, [x], chunks, x.dtype)


# ---------------------------------------------------------------------------
# Remap

def _coordinate_reach(coords, shape):
    """Per axis the range of elements the library may read for these
    coordinates: each clamped onto the volume (NaN onto 0), with the taps."""
    c = np.asarray(coords, dtype=np.float32)
    out = []
    for a in range(3):
        v = c[a]
        n = shape[a]
        seen = v[~np.isnan(v)]
        lo, hi = (float(seen.min()), float(seen.max())) if seen.size else (0.0, 0.0)
        if seen.size < v.size:
            lo = min(lo, 0.0)
        lo = math.floor(min(max(float(lo), 0.0), n - 1.0)) - 1
        hi = math.floor(min(max(float(hi), 0.0), n - 1.0)) + 2
        out.append(_clamped(lo, hi, n))
    return out


def _remap_task(region, origin, shape, coords, mode, cval):
    """One output block: the coordinates as rows padded to a multiple of 16
    by repeating the last position, so that no lane of the library reads a
    position other than the block's own."""
    out_shape = coords.shape[1:]
    c = np.asarray(coords, dtype=np.float32).reshape(3, 1, -1, out_shape[-1] if out_shape else 1)
    width = c.shape[-1]
    pad = -width % 16
    if pad:
        c = np.pad(c, ((0, 0), (0, 0), (0, 0), (0, pad)), mode="edge")
    out = _core._remap_block(region, origin, shape, c, mode, cval)
    return out[..., :width].reshape(out_shape)


def map_coordinates(volume, coordinates, *, mode="linear", cval=0):
    """qelr.map_coordinates of a dask volume at coordinates (3, *shape),
    a numpy or dask array; the output is chunked as the coordinates."""
    x = _as_volume(volume, (np.uint8, np.uint16, np.float32))
    if isinstance(coordinates, da.Array):
        c = coordinates
    else:
        c = np.asarray(coordinates)
        if c.ndim == 4:
            c = da.from_array(c, chunks=((3,),) + _output_chunks(x, c.shape[1:]))
        else:
            c = da.from_array(c, chunks=(3,) + ("auto",) * (c.ndim - 1))
    if c.ndim < 2 or c.shape[0] != 3:
        raise ValueError("coordinates: expected shape (3, ...) with the z, y and x positions")
    c = c.rechunk({0: 3})
    blocks = c.to_delayed().reshape(-1)
    reach = dask.compute(*[dask.delayed(_coordinate_reach)(b, x.shape) for b in blocks])
    name = "qelr-map-coordinates-" + tokenize(x, c, mode, cval)
    starts = _starts(x.chunks)
    layer = {}
    for idx, r in zip(product(*(range(len(k)) for k in c.chunks[1:])), reach):
        lo, hi = [a[0] for a in r], [a[1] for a in r]
        layer[(name,) + idx] = (_remap_task, _region_task(x, starts, lo, hi), tuple(lo), x.shape,
                                (c.name, 0) + idx, mode, cval)
    return _array(name, layer, [x, c], c.chunks[1:], x.dtype)


# ---------------------------------------------------------------------------
# Affine warp

def affine_transform(volume, matrix, offset=0.0, *, output_shape=None, mode="linear", cval=0):
    """qelr.affine_transform of a dask volume (scipy.ndimage's convention)."""
    x = _as_volume(volume, (np.uint8, np.uint16, np.float32))
    coeffs = np.array(_core._forward_transform(matrix, offset))
    shape = x.shape if output_shape is None else tuple(int(s) for s in output_shape)
    if len(shape) != 3 or min(shape) < 1:
        raise ValueError("output_shape: expected three positive extents (z, y, x)")
    chunks = _output_chunks(x, shape)
    # Back-mapping (x, y, z) output positions to the input, for the regions.
    inv = np.linalg.inv(coeffs[:, :3])
    back = lambda p: inv @ (p - coeffs[:, 3:4])
    name = "qelr-affine-" + tokenize(x, coeffs, shape, mode, cval)
    slab = name + "-rows"
    starts, out_starts = _starts(x.chunks), _starts(chunks)
    layer = {}
    for i, j in product(range(len(chunks[0])), range(len(chunks[1]))):
        z0, y0 = out_starts[0][i], out_starts[1][j]
        dz, dy = chunks[0][i], chunks[1][j]
        corners = np.array(list(product((0, shape[2] - 1), (y0, y0 + dy - 1), (z0, z0 + dz - 1))),
                           dtype=np.float64).T  # x, y, z rows
        src = back(corners)
        lo, hi = [], []
        for a in range(3):  # z, y, x
            v = src[2 - a]
            r = _clamped(math.floor(v.min()) - 1, math.floor(v.max()) + 2, x.shape[a])
            lo.append(r[0])
            hi.append(r[1])
        layer[(slab, i, j)] = (_warp_block, _region_task(x, starts, lo, hi), tuple(lo),
                               x.shape, coeffs.tolist(), (z0, y0, 0, dz, dy, shape[2]), mode, cval)
        for k in range(len(chunks[2])):
            cut = (slice(None), slice(None), slice(out_starts[2][k], out_starts[2][k + 1]))
            layer[(name, i, j, k)] = (operator.getitem, (slab, i, j), cut)
    return _array(name, layer, [x], chunks, x.dtype)


# ---------------------------------------------------------------------------
# Filter

def convolve(volume, weights, *, divisor=1, mode="reflect", cval=0):
    """qelr.convolve of a dask int16 volume; each block is read with the
    kernel's reach around it (any chunk size, smaller than the reach too)."""
    x = _as_volume(volume, (np.int16,))
    w = np.asarray(weights)
    if w.ndim != 3 or w.dtype.kind not in "iub":
        raise TypeError("weights: expected a 3-D integer kernel indexed [z, y, x]")
    name = "qelr-convolve-" + tokenize(x, w, divisor, mode, cval)
    starts = _starts(x.chunks)
    layer = {}
    for idx in product(*(range(len(c)) for c in x.chunks)):
        box = tuple(starts[a][i] for a, i in enumerate(idx)) + tuple(
            x.chunks[a][i] for a, i in enumerate(idx))
        # The elements the block's padded source reads (a wrapped border
        # reads the far end of an axis: the region skips what lies between).
        reads = _core._convolve_indices(x.shape, w.shape, mode, box)
        elements = [np.unique(r[r >= 0]) for r in reads]
        maps = [np.where(r >= 0, np.searchsorted(u, r), -1) for r, u in zip(reads, elements)]
        layer[(name,) + idx] = (_convolve_mapped, _gather_task(x, starts, elements), *maps, w,
                                divisor, cval)
    return _array(name, layer, [x], x.chunks, np.int16)
