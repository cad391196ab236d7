// The denoiser end to end, and the filter steps it is built from.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <limits>
#include <string>
#include <vector>

#include "support.h"
#include "ImageData.h"
#include "korvo/korvo.h"
#include "process_reference_location.h"
#include "transforms/tables.h"
#include "transforms/transformBlocksNL.h"

namespace {
using korvo_phantom::addNoise;
using korvo_phantom::psnr;

Parameters baseParameters(const Vec3<int>& imageSize, const Vec3<int>& blockSize) {
    Parameters p = korvo_phantom::exampleParameters(imageSize);
    p.blockSize = blockSize;
    p.searchWindow = blockSize.z == 1 ? Vec3<int>{5, 5, 0} : Vec3<int>{3, 3, 3};
    p.step = blockSize.z == 1 ? Vec3<int>{3, 3, 1} : Vec3<int>{2, 2, 2};
    p.numThreads = 2;
    return p;
}

struct StageResults {
    std::vector<float> basic, final;
};

// Both stages, the way a wrapper drives them; `psd` has extents p.psdSize.
StageResults denoise(const std::vector<float>& noisy, const std::vector<float>& psd, Parameters p,
            BlockMatchStorage* storage = nullptr) {
    StageResults r;
    r.basic.assign(noisy.size(), 0.0f);
    r.final.assign(noisy.size(), 0.0f);
    Parameters first = p;
    korvoInterfaceHT(noisy.data(), psd.data(), &first, nullptr, r.basic.data(), storage);
    Parameters second = p;
    korvoInterfaceWie(noisy.data(), psd.data(), &second, nullptr, r.basic.data(), r.final.data(), storage);
    return r;
}

std::vector<float> wienerWithPilot(const std::vector<float>& noisy, float sigma, Parameters p,
                                   const std::vector<float>& pilot) {
    std::vector<float> out(noisy.size(), 0.0f);
    const float psd = sigma * sigma;
    korvoInterfaceWie(noisy.data(), &psd, &p, nullptr, pilot.data(), out.data(), nullptr);
    return out;
}

struct MatchTable {
    std::vector<int> counts;
    std::vector<Vec3<int>> positions, relative;
    BlockMatchStorage storage{};
    MatchTable(int rows, int perRow) : counts(static_cast<size_t>(rows)),
        positions(static_cast<size_t>(rows) * perRow), relative(positions.size()) {
        storage = {perRow, counts.data(), positions.data(), relative.data(), 0, 0};
    }
};

double maxAbsDifference(const std::vector<float>& a, const std::vector<float>& b) {
    double m = 0.0;
    for (size_t i = 0; i < a.size(); ++i) m = std::max(m, std::fabs(static_cast<double>(a[i]) - b[i]));
    return m;
}
}  // namespace

TEST(Denoise, WhiteNoiseVolumeAndPlaneGainClearly) {
    const float sigma = 0.1f;
    const struct {
        Vec3<int> size, block;
        double gain;
    } cases[] = {{{32, 32, 24}, {4, 4, 4}, 8.0}, {{96, 80, 1}, {8, 8, 1}, 9.0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.block.z == 1 ? "plane" : "volume");
        const auto [clean, noisy] = korvo_phantom::whiteNoiseScene(c.size.x, c.size.y, c.size.z, sigma,
                                                                   static_cast<std::uint32_t>(c.size.z));
        Parameters p = baseParameters(c.size, c.block);
        p.psdSize = {1, 1, 1};
        const StageResults r = denoise(noisy, {sigma * sigma}, p);
        const double before = psnr(noisy, clean);
        EXPECT_GT(psnr(r.basic, clean), before + c.gain);
        EXPECT_GT(psnr(r.final, clean), before + c.gain);
        // With the clean volume as pilot the Wiener gain is near ideal.
        EXPECT_GT(psnr(wienerWithPilot(noisy, sigma, p, clean), clean), psnr(r.basic, clean) + 2.0);
    }
}

TEST(Denoise, ColouredNoiseDescribedByItsPsdBeatsWhiteAssumption) {
    const Vec3<int> size{32, 32, 32};
    const float sigma = 0.1f;
    const std::vector<float> clean = korvo_phantom::volume(size.x, size.y, size.z);
    std::vector<float> psd;
    const std::vector<float> noise = korvo_phantom::colouredNoise(size.x, size.y, size.z, sigma, 3, psd);
    const std::vector<float> noisy = addNoise(clean, noise);
    Parameters p = baseParameters(size, {4, 4, 4});
    p.psdSize = size;
    p.matchVarianceWeight = 1.0f;
    const StageResults coloured = denoise(noisy, psd, p);
    p.psdSize = {1, 1, 1};
    const StageResults white = denoise(noisy, {sigma * sigma}, p);
    EXPECT_GT(psnr(coloured.final, clean), psnr(white.final, clean) + 1.0);
    EXPECT_GT(psnr(coloured.final, clean), psnr(noisy, clean) + 5.0);
}

TEST(Denoise, ReplayedMatchesReproduceTheRecordingRun) {
    const Vec3<int> size{24, 20, 16};
    const auto [clean, noisy] = korvo_phantom::whiteNoiseScene(size.x, size.y, size.z, 0.1f, 4);
    Parameters p = baseParameters(size, {4, 4, 4});
    p.psdSize = {1, 1, 1};
    p.numThreads = 1;
    const int rows = (size.x / 2 + 2) * (size.y / 2 + 2) * (size.z / 2 + 2);
    MatchTable table(rows, p.maxGroupSize);
    std::vector<float> recorded(noisy.size(), 0.0f), replayed(noisy.size(), 0.0f);
    Parameters a = p, b = p;
    korvoInterfaceHT(noisy.data(), std::vector<float>{0.01f}.data(), &a, nullptr, recorded.data(), &table.storage);
    EXPECT_GT(table.storage.rows, 0);
    table.storage.filled = 1;
    korvoInterfaceHT(noisy.data(), std::vector<float>{0.01f}.data(), &b, nullptr, replayed.data(), &table.storage);
    EXPECT_EQ(maxAbsDifference(recorded, replayed), 0.0);
}

TEST(Denoise, WienerStageMatchesWithoutNoiseCorrection) {
    // The pilot carries no noise to correct for: the weight must not change the result.
    const Vec3<int> size{20, 20, 12};
    const auto [clean, noisy] = korvo_phantom::whiteNoiseScene(size.x, size.y, size.z, 0.1f, 6);
    Parameters p = baseParameters(size, {4, 4, 4});
    p.numThreads = 1;
    p.matchThreshold = 0.05f;  // tight enough that a correction would change the groups
    p.matchVarianceWeight = 1.0f;
    const std::vector<float> a = wienerWithPilot(noisy, 0.1f, p, clean);
    p.matchVarianceWeight = 0.0f;
    EXPECT_EQ(maxAbsDifference(a, wienerWithPilot(noisy, 0.1f, p, clean)), 0.0);
}

TEST(Denoise, SplitBandsAndThreadCountsAgree) {
    const Vec3<int> size{28, 26, 22};
    const auto [clean, noisy] = korvo_phantom::whiteNoiseScene(size.x, size.y, size.z, 0.1f, 5);
    Parameters p = baseParameters(size, {4, 4, 4});
    p.psdSize = {1, 1, 1};
    // A step of 3 against a window of 4 is where sliding alone would lose the window's edge.
    p.searchWindow = {4, 4, 4};
    p.step = {3, 3, 3};
    const std::vector<float> psd{0.01f};
    const StageResults whole = denoise(noisy, psd, p);
    ASSERT_GT(psnr(whole.final, clean), psnr(noisy, clean) + 5.0);

    Parameters splitZ = p;
    splitZ.splitBlockExtraction[2] = true;
    EXPECT_LT(maxAbsDifference(denoise(noisy, psd, splitZ).final, whole.final), 1e-5);
    Parameters splitYZ = splitZ;
    splitYZ.splitBlockExtraction[1] = true;
    EXPECT_LT(maxAbsDifference(denoise(noisy, psd, splitYZ).final, whole.final), 1e-5);
    Parameters splitAll = splitYZ;
    splitAll.splitBlockExtraction[0] = true;
    EXPECT_LT(maxAbsDifference(denoise(noisy, psd, splitAll).final, whole.final), 1e-5);

    Parameters single = p;
    single.numThreads = 1;
    EXPECT_LT(maxAbsDifference(denoise(noisy, psd, single).final, whole.final), 1e-5);
}

// The last worker has fewer slices and, once done, matches rows of the one
// before it ahead of it. With a match storage it does not; both must give the same bits.
TEST(Denoise, MatchesFoundAheadByTheIdleWorkerChangeNothing) {
    const Vec3<int> size{26, 24, 30};  // slices 8 and 6
    const auto [clean, noisy] = korvo_phantom::whiteNoiseScene(size.x, size.y, size.z, 0.1f, 6);
    Parameters p = baseParameters(size, {4, 4, 4});
    p.psdSize = {1, 1, 1};
    const std::vector<float> psd{0.01f};
    // Whole bands, z bands, and bands on every axis (where the helper slides
    // only the collection it matches on).
    for (const int split : {0, 1, 3}) {
        for (int axis = 0; axis < 3; ++axis) p.splitBlockExtraction[axis] = axis >= 3 - split;
        const int rows = (size.x / 2 + 2) * (size.y / 2 + 2) * (size.z / 2 + 2);
        MatchTable table(rows, p.maxGroupSize);
        const StageResults alone = denoise(noisy, psd, p, &table.storage);
        for (int run = 0; run < 3; ++run) {
            const StageResults helped = denoise(noisy, psd, p);
            EXPECT_EQ(helped.basic, alone.basic) << split;
            EXPECT_EQ(helped.final, alone.final) << split;
        }
    }
}

// The order of the additions into the accumulators must not depend on thread
// timing: repeated runs with the same thread count agree bit for bit.
TEST(Denoise, RepeatedRunsWithTheSameThreadCountAgreeBitForBit) {
    const struct {
        Vec3<int> size, block;
        int splitAxis;  // -1: whole bands
    } cases[] = {{{26, 24, 30}, {4, 4, 4}, -1}, {{26, 24, 30}, {4, 4, 4}, 2},
                 {{60, 90, 1}, {8, 8, 1}, -1}, {{60, 90, 1}, {8, 8, 1}, 1}};
    for (const auto& c : cases) {
        const auto scene = korvo_phantom::whiteNoiseScene(c.size.x, c.size.y, c.size.z, 0.1f, 9);
        Parameters p = baseParameters(c.size, c.block);
        p.psdSize = {1, 1, 1};
        if (c.splitAxis >= 0) p.splitBlockExtraction[c.splitAxis] = true;
        for (int threads : {2, 3, 7}) {
            SCOPED_TRACE(testing::Message() << "size " << c.size.x << "x" << c.size.y << "x" << c.size.z
                                            << ", split " << c.splitAxis << ", threads " << threads);
            p.numThreads = threads;
            const StageResults first = denoise(scene.noisy, {0.01f}, p);
            for (int run = 0; run < 2; ++run) {
                const StageResults again = denoise(scene.noisy, {0.01f}, p);
                ASSERT_EQ(0, std::memcmp(first.basic.data(), again.basic.data(), first.basic.size() * sizeof(float)));
                ASSERT_EQ(0, std::memcmp(first.final.data(), again.final.data(), first.final.size() * sizeof(float)));
            }
        }
    }
}

TEST(Denoise, PlaneWithStepLargerThanImageVisitsBothEnds) {
    const Vec3<int> size{13, 11, 1};
    std::vector<float> flat(static_cast<size_t>(size.volume()), 0.25f);
    Parameters p = baseParameters(size, {8, 8, 1});
    p.psdSize = {1, 1, 1};
    p.step = {20, 20, 1};
    std::vector<float> out(flat.size(), 0.0f);
    korvoInterfaceHT(flat.data(), std::vector<float>{1e-4f}.data(), &p, nullptr, out.data(), nullptr);
    // Every voxel covered (no 0/0) and a constant image stays constant.
    for (float v : out) EXPECT_NEAR(v, 0.25f, 1e-5f);
}

TEST(Denoise, EntryPointsNormaliseAxisArraysAndRejectMissingTransforms) {
    const Vec3<int> size{16, 16, 8};
    std::vector<float> noisy(static_cast<size_t>(size.volume()), 0.5f), out(noisy.size(), 0.0f);
    Parameters p = baseParameters(size, {4, 4, 4});
    p.psdSize = {1, 1, 1};
    const float two[2] = {0.0f, 0.0f};
    p.axisArrayLength = {0, 1, 2};
    p.axisArrays = {nullptr, two, two};
    korvoInterfaceHT(noisy.data(), std::vector<float>{1e-4f}.data(), &p, nullptr, out.data(), nullptr);
    EXPECT_EQ(p.axisArrayLength, (Vec3<int>{1, 1, 2}));
    EXPECT_EQ(p.axisArrays.x[0], 0.0f);
    EXPECT_NE(p.axisArrays.y, two);
    EXPECT_EQ(p.axisArrays.z, two);

    Parameters bad = baseParameters(size, {8, 8, 2});
    bad.psdSize = {1, 1, 1};
    try {
        korvoInterfaceHT(noisy.data(), std::vector<float>{1e-4f}.data(), &bad, nullptr, out.data(), nullptr);
        FAIL() << "expected MissingTransformException";
    } catch (const MissingTransformException& e) {
        EXPECT_STREQ(e.what(), "No transform was passed, and no internal transform could be found to replace it!");
    }
}

TEST(Denoise, FailedAllocationReportsAndReturns) {
    // A band of a gigavoxel volume needs far more memory than exists; nothing is read
    // before the allocation fails, so small buffers stand in for the volume.
    std::vector<float> tiny(16, 0.0f), out(16, 0.0f);
    Parameters p = baseParameters({1024, 1024, 1024}, {4, 4, 4});
    p.psdSize = {1, 1, 1};
    testing::internal::CaptureStderr();
    korvoInterfaceHT(tiny.data(), std::vector<float>{1e-4f}.data(), &p, nullptr, out.data(), nullptr);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Failed to allocate"), std::string::npos) << err;
    EXPECT_EQ(out, std::vector<float>(16, 0.0f));
}

TEST(Aggregate, FloorsAndWindowFollowTheirRules) {
    const Vec3<int> size{6, 5, 4};
    const Vec3<int> block{2, 2, 2};
    std::vector<float> num(static_cast<size_t>(size.volume()), 0.0f), den(num.size(), 0.0f);
    ImageDataMutable<float> numerator(num.data(), size, false), weights(den.data(), size, false);
    std::vector<float> group(16);
    for (size_t i = 0; i < group.size(); ++i) group[i] = 1.0f + static_cast<float>(i);
    const float window[8] = {1, 2, 3, 4, 5, 6, 7, 8};
    BlockDistance<float> matches[2] = {{nullptr, 0.0f, {1, 1, 1}, {0, 0, 0}},
                                       {nullptr, 0.0f, {2, 1, 1}, {1, 0, 0}}};
    const Cube4D<float> cube{{2, 2, 2, 2}, group.data()};
    const float variances[2] = {1e-6f, 0.0f};
    aggregate<float>(matches, block, 2, cube, variances, window, 1.0f, numerator, weights);
    // Voxel (2,1,1) is element (1,0,0) of block 0 and (0,0,0) of block 1.
    const float expectedNum = (2.0f * 2.0f) / 1e-6f + (9.0f * 1.0f) / 1e-8f;
    const float expectedDen = 2.0f / 1e-4f + 1.0f / 1e-4f;
    EXPECT_FLOAT_EQ(numerator.at({2, 1, 1}), expectedNum);
    EXPECT_FLOAT_EQ(weights.at({2, 1, 1}), expectedDen);
    EXPECT_EQ(weights.at({0, 0, 0}), 0.0f);

    std::fill(den.begin(), den.end(), 0.0f);
    const float nanVariance[2] = {std::nanf(""), 1.0f};
    aggregate<float>(matches, block, 2, cube, nanVariance, window, std::nanf(""), numerator, weights);
    EXPECT_TRUE(std::isnan(weights.at({1, 1, 1})));
    EXPECT_FLOAT_EQ(weights.at({3, 2, 2}), 8.0f);  // own variance used when the floor is NaN
    aggregate<float>(matches, block, 0, cube, variances, window, 1.0f, numerator, weights);
}

TEST(AlphaRooting, MatchesDirectFormula) {
    std::vector<float> c(32), v(32);
    for (size_t i = 0; i < c.size(); ++i) {
        c[i] = (i % 3 == 0 ? -1.0f : 1.0f) * (0.1f + 0.37f * static_cast<float>(i));
        v[i] = 0.01f * static_cast<float>(i + 1);
    }
    c[5] = 0.0f;
    c[0] = 4.0f;
    std::vector<float> c2 = c, v2 = v;
    Cube4D<float> coeffs{{2, 2, 4, 2}, c2.data()}, vars{{2, 2, 4, 2}, v2.data()};
    const float e = 1.3f, ef = 1.1f;
    alphaRooting(e, ef, true, coeffs, vars);
    const double a = 4.0;
    for (size_t i = 1; i < c.size(); ++i) {
        const double ex = ((i / 4) % 4 == 0) ? ef : e;
        if (c[i] == 0.0f) {
            EXPECT_EQ(c2[i], 0.0f);
            EXPECT_EQ(v2[i], v[i]);
            continue;
        }
        const double p = std::pow(std::fabs(c[i]), ex);
        const double rooted = (c[i] > 0 ? 1 : -1) * std::pow(a, 1 - ex) * p;
        EXPECT_NEAR(c2[i], rooted, 1e-5 * std::fabs(rooted));
        const double var = p * p * (v[0] * (1 - ex) * (1 - ex) * std::pow(a, -2 * ex) +
                                    ex * ex * std::pow(a, 2 - 2 * ex) * v[i] / (rooted * rooted));
        EXPECT_NEAR(v2[i], var, 1e-4 * var);
    }
    EXPECT_EQ(c2[0], 4.0f);
    EXPECT_EQ(v2[0], v[0]);
}

// Blocks up to 512 samples have their contributions formed whole before they are
// added, larger ones row by row: both against the element-wise rule.
TEST(Aggregate, WholeBlockAndRowPathsFollowTheElementRule) {
    for (const Vec3<int> block : {Vec3<int>{4, 4, 4}, Vec3<int>{3, 5, 2}, Vec3<int>{9, 8, 8}}) {
        const Vec3<int> size{block.x + 3, block.y + 2, block.z + 2};
        const int n = 4;
        const long vol = block.volume();
        std::vector<float> group(static_cast<size_t>(vol * n)), window(static_cast<size_t>(vol));
        for (size_t i = 0; i < group.size(); ++i) group[i] = std::sin(0.37f * static_cast<float>(i)) * 3.0f;
        for (size_t i = 0; i < window.size(); ++i) window[i] = 0.5f + 0.01f * static_cast<float>(i % 17);
        const float variances[n] = {0.3f, 1e-9f, 2.5f, 0.07f};
        BlockDistance<float> matches[n] = {{nullptr, 0.0f, {0, 0, 0}, {}}, {nullptr, 0.0f, {1, 2, 1}, {}},
                                           {nullptr, 0.0f, {3, 0, 2}, {}}, {nullptr, 0.0f, {1, 2, 1}, {}}};
        std::vector<float> num(static_cast<size_t>(size.volume()), 0.0f), den(num.size(), 0.0f);
        std::vector<float> refNum = num, refDen = den;
        ImageDataMutable<float> numerator(num.data(), size, false), weights(den.data(), size, false);
        const Cube4D<float> cube{{block.x, block.y, block.z, n}, group.data()};
        aggregate<float>(matches, block, n, cube, variances, window.data(), 0.5f, numerator, weights);
        const float floor = std::max(0.5f * 0.0001f, 1e-8f);
        for (int k = 0; k < n; ++k) {
            const Vec3<int>& p = matches[k].position;
            for (long e = 0; e < vol; ++e) {
                const int x = static_cast<int>(e % block.x), y = static_cast<int>(e / block.x % block.y),
                          z = static_cast<int>(e / (block.x * block.y));
                const size_t at = static_cast<size_t>(p.x + x + size.x * (p.y + y + size.y * (p.z + z)));
                refNum[at] += group[static_cast<size_t>(k * vol + e)] * window[static_cast<size_t>(e)] /
                              std::max(variances[k], 1e-8f);
                refDen[at] += window[static_cast<size_t>(e)] / (floor > variances[k] ? floor : variances[k]);
            }
        }
        EXPECT_EQ(num, refNum);
        EXPECT_EQ(den, refDen);
    }
}

// Matrices that are mostly zeros skip their zero terms: the same values as the
// full multiply-add chain, whatever the contents left at the same address.
TEST(GroupTransform, SparseMatricesGiveTheFullProductsValues) {
    const Vec3<int> block{4, 4, 3};
    const long vol = block.volume();
    const int n = 32;
    std::vector<float> members(static_cast<size_t>(vol * n)), out(members.size()), back(members.size());
    for (size_t i = 0; i < members.size(); ++i) members[i] = std::cos(0.731f * static_cast<float>(i)) * 2.0f;
    std::vector<BlockDistance<float>> matches(n);
    for (int j = 0; j < n; ++j) matches[static_cast<size_t>((j * 5) % n)].block = members.data() + j * vol;
    auto reference = [&](auto member, const float* m, int size, long e, int k) {
        float acc = member(0)[e] * m[k * size];
        for (int j = 1; j < size; ++j) acc = std::fma(member(j)[e], m[k * size + j], acc);
        return acc;
    };
    std::vector<float> matrix(HAAR_32_FWD, HAAR_32_FWD + n * n);
    std::vector<float> zeroRow(HAAR_16_FWD, HAAR_16_FWD + 256);
    std::fill(zeroRow.begin() + 16 * 5, zeroRow.begin() + 16 * 6, 0.0f);
    struct Case {
        int size;
        const float* forward;
        const float* inverse;
    } cases[] = {{16, HAAR_16_FWD, HAAR_16_INV}, {16, zeroRow.data(), HAAR_16_INV}, {32, matrix.data(), HAAR_32_INV}};
    auto check = [&](const Case& c) {
        Cube4D<float> forward{{block.x, block.y, block.z, c.size}, out.data()};
        Cube4D<float> inverse{{block.x, block.y, block.z, c.size}, back.data()};
        transformBlocksNL<float>(matches.data(), c.size, c.forward, TransformsMetas::Arbitrary, forward, block);
        transformBlocksNL<float>(forward, c.size, c.inverse, TransformsMetas::InverseArbitrary, inverse, block);
        const auto fromMatches = [&](int j) { return matches[static_cast<size_t>(j)].block; };
        const auto fromCube = [&](int j) { return out.data() + j * vol; };
        for (int k = 0; k < c.size; ++k) {
            for (long e = 0; e < vol; ++e) {
                ASSERT_EQ(out[static_cast<size_t>(k * vol + e)], reference(fromMatches, c.forward, c.size, e, k));
                ASSERT_EQ(back[static_cast<size_t>(k * vol + e)], reference(fromCube, c.inverse, c.size, e, k));
            }
        }
    };
    for (const Case& c : cases) check(c);
    // Same address, new contents: a dense matrix this time.
    for (size_t i = 0; i < matrix.size(); ++i) matrix[i] = 0.01f * static_cast<float>((i * 37) % 101) - 0.5f;
    check(cases[2]);
}
