// How evenly the warp and the filter split their work over two threads,
// measured in CPU time so that it holds on a busy machine: the CPU time of a
// one-thread call against the CPU time of the busier thread of a two-thread
// call. On an idle machine that ratio is the wall-clock speed-up.
//
// The OpenMP threads must not busy-wait (a spinning thread burns CPU time
// while its partner is descheduled), so the program runs itself again with
// OMP_WAIT_POLICY=passive when that is not set.
#include <omp.h>
#include <qelcore.h>
#include <qelr.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <vector>

namespace {

constexpr int kN = 128;
constexpr int kRuns = 7;

double threadCpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// CPU seconds of the busier of the two pool threads during `call` (the
// library's region reuses the threads of the application's regions).
double busierThreadSeconds(const std::function<void()>& call) {
    double before[2] = {}, after[2] = {};
#pragma omp parallel num_threads(2)
    before[omp_get_thread_num()] = threadCpuSeconds();
    call();
#pragma omp parallel num_threads(2)
    after[omp_get_thread_num()] = threadCpuSeconds();
    return std::max(after[0] - before[0], after[1] - before[1]);
}

double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

void report(const char* name, const std::function<void()>& call) {
    std::vector<double> one, two;
    for (int run = 0; run < kRuns; ++run) {
        qelSetNumThreads(1);
        const double t0 = threadCpuSeconds();
        call();
        one.push_back(threadCpuSeconds() - t0);
        qelSetNumThreads(2);
        two.push_back(busierThreadSeconds(call));
    }
    const double a = median(one), b = median(two);
    std::printf("%-26s %9.2f ms %9.2f ms %7.2fx\n", name, a * 1e3, b * 1e3, a / b);
}

template <class T>
struct Volume {
    std::vector<T> data;
    std::vector<T*> planes;
    explicit Volume(int n, int margin = 0) : data(size_t(n) * n * n) {
        for (int z = 0; z < n; ++z) {
            planes.push_back(data.data() + (size_t(z) * n + margin) * n + margin);
        }
    }
};

}  // namespace

int main(int, char** argv) {
    if (std::getenv("OMP_WAIT_POLICY") == nullptr) {
        setenv("OMP_WAIT_POLICY", "passive", 1);
        execv("/proc/self/exe", argv);
    }
    const int saved = ownGetNumThreads();
    std::printf("%d^3, CPU time of 1 thread / busier of 2 threads (medians of %d)\n", kN, kRuns);
    std::printf("%-26s %12s %12s %8s\n", "", "1 thread", "2 threads", "split");

    const double a = 30 * M_PI / 180, b = 20 * M_PI / 180;
    const double r[3][3] = {{std::cos(a), -std::sin(a), 0},
                            {std::sin(a) * std::cos(b), std::cos(a) * std::cos(b), -std::sin(b)},
                            {std::sin(a) * std::sin(b), std::cos(a) * std::sin(b), std::cos(b)}};
    double c[3][4];
    for (int i = 0; i < 3; ++i) {
        c[i][3] = 63.5;
        for (int j = 0; j < 3; ++j) {
            c[i][j] = r[i][j];
            c[i][3] -= r[i][j] * 63.5;
        }
    }
    const QelVolumeSize size{kN, kN, kN};
    const QelBox3D box{0, 0, 0, kN, kN, kN};
    Volume<uint8_t> s8(kN), d8(kN);
    Volume<float> sf(kN), df(kN);
    for (size_t i = 0; i < s8.data.size(); ++i) sf.data[i] = s8.data[i] = uint8_t(i * 7 % 251);
    const char* names[8] = {"",      "nearest",  "linear",      "",
                            "cubic", "B-spline", "Catmull-Rom", "B 0.5 C 0.3"};
    char label[64];
    for (int mode : {1, 2, 4, 5, 6, 7}) {
        std::snprintf(label, sizeof label, "warp 8u %s", names[mode]);
        report(label, [&] {
            qelrWarpAffine_8u_C1PV(s8.planes.data(), size, kN, box, d8.planes.data(), kN, box, c,
                                   mode);
        });
        std::snprintf(label, sizeof label, "warp 32f %s", names[mode]);
        report(label, [&] {
            qelrWarpAffine_32f_C1PV(sf.planes.data(), size, kN * 4, box, df.planes.data(), kN * 4,
                                    box, c, mode);
        });
    }
    for (int k : {3, 5}) {
        const int m = k / 2, n = kN + 2 * m;
        Volume<int16_t> src(n, m), dst(kN);
        for (size_t i = 0; i < src.data.size(); ++i) src.data[i] = int16_t(i % 4001);
        std::vector<int32_t> kernel(size_t(k) * k * k, 1);
        const QelVolumeSize ks{k, k, k};
        int bytes = 0;
        qelSetNumThreads(2);
        qelrFilterGetBufSize(size, ks, 1, &bytes);
        std::vector<QelU8> buffer(bytes);
        std::snprintf(label, sizeof label, "filter 16s %dx%dx%d", k, k, k);
        report(label, [&] {
            qelrFilter_16s_C1PV(src.planes.data() + m, n * 2, dst.planes.data(), kN * 2, size,
                                kernel.data(), ks, QelOffset3D{m, m, m}, k * k * k, buffer.data());
        });
    }
    qelSetNumThreads(saved);
    return 0;
}
