// Throughput of the shading operations, eye rays and hit points in millions
// of rays per second, SSE3 and AVX2 variants side by side, beside a memcpy
// that moves as many bytes as the operation reads and writes (one thread);
// and triangle normals of a million triangles on one and two threads.
//
//   bench_shading [repetitions [operation]]
//
// With an operation name (or a part of one) only the matching rows run.
//
// The machine is shared: single-thread figures are medians of the thread's
// CPU time over interleaved repetitions (every candidate once per round);
// the two-thread triangle normals are split by per-thread CPU time (run with
// OMP_WAIT_POLICY=passive).
#include <qelcore.h>
#include <qelr.h>
#include <time.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <vector>

#include "core/dispatch.h"
#include "timing.h"

namespace {

using qelr::frame::Isa;

int gRepetitions = 15;
const char* gOnly = "";

std::vector<double> medians(const std::vector<std::function<void()>>& runs, int inner) {
    return qelr_bench::interleavedMedians(runs, gRepetitions, inner);
}

// 64-byte aligned planes of one ray pack; `offset` floats past the alignment
// selects the one-ray path.
class Planes {
 public:
    Planes(int count, int len, int offset) : len_(len) {
        const int stride = len + 32;
        raw_ = static_cast<float*>(qelMalloc(int(sizeof(float)) * stride * count));
        std::mt19937 rng(7);
        std::uniform_real_distribution<float> d(-2.0f, 2.0f);
        for (int i = 0; i < stride * count; ++i) raw_[i] = d(rng);
        for (int k = 0; k < count; ++k) p_.push_back(raw_ + k * stride + offset);
        // The last plane holds factors of magnitude 1, so that repeated
        // in-place multiplies and divides stay away from denormals.
        for (int i = 0; i < len; ++i) p_.back()[i] = (rng() & 1) ? 1.0f : -1.0f;
        mask_.assign(len + 32, 0);
        for (int i = 0; i < len + 32; ++i) mask_[i] = (rng() % 8 == 0) ? -1 : int(rng() % 1000);
        maskStore_ = static_cast<int*>(qelMalloc(int(sizeof(int)) * (len + 32)));
        std::memcpy(maskStore_, mask_.data(), sizeof(int) * (len + 32));
        m_ = maskStore_ + offset;
        hitStore_ = static_cast<int*>(qelMalloc(int(sizeof(int)) * (len + 32)));
        hits_ = hitStore_ + offset;
    }
    ~Planes() {
        qelFree(raw_);
        qelFree(maskStore_);
        qelFree(hitStore_);
    }
    float* operator[](int k) { return p_[k]; }
    int* mask() { return m_; }
    int* hits() { return hits_; }
    void resetMask() { std::memcpy(m_, mask_.data() + (m_ - maskStore_), sizeof(int) * len_); }

 private:
    int len_;
    float* raw_;
    int* maskStore_;
    int* m_;
    int* hitStore_;
    int* hits_;
    std::vector<float*> p_;
    std::vector<int> mask_;
};

// Per-vertex and per-triangle data for the surface normals.
struct NormalData {
    static constexpr int kTriangles = 1 << 16, kVertices = 1 << 15;
    float* vertexNormals = static_cast<float*>(qelMalloc(12 * kVertices));
    float* triangleNormals = static_cast<float*>(qelMalloc(12 * kTriangles));
    int* tris = static_cast<int*>(qelMalloc(16 * kTriangles));
    NormalData() {
        std::mt19937 rng(3);
        std::uniform_real_distribution<float> d(-1.0f, 1.0f);
        for (int i = 0; i < 3 * kVertices; ++i) vertexNormals[i] = d(rng);
        for (int i = 0; i < 3 * kTriangles; ++i) triangleNormals[i] = d(rng);
        for (int i = 0; i < 4 * kTriangles; ++i) tris[i] = int(rng() % kVertices);
    }
    ~NormalData() {
        qelFree(vertexNormals);
        qelFree(triangleNormals);
        qelFree(tris);
    }
    // Hits (triangle indices, and u, v in planes 11 and 12): two groups of
    // four neighbouring rays in three share a triangle; about one ray in
    // eight misses.
    static void hits(Planes& p, int len) {
        std::mt19937 rng(9);
        std::uniform_real_distribution<float> w(0.0f, 0.5f);
        for (int i = 0; i < len; ++i) {
            const int t = (i / 4) % 3 == 0 ? int(rng() % kTriangles) : (i / 4 * 37) % kTriangles;
            p.hits()[i] = rng() % 8 == 0 ? -1 : t;
            p[11][i] = w(rng);
            p[12][i] = w(rng);
        }
    }
};

struct Op {
    const char* name;
    int planesRead;     // float or mask planes read
    int planesWritten;  // planes written
    std::function<void(Isa, Planes&, int)> run;
};

const float kLight[3] = {0.5f, 4.0f, -1.0f};
const float kColour[3] = {0.8f, 0.6f, 0.4f};

#define V(name) QELR_VARIANT(isa, name)

std::vector<Op> operations(const NormalData& mesh) {
    return {
        {"Dot_32f_P3C1M", 7, 1,
         [](Isa isa, Planes& p, int n) {
             const float* a[3] = {p[0], p[1], p[2]};
             const float* b[3] = {p[3], p[4], p[5]};
             V(qelrDot_32f_P3C1M)(a, b, p.mask(), p[6], n);
         }},
        {"DotChangeNorm_32f_IM", 7, 4,
         [](Isa isa, Planes& p, int n) {
             const float* a[3] = {p[0], p[1], p[2]};
             float* nn[3] = {p[3], p[4], p[5]};
             V(qelrDotChangeNorm_32f_IM)(a, p.mask(), nn, p[6], n);
         }},
        {"DistAttenuationSO_32f_M", 4, 1,
         [](Isa isa, Planes& p, int n) {
             const float* pts[3] = {p[0], p[1], p[2]};
             V(qelrDistAttenuationSO_32f_M)(kLight, pts, p.mask(), p[6], n);
         }},
        {"CastShadowSO_32f", 8, 5,
         [](Isa isa, Planes& p, int n) {
             const float* nn[3] = {p[0], p[1], p[2]};
             const float* pts[3] = {p[3], p[4], p[5]};
             float* dirs[3] = {p[8], p[9], p[10]};
             p.resetMask();
             V(qelrCastShadowSO_32f)(kLight, p[6], nn, pts, p.mask(), p[7], dirs, n);
         }},
        {"CastReflectionRay_32f", 7, 3,
         [](Isa isa, Planes& p, int n) {
             const float* d[3] = {p[0], p[1], p[2]};
             const float* nn[3] = {p[3], p[4], p[5]};
             float* r[3] = {p[8], p[9], p[10]};
             V(qelrCastReflectionRay_32f)(d, p.mask(), nn, r, n);
         }},
        {"Mul_32f_C1IM", 3, 1,
         [](Isa isa, Planes& p, int n) {
             V(qelrMul_32f_C1IM)
             (p[13], p.mask(), p[1], n);
         }},
        {"Mul_32f_C1P3IM", 5, 3,
         [](Isa isa, Planes& p, int n) {
             float* sd[3] = {p[1], p[2], p[3]};
             V(qelrMul_32f_C1P3IM)(p[13], p.mask(), sd, n);
         }},
        {"Div_32f_C1IM", 3, 1,
         [](Isa isa, Planes& p, int n) {
             V(qelrDiv_32f_C1IM)
             (p[13], p.mask(), p[1], n);
         }},
        {"AddMulMul_32f_AC1P3IM", 8, 3,
         [](Isa isa, Planes& p, int n) {
             const float* s[3] = {p[1], p[2], p[3]};
             float* acc[3] = {p[8], p[9], p[10]};
             V(qelrAddMulMul_32f_AC1P3IM)(kColour, p[0], s, p.mask(), acc, n);
         }},
        {"SurfFlatNormal_32f", 4, 3,
         [&mesh](Isa isa, Planes& p, int n) {
             float* out[3] = {p[2], p[3], p[4]};
             V(qelrSurfFlatNormal_32f)(mesh.triangleNormals, p.hits(), out, n);
         }},
        {"SurfSmoothNormal_32f", 15, 3,
         [&mesh](Isa isa, Planes& p, int n) {
             const float* uv[2] = {p[11], p[12]};
             float* out[3] = {p[2], p[3], p[4]};
             V(qelrSurfSmoothNormal_32f)(mesh.vertexNormals, mesh.tris, p.hits(), uv, out, n, 4);
         }},
        {"CastEye_32f", 0, 3,
         [](Isa isa, Planes& p, int n) {
             // 64 columns (the vector path on either alignment) or 63 (the
             // one-ray path), as many rows as fit.
             const int width = reinterpret_cast<uintptr_t>(p[8]) % 16 == 0 ? 64 : 63;
             float* d[3] = {p[8], p[9], p[10]};
             const float corner[3] = {-0.7f, 0.4f, 1.0f}, sx[3] = {0.002f, 0.0f, 0.0001f},
                         sy[3] = {0.0f, -0.002f, 0.0003f};
             V(qelrCastEye_32f)(corner, sx, sy, 64, 64, {3, 2}, d, {width, n / 64});
         }},
        {"HitPoint3DEpsS0_32f_M", 5, 3,
         [](Isa isa, Planes& p, int n) {
             const float* d[3] = {p[0], p[1], p[2]};
             float* pts[3] = {p[8], p[9], p[10]};
             V(qelrHitPoint3DEpsS0_32f_M)(kLight, d, p[3], p.mask(), pts, n, 0.999f);
         }},
        {"HitPoint3DEpsM0_32f_M", 8, 3,
         [](Isa isa, Planes& p, int n) {
             const float* o[3] = {p[4], p[5], p[6]};
             const float* d[3] = {p[0], p[1], p[2]};
             float* pts[3] = {p[8], p[9], p[10]};
             V(qelrHitPoint3DEpsM0_32f_M)(o, d, p[3], p.mask(), pts, n, 0.999f);
         }},
    };
}

void benchRays(int len) {
    std::printf("\n%d rays per call, one thread, Mrays/s (ratio: to memcpy of the same bytes)\n",
                len);
    std::printf("%-24s %8s %8s %8s %8s %8s %6s %6s %6s\n", "operation", "sse3", "avx2", "sse3-1",
                "avx2-1", "memcpy", "sse3/m", "avx2/m", "a2/s3");
    const int inner = std::max(1, (1 << 21) / len);
    const NormalData mesh;
    Planes aligned(14, len, 0), misaligned(14, len, 1);
    NormalData::hits(aligned, len);
    NormalData::hits(misaligned, len);
    std::vector<char> from(64 * size_t(len)), to(64 * size_t(len));
    for (const Op& op : operations(mesh)) {
        if (std::strstr(op.name, gOnly) == nullptr) continue;
        // memcpy reads and writes as many bytes as it copies: copying half
        // the operation's traffic moves the same bytes.
        const size_t bytes = size_t(op.planesRead + op.planesWritten) * 4 * len / 2;
        const auto m = medians(
            {[&] { op.run(Isa::sse3, aligned, len); }, [&] { op.run(Isa::avx2, aligned, len); },
             [&] { op.run(Isa::sse3, misaligned, len); },
             [&] { op.run(Isa::avx2, misaligned, len); },
             [&] { std::memcpy(to.data(), from.data(), bytes); }},
            inner);
        auto rate = [&](double s) { return len / s * 1e-6; };
        std::printf("%-24s %8.0f %8.0f %8.0f %8.0f %8.0f %6.2f %6.2f %6.2f\n", op.name, rate(m[0]),
                    rate(m[1]), rate(m[2]), rate(m[3]), rate(m[4]), m[4] / m[0], m[4] / m[1], m[5]);
    }
}

void benchTriangleNormals() {
    const int triangles = 1 << 20, vertices = 1 << 19;
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> d(-100.0f, 100.0f);
    std::vector<float> v(3 * size_t(vertices)), n(3 * size_t(triangles));
    for (auto& x : v) x = d(rng);
    std::vector<int> tris(4 * size_t(triangles));
    // Neighbouring triangles share vertices, as in a real mesh.
    for (int t = 0; t < triangles; ++t) {
        const int base = (t / 2) % (vertices - 2);
        tris[4 * t] = base;
        tris[4 * t + 1] = base + 1 + (t & 1);
        tris[4 * t + 2] = base + 2 - (t & 1);
    }
    const int saved = ownGetNumThreads();
    std::printf("\nTriangleNormal_32f, %d triangles, Mtriangles/s\n", triangles);
    auto run = [&](Isa isa) {
        QELR_VARIANT(isa, qelrTriangleNormal_32f)(v.data(), tris.data(), n.data(), triangles);
    };
    qelSetNumThreads(1);
    const auto one = medians({[&] { run(Isa::sse3); }, [&] { run(Isa::avx2); }}, 1);
    std::printf("  1 thread  (CPU time):  sse3 %7.1f  avx2 %7.1f  avx2/sse3 %.2f\n",
                triangles / one[0] * 1e-6, triangles / one[1] * 1e-6, one[2]);
    for (Isa isa : {Isa::sse3, Isa::avx2}) {
        const qelr_bench::ThreadSplit split =
            qelr_bench::splitOverTwoThreads([&] { run(isa); }, gRepetitions);
        std::printf("  %s over 2 threads (per-thread CPU time): busiest %.1f Mtriangles/s, "
                    "speedup %.2f\n", qelr::frame::isaName(isa),
                    triangles / split.busiestOfTwo * 1e-6, split.speedup());
    }
    qelSetNumThreads(saved);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) gRepetitions = std::max(1, std::atoi(argv[1]));
    if (argc > 2) gOnly = argv[2];
    if (!qelr::frame::isaRuns(Isa::avx2)) {
        std::printf("this processor cannot run the AVX2 variant\n");
        return 0;
    }
    std::printf("medians of %d repetitions; sse3/avx2: four-rays path, -1: one-ray path\n",
                gRepetitions);
    qelSetNumThreads(1);
    for (int len : {4096, 1 << 20}) benchRays(len);
    if (std::strstr("TriangleNormal_32f", gOnly) != nullptr) benchTriangleNormals();
    return 0;
}
