// Resize throughput in destination Mvoxels/s: 128^3 -> 192^3 and 256^3 -> 128^3,
// every mode and element type, on one thread and on all threads (only the
// 32f contiguous variant splits its work), beside a copy of the same output
// bytes (the memory limit).
//
// Arguments of each benchmark: mode, upscale (1) or downscale (0), threads
// (0 = all).
#include <benchmark/benchmark.h>
#include <qelcore.h>
#include <qelr.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

struct Shape {
    int src, dst;
    double factor;
};

Shape shapeOf(int64_t upscale) { return upscale ? Shape{128, 192, 1.5} : Shape{256, 128, 0.5}; }

template <class T>
const std::vector<T>& sourceVolume(int n) {
    static std::vector<T> volumes[2];
    std::vector<T>& v = volumes[n == 256];
    if (v.empty()) {
        v.resize(static_cast<size_t>(n) * n * n);
        std::mt19937 rng(7);
        for (auto& e : v) e = static_cast<T>(rng() % 256);
    }
    return v;
}

template <class T>
QelStatus resizeV(const T* src, int n, T* dst, int m, double f, int mode, QelU8* buf) {
    const QelVolumeSize size{n, n, n};
    const QelBox3D srcBox{0, 0, 0, n, n, n}, dstBox{0, 0, 0, m, m, m};
    const int s = static_cast<int>(sizeof(T));
    if constexpr (std::is_same_v<T, QelU8>)
        return qelrResize_8u_C1V(src, size, n * s, n * n * s, srcBox, dst, m * s, m * m * s, dstBox,
                                 f, f, f, 0, 0, 0, mode, buf);
    else if constexpr (std::is_same_v<T, uint16_t>)
        return qelrResize_16u_C1V(src, size, n * s, n * n * s, srcBox, dst, m * s, m * m * s,
                                  dstBox, f, f, f, 0, 0, 0, mode, buf);
    else
        return qelrResize_32f_C1V(src, size, n * s, n * n * s, srcBox, dst, m * s, m * m * s,
                                  dstBox, f, f, f, 0, 0, 0, mode, buf);
}

template <class T>
void BM_Resize(benchmark::State& state) {
    const int mode = static_cast<int>(state.range(0));
    const Shape sh = shapeOf(state.range(1));
    const int saved = ownGetNumThreads();
    const int threads = state.range(2) ? static_cast<int>(state.range(2)) : saved;
    qelSetNumThreads(threads);
    const std::vector<T>& src = sourceVolume<T>(sh.src);
    std::vector<T> dst(static_cast<size_t>(sh.dst) * sh.dst * sh.dst);
    const QelBox3D box{0, 0, 0, sh.dst, sh.dst, sh.dst};
    int size = 0;
    qelrResizeGetBufSize(box, box, 1, mode, &size);
    std::vector<QelU8> buf(size);
    for (auto _ : state) {
        if (resizeV(src.data(), sh.src, dst.data(), sh.dst, sh.factor, mode, buf.data()) != qelOk)
            state.SkipWithError("resize failed");
        benchmark::DoNotOptimize(dst.data());
    }
    qelSetNumThreads(saved);
    state.counters["Mvox/s"] = benchmark::Counter(double(dst.size()) * state.iterations() * 1e-6,
                                                  benchmark::Counter::kIsRate);
    state.counters["threads"] = threads;
}

// The output bytes of the resize written by a copy.
template <class T>
void BM_CopyOutput(benchmark::State& state) {
    const Shape sh = shapeOf(state.range(0));
    const size_t n = static_cast<size_t>(sh.dst) * sh.dst * sh.dst;
    std::vector<T> a(n, T(1)), b(n);
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), n * sizeof(T));
        benchmark::DoNotOptimize(b.data());
    }
    state.counters["Mvox/s"] =
        benchmark::Counter(double(n) * state.iterations() * 1e-6, benchmark::Counter::kIsRate);
}

void resizeArgs(benchmark::internal::Benchmark* b) {
    b->ArgNames({"mode", "up", "threads"});
    for (int up : {1, 0})
        for (int mode : {1, 2, 4, 5, 6, 7})
            for (int threads : {1, 0}) b->Args({mode, up, threads});
    b->Unit(benchmark::kMillisecond)->UseRealTime();
}

}  // namespace

BENCHMARK(BM_Resize<QelU8>)->Apply(resizeArgs);
BENCHMARK(BM_Resize<uint16_t>)->Apply(resizeArgs);
BENCHMARK(BM_Resize<float>)->Apply(resizeArgs);
BENCHMARK(BM_CopyOutput<QelU8>)->ArgName("up")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyOutput<uint16_t>)->ArgName("up")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_CopyOutput<float>)->ArgName("up")->Arg(1)->Arg(0)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
