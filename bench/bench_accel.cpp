// Accelerator records and scene box throughput, SSE3 and AVX2 variants side
// by side, beside memcpy of the same bytes (the memory limit of the machine).
// The machine is shared: read the CPU time column, and run with
// --benchmark_repetitions=N --benchmark_enable_random_interleaving=true for
// medians of interleaved runs.
#include <benchmark/benchmark.h>
#include <qelr.h>

#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "core/dispatch.h"

namespace {

using qelr::frame::Isa;

constexpr int kSide = 1024;  // a grid of kSide x kSide vertices
constexpr int kVertices = kSide * kSide;
constexpr int kTriangles = 2 * (kSide - 1) * (kSide - 1);

struct Mesh {
    std::vector<float> vertices;
    std::vector<int> indices;
};

// A rough height field: neighbouring triangles share vertices, as in a real
// mesh, and the normals point every way.
const Mesh& mesh() {
    static const Mesh m = [] {
        Mesh m;
        std::mt19937 rng(1);
        std::uniform_real_distribution<float> jitter(-0.4f, 0.4f), height(-50.0f, 50.0f);
        for (int y = 0; y < kSide; ++y) {
            for (int x = 0; x < kSide; ++x) {
                m.vertices.insert(m.vertices.end(),
                                  {float(x) + jitter(rng), float(y) + jitter(rng), height(rng)});
            }
        }
        for (int y = 0; y + 1 < kSide; ++y) {
            for (int x = 0; x + 1 < kSide; ++x) {
                const int a = y * kSide + x, b = a + 1, c = a + kSide, d = c + 1;
                m.indices.insert(m.indices.end(), {a, b, d, 0, a, d, c, 0});
            }
        }
        return m;
    }();
    return m;
}

void triangleAccelInit(benchmark::State& state, Isa isa) {
    const Mesh& m = mesh();
    std::vector<TriangleAccel> rec(kTriangles);
    for (auto _ : state) {
        QELR_VARIANT(isa, qelrTriangleAccelInit)
        (rec.data(), m.vertices.data(), m.indices.data(), kTriangles);
        benchmark::DoNotOptimize(rec.data());
    }
    state.counters["records/s"] =
        benchmark::Counter(double(kTriangles) * state.iterations(), benchmark::Counter::kIsRate);
    state.SetBytesProcessed(int64_t(state.iterations()) * kTriangles * sizeof(TriangleAccel));
}

void memcpyRecords(benchmark::State& state) {
    std::vector<TriangleAccel> a(kTriangles), b(kTriangles);
    std::memset(a.data(), 1, a.size() * sizeof a[0]);
    for (auto _ : state) {
        std::memcpy(b.data(), a.data(), a.size() * sizeof a[0]);
        benchmark::DoNotOptimize(b.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kTriangles * sizeof(TriangleAccel));
}

void setBoundBox(benchmark::State& state, Isa isa) {
    const Mesh& m = mesh();
    float box[6];
    for (auto _ : state) {
        QELR_VARIANT(isa, qelrSetBoundBox_32f)(m.vertices.data(), kVertices, box);
        benchmark::DoNotOptimize(box);
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kVertices * 12);
}

// The box reads the vertices once; a copy of half as many bytes reads and
// writes as many.
void memcpyVertices(benchmark::State& state) {
    const Mesh& m = mesh();
    std::vector<float> out(m.vertices.size() / 2);
    for (auto _ : state) {
        std::memcpy(out.data(), m.vertices.data(), out.size() * 4);
        benchmark::DoNotOptimize(out.data());
    }
    state.SetBytesProcessed(int64_t(state.iterations()) * kVertices * 12);
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    for (Isa isa : qelr::frame::kIsas) {
        if (!qelr::frame::isaRuns(isa)) continue;
        const std::string name = qelr::frame::isaName(isa);
        benchmark::RegisterBenchmark(("TriangleAccelInit/" + name).c_str(), triangleAccelInit, isa)
            ->Unit(benchmark::kMillisecond);
        benchmark::RegisterBenchmark(("SetBoundBox/" + name).c_str(), setBoundBox, isa)
            ->Unit(benchmark::kMillisecond);
    }
    benchmark::RegisterBenchmark("MemcpyRecords", memcpyRecords)->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("MemcpyVertices", memcpyVertices)->Unit(benchmark::kMillisecond);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
