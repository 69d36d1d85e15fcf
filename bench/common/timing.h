// Timing for the benchmark programs on a shared, noisy machine: the CPU time
// of the calling thread, medians of interleaved rounds (every variant once per
// round, so a burst of outside load hits all of them alike), and the split of
// a call's work over two threads from the CPU time of every thread of the
// process (Linux schedstat), since the wall time of a two-thread run mostly
// measures the other processes. Run split measurements with
// OMP_WAIT_POLICY=passive, or spinning at the barriers counts as work.
#pragma once

#include <dirent.h>
#include <qelcore.h>
#include <time.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <string>
#include <vector>

namespace qelr_bench {

// CPU seconds of the calling thread.
inline double threadCpuSeconds() {
    timespec t;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
    return double(t.tv_sec) + 1e-9 * double(t.tv_nsec);
}

// CPU seconds of every thread of this process, by thread id.
inline std::map<int, double> everyThreadCpuSeconds() {
    std::map<int, double> m;
    DIR* dir = opendir("/proc/self/task");
    if (dir == nullptr) return m;
    while (const dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        const std::string path = std::string("/proc/self/task/") + e->d_name + "/schedstat";
        if (FILE* f = std::fopen(path.c_str(), "r")) {
            unsigned long long ns = 0;
            if (std::fscanf(f, "%llu", &ns) == 1) m[std::atoi(e->d_name)] = double(ns) * 1e-9;
            std::fclose(f);
        }
    }
    closedir(dir);
    return m;
}

inline double median(std::vector<double> v) {
    std::sort(v.begin(), v.end());
    return v.empty() ? 0.0 : v[v.size() / 2];
}

// Thread CPU seconds per call of each candidate, the median over `rounds`
// rounds; one round runs every candidate `inner` times after one untimed run
// (so that each starts with its own data in the caches, whatever ran
// before), starting one candidate further each round, so that a burst of
// load hits them all alike and none always runs after the same one. With two
// candidates or more, one more entry follows: the median over the rounds of
// the first candidate's time over the second's (a paired ratio, steadier
// than the ratio of medians when the load drifts).
inline std::vector<double> interleavedMedians(const std::vector<std::function<void()>>& runs,
                                              int rounds, int inner = 1) {
    std::vector<std::vector<double>> t(runs.size());
    for (int r = 0; r < rounds; ++r) {
        for (size_t j = 0; j < runs.size(); ++j) {
            const size_t k = (j + size_t(r)) % runs.size();
            runs[k]();
            const double a = threadCpuSeconds();
            for (int i = 0; i < inner; ++i) runs[k]();
            t[k].push_back((threadCpuSeconds() - a) / inner);
        }
    }
    if (runs.size() > 1) {
        std::vector<double> ratio;
        for (size_t r = 0; r < t[0].size(); ++r) ratio.push_back(t[0][r] / t[1][r]);
        t.push_back(ratio);
    }
    std::vector<double> m;
    for (auto& v : t) m.push_back(median(v));
    return m;
}

// How a call's work divides over two threads: the CPU seconds per call of
// one thread, and of the busiest thread of a team of two; their ratio is
// the speedup two free cores would give. Restores the team size.
struct ThreadSplit {
    double one, busiestOfTwo;
    double speedup() const { return one / busiestOfTwo; }
};

inline ThreadSplit splitOverTwoThreads(const std::function<void()>& call, int calls) {
    const int saved = ownGetNumThreads();
    ThreadSplit s{0, 0};
    for (const int threads : {1, 2}) {
        qelSetNumThreads(threads);
        call();
        const std::map<int, double> before = everyThreadCpuSeconds();
        for (int r = 0; r < calls; ++r) call();
        double total = 0, most = 0;
        for (const auto& [tid, t] : everyThreadCpuSeconds()) {
            const auto b = before.find(tid);
            const double dt = t - (b == before.end() ? 0.0 : b->second);
            total += dt;
            most = std::max(most, dt);
        }
        (threads == 1 ? s.one : s.busiestOfTwo) = (threads == 1 ? total : most) / calls;
    }
    qelSetNumThreads(saved);
    return s;
}

}  // namespace qelr_bench
