// Spherical harmonics: basis, single band, projection and reconstruction of
// directions given as [n, 3] float32 arrays (x, y, z per row).
#include <memory>

#include "bindings.h"
#include "common.h"

namespace qelr::py_ext {

namespace {

// Three planes x, y, z of n floats: the columns of the array when they are
// contiguous, else a copy.
struct Directions {
    py::array keep;
    std::vector<float> copy;
    const float* p[3];
    int n;
};

Directions directionsOf(py::handle obj) {
    py::array a = requireArray(obj, "directions");
    if (!hasDtype<float>(a)) typeError("directions: expected float32, got " + dtypeName(a));
    if (a.ndim() != 2 || a.shape(1) != 3) {
        valueError("directions: expected shape (n, 3) with x, y, z per row");
    }
    if (a.shape(0) > INT32_MAX) valueError("directions: more than 2**31 - 1 rows");
    Directions d;
    d.keep = a;
    d.n = static_cast<int>(a.shape(0));
    const auto* base = static_cast<const uint8_t*>(a.data());
    if ((a.strides(0) == 4 || d.n <= 1) && reinterpret_cast<uintptr_t>(base) % 4 == 0 &&
        a.strides(1) % 4 == 0) {
        for (int c = 0; c < 3; ++c) d.p[c] = reinterpret_cast<const float*>(base + c * a.strides(1));
        return d;
    }
    d.copy.resize(3 * static_cast<std::size_t>(d.n));
    for (int i = 0; i < d.n; ++i) {
        for (int c = 0; c < 3; ++c) {
            float v;
            std::memcpy(&v, base + i * a.strides(0) + c * a.strides(1), 4);
            d.copy[static_cast<std::size_t>(c) * d.n + i] = v;
        }
    }
    for (int c = 0; c < 3; ++c) d.p[c] = d.copy.data() + static_cast<std::size_t>(c) * d.n;
    return d;
}

uint32_t orderOf(long long order, const char* what) {
    if (order < 0 || order > 255) {
        valueError(std::string(what) + ": expected 0 .. 15 (the library evaluates orders up to 15)");
    }
    return static_cast<uint32_t>(order);
}

uint32_t methodOf(const std::string& method) {
    if (method == "direct") return qelSHDirect;
    if (method == "recurrence") return qelSHRecurrence;
    valueError("method: expected 'direct' or 'recurrence', got '" + method + "'");
}

// A state for an order and algorithm, in memory from qelMalloc.
struct Engine {
    std::unique_ptr<QelSHEngine, void (*)(void*)> block{nullptr, qelFree};
    Engine(uint32_t order, uint32_t algorithm) {
        uint32_t size = 0;
        checkStatus(qelrSHGetSize_32f(order, algorithm, &size), "qelrSHGetSize_32f");
        if (size > INT32_MAX) valueError("order: too large");
        block.reset(static_cast<QelSHEngine*>(qelMalloc(static_cast<int>(size))));
        if (!block) throw std::bad_alloc();
        checkStatus(qelrSHInit_32f(block.get(), order, algorithm), "qelrSHInit_32f");
    }
};

py::ssize_t countOf(uint32_t order) { return static_cast<py::ssize_t>(order + 1) * (order + 1); }

py::array basis(py::handle directions, long long order, const std::string& method) {
    const Directions d = directionsOf(directions);
    const uint32_t L = orderOf(order, "order");
    const Engine e(L, methodOf(method));
    py::array_t<float> out({static_cast<py::ssize_t>(d.n), countOf(L)});
    if (d.n == 0) return out;
    float* dst = out.mutable_data();
    const QelStatus st = withoutGil([&] {
        return qelrSH_32f(d.p[0], d.p[1], d.p[2], d.n, dst, L, e.block.get());
    });
    checkStatus(st, "qelrSH_32f");
    return out;
}

py::array band(py::handle directions, long long l) {
    const Directions d = directionsOf(directions);
    const uint32_t L = orderOf(l, "l");
    py::array_t<float> out({static_cast<py::ssize_t>(d.n), static_cast<py::ssize_t>(2 * L + 1)});
    if (d.n == 0) return out;
    float* dst = out.mutable_data();
    const QelStatus st =
        withoutGil([&] { return qelrSHBand_32f(d.p[0], d.p[1], d.p[2], d.n, dst, L); });
    checkStatus(st, "qelrSHBand_32f");
    return out;
}

py::array project(py::handle directions, py::handle valuesObj, long long order,
                  const std::string& method) {
    const Directions d = directionsOf(directions);
    py::array v = requireArray(valuesObj, "values");
    if (!hasDtype<float>(v)) typeError("values: expected float32, got " + dtypeName(v));
    if (!((v.ndim() == 1 && v.shape(0) == d.n) ||
          (v.ndim() == 2 && v.shape(0) == d.n && v.shape(1) == 3))) {
        valueError("values: expected shape (n,) or (n, 3) with n = " + std::to_string(d.n));
    }
    const uint32_t L = orderOf(order, "order");
    const Engine e(L, methodOf(method));
    const py::ssize_t K = countOf(L);
    const bool three = v.ndim() == 2;
    py::array_t<float> out = three ? py::array_t<float>({py::ssize_t{3}, K}) : py::array_t<float>(K);
    float* c = out.mutable_data();
    std::fill(c, c + out.size(), 0.0f);
    if (d.n == 0) return out;
    // Planes of values (n, 3) with contiguous columns go as P3, else
    // interleaved C3 rows.
    const bool planes = three && v.strides(0) == 4 && v.strides(1) % 4 == 0 &&
                        reinterpret_cast<uintptr_t>(v.data()) % 4 == 0;
    if (!planes) v = cAligned(v);
    const auto* src = static_cast<const uint8_t*>(v.data());
    float* coeffs[3] = {c, c + K, c + 2 * K};
    const QelStatus st = withoutGil([&] {
        const auto* f = reinterpret_cast<const float*>(src);
        if (!three) return qelrSHTFwd_32f_C1I(d.p[0], d.p[1], d.p[2], f, d.n, c, L, e.block.get());
        if (!planes) {
            return qelrSHTFwd_32f_C3P3I(d.p[0], d.p[1], d.p[2], f, d.n, coeffs, L, e.block.get());
        }
        const float* p[3] = {f, reinterpret_cast<const float*>(src + v.strides(1)),
                             reinterpret_cast<const float*>(src + 2 * v.strides(1))};
        return qelrSHTFwd_32f_P3I(d.p[0], d.p[1], d.p[2], p, d.n, coeffs, L, e.block.get());
    });
    checkStatus(st, "qelrSHTFwd_32f");
    return out;
}

py::array reconstruct(py::handle coeffsObj, py::handle directions, const std::string& method) {
    py::array c = requireArray(coeffsObj, "coeffs");
    if (!hasDtype<float>(c)) typeError("coeffs: expected float32, got " + dtypeName(c));
    if (!(c.ndim() == 1 || (c.ndim() == 2 && c.shape(0) == 3))) {
        valueError("coeffs: expected shape (K,) or (3, K) with K = (order + 1)**2");
    }
    const py::ssize_t K = c.shape(c.ndim() - 1);
    long long order = 0;
    while ((order + 1) * (order + 1) < K) ++order;
    if ((order + 1) * (order + 1) != K) valueError("coeffs: the length is not a square (order + 1)**2");
    const uint32_t L = orderOf(order, "coeffs order");
    const Directions d = directionsOf(directions);
    const Engine e(L, methodOf(method));
    c = cAligned(c);
    const bool three = c.ndim() == 2;
    py::array_t<float> out = three ? py::array_t<float>({static_cast<py::ssize_t>(d.n), py::ssize_t{3}})
                                   : py::array_t<float>(static_cast<py::ssize_t>(d.n));
    if (d.n == 0) return out;
    const float* cf = static_cast<const float*>(c.data());
    float* dst = out.mutable_data();
    const QelStatus st = withoutGil([&] {
        if (!three) return qelrSHTInv_32f_C1(cf, L, d.p[0], d.p[1], d.p[2], dst, d.n, e.block.get());
        const float* planes[3] = {cf, cf + K, cf + 2 * K};
        return qelrSHTInv_32f_P3C3(planes, L, d.p[0], d.p[1], d.p[2], dst, d.n, e.block.get());
    });
    checkStatus(st, "qelrSHTInv_32f");
    return out;
}

}  // namespace

void bindSH(py::module_& m) {
    // Positional: qelr.sh gives the interface.
    m.def("sh_basis", &basis);
    m.def("sh_band", &band);
    m.def("sh_project", &project);
    m.def("sh_reconstruct", &reconstruct);
}

}  // namespace qelr::py_ext
