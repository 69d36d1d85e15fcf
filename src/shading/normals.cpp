// Triangle normals, and the flat and smooth normals at ray hits.
#include <omp.h>

#include <cfloat>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "core/align.h"
#include "core/impl.h"
#include "simd/simd.h"

namespace qelr::QELR_ISA::impl {

namespace {

using simd::F32;
using simd::F64;
using simd::mulWrap;

// ---------------------------------------------------------------------------
// Triangle normals, in double precision, four triangles per step on every
// instruction set (two registers of two doubles, or one of four), so that
// both read and write in the same order.

using Doubles = F64<4>;
constexpr int kTrianglesPerStep = Doubles::kLanes;

// Triangles [first, end), first + kTrianglesPerStep > end allowed: lanes past
// the end repeat the last triangle and are not stored. n = (V0 - V2) x
// (V1 - V2), divided by its length, or zero when the squared length is below
// the double epsilon (a NaN is not below it: its normal is NaN).
QELR_INLINE void triangleNormalStep(const float* vertices, const int* tris, float* normals,
                                    int64_t first, int64_t end) {
    constexpr int L = kTrianglesPerStep;
    const float* corner[3][L];  // vertex k of each triangle
    for (int l = 0; l < L; ++l) {
        const int* tri = tris + 4 * (first + l < end ? first + l : end - 1);
        for (int k = 0; k < 3; ++k) corner[k][l] = vertices + mulWrap(3, tri[k]);
    }
    Doubles v[3][3];  // vertex, component
    for (int k = 0; k < 3; ++k) {
        F32<4> xyz[3];
        loadTriples(corner[k][0], corner[k][1], corner[k][2], corner[k][3], xyz[0], xyz[1], xyz[2]);
        for (int c = 0; c < 3; ++c) v[k][c] = widen(xyz[c]);
    }
    Doubles a[3], b[3];
    for (int c = 0; c < 3; ++c) {
        a[c] = v[0][c] - v[2][c];
        b[c] = v[1][c] - v[2][c];
    }
    const Doubles n[3] = {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - b[2] * a[0],
                          b[1] * a[0] - a[1] * b[0]};
    const Doubles s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
    const Doubles tooShort = s < Doubles(DBL_EPSILON);
    const Doubles len = sqrt(s);
    alignas(16) float out[3][L];
    for (int c = 0; c < 3; ++c) store(out[c], narrow(andNot(tooShort, n[c] / len)));
    for (int l = 0; l < L && first + l < end; ++l) {
        for (int c = 0; c < 3; ++c) normals[3 * (first + l) + c] = out[c][l];
    }
}

// ---------------------------------------------------------------------------
// Flat normals.

void flatNormalRay(const float* triNormals, int index, float* const out[3], int i) {
    if (index < 0) {
        out[0][i] = out[1][i] = out[2][i] = 0.0f;
        return;
    }
    const float* n = triNormals + mulWrap(3, index);
    out[0][i] = n[0];
    out[1][i] = n[1];
    out[2][i] = n[2];
}

// Four rays per step on every instruction set: the normals are fetched ray
// by ray, and a wider step would only add shuffles. A miss reads the zero
// normal.
void flatNormalsVector(const float* triNormals, const int* index, float* const out[3], int len) {
    static const float kNone[3] = {0.0f, 0.0f, 0.0f};
    for (int i = 0; i < len; i += 4) {
        const float* n[4];
        for (int k = 0; k < 4; ++k) {
            const int t = index[i + k];
            n[k] = t < 0 ? kNone : triNormals + mulWrap(3, t);
        }
        F32<4> xyz[3];
        loadTriples(n[0], n[1], n[2], n[3], xyz[0], xyz[1], xyz[2]);
        for (int c = 0; c < 3; ++c) store(out[c] + i, xyz[c]);
    }
}

// ---------------------------------------------------------------------------
// Smooth normals.

struct SmoothInputs {
    const float* vertexNormals;
    const int* tris;
    const int* index;
    const float* u;
    const float* v;
    int groupLength;
};

// The vertex normal of corner k of triangle t.
const float* cornerNormal(const SmoothInputs& in, int32_t t, int k) {
    const int* group = in.tris + mulWrap(t, in.groupLength);
    return in.vertexNormals + mulWrap(3, group[k]);
}

// One ray: the interpolated normal divided by its length.
void smoothNormalRay(const SmoothInputs& in, float* const out[3], int i) {
    const int t = in.index[i];
    if (t < 0) {
        out[0][i] = out[1][i] = out[2][i] = 0.0f;
        return;
    }
    const float u = in.u[i], v = in.v[i];
    const float w = 1.0f - u - v;
    const float* n0 = cornerNormal(in, t, 0);
    const float* n1 = cornerNormal(in, t, 1);
    const float* n2 = cornerNormal(in, t, 2);
    float n[3];
    for (int c = 0; c < 3; ++c) n[c] = w * n2[c] + (n1[c] * v + n0[c] * u);
    const float s = n[0] * n[0] + n[1] * n[1] + n[2] * n[2];
    if (s < FLT_EPSILON) {
        out[0][i] = out[1][i] = out[2][i] = 0.0f;
        return;
    }
    const float len = std::sqrt(s);
    for (int c = 0; c < 3; ++c) out[c][i] = n[c] / len;
}

// Groups of four rays, on every instruction set (the vertex normals are
// fetched ray by ray, which a wider step would not speed up). A group where
// every ray hit takes the interpolated normal times its refined reciprocal
// square root, zero unless the squared length exceeds the float epsilon; a
// group with a miss goes ray by ray.
void smoothNormalsVector(const SmoothInputs& in, float* const out[3], int len) {
    for (int i = 0; i < len; i += 4) {
        const int* t = in.index + i;
        if ((t[0] | t[1] | t[2] | t[3]) < 0) {
            for (int k = 0; k < 4; ++k) smoothNormalRay(in, out, i + k);
            continue;
        }
        F32<4> corner[3][3];  // corner k, component c
        for (int k = 0; k < 3; ++k) {
            if (t[0] == t[1] && t[0] == t[2] && t[0] == t[3]) {
                // One triangle for the four rays: its vertex normals once.
                const float* n = cornerNormal(in, t[0], k);
                for (int c = 0; c < 3; ++c) corner[k][c] = F32<4>(n[c]);
            } else {
                loadTriples(cornerNormal(in, t[0], k), cornerNormal(in, t[1], k),
                            cornerNormal(in, t[2], k), cornerNormal(in, t[3], k), corner[k][0],
                            corner[k][1], corner[k][2]);
            }
        }
        const F32<4> u = F32<4>::load(in.u + i);
        const F32<4> v = F32<4>::load(in.v + i);
        const F32<4> w = (F32<4>(1.0f) - u) - v;
        F32<4> n[3];
        for (int c = 0; c < 3; ++c) {
            n[c] = w * corner[2][c] + (corner[1][c] * v + corner[0][c] * u);
        }
        const F32<4> s = (n[0] * n[0] + n[1] * n[1]) + n[2] * n[2];
        const F32<4> r = simd::rsqrtRefined(s);
        const F32<4> keep = s > F32<4>(FLT_EPSILON);
        for (int c = 0; c < 3; ++c) store(out[c] + i, keep & (n[c] * r));
    }
}

}  // namespace

QelStatus qelrTriangleNormal_32f(const float* vertices, const int* triangleIndices, float* normals,
                                 int triangleCount) {
    if (vertices == nullptr || triangleIndices == nullptr || normals == nullptr) {
        return qelErrNullPointer;
    }
    if (triangleCount < 1) return qelOk;
        // Contiguous blocks of triangles, one per thread, as a static schedule
        // gives them; every triangle is computed the same way whatever the team.
#pragma omp parallel num_threads(ownGetNumThreads())
    {
        const int team = omp_get_num_threads();
        const int rank = omp_get_thread_num();
        const int chunk = triangleCount / team;
        const int extra = triangleCount % team;
        const int64_t begin = int64_t(rank) * chunk + (rank < extra ? rank : extra);
        const int64_t end = begin + chunk + (rank < extra ? 1 : 0);
        for (int64_t t = begin; t < end; t += kTrianglesPerStep) {
            triangleNormalStep(vertices, triangleIndices, normals, t, end);
        }
    }
    return qelOk;
}

QelStatus qelrSurfFlatNormal_32f(const float* triangleNormals, const int* index,
                                 float* const normals[3], int len) {
    if (triangleNormals == nullptr || index == nullptr) return qelErrNullPointer;
    if (len < 1) return qelOk;
    if (len % 4 == 0 && core::allAligned16(triangleNormals, index) &&
        core::planesAligned16(normals)) {
        flatNormalsVector(triangleNormals, index, normals, len);
    } else {
        for (int i = 0; i < len; ++i) flatNormalRay(triangleNormals, index[i], normals, i);
    }
    return qelOk;
}

QelStatus qelrSurfSmoothNormal_32f(const float* vertexNormals, const int* triangleIndices,
                                   const int* index, const float* const uv[2],
                                   float* const normals[3], int len, int indexGroupLength) {
    if (vertexNormals == nullptr || triangleIndices == nullptr || index == nullptr ||
        uv == nullptr || normals == nullptr) {
        return qelErrNullPointer;
    }
    if (len < 1) return qelOk;
    const SmoothInputs in{vertexNormals, triangleIndices, index, uv[0], uv[1], indexGroupLength};
    if (len % 4 == 0 && core::allAligned16(vertexNormals, triangleIndices, index, uv[0], uv[1]) &&
        core::planesAligned16(normals)) {
        smoothNormalsVector(in, normals, len);
    } else {
        for (int i = 0; i < len; ++i) smoothNormalRay(in, normals, i);
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
