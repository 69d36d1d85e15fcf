// The volume functions: the SSE3 and AVX2 variants side by side on one
// thread, beside the memory bound (a copy of the bytes the call must move:
// source, maps and destination, each once), and how the work of the chosen
// variant divides over two threads.
//
// Times are the medians of interleaved rounds, in nanoseconds of thread CPU
// time per destination element; the split is the CPU time of one thread over
// that of the busier of two (run with OMP_WAIT_POLICY=passive).
//
// Usage: bench_volume [rounds] [filter] [split]   (filter: a substring of the case)
#include <qelcore.h>
#include <qelr.h>

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
#include "volume/volume_variants.h"
#include "timing.h"
#include "volume.h"

namespace {

using qelr::frame::Isa;
using qelr_bench::Volume;

template <class T>
using Fns = qelr::frame::VolumeVariants<T>;

const char* kModeNames[] = {"", "nearest", "linear", "", "cubic", "bspline", "catmull", "b05c03"};

struct Case {
    std::string name;
    double elements;    // destination elements per call
    size_t bytesMoved;  // source, maps and destination
    std::function<void(Isa)> call;
};

void runCase(const Case& c, int rounds, bool split) {
    static std::vector<uint8_t> from, to;
    if (from.size() < c.bytesMoved) from.assign(c.bytesMoved, 1), to.assign(c.bytesMoved, 2);
    const bool avx2 = qelr::frame::isaRuns(Isa::avx2);
    std::vector<std::function<void()>> runs = {[&] { c.call(Isa::sse3); }};
    if (avx2) runs.push_back([&] { c.call(Isa::avx2); });
    runs.push_back([&] { std::memcpy(to.data(), from.data(), c.bytesMoved); });
    const std::vector<double> t = qelr_bench::interleavedMedians(runs, rounds);
    const double perElement = 1e9 / c.elements, s = t[0] * perElement;
    const double a = avx2 ? t[1] * perElement : NAN, copy = t[avx2 ? 2 : 1] * perElement;
    std::printf("%-26s %8.3f %8.3f %6.2fx %7.3f", c.name.c_str(), s, a, avx2 ? t.back() : NAN,
                copy);
    if (split) {
        const Isa chosen = qelr::frame::activeIsa();
        std::printf(" %6.2fx", qelr_bench::splitOverTwoThreads([&] { c.call(chosen); }, 3).speedup());
    }
    std::printf("\n");
}

template <class T>
Volume<T> randomVolume(int n, uint32_t seed) {
    Volume<T> v(n);
    std::mt19937 rng(seed);
    for (auto& e : v.data) e = static_cast<T>(rng() % (std::is_same_v<T, uint8_t> ? 256 : 4096));
    return v;
}

template <class T>
void addCases(std::vector<Case>& cases) {
    // Resize, contiguous: up 96^3 -> 144^3 and down 192^3 -> 96^3.
    for (int up : {1, 0}) {
        const int n = up ? 96 : 192, m = up ? 144 : 96;
        const double f = up ? 1.5 : 0.5;
        auto src = std::make_shared<Volume<T>>(randomVolume<T>(n, 1));
        auto dst = std::make_shared<Volume<T>>(m);
        for (int mode : {1, 2, 4, 6}) {
            int size = 0;
            qelrResizeGetBufSize(src->box(), dst->box(), 1, mode, &size);
            auto buf = std::make_shared<std::vector<uint8_t>>(size);
            cases.push_back({std::string("resize ") + Fns<T>::name + (up ? " up " : " down ") +
                                 kModeNames[mode],
                             double(m) * m * m, src->bytes() + dst->bytes(), [=](Isa isa) {
                                 Fns<T>::resizeV(isa)(src->data.data(), src->size(), src->rowStep(),
                                                     src->rowStep() * n, src->box(), dst->data.data(),
                                                     dst->rowStep(), dst->rowStep() * m, dst->box(),
                                                     f, f, f, 0, 0, 0, mode, buf->data());
                             }});
        }
    }
    // Remap and warp: a rotation of 96^3.
    const int n = 96;
    double c[3][4];
    qelr_bench::rotation(n, c);
    auto src = std::make_shared<Volume<T>>(randomVolume<T>(n, 2));
    auto dst = std::make_shared<Volume<T>>(n);
    auto maps = std::make_shared<qelr_bench::Maps>(n, c);
    for (int mode : {1, 2, 4, 6}) {
        cases.push_back({std::string("remap ") + Fns<T>::name + " " + kModeNames[mode],
                         double(dst->data.size()), 2 * dst->bytes() + 3 * maps->x.bytes(),
                         [=](Isa isa) {
                             const int mapStep = maps->x.rowStep();
                             Fns<T>::remap(isa)(src->in(), src->size(), src->rowStep(), src->box(),
                                                maps->x.in(), maps->y.in(), maps->z.in(), mapStep,
                                                dst->planes.data(), dst->rowStep(), dst->size(),
                                                mode);
                         }});
    }
    for (int mode : {1, 2, 4, 6}) {
        cases.push_back({std::string("warp ") + Fns<T>::name + " " + kModeNames[mode],
                         double(dst->data.size()), 2 * dst->bytes(), [=](Isa isa) {
                             double cc[3][4];
                             qelr_bench::rotation(n, cc);
                             Fns<T>::warp(isa)(src->in(), src->size(), src->rowStep(), src->box(),
                                               dst->planes.data(), dst->rowStep(), dst->box(), cc,
                                               mode);
                         }});
    }
}

void addFilterCases(std::vector<Case>& cases) {
    const int w = 128, h = 128, d = 48;
    for (int k : {3, 4, 5}) {
        // Anchor at the kernel's last cell: the taps reach k - 1 elements forward.
        auto src = std::make_shared<Volume<int16_t>>(qelr_bench::phantom<int16_t>(w + k, h + k, d + k));
        auto dst = std::make_shared<Volume<int16_t>>(w, h, d);
        auto kernel = std::make_shared<std::vector<int32_t>>(k * k * k, 1);
        int size = 0;
        qelrFilterGetBufSize(dst->size(), {k, k, k}, 1, &size);
        auto buf = std::make_shared<std::vector<uint8_t>>(size);
        cases.push_back({"filter 16s " + std::to_string(k) + "^3", double(dst->data.size()),
                         src->bytes() + dst->bytes(), [=](Isa isa) {
                             QELR_VARIANT(isa, qelrFilter_16s_C1PV)(
                                 src->in(), src->rowStep(), dst->planes.data(), dst->rowStep(),
                                 dst->size(), kernel->data(), {k, k, k}, {k - 1, k - 1, k - 1},
                                 k * k * k, buf->data());
                         }});
    }
}

}  // namespace

int main(int argc, char** argv) {
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 7;
    const char* filter = argc > 2 ? argv[2] : "";
    const bool split = argc > 3 && std::strcmp(argv[3], "split") == 0;
    qelSetNumThreads(1);
    std::vector<Case> cases;
    addCases<uint8_t>(cases);
    addCases<uint16_t>(cases);
    addCases<float>(cases);
    addFilterCases(cases);
    std::printf("ns per destination element (thread CPU time), 1 thread, medians of %d "
                "interleaved rounds%s\n", rounds, split ? "; split: speedup over two threads" : "");
    std::printf("%-26s %8s %8s %7s %7s%s\n", "case", "sse3", "avx2", "ratio", "copy",
                split ? "   split" : "");
    for (const Case& c : cases) {
        if (c.name.find(filter) != std::string::npos) runCase(c, rounds, split);
    }
    return 0;
}
