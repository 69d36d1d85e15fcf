// Bad input for every export: each row is one call with one faulty argument (a null pointer, a size of 0 or below, a
// mode or enum out of range, a step below a row, a byte count past 32 bits, NaN or infinity) and the status the
// function documents for it. Every output lives in one block filled with a canary that must be intact after each
// call. Rows with two faults pin the order of the checks (the first failing check decides).
#include <gtest/gtest.h>
#include <qelr.h>

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <set>
#include <string>

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();
constexpr float kInf = std::numeric_limits<float>::infinity();
constexpr uint8_t kCanary = 0xA5;

// Outputs: every pointer a row may write through points into gOut.
alignas(64) uint8_t gOut[1 << 16];
float* const Of = reinterpret_cast<float*>(gOut);
int* const Oi = reinterpret_cast<int*>(gOut + 8192);
float* const O3[3] = {Of, Of + 256, Of + 512};
float* const O3m[3] = {Of + 1, Of + 257, Of + 513};  // off the 16-byte boundary
void* const Ov = gOut + 16384;

// Inputs: unit-length values, indices and masks 0 (processed).
alignas(64) float gIn[4096];
alignas(64) int gZero[1024];
alignas(64) uint8_t gEngineRec[1024];   // recurrence state, order 2
alignas(64) uint8_t gEngineRec20[4096]; // recurrence state, order 20
alignas(64) uint8_t gEngineBad[64];     // selector 5 written by hand
const float* const F = gIn;
const int* const M = gZero;
const float* const I3[3] = {gIn, gIn + 256, gIn + 512};
const float* const I2[2] = {gIn, gIn + 256};
const float* const I3n[3] = {gIn, nullptr, gIn};  // one plane null
float* const O3n[3] = {Of, nullptr, Of};
const QelSHEngine* const E = reinterpret_cast<const QelSHEngine*>(gEngineRec);
const QelSHEngine* const E20 = reinterpret_cast<const QelSHEngine*>(gEngineRec20);
const QelSHEngine* const Ebad = reinterpret_cast<const QelSHEngine*>(gEngineBad);
constexpr float L3[3] = {0.5f, 0.5f, 0.5f};
constexpr std::nullptr_t N = nullptr;

// Volumes: 4x4x4 sources (planes of gIn bytes) and destinations in gOut.
const void* const S4[4] = {gIn, gIn + 64, gIn + 128, gIn + 192};
void* const D4[4] = {gOut, gOut + 4096, gOut + 8192, gOut + 12288};
const float* const MAP[4] = {gIn, gIn + 64, gIn + 128, gIn + 192};
constexpr QelVolumeSize V4{4, 4, 4};
constexpr QelVolumeSize V1{4, 4, 1};  // single plane
constexpr QelBox3D B4{0, 0, 0, 4, 4, 4};
constexpr double kId[3][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}};
constexpr double kZeroDiag[3][4] = {{0, 1, 0, 0}, {1, 0, 0, 0}, {0, 1, 0, 0}};
constexpr double kRows12[3][4] = {{9, 1, 1, 0}, {0, 1, 2, 0}, {0, 2, 4, 0}};  // rows 1, 2 proportional
constexpr double kRows01[3][4] = {{1, 1, 0, 0}, {1, 1, 0, 0}, {0, 0, 1, 0}};  // det 0
constexpr double kNaNs[3][4] = {{NAN, 0, 0, 0}, {0, NAN, 0, 0}, {0, 0, NAN, 0}};

QelBox3D box(int i, int v) {  // B4 with field i (x, y, z, width, height, depth) set to v
    QelBox3D b = B4;
    (&b.x)[i] = v;
    return b;
}
QelVolumeSize vol(int i, int v) {
    QelVolumeSize s = V4;
    (&s.width)[i] = v;
    return s;
}
// Run k of a row over every field: starts -1 and extents 0, then each field INT_MIN (a size: extents 0, INT_MIN).
constexpr int kBadBoxes = 12, kBadVols = 6;
// Lengths that leave nothing to do: run t of RT(2, ...) takes the negative ones, of RT(3, ...) also 0.
constexpr int kEmpty[] = {-4, INT_MIN, 0};
constexpr int kBadModes[] = {3, 0, -1, 99, INT_MIN};  // no interpolation of any volume function
constexpr float kBadQualities[] = {-0.01f, 1.01f, kNaN, kInf};
constexpr uint32_t kSmallBudgets[] = {31, 0, 0x2000};  // 0x2000 << 19 wraps to 0
constexpr uint32_t kBadOrders[] = {16, UINT32_MAX}, kBadSelectors[] = {2, 0x80000000u};
QelBox3D badBox(int k) { return box(k % 6, k >= 6 ? INT_MIN : k < 3 ? -1 : 0); }
QelVolumeSize badVol(int k) { return vol(k % 3, k >= 3 ? INT_MIN : 0); }

// One call per element type (t = 0 8u, 1 16u, 2 32f) and, for resize, layout
// (t + 3: contiguous).
struct Scale {
    double s[3] = {1, 1, 1};
    double o[3] = {0, 0, 0};
};
Scale sc(int i, double v) {
    Scale s;
    (i < 3 ? s.s[i] : s.o[i - 3]) = v;
    return s;
}
QelStatus resize(int t, const void* const* src, QelVolumeSize ss, int step, QelBox3D sb, void* const* dst,
                 QelBox3D db, Scale f, int mode, void* work) {
    using U8 = const QelU8* const*;
    using U16 = const uint16_t* const*;
    using F32 = const float* const*;
    const int ds = 16 * (1 + t % 3);
    const void* s0 = src ? src[0] : nullptr;
    void* d0 = dst ? dst[0] : nullptr;
    auto* w = static_cast<QelU8*>(work);
    switch (t) {
        case 0: return qelrResize_8u_C1PV(U8(src), ss, step, sb, (QelU8* const*)dst, ds, db, f.s[0], f.s[1], f.s[2], f.o[0], f.o[1], f.o[2], mode, w);
        case 1: return qelrResize_16u_C1PV(U16(src), ss, step, sb, (uint16_t* const*)dst, ds, db, f.s[0], f.s[1], f.s[2], f.o[0], f.o[1], f.o[2], mode, w);
        case 2: return qelrResize_32f_C1PV(F32(src), ss, step, sb, (float* const*)dst, ds, db, f.s[0], f.s[1], f.s[2], f.o[0], f.o[1], f.o[2], mode, w);
        case 3: return qelrResize_8u_C1V((const QelU8*)s0, ss, step, 256, sb, (QelU8*)d0, ds, 4 * ds, db, f.s[0], f.s[1], f.s[2], f.o[0], f.o[1], f.o[2], mode, w);
        case 4: return qelrResize_16u_C1V((const uint16_t*)s0, ss, step, 256, sb, (uint16_t*)d0, ds, 4 * ds, db, f.s[0], f.s[1], f.s[2], f.o[0], f.o[1], f.o[2], mode, w);
        default: return qelrResize_32f_C1V((const float*)s0, ss, step, 256, sb, (float*)d0, ds, 4 * ds, db, f.s[0], f.s[1], f.s[2], f.o[0], f.o[1], f.o[2], mode, w);
    }
}
QelStatus remap(int t, const void* const* src, QelVolumeSize ss, int step, QelBox3D sb, const float* const* px,
                const float* const* py, const float* const* pz, int mapStep, void* const* dst, int dstStep,
                QelVolumeSize dv, int mode) {
    switch (t) {
        case 0: return qelrRemap_8u_C1PV((const QelU8* const*)src, ss, step, sb, px, py, pz, mapStep, (QelU8* const*)dst, dstStep, dv, mode);
        case 1: return qelrRemap_16u_C1PV((const uint16_t* const*)src, ss, step, sb, px, py, pz, mapStep, (uint16_t* const*)dst, dstStep, dv, mode);
        default: return qelrRemap_32f_C1PV((const float* const*)src, ss, step, sb, px, py, pz, mapStep, (float* const*)dst, dstStep, dv, mode);
    }
}
QelStatus warp(int t, const void* const* src, QelVolumeSize ss, QelBox3D sb, void* const* dst, QelBox3D db,
               const double (*c)[4], int mode) {
    switch (t) {
        case 0: return qelrWarpAffine_8u_C1PV((const QelU8* const*)src, ss, 16, sb, (QelU8* const*)dst, 16, db, c, mode);
        case 1: return qelrWarpAffine_16u_C1PV((const uint16_t* const*)src, ss, 32, sb, (uint16_t* const*)dst, 32, db, c, mode);
        default: return qelrWarpAffine_32f_C1PV((const float* const*)src, ss, 64, sb, (float* const*)dst, 64, db, c, mode);
    }
}
// Pointer argument p, null when the row's run t is k.
template <class T>
T* nz(int t, int k, T* p) { return t == k ? nullptr : p; }
#define Z(k, p) nz(t, k, p)
// KD-tree build of a 3-vertex mesh of n triangles with the given parameters.
QelStatus kd(uint32_t alg, uint32_t depth, float quality, uint32_t budget, int t = -1, int n = 1) {
    KDTreeBuildParams p{alg, depth, quality, budget, 0};
    return qelrKDTreeBuildAlloc(Z(0, (KDTreeNode**)Ov), Z(1, F), Z(2, M), 3, n, Z(3, Oi), Z(4, &p));
}
// Filter: 4x4x4 region, 3x3x3 kernel, anchor (1, 1, 1), divisor 1.
const int32_t K27[27] = {1};
QelStatus filter(const void* const* src, const void* const* dst, QelVolumeSize roi, const int32_t* k,
                 QelVolumeSize ks, int divisor, void* work = Ov) {
    return qelrFilter_16s_C1PV((const int16_t* const*)src, 16, (int16_t* const*)dst, 16, roi, k, ks, {1, 1, 1},
                               divisor, static_cast<QelU8*>(work));
}

// The exports that the dispatchers above reach: every export named with the prefix, by the row's leading call.
const std::pair<std::string, std::string> kDispatched[] = {{"resize(", "qelrResize_"}, {"remap(", "qelrRemap_"},
                                                           {"warp(", "qelrWarpAffine_"}, {"filter(", "qelrFilter_"},
                                                           {"kd(", "qelrKDTreeBuildAlloc"}};

struct Row {
    QelStatus want;
    const char* call;
    QelStatus (*run)(int t);  // t: element type/layout for the volume families
    int types;                // how many runs t
};
#define R(want, ...) {want, #__VA_ARGS__, [](int) -> QelStatus { return __VA_ARGS__; }, 1}
#define RT(n, want, ...) {want, #__VA_ARGS__, [](int t) -> QelStatus { return __VA_ARGS__; }, n}
// n runs, Z(k, p) null in run k: each pointer argument in turn, with a length of 0 or below (nothing to do), so
// the row also pins that pointers are checked before the length.
#define RN RT

const Row kRows[] = {
    // --- accelerator records, scene box, KD-tree ------------------------------
    R(qelOk, qelrGetLibVersion() != nullptr ? qelOk : qelErrNullPointer),  // takes nothing, cannot fail
    R(qelErrNullPointer, qelrTriangleAccelGetSize(N)),
    RT(3, qelOk, qelrTriangleAccelInit((TriangleAccel*)Ov, N, N, kEmpty[t])),  // nothing read or written
    R(qelErrNullPointer, qelrSetBoundBox_32f(N, 3, Of)),
    R(qelErrNullPointer, qelrSetBoundBox_32f(N, -1, Of)),
    RN(5, qelErrNullPointer, kd(qelKdSingleLeaf, 0, 0, 32, t)),
    R(qelErrSize, qelrKDTreeBuildAlloc((KDTreeNode**)Ov, F, M, -1, 1, Oi, N)),   // counts before params
    R(qelErrSize, qelrKDTreeBuildAlloc((KDTreeNode**)Ov, F, M, 3, -1, Oi, N)),
    R(qelErrSize, qelrKDTreeBuildAlloc((KDTreeNode**)Ov, F, M, INT_MIN, INT_MIN, Oi, N)),
    R(qelErrNullPointer, qelrKDTreeBuildAlloc(N, F, M, -1, -1, Oi, N)),          // pointers before counts
    RT(2, qelErrParamRange, kd(qelKdSingleLeaf, t ? UINT32_MAX : 51, 0, 32)),
    R(qelErrNoMemory, kd(qelKdSingleLeaf, 0, 0, 0, -1, INT_MAX)),  // 16 + 4n bytes past 32 bits
    // The smallest n whose 16 + 4n bytes, asked as 64-bit elements, no longer fit qelMalloc's int.
    R(qelErrNoMemory, kd(qelKdSingleLeaf, 0, 0, 0, -1, int((int64_t{INT32_MAX} / 8 * 8 - 16) / 4))),
    R(qelErrParamRange, kd(qelKdCostDriven, 51, 0, 32)),
    RT(4, qelErrParamRange, kd(qelKdCostDriven, 0, kBadQualities[t], 32)),
    R(qelErrParamRange, kd(qelKdCostDriven, 60, 2, 0)),  // range before budget
    RT(3, qelErrNoMemory, kd(qelKdCostDriven, 0, 0, kSmallBudgets[t])),
    R(qelErrMemoryBudget, kd(qelKdCostDriven, 50, 1, 4096)),  // 4096 MB passes the check, is 0 bytes in 32 bits
    R(qelErrUnknownAlgorithm, kd(0, 0, 0, 32)),
    R(qelErrUnknownAlgorithm, kd(UINT32_MAX, 99, kNaN, 0)),
    R(qelOk, qelrKDTreeFree(N)),

    // --- eye rays, intersection, hit points -----------------------------------
    R(qelErrNullPointer, qelrCastEye_32f(F, F, F, 4, 4, {0, 0}, N, {4, 4})),
    R(qelErrNullPointer, qelrCastEye_32f(F, F, F, 4, 4, {0, 0}, N, {0, 0})),     // null before size
    R(qelOk, qelrCastEye_32f(N, N, N, 4, 4, {0, 0}, O3, {4, 0})),
    R(qelOk, qelrCastEye_32f(N, N, N, 4, 4, {0, 0}, O3, {0, 4})),
    R(qelOk, qelrCastEye_32f(N, N, N, 4, 4, {0, 0}, O3m, {-4, 4})),              // vector-path width, negative
    R(qelOk, qelrCastEye_32f(N, N, N, INT_MAX, INT_MAX, {INT_MAX, INT_MAX}, O3, {INT_MIN, 1})),
    // Height below 1 returns before any pointer is read.
    RT(3, qelOk, qelrIntersectEyeSO_32f(N, N, N, N, N, N, {4, kEmpty[t]})),
    RT(3, qelOk, qelrIntersectMO_32f(N, N, N, N, N, N, {1, kEmpty[t]})),
    RT(3, qelOk, qelrIntersectAnySO_32f(N, N, N, N, {INT_MAX, kEmpty[t]}, N)),
    RT(3, qelOk, [t] { QelLayeredSize s{4, kEmpty[t], 2}; return qelrIntersectMultipleSO_32f(N, N, N, N, N, &s, N); }()),
    RN(4, qelErrNullPointer, qelrHitPoint3DEpsS0_32f_M(L3, Z(0, I3), Z(1, F), Z(2, M), Z(3, O3), 0, 1)),
    RT(3, qelOk, qelrHitPoint3DEpsS0_32f_M(N, I3, F, M, O3m, kEmpty[t], kNaN)),
    RN(5, qelErrNullPointer, qelrHitPoint3DEpsM0_32f_M(Z(0, I3), Z(1, I3), Z(2, F), Z(3, M), Z(4, O3), -1, 1)),
    RT(3, qelOk, qelrHitPoint3DEpsM0_32f_M(I3, I3, F, M, O3m, kEmpty[t], kInf)),

    // --- normals and shading operations -------------------------------------
    RN(3, qelErrNullPointer, qelrTriangleNormal_32f(Z(0, F), Z(1, M), Z(2, Of), -1)),
    RT(3, qelOk, qelrTriangleNormal_32f(F, M, Of + 1, kEmpty[t])),
    RN(2, qelErrNullPointer, qelrSurfFlatNormal_32f(Z(0, F), Z(1, M), O3, 0)),
    RT(3, qelOk, qelrSurfFlatNormal_32f(F, M, N, kEmpty[t])),  // output pack not checked
    RN(5, qelErrNullPointer, qelrSurfSmoothNormal_32f(Z(0, F), Z(1, M), Z(2, M), Z(3, I2), Z(4, O3), -1, 4)),
    RT(3, qelOk, qelrSurfSmoothNormal_32f(F, M, M, I2, O3m, kEmpty[t], INT_MIN)),
    RN(4, qelErrNullPointer, qelrDot_32f_P3C1M(Z(0, I3), Z(1, I3), Z(2, M), Z(3, Of), 0)),
    RT(3, qelOk, qelrDot_32f_P3C1M(I3, I3, M, Of + 1, kEmpty[t])),
    RN(4, qelErrNullPointer, qelrDotChangeNorm_32f_IM(Z(0, I3), Z(1, M), Z(2, O3), Z(3, Of), 0)),
    RT(3, qelOk, qelrDotChangeNorm_32f_IM(I3, M, O3m, Of + 1, kEmpty[t])),
    RN(3, qelErrNullPointer, qelrDistAttenuationSO_32f_M(L3, Z(0, I3), Z(1, M), Z(2, Of), 0)),
    RT(3, qelOk, qelrDistAttenuationSO_32f_M(N, I3, M, Of + 1, kEmpty[t])),  // light not checked
    RN(6, qelErrNullPointer, qelrCastShadowSO_32f(L3, Z(0, F), Z(1, I3), Z(2, I3), Z(3, Oi), Z(4, Of), Z(5, O3), 0)),
    RT(3, qelOk, qelrCastShadowSO_32f(N, F, I3, I3, Oi, Of, O3m, kEmpty[t])),
    RN(4, qelErrNullPointer, qelrCastReflectionRay_32f(Z(0, I3), Z(1, M), Z(2, I3), Z(3, O3), 0)),
    RT(3, qelOk, qelrCastReflectionRay_32f(I3, M, I3, O3m, kEmpty[t])),
    RT(3, qelOk, qelrMul_32f_C1IM(N, N, N, kEmpty[t])),  // no checks; length first
    RN(3, qelErrNullPointer, qelrMul_32f_C1P3IM(Z(0, F), Z(1, M), Z(2, O3), 0)),
    RT(3, qelOk, qelrMul_32f_C1P3IM(F, M, O3m, kEmpty[t])),
    RN(2, qelErrNullPointer, qelrDiv_32f_C1IM(Z(0, F), M, Z(1, Of), 0)),
    RT(3, qelOk, qelrDiv_32f_C1IM(F, N, Of + 1, kEmpty[t])),  // mask not checked
    RN(4, qelErrNullPointer, qelrAddMulMul_32f_AC1P3IM(L3, Z(0, F), Z(1, I3), Z(2, M), Z(3, O3), 0)),
    RT(3, qelOk, qelrAddMulMul_32f_AC1P3IM(N, F, I3, M, O3m, kEmpty[t])),  // colour not checked

    // --- spherical harmonics ------------------------------------------------
    R(qelErrNullPointer, qelrSHGetSize_32f(2, qelSHDirect, N)),
    R(qelErrNullPointer, qelrSHGetSize_32f(99, 7, N)),
    RT(2, qelErrSize, qelrSHGetSize_32f(kBadOrders[t], qelSHDirect, (uint32_t*)Oi)),
    RT(2, qelErrBadArgument, qelrSHGetSize_32f(2, kBadSelectors[t], (uint32_t*)Oi)),
    R(qelErrNullPointer, qelrSHInit_32f(N, 2, qelSHRecurrence)),
    R(qelErrNullPointer, qelrSHInit_32f(N, 99, 9)),
    RT(2, qelErrSize, qelrSHInit_32f((QelSHEngine*)Ov, kBadOrders[t], qelSHDirect)),
    RT(2, qelErrBadArgument, qelrSHInit_32f((QelSHEngine*)Ov, 2, kBadSelectors[t])),
    RN(5, qelErrNullPointer, qelrSH_32f(Z(0, F), Z(1, F), Z(2, F), 0, Z(3, Of), 1, Z(4, E))),
    R(qelErrSize, qelrSH_32f(F, F, F, 0, Of, UINT32_MAX, E)),                      // count before order
    R(qelErrBadArgument, qelrSH_32f(F, F, F, 1, Of, 3, E)),                        // above the state's order
    R(qelErrBadArgument, qelrSH_32f(F, F, F, -1, Of, 3, E)),
    R(qelErrBadArgument, qelrSH_32f(F, F, F, 1, Of, 16, E20)),                     // above 15
    R(qelErrBadArgument, qelrSH_32f(F, F, F, 1, Of, 0, Ebad)),                     // unknown selector
    RT(2, qelOk, qelrSH_32f(F, F, F, kEmpty[t], Of, 2, E)),
    RN(3, qelErrNullPointer, qelrSHBand_32f(Z(0, F), Z(1, F), Z(2, F), 1, Of, 1)),
    R(qelErrNullPointer, qelrSHBand_32f(F, F, F, 1, N, 99)),
    R(qelErrBadArgument, qelrSHBand_32f(F, F, F, 0, Of, 16)),                      // band before count
    R(qelErrBadArgument, qelrSHBand_32f(F, F, F, 1, Of, UINT32_MAX)),
    R(qelErrSize, qelrSHBand_32f(F, F, F, 0, Of, 15)),
    RT(2, qelOk, qelrSHBand_32f(F, F, F, kEmpty[t], Of, 15)),
    // Transforms: every pointer and each plane of a P3 argument, then the
    // count, then the order; a count below 0 does nothing.
    RN(5, qelErrNullPointer, qelrSHTFwd_32f_C1I(Z(0, F), Z(1, F), Z(2, F), Z(3, F), 0, Z(4, Of), 1, E)),
    R(qelErrSize, qelrSHTFwd_32f_C1I(F, F, F, F, 0, Of, 9, E)),
    R(qelErrBadArgument, qelrSHTFwd_32f_C1I(F, F, F, F, 1, Of, 3, E)),
    R(qelErrBadArgument, qelrSHTFwd_32f_C1I(F, F, F, F, 1, Of, 16, E20)),
    RT(2, qelOk, qelrSHTFwd_32f_C1I(F, F, F, F, kEmpty[t], Of, 1, E)),
    RN(4, qelErrNullPointer, qelrSHTFwd_32f_C3P3I(Z(0, F), F, F, Z(1, F), -1, Z(2, O3), 1, Z(3, E))),
    R(qelErrNullPointer, qelrSHTFwd_32f_C3P3I(F, F, F, F, -1, O3n, 1, E)),         // a null plane, even with n < 0
    R(qelErrSize, qelrSHTFwd_32f_C3P3I(F, F, F, F, 0, O3, 1, E)),
    R(qelErrBadArgument, qelrSHTFwd_32f_C3P3I(F, F, F, F, 2, O3, 3, E)),
    RT(2, qelOk, qelrSHTFwd_32f_C3P3I(F, F, F, F, kEmpty[t], O3, 1, E)),
    RN(4, qelErrNullPointer, qelrSHTFwd_32f_P3I(F, Z(0, F), F, Z(1, I3), -1, Z(2, O3), 1, Z(3, E))),
    R(qelErrNullPointer, qelrSHTFwd_32f_P3I(F, F, F, I3n, 1, O3, 1, E)),
    R(qelErrNullPointer, qelrSHTFwd_32f_P3I(F, F, F, I3, -1, O3n, 1, E)),
    R(qelErrSize, qelrSHTFwd_32f_P3I(F, F, F, I3, 0, O3, 1, E)),
    R(qelErrBadArgument, qelrSHTFwd_32f_P3I(F, F, F, I3, 1, O3, 3, E)),
    RT(2, qelOk, qelrSHTFwd_32f_P3I(F, F, F, I3, kEmpty[t], O3, 1, E)),
    RN(4, qelErrNullPointer, qelrSHTInv_32f_C1(Z(0, F), 1, Z(1, F), F, F, Z(2, Of), 0, Z(3, E))),
    R(qelErrSize, qelrSHTInv_32f_C1(F, 1, F, F, F, Of, 0, E)),
    R(qelErrBadArgument, qelrSHTInv_32f_C1(F, 3, F, F, F, Of, 1, E)),
    R(qelErrBadArgument, qelrSHTInv_32f_C1(F, 17, F, F, F, Of, 1, E20)),
    RT(2, qelOk, qelrSHTInv_32f_C1(F, 1, F, F, F, Of, kEmpty[t], E)),
    R(qelErrNullPointer, qelrSHTInv_32f_P3(I3n, 1, F, F, F, O3, 1, E)),
    RN(4, qelErrNullPointer, qelrSHTInv_32f_P3(Z(0, I3), 1, F, F, Z(1, F), Z(2, O3), -1, Z(3, E))),
    R(qelErrNullPointer, qelrSHTInv_32f_P3(I3, 1, F, F, F, O3n, -1, E)),
    R(qelErrSize, qelrSHTInv_32f_P3(I3, 1, F, F, F, O3, 0, E)),
    R(qelErrBadArgument, qelrSHTInv_32f_P3(I3, 3, F, F, F, O3, 1, E)),
    RT(2, qelOk, qelrSHTInv_32f_P3(I3, 1, F, F, F, O3, kEmpty[t], E)),
    R(qelErrNullPointer, qelrSHTInv_32f_P3C3(I3n, 1, F, F, F, Of, -1, E)),
    RN(4, qelErrNullPointer, qelrSHTInv_32f_P3C3(Z(0, I3), 1, Z(1, F), F, F, Z(2, Of), -1, Z(3, E))),
    R(qelErrSize, qelrSHTInv_32f_P3C3(I3, 1, F, F, F, Of, 0, E)),
    R(qelErrBadArgument, qelrSHTInv_32f_P3C3(I3, 3, F, F, F, Of, 1, E)),
    RT(2, qelOk, qelrSHTInv_32f_P3C3(I3, 1, F, F, F, Of, kEmpty[t], E)),

    // --- volumes: resize cuboid and buffer sizes ---------------------------
    R(qelErrNullPointer, qelrGetResizeCuboid(B4, N, 1, 1, 1, 0, 0, 0, 1)),
    R(qelErrNullPointer, qelrGetResizeCuboid(box(3, 0), N, 0, 0, 0, 0, 0, 0, 3)),
    RT(kBadBoxes, qelErrSize, qelrGetResizeCuboid(badBox(t), (QelBox3D*)Ov, 1, 1, 1, 0, 0, 0, 1)),
    R(qelErrSize, qelrGetResizeCuboid(box(5, 0), (QelBox3D*)Ov, 0, 1, 1, 0, 0, 0, 3)),  // box before factor
    R(qelErrFactor, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 0, 1, 1, 0, 0, 0, 3)),        // factor before mode
    R(qelErrFactor, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 1, -1, 1, 0, 0, 0, 1)),
    R(qelErrFactor, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 1, 1, -0.0, 0, 0, 0, 1)),
    R(qelErrFactor, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 1, 1, -INFINITY, 0, 0, 0, 1)),
    RT(5, qelErrInterpolation, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 1, 1, 1, 0, 0, 0, kBadModes[t])),
    R(qelErrInterpolation, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 1, 1, 1, 0, 0, 0, 8)),
    R(qelWarnNothingToDo, qelrGetResizeCuboid(box(3, 1), (QelBox3D*)Ov, 0.25, 1, 1, 0, 0, 0, 1)),
    R(qelWarnNothingToDo, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 1, 1, 1, -10, 0, 0, 1)),
    R(qelWarnNothingToDo, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, NAN, 1, 1, 0, 0, 0, 1)),  // NaN passes the factor test
    R(qelWarnNothingToDo, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, 1, 1, 1, NAN, 0, 0, 1)),
    R(qelWarnNothingToDo, qelrGetResizeCuboid(B4, (QelBox3D*)Ov, INFINITY, 1, 1, 0, 0, 0, 1)),
    R(qelErrNullPointer, qelrResizeGetBufSize(B4, B4, 1, 1, N)),
    R(qelErrNullPointer, qelrResizeGetBufSize(box(0, -1), B4, 3, 3, N)),
    RT(kBadBoxes, qelErrSize, qelrResizeGetBufSize(badBox(t), B4, 1, 1, Oi)),
    RT(kBadBoxes, qelErrSize, qelrResizeGetBufSize(B4, badBox(t), 3, 3, Oi)),
    R(qelErrChannels, qelrResizeGetBufSize(B4, B4, 3, 3, Oi)),                    // channels before mode
    R(qelErrChannels, qelrResizeGetBufSize(B4, B4, 0, 1, Oi)),
    RT(5, qelErrInterpolation, qelrResizeGetBufSize(B4, B4, 1, kBadModes[t], Oi)),
    R(qelErrSize, qelrResizeGetBufSize(B4, {0, 0, 0, 1 << 20, 1 << 12, 1}, 1, 4, Oi)),  // bytes past 32 bits
    R(qelErrSize, qelrResizeGetBufSize(B4, {0, 0, 0, INT_MAX, 1, 1}, 1, 1, Oi)),
    R(qelErrNullPointer, qelrWarpAffineGetBufSize(B4, B4, 1, 1, N)),
    RT(kBadBoxes, qelErrSize, qelrWarpAffineGetBufSize(badBox(t), B4, 1, 1, Oi)),
    RT(kBadBoxes, qelErrSize, qelrWarpAffineGetBufSize(B4, badBox(t), 2, 3, Oi)),
    R(qelErrChannels, qelrWarpAffineGetBufSize(B4, B4, 2, 3, Oi)),
    RT(5, qelErrInterpolation, qelrWarpAffineGetBufSize(B4, B4, 1, kBadModes[t], Oi)),
    R(qelErrNullPointer, qelrFilterGetBufSize(V4, V4, 1, N)),
    R(qelErrNullPointer, qelrFilterGetBufSize(vol(0, 0), V4, 3, N)),
    R(qelErrSize, qelrFilterGetBufSize(vol(0, 0), V4, 3, Oi)),                    // size before channels
    RT(kBadVols, qelErrSize, qelrFilterGetBufSize(badVol(t), V4, 1, Oi)),
    RT(kBadVols, qelErrSize, qelrFilterGetBufSize(V4, badVol(t), 1, Oi)),
    R(qelErrChannels, qelrFilterGetBufSize(V4, V4, 3, Oi)),
    R(qelErrChannels, qelrFilterGetBufSize(V4, V4, 0, Oi)),
    R(qelErrSize, qelrFilterGetBufSize(vol(0, INT_MAX), V4, 1, Oi)),              // bytes past 32 bits

    // --- resize: 3 types x 2 layouts per row ------------------------------------
    RT(6, qelErrNullPointer, resize(t, N, V4, 16, B4, D4, B4, {}, 1, Ov)),
    RT(6, qelErrNullPointer, resize(t, S4, V4, 16, B4, N, B4, {}, 1, Ov)),
    RT(6, qelErrNullPointer, resize(t, S4, V4, 16, B4, D4, B4, {}, 1, N)),
    RT(6, qelErrNullPointer, resize(t, S4, vol(0, 0), 16, box(0, -1), D4, B4, sc(0, 0), 3, N)),
    RT(6 * kBadVols, qelErrSize, resize(t % 6, S4, badVol(t / 6), 16, B4, D4, B4, {}, 1, Ov)),
    RT(6 * kBadBoxes, qelErrSize, resize(t % 6, S4, V4, 16, badBox(t / 6), D4, B4, {}, 1, Ov)),
    RT(6 * kBadBoxes, qelErrSize, resize(t % 6, S4, V4, 16, B4, D4, badBox(t / 6), {}, 1, Ov)),
    RT(6, qelErrSize, resize(t, S4, V4, 16, B4, D4, box(5, 0), sc(0, 0), 3, Ov)),
    RT(6, qelErrFactor, resize(t, S4, V4, 16, B4, D4, B4, sc(0, 0), 3, Ov)),
    RT(6, qelErrFactor, resize(t, S4, V4, 16, B4, D4, B4, sc(1, -1), 1, Ov)),
    RT(6, qelErrFactor, resize(t, S4, V4, 16, B4, D4, B4, sc(2, -0.0), 1, Ov)),
    RT(6 * 5, qelErrInterpolation, resize(t % 6, S4, V4, 16, B4, D4, B4, {}, kBadModes[t / 6], Ov)),
    RT(6, qelWarnRegionOutsideVolume, resize(t, S4, V4, 16, box(0, 4), D4, B4, {}, 1, Ov)),
    RT(6, qelWarnRegionOutsideVolume, resize(t, S4, V4, 16, box(2, INT_MAX), D4, B4, {}, 2, Ov)),
    RT(6, qelWarnNothingToDo, resize(t, S4, V4, 16, B4, D4, B4, sc(3, 4), 1, Ov)),  // mapped box beside the destination
    RT(6, qelWarnNothingToDo, resize(t, S4, V4, 16, B4, D4, B4, sc(0, 1e-9), 2, Ov)),
    RT(6, qelWarnNothingToDo, resize(t, S4, V4, 16, B4, D4, B4, sc(4, NAN), 4, Ov)),
    RT(6, qelWarnNothingToDo, resize(t, S4, V4, 16, B4, D4, B4, sc(0, NAN), 1, Ov)),

    // --- remap: 3 types per row ---------------------------------------------
    RT(3, qelErrNullPointer, remap(t, N, V4, 16, B4, MAP, MAP, MAP, 16, D4, 16, V4, 1)),
    RT(3, qelErrNullPointer, remap(t, S4, V4, 16, B4, MAP, MAP, MAP, 16, N, 16, V4, 1)),
    RT(3, qelErrNullPointer, remap(t, S4, V4, 16, B4, N, MAP, MAP, 16, D4, 16, V4, 1)),
    RT(3, qelErrNullPointer, remap(t, S4, V4, 16, B4, MAP, N, MAP, 16, D4, 16, V4, 1)),
    RT(3, qelErrNullPointer, remap(t, S4, V4, 16, B4, MAP, MAP, N, 16, D4, 16, V4, 3)),
    RT(3, qelErrSize, remap(t, S4, vol(0, 0), 16, B4, MAP, MAP, MAP, 16, D4, 16, V4, 3)),
    RT(3 * kBadVols, qelErrSize, remap(t % 3, S4, badVol(t / 3), 16, B4, MAP, MAP, MAP, 16, D4, 16, V4, 1)),
    RT(3 * kBadBoxes, qelErrSize, remap(t % 3, S4, V4, 16, badBox(t / 3), MAP, MAP, MAP, 16, D4, 16, V4, 1)),
    RT(3 * kBadVols, qelErrSize, remap(t % 3, S4, V4, 16, B4, MAP, MAP, MAP, 16, D4, 16, badVol(t / 3), 1)),
    RT(3, qelErrSize, remap(t, S4, V4, 16, B4, MAP, MAP, MAP, 16, D4, 16, vol(2, -4), 3)),
    RT(3 * 5, qelErrInterpolation, remap(t % 3, S4, V4, 16, B4, MAP, MAP, MAP, 16, D4, 16, V4, kBadModes[t / 3])),
    RT(3, qelErrInterpolation, remap(t, S4, V4, 16, B4, MAP, MAP, MAP, 16, D4, 16, V4, 16)),
    RT(3, qelWarnRegionOutsideVolume, remap(t, S4, V4, 16, box(0, 4), MAP, MAP, MAP, 16, D4, 16, V4, 1)),
    RT(3, qelWarnRegionOutsideVolume, remap(t, S4, V4, 16, box(2, INT_MAX), MAP, MAP, MAP, 16, D4, 16, V4, 2)),
    // Single plane: its own mode set, steps of at least 1, warning 29.
    RT(3, qelErrInterpolation, remap(t, S4, V1, 16, B4, MAP, MAP, MAP, 16, D4, 16, V4, 5)),
    RT(3, qelErrInterpolation, remap(t, S4, V1, 16, B4, MAP, MAP, MAP, 16, D4, 16, V4, 7)),
    RT(3, qelErrInterpolation, remap(t, S4, V1, 0, B4, MAP, MAP, MAP, 16, D4, 16, V4, 5)),  // mode before step
    RT(3, qelErrStep, remap(t, S4, V1, 0, B4, MAP, MAP, MAP, 16, D4, 16, V4, 1)),
    RT(3, qelErrStep, remap(t, S4, V1, 16, B4, MAP, MAP, MAP, -16, D4, 16, V4, 2)),
    RT(3, qelErrStep, remap(t, S4, V1, 16, B4, MAP, MAP, MAP, 16, D4, INT_MIN, V4, 4)),
    RT(3, qelWarnRegionOutsidePlane, remap(t, S4, V1, 16, box(0, 4), MAP, MAP, MAP, 16, D4, 16, V4, 1)),
    RT(3, qelWarnRegionOutsidePlane, remap(t, S4, V1, 16, box(1, 9), MAP, MAP, MAP, 16, D4, 16, V4, 6)),

    // --- affine warp: 3 types per row ---------------------------------------
    RT(3, qelErrNullPointer, warp(t, N, V4, B4, D4, B4, kId, 1)),
    RT(3, qelErrNullPointer, warp(t, S4, V4, B4, N, B4, kId, 1)),
    RT(3, qelErrNullPointer, warp(t, N, vol(0, 0), B4, D4, B4, N, 3)),
    RT(3, qelErrSize, warp(t, S4, vol(0, 0), B4, D4, B4, kZeroDiag, 3)),
    RT(3 * kBadVols, qelErrSize, warp(t % 3, S4, badVol(t / 3), B4, D4, B4, kId, 1)),
    RT(3 * kBadBoxes, qelErrSize, warp(t % 3, S4, V4, badBox(t / 3), D4, B4, kId, 1)),
    RT(3, qelErrSize, warp(t, S4, V4, B4, D4, box(2, -1), kZeroDiag, 3)),
    RT(3 * kBadBoxes, qelErrSize, warp(t % 3, S4, V4, B4, D4, badBox(t / 3), kId, 1)),
    RT(3, qelErrSingularTransform, warp(t, S4, V4, B4, D4, B4, kZeroDiag, 3)),  // before the mode
    RT(3, qelErrSingularTransform, warp(t, S4, V4, B4, D4, B4, kRows12, 1)),
    RT(3, qelErrSingularTransform, warp(t, S4, V4, B4, D4, B4, kRows01, 2)),
    RT(3, qelErrSingularTransform, warp(t, S4, V1, B4, D4, B4, kRows01, 2)),   // single plane
    RT(3 * 5, qelErrInterpolation, warp(t % 3, S4, V4, B4, D4, B4, kId, kBadModes[t / 3])),
    RT(3, qelErrInterpolation, warp(t, S4, V1, B4, D4, B4, kId, 0)),
    RT(3, qelErrInterpolation, warp(t, S4, V4, box(0, 9), D4, B4, kId, 8)),  // mode before the origin test
    RT(3, qelWarnRegionOutsideVolume, warp(t, S4, V4, box(0, 4), D4, B4, kId, 1)),
    RT(3, qelWarnRegionOutsideVolume, warp(t, S4, V4, box(2, INT_MAX), D4, B4, kId, 6)),
    RT(3, qelWarnRegionOutsideVolume, warp(t, S4, V1, box(1, 4), D4, B4, kId, 1)),
    RT(3, qelOk, warp(t, S4, V4, B4, D4, B4, kNaNs, 2)),  // NaN maps every element outside: nothing written
    RT(3, qelOk, warp(t, S4, V1, B4, D4, B4, kNaNs, 1)),

    // --- filter ---------------------------------------------------------------
    RN(3, qelErrNullPointer, filter(Z(0, S4), Z(1, D4), V4, Z(2, K27), {3, 3, 3}, 1)),
    R(qelErrNullPointer, filter(S4, D4, vol(0, 0), N, {0, 3, 3}, 0)),
    RT(kBadVols, qelErrSize, filter(S4, D4, badVol(t), K27, {3, 3, 3}, 1)),
    RT(kBadVols, qelErrSize, filter(S4, D4, V4, K27, badVol(t), 1)),
    R(qelErrSize, filter(S4, D4, V4, K27, {3, 3, 0}, 0)),
    R(qelErrSize, filter(S4, D4, V4, K27, {3, 3, 3}, 0)),
    R(qelErrSize, filter(S4, D4, V4, K27, {3, 3, 3}, 0, N)),   // work buffer not checked
    R(qelErrSize, filter(S4, D4, vol(0, INT_MAX), K27, {3, 3, 3}, 1)),  // buffer bytes past 32 bits
};

TEST(BadInput, EveryRowGivesItsStatusAndWritesNothing) {
    for (int i = 0; i < 4096; ++i) gIn[i] = 0.5f;
    ASSERT_EQ(qelrSHInit_32f((QelSHEngine*)gEngineRec, 2, qelSHRecurrence), qelOk);
    uint32_t size = 0;
    ASSERT_EQ(qelrSHGetSize_32f(20, qelSHRecurrence, &size), qelOk);
    ASSERT_LE(size, sizeof gEngineRec20);
    ASSERT_EQ(qelrSHInit_32f((QelSHEngine*)gEngineRec20, 20, qelSHRecurrence), qelOk);
    ASSERT_EQ(qelrSHInit_32f((QelSHEngine*)gEngineBad, 0, qelSHDirect), qelOk);
    const uint32_t badSelector = 5;
    std::memcpy(gEngineBad + 4, &badSelector, 4);
#define QELR_EXPORT(name) #name,
    const std::set<std::string> exports = {
#include "core/exports.inc"
    };
#undef QELR_EXPORT
    std::set<std::string> covered;
    for (int threads : {1, 3}) {
        qelSetNumThreads(threads);
        for (const Row& r : kRows) {
            for (int t = 0; t < r.types; ++t) {
                std::memset(gOut, kCanary, sizeof gOut);
                EXPECT_EQ(r.run(t), r.want) << r.call << " (t = " << t << ")";
                size_t changed = 0;
                for (uint8_t b : gOut) changed += b != kCanary;
                EXPECT_EQ(changed, 0u) << r.call << " (t = " << t << ") wrote to an output";
            }
            const std::string call = r.call;
            for (size_t p = call.find("qelr"); p != std::string::npos; p = call.find("qelr", p + 1))
                covered.insert(call.substr(p, call.find('(', p) - p));
            for (const auto& [dispatcher, prefix] : kDispatched)
                for (const std::string& name : exports)
                    if (call.rfind(dispatcher, 0) == 0 && name.rfind(prefix, 0) == 0) covered.insert(name);
        }
    }
    EXPECT_EQ(covered, exports);  // every export has rows
}

}  // namespace
