// The volume functions on one thread, SSE3 and AVX2 variants side by side in
// one run, beside the memory bound: a copy of the bytes the call must move
// (source, maps and destination, each once).
//
// Runs alternate between the variants (and the copy); the figures are the
// median and the minimum of the runs, in nanoseconds of the thread's CPU time
// per destination element (the minimum is the run least disturbed by other
// load on the machine, which only ever slows a run down).
//
// Usage: bench_volume_isa [runs] [filter]   (filter: a substring of the case)
#include <qelcore.h>
#include <qelr.h>
#include <time.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "core/dispatch.h"

namespace {

using qelr::frame::Isa;

double cpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec + 1e-9 * t.tv_nsec;
}

template <class T>
struct Fns;
#define QELR_VOLUME_FNS(T, s)                                                          \
    template <>                                                                        \
    struct Fns<T> {                                                                    \
        static auto resize(Isa i) { return QELR_VARIANT(i, qelrResize_##s##_C1V); }    \
        static auto remap(Isa i) { return QELR_VARIANT(i, qelrRemap_##s##_C1PV); }     \
        static auto warp(Isa i) { return QELR_VARIANT(i, qelrWarpAffine_##s##_C1PV); } \
        static constexpr const char* name = #s;                                        \
    };
QELR_VOLUME_FNS(uint8_t, 8u)
QELR_VOLUME_FNS(uint16_t, 16u)
QELR_VOLUME_FNS(float, 32f)
#undef QELR_VOLUME_FNS

const char* kModeNames[] = {"", "nearest", "linear", "", "cubic", "bspline", "catmull", "b05c03"};

struct Case {
    std::string name;
    double elements;                        // destination elements per call
    size_t bytesMoved;                      // source, maps and destination
    std::function<void(Isa)> call;
};

std::vector<uint8_t> gCopyFrom, gCopyTo;

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void runCase(const Case& c, int runs) {
    if (gCopyFrom.size() < c.bytesMoved) {
        gCopyFrom.assign(c.bytesMoved, 1);
        gCopyTo.assign(c.bytesMoved, 2);
    }
    const bool avx2 = qelr::frame::isaRuns(Isa::avx2);
    std::vector<double> t[3];
    c.call(Isa::sse3);  // warm up
    for (int r = 0; r < runs; ++r) {
        for (int k = 0; k < 3; ++k) {
            if (k == 1 && !avx2) continue;
            const double t0 = cpuSeconds();
            if (k == 2) {
                std::memcpy(gCopyTo.data(), gCopyFrom.data(), c.bytesMoved);
            } else {
                c.call(k == 0 ? Isa::sse3 : Isa::avx2);
            }
            t[k].push_back((cpuSeconds() - t0) * 1e9 / c.elements);
        }
    }
    const double s = median(t[0]), a = avx2 ? median(t[1]) : NAN, m = median(t[2]);
    const double sMin = *std::min_element(t[0].begin(), t[0].end());
    const double aMin = avx2 ? *std::min_element(t[1].begin(), t[1].end()) : NAN;
    const double mMin = *std::min_element(t[2].begin(), t[2].end());
    std::printf("%-26s %8.3f %8.3f %6.2fx %7.3f | %8.3f %8.3f %6.2fx %7.3f\n", c.name.c_str(), s, a,
                s / a, m, sMin, aMin, sMin / aMin, mMin);
}

template <class T>
std::vector<T> randomData(size_t n, uint32_t seed) {
    std::vector<T> v(n);
    std::mt19937 rng(seed);
    for (auto& e : v) e = static_cast<T>(rng() % (std::is_same_v<T, uint8_t> ? 256 : 4096));
    return v;
}

template <class T>
std::vector<T*> planesOf(std::vector<T>& v, int w, int h, int d) {
    std::vector<T*> p(d);
    for (int z = 0; z < d; ++z) p[z] = v.data() + static_cast<size_t>(z) * w * h;
    return p;
}

// A rotation by 30 degrees about z and 20 about x, about the volume's centre.
void rotation(int n, double c[3][4]) {
    const double a = 30 * M_PI / 180, b = 20 * M_PI / 180;
    const double r[3][3] = {{cos(a), -sin(a) * cos(b), sin(a) * sin(b)},
                            {sin(a), cos(a) * cos(b), -cos(a) * sin(b)},
                            {0, sin(b), cos(b)}};
    const double m = (n - 1) / 2.0;
    for (int i = 0; i < 3; ++i) {
        c[i][3] = m;
        for (int j = 0; j < 3; ++j) {
            c[i][j] = r[i][j];
            c[i][3] -= r[i][j] * m;
        }
    }
}

template <class T>
void addCases(std::vector<Case>& cases) {
    // Resize, contiguous: up 96^3 -> 144^3 and down 192^3 -> 96^3.
    for (int up : {1, 0}) {
        const int n = up ? 96 : 192, m = up ? 144 : 96;
        const double f = up ? 1.5 : 0.5;
        for (int mode : {1, 2, 4, 6}) {
            auto src = std::make_shared<std::vector<T>>(randomData<T>(size_t(n) * n * n, 1));
            auto dst = std::make_shared<std::vector<T>>(size_t(m) * m * m);
            auto buf = std::make_shared<std::vector<uint8_t>>();
            int size = 0;
            qelrResizeGetBufSize({0, 0, 0, n, n, n}, {0, 0, 0, m, m, m}, 1, mode, &size);
            buf->resize(size);
            cases.push_back({std::string("resize ") + Fns<T>::name + (up ? " up " : " down ") +
                                 kModeNames[mode],
                             double(m) * m * m, (src->size() + dst->size()) * sizeof(T),
                             [=](Isa isa) {
                                 const int rs = n * sizeof(T), ds = m * sizeof(T);
                                 Fns<T>::resize(isa)(src->data(), {n, n, n}, rs, rs * n,
                                                     {0, 0, 0, n, n, n}, dst->data(), ds, ds * m,
                                                     {0, 0, 0, m, m, m}, f, f, f, 0, 0, 0, mode,
                                                     buf->data());
                             }});
        }
    }
    // Remap and warp: a rotation of 96^3.
    const int n = 96;
    const size_t count = size_t(n) * n * n;
    auto src = std::make_shared<std::vector<T>>(randomData<T>(count, 2));
    auto dst = std::make_shared<std::vector<T>>(count);
    auto maps = std::make_shared<std::vector<float>>(3 * count);
    double c[3][4];
    rotation(n, c);
    for (int z = 0; z < n; ++z)
        for (int y = 0; y < n; ++y)
            for (int x = 0; x < n; ++x) {
                const size_t i = (size_t(z) * n + y) * n + x;
                for (int a = 0; a < 3; ++a)
                    (*maps)[a * count + i] = float(c[a][0] * x + c[a][1] * y + c[a][2] * z + c[a][3]);
            }
    auto sp = std::make_shared<std::vector<T*>>(planesOf(*src, n, n, n));
    auto dp = std::make_shared<std::vector<T*>>(planesOf(*dst, n, n, n));
    auto mp = std::make_shared<std::vector<float*>>(planesOf(*maps, n, n, 3 * n));
    for (int mode : {1, 2, 4, 6}) {
        cases.push_back({std::string("remap ") + Fns<T>::name + " " + kModeNames[mode],
                         double(count), count * (2 * sizeof(T) + 12), [=](Isa isa) {
                             (void)src, (void)dst, (void)maps;  // kept alive with the case
                             const float* const* m = mp->data();
                             Fns<T>::remap(isa)(sp->data(), {n, n, n}, n * sizeof(T),
                                                {0, 0, 0, n, n, n}, m, m + n, m + 2 * n, n * 4,
                                                dp->data(), n * sizeof(T), {n, n, n}, mode);
                         }});
    }
    for (int mode : {1, 2, 4, 6}) {
        cases.push_back({std::string("warp ") + Fns<T>::name + " " + kModeNames[mode],
                         double(count), count * 2 * sizeof(T), [=](Isa isa) {
                             (void)src, (void)dst;
                             double cc[3][4];
                             rotation(n, cc);
                             Fns<T>::warp(isa)(sp->data(), {n, n, n}, n * sizeof(T),
                                               {0, 0, 0, n, n, n}, dp->data(), n * sizeof(T),
                                               {0, 0, 0, n, n, n}, cc, mode);
                         }});
    }
}

void addFilterCases(std::vector<Case>& cases) {
    const int w = 128, h = 128, d = 48;
    for (int k : {3, 4, 5}) {
        const int W = w + k, H = h + k, D = d + k;
        auto src = std::make_shared<std::vector<int16_t>>(randomData<int16_t>(size_t(W) * H * D, 3));
        auto dst = std::make_shared<std::vector<int16_t>>(size_t(w) * h * d);
        auto kernel = std::make_shared<std::vector<int32_t>>(k * k * k, 1);
        auto buf = std::make_shared<std::vector<uint8_t>>(size_t(w) * 4 * 64 + 64 * 64);
        // Anchor at the kernel's last cell: the taps reach k - 1 voxels forward.
        auto sp = std::make_shared<std::vector<const int16_t*>>();
        for (int z = 0; z < D; ++z) sp->push_back(src->data() + size_t(z) * W * H);
        auto dp = std::make_shared<std::vector<int16_t*>>(planesOf(*dst, w, h, d));
        cases.push_back({"filter 16s " + std::to_string(k) + "^3", double(w) * h * d,
                         (src->size() + dst->size()) * 2, [=](Isa isa) {
                             (void)src, (void)dst;
                             QELR_VARIANT(isa, qelrFilter_16s_C1PV)(
                                 sp->data(), W * 2, dp->data(), w * 2, {w, h, d},
                                 kernel->data(), {k, k, k}, {k - 1, k - 1, k - 1}, k * k * k,
                                 buf->data());
                         }});
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::atoi(argv[1]) : 7;
    const char* filter = argc > 2 ? argv[2] : "";
    qelSetNumThreads(1);
    std::vector<Case> cases;
    addCases<uint8_t>(cases);
    addCases<uint16_t>(cases);
    addCases<float>(cases);
    addFilterCases(cases);
    std::printf("ns per destination element (thread CPU time), 1 thread, %d interleaved runs: "
                "median | minimum\n", runs);
    std::printf("%-26s %8s %8s %7s %7s | %8s %8s %7s %7s\n", "case", "sse3", "avx2", "ratio", "copy",
                "sse3", "avx2", "ratio", "copy");
    for (const Case& c : cases) {
        if (c.name.find(filter) != std::string::npos) runCase(c, runs);
    }
    return 0;
}
