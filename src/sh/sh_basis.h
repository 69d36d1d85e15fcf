// Basis kernels shared by the evaluation functions and the transforms.
//
// The direct kernel evaluates each function from its closed form in double
// precision: z^2 and the sectoral factors Re/Im (x + iy)^m are formed in
// double precision, rounded to single precision and widened again, the
// constants are double literals and every result is rounded to single
// precision when it is stored. The recurrence kernel builds band l from
// bands l-1 and l-2 with the state's tables, entirely in single precision.
#pragma once

#include <cstddef>
#include <cstdint>
#include <utility>

#include "qelr.h"
#include "sh/sh_direct_bands.h"
#include "sh/sh_direct_terms.h"
#include "sh/sh_engine.h"
#include "simd/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::sh {

// Fills the terms of the closed forms for bands up to `order`. The sectoral
// factors follow (x + iy)^m = (x + iy)^(m-1) (x + iy) in double precision;
// only the copies kept for the closed forms are rounded.
template <class V>
QELR_INLINE void makeTerms(const V& x, const V& y, const V& z, uint32_t order,
                              DirectTerms<V>& t) {
    t.z = z;
    t.z2 = roundToFloat(z * z);
    t.c[1] = x;  // a float widened: already exact in single precision
    t.s[1] = y;
    V c = x, s = y;
    for (uint32_t m = 2; m <= order; ++m) {
        const V cn = c * x - s * y;
        const V sn = s * x + c * y;
        c = cn;
        s = sn;
        t.c[m] = roundToFloat(c);
        t.s[m] = roundToFloat(s);
    }
}

// Bands 0..3 with their classic constants; band b writes band[0 .. 2b], the
// function with m at position b + m. Each polynomial in z that multiplies a
// sectoral factor is named p followed by |m|.
template <class V>
QELR_INLINE void directBand0(const DirectTerms<V>&, float* band) {
    storeRounded(band, V(0.282094806432724));
}

template <class V>
QELR_INLINE void directBand1(const DirectTerms<V>& t, float* band) {
    constexpr int s = V::kLanes;
    storeRounded(band + 0 * s, V(-0.4886025119029199) * t.s[1]);
    storeRounded(band + 1 * s, V(0.4886025119029199) * t.z);
    storeRounded(band + 2 * s, V(-0.4886025119029199) * t.c[1]);
}

template <class V>
QELR_INLINE void directBand2(const DirectTerms<V>& t, float* band) {
    constexpr int s = V::kLanes;
    const V p1 = V(-1.092548430592079) * t.z;
    storeRounded(band + 0 * s, V(0.5462742152960395) * t.s[2]);  // 1.0925... x y
    storeRounded(band + 1 * s, p1 * t.s[1]);
    storeRounded(band + 2 * s, V(0.31539156525252) * (V(3.0) * t.z2 - V(1.0)));
    storeRounded(band + 3 * s, p1 * t.c[1]);
    storeRounded(band + 4 * s, V(0.5462742152960395) * t.c[2]);
}

template <class V>
QELR_INLINE void directBand3(const DirectTerms<V>& t, float* band) {
    constexpr int s = V::kLanes;
    const V p1 = V(-0.4570457994644657) * (V(5.0) * t.z2 - V(1.0));
    const V p2 = V(1.445305721320277) * t.z;  // 2.8906... x y z = 1.4453... z Im (x+iy)^2
    storeRounded(band + 0 * s, V(-0.5900435899266435) * t.s[3]);
    storeRounded(band + 1 * s, p2 * t.s[2]);
    storeRounded(band + 2 * s, p1 * t.s[1]);
    storeRounded(band + 3 * s, V(0.3731763325901154) * t.z * (V(5.0) * t.z2 - V(3.0)));
    storeRounded(band + 4 * s, p1 * t.c[1]);
    storeRounded(band + 5 * s, p2 * t.c[2]);
    storeRounded(band + 6 * s, V(-0.5900435899266435) * t.c[3]);
}

// Band `Band` of the closed forms, written at band[0 .. 2 Band] (lane-strided).
template <int Band, class V>
QELR_INLINE void directBand(const DirectTerms<V>& t, float* band) {
    // clang-format off
    if constexpr (Band == 0) directBand0(t, band);
    else if constexpr (Band == 1) directBand1(t, band);
    else if constexpr (Band == 2) directBand2(t, band);
    else if constexpr (Band == 3) directBand3(t, band);
    else if constexpr (Band == 4) directBand4(t, band);
    else if constexpr (Band == 5) directBand5(t, band);
    else if constexpr (Band == 6) directBand6(t, band);
    else if constexpr (Band == 7) directBand7(t, band);
    else if constexpr (Band == 8) directBand8(t, band);
    else if constexpr (Band == 9) directBand9(t, band);
    else if constexpr (Band == 10) directBand10(t, band);
    else if constexpr (Band == 11) directBand11(t, band);
    else if constexpr (Band == 12) directBand12(t, band);
    else if constexpr (Band == 13) directBand13(t, band);
    else if constexpr (Band == 14) directBand14(t, band);
    else directBand15(t, band);
    // clang-format on
}

// Bands 0..order of the closed forms; band l starts at out + l^2 lanes.
template <class V>
void evalDirect(const V& x, const V& y, const V& z, uint32_t order, float* out) {
    constexpr int s = V::kLanes;
    DirectTerms<V> t;
    makeTerms(x, y, z, order, t);
    [&]<int... B>(std::integer_sequence<int, B...>) {
        ((order >= static_cast<uint32_t>(B) ? directBand<B>(t, out + B * B * s) : void()), ...);
    }
    (std::make_integer_sequence<int, 16>{});
}

// Bands 0..order by the three-term recurrence with tables A and B. Table
// entry i is at a[i * V::kLanes] (the tables with every entry broadcast to
// the width of V).
template <class V>
void evalRecurrence(const V& x, const V& y, const V& z, uint32_t order, const float* a,
                    const float* b, float* out) {
    constexpr int s = V::kLanes;
    simd::store(out, V::load(a));
    if (order < 1) return;
    const V a1 = V::load(a + 1 * s);
    const V a2 = V::load(a + 2 * s);
    simd::store(out + 1 * s, a2 * y);
    simd::store(out + 2 * s, a1 * z);
    simd::store(out + 3 * s, a2 * x);
    for (uint32_t l = 2; l <= order; ++l) {
        const float* al = a + l * (l + 1) / 2 * s;
        const float* bl = b + l * (l + 1) / 2 * s;
        const float* p = out + (l - 1) * (l - 1) * s;  // band l-1
        const float* q = out + (l - 2) * (l - 2) * s;  // band l-2
        float* c = out + l * l * s;
        const V pNeg = V::load(p);
        const V pPos = V::load(p + (2 * l - 2) * s);
        const V sect = V::load(al + l * s);
        simd::store(c + 2 * l * s, (pPos * x - pNeg * y) * sect);
        simd::store(c, (pPos * y + pNeg * x) * sect);
        const V az1 = V::load(al + (l - 1) * s) * z;
        simd::store(c + (2 * l - 1) * s, az1 * pPos);
        simd::store(c + s, az1 * pNeg);
        simd::store(c + l * s, V::load(al) * z * V::load(p + (l - 1) * s) +
                                  V::load(bl) * V::load(q + (l - 2) * s));
        for (uint32_t m = 1; m + 2 <= l; ++m) {
            const V az = V::load(al + m * s) * z;
            const V bm = V::load(bl + m * s);
            simd::store(c + (l + m) * s, az * V::load(p + (l - 1 + m) * s) +
                                            bm * V::load(q + (l - 2 + m) * s));
            simd::store(c + (l - m) * s, az * V::load(p + (l - 1 - m) * s) +
                                            bm * V::load(q + (l - 2 - m) * s));
        }
    }
}

// Outputs of at least this many bytes are written with non-temporal stores,
// as memset does for large blocks: they would not stay in the caches anyway,
// and streaming spares the read of every line before it is written.
inline constexpr size_t kStreamingBytes = size_t{8} << 20;

// The full basis of packs of directions for a state and an order it accepts
// (checked by the caller: selector 0 or 1, order at most 15 and at most the
// state's, tables present). Writes (order + 1)^2 floats per direction,
// direction-major. Keeps the recurrence tables broadcast to vectors, so one
// evaluator serves many calls.
class BasisEvaluator {
 public:
    BasisEvaluator(const QelSHEngine* engine, uint32_t order);
    void operator()(const float* pX, const float* pY, const float* pZ, int n, float* dst) const;

 private:
    uint32_t order_;
    bool direct_;
    alignas(32) float aN_[simd::kLanes * kMaxTableEntries];
    alignas(32) float bN_[simd::kLanes * kMaxTableEntries];
};

}  // namespace qelr::QELR_ISA::sh
