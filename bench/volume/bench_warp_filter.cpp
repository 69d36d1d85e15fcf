// Affine warp (every mode and type) and 3-D filter (3x3x3 and 5x5x5) on 128^3
// volumes, one thread and all threads, in Mvoxels/s of destination. The side
// by side comparison with SciPy, through the Python package, is
// bench/python/bench_vs_scipy.py.
#include <benchmark/benchmark.h>
#include <qelcore.h>
#include <qelr.h>

#include <cmath>
#include <random>
#include <thread>
#include <vector>

namespace {

constexpr int kN = 128;
constexpr size_t kVoxels = size_t(kN) * kN * kN;

template <class T>
struct Volume {
    std::vector<T> data = std::vector<T>(kVoxels);
    std::vector<T*> planes;
    Volume() {
        for (int z = 0; z < kN; ++z) planes.push_back(data.data() + size_t(z) * kN * kN);
    }
    const T* const* constPlanes() const { return planes.data(); }
};

// A smooth phantom with some noise, in [0, 200].
template <class T>
const Volume<T>& phantom() {
    static const Volume<T> v = [] {
        Volume<T> v;
        std::mt19937 rng(1);
        std::uniform_real_distribution<double> noise(0, 20);
        for (int z = 0; z < kN; ++z)
            for (int y = 0; y < kN; ++y)
                for (int x = 0; x < kN; ++x) {
                    const double r = std::hypot(x - 64.0, y - 60.0, z - 66.0);
                    v.data[(size_t(z) * kN + y) * kN + x] =
                        T((r < 50 ? 150 + 30 * std::sin(x * 0.2) : 20) + noise(rng));
                }
        return v;
    }();
    return v;
}

// A rotation by 30 degrees about z and 20 degrees about x, about the centre.
void rotation(double c[3][4]) {
    const double a = 30 * M_PI / 180, b = 20 * M_PI / 180;
    const double r[3][3] = {{std::cos(a), -std::sin(a), 0},
                            {std::sin(a) * std::cos(b), std::cos(a) * std::cos(b), -std::sin(b)},
                            {std::sin(a) * std::sin(b), std::cos(a) * std::sin(b), std::cos(b)}};
    for (int i = 0; i < 3; ++i) {
        c[i][3] = 63.5;
        for (int j = 0; j < 3; ++j) {
            c[i][j] = r[i][j];
            c[i][3] -= r[i][j] * 63.5;
        }
    }
}

int threadsOf(const benchmark::State& state) {
    return state.range(1) ? int(std::thread::hardware_concurrency()) : 1;
}

void setRate(benchmark::State& state) {
    state.counters["Mvox/s"] =
        benchmark::Counter(double(kVoxels) * state.iterations() / 1e6, benchmark::Counter::kIsRate);
}

template <class T>
QelStatus warp(const Volume<T>& s, Volume<T>& d, const double c[3][4], int mode) {
    const QelVolumeSize size{kN, kN, kN};
    const QelBox3D box{0, 0, 0, kN, kN, kN};
    const int step = kN * sizeof(T);
    if constexpr (sizeof(T) == 1)
        return qelrWarpAffine_8u_C1PV(s.constPlanes(), size, step, box, d.planes.data(), step, box,
                                      c, mode);
    else if constexpr (sizeof(T) == 2)
        return qelrWarpAffine_16u_C1PV(s.constPlanes(), size, step, box, d.planes.data(), step, box,
                                       c, mode);
    else
        return qelrWarpAffine_32f_C1PV(s.constPlanes(), size, step, box, d.planes.data(), step, box,
                                       c, mode);
}

// range(0): mode, range(1): 0 one thread, 1 all threads.
template <class T>
void BM_WarpAffine(benchmark::State& state) {
    const int saved = ownGetNumThreads();
    qelSetNumThreads(threadsOf(state));
    const Volume<T>& src = phantom<T>();
    Volume<T> dst;
    double c[3][4];
    rotation(c);
    for (auto _ : state) {
        if (warp(src, dst, c, int(state.range(0))) != qelOk) state.SkipWithError("warp failed");
        benchmark::DoNotOptimize(dst.data.data());
    }
    setRate(state);
    qelSetNumThreads(saved);
}

// range(0): kernel width (cubic kernel), range(1): threads as above.
void BM_Filter16s(benchmark::State& state) {
    const int saved = ownGetNumThreads();
    qelSetNumThreads(threadsOf(state));
    const int kw = int(state.range(0)), margin = kw / 2;
    // The source carries a margin so the kernel never leaves it.
    const int n = kN + 2 * margin;
    std::vector<int16_t> src(size_t(n) * n * n);
    std::mt19937 rng(2);
    for (auto& v : src) v = int16_t(rng() % 4096);
    std::vector<const int16_t*> srcPlanes;
    for (int z = 0; z < n; ++z)
        srcPlanes.push_back(src.data() + (size_t(z) * n + margin) * n + margin);
    Volume<int16_t> dst;
    std::vector<int32_t> kernel(size_t(kw) * kw * kw, 1);
    const QelVolumeSize roi{kN, kN, kN}, ks{kw, kw, kw};
    int size = 0;
    qelrFilterGetBufSize(roi, ks, 1, &size);
    std::vector<QelU8> buffer(size);
    for (auto _ : state) {
        if (qelrFilter_16s_C1PV(srcPlanes.data() + margin, n * 2, dst.planes.data(), kN * 2, roi,
                                kernel.data(), ks, {margin, margin, margin}, kw * kw * kw,
                                buffer.data()) != qelOk)
            state.SkipWithError("filter failed");
        benchmark::DoNotOptimize(dst.data.data());
    }
    setRate(state);
    qelSetNumThreads(saved);
}

void warpArgs(benchmark::internal::Benchmark* b) {
    for (int threads : {0, 1})
        for (int mode : {1, 2, 4, 5, 6, 7}) b->Args({mode, threads});
    b->ArgNames({"mode", "allThreads"})->Unit(benchmark::kMillisecond)->UseRealTime();
}

BENCHMARK(BM_WarpAffine<uint8_t>)->Apply(warpArgs);
BENCHMARK(BM_WarpAffine<uint16_t>)->Apply(warpArgs);
BENCHMARK(BM_WarpAffine<float>)->Apply(warpArgs);
BENCHMARK(BM_Filter16s)
    ->ArgsProduct({{3, 5}, {0, 1}})
    ->ArgNames({"kernel", "allThreads"})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
