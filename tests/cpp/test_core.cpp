// Core value types, working memory and the thread pool.
#include <array>
#include <atomic>
#include <mutex>
#include <thread>

#include "ImageData.h"
#include "common.h"
#include "helpers.h"
#include "korvo/Threading.h"

TEST(Vec3, ComparisonsAreDeliberatelyAsymmetric) {
    const Vec3<int> a{1, 5, 1}, b{2, 2, 2};
    EXPECT_TRUE(a < b);
    EXPECT_FALSE(a >= b);
    EXPECT_FALSE((Vec3<int>{3, 3, 3} <= b));
    EXPECT_TRUE((Vec3<int>{2, 3, 3} <= b));
    // "< end" fails only when every component has reached the end.
    EXPECT_TRUE((Vec3<int>{9, 9, 1} < b));
    EXPECT_FALSE((Vec3<int>{2, 9, 2} < b));
    EXPECT_EQ((Vec3<int>{2, 3, 4}.volume()), 24);
}

TEST(ImageData, IndexingCubeLayoutAndBounds) {
    std::vector<float> v(3 * 4 * 5);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(i);
    ImageData<float> image(v.data(), {3, 4, 5});
    EXPECT_EQ(image.at({2, 3, 4}), 59.0f);
    EXPECT_EQ(image.at({1, 2, 3}), static_cast<float>(1 + 2 * 3 + 3 * 12));
    EXPECT_DEATH(image.at({3, 3, 4}), "convertToIndex\\(coords\\) >= 0 && "
                                      "convertToIndex\\(coords\\) < _size.volume\\(\\)");
    // A cube's member is laid out like a block; the setter checks every extent.
    Cube4D<float> cube{{4, 3, 2, 2}, v.data()};
    cube.setCoeff({1, 2, 1, 1}, -7.0f);
    EXPECT_EQ(v[1 + 4 * (2 + 3 * (1 + 2 * 1))], -7.0f);
    EXPECT_DEATH(cube.setCoeff({0, 0, 0, 2}, 1.0f),
                 "coord.x < size.x && coord.y < size.y && coord.z < size.z && coord.w < size.w");
}

// The half spectrum (x halved only on a cubic or flat square grid under the real FFT) lists z
// first, then y, then x; the line buffers hold at least two lines.
TEST(WorkingMemory, SizesFollowParameters) {
    using Dims = std::array<int, 4>;
    const auto dims = [](const Vec4i& v) { return Dims{v.x, v.y, v.z, v.w}; };
    const struct { V3 grid; bool useRealFft; int half, limit; } cases[] = {
        {{8, 8, 8}, true, 5, 0}, {{7, 7, 7}, true, 5, 1}, {{8, 8, 1}, true, 5, 2},
        {{8, 8, 3}, true, 8, 5}, {{8, 8, 8}, false, 8, 4}, {{6, 8, 1}, true, 6, 3}};
    Parameters p{};
    p.blockSize = {4, 4, 4};
    p.maxGroupSize = 16;
    for (const auto& c : cases) {
        SCOPED_TRACE(cat(c.grid, c.useRealFft ? " half" : " full", " limit ", c.limit));
        EXPECT_EQ(halfSpectrumExtent(c.grid, c.useRealFft), c.half);
        p.psdWorkSize = c.grid;
        p.useRealFft = c.useRealFft;
        p.varianceGroupLimit = c.limit;
        Memory<float> m = allocateMemory<float>(p);
        TempMemory<float> t = createTempMemory<float>(p);
        ASSERT_TRUE(m.allocated && t.allocated);
        for (const auto* cube : {&m.groupSpectrum, &m.noisySpectrum, &m.estimate, &m.variances})
            EXPECT_EQ(dims(cube->size), (Dims{4, 4, 4, 16}));
        EXPECT_TRUE(m.stackSize == 0 && m.varianceExtents == (V3{0, 0, 0}));
        EXPECT_EQ(dims(t.halfSpectrum.size), (Dims{c.grid.z, c.grid.y, c.half, 16}));
        EXPECT_EQ(dims(t.spectrum.size), (Dims{c.grid.x, c.grid.y, c.grid.z, 16}));
        const int d = std::max({c.grid.x, c.grid.y, c.grid.z}), lines = std::max(c.limit, 2);
        EXPECT_EQ(t.maxDimension, d);
        // Touch the last elements: an undersized buffer shows up under the sanitizers.
        t.lineA[lines * d - 1] = t.lineB[lines * d - 1] = Complex{1.0f, 2.0f};
        t.blockA[63] = t.blockB[63] = t.blockC[63] = t.memberSums[15] = 1.0f;
        t.planeMask[c.grid.y * c.grid.z - 1] = 1;
        // Moves transfer ownership.
        float* data = m.estimate.data;
        Memory<float> moved(std::move(m));
        EXPECT_TRUE(moved.estimate.data == data && m.estimate.data == nullptr);
    }
}

class PoolTest : public ::testing::Test {
protected:
    void TearDown() override { ThreadPool::THREAD_POOL.clearPool(); }
};

// No positive count takes the hardware count.
TEST_F(PoolTest, EveryIndexRunsExactlyOnceAfterEachRelaunch) {
    for (int request : {1, 2, 3, 7, 0, -3}) {
        const int n = request > 0 ? request : static_cast<int>(std::thread::hardware_concurrency());
        ThreadPool::THREAD_POOL.launchPool(request);
        EXPECT_EQ(ThreadPool::THREAD_POOL.getNumThreads(), n);
        for (int round = 0; round < 20; ++round) {
            std::vector<std::atomic<int>> hits(static_cast<size_t>(n));
            std::vector<int> payload(size_t(n), 0);
            ThreadPool::THREAD_POOL.newLoopJob([&](int i) {
                hits[size_t(i)].fetch_add(1);
                payload[size_t(i)] = i * i;  // plain writes must be visible after return
            });
            for (int i = 0; i < n; ++i)
                EXPECT_TRUE(hits[size_t(i)].load() == 1 && payload[size_t(i)] == i * i) << i;
        }
        ThreadPool::THREAD_POOL.clearPool();
    }
}

TEST_F(PoolTest, NestedLoopJobsRunSequentiallyInAscendingOrder) {
    ThreadPool::THREAD_POOL.launchPool(3);
    std::mutex m;
    std::vector<std::vector<int>> orders(3);  // inner indices per outer one; -1: on another thread
    ThreadPool::THREAD_POOL.newLoopJob([&](int outer) {
        const auto self = std::this_thread::get_id();
        std::vector<int> order;
        ThreadPool::THREAD_POOL.newLoopJob(
            [&](int inner) { order.push_back(std::this_thread::get_id() == self ? inner : -1); });
        std::lock_guard<std::mutex> lock(m);
        orders[size_t(outer)] = order;
    });
    for (const auto& order : orders) EXPECT_EQ(order, (std::vector<int>{0, 1, 2}));
}

TEST_F(PoolTest, SingleThreadRunsOnCallerAndStoppedPoolStillWorks) {
    ThreadPool::THREAD_POOL.launchPool(1);
    const auto self = std::this_thread::get_id();
    bool onCaller = false;
    ThreadPool::THREAD_POOL.newLoopJob(
        [&](int i) { onCaller = i == 0 && std::this_thread::get_id() == self; });
    EXPECT_TRUE(onCaller);
    ThreadPool::THREAD_POOL.clearPool();
    // No workers but several indices: the caller drains the queue itself.
    ThreadPool::THREAD_POOL.launchPool(3);
    ThreadPool::THREAD_POOL.clearPool();
    std::vector<int> seen;
    ThreadPool::THREAD_POOL.newLoopJob([&](int i) { seen.push_back(i); });
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
    // A second launch without a clear fails.
    EXPECT_DEATH({ ThreadPool::THREAD_POOL.launchPool(2); ThreadPool::THREAD_POOL.launchPool(2); },
                 "_threads.empty\\(\\)");
}
