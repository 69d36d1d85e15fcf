// Several application threads call the parallel functions at once, each with its own buffers; some of them call
// from inside an OpenMP region of their own, so the library's regions nest in the caller's. Every call must give the
// bytes of a lone call. Under ThreadSanitizer (preset tsan) this is also the race test of the parallel regions.
#include <gtest/gtest.h>
#include <omp.h>
#include <qelr.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <random>
#include <thread>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;

template <class T>
Bytes bytesOf(const std::vector<T>& v) {
    const auto* p = reinterpret_cast<const uint8_t*>(v.data());
    return Bytes(p, p + v.size() * sizeof(T));
}

// Inputs shared read-only by every call.
struct Inputs {
    std::vector<float> vertices;
    std::vector<int> indices;
    std::vector<float> volume;  // 20^3 floats
    std::vector<uint16_t> volume16;
    std::vector<uint8_t> volume8;
    std::vector<float> maps[3];  // 18^3 absolute source positions
    Inputs() {
        std::mt19937 g(7);
        std::uniform_real_distribution<float> u(-1, 1);
        for (int i = 0; i < 3 * 400; ++i) vertices.push_back(u(g));
        for (int t = 0; t < 300; ++t)
            for (int c = 0; c < 4; ++c) indices.push_back(c < 3 ? int(g() % 400) : 0);
        for (int i = 0; i < 20 * 20 * 20; ++i) {
            volume.push_back(u(g));
            volume16.push_back(uint16_t(g()));
            volume8.push_back(uint8_t(g()));
        }
        for (auto& m : maps)
            for (int i = 0; i < 18 * 18 * 18; ++i) m.push_back(9.5f + 9.4f * u(g));
    }
};
const Inputs& in() {
    static const Inputs i;
    return i;
}

template <class V>
auto planesOf(V& v, int w, int h, int d) {
    std::vector<decltype(v.data())> p;
    for (int k = 0; k < d; ++k) p.push_back(v.data() + size_t(k) * w * h);
    return p;
}

// The parallel functions, each with its own output and scratch.
const std::function<Bytes()> kJobs[] = {
    [] {  // cost-driven KD-tree (nodes of 76 and more triangles are scored by a team)
        KDTreeBuildParams p{qelKdCostDriven, 20, 1.0f, 64, 0};
        KDTreeNode* tree = nullptr;
        int size = 0;
        EXPECT_EQ(qelrKDTreeBuildAlloc(&tree, in().vertices.data(), in().indices.data(), 400, 300, &size, &p), qelOk);
        Bytes b(reinterpret_cast<uint8_t*>(tree), reinterpret_cast<uint8_t*>(tree) + size);
        qelrKDTreeFree(tree);
        return b;
    },
    [] {
        std::vector<float> n(3 * 300);
        EXPECT_EQ(qelrTriangleNormal_32f(in().vertices.data(), in().indices.data(), n.data(), 300), qelOk);
        return bytesOf(n);
    },
    [] {  // contiguous float resize, 20^3 -> 24^3, cubic
        const QelBox3D sb{0, 0, 0, 20, 20, 20}, db{0, 0, 0, 24, 24, 24};
        int bytes = 0;
        EXPECT_EQ(qelrResizeGetBufSize(sb, db, 1, qelInterpCubic, &bytes), qelOk);
        std::vector<float> dst(24 * 24 * 24);
        std::vector<uint8_t> work(bytes);
        EXPECT_EQ(qelrResize_32f_C1V(in().volume.data(), {20, 20, 20}, 80, 1600, sb, dst.data(), 96, 96 * 24, db, 1.2,
                                     1.2, 1.2, 0, 0, 0, qelInterpCubic, work.data()),
                  qelOk);
        return bytesOf(dst);
    },
    [] {  // 16-bit remap, cubic
        std::vector<uint16_t> dst(18 * 18 * 18);
        auto sp = planesOf(in().volume16, 20, 20, 20);
        auto dp = planesOf(dst, 18, 18, 18);
        std::vector<const float*> mp[3];
        for (int a = 0; a < 3; ++a) mp[a] = planesOf(in().maps[a], 18, 18, 18);
        EXPECT_EQ(qelrRemap_16u_C1PV(sp.data(), {20, 20, 20}, 40, {0, 0, 0, 20, 20, 20}, mp[0].data(), mp[1].data(),
                                     mp[2].data(), 72, dp.data(), 36, {18, 18, 18}, qelInterpCubicCatmullRom),
                  qelOk);
        return bytesOf(dst);
    },
    [] {  // 8-bit affine warp, linear, a rotation about z
        std::vector<uint8_t> dst(18 * 18 * 18, 7);
        auto sp = planesOf(in().volume8, 20, 20, 20);
        auto dp = planesOf(dst, 18, 18, 18);
        const double c[3][4] = {{0.8, -0.6, 0, 4}, {0.6, 0.8, 0, -3}, {0, 0, 1, 1}};
        EXPECT_EQ(qelrWarpAffine_8u_C1PV(sp.data(), {20, 20, 20}, 20, {0, 0, 0, 20, 20, 20}, dp.data(), 18,
                                         {0, 0, 0, 18, 18, 18}, c, qelInterpLinear),
                  qelOk);
        return bytesOf(dst);
    },
    [] {  // 16-bit filter, 3x3x3 kernel, anchor in the middle
        std::vector<int16_t> dst(18 * 18 * 18);
        std::vector<const int16_t*> sp;
        auto src = reinterpret_cast<const int16_t*>(in().volume16.data());
        for (int k = 0; k < 20; ++k) sp.push_back(src + k * 400 + 20 + 1);  // planes -1 .. 18 of the region
        auto dp = planesOf(dst, 18, 18, 18);
        int32_t kernel[27];
        for (int i = 0; i < 27; ++i) kernel[i] = i % 5 - 2;
        int bytes = 0;
        EXPECT_EQ(qelrFilterGetBufSize({18, 18, 18}, {3, 3, 3}, 1, &bytes), qelOk);
        std::vector<uint8_t> work(bytes);
        EXPECT_EQ(qelrFilter_16s_C1PV(sp.data() + 1, 40, dp.data(), 36, {18, 18, 18}, kernel, {3, 3, 3}, {1, 1, 1}, 3,
                                      work.data()),
                  qelOk);
        return bytesOf(dst);
    },
};
constexpr int kJobCount = sizeof kJobs / sizeof kJobs[0];

TEST(Stress, ConcurrentCallsGiveTheBytesOfLoneCalls) {
    qelSetNumThreads(2);
    Bytes lone[kJobCount];
    for (int j = 0; j < kJobCount; ++j) lone[j] = kJobs[j]();
    std::atomic<int> calls{0}, mismatches{0};
    for (int appThreads = 2; appThreads <= 4; ++appThreads) {
        std::vector<std::thread> threads;
        for (int a = 0; a < appThreads; ++a)
            threads.emplace_back([&, a] {
                // Odd threads call from inside a region of their own: two OpenMP threads each make every call.
                const int team = a % 2 ? 2 : 1;
#pragma omp parallel num_threads(team)
                for (int r = 0; r < 3; ++r)
                    for (int j = 0; j < kJobCount; ++j) {
                        const int job = (j + a + omp_get_thread_num()) % kJobCount;
                        mismatches += kJobs[job]() != lone[job];
                        ++calls;
                    }
            });
        for (auto& t : threads) t.join();
    }
    EXPECT_EQ(mismatches, 0) << "of " << calls << " concurrent calls";
    EXPECT_EQ(calls, 3 * kJobCount * 13);  // 2 + 3 + 4 application threads, the odd ones with teams of 2
}

}  // namespace
