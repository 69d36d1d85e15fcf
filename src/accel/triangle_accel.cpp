// Triangle accelerator records and the scene box.
#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "core/impl.h"
#include "simd/simd.h"

namespace qelr::QELR_ISA::impl {

namespace {

constexpr int kRecordBytes = 40;
static_assert(sizeof(TriangleAccel) == kRecordBytes);

// Records are made four at a time on every instruction set (two registers
// of two doubles, or one of four), each lane with the arithmetic of one
// triangle.
using Doubles = simd::F64<4>;
constexpr int kRecordsPerStep = Doubles::kLanes;

// Records [first, end), first + kRecordsPerStep > end allowed: lanes past the
// end repeat the last triangle and are not stored.
QELR_INLINE void initRecords(TriangleAccel* records, const float* vertices, const int* tris,
                             int64_t first, int64_t end) {
    constexpr int L = kRecordsPerStep;
    using D = Doubles;
    const float* corner[3][L];  // vertex k of each triangle
    for (int l = 0; l < L; ++l) {
        const int* idx = tris + 4 * (first + l < end ? first + l : end - 1);
        for (int k = 0; k < 3; ++k) corner[k][l] = vertices + 3 * static_cast<ptrdiff_t>(idx[k]);
    }
    D vertex[3][3];  // vertex, component
    for (int k = 0; k < 3; ++k) {
        simd::F32<4> xyz[3];
        loadTriples(corner[k][0], corner[k][1], corner[k][2], corner[k][3], xyz[0], xyz[1], xyz[2]);
        for (int c = 0; c < 3; ++c) vertex[k][c] = widen(xyz[c]);
    }
    D v2[3], e1[3], e2[3];
    for (int c = 0; c < 3; ++c) {
        v2[c] = vertex[2][c];
        e1[c] = vertex[0][c] - v2[c];
        e2[c] = vertex[1][c] - v2[c];
    }
    const D n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                    e1[0] * e2[1] - e1[1] * e2[0]};

    // Dominant axis k of the normal: y when |Nx| < |Ny|, then z when |Nz|
    // exceeds the larger of the two (a NaN is not the larger); ties go to
    // the lower axis. (u, v) are the other two axes in order.
    const D ax = abs(n[0]), ay = abs(n[1]), az = abs(n[2]);
    const D isZ = az > select(ay == ay, max(ax, ay), ax);
    const D isY = andNot(isZ, ax < ay);
    const D uIsX = isZ | isY;
    const auto atK = [&](const D x[3]) { return select(isZ, x[2], select(isY, x[1], x[0])); };
    const auto atU = [&](const D x[3]) { return select(uIsX, x[0], x[1]); };
    const auto atV = [&](const D x[3]) { return select(isZ, x[1], x[2]); };

    const D nk = atK(n), nu = atU(n), nv = atV(n);
    const D s = select(isY, D(-1.0), D(1.0));  // keeps (u, v) right-handed
    const D inv = D(1.0) / nk;
    // Collinear or coincident vertices: the zero normal, an all-zero record.
    const D degenerate = nk == D(0.0);
    // Plane perpendicular to axis k: no normal on u and v.
    const D flat = (abs(nu) < D(DBL_EPSILON)) & (abs(nv) < D(DBL_EPSILON));

    const D words[10] = {D::zero(),
                         andNot(flat, nu * inv),
                         atK(v2),
                         andNot(flat, nv * inv),
                         atU(v2),
                         atV(v2),
                         (atU(e2) * inv) * s,
                         (atV(e2) * inv) * s,
                         (atU(e1) * inv) * s,
                         (atV(e1) * inv) * s};
    alignas(16) float out[10][L];
    for (int w = 1; w < 10; ++w) store(out[w], narrow(andNot(degenerate, words[w])));

    static constexpr uint32_t kAxes[3] = {1u << 2 | 2u, 0u << 2 | 2u | 1u << 4,
                                          0u << 2 | 1u | 2u << 4};  // v | u << 2 | k << 4
    const int zBits = laneBits(isZ), yBits = laneBits(isY);
    const int flatBits = laneBits(flat), degenerateBits = laneBits(degenerate);
    for (int l = 0; l < L && first + l < end; ++l) {
        TriangleAccel& rec = records[first + l];
        rec.pk = out[2][l];
        rec.pu = out[4][l];
        rec.pv = out[5][l];
        rec.nu = out[1][l];
        rec.nv = out[3][l];
        rec.e0 = out[6][l];
        rec.e1 = out[7][l];
        rec.e2 = out[8][l];
        rec.e3 = out[9][l];
        const int k = (zBits >> l & 1) != 0 ? 2 : (yBits >> l & 1);
        const uint32_t flag = (flatBits >> l & 1) != 0 ? 0x80000000u : 0u;
        rec.axes = (degenerateBits >> l & 1) != 0 ? 0u : kAxes[k] | flag;
    }
}

}  // namespace

QelStatus qelrTriangleAccelGetSize(int* outRecordSize) {
    if (outRecordSize == nullptr) return qelErrNullPointer;
    *outRecordSize = kRecordBytes;
    return qelOk;
}

QelStatus qelrTriangleAccelInit(TriangleAccel* records, const float* vertices,
                                const int* triangleIndices, int triangleCount) {
    for (int64_t t = 0; t < triangleCount; t += kRecordsPerStep) {
        initRecords(records, vertices, triangleIndices, t, triangleCount);
    }
    return qelOk;
}

QelStatus qelrSetBoundBox_32f(const float* vertices, int vertexCount, float* box) {
    if (vertices == nullptr) return qelErrNullPointer;

    // Eight vertices per pass are 24 floats in 24 / L registers, lane l of
    // register r holding component (r * L + l) % 3. The processor's min and
    // max keep the running value when the vertex is NaN, as the comparisons
    // of the tail do.
    using simd::Vf;
    constexpr int L = simd::kLanes;
    constexpr int kRegisters = 24 / L;
    Vf lo[kRegisters], hi[kRegisters];
    for (int r = 0; r < kRegisters; ++r) {
        lo[r] = Vf(FLT_MAX);
        hi[r] = Vf(-FLT_MAX);
    }
    const int count = vertexCount > 0 ? vertexCount : 0;
    const float* p = vertices;
    for (int pass = 0; pass < count / 8; ++pass, p += 24) {
        for (int r = 0; r < kRegisters; ++r) {
            const Vf a = Vf::loadu(p + r * L);
            lo[r] = min(a, lo[r]);
            hi[r] = max(a, hi[r]);
        }
    }
    alignas(32) float los[24], his[24];
    for (int r = 0; r < kRegisters; ++r) {
        store(los + r * L, lo[r]);
        store(his + r * L, hi[r]);
    }
    float mn[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
    float mx[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (int i = 0; i < 24; ++i) {
        const int a = i % 3;
        mn[a] = los[i] < mn[a] ? los[i] : mn[a];
        mx[a] = his[i] > mx[a] ? his[i] : mx[a];
    }
    for (int i = count / 8 * 8; i < count; ++i, p += 3) {
        for (int a = 0; a < 3; ++a) {
            mn[a] = p[a] < mn[a] ? p[a] : mn[a];
            mx[a] = p[a] > mx[a] ? p[a] : mx[a];
        }
    }

    // Widen by 1e-4 of the largest coordinate magnitude on every axis.
    float m = FLT_MIN;
    for (int a = 0; a < 3; ++a) {
        m = std::fmax(m, std::fabs(mn[a]));
        m = std::fmax(m, std::fabs(mx[a]));
    }
    const float e = m * 9.9999997e-05f;
    for (int a = 0; a < 3; ++a) {
        box[a] = mn[a] - e;
        box[a + 3] = mx[a] + e;
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
