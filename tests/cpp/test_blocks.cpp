// Block collections (extraction, slides, ring addressing) and block matching,
// checked against direct transforms and a brute-force search.
#include "BlockCollection.h"
#include "KORVO.h"
#include "helpers.h"
#include "transforms/transf3D.h"
#include "korvo/Threading.h"

using Kinds = Vec3<TransformsMetas::StandardTransform>;

namespace {
const float kInf = std::numeric_limits<float>::infinity();
const Kinds kArbitrary{TransformsMetas::Arbitrary, TransformsMetas::Arbitrary, TransformsMetas::Arbitrary};

// A random volume, random block transforms and the scratch of one block size.
struct Rig {
    V3 block;
    std::vector<float> data, t[3];
    ImageData<float> image;
    TempMemory<float> memory{};
    BlockCollection<float> coll;
    Rig(const V3& size, const V3& b, unsigned seed)
        : block(b), data(randomValues(size_t(size.volume()), seed, 0.0f, 1.0f)), t{randomValues(size_t(b.x * b.x), seed + 1),
          randomValues(size_t(b.y * b.y), seed + 2), randomValues(size_t(b.z * b.z), seed + 3)}, image(data.data(), size) {
        memory.blockA = static_cast<float*>(std::malloc(sizeof(float) * b.volume()));
        memory.blockB = static_cast<float*>(std::malloc(sizeof(float) * b.volume()));
    }
    Vec3<const float*> fwd() const { return {t[0].data(), t[1].data(), t[2].data()}; }
    Vec3<float*> mutableFwd() { return {t[0].data(), t[1].data(), t[2].data()}; }
    bool extract(BlockCollection<float>& c, const ImageData<float>& img, const V3& pos, bool allocate, const V3& window,
                 const Kinds& kinds = kArbitrary) {
        return c.extractInitial(img, pos, block, fwd(), kinds, allocate, memory, window);
    }
    void slide(const V3& step) { coll.moveInImage(image, step, block, fwd(), memory); }
    void moveHT(const V3& ref, const V3& d, const V3& window, BlockCollection<float>* c) {
        moveCollections<HardThresholding, float>(ref, d, window, block, mutableFwd(), memory, image, nullptr, kArbitrary, c,
                                                 nullptr);
    }
};

// Every valid block position of the band of `of` (default s) holds its block's coefficients under
// s's transforms: with `exact`, the bits transf3D makes of that block alone with those kinds;
// otherwise the plain separable product in double (a single plane is not transformed along z).
void expectBand(const Rig& s, const std::string& where, const Kinds* exact = nullptr, const Rig* of = nullptr) {
    const BlockCollection<float>& c = (of ? of : &s)->coll;
    const ImageData<float>& img = (of ? of : &s)->image;
    const V3 b = s.block, start = c.bufferStart(), end = start + c.bufferRange(), last = img.size() - b;
    std::vector<float> block(b.volume()), scratchA(b.volume()), scratchB(b.volume());
    int checked = 0;
    for (int z = start.z; z < end.z && z <= last.z; ++z)
        for (int y = start.y; y < end.y && y <= last.y; ++y)
            for (int x = start.x; x < end.x && x <= last.x; ++x, ++checked) {
                const float* got = c.getBlock({x, y, z});
                if (exact) {
                    for (int e = 0; e < b.volume(); ++e) block[e] = img.at({x + e % b.x, y + e / b.x % b.y, z + e / (b.x * b.y)});
                    transf3D<float>(block.data(), s.fwd(), *exact, scratchA.data(), scratchB.data(), block.data(), b);
                    ASSERT_EQ(std::memcmp(block.data(), got, sizeof(float) * b.volume()), 0) << where << " block " << V3{x, y, z};
                    continue;
                }
                for (int e = 0; e < b.volume(); ++e) {
                    const int u = e % b.x, v = e / b.x % b.y, w = e / (b.x * b.y);
                    double ref = 0;
                    for (int k = 0; k < b.z; ++k)
                        for (int j = 0; j < b.y; ++j)
                            for (int i = 0; i < b.x; ++i)
                                ref += double(s.t[0][u * b.x + i]) * s.t[1][v * b.y + j] *
                                       (b.z == 1 ? 1.0f : s.t[2][w * b.z + k]) * img.at({x + i, y + j, z + k});
                    ASSERT_NEAR(got[e], ref, 2e-5 * (8 + std::fabs(ref))) << where << " block " << V3{x, y, z};
                }
            }
    EXPECT_GT(checked, 0) << where;
}

// Visits reference positions in the stage loop's order (z slices, y rows, x innermost, the last
// position clamped), refilling the bands when going back along a narrow axis and moving them by
// the forward part of the displacement otherwise.
template <StageName stage>
void walkVolume(const V3& size, const V3& block, const V3& window, const V3& step, unsigned seed,
                bool checkWindow = true) {
    Rig s(size, block, seed), pilot(size, block, seed + 100);
    ASSERT_NE(s.coll.allocate(size, block, window), nullptr);
    ASSERT_NE(pilot.coll.allocate(size, block, window), nullptr);
    auto axis = [](int extent, int b, int st) {
        std::vector<int> p;
        for (int v = 0; v < std::max(extent - b, 0) + st; v += st) p.push_back(std::min(v, extent - b));
        return p;
    };
    const V3 narrowBy = size - window - window - V3{1, 1, 1};  // > 0 on a narrow axis
    V3 prev{-1, -1, -1};
    for (int z : axis(size.z, block.z, step.z))
        for (int y : axis(size.y, block.y, step.y))
            for (int x : axis(size.x, block.x, step.x)) {
                const V3 ref{x, y, z};
                if (prev.x < 0) prev = ref;
                if ((narrowBy.x > 0 && x < prev.x) || (narrowBy.y > 0 && y < prev.y) || (narrowBy.z > 0 && z < prev.z)) {
                    s.extract(s.coll, s.image, ref, false, window);
                    s.extract(pilot.coll, pilot.image, ref, false, window);
                } else {
                    const V3 d{std::max(x - prev.x, 0), std::max(y - prev.y, 0), std::max(z - prev.z, 0)};
                    moveCollections<stage, float>(ref, d, window, block, s.mutableFwd(), s.memory, s.image,
                                                  &pilot.image, kArbitrary, &s.coll, &pilot.coll);
                }
                prev = ref;
                const std::string where = cat("ref ", ref);
                expectBand(s, where);
                if (stage == Wiener) expectBand(s, where + " pilot", nullptr, &pilot);
                if (!checkWindow) continue;
                V3 lo{}, hi{};  // matching around ref reads only inside the band
                setSearchWindow(ref, window, block, size, lo, hi);
                const V3 end = s.coll.bufferStart() + s.coll.bufferRange();
                EXPECT_TRUE(lo >= s.coll.bufferStart() && hi.x < end.x && hi.y < end.y && hi.z < end.z) << where;
            }
}

float term(float a, float b) { return (a - b) * (a - b); }
float term(const Complex& a, const Complex& b) { return term(a.real, b.real) + term(a.imag, b.imag); }

// A collection whose band is the whole grid of `positions`, filled by fill(element index).
template <typename T, typename Fill>
void fillCollection(BlockCollection<T>& coll, const V3& positions, long elements, Fill fill) {
    long total = 0;
    T* buffer = coll.allocate(positions.volume(), elements, total);
    ASSERT_NE(buffer, nullptr);
    coll.setBand({0, 0, 0}, positions);
    for (long i = 0; i < total; ++i) buffer[i] = fill(i);
}

struct Candidate { float distance; V3 position; };

// Every candidate of the window with its distance, in visiting order (x fastest).
template <typename T>
std::vector<Candidate> visit(const BlockCollection<T>& coll, const float* corr, const V3& ref, const V3& block,
                             const V3& w, const V3& lo, const V3& hi) {
    std::vector<Candidate> all;
    for (int z = lo.z; z <= hi.z; ++z)
        for (int y = lo.y; y <= hi.y; ++y)
            for (int x = lo.x; x <= hi.x; ++x) {
                if (V3{x, y, z} == ref) continue;
                float d = -corr[((z - ref.z + w.z) * (2 * w.y + 1) + (y - ref.y + w.y)) * (2 * w.x + 1) + x - ref.x + w.x];
                for (int e = 0; e < block.volume(); ++e) d += term(coll.getBlock({x, y, z})[e], coll.getBlock(ref)[e]);
                all.push_back({d, {x, y, z}});
            }
    return all;
}

// The search one candidate at a time on the standard queue: among equal distances, which
// candidates stay and in what order is that queue's, and the fast search must keep to it.
// (The fast search's checks on partial sums decide the same: no term is negative.)
template <typename T>
std::vector<V3> plainMatches(const BlockCollection<T>& coll, const std::vector<Candidate>& visits, const V3& ref,
                             int maxGroupSize, int minReduceCount, float threshold) {
    BlockQueue<T> queue;
    const size_t capacity = size_t(std::max(maxGroupSize - 1, 0));
    for (const Candidate& c : visits) {
        if (capacity == 0) break;
        if (queue.size() == capacity) {
            if (!(c.distance < queue.top().distance)) continue;
            queue.pop();
        }
        queue.push({coll.getBlock(c.position), c.distance, c.position, c.position});
    }
    std::vector<BlockDistance<T>> out(size_t(maxGroupSize) + 1);
    V3 corner = ref;
    int count = 0;
    unloadBlockQueue(minReduceCount, threshold, corner, queue, out.data(), count);
    std::vector<V3> positions;
    for (int k = 1; k <= count; ++k) positions.push_back(out[k].position);
    return positions;
}

// With ties (unique false) only the distances by rank and each record's consistency are fixed.
template <typename T>
void checkMatches(const BlockCollection<T>& coll, const V3& volume, const float* corr, const V3& ref, const V3& block,
                  const V3& w, int maxGroupSize, int minReduceCount, float threshold, bool unique) {
    SCOPED_TRACE(testing::Message() << "N " << maxGroupSize << " minReduce " << minReduceCount << " thr " << threshold);
    V3 lo{}, hi{};
    setSearchWindow(ref, w, block, volume, lo, hi);
    std::vector<BlockDistance<T>> out(maxGroupSize);
    int count = -1;
    getBlockMatches<T>(coll, corr, ref, block, w, lo, hi, maxGroupSize, minReduceCount, threshold, out.data(), count);
    const std::vector<Candidate> visits = visit(coll, corr, ref, block, w, lo, hi);
    auto all = visits;
    std::stable_sort(all.begin(), all.end(), [](const Candidate& a, const Candidate& b) { return a.distance < b.distance; });
    auto expected = all;  // the best maxGroupSize - 1 kept, then reduced worst first
    expected.resize(std::min<size_t>(all.size(), std::max(maxGroupSize - 1, 0)));
    while (minReduceCount > 0 && int(expected.size()) > minReduceCount - 1) {
        const size_t group = expected.size() + 1;
        if (expected.back().distance <= threshold && (group & (group - 1)) == 0) break;
        expected.pop_back();
    }
    ASSERT_EQ(count, int(expected.size()) + 1);
    EXPECT_TRUE(out[0].block == coll.getBlock(ref) && out[0].distance == 0.0f && out[0].position == ref);
    V3 corner = ref;
    for (int k = 1; k < count; ++k) {
        const BlockDistance<T>& m = out[k];
        EXPECT_EQ(m.distance, expected[k - 1].distance) << "rank " << k;
        if (unique) { EXPECT_EQ(m.position, expected[k - 1].position) << "rank " << k; }
        EXPECT_EQ(m.block, coll.getBlock(m.position));
        const auto same = std::find_if(all.begin(), all.end(), [&](const Candidate& c) { return c.position == m.position; });
        EXPECT_TRUE(same != all.end() && same->distance == m.distance) << "rank " << k;
        for (int j = 1; j < k; ++j) EXPECT_NE(m.position, out[j].position);
        corner = {std::min(corner.x, m.position.x), std::min(corner.y, m.position.y), std::min(corner.z, m.position.z)};
    }
    for (int k = 0; k < count; ++k) EXPECT_EQ(out[k].relativePosition, out[k].position - corner);
    const std::vector<V3> plain = plainMatches(coll, visits, ref, maxGroupSize, minReduceCount, threshold);
    ASSERT_EQ(int(plain.size()), count - 1);
    for (int k = 1; k < count; ++k) EXPECT_EQ(out[k].position, plain[k - 1]) << "rank " << k << " as the queue has it";
}

// A row of single-voxel blocks: the distance of x from the reference r is (v[x] - v[r])^2.
struct Row {
    BlockCollection<float> coll;
    V3 volume;
    std::vector<BlockDistance<float>> out;
    explicit Row(const std::vector<float>& v) : volume{int(v.size()), 1, 1} {
        fillCollection(coll, volume, 1, [&](long i) { return v[i]; });
    }
    int match(int ref, int w, int maxGroupSize, int minReduceCount, float threshold, std::vector<float> corr = {}) {
        corr.resize(2 * w + 1, 0.0f);
        V3 lo{}, hi{};
        setSearchWindow({ref, 0, 0}, {w, 0, 0}, {1, 1, 1}, volume, lo, hi);
        out.assign(maxGroupSize, BlockDistance<float>{});
        int count = 0;
        getBlockMatches<float>(coll, corr.data(), {ref, 0, 0}, {1, 1, 1}, {w, 0, 0}, lo, hi, maxGroupSize,
                               minReduceCount, threshold, out.data(), count);
        return count;
    }
};
}  // namespace

TEST(BlockCollection, ExtractInitialHoldsTransformedBand) {
    struct Case { V3 size, block, window, pos, start, range; };  // start and range worked out by hand
    const Case cases[] = {
        // Low border: the band reaches further up; z exactly one block deep.
        {{20, 9, 4}, {3, 2, 4}, {2, 1, 3}, {10, 0, 0}, {7, 0, 0}, {7, 5, 1}},
        {{12, 10, 7}, {2, 2, 2}, {1, 2, 1}, {10, 8, 5}, {8, 5, 3}, {3, 4, 3}},  // upper border
        {{6, 5, 4}, {4, 4, 4}, {5, 5, 5}, {1, 1, 0}, {0, 0, 0}, {3, 2, 1}},     // whole volume
        {{4, 3, 2}, {4, 3, 2}, {2, 2, 2}, {0, 0, 0}, {0, 0, 0}, {1, 1, 1}},     // one block
    };
    unsigned seed = 1;
    for (const Case& c : cases)
        for (int threads : {1, 3, 8}) {  // uneven and empty chunks
            Rig s(c.size, c.block, seed += 4);
            ThreadPool::THREAD_POOL.launchPool(threads);
            ASSERT_TRUE(s.extract(s.coll, s.image, c.pos, true, c.window));
            ThreadPool::THREAD_POOL.clearPool();
            EXPECT_TRUE(s.coll.getHasData());
            EXPECT_EQ(s.coll.bufferStart(), c.start);
            EXPECT_EQ(s.coll.bufferRange(), c.range);
            EXPECT_EQ(s.coll.blockCount(), c.range.volume());
            expectBand(s, "extract");
        }
}

TEST(BlockCollection, RecognisedKindsInsideLoopJobThenGeneralSlide) {
    const V3 size{19, 17, 1}, block{8, 8, 1}, window{2, 2, 0};
    Rig s(size, block, 11);
    s.t[0] = s.t[1] = dctMatrix(8);
    ASSERT_NE(s.coll.allocate(size, block, window), nullptr);
    bool ok = false;
    ThreadPool::THREAD_POOL.launchPool(2);
    const Kinds dct{TransformsMetas::Dct8, TransformsMetas::Dct8, TransformsMetas::Arbitrary};
    ThreadPool::THREAD_POOL.newLoopJob([&](int index) {  // nested: runs sequentially on one thread
        if (index == 1) ok = s.extract(s.coll, s.image, {5, 4, 0}, false, window, dct);
    });
    ThreadPool::THREAD_POOL.clearPool();
    ASSERT_TRUE(ok);
    expectBand(s, "fast path");
    s.slide({1, 0, 0});
    expectBand(s, "general product");
}

TEST(BlockCollection, AllocationFailureAndMissingBuffer) {
    Rig s({8, 8, 8}, {2, 2, 2}, 3);
    long total = 0;
    testing::internal::CaptureStderr();
    EXPECT_EQ(s.coll.allocate(1L << 60, 1, total), nullptr);
    // A sanitizer's allocator may warn first; the message must close the output verbatim.
    const std::string err = testing::internal::GetCapturedStderr();
    const std::string expected =
        "Failed to allocate block memory! \n"
        "If profile.split_block_extraction is set to [False, False, False], this is likely fixed by \n"
        "setting the value to [False, False, True] or, if still failing, [False, True, True]. \n"
        "pro = KORVOProfile(); pro.split_block_extraction = [False, False, True]; y_est = korvo(z, psd, pro);\n";
    ASSERT_GE(err.size(), expected.size());
    EXPECT_EQ(err.substr(err.size() - expected.size()), expected);
    EXPECT_EQ(total, 1L << 60);
    EXPECT_EQ(s.coll.blockCount(), 1L << 60);
    EXPECT_FALSE(s.extract(s.coll, s.image, {3, 3, 3}, false, {1, 1, 1}));
    EXPECT_FALSE(s.coll.getHasData());
    // Largest band: min(2w + 2, size - block) + 1 positions per axis.
    ASSERT_NE(s.coll.allocate({30, 6, 9}, {4, 2, 3}, {3, 5, 1}), nullptr);
    EXPECT_EQ(s.coll.blockCount(), 9L * 5 * 5);
    EXPECT_EQ(s.coll.blockElements(), 24);
}

TEST(BlockCollection, RingSlotsAreReusedBySlides) {
    Rig s({20, 7, 9}, {4, 3, 2}, 5);
    ASSERT_TRUE(s.extract(s.coll, s.image, {11, 2, 3}, true, {2, 1, 1}));
    const V3 start = s.coll.bufferStart(), r = s.coll.bufferRange();
    ASSERT_EQ(start, (V3{8, 0, 1}));
    ASSERT_EQ(r, (V3{7, 5, 5}));  // x positions 8 .. 14; the last valid one is 16
    EXPECT_EQ(s.coll.slot({9, 4, 2}), 9 % 7 + 4 * 7 + 2 * 35);
    std::vector<const float*> leaving;
    for (int i = 0; i < r.y * r.z; ++i) leaving.push_back(s.coll.getBlock({start.x, i % r.y, start.z + i / r.y}));
    s.slide({1, 0, 0});
    for (int i = 0; i < r.y * r.z; ++i)  // the entering position takes the slot of the one that left
        EXPECT_EQ(s.coll.getBlock({start.x + r.x, i % r.y, start.z + i / r.y}), leaving[i]);
    // Near the upper border fewer positions enter (16 only), yet the start moves by the full step;
    // then nothing is left to load.
    for (int step : {3, 2}) {
        s.slide({step, 0, 0});
        EXPECT_EQ(s.coll.bufferStart(), (V3{step == 3 ? 12 : 14, 0, 1}));
        expectBand(s, cat("slide by ", step));
    }
}

TEST(BlockCollection, NoSlideNearBordersOfANarrowAxis) {
    const V3 window{3, 1, 1};
    Rig s({24, 4, 3}, {2, 2, 2}, 9);
    ASSERT_NE(s.coll.allocate({24, 4, 3}, s.block, window), nullptr);
    auto move = [&](int x, int dx) { s.moveHT({x, 0, 0}, {dx, 0, 0}, window, &s.coll); return s.coll.bufferStart().x; };
    EXPECT_EQ(move(0, 0), 0);     // no data yet: extract
    EXPECT_EQ(move(4, 4), 0);     // refPos <= W + 1
    EXPECT_EQ(move(5, 1), 1);     // first slide
    EXPECT_EQ(move(21, 16), 17);  // refPos = S - W still slides
    EXPECT_EQ(move(22, 1), 17);   // beyond S - W
    expectBand(s, "upper border");
}

TEST(BlockCollection, SlidesKeepEveryCoveredBlockCurrent) {
    walkVolume<HardThresholding>({26, 9, 12}, {3, 2, 2}, {3, 1, 2}, {2, 3, 3}, 20);  // x narrow
    walkVolume<HardThresholding>({7, 6, 30}, {2, 2, 3}, {4, 4, 3}, {3, 2, 2}, 21);   // only z narrow
    walkVolume<Wiener>({6, 28, 8}, {2, 3, 2}, {3, 3, 1}, {2, 2, 3}, 22);             // x wide, y narrow
    walkVolume<Wiener>({30, 20, 1}, {4, 4, 1}, {4, 3, 0}, {2, 3, 1}, 23);            // single plane
    // A step above 2 can slide the band past the low end of the window on the first slide after
    // an extraction at the border; the stored blocks stay current all the same.
    walkVolume<HardThresholding>({30, 8, 1}, {4, 4, 1}, {4, 3, 0}, {3, 3, 1}, 24, false);
}

// Blocks loaded together share their x and y passes; the stored bits must not change. Extraction
// runs on two threads; slides go on along each axis past the upper border (fewer blocks, then none).
TEST(BlockCollection, LoadsEqualBlockByBlockTransformsBitForBit) {
    const Kinds butterflies{TransformsMetas::Dct8, TransformsMetas::Bior8, TransformsMetas::Arbitrary};
    struct Case { V3 size, block, window, pos; Kinds kinds; };
    const Case cases[] = {
        {{12, 12, 26}, {4, 4, 4}, {2, 2, 9}, {4, 3, 10}, kArbitrary},  // more than one tile along z
        {{17, 16, 16}, {8, 8, 8}, {2, 2, 2}, {3, 3, 2}, kArbitrary},
        {{13, 14, 12}, {3, 5, 2}, {2, 2, 2}, {3, 4, 3}, kArbitrary},
        {{24, 22, 1}, {4, 4, 1}, {3, 3, 0}, {5, 6, 0}, kArbitrary},     // a single plane has no z pass
        {{24, 22, 1}, {8, 8, 1}, {3, 3, 0}, {5, 6, 0}, butterflies},    // block by block
    };
    ThreadPool::THREAD_POOL.launchPool(2);
    for (bool baseline : {false, true}) {
        korvo_detail::forceBaselineKernels(baseline);
        for (const Case& c : cases) {
            Rig s(c.size, c.block, 40);
            ASSERT_NE(s.coll.allocate(c.size, c.block, c.window), nullptr);
            const std::string name = cat(korvo_detail::activeKernelName(), " block ", c.block);
            for (const V3& step : {V3{3, 0, 0}, V3{0, 3, 0}, V3{0, 0, 2}}) {
                if (step.z != 0 && c.size.z == 1) continue;
                ASSERT_TRUE(s.extract(s.coll, s.image, c.pos, false, c.window, c.kinds));
                expectBand(s, name + " extracted", &c.kinds);
                if (c.kinds.x == butterflies.x) break;
                for (bool atBorder = false; !atBorder;) {  // the slide from the border loads nothing
                    const V3 end = s.coll.bufferStart() + s.coll.bufferRange(), last = c.size - c.block;
                    atBorder = (step.x && end.x > last.x) || (step.y && end.y > last.y) || (step.z && end.z > last.z);
                    s.slide(step);
                    expectBand(s, cat(name, " slid to ", s.coll.bufferStart()), &kArbitrary);
                }
            }
        }
    }
    korvo_detail::forceBaselineKernels(false);
    ThreadPool::THREAD_POOL.clearPool();
}

TEST(BlockCollectionDeathTest, AssertionsGuardTheBand) {
    Rig s({10, 10, 10}, {2, 2, 2}, 30);
    BlockCollection<float> empty;
    ASSERT_TRUE(s.extract(s.coll, s.image, {5, 5, 5}, true, {1, 1, 1}));
    // Band: positions 3 .. 7 on every axis; "<" needs only one component inside.
    EXPECT_NE(s.coll.getBlock({8, 3, 7}), nullptr);
    EXPECT_DEATH(s.coll.getBlock({3, 2, 7}), "coords >= _bufferStart");
    EXPECT_DEATH(s.coll.getBlock({8, 8, 8}), "coords < _bufferStart \\+ _bufferRange");
    // A window covering every axis: nothing to move, but the collection must hold data.
    EXPECT_DEATH(s.moveHT({2, 0, 0}, {2, 0, 0}, {5, 5, 5}, &empty), "collHTWie->getHasData\\(\\)");
    s.moveHT({2, 0, 0}, {2, 0, 0}, {5, 5, 5}, &s.coll);
    EXPECT_EQ(s.coll.bufferStart(), (V3{3, 3, 3}));
}

TEST(BlockMatching, SetSearchWindowClamps) {
    V3 lo{}, hi{};
    setSearchWindow({1, 7, 3}, {2, 2, 4}, {2, 2, 2}, {10, 10, 6}, lo, hi);
    EXPECT_EQ(lo, (V3{0, 5, 0}));
    EXPECT_EQ(hi, (V3{3, 8, 4}));
}

TEST(BlockMatching, MatchesBruteForce) {
    // Block volumes that are and are not whole registers of either kernel set, and
    // windows whose candidates past the full queue end in batches of every length.
    const V3 setups[][2] = {{{2, 2, 2}, {3, 2, 2}}, {{3, 2, 1}, {4, 4, 0}}, {{1, 1, 1}, {2, 2, 2}},
                            {{4, 4, 4}, {3, 3, 2}}, {{2, 2, 1}, {3, 3, 1}}, {{2, 3, 4}, {2, 3, 1}}};  // block, window
    unsigned seed = 100;
    for (const auto& s : setups) {
        const V3 block = s[0], w = s[1];
        const V3 volume = block + V3{8, 7, w.z > 0 ? 5 : 0}, positions = volume - block + V3{1, 1, 1};
        const int v = block.volume(), spans = (2 * w.x + 1) * (2 * w.y + 1) * (2 * w.z + 1);
        for (bool duplicates : {false, true}) {
            // With duplicates every block is one of three patterns: many equal distances.
            const auto values = randomValues(positions.volume() * v, seed++, -2, 2);
            BlockCollection<float> coll;
            fillCollection(coll, positions, v, [&](long i) { return values[duplicates ? i / v % 3 * v + i % v : i]; });
            for (float corrScale : {0.0f, 0.5f, 200.0f}) {  // the last gives negative distances
                const auto corr = randomValues(spans, seed++, 0.0f, corrScale);
                SCOPED_TRACE(testing::Message() << "V " << v << " dup " << duplicates << " corr " << corrScale);
                for (const V3 ref : {V3{4, 3, positions.z / 2}, V3{0, 0, 0}, positions - V3{1, 1, 1}})
                    for (int maxGroupSize : {1, 2, 16, 32})
                        for (int minReduceCount : {0, 1, 5})
                            for (float threshold : {kInf, 6.0f, -150.0f})
                                checkMatches(coll, volume, corr.data(), ref, block, w, maxGroupSize, minReduceCount,
                                             threshold, !duplicates);
            }
        }
    }
    // Complex coefficients.
    const V3 block{2, 2, 1}, w{2, 2, 0}, volume{7, 6, 1}, positions = volume - block + V3{1, 1, 1};
    const auto values = randomValues(positions.volume() * 8, 300, -1, 1);
    const auto corr = randomValues(25, 301, 0.0f, 0.3f);
    BlockCollection<Complex> coll;
    fillCollection(coll, positions, block.volume(), [&](long i) { return Complex{values[2 * i], values[2 * i + 1]}; });
    SCOPED_TRACE("complex");
    for (int maxGroupSize : {1, 4, 8, 32})
        for (int minReduceCount : {0, 1, 3})
            checkMatches(coll, volume, corr.data(), {3, 2, 0}, block, w, maxGroupSize, minReduceCount, 2.5f, true);
}

TEST(BlockMatching, GroupSizeRules) {
    Row row({0, 1, 2, 3, 4, 5, 6});
    // Six candidates within the threshold: the worst three go, leaving a group of four.
    EXPECT_EQ(row.match(0, 6, 8, 1, kInf), 4);
    EXPECT_EQ(row.out[3].position.x, 3);
    EXPECT_EQ(row.out[3].distance, 9.0f);
    EXPECT_EQ(row.match(0, 6, 8, 0, kInf), 7);  // no reduction
    for (int k = 1; k < 7; ++k) EXPECT_EQ(row.out[k].position.x, k);
    EXPECT_EQ(row.match(0, 6, 8, 7, 0.5f), 7);  // at most minReduceCount blocks: left alone
    EXPECT_EQ(row.match(0, 6, 8, 3, 0.5f), 3);  // reduction stops at minReduceCount blocks
    EXPECT_EQ(row.match(0, 6, 8, 1, 0.5f), 1);  // all above the threshold
    EXPECT_EQ(row.match(3, 6, 1, 1, kInf), 1);  // maxGroupSize 1
    EXPECT_EQ(row.match(3, 0, 8, 1, kInf), 1);  // window of the reference alone
    EXPECT_TRUE(row.out[0].position == (V3{3, 0, 0}) && row.out[0].block == row.coll.getBlock({3, 0, 0}));
    // Kept: 2 and 4 (distance 1; 4 displaces 0), then 1 (5 loses its tie); corner at 1.
    EXPECT_EQ(row.match(3, 3, 4, 1, kInf), 4);
    EXPECT_EQ(row.out[0].relativePosition, (V3{2, 0, 0}));
    EXPECT_EQ(row.out[3].position.x, 1);
    // A large correction makes the far candidate the closest, with a negative distance.
    std::vector<float> corr(13, 0.0f);
    corr[12] = 100.0f;  // displacement +6
    EXPECT_EQ(row.match(0, 6, 2, 1, kInf, corr), 2);
    EXPECT_EQ(row.out[1].position.x, 6);
    EXPECT_EQ(row.out[1].distance, 36.0f - 100.0f);
}

TEST(BlockMatching, TiesAndNotANumber) {
    const float nan = std::numeric_limits<float>::quiet_NaN();
    Row ties({0, 1, 2, 2, 2});  // 2, 3 and 4 tie for the last place: the earliest visit stays
    EXPECT_EQ(ties.match(0, 4, 3, 0, kInf), 3);
    EXPECT_TRUE(ties.out[1].position.x == 1 && ties.out[2].position.x == 2);
    Row late({0, 1, 2, nan, 3});  // a NaN met by a full queue never enters it
    EXPECT_EQ(late.match(0, 4, 3, 0, kInf), 3);
    EXPECT_EQ(late.out[2].position.x, 2);
    Row early({0, nan, 5, 6});  // a NaN in the queue blocks later ones and is always reduced away
    EXPECT_EQ(early.match(0, 3, 2, 1, kInf), 1);
    EXPECT_EQ(early.match(0, 3, 2, 0, kInf), 2);
    EXPECT_TRUE(std::isnan(early.out[1].distance));
}
