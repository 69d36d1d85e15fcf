#include "common.h"

#include <climits>
#include <cmath>

namespace qelr::py_ext {

namespace {

py::object errorsModule() {
    // Imported on first use: qelr/__init__.py has loaded it before _core.
    static py::object* module = new py::object(py::module_::import("qelr._errors"));
    return *module;
}

}  // namespace

void raiseStatus(QelStatus status, const char* function) {
    py::object cls = errorsModule().attr("QelrError");
    py::object error = cls(status, function);
    PyErr_SetObject(cls.ptr(), error.ptr());
    throw py::error_already_set();
}

void checkStatus(QelStatus status, const char* function) {
    if (status == qelOk) return;
    if (status < 0) raiseStatus(status, function);
    py::object message = errorsModule().attr("status_message")(status, function);
    py::object cls = errorsModule().attr("QelrWarning");
    const std::string text = py::str(message);
    if (PyErr_WarnEx(cls.ptr(), text.c_str(), 2) != 0) throw py::error_already_set();
}

std::shared_mutex& teamSizeLock() {
    static std::shared_mutex lock;
    return lock;
}

void typeError(const std::string& message) { throw py::type_error(message); }
void valueError(const std::string& message) { throw py::value_error(message); }

std::string dtypeName(const py::array& a) { return py::str(a.dtype()); }

py::array requireArray(py::handle obj, const char* what) {
    if (!py::isinstance<py::array>(obj)) {
        typeError(std::string(what) + ": expected a numpy array, got " +
                  std::string(py::str(obj.get_type().attr("__name__"))));
    }
    return py::reinterpret_borrow<py::array>(obj);
}

void requireNdim(const py::array& a, py::ssize_t ndim, const char* what, const char* layout) {
    if (a.ndim() != ndim) {
        valueError(std::string(what) + ": expected a " + std::to_string(ndim) + "-D array " +
                   layout + ", got " + std::to_string(a.ndim()) + "-D");
    }
}

py::array withContiguousRows(const py::array& a) {
    const py::ssize_t item = a.itemsize();
    bool ok = a.ndim() == 0 || a.strides(a.ndim() - 1) == item || a.shape(a.ndim() - 1) == 1;
    for (py::ssize_t i = 0; ok && i + 1 < a.ndim(); ++i) {
        ok = a.strides(i) >= INT_MIN && a.strides(i) <= INT_MAX;
    }
    ok = ok && reinterpret_cast<uintptr_t>(a.data()) % static_cast<uintptr_t>(item) == 0;
    for (py::ssize_t i = 0; ok && i < a.ndim(); ++i) ok = a.strides(i) % item == 0;
    if (ok) return a;
    return cAligned(a);
}

int parseMode(py::handle mode) {
    if (py::isinstance<py::str>(mode)) {
        const std::string name = py::str(mode);
        static const std::pair<const char*, int> names[] = {
            {"nearest", qelInterpNearest},          {"linear", qelInterpLinear},
            {"cubic", qelInterpCubic},              {"bspline", qelInterpCubicBSpline},
            {"catmull-rom", qelInterpCubicCatmullRom}, {"b05c03", qelInterpCubicB05C03}};
        for (const auto& [n, v] : names) {
            if (name == n) return v;
        }
        valueError("mode: expected one of 'nearest', 'linear', 'cubic', 'bspline', "
                   "'catmull-rom', 'b05c03' or the library's integer, got '" + name + "'");
    }
    if (py::isinstance<py::bool_>(mode) || !py::isinstance<py::int_>(mode)) {
        typeError("mode: expected a name or an integer");
    }
    const long long v = mode.cast<long long>();
    return v < INT_MIN || v > INT_MAX ? 0 : static_cast<int>(v);
}

int32_t toInt32Extent(py::ssize_t n, const char* what) {
    if (n < 1 || n > INT32_MAX) {
        valueError(std::string(what) + ": every extent must lie in 1 .. 2**31 - 1, got " +
                   std::to_string(n));
    }
    return static_cast<int32_t>(n);
}

QelVolumeSize volumeSizeOf(const py::array& a) {
    return {toInt32Extent(a.shape(2), "volume width"), toInt32Extent(a.shape(1), "volume height"),
            toInt32Extent(a.shape(0), "volume depth")};
}

std::array<double, 3> xyzTriple(py::handle obj, const char* what) {
    const auto number = [&](py::handle v) {
        if (!PyFloat_Check(v.ptr()) && !PyLong_Check(v.ptr()) && !py::hasattr(v, "__float__")) {
            typeError(std::string(what) + ": expected numbers");
        }
        return v.cast<double>();
    };
    if (PyFloat_Check(obj.ptr()) || PyLong_Check(obj.ptr())) {
        const double v = obj.cast<double>();
        return {v, v, v};
    }
    if (py::isinstance<py::array>(obj) && py::reinterpret_borrow<py::array>(obj).ndim() == 0) {
        const double v = number(obj);
        return {v, v, v};
    }
    if (!py::isinstance<py::sequence>(obj) && !py::isinstance<py::array>(obj)) {
        const double v = number(obj);
        return {v, v, v};
    }
    const py::sequence seq = py::reinterpret_borrow<py::sequence>(
        py::isinstance<py::array>(obj) ? obj.attr("tolist")() : obj);
    if (seq.size() != 3) valueError(std::string(what) + ": expected a number or three numbers (z, y, x)");
    return {number(seq[2]), number(seq[1]), number(seq[0])};
}

}  // namespace qelr::py_ext
