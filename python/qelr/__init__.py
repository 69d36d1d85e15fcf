"""qelr: ray tracing of triangle meshes, real spherical harmonics and 3-D
volume processing on numpy arrays.

Volumes are indexed [z, y, x]; points and directions are [n, 3] arrays of
x, y, z. Every result comes from the library's C functions; every call
releases the GIL while the library works.
"""
from ._errors import QelrError, QelrWarning
from . import _core
from ._core import (Hits, Scene, affine_transform, convolve, get_num_threads, library_version,
                    map_coordinates, resize, set_num_threads)
from . import sh

__version__ = "7.1.0"

__all__ = ["QelrError", "QelrWarning", "Hits", "Scene", "affine_transform", "convolve",
           "get_num_threads", "library_version", "map_coordinates", "resize", "set_num_threads",
           "sh", "__version__"]
