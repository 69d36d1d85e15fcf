// Volume functions: resize, remap (map_coordinates), affine warp
// (affine_transform) and the 3-D filter (convolve) on numpy arrays indexed
// [z, y, x].
//
// Every function also has a block form for the chunked functions of
// qelr.dask: the source is then a region of a larger volume (its origin and
// the whole volume's shape given), and the library is handed the whole
// volume's size and box with plane pointers that address the region, so it
// computes exactly what it computes on the whole volume, as long as the
// region holds every element it reads. The output of a block form is one box
// of the whole output, addressed the same way.
#include <climits>
#include <cmath>
#include <memory>
#include <type_traits>

#include "common.h"
#include "bindings.h"

namespace qelr::py_ext {

namespace {

// ---------------------------------------------------------------------------
// Sources: a region of a whole volume

struct Source {
    py::array data;                  // the region, [z, y, x], rows contiguous
    std::array<int32_t, 3> origin;   // of the region in the whole volume, x, y, z
    QelVolumeSize whole;             // of the whole volume

    QelBox3D wholeBox() const { return {0, 0, 0, whole.width, whole.height, whole.depth}; }

    // The region as a source cuboid. Remap and warp read only inside the
    // cuboid they are given (lanes that write nothing may still read there),
    // and every position a block maps inside the whole volume lies inside its
    // region with all its taps, so the region as cuboid gives the results of
    // the whole volume while keeping every read inside the region.
    QelBox3D regionBox() const {
        return {origin[0], origin[1], origin[2], static_cast<int32_t>(data.shape(2)),
                static_cast<int32_t>(data.shape(1)), static_cast<int32_t>(data.shape(0))};
    }

    // The address that element (0, 0, 0) of the whole volume would have.
    uint8_t* virtualBase() const {
        auto* base = static_cast<uint8_t*>(const_cast<void*>(data.data()));
        return base - origin[2] * data.strides(0) - origin[1] * data.strides(1) -
               origin[0] * data.itemsize();
    }

    // One pointer per plane of the whole volume; planes outside the region
    // are null (the library never reads them).
    template <class T>
    std::vector<const T*> planes() const {
        std::vector<const T*> p(static_cast<std::size_t>(whole.depth), nullptr);
        uint8_t* base = virtualBase();
        for (py::ssize_t z = 0; z < data.shape(0); ++z) {
            p[origin[2] + z] = reinterpret_cast<const T*>(base + (origin[2] + z) * data.strides(0));
        }
        return p;
    }
};

Source wholeVolume(py::handle volume, const char* what) {
    py::array a = requireArray(volume, what);
    requireNdim(a, 3, what, "indexed [z, y, x]");
    a = withContiguousRows(a);
    return {a, {0, 0, 0}, volumeSizeOf(a)};
}

// A region with its origin (z, y, x) in a whole volume of shape (z, y, x).
Source regionOf(py::handle region, const std::array<int64_t, 3>& originZyx,
                const std::array<int64_t, 3>& shapeZyx) {
    Source s = wholeVolume(region, "region");
    const QelVolumeSize whole{toInt32Extent(shapeZyx[2], "width"),
                              toInt32Extent(shapeZyx[1], "height"),
                              toInt32Extent(shapeZyx[0], "depth")};
    for (int a = 0; a < 3; ++a) {
        if (originZyx[a] < 0 || originZyx[a] + s.data.shape(a) > shapeZyx[a]) {
            valueError("region: does not lie inside the whole volume");
        }
    }
    s.origin = {static_cast<int32_t>(originZyx[2]), static_cast<int32_t>(originZyx[1]),
                static_cast<int32_t>(originZyx[0])};
    s.whole = whole;
    return s;
}

// A fresh output array of the source's type, filled with cval when given.
template <class T>
py::array newOutput(const std::array<py::ssize_t, 3>& shape, const double* cval) {
    py::array_t<T> out({shape[0], shape[1], shape[2]});
    if (cval != nullptr) {
        T* p = out.mutable_data();
        const T v = static_cast<T>(*cval);
        std::fill(p, p + out.size(), v);
    }
    return out;
}

// The fill value of untouched voxels, checked against the element type.
template <class T>
double fillValue(double cval) {
    if constexpr (!std::is_same_v<T, float>) {
        const double lo = 0.0, hi = std::is_same_v<T, uint8_t> ? 255.0 : 65535.0;
        if (!(cval >= lo && cval <= hi) || cval != std::floor(cval)) {
            valueError("cval: expected an integer in the range of the volume's type, got " +
                       std::to_string(cval));
        }
    }
    return cval;
}

// The address that element (0, 0, 0) of a whole output would have, for an
// output array that holds the box starting at (x, y, z).
uint8_t* virtualOutputBase(py::array& out, const QelBox3D& box) {
    return static_cast<uint8_t*>(out.mutable_data()) - box.z * out.strides(0) -
           box.y * out.strides(1) - box.x * out.itemsize();
}

template <class T>
std::vector<T*> outputPlanes(py::array& out, const QelBox3D& box) {
    std::vector<T*> p(static_cast<std::size_t>(box.z + box.depth), nullptr);
    uint8_t* base = virtualOutputBase(out, box);
    for (int32_t z = box.z; z < box.z + box.depth; ++z) {
        p[z] = reinterpret_cast<T*>(base + static_cast<py::ssize_t>(z) * out.strides(0));
    }
    return p;
}

bool fitsInt(py::ssize_t v) { return v >= INT_MIN && v <= INT_MAX; }

template <class Fn>
auto byVolumeType(const py::array& a, const char* what, Fn&& fn) {
    if (hasDtype<uint8_t>(a)) return fn(uint8_t{});
    if (hasDtype<uint16_t>(a)) return fn(uint16_t{});
    if (hasDtype<float>(a)) return fn(float{});
    typeError(std::string(what) + ": expected uint8, uint16 or float32, got " + dtypeName(a));
}

// ---------------------------------------------------------------------------
// Resize

// The entry point of a volume function for element type T, from its 8u, 16u
// and 32f forms.
template <class T, class F8, class F16, class F32>
constexpr auto forType(F8 f8, F16 f16, F32 f32) {
    if constexpr (std::is_same_v<T, uint8_t>)
        return f8;
    else if constexpr (std::is_same_v<T, uint16_t>)
        return f16;
    else
        return f32;
}

struct ResizeGeometry {
    std::array<double, 3> scale, offset;  // x, y, z
    int mode;
};

// The box of the whole output: the resize cuboid of the whole volume.
// Returns false (after the warning) when it is empty.
bool resizeCuboid(const QelVolumeSize& whole, const ResizeGeometry& g, QelBox3D& box) {
    const QelBox3D src{0, 0, 0, whole.width, whole.height, whole.depth};
    const QelStatus st = qelrGetResizeCuboid(src, &box, g.scale[0], g.scale[1], g.scale[2],
                                             g.offset[0], g.offset[1], g.offset[2], g.mode);
    checkStatus(st, "qelrGetResizeCuboid");
    return st == qelOk;
}

template <class T>
py::array resizeBox(const Source& s, const ResizeGeometry& g, const QelBox3D& box) {
    py::array out = newOutput<T>({box.depth, box.height, box.width}, nullptr);
    const QelBox3D srcBox = s.wholeBox();
    const bool v = fitsInt(s.data.strides(0)) && fitsInt(out.strides(0));
    const QelStatus st = withoutGil([&] {
        int size = 0;
        QelStatus q = qelrResizeGetBufSize(srcBox, box, 1, g.mode, &size);
        if (q != qelOk) return q;
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[static_cast<std::size_t>(size)]);
        if (v) {
            return forType<T>(qelrResize_8u_C1V, qelrResize_16u_C1V, qelrResize_32f_C1V)(
                reinterpret_cast<const T*>(s.virtualBase()), s.whole,
                static_cast<int>(s.data.strides(1)), static_cast<int>(s.data.strides(0)), srcBox,
                reinterpret_cast<T*>(virtualOutputBase(out, box)),
                static_cast<int>(out.strides(1)), static_cast<int>(out.strides(0)), box,
                g.scale[0], g.scale[1], g.scale[2], g.offset[0], g.offset[1], g.offset[2], g.mode,
                buffer.get());
        }
        const std::vector<const T*> src = s.planes<T>();
        const std::vector<T*> dst = outputPlanes<T>(out, box);
        constexpr auto resize =
            forType<T>(qelrResize_8u_C1PV, qelrResize_16u_C1PV, qelrResize_32f_C1PV);
        return resize(src.data(), s.whole, static_cast<int>(s.data.strides(1)), srcBox, dst.data(),
                      static_cast<int>(out.strides(1)), box, g.scale[0], g.scale[1], g.scale[2],
                      g.offset[0], g.offset[1], g.offset[2], g.mode, buffer.get());
    });
    checkStatus(st, "qelrResize");
    return out;
}

ResizeGeometry resizeGeometry(py::handle scale, py::handle offset, py::handle mode) {
    return {xyzTriple(scale, "scale"), xyzTriple(offset, "offset"), parseMode(mode)};
}

py::array resize(py::handle volume, py::handle scale, py::handle mode, py::handle offset) {
    const Source s = wholeVolume(volume, "volume");
    const ResizeGeometry g = resizeGeometry(scale, offset, mode);
    return byVolumeType(s.data, "volume", [&](auto t) -> py::array {
        using T = decltype(t);
        QelBox3D box;
        if (!resizeCuboid(s.whole, g, box)) return newOutput<T>({0, 0, 0}, nullptr);
        return resizeBox<T>(s, g, box);
    });
}

// The output box (z, y, x, depth, height, width) of the whole resize.
py::tuple resizeShape(std::array<int64_t, 3> shape, py::handle scale, py::handle offset,
                      py::handle mode) {
    const QelVolumeSize whole{toInt32Extent(shape[2], "width"), toInt32Extent(shape[1], "height"),
                              toInt32Extent(shape[0], "depth")};
    QelBox3D box{0, 0, 0, 0, 0, 0};
    resizeCuboid(whole, resizeGeometry(scale, offset, mode), box);
    return py::make_tuple(box.z, box.y, box.x, box.depth, box.height, box.width);
}

QelBox3D boxOf(const std::array<int64_t, 6>& zyxdhw) {
    for (int64_t v : zyxdhw) {
        if (v < 0 || v > INT32_MAX) valueError("box: out of range");
    }
    return {static_cast<int32_t>(zyxdhw[2]), static_cast<int32_t>(zyxdhw[1]),
            static_cast<int32_t>(zyxdhw[0]), static_cast<int32_t>(zyxdhw[5]),
            static_cast<int32_t>(zyxdhw[4]), static_cast<int32_t>(zyxdhw[3])};
}

py::array resizeBlock(py::handle region, std::array<int64_t, 3> origin,
                      std::array<int64_t, 3> shape, py::handle scale, py::handle offset,
                      py::handle mode, std::array<int64_t, 6> box) {
    const Source s = regionOf(region, origin, shape);
    const ResizeGeometry g = resizeGeometry(scale, offset, mode);
    return byVolumeType(s.data, "region",
                        [&](auto t) { return resizeBox<decltype(t)>(s, g, boxOf(box)); });
}

// ---------------------------------------------------------------------------
// Remap

// The coordinates (3, d, h, w) as float32 with rows contiguous.
py::array coordinateVolume(py::handle coordinates) {
    py::array c = py::array_t<float, py::array::forcecast>::ensure(coordinates);
    if (!c) typeError("coordinates: expected an array of real numbers");
    if (c.ndim() < 1 || c.shape(0) != 3) {
        valueError("coordinates: expected shape (3, ...) with the z, y and x positions");
    }
    std::vector<py::ssize_t> shape(4, 1);
    if (c.ndim() <= 4) {
        for (py::ssize_t i = 1; i < c.ndim(); ++i) shape[4 - c.ndim() + i] = c.shape(i);
    } else {
        for (py::ssize_t i = 1; i + 2 < c.ndim(); ++i) shape[1] *= c.shape(i);
        shape[2] = c.shape(c.ndim() - 2);
        shape[3] = c.shape(c.ndim() - 1);
    }
    shape[0] = 3;
    if (c.ndim() != 4) c = c.attr("reshape")(shape);
    for (int i = 1; i < 4; ++i) toInt32Extent(shape[i], "coordinates");
    return withContiguousRows(c);
}

template <class T>
py::array remapImpl(const Source& s, const py::array& c, int mode, double cval) {
    const std::array<py::ssize_t, 3> shape{c.shape(1), c.shape(2), c.shape(3)};
    py::array out = newOutput<T>(shape, &cval);
    const QelVolumeSize dstSize{static_cast<int32_t>(shape[2]), static_cast<int32_t>(shape[1]),
                                static_cast<int32_t>(shape[0])};
    const QelStatus st = withoutGil([&] {
        const std::vector<const T*> src = s.planes<T>();
        std::vector<const float*> maps[3];
        auto* base = static_cast<const uint8_t*>(c.data());
        for (int a = 0; a < 3; ++a) {  // component 2 is x, 1 y, 0 z
            for (py::ssize_t z = 0; z < shape[0]; ++z) {
                maps[a].push_back(reinterpret_cast<const float*>(base + (2 - a) * c.strides(0) +
                                                                 z * c.strides(1)));
            }
        }
        std::vector<T*> dst = outputPlanes<T>(out, {0, 0, 0, 0, 0, dstSize.depth});
        constexpr auto remap = forType<T>(qelrRemap_8u_C1PV, qelrRemap_16u_C1PV, qelrRemap_32f_C1PV);
        return remap(src.data(), s.whole, static_cast<int>(s.data.strides(1)), s.regionBox(),
                     maps[0].data(), maps[1].data(), maps[2].data(), static_cast<int>(c.strides(2)),
                     dst.data(), static_cast<int>(out.strides(1)), dstSize, mode);
    });
    checkStatus(st, "qelrRemap");
    return out;
}

py::array remapShaped(const Source& s, py::handle coordinates, py::handle mode, double cval,
                      bool reshape) {
    py::array given = py::array::ensure(coordinates);
    const py::array c = coordinateVolume(coordinates);
    const int m = parseMode(mode);
    py::array out = byVolumeType(s.data, "volume", [&](auto t) {
        using T = decltype(t);
        return remapImpl<T>(s, c, m, fillValue<T>(cval));
    });
    if (!reshape || !given || given.ndim() == 4) return out;
    std::vector<py::ssize_t> shape(given.shape() + 1, given.shape() + given.ndim());
    return out.attr("reshape")(shape);
}

py::array mapCoordinates(py::handle volume, py::handle coordinates, py::handle mode,
                         double cval) {
    return remapShaped(wholeVolume(volume, "volume"), coordinates, mode, cval, true);
}

py::array remapBlock(py::handle region, std::array<int64_t, 3> origin,
                     std::array<int64_t, 3> shape, py::handle coordinates, py::handle mode,
                     double cval) {
    return remapShaped(regionOf(region, origin, shape), coordinates, mode, cval, false);
}

// ---------------------------------------------------------------------------
// Affine warp

using Coeffs = std::array<std::array<double, 4>, 3>;

// scipy.ndimage's matrix and offset (output index to input index, z, y, x)
// as the library's forward transform in x, y, z (input to output).
Coeffs forwardTransform(py::handle matrix, py::handle offset) {
    auto m = py::array_t<double, py::array::forcecast>::ensure(matrix);
    if (!m) typeError("matrix: expected an array of real numbers");
    double lin[3][3] = {};   // z, y, x
    double shift[3] = {};    // z, y, x
    bool homogeneous = false;
    if (m.ndim() == 1 && m.shape(0) == 3) {
        for (int i = 0; i < 3; ++i) lin[i][i] = m.at(i);
    } else if (m.ndim() == 2 && m.shape(1) == 3 && m.shape(0) == 3) {
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 3; ++j) lin[i][j] = m.at(i, j);
    } else if (m.ndim() == 2 && m.shape(1) == 4 && (m.shape(0) == 3 || m.shape(0) == 4)) {
        for (int i = 0; i < 3; ++i) {
            for (int j = 0; j < 3; ++j) lin[i][j] = m.at(i, j);
            shift[i] = m.at(i, 3);
        }
        homogeneous = true;
    } else {
        valueError("matrix: expected shape (3,), (3, 3), (3, 4) or (4, 4)");
    }
    if (!homogeneous) {
        const std::array<double, 3> o = xyzTriple(offset, "offset");  // x, y, z
        for (int i = 0; i < 3; ++i) shift[i] = o[2 - i];
    }
    // To x, y, z order: a[i][j] = lin[2 - i][2 - j].
    double a[3][3], t[3];
    for (int i = 0; i < 3; ++i) {
        t[i] = shift[2 - i];
        for (int j = 0; j < 3; ++j) a[i][j] = lin[2 - i][2 - j];
    }
    const double c00 = a[1][1] * a[2][2] - a[1][2] * a[2][1];
    const double c01 = a[1][2] * a[2][0] - a[1][0] * a[2][2];
    const double c02 = a[1][0] * a[2][1] - a[1][1] * a[2][0];
    const double det = a[0][0] * c00 + a[0][1] * c01 + a[0][2] * c02;
    if (!(det != 0.0) || !std::isfinite(det)) {
        raiseStatus(qelErrSingularTransform, "affine_transform (the matrix has no inverse)");
    }
    const double inv[3][3] = {
        {c00 / det, (a[0][2] * a[2][1] - a[0][1] * a[2][2]) / det,
         (a[0][1] * a[1][2] - a[0][2] * a[1][1]) / det},
        {c01 / det, (a[0][0] * a[2][2] - a[0][2] * a[2][0]) / det,
         (a[0][2] * a[1][0] - a[0][0] * a[1][2]) / det},
        {c02 / det, (a[0][1] * a[2][0] - a[0][0] * a[2][1]) / det,
         (a[0][0] * a[1][1] - a[0][1] * a[1][0]) / det}};
    Coeffs c;
    for (int i = 0; i < 3; ++i) {
        for (int j = 0; j < 3; ++j) c[i][j] = inv[i][j];
        c[i][3] = -(inv[i][0] * t[0] + inv[i][1] * t[1] + inv[i][2] * t[2]);
    }
    return c;
}

template <class T>
py::array warpImpl(const Source& s, const Coeffs& c, const QelBox3D& box, int mode, double cval) {
    py::array out = newOutput<T>({box.depth, box.height, box.width}, &cval);
    double coeffs[3][4];
    for (int i = 0; i < 3; ++i)
        for (int j = 0; j < 4; ++j) coeffs[i][j] = c[i][j];
    const QelStatus st = withoutGil([&] {
        const std::vector<const T*> src = s.planes<T>();
        const std::vector<T*> dst = outputPlanes<T>(out, box);
        constexpr auto warp =
            forType<T>(qelrWarpAffine_8u_C1PV, qelrWarpAffine_16u_C1PV, qelrWarpAffine_32f_C1PV);
        return warp(src.data(), s.whole, static_cast<int>(s.data.strides(1)), s.regionBox(),
                    dst.data(), static_cast<int>(out.strides(1)), box, coeffs, mode);
    });
    checkStatus(st, "qelrWarpAffine");
    return out;
}

py::array affineTransform(py::handle volume, py::handle matrix, py::handle offset,
                          py::handle outputShape, py::handle mode, double cval) {
    const Source s = wholeVolume(volume, "volume");
    QelBox3D box{0, 0, 0, s.whole.width, s.whole.height, s.whole.depth};
    if (!outputShape.is_none()) {
        const auto shape = outputShape.cast<std::vector<int64_t>>();
        if (shape.size() != 3) valueError("output_shape: expected three extents (z, y, x)");
        box.depth = toInt32Extent(shape[0], "output_shape");
        box.height = toInt32Extent(shape[1], "output_shape");
        box.width = toInt32Extent(shape[2], "output_shape");
    }
    const Coeffs c = forwardTransform(matrix, offset);
    const int m = parseMode(mode);
    return byVolumeType(s.data, "volume", [&](auto t) {
        using T = decltype(t);
        return warpImpl<T>(s, c, box, m, fillValue<T>(cval));
    });
}

py::array warpBlock(py::handle region, std::array<int64_t, 3> origin, std::array<int64_t, 3> shape,
                    Coeffs coeffs, std::array<int64_t, 6> box, py::handle mode, double cval) {
    const Source s = regionOf(region, origin, shape);
    const int m = parseMode(mode);
    return byVolumeType(s.data, "region", [&](auto t) {
        using T = decltype(t);
        return warpImpl<T>(s, coeffs, boxOf(box), m, fillValue<T>(cval));
    });
}

// ---------------------------------------------------------------------------
// Filter

enum class Border { Reflect, Mirror, Nearest, Wrap, Constant };

Border parseBorder(py::handle mode) {
    const std::string name = py::str(mode);
    if (name == "reflect" || name == "grid-mirror") return Border::Reflect;
    if (name == "mirror") return Border::Mirror;
    if (name == "nearest") return Border::Nearest;
    if (name == "wrap" || name == "grid-wrap") return Border::Wrap;
    if (name == "constant" || name == "grid-constant") return Border::Constant;
    valueError("mode: expected 'reflect', 'mirror', 'nearest', 'wrap' or 'constant', got '" +
               name + "'");
}

// The element of an axis of n elements that position i (any integer) reads
// under the border rule; -1 for the constant.
int64_t borderIndex(int64_t i, int64_t n, Border b) {
    if (i >= 0 && i < n) return i;
    switch (b) {
        case Border::Reflect: {  // d c b a | a b c d | d c b a
            int64_t j = ((i % (2 * n)) + 2 * n) % (2 * n);
            return j < n ? j : 2 * n - 1 - j;
        }
        case Border::Mirror: {  // d c b | a b c d | c b a
            if (n == 1) return 0;
            const int64_t p = 2 * n - 2;
            int64_t j = ((i % p) + p) % p;
            return j < n ? j : p - j;
        }
        case Border::Nearest:
            return i < 0 ? 0 : n - 1;
        case Border::Wrap:
            return ((i % n) + n) % n;
        case Border::Constant:
            return -1;
    }
    return -1;
}

// The kernel as int32 [z, y, x], C order.
py::array_t<int32_t> kernelOf(py::handle weights) {
    py::array w = py::array::ensure(weights);
    if (!w) typeError("weights: expected an integer array");
    const char kind = w.dtype().kind();
    if (kind != 'i' && kind != 'u' && kind != 'b') {
        typeError("weights: expected an integer kernel, got " + dtypeName(w));
    }
    requireNdim(w, 3, "weights", "indexed [z, y, x]");
    for (int a = 0; a < 3; ++a) toInt32Extent(w.shape(a), "weights");
    if (kind == 'u' && w.itemsize() == 8 && w.size() > 0 &&
        w.attr("max")().cast<uint64_t>() > static_cast<uint64_t>(INT32_MAX)) {
        valueError("weights: every weight must fit a 32-bit signed integer");
    }
    if (hasDtype<int32_t>(w) && (w.flags() & py::array::c_style)) {
        return py::reinterpret_borrow<py::array_t<int32_t>>(w);
    }
    const auto wide = py::array_t<int64_t, py::array::c_style | py::array::forcecast>::ensure(w);
    py::array_t<int32_t> k({w.shape(0), w.shape(1), w.shape(2)});
    const int64_t* in = wide.data();
    int32_t* out = k.mutable_data();
    for (py::ssize_t i = 0; i < k.size(); ++i) {
        if (in[i] < INT32_MIN || in[i] > INT32_MAX) {
            valueError("weights: every weight must fit a 32-bit signed integer");
        }
        out[i] = static_cast<int32_t>(in[i]);
    }
    return k;
}

struct FilterJob {
    py::array region;  // int16 [z, y, x], rows contiguous
    py::array_t<int32_t> kernel;
    int divisor;
    int16_t cval;
};

// Per axis (x, y, z), the region element that each position of the padded
// block reads, -1 for the constant: the block and the kernel's reach.
using IndexMaps = std::array<std::vector<int64_t>, 3>;

// Filters the block whose padded source the maps describe: the elements are
// gathered into a padded block, which the library filters.
py::array filterMapped(const FilterJob& j, const IndexMaps& index) {
    const py::array& s = j.region;
    const int32_t kw = static_cast<int32_t>(j.kernel.shape(2));
    const int32_t kh = static_cast<int32_t>(j.kernel.shape(1));
    const int32_t kd = static_cast<int32_t>(j.kernel.shape(0));
    const QelOffset3D anchor{kw / 2, kh / 2, kd / 2};
    const int64_t ext[3] = {static_cast<int64_t>(index[0].size()),
                            static_cast<int64_t>(index[1].size()),
                            static_cast<int64_t>(index[2].size())};
    const int64_t k[3] = {kw, kh, kd};
    for (int a = 0; a < 3; ++a) {
        if (ext[a] < k[a] || ext[a] > INT32_MAX) valueError("maps: wrong lengths for the kernel");
        for (int64_t e : index[a]) {
            if (e < -1 || e >= s.shape(2 - a)) valueError("maps: an index lies outside the region");
        }
    }
    const QelVolumeSize roi{static_cast<int32_t>(ext[0] - kw + 1),
                            static_cast<int32_t>(ext[1] - kh + 1),
                            static_cast<int32_t>(ext[2] - kd + 1)};
    // Copies the elements the maps name into a padded block at dst.
    // Padded planes [zFirst, zFirst + zCount) only.
    const auto gather = [&](int16_t* dst, std::size_t rowLen, std::size_t planeLen, int64_t zFirst,
                            int64_t zCount) {
        // The longest run of consecutive elements along x is copied whole.
        std::size_t runFirst = 0, runLength = 0;
        for (std::size_t x = 0, first = 0; x < rowLen; ++x) {
            if (x > 0 && (index[0][x] < 0 || index[0][x] != index[0][x - 1] + 1)) first = x;
            if (index[0][first] >= 0 && x + 1 - first > runLength) {
                runFirst = first;
                runLength = x + 1 - first;
            }
        }
        const auto* base = static_cast<const uint8_t*>(s.data());
        for (int64_t z = 0; z < zCount; ++z) {
            for (int64_t y = 0; y < ext[1]; ++y) {
                int16_t* row = dst + z * planeLen + y * rowLen;
                const int64_t iz = index[2][zFirst + z], iy = index[1][y];
                if (iz < 0 || iy < 0) {
                    std::fill(row, row + rowLen, j.cval);
                    continue;
                }
                const auto* in = reinterpret_cast<const int16_t*>(base + iz * s.strides(0) +
                                                                  iy * s.strides(1));
                for (std::size_t x = 0; x < rowLen; ++x) {
                    if (x == runFirst && runLength > 0) {
                        std::memcpy(row + x, in + index[0][x], runLength * sizeof(int16_t));
                        x += runLength - 1;
                        continue;
                    }
                    row[x] = index[0][x] < 0 ? j.cval : in[index[0][x]];
                }
            }
        }
    };
    // A region that is already the padded block (a block inside the volume)
    // is filtered where it lies.
    bool inPlace = s.strides(1) > 0 && s.strides(0) > 0 && s.strides(0) <= INT_MAX;
    for (int a = 0; a < 3 && inPlace; ++a) {
        inPlace = s.shape(2 - a) == ext[a];
        for (int64_t i = 0; i < ext[a] && inPlace; ++i) inPlace = index[a][i] == i;
    }
    py::array_t<int16_t> out({roi.depth, roi.height, roi.width});
    const QelStatus st = withoutGil([&] {
        const std::size_t rowLen = static_cast<std::size_t>(inPlace ? s.strides(1) / 2 : ext[0]);
        const std::size_t planeLen = static_cast<std::size_t>(inPlace ? s.strides(0) / 2 : rowLen * ext[1]);
        // A padded copy is made and filtered in slabs of output planes, so
        // it stays small and in cache; the split does not change any value.
        const int32_t slab = inPlace ? roi.depth : std::min<int32_t>(roi.depth, 32);
        std::unique_ptr<int16_t[]> owned;
        if (!inPlace) owned.reset(new int16_t[planeLen * static_cast<std::size_t>(slab + kd - 1)]);
        // The library addresses the source from the element under the first
        // output voxel and reaches kd - 1 - anchor planes below it.
        const std::size_t below = static_cast<std::size_t>(kd - 1 - anchor.z);
        const std::size_t lead = static_cast<std::size_t>(kh - 1 - anchor.y) * rowLen +
                                 static_cast<std::size_t>(kw - 1 - anchor.x);
        const QelVolumeSize ks{kw, kh, kd};
        int size = 0;
        const QelStatus q = qelrFilterGetBufSize(roi, ks, 1, &size);
        if (q != qelOk) return q;
        std::unique_ptr<uint8_t[]> buffer(new uint8_t[static_cast<std::size_t>(size)]);
        std::vector<const int16_t*> src(static_cast<std::size_t>(slab + kd - 1));
        std::vector<int16_t*> dst(static_cast<std::size_t>(slab));
        for (int32_t z0 = 0; z0 < roi.depth; z0 += slab) {
            const int32_t n = std::min(slab, roi.depth - z0);
            const int16_t* padded = static_cast<const int16_t*>(s.data()) + z0 * planeLen;
            if (!inPlace) {
                gather(owned.get(), rowLen, planeLen, z0, n + kd - 1);
                padded = owned.get();
            }
            for (int32_t z = 0; z < n + kd - 1; ++z) src[z] = padded + z * planeLen + lead;
            for (int32_t z = 0; z < n; ++z) {
                dst[z] = out.mutable_data() + (z0 + z) * static_cast<std::size_t>(roi.height) * roi.width;
            }
            const QelStatus f = qelrFilter_16s_C1PV(src.data() + below, static_cast<int>(rowLen * 2),
                                                    dst.data(), roi.width * 2, {roi.width, roi.height, n},
                                                    j.kernel.data(), ks, anchor, j.divisor, buffer.get());
            if (f != qelOk) return f;
        }
        return QelStatus{qelOk};
    });
    checkStatus(st, "qelrFilter_16s_C1PV");
    return out;
}

FilterJob filterJob(py::handle region, py::handle weights, long long divisor, double cval) {
    py::array a = requireArray(region, "volume");
    requireNdim(a, 3, "volume", "indexed [z, y, x]");
    if (!hasDtype<int16_t>(a)) typeError("volume: expected int16, got " + dtypeName(a));
    volumeSizeOf(a);
    if (divisor < INT_MIN || divisor > INT_MAX) valueError("divisor: must fit a 32-bit integer");
    if (!(cval >= -32768.0 && cval <= 32767.0) || cval != std::floor(cval)) {
        valueError("cval: expected an integer in the int16 range");
    }
    return {withContiguousRows(a), kernelOf(weights), static_cast<int>(divisor),
            static_cast<int16_t>(cval)};
}

// Per axis (x, y, z), the whole-volume element that each position of the
// padded block of `box` reads under the border rule (-1 for the constant).
IndexMaps borderMaps(const std::array<int64_t, 3>& shapeXyz, const std::array<int64_t, 3>& kXyz,
                     Border border, const QelBox3D& box) {
    const int64_t first[3] = {box.x, box.y, box.z}, count[3] = {box.width, box.height, box.depth};
    IndexMaps maps;
    for (int a = 0; a < 3; ++a) {
        const int64_t k = kXyz[a], start = first[a] - (k - 1 - k / 2);
        for (int64_t i = 0; i < count[a] + k - 1; ++i) {
            maps[a].push_back(borderIndex(start + i, shapeXyz[a], border));
        }
    }
    return maps;
}

py::array convolve(py::handle volume, py::handle weights, long long divisor, py::handle mode,
                   double cval) {
    const FilterJob j = filterJob(volume, weights, divisor, cval);
    const QelVolumeSize w = volumeSizeOf(j.region);
    const Border border = parseBorder(mode);
    return filterMapped(j, borderMaps({w.width, w.height, w.depth},
                                      {j.kernel.shape(2), j.kernel.shape(1), j.kernel.shape(0)},
                                      border, {0, 0, 0, w.width, w.height, w.depth}));
}

// The whole-volume elements (z, y, x arrays) that the padded block of box
// (z, y, x, d, h, w) reads.
py::tuple convolveIndices(std::array<int64_t, 3> shape, std::array<int64_t, 3> kernel,
                          py::handle mode, std::array<int64_t, 6> box) {
    const IndexMaps maps = borderMaps({shape[2], shape[1], shape[0]}, {kernel[2], kernel[1], kernel[0]},
                                      parseBorder(mode), boxOf(box));
    return py::make_tuple(py::array(py::cast(maps[2])), py::array(py::cast(maps[1])),
                          py::array(py::cast(maps[0])));
}

// A block from a region and its maps (z, y, x: region element per padded
// position, -1 for cval).
py::array convolveMapped(py::handle region, std::vector<int64_t> mz, std::vector<int64_t> my,
                         std::vector<int64_t> mx, py::handle weights, long long divisor,
                         double cval) {
    const FilterJob j = filterJob(region, weights, divisor, cval);
    return filterMapped(j, {std::move(mx), std::move(my), std::move(mz)});
}

}  // namespace

void bindVolume(py::module_& m) {
    // Positional: the package's Python functions give the interface.
    m.def("resize", &resize);
    m.def("map_coordinates", &mapCoordinates);
    m.def("affine_transform", &affineTransform);
    m.def("convolve", &convolve);
    // Block forms for qelr.dask.
    m.def("_resize_shape", &resizeShape);
    m.def("_resize_block", &resizeBlock);
    m.def("_remap_block", &remapBlock);
    m.def("_forward_transform", &forwardTransform);
    m.def("_warp_block", &warpBlock);
    m.def("_convolve_indices", &convolveIndices);
    m.def("_convolve_mapped", &convolveMapped);
}

}  // namespace qelr::py_ext
