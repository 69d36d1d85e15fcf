// Volume remap throughput at 128^3 for every type and mode, on one thread and
// on all threads. The maps rotate the volume by 20 degrees about the z axis
// and shrink it slightly, so nearly every voxel samples the inside.
// Counter "Mvoxels/s": destination voxels per second, in millions. Run with
// --benchmark_repetitions=N for medians and minima.
#include <benchmark/benchmark.h>
#include <qelcore.h>
#include <qelr.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

namespace {

constexpr int kN = 128;
constexpr size_t kVoxels = size_t(kN) * kN * kN;

struct Maps {
    std::vector<float> x, y, z;
    std::vector<const float*> px, py, pz;
};

const Maps& maps() {
    static const Maps m = [] {
        Maps m;
        m.x.resize(kVoxels);
        m.y.resize(kVoxels);
        m.z.resize(kVoxels);
        const double c = (kN - 1) / 2.0, a = 20.0 * 3.14159265358979 / 180.0, s = 0.92;
        for (int k = 0; k < kN; ++k)
            for (int j = 0; j < kN; ++j)
                for (int i = 0; i < kN; ++i) {
                    const size_t o = (size_t(k) * kN + j) * kN + i;
                    const double u = i - c, v = j - c, w = k - c;
                    m.x[o] = float(c + s * (std::cos(a) * u - std::sin(a) * v));
                    m.y[o] = float(c + s * (std::sin(a) * u + std::cos(a) * v));
                    m.z[o] = float(c + s * w + 0.37 * std::sin(0.05 * i));
                }
        for (int k = 0; k < kN; ++k) {
            m.px.push_back(m.x.data() + size_t(k) * kN * kN);
            m.py.push_back(m.y.data() + size_t(k) * kN * kN);
            m.pz.push_back(m.z.data() + size_t(k) * kN * kN);
        }
        return m;
    }();
    return m;
}

template <class T>
struct Volume {
    std::vector<T> data = std::vector<T>(kVoxels);
    std::vector<T*> planes;
    Volume() {
        std::mt19937 rng(1);
        for (auto& v : data) v = static_cast<T>(rng() % 250);
        for (int k = 0; k < kN; ++k) planes.push_back(data.data() + size_t(k) * kN * kN);
    }
};

QelStatus remap(const Volume<uint8_t>& s, Volume<uint8_t>& d, const Maps& m, int mode) {
    return qelrRemap_8u_C1PV(s.planes.data(), {kN, kN, kN}, kN, {0, 0, 0, kN, kN, kN}, m.px.data(),
                             m.py.data(), m.pz.data(), kN * 4, d.planes.data(), kN, {kN, kN, kN},
                             mode);
}
QelStatus remap(const Volume<uint16_t>& s, Volume<uint16_t>& d, const Maps& m, int mode) {
    return qelrRemap_16u_C1PV(s.planes.data(), {kN, kN, kN}, kN * 2, {0, 0, 0, kN, kN, kN},
                              m.px.data(), m.py.data(), m.pz.data(), kN * 4, d.planes.data(),
                              kN * 2, {kN, kN, kN}, mode);
}
QelStatus remap(const Volume<float>& s, Volume<float>& d, const Maps& m, int mode) {
    return qelrRemap_32f_C1PV(s.planes.data(), {kN, kN, kN}, kN * 4, {0, 0, 0, kN, kN, kN},
                              m.px.data(), m.py.data(), m.pz.data(), kN * 4, d.planes.data(),
                              kN * 4, {kN, kN, kN}, mode);
}

// Arguments: mode, threads (0 = all the library would use).
template <class T>
void BM_Remap(benchmark::State& state) {
    const int mode = int(state.range(0));
    const int saved = ownGetNumThreads();
    if (state.range(1) > 0) qelSetNumThreads(int(state.range(1)));
    const Maps& m = maps();
    const Volume<T> src;
    Volume<T> dst;
    for (auto _ : state) {
        if (remap(src, dst, m, mode) != qelOk) state.SkipWithError("remap failed");
        benchmark::DoNotOptimize(dst.data.data());
    }
    state.counters["Mvoxels/s"] =
        benchmark::Counter(double(kVoxels) * state.iterations() / 1e6, benchmark::Counter::kIsRate);
    state.counters["threads"] = ownGetNumThreads();
    qelSetNumThreads(saved);
}

void modesAndThreads(benchmark::internal::Benchmark* b) {
    b->ArgNames({"mode", "threads"});
    for (int mode : {1, 2, 4, 5, 6, 7})
        for (int threads : {1, 0}) b->Args({mode, threads});
    // The machine may be shared: besides the median, the fastest repetition
    // shows what the code does when nothing else runs.
    b->Unit(benchmark::kMillisecond)
        ->UseRealTime()
        ->ComputeStatistics("min", [](const std::vector<double>& v) {
            return *std::min_element(v.begin(), v.end());
        });
}

BENCHMARK(BM_Remap<uint8_t>)->Apply(modesAndThreads);
BENCHMARK(BM_Remap<uint16_t>)->Apply(modesAndThreads);
BENCHMARK(BM_Remap<float>)->Apply(modesAndThreads);

}  // namespace

BENCHMARK_MAIN();
