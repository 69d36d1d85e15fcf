// Volume resize (both layouts), remap, affine warp and filter, with the resize cuboid and the buffer-size queries.
// Destination buffers hold only the destination box (pointers moved so that its absolute coordinates land on them),
// so any write outside the box leaves the allocation.
#include <algorithm>

#include "fuzz_input.h"

using namespace fuzz;

namespace {

// An extent: small, now and then 16 or more (the parallel paths), zero or negative. Only positions go to the
// 32-bit edge: an extent there would ask for too much memory.
int extent(Input& in, bool big) {
    const uint8_t s = in.u8();
    if (s < 8) return in.range(-2, 0);
    return big ? in.range(16, 18) : 1 + s % 6;
}

QelBox3D box(Input& in, const QelVolumeSize& v, bool big) {
    QelBox3D b;
    int* f = &b.x;
    const int ext[3] = {v.width, v.height, v.depth};
    for (int a = 0; a < 3; ++a) {
        const uint8_t s = in.u8();
        f[a] = s < 8 ? in.size(2) : s < 16 ? INT32_MAX - in.range(0, 3) : in.range(0, ext[a] > 1 ? 2 : 1);
        f[3 + a] = extent(in, big);
    }
    return b;
}

// The box of a whole volume (one element when the size is not valid).
QelBox3D whole(const QelVolumeSize& v) {
    const bool ok = v.width > 0 && v.height > 0 && v.depth > 0;
    return {0, 0, 0, ok ? v.width : 1, ok ? v.height : 1, ok ? v.depth : 1};
}

// The export of element type T among the 8u, 16u and 32f forms; f called with a value of element type number t.
template <class T, class F8, class F16, class F32>
auto byType(F8 f8, F16 f16, F32 f32) {
    if constexpr (sizeof(T) == 1) return f8;
    else if constexpr (sizeof(T) == 2) return f16;
    else return f32;
}
template <class F>
QelStatus forType(int t, F f) {
    return t == 0 ? f(uint8_t{}) : t == 1 ? f(uint16_t{}) : f(float{});
}

// A volume of element size es covering `b` (one element when b is not well formed), addressed by absolute coordinates.
struct Vol {
    std::vector<uint8_t*> planes;
    uint8_t** pv = nullptr;  // planes, moved so that pv[z] is plane z of the box
    uint8_t* base = nullptr; // contiguous layout: element (0, 0, 0)
    int rowStep = 1, sliceStep = 1;
    Vol(Input& in, Arena& a, const QelBox3D& b, int es, bool contiguous) {
        const bool ok = b.x >= 0 && b.y >= 0 && b.z >= 0 && b.width > 0 && b.height > 0 && b.depth > 0;
        const int w = ok ? b.width : 1, h = ok ? b.height : 1, d = ok ? b.depth : 1;
        rowStep = (w + in.range(0, 1) * in.range(1, 3)) * es;
        const size_t plane = size_t(h - 1) * rowStep + size_t(w) * es;
        const int64_t shift = ok ? -(int64_t{b.x} * es + int64_t{b.y} * rowStep) : 0;
        auto bytes = [&](size_t n) { return a.fill<uint8_t>(n, false, [&] { return in.u8(); }); };
        if (contiguous) {
            sliceStep = int(h * rowStep + in.range(0, 1) * es);
            base = movedBy(bytes(size_t(d - 1) * sliceStep + plane), shift - (ok ? int64_t{b.z} * sliceStep : 0));
        } else {
            for (int k = 0; k < d; ++k) planes.push_back(movedBy(bytes(plane), shift));
            pv = movedBy(planes.data(), ok ? -int64_t{b.z} * 8 : 0);
        }
    }
};

template <class T>
QelStatus resize(Input& in, Arena& a, bool contiguous, bool big) {
    const QelVolumeSize ss{extent(in, big), extent(in, big), extent(in, big)};
    const QelBox3D sb = box(in, ss, big), db = box(in, ss, big);
    double f[6];
    for (int i = 0; i < 3; ++i) f[i] = in.u8() < 200 ? in.range(1, 12) / 4.0 : in.f64();
    for (int i = 3; i < 6; ++i) f[i] = in.f64();
    const int mode = in.range(0, 8);
    int bytes = 0;
    if (qelrResizeGetBufSize(sb, db, 1, mode, &bytes) != qelOk) bytes = in.range(0, 64);
    uint8_t* work = a.alloc<uint8_t>(size_t(bytes));
    Vol src(in, a, whole(ss), sizeof(T), contiguous), dst(in, a, db, sizeof(T), contiguous);
    if (contiguous)
        return byType<T>(qelrResize_8u_C1V, qelrResize_16u_C1V, qelrResize_32f_C1V)(
            reinterpret_cast<const T*>(src.base), ss, src.rowStep, src.sliceStep, sb, reinterpret_cast<T*>(dst.base),
            dst.rowStep, dst.sliceStep, db, f[0], f[1], f[2], f[3], f[4], f[5], mode, work);
    return byType<T>(qelrResize_8u_C1PV, qelrResize_16u_C1PV, qelrResize_32f_C1PV)(
        reinterpret_cast<const T* const*>(src.pv), ss, src.rowStep, sb, reinterpret_cast<T* const*>(dst.pv),
        dst.rowStep, db, f[0], f[1], f[2], f[3], f[4], f[5], mode, work);
}

template <class T>
QelStatus remapOrWarp(Input& in, Arena& a, bool warp, bool big) {
    const QelVolumeSize ss{extent(in, big), extent(in, big), in.flag() ? 1 : extent(in, big)};
    const QelBox3D sb = box(in, ss, big);
    const int mode = in.range(0, 8);
    Vol src(in, a, whole(ss), sizeof(T), false);
    // Steps below 1 are refused by the single-plane remap; elsewhere they are the caller's to get right.
    const bool badStep = !warp && ss.depth == 1 && in.u8() < 16;
    const int srcStep = badStep ? in.range(-2, 0) : src.rowStep;
    if (warp) {
        const QelBox3D db = box(in, ss, big);
        Vol dst(in, a, db, sizeof(T), false);
        double c[3][4];
        const bool raw = in.u8() < 64;
        for (int i = 0; i < 3; ++i)
            for (int j = 0; j < 4; ++j) c[i][j] = raw ? in.f64() : (i == j) + in.range(-4, 4) / 4.0;
        return byType<T>(qelrWarpAffine_8u_C1PV, qelrWarpAffine_16u_C1PV, qelrWarpAffine_32f_C1PV)(
            reinterpret_cast<const T* const*>(src.pv), ss, src.rowStep, sb, reinterpret_cast<T* const*>(dst.pv),
            dst.rowStep, db, c, mode);
    }
    const QelVolumeSize dv{extent(in, big), extent(in, big), extent(in, big)};
    const QelBox3D dwhole = whole(dv);
    Vol dst(in, a, dwhole, sizeof(T), false);
    const int mapStep = dwhole.width * 4;
    const float scale = float(in.range(1, 8));
    const size_t n = size_t(dwhole.width) * dwhole.height;
    auto plane = [&] { return a.fill<float>(n, false, [&] { return in.f32() * scale; }); };
    const float* const* maps[3];
    for (auto& m : maps) m = a.fill<float*>(size_t(dwhole.depth), false, plane);
    return byType<T>(qelrRemap_8u_C1PV, qelrRemap_16u_C1PV, qelrRemap_32f_C1PV)(reinterpret_cast<const T* const*>(src.pv), ss, srcStep, sb, maps[0], maps[1], maps[2],
              badStep && in.flag() ? 0 : mapStep, reinterpret_cast<T* const*>(dst.pv), dst.rowStep, dv, mode);
}

QelStatus filter(Input& in, Arena& a, bool big) {
    const QelVolumeSize roi{extent(in, big), extent(in, big), extent(in, big)};
    const QelVolumeSize ks{in.u8() < 8 ? in.size(1) : in.range(1, 5), in.range(1, 3), in.range(1, 3)};
    const QelOffset3D an{in.range(-1, 4), in.range(-1, 3), in.range(-1, 3)};
    const int divisors[] = {0, 1, -1, 2, 3, 4, -7, 64, INT32_MIN, INT32_MAX};
    const int divisor = divisors[in.range(0, 9)];
    int bytes = 0;
    if (qelrFilterGetBufSize(roi, ks, 1, &bytes) != qelOk) bytes = 0;
    uint8_t* work = a.alloc<uint8_t>(size_t(bytes));
    if (!(roi.width > 0 && roi.height > 0 && roi.depth > 0 && ks.width > 0 && ks.height > 0 && ks.depth > 0)) {
        int16_t* one[1] = {a.alloc<int16_t>(1)};
        int32_t k = 1;
        return qelrFilter_16s_C1PV(one, 2, one, 2, roi, &k, ks, an, divisor, work);
    }
    // The source region the kernel reaches, per axis: [anchor - (k - 1), roi - 1 + anchor].
    const int lo[3] = {an.x - (ks.width - 1), an.y - (ks.height - 1), an.z - (ks.depth - 1)};
    const int hi[3] = {roi.width - 1 + an.x, roi.height - 1 + an.y, roi.depth - 1 + an.z};
    Vol src(in, a, {0, 0, 0, hi[0] - lo[0] + 1, hi[1] - lo[1] + 1, hi[2] - lo[2] + 1}, 2, false);
    for (uint8_t*& p : src.planes) p = movedBy(p, -(int64_t{lo[0]} * 2 + int64_t{lo[1]} * src.rowStep));
    Vol dst(in, a, {0, 0, 0, roi.width, roi.height, roi.depth}, 2, false);
    const size_t kn = size_t(ks.width) * ks.height * ks.depth;
    int32_t* kernel = a.fill<int32_t>(kn, false, [&] { return in.u8() < 240 ? in.range(-8, 8) : int32_t(in.u32()); });
    return qelrFilter_16s_C1PV(reinterpret_cast<const int16_t* const*>(movedBy(src.planes.data(), -int64_t{lo[2]} * 8)),
                               src.rowStep, reinterpret_cast<int16_t* const*>(dst.pv), dst.rowStep, roi, kernel, ks,
                               an, divisor, work);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    Arena a;
    const int fn = in.range(0, 15);
    qelSetNumThreads(in.range(1, 3));
    const bool big = in.u8() < 6;
    QelStatus st = qelOk;
    switch (fn) {
        case 0: {  // resize cuboid and the three buffer-size queries
            const QelVolumeSize v{8, 8, 8};
            const QelBox3D s = box(in, v, big), d = box(in, v, big);
            const int mode = in.range(0, 8), ch = in.flag() ? 1 : in.size(3);
            QelBox3D out{};
            int bytes = 0;
            switch (in.range(0, 3)) {
                case 0: {  // factors and shifts read in argument order, whatever the compiler
                    double f[6];
                    for (double& x : f) x = in.f64();
                    st = qelrGetResizeCuboid(s, &out, f[0], f[1], f[2], f[3], f[4], f[5], mode);
                    break;
                }
                case 1: st = qelrResizeGetBufSize(s, d, ch, mode, &bytes); break;
                case 2: st = qelrWarpAffineGetBufSize(s, d, ch, mode, &bytes); break;
                default: st = qelrFilterGetBufSize({s.x, s.y, s.z}, {d.x, d.y, d.z}, ch, &bytes); break;
            }
            if (st == qelOk && bytes < 0) abort();
            break;
        }
        case 13: case 14: case 15: st = filter(in, a, big); break;
        default:  // resize contiguous then planar, remap, then warp; each for 8u, 16u and 32f
            st = forType((fn - 1) % 3, [&](auto e) {
                using T = decltype(e);
                return fn <= 6 ? resize<T>(in, a, fn <= 3, big) : remapOrWarp<T>(in, a, fn >= 10, big);
            });
    }
    // Only documented statuses.
    static const int known[] = {0, 1, 29, 40, -4, -6, -8, -14, -22, -23, -53, -56};
    if (std::find(std::begin(known), std::end(known), st) == std::end(known)) abort();
    return 0;
}
