// Spherical-harmonic basis and transforms, single-threaded, beside a
// hand-written double-precision evaluation (associated Legendre recurrence
// and trigonometry, as users write it) and memset of the same output bytes.
//
// Prints the median times and, at the end, the ratios against the peers:
// directions per second of each selector at order 7 against the hand-written
// code, and the time of each selector at order 15 against memset. The
// outputs (65536 directions, 64 MB at order 15) are larger than the caches.
// Ratios use CPU time: the run is single-threaded, and on a shared machine
// CPU time is the steadier measure of the work.
#include <benchmark/benchmark.h>
#include <qelcore.h>
#include <qelr.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

namespace {

constexpr int kDirections = 65536;
constexpr int kOrders[] = {3, 7, 15};

struct Directions {
    std::vector<float> x, y, z, values;
};

const Directions& directions() {
    static const Directions d = [] {
        Directions d;
        std::mt19937 rng(1);
        std::normal_distribution<double> g;
        for (int i = 0; i < kDirections; ++i) {
            const double a = g(rng), b = g(rng), c = g(rng);
            const double r = std::sqrt(a * a + b * b + c * c);
            d.x.push_back(static_cast<float>(a / r));
            d.y.push_back(static_cast<float>(b / r));
            d.z.push_back(static_cast<float>(c / r));
            d.values.push_back(static_cast<float>(g(rng)));
        }
        return d;
    }();
    return d;
}

// A state block owned by the benchmark.
struct Engine {
    void* block = nullptr;
    Engine(uint32_t order, uint32_t algorithm) {
        uint32_t size = 0;
        qelrSHGetSize_32f(order, algorithm, &size);
        block = qelMalloc(static_cast<int>(size));
        qelrSHInit_32f(get(), order, algorithm);
    }
    ~Engine() { qelFree(block); }
    QelSHEngine* get() const { return static_cast<QelSHEngine*>(block); }
};

int coeffCount(int order) { return (order + 1) * (order + 1); }

void setDirectionRate(benchmark::State& state, int order) {
    state.counters["directions/s"] =
        benchmark::Counter(double(kDirections) * state.iterations(), benchmark::Counter::kIsRate);
    state.SetBytesProcessed(int64_t(state.iterations()) * kDirections * coeffCount(order) * 4);
}

// ---- the library's basis ----------------------------------------------------

void BM_SH(benchmark::State& state, uint32_t algorithm) {
    const int order = static_cast<int>(state.range(0));
    const Directions& d = directions();
    Engine e(order, algorithm);
    std::vector<float> out(size_t(kDirections) * coeffCount(order));
    for (auto _ : state) {
        qelrSH_32f(d.x.data(), d.y.data(), d.z.data(), kDirections, out.data(), order, e.get());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    setDirectionRate(state, order);
}

void BM_SHDirect(benchmark::State& state) { BM_SH(state, qelSHDirect); }
void BM_SHRecurrence(benchmark::State& state) { BM_SH(state, qelSHRecurrence); }

void BM_SHBand(benchmark::State& state) {
    const int band = static_cast<int>(state.range(0));
    const Directions& d = directions();
    std::vector<float> out(size_t(kDirections) * (2 * band + 1));
    for (auto _ : state) {
        qelrSHBand_32f(d.x.data(), d.y.data(), d.z.data(), kDirections, out.data(), band);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.counters["directions/s"] =
        benchmark::Counter(double(kDirections) * state.iterations(), benchmark::Counter::kIsRate);
}

// ---- the peers ----------------------------------------------------------------

// What a user writes by hand: the azimuth by atan2, cos(m phi) and sin(m phi)
// by the library math functions, the associated Legendre functions by their
// three-term recurrence in l for each m, normalisations from a factorial
// table, everything in double precision, stored as float.
void handWrittenBasis(float fx, float fy, float fz, int order, float* out) {
    static const std::vector<double> factorial = [] {
        std::vector<double> f(2 * 16 + 1, 1.0);
        for (size_t i = 1; i < f.size(); ++i) f[i] = f[i - 1] * double(i);
        return f;
    }();
    const double x = fx, y = fy, z = fz;
    const double phi = std::atan2(y, x);
    const double sinTheta = std::sqrt(std::fmax(0.0, 1.0 - z * z));
    double pmm = 1.0;
    for (int m = 0; m <= order; ++m) {
        if (m > 0) pmm *= -(2.0 * m - 1.0) * sinTheta;
        const double cosM = std::cos(m * phi), sinM = std::sin(m * phi);
        double pPrev = 0.0, p = pmm;
        for (int l = m; l <= order; ++l) {
            if (l == m + 1) {
                pPrev = p;
                p = z * (2.0 * m + 1.0) * pmm;
            } else if (l > m + 1) {
                const double next = ((2.0 * l - 1.0) * z * p - (l + m - 1.0) * pPrev) / (l - m);
                pPrev = p;
                p = next;
            }
            const double k =
                std::sqrt((2.0 * l + 1.0) / (4.0 * M_PI) * factorial[l - m] / factorial[l + m]);
            if (m == 0) {
                out[l * l + l] = static_cast<float>(k * p);
            } else {
                out[l * l + l + m] = static_cast<float>(M_SQRT2 * k * p * cosM);
                out[l * l + l - m] = static_cast<float>(M_SQRT2 * k * p * sinM);
            }
        }
    }
}

void BM_HandWrittenDouble(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const Directions& d = directions();
    const int count = coeffCount(order);
    std::vector<float> out(size_t(kDirections) * count);
    for (auto _ : state) {
        for (int i = 0; i < kDirections; ++i)
            handWrittenBasis(d.x[i], d.y[i], d.z[i], order, out.data() + size_t(i) * count);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    setDirectionRate(state, order);
}

void BM_Memset(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const size_t bytes = size_t(kDirections) * coeffCount(order) * 4;
    std::vector<float> out(bytes / 4);
    for (auto _ : state) {
        std::memset(out.data(), 0, bytes);
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    setDirectionRate(state, order);
}

// ---- transforms -------------------------------------------------------------

void setSampleRate(benchmark::State& state) {
    state.counters["samples/s"] =
        benchmark::Counter(double(kDirections) * state.iterations(), benchmark::Counter::kIsRate);
}

void BM_SHTFwdC1I(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const uint32_t algorithm = static_cast<uint32_t>(state.range(1));
    const Directions& d = directions();
    Engine e(order, algorithm);
    std::vector<float> coeffs(coeffCount(order), 0.0f);
    for (auto _ : state) {
        qelrSHTFwd_32f_C1I(d.x.data(), d.y.data(), d.z.data(), d.values.data(), kDirections,
                           coeffs.data(), order, e.get());
        benchmark::DoNotOptimize(coeffs.data());
    }
    setSampleRate(state);
}

void BM_SHTFwdP3I(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const uint32_t algorithm = static_cast<uint32_t>(state.range(1));
    const Directions& d = directions();
    Engine e(order, algorithm);
    std::vector<float> c[3];
    for (auto& v : c) v.assign(coeffCount(order), 0.0f);
    float* coeffs[3] = {c[0].data(), c[1].data(), c[2].data()};
    const float* src[3] = {d.values.data(), d.x.data(), d.y.data()};
    for (auto _ : state) {
        qelrSHTFwd_32f_P3I(d.x.data(), d.y.data(), d.z.data(), src, kDirections, coeffs, order,
                           e.get());
        benchmark::DoNotOptimize(coeffs[0]);
    }
    setSampleRate(state);
}

void BM_SHTInvC1(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const uint32_t algorithm = static_cast<uint32_t>(state.range(1));
    const Directions& d = directions();
    Engine e(order, algorithm);
    std::vector<float> coeffs(d.values.begin(), d.values.begin() + coeffCount(order));
    std::vector<float> out(kDirections);
    for (auto _ : state) {
        qelrSHTInv_32f_C1(coeffs.data(), order, d.x.data(), d.y.data(), d.z.data(), out.data(),
                          kDirections, e.get());
        benchmark::DoNotOptimize(out.data());
    }
    setSampleRate(state);
}

void BM_SHTInvP3(benchmark::State& state) {
    const int order = static_cast<int>(state.range(0));
    const uint32_t algorithm = static_cast<uint32_t>(state.range(1));
    const Directions& d = directions();
    Engine e(order, algorithm);
    const int count = coeffCount(order);
    const float* coeffs[3] = {d.values.data(), d.values.data() + count,
                              d.values.data() + 2 * count};
    std::vector<float> o[3];
    for (auto& v : o) v.resize(kDirections);
    float* out[3] = {o[0].data(), o[1].data(), o[2].data()};
    for (auto _ : state) {
        qelrSHTInv_32f_P3(coeffs, order, d.x.data(), d.y.data(), d.z.data(), out, kDirections,
                          e.get());
        benchmark::DoNotOptimize(out[0]);
    }
    setSampleRate(state);
}

void orderArgs(benchmark::internal::Benchmark* b) {
    for (int order : kOrders) b->Arg(order);
}

void transformArgs(benchmark::internal::Benchmark* b) {
    for (int algorithm : {0, 1})
        for (int order : kOrders) b->Args({order, algorithm});
    b->ArgNames({"order", "selector"});
}

BENCHMARK(BM_SHDirect)->Apply(orderArgs);
BENCHMARK(BM_SHRecurrence)->Apply(orderArgs);
BENCHMARK(BM_SHBand)->Apply(orderArgs);
BENCHMARK(BM_HandWrittenDouble)->Apply(orderArgs);
BENCHMARK(BM_Memset)->Apply(orderArgs);
BENCHMARK(BM_SHTFwdC1I)->Apply(transformArgs);
BENCHMARK(BM_SHTFwdP3I)->Apply(transformArgs);
BENCHMARK(BM_SHTInvC1)->Apply(transformArgs);
BENCHMARK(BM_SHTInvP3)->Apply(transformArgs);

// Keeps the CPU time per iteration of every run (the median when
// repetitions are asked for) for the summary.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& run : runs) {
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            const std::string name = run.run_name.str();
            if (median || (run.run_type == Run::RT_Iteration && !medians_.count(name)))
                times_[name] = run.GetAdjustedCPUTime();
            if (median) medians_[name] = true;
        }
        ConsoleReporter::ReportRuns(runs);
    }

    void printRatios() const {
        std::printf(
            "\nSummary (CPU time per %d directions, single-threaded; medians when repeated)\n",
            kDirections);
        for (int order : kOrders) {
            const auto t = [this, order](const char* family) {
                char name[64];
                std::snprintf(name, sizeof name, "%s/%d", family, order);
                auto it = times_.find(name);
                return it == times_.end() ? 0.0 : it->second;
            };
            const double hand = t("BM_HandWrittenDouble"), mem = t("BM_Memset");
            const double direct = t("BM_SHDirect"), recur = t("BM_SHRecurrence");
            if (hand <= 0 || mem <= 0 || direct <= 0 || recur <= 0) continue;
            std::printf(
                "order %2d: speed-up over hand-written double: direct %.2fx, recurrence %.2fx; "
                "time over memset of the same bytes: direct %.2fx, recurrence %.2fx\n",
                order, hand / direct, hand / recur, direct / mem, recur / mem);
        }
        std::printf(
            "targets: order 7 direct >= 5x and recurrence >= 3x the hand-written code; "
            "order 15 either selector <= 1.5x memset\n");
    }

 private:
    std::map<std::string, double> times_;
    std::map<std::string, bool> medians_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios();
    benchmark::Shutdown();
    return 0;
}
