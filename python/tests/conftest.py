"""Direct calls of libqelr through ctypes: the oracle the wrappers are held
to, bit for bit, on the same data."""
import ctypes as C
import os

import numpy as np
import pytest

import qelr

_dir = os.environ.get("QELR_LIBRARY_DIR") or os.path.join(os.path.dirname(qelr._core.__file__), "..", "..")
LIB = C.CDLL(os.path.join(_dir, "libqelr.so"))
CORE = C.CDLL(os.path.join(_dir, "libqelcore.so"))
SUFFIX = {np.dtype(np.uint8): "8u", np.dtype(np.uint16): "16u", np.dtype(np.float32): "32f"}
MODES = ["nearest", "linear", "cubic", "bspline", "catmull-rom", "b05c03"]
MODE_VALUE = dict(zip(MODES, (1, 2, 4, 5, 6, 7)))
VOLUME_TYPES = [np.uint8, np.uint16, np.float32]


def i32s(*v):
    return (C.c_int32 * len(v))(*v)


class Box(C.Structure):
    _fields_ = [(n, C.c_int32) for n in ("x", "y", "z", "w", "h", "d")]


class Size(C.Structure):
    _fields_ = [(n, C.c_int32) for n in ("w", "h", "d")]


def planes(a):
    """PV plane pointers of a C-ordered [z, y, x] array."""
    return (C.c_void_p * a.shape[0])(*[a.ctypes.data + z * a.strides[0] for z in range(a.shape[0])])


def p3(*arrays):
    return (C.c_void_p * len(arrays))(*[a.ctypes.data for a in arrays])


def size_of(v):
    return Size(v.shape[2], v.shape[1], v.shape[0])


def whole_box(v):
    return Box(0, 0, 0, v.shape[2], v.shape[1], v.shape[0])


def c_resize(v, scale_xyz, offset_xyz, mode):
    v = np.ascontiguousarray(v)
    box = Box()
    st = LIB.qelrGetResizeCuboid(whole_box(v), C.byref(box), *map(C.c_double, scale_xyz + offset_xyz), mode)
    assert st == 0
    out = np.zeros((box.z + box.d, box.y + box.h, box.x + box.w), v.dtype)
    n = C.c_int()
    assert LIB.qelrResizeGetBufSize(whole_box(v), box, 1, mode, C.byref(n)) == 0
    buf = np.empty(n.value, np.uint8)
    st = getattr(LIB, "qelrResize_%s_C1PV" % SUFFIX[v.dtype])(
        planes(v), size_of(v), v.strides[1], whole_box(v), planes(out), out.strides[1], box,
        *map(C.c_double, scale_xyz + offset_xyz), mode, C.c_void_p(buf.ctypes.data))
    assert st == 0
    return out[box.z:, box.y:, box.x:]


def c_remap(v, x, y, z, mode, cval):
    out = np.full(x.shape, cval, v.dtype)
    st = getattr(LIB, "qelrRemap_%s_C1PV" % SUFFIX[v.dtype])(
        planes(v), size_of(v), v.strides[1], whole_box(v), planes(x), planes(y), planes(z),
        x.strides[1], planes(out), out.strides[1], size_of(out), mode)
    assert st == 0
    return out


def c_warp(v, coeffs, shape, mode, cval):
    out = np.full(shape, cval, v.dtype)
    st = getattr(LIB, "qelrWarpAffine_%s_C1PV" % SUFFIX[v.dtype])(
        planes(v), size_of(v), v.strides[1], whole_box(v), planes(out), out.strides[1],
        whole_box(out), (C.c_double * 12)(*np.ravel(coeffs)), mode)
    assert st == 0
    return out


@pytest.fixture(params=[1, 3])
def threads(request):
    """Runs a test with a team of 1 and of 3 threads."""
    saved = qelr.get_num_threads()
    qelr.set_num_threads(request.param)
    yield request.param
    qelr.set_num_threads(saved)
