// Shared pieces of the extension: argument checks that name the argument,
// statuses turned into Python exceptions and warnings, the lock that keeps
// the team size steady while a call sizes its buffer, and the layouts of
// numpy arrays as the library's volume records.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <array>
#include <cstdint>
#include <mutex>
#include <shared_mutex>
#include <cstring>
#include <string>
#include <vector>

#include "qelr.h"

namespace qelr::py_ext {

namespace py = pybind11;

// Raises qelr.QelrError for a negative status and issues qelr.QelrWarning
// for a positive one; `function` is the C entry point that returned it.
void checkStatus(QelStatus status, const char* function);

// Raises qelr.QelrError with a status the wrapper found before the call
// (for example a singular matrix it had to invert).
[[noreturn]] void raiseStatus(QelStatus status, const char* function);

// Calls that size a buffer by the team size hold this shared; setting the
// team size holds it exclusively, so the size cannot change in between.
std::shared_mutex& teamSizeLock();

// Runs fn with the GIL released and the team size held steady.
template <class Fn>
auto withoutGil(Fn&& fn) {
    py::gil_scoped_release release;
    std::shared_lock<std::shared_mutex> lock(teamSizeLock());
    return fn();
}

[[noreturn]] void typeError(const std::string& message);
[[noreturn]] void valueError(const std::string& message);

// The name of a dtype as numpy prints it ("float32").
std::string dtypeName(const py::array& a);

// Compared by type number: equal dtypes need not be the same object (an
// unpickled array's is not).
template <class T>
bool hasDtype(const py::array& a) {
    return a.dtype().num() == py::dtype::of<T>().num() && a.dtype().byteorder() != '>';
}

// An ndarray (no conversion); anything else is a TypeError naming `what`.
py::array requireArray(py::handle obj, const char* what);

// ndim check, ValueError naming `what`.
void requireNdim(const py::array& a, py::ssize_t ndim, const char* what, const char* layout);

// An array whose last axis is contiguous (stride = item size), whose other
// strides fit the library's 32-bit steps and whose data is aligned; a copy
// in C order when `a` is not so.
py::array withContiguousRows(const py::array& a);

// `a` itself when C-contiguous and aligned, else such a copy.
inline py::array cAligned(const py::array& a) {
    return py::array::ensure(a, py::array::c_style | static_cast<int>(py::detail::npy_api::NPY_ARRAY_ALIGNED_));
}

// The interpolation mode: a name or one of the library's integers (passed
// on unchecked, so the library answers qelErrInterpolation for others).
int parseMode(py::handle mode);

// A size that must fit the library's 32-bit counts.
int32_t toInt32Extent(py::ssize_t n, const char* what);

// A volume [z, y, x] as the library's size record.
QelVolumeSize volumeSizeOf(const py::array& a);

// The plane pointers of a [z, y, x] array (one per z), with `before` null
// entries in front so that index -before .. -1 may be formed.
template <class T>
std::vector<T*> planePointers(const py::array& a, std::size_t before = 0) {
    std::vector<T*> planes(before + static_cast<std::size_t>(a.shape(0)), nullptr);
    auto* base = static_cast<uint8_t*>(const_cast<void*>(a.data()));
    for (py::ssize_t z = 0; z < a.shape(0); ++z) {
        planes[before + z] = reinterpret_cast<T*>(base + z * a.strides(0));
    }
    return planes;
}

// A sequence of three numbers given in [z, y, x] order, or one number for
// all three, returned in x, y, z order.
std::array<double, 3> xyzTriple(py::handle obj, const char* what);

}  // namespace qelr::py_ext
