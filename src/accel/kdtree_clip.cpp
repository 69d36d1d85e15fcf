// Triangle geometry of the KD-tree builder: reading triangles and the boxes of
// their parts inside a cell.
#include <cmath>
#include <cstddef>

#include "accel/kdtree_build.h"

namespace qelr::accel {

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
    double p[9][3];  // a triangle clipped by six planes has at most nine corners
};

// Keeps the part of `in` on the side of the plane x[axis] >= value (keepAbove)
// or x[axis] <= value; points on the plane are kept.
void clipPlane(const Polygon& in, int axis, double value, bool keepAbove, Polygon& out) {
    out.count = 0;
    if (in.count == 0) return;
    auto inside = [&](const double* q) { return keepAbove ? q[axis] >= value : q[axis] <= value; };
    for (int i = 0; i < in.count; ++i) {
        const double* a = in.p[i];
        const double* b = in.p[(i + 1) % in.count];
        const bool ina = inside(a);
        const bool inb = inside(b);
        if (ina) {
            for (int k = 0; k < 3; ++k) out.p[out.count][k] = a[k];
            ++out.count;
        }
        if (ina != inb && out.count < 9) {
            const double t = (value - a[axis]) / (b[axis] - a[axis]);
            for (int k = 0; k < 3; ++k) out.p[out.count][k] = a[k] + t * (b[k] - a[k]);
            out.p[out.count][axis] = value;
            ++out.count;
        }
    }
}

// Float bounds that contain x with one unit of the last place to spare.
float floorFloat(double x) {
    float f = static_cast<float>(x);
    if (static_cast<double>(f) > x) f = std::nextafter(f, -INFINITY);
    return std::nextafter(f, -INFINITY);
}
float ceilFloat(double x) {
    float f = static_cast<float>(x);
    if (static_cast<double>(f) < x) f = std::nextafter(f, INFINITY);
    return std::nextafter(f, INFINITY);
}

}  // namespace

void clipToCell(const double tri[3][3], const Box3& cell, TriRef& ref) {
    // The box before the call, narrowed to the cell: always a valid answer.
    Box3 prior;
    for (int a = 0; a < 3; ++a) {
        prior.mn[a] = std::fmax(ref.mn[a], cell.mn[a]);
        prior.mx[a] = std::fmin(ref.mx[a], cell.mx[a]);
    }
    Polygon poly, tmp;
    poly.count = 3;
    for (int c = 0; c < 3; ++c)
        for (int a = 0; a < 3; ++a) poly.p[c][a] = tri[c][a];
    for (int a = 0; a < 3; ++a) {
        clipPlane(poly, a, cell.mn[a], true, tmp);
        clipPlane(tmp, a, cell.mx[a], false, poly);
    }
    Box3 box = prior;
    if (poly.count > 0) {
        for (int a = 0; a < 3; ++a) {
            double lo = poly.p[0][a], hi = poly.p[0][a];
            for (int i = 1; i < poly.count; ++i) {
                lo = std::fmin(lo, poly.p[i][a]);
                hi = std::fmax(hi, poly.p[i][a]);
            }
            box.mn[a] = std::fmax(floorFloat(lo), prior.mn[a]);
            box.mx[a] = std::fmin(ceilFloat(hi), prior.mx[a]);
        }
        for (int a = 0; a < 3; ++a)
            if (!(box.mn[a] <= box.mx[a])) box = prior;  // rounding ate the part
    }
    for (int a = 0; a < 3; ++a) {
        ref.mn[a] = box.mn[a];
        ref.mx[a] = box.mx[a];
    }
}

}  // namespace qelr::accel
