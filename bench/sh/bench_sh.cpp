// Spherical-harmonic basis and transforms on one thread: the SSE3 and AVX2
// variants side by side in one run, beside memset of the same output bytes
// (the memory bound of the basis) and a hand-written double-precision
// evaluation (associated Legendre recurrence and trigonometry, as users
// write it).
//
// Runs alternate between the variants and the peers; the figures are the
// median and the minimum of the runs in nanoseconds of the thread's CPU time
// per direction (the minimum is the run least disturbed by other load on the
// machine). "of memset" is the memset time over the variant's time: 1.0 is
// the memory bound. The outputs (65536 directions, 64 MB at order 15) are
// larger than the caches.
//
// Usage: bench_sh [runs] [filter]   (filter: a substring of the case name)
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

constexpr int kDirections = 65536;
constexpr int kSamples = 16384;  // per transform call
constexpr int kOrders[] = {3, 7, 15};

double cpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return t.tv_sec + 1e-9 * t.tv_nsec;
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

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
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;
    QelSHEngine* get() const { return static_cast<QelSHEngine*>(block); }
};

int coeffCount(int order) { return (order + 1) * (order + 1); }

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

// One line of the table: the variants, and optionally memset of outBytes
// and the hand-written code.
struct Case {
    std::string name;
    int elements;                      // directions or samples per call
    size_t outBytes;                   // 0: no memset column
    std::function<void(Isa)> call;
    std::function<void()> handWritten;  // may be empty
};

std::vector<uint8_t> gMemsetTarget;

void runCase(const Case& c, int runs) {
    const bool avx2 = qelr::frame::isaRuns(Isa::avx2);
    if (gMemsetTarget.size() < c.outBytes) gMemsetTarget.assign(c.outBytes, 1);
    std::vector<double> t[4];
    c.call(Isa::sse3);  // warm up (and fault in the output pages)
    for (int r = 0; r < runs; ++r) {
        for (int k = 0; k < 4; ++k) {
            if ((k == 1 && !avx2) || (k == 2 && c.outBytes == 0) || (k == 3 && !c.handWritten))
                continue;
            const double t0 = cpuSeconds();
            if (k < 2) c.call(k == 0 ? Isa::sse3 : Isa::avx2);
            if (k == 2) std::memset(gMemsetTarget.data(), r, c.outBytes);
            if (k == 3) c.handWritten();
            t[k].push_back((cpuSeconds() - t0) * 1e9 / c.elements);
        }
    }
    auto med = [&](int k) { return t[k].empty() ? NAN : median(t[k]); };
    auto low = [&](int k) { return t[k].empty() ? NAN : *std::min_element(t[k].begin(), t[k].end()); };
    const double s = med(0), a = med(1), m = med(2), h = med(3);
    std::printf("%-24s %8.3f %8.3f %6.2fx %8.3f %6.3f %6.3f %8.2f | %8.3f %8.3f %6.3f %6.3f\n",
                c.name.c_str(), s, a, s / a, m, m / s, m / a, h, low(0), low(1), low(2) / low(0),
                low(2) / low(1));
}

std::vector<Case> makeCases() {
    std::vector<Case> cases;
    const Directions& d = directions();
    for (int order : kOrders) {
        const int count = coeffCount(order);
        auto out = std::make_shared<std::vector<float>>(size_t(kDirections) * count);
        for (uint32_t algorithm : {qelSHDirect, qelSHRecurrence}) {
            auto e = std::make_shared<Engine>(order, algorithm);
            Case c;
            c.name = std::string(algorithm == qelSHDirect ? "SH direct/" : "SH recurrence/") +
                     std::to_string(order);
            c.elements = kDirections;
            c.outBytes = out->size() * 4;
            c.call = [=, &d](Isa isa) {
                QELR_VARIANT(isa, qelrSH_32f)(d.x.data(), d.y.data(), d.z.data(), kDirections,
                                              out->data(), order, e->get());
            };
            if (algorithm == qelSHDirect) {
                c.handWritten = [=, &d] {
                    for (int i = 0; i < kDirections; ++i)
                        handWrittenBasis(d.x[i], d.y[i], d.z[i], order,
                                         out->data() + size_t(i) * count);
                };
            }
            cases.push_back(std::move(c));
        }
        auto band = std::make_shared<std::vector<float>>(size_t(kDirections) * (2 * order + 1));
        cases.push_back({"SHBand/" + std::to_string(order), kDirections, band->size() * 4,
                         [=, &d](Isa isa) {
                             QELR_VARIANT(isa, qelrSHBand_32f)(d.x.data(), d.y.data(), d.z.data(),
                                                               kDirections, band->data(), order);
                         },
                         {}});
    }
    // Transforms: per sample, a basis and one or three vector operations.
    for (int order : kOrders) {
        const int count = coeffCount(order);
        for (uint32_t algorithm : {qelSHDirect, qelSHRecurrence}) {
            auto e = std::make_shared<Engine>(order, algorithm);
            const std::string suffix =
                std::string(algorithm == qelSHDirect ? "/direct/" : "/recur/") +
                std::to_string(order);
            auto coeffs = std::make_shared<std::vector<float>>(3 * count, 0.0f);
            auto planes = std::make_shared<std::vector<float>>(3 * kSamples);
            cases.push_back({"SHTFwd C1I" + suffix, kSamples, 0,
                             [=, &d](Isa isa) {
                                 QELR_VARIANT(isa, qelrSHTFwd_32f_C1I)(
                                     d.x.data(), d.y.data(), d.z.data(), d.values.data(), kSamples,
                                     coeffs->data(), order, e->get());
                             },
                             {}});
            cases.push_back({"SHTFwd P3I" + suffix, kSamples, 0,
                             [=, &d](Isa isa) {
                                 float* c3[3] = {coeffs->data(), coeffs->data() + count,
                                                 coeffs->data() + 2 * count};
                                 const float* src[3] = {d.values.data(), d.x.data(), d.y.data()};
                                 QELR_VARIANT(isa, qelrSHTFwd_32f_P3I)(d.x.data(), d.y.data(),
                                                                       d.z.data(), src, kSamples,
                                                                       c3, order, e->get());
                             },
                             {}});
            cases.push_back({"SHTInv C1" + suffix, kSamples, 0,
                             [=, &d](Isa isa) {
                                 QELR_VARIANT(isa, qelrSHTInv_32f_C1)(
                                     d.values.data(), order, d.x.data(), d.y.data(), d.z.data(),
                                     planes->data(), kSamples, e->get());
                             },
                             {}});
            cases.push_back({"SHTInv P3" + suffix, kSamples, 0,
                             [=, &d](Isa isa) {
                                 const float* c3[3] = {d.values.data(), d.values.data() + count,
                                                       d.values.data() + 2 * count};
                                 float* o3[3] = {planes->data(), planes->data() + kSamples,
                                                 planes->data() + 2 * kSamples};
                                 QELR_VARIANT(isa, qelrSHTInv_32f_P3)(c3, order, d.x.data(),
                                                                      d.y.data(), d.z.data(), o3,
                                                                      kSamples, e->get());
                             },
                             {}});
        }
    }
    return cases;
}

}  // namespace

int main(int argc, char** argv) {
    const int runs = argc > 1 ? std::max(1, std::atoi(argv[1])) : 11;
    const char* filter = argc > 2 ? argv[2] : "";
    std::printf(
        "ns of CPU time per direction (sample), one thread; %d interleaved runs\n"
        "%-24s %8s %8s %7s %8s %6s %6s %8s | %8s %8s %6s %6s\n",
        runs, "case", "sse3", "avx2", "gain", "memset", "of mem", "of mem", "by hand", "min sse3",
        "min avx2", "of mem", "of mem");
    std::printf("%-24s %8s %8s %7s %8s %6s %6s %8s | %8s %8s %6s %6s\n", "", "median", "median",
                "", "median", "sse3", "avx2", "median", "", "", "sse3", "avx2");
    for (const Case& c : makeCases()) {
        if (c.name.find(filter) == std::string::npos) continue;
        runCase(c, runs);
    }
    return 0;
}
