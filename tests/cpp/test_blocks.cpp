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

}  // namespace

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

// Extraction on 1, 3 or 8 threads (uneven and empty chunks), or nested in a loop job (run in
// order) as a stage's worker runs it, holds the band worked out by hand; blocks loaded together
// share their x and y passes, yet each holds the bits of its own transform. From the largest
// band's buffer, slides go on along each axis past the upper border (fewer blocks, then none).
TEST(BlockCollection, ExtractionAndSlidesEqualBlockByBlockTransformsBitForBit) {
    const Kinds butterflies{TransformsMetas::Dct8, TransformsMetas::Bior8, TransformsMetas::Arbitrary};
    struct Case { V3 size, block, window, pos, start, range; Kinds kinds = kArbitrary; };
    const Case cases[] = {
        // Low border: the band reaches further up; z exactly one block deep.
        {{20, 9, 4}, {3, 2, 4}, {2, 1, 3}, {10, 0, 0}, {7, 0, 0}, {7, 5, 1}},
        {{12, 10, 7}, {2, 2, 2}, {1, 2, 1}, {10, 8, 5}, {8, 5, 3}, {3, 4, 3}},     // upper border
        {{6, 5, 4}, {4, 4, 4}, {5, 5, 5}, {1, 1, 0}, {0, 0, 0}, {3, 2, 1}},        // whole volume
        {{4, 3, 2}, {4, 3, 2}, {2, 2, 2}, {0, 0, 0}, {0, 0, 0}, {1, 1, 1}},        // one block
        {{12, 12, 26}, {4, 4, 4}, {2, 2, 9}, {4, 3, 10}, {1, 0, 0}, {7, 7, 21}},  // tiles along z
        {{17, 16, 16}, {8, 8, 8}, {2, 2, 2}, {3, 3, 2}, {0, 0, 0}, {7, 7, 7}},
        {{17, 26, 16}, {6, 6, 6}, {2, 9, 2}, {3, 9, 2}, {0, 0, 0}, {7, 21, 7}},
        {{13, 14, 12}, {3, 5, 2}, {2, 2, 2}, {3, 4, 3}, {0, 1, 0}, {7, 7, 7}},
        {{24, 22, 1}, {4, 4, 1}, {3, 3, 0}, {5, 6, 0}, {1, 2, 0}, {9, 9, 1}},  // a plane: no z pass
        {{24, 22, 1}, {8, 8, 1}, {3, 3, 0}, {5, 6, 0}, {1, 2, 0}, {9, 9, 1}, butterflies},
    };
    for (bool baseline : {false, true}) {
        korvo_detail::forceBaselineKernels(baseline);
        for (const Case& c : cases)
            for (int threads : {1, 3, 8, 0}) {  // 0: nested, on two threads
                const std::string name =
                    cat(korvo_detail::activeKernelName(), " block ", c.block, " threads ", threads);
                Rig s(c.size, c.block, 40 + unsigned(threads));
                const bool slides = threads == 3;
                if (slides) ASSERT_NE(s.coll.allocate(c.size, c.block, c.window), nullptr);
                bool ok = false;
                ThreadPool::THREAD_POOL.launchPool(threads ? threads : 2);
                if (threads) ok = s.extract(s.coll, s.image, c.pos, !slides, c.window, c.kinds);
                else ThreadPool::THREAD_POOL.newLoopJob([&](int i) {
                        if (i == 1) ok = s.extract(s.coll, s.image, c.pos, true, c.window, c.kinds);
                    });
                ASSERT_TRUE(ok && s.coll.getHasData()) << name;
                EXPECT_EQ(s.coll.bufferStart(), c.start) << name;
                EXPECT_EQ(s.coll.bufferRange(), c.range) << name;
                if (!slides) EXPECT_EQ(s.coll.blockCount(), c.range.volume()) << name;
                expectBand(s, name + " extracted", &c.kinds);
                const auto atBorder = [&](const V3& step) {  // the band holds the last position
                    const V3 end = s.coll.bufferStart() + s.coll.bufferRange(), last = c.size - c.block;
                    return (step.x && end.x > last.x) || (step.y && end.y > last.y) ||
                           (step.z && end.z > last.z);
                };
                for (const V3& step : {V3{3, 0, 0}, V3{0, 3, 0}, V3{0, 0, 2}}) {
                    if (!slides || c.kinds.x == butterflies.x) break;
                    ASSERT_TRUE(s.extract(s.coll, s.image, c.pos, false, c.window, c.kinds));
                    // Up to the slide from the border, which loads nothing (none from there).
                    for (bool done = atBorder(step); !done;) {
                        done = atBorder(step);
                        s.slide(step);
                        expectBand(s, cat(name, " slid to ", s.coll.bufferStart()), &kArbitrary);
                    }
                }
                ThreadPool::THREAD_POOL.clearPool();
            }
    }
    korvo_detail::forceBaselineKernels(false);
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

// Group sizes, reduction, the threshold, ties and NaN on a row of single-voxel blocks, where the
// distance of x from the reference r is (v[x] - v[r])^2 less the correction at x - r.
TEST(BlockMatching, WindowGroupSizeRulesTiesAndNotANumber) {
    V3 lo{}, hi{};
    setSearchWindow({1, 7, 3}, {2, 2, 4}, {2, 2, 2}, {10, 10, 6}, lo, hi);  // clamped
    EXPECT_TRUE(lo == (V3{0, 5, 0}) && hi == (V3{3, 8, 4})) << lo << " " << hi;
    const float nan = std::numeric_limits<float>::quiet_NaN();
    const std::vector<float> row{0, 1, 2, 3, 4, 5, 6};
    struct Case {  // kept: the matches after the reference, in order; a correction at +w
        std::vector<float> v;
        int ref, w, n, minReduce;
        float threshold;
        std::vector<int> kept;
        float correction = 0.0f;
    };
    const Case cases[] = {
        {row, 0, 6, 8, 1, kInf, {1, 2, 3}},           // six within the threshold: the worst 3 go
        {row, 0, 6, 8, 0, kInf, {1, 2, 3, 4, 5, 6}},  // no reduction
        {row, 0, 6, 8, 7, 0.5f, {1, 2, 3, 4, 5, 6}},  // at most minReduceCount blocks: left alone
        {row, 0, 6, 8, 3, 0.5f, {1, 2}},              // reduction stops at minReduceCount blocks
        {row, 0, 6, 8, 1, 0.5f, {}},                  // all above the threshold
        {row, 3, 6, 1, 1, kInf, {}},                  // maxGroupSize 1
        {row, 3, 0, 8, 1, kInf, {}},                  // a window of the reference alone
        {row, 3, 3, 4, 1, kInf, {4, 2, 1}},  // 4 displaces 0 (distance 1), 5 loses its tie with 1
        {row, 0, 6, 2, 1, kInf, {6}, 100.0f},  // the far candidate the closest, below zero
        {{0, 1, 2, 2, 2}, 0, 4, 3, 0, kInf, {1, 2}},    // tied for the last place: the first stays
        {{0, 1, 2, nan, 3}, 0, 4, 3, 0, kInf, {1, 2}},  // a NaN met by a full queue never enters it
        {{0, nan, 5, 6}, 0, 3, 2, 1, kInf, {}},  // a NaN in the queue blocks later ones ...
        {{0, nan, 5, 6}, 0, 3, 2, 0, kInf, {1}},  // ... and is always reduced away
        {{0, 2, nan, 3, 2.5f}, 0, 4, 4, 0, kInf, {1, 4, 2}},  // a NaN below the worst: the heap's order
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "case " << &c - cases);
        BlockCollection<float> coll;
        const V3 volume{int(c.v.size()), 1, 1}, ref{c.ref, 0, 0}, w{c.w, 0, 0}, block{1, 1, 1};
        fillCollection(coll, volume, 1, [&](long i) { return c.v[size_t(i)]; });
        std::vector<float> corr(size_t(2 * c.w + 1), 0.0f);
        corr.back() = c.correction;
        setSearchWindow(ref, w, block, volume, lo, hi);
        std::vector<BlockDistance<float>> out(size_t(c.n));
        int count = 0;
        getBlockMatches<float>(coll, corr.data(), ref, block, w, lo, hi, c.n, c.minReduce,
                               c.threshold, out.data(), count);
        ASSERT_EQ(count, int(c.kept.size()) + 1);
        EXPECT_TRUE(out[0].block == coll.getBlock(ref) && out[0].distance == 0.0f);
        int corner = c.ref;
        for (int x : c.kept) corner = std::min(corner, x);
        for (size_t k = 0; k <= c.kept.size(); ++k) {
            const int x = k == 0 ? c.ref : c.kept[k - 1];
            EXPECT_EQ(out[k].position, (V3{x, 0, 0})) << "rank " << k;
            EXPECT_EQ(out[k].relativePosition, (V3{x - corner, 0, 0})) << "rank " << k;
            const float d = term(c.v[x], c.v[c.ref]) - corr[size_t(x - c.ref + c.w)];
            const float got = out[k].distance;
            if (k > 0) EXPECT_TRUE(got == d || (std::isnan(got) && std::isnan(d))) << "rank " << k;
        }
    }
}
