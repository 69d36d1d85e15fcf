"""qelr: ray tracing of triangle meshes, real spherical harmonics and 3-D
volume processing on numpy arrays.

Volumes are numpy arrays indexed [z, y, x] (uint8, uint16 or float32; int16
for `convolve`), of any strides; points and directions are [n, 3] arrays of
x, y, z. Interpolation modes are "nearest", "linear", "cubic" (Lagrange),
"bspline", "catmull-rom", "b05c03" or the library's integers. Every result
comes from the library's C functions, which run with the GIL released.
A failing call raises QelrError (its `.status` the library's negative
status); a warning status is issued as QelrWarning.
"""
from ._errors import QelrError, QelrWarning
from . import _core
from ._core import Hits, Scene
from . import sh

__version__ = "7.1.0"

__all__ = ["QelrError", "QelrWarning", "Hits", "Scene", "affine_transform", "convolve",
           "get_num_threads", "library_version", "map_coordinates", "resize", "set_num_threads",
           "sh", "__version__"]


def library_version():
    """The library's version record as a dict."""
    return _core.library_version()


def set_num_threads(n):
    """Sets the team size of the library's parallel regions (results do not
    depend on it)."""
    _core.set_num_threads(n)


def get_num_threads():
    """The team size of the library's parallel regions."""
    return _core.get_num_threads()


def resize(volume, scale, *, mode="linear", offset=(0, 0, 0)):
    """Resizes a volume by `scale` (a number or (sz, sy, sx)) with an
    `offset` (z, y, x) in output voxels added after scaling; output voxel d
    samples the input at (d + 0.5) / scale - offset / scale - 0.5 on each
    axis, taps clamped into the volume. The output shape is the library's
    resize cuboid of the whole volume (an empty array, with a QelrWarning,
    when that is empty); same dtype."""
    return _core.resize(volume, scale, mode, offset)


def map_coordinates(volume, coordinates, *, mode="linear", cval=0):
    """scipy.ndimage.map_coordinates' convention: `coordinates` (3, *shape)
    holds the z, y and x input positions of each output voxel. Voxels whose
    position lies outside the volume (the library leaves them) get `cval`.
    Positions are taken as float32."""
    return _core.map_coordinates(volume, coordinates, mode, cval)


def affine_transform(volume, matrix, offset=0.0, *, output_shape=None, mode="linear", cval=0):
    """scipy.ndimage.affine_transform's convention: `matrix` (3x3, a
    diagonal (3,), or homogeneous 3x4 / 4x4, in z, y, x order) and `offset`
    map output indices to input indices; the wrapper inverts them into the
    library's forward transform. Voxels mapped outside the volume get
    `cval`."""
    return _core.affine_transform(volume, matrix, offset, output_shape, mode, cval)


def convolve(volume, weights, *, divisor=1, mode="reflect", cval=0):
    """3-D convolution of an int16 volume with an integer kernel, divided by
    `divisor`, rounded half to even and saturated to int16 as the library
    does. The border modes and the kernel's centre are scipy.ndimage's
    ("reflect", "mirror", "nearest", "wrap", "constant" with `cval`)."""
    return _core.convolve(volume, weights, divisor, mode, cval)
