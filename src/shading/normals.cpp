// Triangle normals, and the flat and smooth normals at ray hits.
#include <omp.h>
#include <pmmintrin.h>

#include <cfloat>
#include <cmath>
#include <cstddef>

#include "core/impl.h"
#include "shading/simd.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::impl {

namespace {

using shading::mulWrap32;

// ---------------------------------------------------------------------------
// Triangle normals, in double precision.

const float* vertexOf(const float* vertices, int32_t index) {
    return vertices + mulWrap32(3, index);
}

// One triangle: n = (V0 - V2) x (V1 - V2), divided by its length, or zero
// when the squared length is below the double epsilon.
void triangleNormal(const float* vertices, const int* tri, float* out) {
    const float* p0 = vertexOf(vertices, tri[0]);
    const float* p1 = vertexOf(vertices, tri[1]);
    const float* p2 = vertexOf(vertices, tri[2]);
    double a[3], b[3];
    for (int c = 0; c < 3; ++c) {
        a[c] = double(p0[c]) - double(p2[c]);
        b[c] = double(p1[c]) - double(p2[c]);
    }
    const double nx = a[1] * b[2] - a[2] * b[1];
    const double ny = a[2] * b[0] - b[2] * a[0];
    const double nz = b[1] * a[0] - a[1] * b[0];
    const double s = nx * nx + ny * ny + nz * nz;
    if (s < DBL_EPSILON) {
        out[0] = out[1] = out[2] = 0.0f;
        return;
    }
    const double len = std::sqrt(s);
    out[0] = static_cast<float>(nx / len);
    out[1] = static_cast<float>(ny / len);
    out[2] = static_cast<float>(nz / len);
}

// Component c of the vertices of two triangles, one per double lane.
__m128d vertexPair(const float* vertices, int32_t i0, int32_t i1, int c) {
    return _mm_set_pd(vertexOf(vertices, i1)[c], vertexOf(vertices, i0)[c]);
}

// Two triangles at once, one per lane of the double registers; the same
// operations as triangleNormal, so the bits agree.
void triangleNormalPair(const float* vertices, const int* triA, const int* triB, float* outA,
                        float* outB) {
    __m128d a[3], b[3];
    for (int c = 0; c < 3; ++c) {
        const __m128d v0 = vertexPair(vertices, triA[0], triB[0], c);
        const __m128d v1 = vertexPair(vertices, triA[1], triB[1], c);
        const __m128d v2 = vertexPair(vertices, triA[2], triB[2], c);
        a[c] = _mm_sub_pd(v0, v2);
        b[c] = _mm_sub_pd(v1, v2);
    }
    __m128d n[3];
    n[0] = _mm_sub_pd(_mm_mul_pd(a[1], b[2]), _mm_mul_pd(a[2], b[1]));
    n[1] = _mm_sub_pd(_mm_mul_pd(a[2], b[0]), _mm_mul_pd(b[2], a[0]));
    n[2] = _mm_sub_pd(_mm_mul_pd(b[1], a[0]), _mm_mul_pd(a[1], b[0]));
    const __m128d s = _mm_add_pd(_mm_add_pd(_mm_mul_pd(n[0], n[0]), _mm_mul_pd(n[1], n[1])),
                                 _mm_mul_pd(n[2], n[2]));
    // Not below the epsilon, as the scalar test reads (a NaN is kept).
    const __m128d keep = _mm_cmpnlt_pd(s, _mm_set1_pd(DBL_EPSILON));
    const __m128d len = _mm_sqrt_pd(s);
    for (int c = 0; c < 3; ++c) {
        const __m128 f = _mm_cvtpd_ps(_mm_and_pd(keep, _mm_div_pd(n[c], len)));
        outA[c] = _mm_cvtss_f32(f);
        outB[c] = _mm_cvtss_f32(_mm_shuffle_ps(f, f, 1));
    }
}

// Triangles [begin, end): two at a time, then the remainder.
void triangleNormalRange(const float* vertices, const int* tris, float* normals, int begin,
                         int end) {
    int t = begin;
    for (; t + 1 < end; t += 2) {
        const int* tri = tris + 4 * static_cast<ptrdiff_t>(t);
        float* out = normals + 3 * static_cast<ptrdiff_t>(t);
        triangleNormalPair(vertices, tri, tri + 4, out, out + 3);
    }
    if (t < end) {
        triangleNormal(vertices, tris + 4 * static_cast<ptrdiff_t>(t),
                       normals + 3 * static_cast<ptrdiff_t>(t));
    }
}

// ---------------------------------------------------------------------------
// Flat normals.

void flatNormalRay(const float* triNormals, int index, float* const out[3], int i) {
    if (index < 0) {
        out[0][i] = out[1][i] = out[2][i] = 0.0f;
        return;
    }
    const float* n = triNormals + mulWrap32(3, index);
    out[0][i] = n[0];
    out[1][i] = n[1];
    out[2][i] = n[2];
}

void flatNormalsVector(const float* triNormals, const int* index, float* const out[3], int len) {
    static const float kNone[3] = {0.0f, 0.0f, 0.0f};  // the normal of a miss
    for (int i = 0; i < len; i += 4) {
        const float* n[4];
        for (int k = 0; k < 4; ++k) {
            const int t = index[i + k];
            n[k] = t < 0 ? kNone : triNormals + mulWrap32(3, t);
        }
        for (int c = 0; c < 3; ++c) {
            _mm_store_ps(out[c] + i, _mm_setr_ps(n[0][c], n[1][c], n[2][c], n[3][c]));
        }
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
    const int* group = in.tris + mulWrap32(t, in.groupLength);
    return in.vertexNormals + mulWrap32(3, group[k]);
}

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

void smoothNormalsVector(const SmoothInputs& in, float* const out[3], int len) {
    const __m128 one = _mm_set1_ps(1.0f);
    const __m128 minusHalf = _mm_set1_ps(-0.5f);
    const __m128 three = _mm_set1_ps(3.0f);
    const __m128 eps = _mm_set1_ps(FLT_EPSILON);
    for (int i = 0; i < len; i += 4) {
        const int* t = in.index + i;
        if ((t[0] | t[1] | t[2] | t[3]) < 0) {
            // A group with rays that missed is handled ray by ray.
            for (int k = 0; k < 4; ++k) smoothNormalRay(in, out, i + k);
            continue;
        }
        // Vertex normals of the three corners, component by component.
        __m128 corner[3][3];
        if (t[0] == t[1] && t[0] == t[2] && t[0] == t[3]) {
            for (int k = 0; k < 3; ++k) {
                const float* n = cornerNormal(in, t[0], k);
                for (int c = 0; c < 3; ++c) corner[k][c] = _mm_set1_ps(n[c]);
            }
        } else {
            for (int k = 0; k < 3; ++k) {
                const float* a = cornerNormal(in, t[0], k);
                const float* b = cornerNormal(in, t[1], k);
                const float* c2 = cornerNormal(in, t[2], k);
                const float* d = cornerNormal(in, t[3], k);
                for (int c = 0; c < 3; ++c) corner[k][c] = _mm_setr_ps(a[c], b[c], c2[c], d[c]);
            }
        }
        const __m128 u = _mm_load_ps(in.u + i);
        const __m128 v = _mm_load_ps(in.v + i);
        const __m128 w = _mm_sub_ps(_mm_sub_ps(one, u), v);
        __m128 n[3];
        for (int c = 0; c < 3; ++c) {
            n[c] = _mm_add_ps(_mm_mul_ps(w, corner[2][c]),
                              _mm_add_ps(_mm_mul_ps(corner[1][c], v), _mm_mul_ps(corner[0][c], u)));
        }
        const __m128 s = _mm_add_ps(_mm_add_ps(_mm_mul_ps(n[0], n[0]), _mm_mul_ps(n[1], n[1])),
                                    _mm_mul_ps(n[2], n[2]));
        // Reciprocal square root refined by one Newton-Raphson step:
        // r' = -0.5 * r * (s * r^2 - 3).
        const __m128 r = _mm_rsqrt_ps(s);
        const __m128 refined = _mm_mul_ps(_mm_mul_ps(minusHalf, r),
                                          _mm_sub_ps(_mm_mul_ps(s, _mm_mul_ps(r, r)), three));
        const __m128 keep = _mm_cmpgt_ps(s, eps);
        for (int c = 0; c < 3; ++c) {
            _mm_store_ps(out[c] + i, _mm_and_ps(keep, _mm_mul_ps(n[c], refined)));
        }
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
        const int begin = rank * chunk + (rank < extra ? rank : extra);
        const int end = begin + chunk + (rank < extra ? 1 : 0);
        triangleNormalRange(vertices, triangleIndices, normals, begin, end);
    }
    return qelOk;
}

QelStatus qelrSurfFlatNormal_32f(const float* triangleNormals, const int* index,
                                 float* const normals[3], int len) {
    if (triangleNormals == nullptr || index == nullptr) return qelErrNullPointer;
    if (len < 1) return qelOk;
    if (shading::wholeGroups(len) && shading::allAligned16(triangleNormals, index) &&
        shading::planesAligned16(normals)) {
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
    if (shading::wholeGroups(len) &&
        shading::allAligned16(vertexNormals, triangleIndices, index, uv[0], uv[1]) &&
        shading::planesAligned16(normals)) {
        smoothNormalsVector(in, normals, len);
    } else {
        for (int i = 0; i < len; ++i) smoothNormalRay(in, normals, i);
    }
    return qelOk;
}

}  // namespace qelr::QELR_ISA::impl
