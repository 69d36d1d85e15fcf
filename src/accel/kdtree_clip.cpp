// Triangle geometry of the KD-tree builder: reading triangles and the boxes of
// their parts inside a cell.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <limits>
#include <utility>

#include "accel/kdtree_build.h"
#include "simd/target.h"

namespace qelr::QELR_ISA::accel {

bool fetchTriangle(const float* vertices, const int* triangleIndices, int32_t vertexCount,
                   int32_t t, double out[3][3]) {
    const int* idx = triangleIndices + 4 * static_cast<ptrdiff_t>(t);
    for (int c = 0; c < 3; ++c) {
        const int i = idx[c];
        if (i < 0 || i >= vertexCount) return false;
        const float* v = vertices + 3 * static_cast<ptrdiff_t>(i);
        for (int a = 0; a < 3; ++a) {
            if (!std::isfinite(v[a])) return false;
            out[c][a] = v[a];
        }
    }
    return true;
}

namespace {

struct Polygon {
    int count;
    double p[12][3];  // nine corners at most for a triangle in a box, with room for rounding
};

// Keeps the part of `in` on the side of the plane x[axis] >= value (keepAbove)
// or x[axis] <= value; points on the plane are kept.
void clipPlane(const Polygon& in, int axis, double value, bool keepAbove, Polygon& out) {
    out.count = 0;
    if (in.count == 0) return;
    auto inside = [&](const double* q) { return keepAbove ? q[axis] >= value : q[axis] <= value; };
    bool inb = inside(in.p[0]);
    for (int i = 0; i < in.count; ++i) {
        const double* a = in.p[i];
        const double* b = in.p[i + 1 == in.count ? 0 : i + 1];
        const bool ina = inb;
        inb = inside(b);
        if (ina && out.count < 12) {
            for (int k = 0; k < 3; ++k) out.p[out.count][k] = a[k];
            ++out.count;
        }
        if (ina != inb && out.count < 12) {
            const double t = (value - a[axis]) / (b[axis] - a[axis]);
            for (int k = 0; k < 3; ++k) out.p[out.count][k] = a[k] + t * (b[k] - a[k]);
            out.p[out.count][axis] = value;
            ++out.count;
        }
    }
}

// The next float above a finite f.
float nextUp(float f) {
    if (f == 0.0f) return std::numeric_limits<float>::denorm_min();
    uint32_t bits;
    std::memcpy(&bits, &f, 4);
    bits = f > 0.0f ? bits + 1 : bits - 1;
    std::memcpy(&f, &bits, 4);
    return f;
}
float nextDown(float f) { return -nextUp(-f); }

// Float bounds that contain x with one unit of the last place to spare.
float floorFloat(double x) {
    float f = static_cast<float>(x);
    if (static_cast<double>(f) > x) f = nextDown(f);
    return nextDown(f);
}
float ceilFloat(double x) {
    float f = static_cast<float>(x);
    if (static_cast<double>(f) < x) f = nextUp(f);
    return nextUp(f);
}

float maxf(float a, float b) { return a > b ? a : b; }
float minf(float a, float b) { return a < b ? a : b; }

}  // namespace

namespace {

// The triangle clipped to the cell; planes that it does not cross are skipped.
void clipTriangle(const double tri[3][3], const Box3& cell, Polygon& out) {
    Polygon spare;
    Polygon* poly = &out;
    Polygon* other = &spare;
    poly->count = 3;
    for (int c = 0; c < 3; ++c)
        for (int a = 0; a < 3; ++a) poly->p[c][a] = tri[c][a];
    for (int a = 0; a < 3; ++a) {
        const double lo = std::min({tri[0][a], tri[1][a], tri[2][a]});
        const double hi = std::max({tri[0][a], tri[1][a], tri[2][a]});
        if (lo < cell.mn[a]) {
            clipPlane(*poly, a, cell.mn[a], true, *other);
            std::swap(poly, other);
        }
        if (hi > cell.mx[a]) {
            clipPlane(*poly, a, cell.mx[a], false, *other);
            std::swap(poly, other);
        }
    }
    if (poly != &out) out = *poly;
}

}  // namespace

void narrowToCell(const Box3& cell, TriRef& ref) {
    for (int a = 0; a < 3; ++a) {
        ref.mn[a] = maxf(ref.mn[a], cell.mn[a]);
        ref.mx[a] = minf(ref.mx[a], cell.mx[a]);
    }
}

namespace {

// Narrows ref's box to the polygon's bounds, rounded outward, within the
// cell and the box before the call.
void narrowToPolygon(const Polygon& poly, const Box3& cell, TriRef& ref) {
    TriRef narrowed = ref;  // always a valid answer
    narrowToCell(cell, narrowed);
    Box3 prior;
    for (int a = 0; a < 3; ++a) {
        prior.mn[a] = narrowed.mn[a];
        prior.mx[a] = narrowed.mx[a];
    }
    Box3 box = prior;
    if (poly.count > 0) {
        for (int a = 0; a < 3; ++a) {
            double lo = poly.p[0][a], hi = poly.p[0][a];
            for (int i = 1; i < poly.count; ++i) {
                lo = std::min(lo, poly.p[i][a]);
                hi = std::max(hi, poly.p[i][a]);
            }
            box.mn[a] = maxf(floorFloat(lo), prior.mn[a]);
            box.mx[a] = minf(ceilFloat(hi), prior.mx[a]);
        }
        for (int a = 0; a < 3; ++a)
            if (!(box.mn[a] <= box.mx[a])) box = prior;  // rounding ate the part
    }
    for (int a = 0; a < 3; ++a) {
        ref.mn[a] = box.mn[a];
        ref.mx[a] = box.mx[a];
    }
}

}  // namespace

void clipToCell(const double tri[3][3], const Box3& cell, TriRef& ref) {
    Polygon poly;
    clipTriangle(tri, cell, poly);
    narrowToPolygon(poly, cell, ref);
}

void clipToChildren(const double tri[3][3], const Box3& cell, int axis, float position,
                    TriRef& below, TriRef& above) {
    Polygon inCell, part;
    clipTriangle(tri, cell, inCell);
    Box3 child = cell;
    child.mx[axis] = position;
    clipPlane(inCell, axis, position, false, part);
    narrowToPolygon(part, child, below);
    child = cell;
    child.mn[axis] = position;
    clipPlane(inCell, axis, position, true, part);
    narrowToPolygon(part, child, above);
}

bool coversCell(const double tri[3][3], const Box3& cell) {
    int c = 0;
    while (c < 3 && !(tri[0][c] == tri[1][c] && tri[0][c] == tri[2][c])) ++c;
    if (c == 3) return false;
    const int u = (c + 1) % 3, w = (c + 2) % 3;
    // Edge functions in double; the products of float differences carry a
    // relative error near 1e-16, so a margin of 1e-10 of their size leaves
    // every corner truly inside, far from the float rounding of the boxes.
    constexpr double kMargin = 1e-10;
    const double area = (tri[1][u] - tri[0][u]) * (tri[2][w] - tri[0][w]) -
                        (tri[1][w] - tri[0][w]) * (tri[2][u] - tri[0][u]);
    if (area == 0.0) return false;
    const double sign = area > 0.0 ? 1.0 : -1.0;
    for (int k = 0; k < 4; ++k) {
        const double qu = (k & 1) != 0 ? cell.mx[u] : cell.mn[u];
        const double qw = (k & 2) != 0 ? cell.mx[w] : cell.mn[w];
        for (int e = 0; e < 3; ++e) {
            const double* p = tri[e];
            const double* q = tri[(e + 1) % 3];
            const double a = (q[u] - p[u]) * (qw - p[w]);
            const double b = (q[w] - p[w]) * (qu - p[u]);
            if (!(sign * (a - b) > kMargin * (std::fabs(a) + std::fabs(b)))) return false;
        }
    }
    return true;
}

}  // namespace qelr::QELR_ISA::accel
