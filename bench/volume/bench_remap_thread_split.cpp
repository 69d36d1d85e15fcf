// How the remap work divides over two threads, from the CPU time of every
// thread of the process (Linux schedstat) rather than from wall time: on a
// shared, oversubscribed machine the wall time of a two-thread run mostly
// measures the other processes. The estimated speedup is the CPU time of
// one thread over the CPU time of the busiest of two. Run it with
// OMP_WAIT_POLICY=passive, or spinning at the barriers is counted as work.
#include <dirent.h>
#include <qelcore.h>
#include <qelr.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <string>
#include <vector>

namespace {

constexpr int kN = 128;
constexpr size_t kVoxels = size_t(kN) * kN * kN;

// CPU seconds of every thread of this process.
std::map<int, double> threadCpuSeconds() {
    std::map<int, double> m;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return m;
    while (const dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        const std::string path = std::string("/proc/self/task/") + e->d_name + "/schedstat";
        if (FILE* f = std::fopen(path.c_str(), "r")) {
            unsigned long long ns = 0;
            if (std::fscanf(f, "%llu", &ns) == 1) m[std::atoi(e->d_name)] = ns * 1e-9;
            std::fclose(f);
        }
    }
    closedir(dir);
    return m;
}

// The maps of bench_remap: a rotation by 20 degrees about z, a slight shrink
// and a wobble in z.
struct Maps {
    std::vector<float> x = std::vector<float>(kVoxels), y = x, z = x;
    std::vector<const float*> px, py, pz;
    Maps() {
        const double c = (kN - 1) / 2.0, a = 20.0 * 3.14159265358979 / 180.0, s = 0.92;
        for (int k = 0; k < kN; ++k)
            for (int j = 0; j < kN; ++j)
                for (int i = 0; i < kN; ++i) {
                    const size_t o = (size_t(k) * kN + j) * kN + i;
                    const double u = i - c, v = j - c, w = k - c;
                    x[o] = float(c + s * (std::cos(a) * u - std::sin(a) * v));
                    y[o] = float(c + s * (std::sin(a) * u + std::cos(a) * v));
                    z[o] = float(c + s * w + 0.37 * std::sin(0.05 * i));
                }
        for (int k = 0; k < kN; ++k) {
            px.push_back(x.data() + size_t(k) * kN * kN);
            py.push_back(y.data() + size_t(k) * kN * kN);
            pz.push_back(z.data() + size_t(k) * kN * kN);
        }
    }
};

template <class T, class Remap>
void measure(const char* type, Remap remap, const Maps& maps) {
    std::vector<T> src(kVoxels), dst(kVoxels);
    for (size_t i = 0; i < kVoxels; ++i) src[i] = T(i % 251);
    std::vector<const T*> ps;
    std::vector<T*> pd;
    for (int k = 0; k < kN; ++k) {
        ps.push_back(src.data() + size_t(k) * kN * kN);
        pd.push_back(dst.data() + size_t(k) * kN * kN);
    }
    const int step = kN * int(sizeof(T));
    for (const int mode : {1, 2, 4, 5, 6, 7}) {
        const auto call = [&] {
            return remap(ps.data(), {kN, kN, kN}, step, {0, 0, 0, kN, kN, kN}, maps.px.data(),
                         maps.py.data(), maps.pz.data(), kN * 4, pd.data(), step, {kN, kN, kN},
                         mode);
        };
        constexpr int kCalls = 8;
        double one = 0, busiest = 0;
        for (const int threads : {1, 2}) {
            qelSetNumThreads(threads);
            call();
            auto before = threadCpuSeconds();
            for (int r = 0; r < kCalls; ++r) call();
            double total = 0, most = 0;
            for (const auto& [tid, t] : threadCpuSeconds()) {
                const double dt = t - before[tid];
                total += dt;
                most = dt > most ? dt : most;
            }
            (threads == 1 ? one : busiest) = (threads == 1 ? total : most) / kCalls;
        }
        std::printf(
            "%-4s mode %d: 1 thread %6.1f ms (%5.0f Mvoxels/s), busiest of 2 %6.1f ms, "
            "estimated speedup %.2fx\n",
            type, mode, one * 1e3, kVoxels / one / 1e6, busiest * 1e3, one / busiest);
    }
}

}  // namespace

int main() {
    const int saved = ownGetNumThreads();
    const Maps maps;
    measure<uint8_t>("8u", qelrRemap_8u_C1PV, maps);
    measure<uint16_t>("16u", qelrRemap_16u_C1PV, maps);
    measure<float>("32f", qelrRemap_32f_C1PV, maps);
    qelSetNumThreads(saved);
}
