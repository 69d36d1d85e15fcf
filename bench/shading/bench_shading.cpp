// Throughput of the shading operations in millions of rays per second, beside
// a memcpy that moves as many bytes as the operation reads and writes, on one
// thread; and triangle normals of a million triangles on one and two threads.
//
//   bench_shading [repetitions]
//
// Each figure is the median of the repetitions (the machine is shared).
#include <qelr.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

namespace {

int gRepetitions = 15;

double medianSeconds(const std::function<void()>& run, int inner) {
    std::vector<double> t;
    run();  // warm the caches and the pages
    for (int r = 0; r < gRepetitions; ++r) {
        const auto a = std::chrono::steady_clock::now();
        for (int k = 0; k < inner; ++k) run();
        const auto b = std::chrono::steady_clock::now();
        t.push_back(std::chrono::duration<double>(b - a).count() / inner);
    }
    std::nth_element(t.begin(), t.begin() + t.size() / 2, t.end());
    return t[t.size() / 2];
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
    }
    ~Planes() {
        qelFree(raw_);
        qelFree(maskStore_);
    }
    float* operator[](int k) { return p_[k]; }
    int* mask() { return m_; }
    void resetMask() { std::memcpy(m_, mask_.data() + (m_ - maskStore_), sizeof(int) * len_); }

 private:
    int len_;
    float* raw_;
    int* maskStore_;
    int* m_;
    std::vector<float*> p_;
    std::vector<int> mask_;
};

struct Op {
    const char* name;
    int planesRead;     // float or mask planes read
    int planesWritten;  // planes written
    std::function<void(Planes&, int)> run;
};

const float kLight[3] = {0.5f, 4.0f, -1.0f};
const float kColour[3] = {0.8f, 0.6f, 0.4f};

std::vector<Op> operations() {
    return {
        {"Dot_32f_P3C1M", 7, 1,
         [](Planes& p, int n) {
             const float* a[3] = {p[0], p[1], p[2]};
             const float* b[3] = {p[3], p[4], p[5]};
             qelrDot_32f_P3C1M(a, b, p.mask(), p[6], n);
         }},
        {"DotChangeNorm_32f_IM", 7, 4,
         [](Planes& p, int n) {
             const float* a[3] = {p[0], p[1], p[2]};
             float* nn[3] = {p[3], p[4], p[5]};
             qelrDotChangeNorm_32f_IM(a, p.mask(), nn, p[6], n);
         }},
        {"DistAttenuationSO_32f_M", 4, 1,
         [](Planes& p, int n) {
             const float* pts[3] = {p[0], p[1], p[2]};
             qelrDistAttenuationSO_32f_M(kLight, pts, p.mask(), p[6], n);
         }},
        {"CastShadowSO_32f", 8, 5,
         [](Planes& p, int n) {
             const float* nn[3] = {p[0], p[1], p[2]};
             const float* pts[3] = {p[3], p[4], p[5]};
             float* dirs[3] = {p[8], p[9], p[10]};
             p.resetMask();
             qelrCastShadowSO_32f(kLight, p[6], nn, pts, p.mask(), p[7], dirs, n);
         }},
        {"CastReflectionRay_32f", 7, 3,
         [](Planes& p, int n) {
             const float* d[3] = {p[0], p[1], p[2]};
             const float* nn[3] = {p[3], p[4], p[5]};
             float* r[3] = {p[8], p[9], p[10]};
             qelrCastReflectionRay_32f(d, p.mask(), nn, r, n);
         }},
        {"Mul_32f_C1IM", 3, 1,
         [](Planes& p, int n) { qelrMul_32f_C1IM(p[11], p.mask(), p[1], n); }},
        {"Mul_32f_C1P3IM", 5, 3,
         [](Planes& p, int n) {
             float* sd[3] = {p[1], p[2], p[3]};
             qelrMul_32f_C1P3IM(p[11], p.mask(), sd, n);
         }},
        {"Div_32f_C1IM", 3, 1,
         [](Planes& p, int n) { qelrDiv_32f_C1IM(p[11], p.mask(), p[1], n); }},
        {"AddMulMul_32f_AC1P3IM", 8, 3,
         [](Planes& p, int n) {
             const float* s[3] = {p[1], p[2], p[3]};
             float* acc[3] = {p[8], p[9], p[10]};
             qelrAddMulMul_32f_AC1P3IM(kColour, p[0], s, p.mask(), acc, n);
         }},
    };
}

void benchRays(int len) {
    std::printf("\n%d rays per call (one thread)\n", len);
    std::printf("%-26s %12s %12s %14s %8s\n", "operation", "4-wide Mr/s", "1-ray Mr/s",
                "memcpy Mr/s", "ratio");
    const int inner = std::max(1, (1 << 22) / len);
    Planes aligned(12, len, 0), misaligned(12, len, 1);
    std::vector<char> from(64 * size_t(len)), to(64 * size_t(len));
    for (const Op& op : operations()) {
        const double four = medianSeconds([&] { op.run(aligned, len); }, inner);
        const double one = medianSeconds([&] { op.run(misaligned, len); }, inner);
        // memcpy reads and writes as many bytes as it copies: copying half
        // the operation's traffic moves the same bytes.
        const size_t bytes = size_t(op.planesRead + op.planesWritten) * 4 * len / 2;
        const double copy =
            medianSeconds([&] { std::memcpy(to.data(), from.data(), bytes); }, inner);
        std::printf("%-26s %12.0f %12.0f %14.0f %8.2f\n", op.name, len / four * 1e-6,
                    len / one * 1e-6, len / copy * 1e-6, copy / four);
    }
}

void benchSurfaceNormals(int len) {
    const int triangles = 1 << 16, vertices = 1 << 15;
    std::mt19937 rng(3);
    std::uniform_real_distribution<float> d(-1.0f, 1.0f), w(0.0f, 0.5f);
    // qelMalloc's 64-byte alignment lets the aligned packs take the four-rays path.
    float* vn = static_cast<float*>(qelMalloc(12 * vertices));
    float* tn = static_cast<float*>(qelMalloc(12 * triangles));
    for (int i = 0; i < 3 * vertices; ++i) vn[i] = d(rng);
    for (int i = 0; i < 3 * triangles; ++i) tn[i] = d(rng);
    int* tris = static_cast<int*>(qelMalloc(16 * triangles));
    for (int i = 0; i < 4 * triangles; ++i) tris[i] = int(rng() % vertices);
    Planes aligned(6, len, 0), misaligned(6, len, 1);
    for (Planes* p : {&aligned, &misaligned}) {
        for (int i = 0; i < len; ++i) {
            // Groups of four neighbouring rays often share a triangle.
            p->mask()[i] =
                (i / 4) % 3 == 0 ? int(rng() % triangles) : int((i / 4 * 37) % triangles);
            (*p)[0][i] = w(rng);
            (*p)[1][i] = w(rng);
        }
    }
    const int inner = std::max(1, (1 << 20) / len);
    auto flat = [&](Planes& p) {
        float* out[3] = {p[2], p[3], p[4]};
        qelrSurfFlatNormal_32f(tn, p.mask(), out, len);
    };
    auto smooth = [&](Planes& p) {
        const float* uv[2] = {p[0], p[1]};
        float* out[3] = {p[2], p[3], p[4]};
        qelrSurfSmoothNormal_32f(vn, tris, p.mask(), uv, out, len, 4);
    };
    std::printf("%-26s %12.0f %12.0f\n", "SurfFlatNormal_32f",
                len / medianSeconds([&] { flat(aligned); }, inner) * 1e-6,
                len / medianSeconds([&] { flat(misaligned); }, inner) * 1e-6);
    std::printf("%-26s %12.0f %12.0f\n", "SurfSmoothNormal_32f",
                len / medianSeconds([&] { smooth(aligned); }, inner) * 1e-6,
                len / medianSeconds([&] { smooth(misaligned); }, inner) * 1e-6);
    qelFree(tris);
    qelFree(vn);
    qelFree(tn);
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
    std::printf("\nTriangleNormal_32f, %d triangles\n", triangles);
    double single = 0;
    for (int threads : {1, 2}) {
        qelSetNumThreads(threads);
        const double s = medianSeconds(
            [&] { qelrTriangleNormal_32f(v.data(), tris.data(), n.data(), triangles); }, 1);
        if (threads == 1) single = s;
        std::printf("  %d thread%s: %7.2f ms  %7.1f Mtriangles/s  speed-up %.2f\n", threads,
                    threads == 1 ? " " : "s", s * 1e3, triangles / s * 1e-6, single / s);
    }
    qelSetNumThreads(saved);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc > 1) gRepetitions = std::max(1, std::atoi(argv[1]));
    std::printf("medians of %d repetitions; ratio = memcpy time / operation time (4-wide)\n",
                gRepetitions);
    for (int len : {4096, 1 << 20}) {
        qelSetNumThreads(1);
        benchRays(len);
        benchSurfaceNormals(len);
    }
    benchTriangleNormals();
    return 0;
}
