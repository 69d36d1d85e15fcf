// qelr.Scene: a triangle mesh with its accelerator records, box and
// cost-driven KD-tree, and the intersection of ray packs with it.
//
// Rays are laid out as packs 4 rays wide, so 16 consecutive rays form one
// 4 x 4 tile of the library's packet path; the pack is padded to a multiple
// of 16 rays with rays that cannot hit anything (zero length, or masked off),
// so every ray takes the packet path whatever the count.
#include <cmath>
#include <limits>
#include <memory>

#include "bindings.h"
#include "common.h"

namespace qelr::py_ext {

namespace {

py::object& hitsType() {
    static py::object* type = nullptr;
    if (type == nullptr) {
        type = new py::object(py::module_::import("collections")
                                  .attr("namedtuple")("Hits", "t u v triangle"));
        type->attr("__module__") = "qelr";
    }
    return *type;
}

// An [n, 3] float32 array as three contiguous planes of `padded` floats,
// each padded with `fill`; the planes are 64-byte aligned.
struct Planes {
    std::unique_ptr<float, void (*)(void*)> data{nullptr, qelFree};
    float* p[3];
};

Planes planesOf(const py::array& a, std::size_t n, std::size_t padded, float fill0, float fill) {
    Planes out;
    out.data.reset(static_cast<float*>(qelMalloc(static_cast<int>(3 * padded * sizeof(float)))));
    if (!out.data) throw std::bad_alloc();
    const auto* base = static_cast<const uint8_t*>(a.data());
    for (int c = 0; c < 3; ++c) {
        float* plane = out.data.get() + c * padded;
        out.p[c] = plane;
        for (std::size_t i = 0; i < n; ++i) {
            std::memcpy(plane + i, base + i * a.strides(0) + c * a.strides(1), sizeof(float));
        }
        std::fill(plane + n, plane + padded, c == 0 ? fill0 : fill);
    }
    return out;
}

py::array rowsOf3(py::handle obj, const char* what) {
    py::array a = requireArray(obj, what);
    if (!hasDtype<float>(a)) typeError(std::string(what) + ": expected float32, got " + dtypeName(a));
    if (a.ndim() != 2 || a.shape(1) != 3) {
        valueError(std::string(what) + ": expected shape (n, 3) with x, y, z per row");
    }
    return a;
}

std::array<float, 3> pointOf(py::handle obj, const char* what) {
    py::array a = requireArray(obj, what);
    if (!hasDtype<float>(a)) typeError(std::string(what) + ": expected float32, got " + dtypeName(a));
    if (a.ndim() != 1 || a.shape(0) != 3) valueError(std::string(what) + ": expected shape (3,)");
    const auto* base = static_cast<const uint8_t*>(a.data());
    std::array<float, 3> p;
    for (int c = 0; c < 3; ++c) std::memcpy(&p[c], base + c * a.strides(0), sizeof(float));
    return p;
}

// Pack geometry for n rays: 4 wide, a multiple of 4 rows.
struct Pack {
    std::size_t n, padded;
    QelSize2D size;
};

Pack packOf(py::ssize_t n) {
    if (n > (INT32_MAX / 12) - 16) valueError("directions: too many rays (at most 178 million)");
    const std::size_t padded = std::max<std::size_t>(16, (static_cast<std::size_t>(n) + 15) / 16 * 16);
    return {static_cast<std::size_t>(n), padded, {4, static_cast<int32_t>(padded / 4)}};
}

class Scene {
 public:
    Scene(py::handle verticesObj, py::handle trianglesObj, double quality, long long depthLimit,
          long long memoryBudgetMb) {
        const py::array v = rowsOf3(verticesObj, "vertices");
        py::array t = requireArray(trianglesObj, "triangles");
        const char kind = t.dtype().kind();
        if (kind != 'i' && kind != 'u') typeError("triangles: expected an integer array, got " + dtypeName(t));
        if (t.ndim() != 2 || t.shape(1) != 3) valueError("triangles: expected shape (t, 3)");
        if (v.shape(0) > INT32_MAX || t.shape(0) > INT32_MAX / 4) valueError("mesh: too large");
        if (depthLimit < 0 || depthLimit > UINT32_MAX || memoryBudgetMb < 0 ||
            memoryBudgetMb > UINT32_MAX) {
            valueError("depth_limit and memory_budget_mb: expected unsigned 32-bit values");
        }
        vertexCount_ = static_cast<int>(v.shape(0));
        triangleCount_ = static_cast<int>(t.shape(0));
        // Never empty, so the library gets real pointers even for an empty mesh.
        vertices_.resize(3 * static_cast<std::size_t>(vertexCount_) + 3);
        const auto* vb = static_cast<const uint8_t*>(v.data());
        for (int i = 0; i < vertexCount_; ++i) {
            for (int c = 0; c < 3; ++c) {
                std::memcpy(&vertices_[3 * i + c], vb + i * v.strides(0) + c * v.strides(1), 4);
            }
        }
        const auto wide = py::array_t<int64_t, py::array::c_style | py::array::forcecast>::ensure(t);
        if (kind == 'u' && t.itemsize() == 8 && t.size() > 0 &&
            t.attr("max")().cast<uint64_t>() > static_cast<uint64_t>(INT32_MAX)) {
            valueError("triangles: every index must name a vertex");
        }
        triangles_.resize(4 * static_cast<std::size_t>(triangleCount_) + 4);
        for (int i = 0; i < triangleCount_; ++i) {
            for (int c = 0; c < 3; ++c) {
                const int64_t k = wide.data()[3 * i + c];
                if (k < 0 || k >= vertexCount_) valueError("triangles: every index must name a vertex");
                triangles_[4 * i + c] = static_cast<int32_t>(k);
            }
            triangles_[4 * i + 3] = 0;
        }
        accel_.resize(static_cast<std::size_t>(triangleCount_) + 1);
        const KDTreeBuildParams params{qelKdCostDriven, static_cast<uint32_t>(depthLimit),
                                       static_cast<float>(quality),
                                       static_cast<uint32_t>(memoryBudgetMb), 0};
        QelStatus boxStatus = qelOk;
        const QelStatus st = withoutGil([&] {
            qelrTriangleAccelInit(accel_.data(), vertices_.data(), triangles_.data(), triangleCount_);
            boxStatus = qelrSetBoundBox_32f(vertices_.data(), vertexCount_, box_);
            return qelrKDTreeBuildAlloc(&tree_, vertices_.data(), triangles_.data(), vertexCount_,
                                        triangleCount_, &treeBytes_, &params);
        });
        checkStatus(boxStatus, "qelrSetBoundBox_32f");
        checkStatus(st, "qelrKDTreeBuildAlloc");
    }

    ~Scene() { qelrKDTreeFree(tree_); }
    Scene(const Scene&) = delete;
    Scene& operator=(const Scene&) = delete;

    QelTraceScene trace() const { return {box_, accel_.data(), tree_}; }

    py::object intersect(py::handle originsObj, py::handle directionsObj, float tmax) const {
        const py::array d = rowsOf3(directionsObj, "directions");
        const Pack pk = packOf(d.shape(0));
        py::array origins = requireArray(originsObj, "origins");
        const bool shared = origins.ndim() == 1;
        std::array<float, 3> o{};
        Planes op;
        if (shared) {
            o = pointOf(origins, "origins");
        } else {
            origins = rowsOf3(origins, "origins");
            if (origins.shape(0) != d.shape(0)) valueError("origins: expected one row per direction");
            op = planesOf(origins, pk.n, pk.padded, 0.0f, 0.0f);
        }
        const Planes dp = planesOf(d, pk.n, pk.padded, 1.0f, 0.0f);
        const auto padded = static_cast<py::ssize_t>(pk.padded);
        py::array_t<float> t(padded), u(padded), v(padded);
        py::array_t<int32_t> tri(padded);
        float* tp = t.mutable_data();
        std::fill(tp, tp + pk.n, tmax);
        std::fill(tp + pk.n, tp + pk.padded, 0.0f);  // padding rays reach nothing
        std::fill(u.mutable_data(), u.mutable_data() + padded, 0.0f);
        std::fill(v.mutable_data(), v.mutable_data() + padded, 0.0f);
        float* uv[2] = {u.mutable_data(), v.mutable_data()};
        int32_t* index = tri.mutable_data();
        const QelTraceScene sc = trace();
        const QelStatus st = withoutGil([&] {
            if (shared) return qelrIntersectEyeSO_32f(o.data(), dp.p, tp, uv, index, &sc, pk.size);
            return qelrIntersectMO_32f(op.p, dp.p, tp, uv, index, &sc, pk.size);
        });
        checkStatus(st, "qelrIntersect");
        const py::slice first(0, static_cast<py::ssize_t>(pk.n), 1);
        return hitsType()(t[first], u[first], v[first], tri[first]);
    }

    py::array occluded(py::handle originObj, py::handle segmentsObj) const {
        const std::array<float, 3> o = pointOf(originObj, "origin");
        const py::array s = rowsOf3(segmentsObj, "segments");
        const Pack pk = packOf(s.shape(0));
        const Planes sp = planesOf(s, pk.n, pk.padded, 1.0f, 0.0f);
        std::vector<int32_t> mask(pk.padded, -1), index(pk.padded);
        std::fill(mask.begin(), mask.begin() + static_cast<std::ptrdiff_t>(pk.n), 0);
        const QelTraceScene sc = trace();
        const QelStatus st = withoutGil([&] {
            return qelrIntersectAnySO_32f(o.data(), sp.p, index.data(), mask.data(), pk.size, &sc);
        });
        checkStatus(st, "qelrIntersectAnySO_32f");
        py::array_t<bool> out(static_cast<py::ssize_t>(pk.n));
        for (std::size_t i = 0; i < pk.n; ++i) out.mutable_data()[i] = mask[i] == -1;
        return out;
    }

    py::object intersectAll(py::handle originObj, py::handle directionsObj, long long maxHits) const {
        const std::array<float, 3> o = pointOf(originObj, "origin");
        const py::array d = rowsOf3(directionsObj, "directions");
        const Pack pk = packOf(d.shape(0));
        if (maxHits < 1 || maxHits * static_cast<long long>(pk.padded) > INT32_MAX) {
            valueError("max_hits: expected at least 1, and fewer than 2**31 hits in all");
        }
        const Planes dp = planesOf(d, pk.n, pk.padded, 1.0f, 0.0f);
        const auto layers = static_cast<py::ssize_t>(maxHits), padded = static_cast<py::ssize_t>(pk.padded);
        py::array_t<float> t({layers, padded}), u({layers, padded}), v({layers, padded});
        py::array_t<int32_t> tri({layers, padded});
        float* tp = t.mutable_data();
        const float inf = std::numeric_limits<float>::infinity();
        std::fill(tp, tp + t.size(), inf);
        std::fill(tp + pk.n, tp + pk.padded, 0.0f);  // padding rays reach nothing
        std::fill(u.mutable_data(), u.mutable_data() + u.size(), 0.0f);
        std::fill(v.mutable_data(), v.mutable_data() + v.size(), 0.0f);
        float* uv[2] = {u.mutable_data(), v.mutable_data()};
        int32_t* index = tri.mutable_data();
        const QelLayeredSize size{4, pk.size.height, static_cast<int32_t>(maxHits)};
        const QelTraceScene sc = trace();
        const QelStatus st = withoutGil([&] {
            const QelStatus q = qelrIntersectMultipleSO_32f(o.data(), dp.p, tp, uv, index, &size, &sc);
            // A layer without a hit reports no distance.
            for (py::ssize_t i = 0; i < t.size(); ++i) {
                if (index[i] < 0) tp[i] = inf;
            }
            return q;
        });
        checkStatus(st, "qelrIntersectMultipleSO_32f");
        const py::tuple cols = py::make_tuple(py::slice(0, layers, 1),
                                              py::slice(0, static_cast<py::ssize_t>(pk.n), 1));
        auto view = [&](py::handle a) -> py::object { return a.attr("__getitem__")(cols).attr("T"); };
        return hitsType()(view(t), view(u), view(v), view(tri));
    }

    int treeBytes() const { return treeBytes_; }
    int triangleCount() const { return triangleCount_; }
    py::array bounds() const {
        py::array_t<float> b({2, 3});
        std::copy(box_, box_ + 6, b.mutable_data());
        return b;
    }

 private:
    std::vector<float> vertices_;
    std::vector<int32_t> triangles_;
    std::vector<TriangleAccel> accel_;
    float box_[6] = {};
    KDTreeNode* tree_ = nullptr;
    int treeBytes_ = 0;
    int vertexCount_ = 0;
    int triangleCount_ = 0;
};

}  // namespace

void bindScene(py::module_& m) {
    using namespace pybind11::literals;
    m.attr("Hits") = hitsType();
    py::class_<Scene>(m, "Scene")
        .def(py::init<py::handle, py::handle, double, long long, long long>(), "vertices"_a,
             "triangles"_a, py::kw_only(), "quality"_a = 1.0, "depth_limit"_a = 50,
             "memory_budget_mb"_a = 1024)
        .def("intersect", &Scene::intersect, "origins"_a, "directions"_a, py::kw_only(),
             "tmax"_a = std::numeric_limits<float>::infinity())
        .def("occluded", &Scene::occluded, "origin"_a, "segments"_a)
        .def("intersect_all", &Scene::intersectAll, "origin"_a, "directions"_a, "max_hits"_a)
        .def_property_readonly("tree_bytes", &Scene::treeBytes)
        .def_property_readonly("triangle_count", &Scene::triangleCount)
        .def_property_readonly("bounds", &Scene::bounds);
}

}  // namespace qelr::py_ext
