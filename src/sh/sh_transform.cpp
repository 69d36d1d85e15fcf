// Forward (projection) and inverse (reconstruction) spherical-harmonic
// transforms, one sample at a time, for one and three channels.
#include <cstddef>

#include "core/impl.h"
#include "sh/sh_basis.h"
#include "sh/sh_engine.h"
#include "sh/sh_vector.h"
#include "simd/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

bool anyNull(const void* const* planes) {
    return planes == nullptr || planes[0] == nullptr || planes[1] == nullptr ||
           planes[2] == nullptr;
}

// The checks shared by the six transforms, after the pointer checks: true
// when samples are to be processed, otherwise the call ends with *status.
bool admitSamples(int n, uint32_t order, const QelSHEngine* engine, QelStatus* status) {
    if (n == 0) {
        *status = qelErrSize;
        return false;
    }
    if (order > sh::engineOrder(engine)) {
        *status = qelErrBadArgument;
        return false;
    }
    *status = qelOk;
    if (n < 0) return false;
    // The per-sample evaluation refuses orders above 15, unknown selectors
    // and states without the tables of the order, and would leave the basis
    // scratch unwritten; such calls are refused before any sample is touched.
    const uint32_t algorithm = sh::engineAlgorithm(engine);
    if (order > sh::kMaxOrder || (algorithm != qelSHDirect && algorithm != qelSHRecurrence) ||
        (algorithm == qelSHRecurrence && !sh::recurrenceTablesCover(engine, order))) {
        *status = qelErrBadArgument;
        return false;
    }
    return true;
}

// Samples whose bases are evaluated together (a few vectors of directions).
constexpr int kSamplesPerBlock = 16;

// Evaluates the basis of every sample, a block of samples at a time into a
// buffer on the stack, and hands them to use(i, basis, count) in ascending
// order of i.
template <class Use>
void forEachSample(const float* pX, const float* pY, const float* pZ, int n, uint32_t order,
                   const QelSHEngine* engine, Use use) {
    const int count = static_cast<int>((order + 1) * (order + 1));
    const sh::BasisEvaluator evaluate(engine, order);
    alignas(32) float basis[kSamplesPerBlock * sh::kMaxCoeffs];
    for (int i = 0; i < n; i += kSamplesPerBlock) {
        const int samples = n - i < kSamplesPerBlock ? n - i : kSamplesPerBlock;
        evaluate(pX + i, pY + i, pZ + i, samples, basis);
        for (int j = 0; j < samples; ++j) use(i + j, basis + j * count, count);
    }
}

}  // namespace

QelStatus qelrSHTFwd_32f_C1I(const float* pX, const float* pY, const float* pZ, const float* src,
                             int n, float* coeffs, uint32_t order, const QelSHEngine* engine) {
    if (pX == nullptr || pY == nullptr || pZ == nullptr || src == nullptr || coeffs == nullptr ||
        engine == nullptr)
        return qelErrNullPointer;
    QelStatus status;
    if (!admitSamples(n, order, engine, &status)) return status;
    forEachSample(pX, pY, pZ, n, order, engine, [&](int i, float* basis, int count) {
        sh::scaleInPlace(basis, count, src[i]);
        sh::addInPlace(basis, coeffs, count);
    });
    sh::canonicalNaNs(coeffs, static_cast<int>((order + 1) * (order + 1)));
    return qelOk;
}

namespace {

// Forward transform of three channels; channel c of sample i is
// sample(c, i).
template <class Sample>
void forwardThreeChannels(const float* pX, const float* pY, const float* pZ, int n,
                          float* const coeffs[3], uint32_t order, const QelSHEngine* engine,
                          Sample sample) {
    alignas(16) float scaled[sh::kMaxCoeffs];
    forEachSample(pX, pY, pZ, n, order, engine, [&](int i, const float* basis, int count) {
        for (int c = 0; c < 3; ++c) {
            sh::scaleCopy(basis, scaled, count, sample(c, i));
            sh::addInPlace(scaled, coeffs[c], count);
        }
    });
    for (int c = 0; c < 3; ++c) sh::canonicalNaNs(coeffs[c], static_cast<int>((order + 1) * (order + 1)));
}

// Inverse transform of three channels; the value of channel c of sample i
// goes to *target(c, i).
template <class Target>
void inverseThreeChannels(const float* const coeffs[3], uint32_t order, const float* pX,
                          const float* pY, const float* pZ, int n, const QelSHEngine* engine,
                          Target target) {
    forEachSample(pX, pY, pZ, n, order, engine, [&](int i, const float* basis, int count) {
        for (int c = 0; c < 3; ++c) {
            float* out = target(c, i);
            sh::dotProduct(basis, coeffs[c], count, out);
            *out = simd::canonicalNaN(*out);
        }
    });
}

}  // namespace

QelStatus qelrSHTFwd_32f_C3P3I(const float* pX, const float* pY, const float* pZ, const float* src,
                               int n, float* const coeffs[3], uint32_t order,
                               const QelSHEngine* engine) {
    if (pX == nullptr || pY == nullptr || pZ == nullptr || src == nullptr ||
        anyNull(reinterpret_cast<const void* const*>(coeffs)) || engine == nullptr)
        return qelErrNullPointer;
    QelStatus status;
    if (!admitSamples(n, order, engine, &status)) return status;
    forwardThreeChannels(pX, pY, pZ, n, coeffs, order, engine,
                         [src](int c, int i) { return src[3 * static_cast<ptrdiff_t>(i) + c]; });
    return qelOk;
}

QelStatus qelrSHTFwd_32f_P3I(const float* pX, const float* pY, const float* pZ,
                             const float* const src[3], int n, float* const coeffs[3],
                             uint32_t order, const QelSHEngine* engine) {
    if (pX == nullptr || pY == nullptr || pZ == nullptr ||
        anyNull(reinterpret_cast<const void* const*>(src)) ||
        anyNull(reinterpret_cast<const void* const*>(coeffs)) || engine == nullptr)
        return qelErrNullPointer;
    QelStatus status;
    if (!admitSamples(n, order, engine, &status)) return status;
    forwardThreeChannels(pX, pY, pZ, n, coeffs, order, engine,
                         [src](int c, int i) { return src[c][i]; });
    return qelOk;
}

QelStatus qelrSHTInv_32f_C1(const float* coeffs, uint32_t order, const float* pX, const float* pY,
                            const float* pZ, float* dst, int n, const QelSHEngine* engine) {
    if (coeffs == nullptr || pX == nullptr || pY == nullptr || pZ == nullptr || dst == nullptr ||
        engine == nullptr)
        return qelErrNullPointer;
    QelStatus status;
    if (!admitSamples(n, order, engine, &status)) return status;
    forEachSample(pX, pY, pZ, n, order, engine, [&](int i, const float* basis, int count) {
        sh::dotProduct(basis, coeffs, count, dst + i);
        dst[i] = simd::canonicalNaN(dst[i]);
    });
    return qelOk;
}

QelStatus qelrSHTInv_32f_P3(const float* const coeffs[3], uint32_t order, const float* pX,
                            const float* pY, const float* pZ, float* const dst[3], int n,
                            const QelSHEngine* engine) {
    if (anyNull(reinterpret_cast<const void* const*>(coeffs)) || pX == nullptr || pY == nullptr ||
        pZ == nullptr || anyNull(reinterpret_cast<const void* const*>(dst)) || engine == nullptr)
        return qelErrNullPointer;
    QelStatus status;
    if (!admitSamples(n, order, engine, &status)) return status;
    inverseThreeChannels(coeffs, order, pX, pY, pZ, n, engine,
                         [dst](int c, int i) { return dst[c] + i; });
    return qelOk;
}

QelStatus qelrSHTInv_32f_P3C3(const float* const coeffs[3], uint32_t order, const float* pX,
                              const float* pY, const float* pZ, float* dst, int n,
                              const QelSHEngine* engine) {
    if (anyNull(reinterpret_cast<const void* const*>(coeffs)) || pX == nullptr || pY == nullptr ||
        pZ == nullptr || dst == nullptr || engine == nullptr)
        return qelErrNullPointer;
    QelStatus status;
    if (!admitSamples(n, order, engine, &status)) return status;
    inverseThreeChannels(coeffs, order, pX, pY, pZ, n, engine,
                         [dst](int c, int i) { return dst + 3 * static_cast<ptrdiff_t>(i) + c; });
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
