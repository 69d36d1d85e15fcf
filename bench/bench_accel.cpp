// Accelerator records and scene box throughput, beside memcpy of the same
// bytes (the memory limit of the machine).
#include <benchmark/benchmark.h>
#include <qelr.h>

#include <cstring>
#include <random>
#include <vector>

namespace {

constexpr int kTriangles = 1 << 20;
constexpr int kVertices = 1 << 20;

struct Mesh {
    std::vector<float> vertices;
    std::vector<int> indices;
};

const Mesh& mesh() {
    static const Mesh m = [] {
        Mesh m;
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> coord(-100.0f, 100.0f);
        std::uniform_int_distribution<int> pick(0, kVertices - 1);
        m.vertices.resize(3 * static_cast<size_t>(kVertices));
        for (auto& x : m.vertices) x = coord(rng);
        m.indices.resize(4 * static_cast<size_t>(kTriangles));
        for (int t = 0; t < kTriangles; ++t) {
            for (int c = 0; c < 3; ++c) m.indices[4 * t + c] = pick(rng);
            m.indices[4 * t + 3] = 0;
        }
        return m;
    }();
    return m;
}

void BM_TriangleAccelInit(benchmark::State& state) {
    const Mesh& m = mesh();
    std::vector<TriangleAccel> rec(kTriangles);
    for (auto _ : state) {
        qelrTriangleAccelInit(rec.data(), m.vertices.data(), m.indices.data(), kTriangles);
        benchmark::DoNotOptimize(rec.data());
    }
    state.counters["records/s"] =
        benchmark::Counter(double(kTriangles) * state.iterations(), benchmark::Counter::kIsRate);
    state.SetBytesProcessed(int64_t(state.iterations()) * kTriangles * sizeof(TriangleAccel));
}

void BM_MemcpyRecords(benchmark::State& state) {
    std::vector<TriangleAccel> a(kTriangles), b(kTriangles);
    std::memset(a.data(), 1, a.size() * sizeof a[0]);
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), a.size() * sizeof a[0]);
        benchmark::DoNotOptimize(b.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kTriangles * sizeof(TriangleAccel));
}

void BM_SetBoundBox(benchmark::State& state) {
    const Mesh& m = mesh();
    float box[6];
    for (auto _ : state) {
        qelrSetBoundBox_32f(m.vertices.data(), kVertices, box);
        benchmark::DoNotOptimize(box);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kVertices * 12);
}

void BM_MemcpyVertices(benchmark::State& state) {
    const Mesh& m = mesh();
    std::vector<float> out(m.vertices.size());
    for (auto _ : state) {
        std::memcpy(out.data(), m.vertices.data(), out.size() * 4);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kVertices * 12);
}

}  // namespace

BENCHMARK(BM_TriangleAccelInit)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyRecords)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_SetBoundBox)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_MemcpyVertices)->Unit(benchmark::kMillisecond);
BENCHMARK_MAIN();
