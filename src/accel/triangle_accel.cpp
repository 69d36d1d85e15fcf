// Triangle accelerator records and the scene box.
#include <pmmintrin.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstring>

#include "core/impl.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

constexpr int kRecordBytes = 40;
static_assert(sizeof(TriangleAccel) == kRecordBytes);

struct Vec3d {
    double v[3];
};

Vec3d fetchVertex(const float* vertices, int index) {
    const float* p = vertices + 3 * static_cast<ptrdiff_t>(index);
    return {{p[0], p[1], p[2]}};
}

void initRecord(TriangleAccel& rec, const Vec3d& v0, const Vec3d& v1, const Vec3d& v2) {
    double e1[3], e2[3];
    for (int a = 0; a < 3; ++a) {
        e1[a] = v0.v[a] - v2.v[a];
        e2[a] = v1.v[a] - v2.v[a];
    }
    const double n[3] = {e1[1] * e2[2] - e1[2] * e2[1], e1[2] * e2[0] - e1[0] * e2[2],
                         e1[0] * e2[1] - e1[1] * e2[0]};

    // Dominant axis of the normal; ties go to the lower axis.
    int k = std::fabs(n[0]) < std::fabs(n[1]) ? 1 : 0;
    if (std::fabs(n[2]) > std::fmax(std::fabs(n[0]), std::fabs(n[1]))) k = 2;

    if (n[k] == 0.0) {  // zero normal: collinear or coincident vertices
        std::memset(&rec, 0, sizeof rec);
        return;
    }
    static constexpr int kU[3] = {1, 0, 0};
    static constexpr int kV[3] = {2, 2, 1};
    const int u = kU[k];
    const int v = kV[k];
    const double s = k == 1 ? -1.0 : 1.0;  // keeps (u, v) right-handed
    const double inv = 1.0 / n[k];

    rec.pk = static_cast<float>(v2.v[k]);
    rec.pu = static_cast<float>(v2.v[u]);
    rec.pv = static_cast<float>(v2.v[v]);

    uint32_t axes =
        static_cast<uint32_t>(v) | static_cast<uint32_t>(u) << 2 | static_cast<uint32_t>(k) << 4;
    if (std::fabs(n[u]) < DBL_EPSILON && std::fabs(n[v]) < DBL_EPSILON) {
        axes |= 0x80000000u;  // plane perpendicular to axis k
        rec.nu = 0.0f;
        rec.nv = 0.0f;
    } else {
        rec.nu = static_cast<float>(n[u] * inv);
        rec.nv = static_cast<float>(n[v] * inv);
    }
    rec.e0 = static_cast<float>(e2[u] * inv * s);
    rec.e1 = static_cast<float>(e2[v] * inv * s);
    rec.e2 = static_cast<float>(e1[u] * inv * s);
    rec.e3 = static_cast<float>(e1[v] * inv * s);
    rec.axes = axes;
}

}  // namespace

QelStatus qelrTriangleAccelGetSize(int* outRecordSize) {
    if (outRecordSize == nullptr) return qelErrNullPointer;
    *outRecordSize = kRecordBytes;
    return qelOk;
}

QelStatus qelrTriangleAccelInit(TriangleAccel* records, const float* vertices,
                                const int* triangleIndices, int triangleCount) {
    for (int t = 0; t < triangleCount; ++t) {
        const int* idx = triangleIndices + 4 * static_cast<ptrdiff_t>(t);
        initRecord(records[t], fetchVertex(vertices, idx[0]), fetchVertex(vertices, idx[1]),
                   fetchVertex(vertices, idx[2]));
    }
    return qelOk;
}

QelStatus qelrSetBoundBox_32f(const float* vertices, int vertexCount, float* box) {
    if (vertices == nullptr) return qelErrNullPointer;

    // Four vertices are twelve floats: three registers whose lanes hold the
    // components (x y z x), (y z x y), (z x y z). A comparison keeps the
    // running value when the vertex is NaN, as the scalar tail does.
    __m128 lo0 = _mm_set1_ps(FLT_MAX), lo1 = lo0, lo2 = lo0;
    __m128 hi0 = _mm_set1_ps(-FLT_MAX), hi1 = hi0, hi2 = hi0;
    const int count = vertexCount > 0 ? vertexCount : 0;
    const int quads = count / 4;
    const float* p = vertices;
    for (int q = 0; q < quads; ++q, p += 12) {
        const __m128 a = _mm_loadu_ps(p), b = _mm_loadu_ps(p + 4), c = _mm_loadu_ps(p + 8);
        lo0 = _mm_min_ps(a, lo0);
        lo1 = _mm_min_ps(b, lo1);
        lo2 = _mm_min_ps(c, lo2);
        hi0 = _mm_max_ps(a, hi0);
        hi1 = _mm_max_ps(b, hi1);
        hi2 = _mm_max_ps(c, hi2);
    }
    alignas(16) float lo[12], hi[12];
    _mm_store_ps(lo, lo0);
    _mm_store_ps(lo + 4, lo1);
    _mm_store_ps(lo + 8, lo2);
    _mm_store_ps(hi, hi0);
    _mm_store_ps(hi + 4, hi1);
    _mm_store_ps(hi + 8, hi2);
    float mn[3] = {FLT_MAX, FLT_MAX, FLT_MAX};
    float mx[3] = {-FLT_MAX, -FLT_MAX, -FLT_MAX};
    for (int i = 0; i < 12; ++i) {
        const int a = i % 3;
        mn[a] = lo[i] < mn[a] ? lo[i] : mn[a];
        mx[a] = hi[i] > mx[a] ? hi[i] : mx[a];
    }
    for (int i = quads * 4; i < count; ++i, p += 3) {
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
