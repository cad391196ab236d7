// Core value types, working memory and the thread pool.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

#include "ImageData.h"
#include "common.h"
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

TEST(ImageData, IndexingAndBounds) {
    std::vector<float> v(3 * 4 * 5);
    for (size_t i = 0; i < v.size(); ++i) v[i] = static_cast<float>(i);
    ImageData<float> image(v.data(), {3, 4, 5});
    EXPECT_EQ(image.at({2, 3, 4}), 59.0f);
    EXPECT_EQ(image.at({1, 2, 3}), static_cast<float>(1 + 2 * 3 + 3 * 12));
    EXPECT_DEATH(image.at({3, 3, 4}),
                 "convertToIndex\\(coords\\) >= 0 && convertToIndex\\(coords\\) < _size.volume\\(\\)");
}

TEST(Cube4D, SingleMemberIsLaidOutLikeABlockAndSetterChecks) {
    std::vector<float> v(4 * 3 * 2 * 2, 0.0f);
    Cube4D<float> cube{{4, 3, 2, 2}, v.data()};
    cube.setCoeff({1, 2, 1, 1}, 7.0f);
    EXPECT_EQ(v[1 + 4 * (2 + 3 * (1 + 2 * 1))], 7.0f);
    EXPECT_DEATH(cube.setCoeff({0, 0, 0, 2}, 1.0f),
                 "coord.x < size.x && coord.y < size.y && coord.z < size.z && coord.w < size.w");
}

namespace {
Parameters memoryParams() {
    Parameters p{};
    p.blockSize = {4, 4, 4};
    p.psdWorkSize = {8, 8, 8};
    p.useRealFft = true;
    p.maxGroupSize = 16;
    p.varianceGroupLimit = 4;
    return p;
}
using Dims = std::array<int, 4>;
Dims dims(const Vec4i& v) { return {v.x, v.y, v.z, v.w}; }
}  // namespace

TEST(WorkingMemory, SizesFollowParameters) {
    Parameters p = memoryParams();
    Memory<float> m = allocateMemory<float>(p);
    ASSERT_TRUE(m.allocated);
    for (const Cube4D<float>* c : {&m.groupSpectrum, &m.noisySpectrum, &m.estimate, &m.variances})
        EXPECT_EQ(dims(c->size), (Dims{4, 4, 4, 16}));
    EXPECT_EQ(m.stackSize, 0);
    EXPECT_EQ(m.varianceExtents, (Vec3<int>{0, 0, 0}));

    TempMemory<float> t = createTempMemory<float>(p);
    ASSERT_TRUE(t.allocated);
    EXPECT_EQ(t.maxDimension, 8);
    // The half-spectrum cube lists z first, then y, then the halved x.
    EXPECT_EQ(dims(t.halfSpectrum.size), (Dims{8, 8, 5, 16}));
    EXPECT_EQ(t.spectrum.size.x, 8);
    EXPECT_EQ(t.spectrum.size.w, 16);

    p.useRealFft = false;
    p.psdWorkSize = {8, 8, 3};
    TempMemory<float> t2 = createTempMemory<float>(p);
    EXPECT_EQ(t2.halfSpectrum.size.z, 8);
    EXPECT_EQ(t2.halfSpectrum.size.x, 3);

    // Moves transfer ownership.
    float* data = m.estimate.data;
    Memory<float> moved(std::move(m));
    EXPECT_EQ(moved.estimate.data, data);
    EXPECT_EQ(m.estimate.data, nullptr);
}

TEST(WorkingMemory, LineBuffersHoldAtLeastTwoLinesAndAreWritable) {
    for (int limit : {0, 1, 2, 5}) {
        Parameters p = memoryParams();
        p.varianceGroupLimit = limit;
        TempMemory<float> t = createTempMemory<float>(p);
        ASSERT_TRUE(t.allocated);
        const int lines = limit < 2 ? 2 : limit;
        // Touch the last element: an undersized buffer shows up under the sanitizers.
        t.lineA[lines * t.maxDimension - 1] = Complex{1.0f, 2.0f};
        t.lineB[lines * t.maxDimension - 1] = Complex{1.0f, 2.0f};
        t.blockA[63] = t.blockB[63] = t.blockC[63] = 1.0f;
        t.memberSums[15] = 1.0f;
        t.planeMask[63] = 1;
    }
}

class PoolTest : public ::testing::Test {
protected:
    void TearDown() override { ThreadPool::THREAD_POOL.clearPool(); }
};

TEST_F(PoolTest, EveryIndexRunsExactlyOnceAfterEachRelaunch) {
    for (int n : {1, 2, 3, 7}) {
        ThreadPool::THREAD_POOL.launchPool(n);
        EXPECT_EQ(ThreadPool::THREAD_POOL.getNumThreads(), n);
        for (int round = 0; round < 20; ++round) {
            std::vector<std::atomic<int>> hits(static_cast<size_t>(n));
            std::vector<int> payload(size_t(n), 0);
            ThreadPool::THREAD_POOL.newLoopJob([&](int i) {
                hits[size_t(i)].fetch_add(1);
                payload[size_t(i)] = i * i;  // plain writes must be visible after return
            });
            for (int i = 0; i < n; ++i) EXPECT_TRUE(hits[size_t(i)].load() == 1 && payload[size_t(i)] == i * i) << i;
        }
        ThreadPool::THREAD_POOL.clearPool();
    }
}

TEST_F(PoolTest, NestedLoopJobsRunSequentiallyInAscendingOrder) {
    ThreadPool::THREAD_POOL.launchPool(3);
    std::mutex m;
    std::vector<std::vector<int>> orders(3);  // each outer index's inner indices, -1 for one on another thread
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

TEST_F(PoolTest, NoPositiveCountTakesTheHardwareCount) {
    for (int request : {0, -3}) {
        ThreadPool::THREAD_POOL.launchPool(request);
        EXPECT_EQ(ThreadPool::THREAD_POOL.getNumThreads(), static_cast<int>(std::thread::hardware_concurrency()));
        ThreadPool::THREAD_POOL.clearPool();
    }
}

TEST_F(PoolTest, SingleThreadRunsOnCallerAndStoppedPoolStillWorks) {
    ThreadPool::THREAD_POOL.launchPool(1);
    const auto self = std::this_thread::get_id();
    bool onCaller = false;
    ThreadPool::THREAD_POOL.newLoopJob([&](int i) { onCaller = i == 0 && std::this_thread::get_id() == self; });
    EXPECT_TRUE(onCaller);
    ThreadPool::THREAD_POOL.clearPool();
    // No workers but several indices: the caller drains the queue itself.
    ThreadPool::THREAD_POOL.launchPool(3);
    ThreadPool::THREAD_POOL.clearPool();
    std::vector<int> seen;
    ThreadPool::THREAD_POOL.newLoopJob([&](int i) { seen.push_back(i); });
    std::sort(seen.begin(), seen.end());
    EXPECT_EQ(seen, (std::vector<int>{0, 1, 2}));
}

TEST_F(PoolTest, SecondLaunchWithoutClearFails) {
    EXPECT_DEATH({ ThreadPool::THREAD_POOL.launchPool(2); ThreadPool::THREAD_POOL.launchPool(2); },
                 "_threads.empty\\(\\)");
}
