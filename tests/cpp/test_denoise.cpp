// The denoiser end to end, and the filter steps it is built from.
#include "ImageData.h"
#include "helpers.h"
#include "support.h"
#include "process_reference_location.h"

namespace {
using korvo_phantom::psnr;
using korvo_phantom::whiteNoiseScene;

Parameters baseParameters(const V3& imageSize, const V3& blockSize) {
    Parameters p = korvo_phantom::exampleParameters(imageSize);  // a white PSD of one sample
    p.blockSize = blockSize;
    p.searchWindow = blockSize.z == 1 ? V3{5, 5, 0} : V3{3, 3, 3};
    p.step = blockSize.z == 1 ? V3{3, 3, 1} : V3{2, 2, 2};
    p.numThreads = 2;
    return p;
}

// The Wiener stage through its entry point on a given pilot, with a white PSD of one sample.
std::vector<float> wienerWithPilot(const std::vector<float>& noisy, Parameters p, float psd,
                                   const std::vector<float>& pilot) {
    std::vector<float> out(noisy.size(), 0.0f);
    korvoInterfaceWie(noisy.data(), &psd, &p, nullptr, pilot.data(), out.data(), nullptr);
    return out;
}

double maxAbsDifference(const std::vector<float>& a, const std::vector<float>& b) {
    double m = 0.0;
    for (size_t i = 0; i < a.size(); ++i) m = std::max(m, std::fabs(double(a[i]) - b[i]));
    return m;
}
}  // namespace

// The Wiener stage matches on its pilot as it is: with a clean pilot and a threshold tight enough
// that a noise correction of the distances would change the groups, the weight changes nothing.
TEST(Denoise, WhiteNoiseGainsAndTheWienerStageIgnoresTheCorrection) {
    const float sigma = 0.1f;
    const struct { V3 size, block; double gain; } cases[] = {{{32, 32, 24}, {4, 4, 4}, 8.0}, {{96, 80, 1}, {8, 8, 1}, 9.0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.block.z == 1 ? "plane" : "volume");
        const auto [clean, noisy] = whiteNoiseScene(c.size.x, c.size.y, c.size.z, sigma, std::uint32_t(c.size.z));
        Parameters p = baseParameters(c.size, c.block);
        const StageResults r = bothStages(noisy, {sigma * sigma}, p);
        const double before = psnr(noisy, clean);
        EXPECT_GT(psnr(r.basic, clean), before + c.gain);
        EXPECT_GT(psnr(r.final, clean), before + c.gain);
        // With the clean volume as pilot the Wiener gain is near ideal.
        EXPECT_GT(psnr(wienerWithPilot(noisy, p, sigma * sigma, clean), clean), psnr(r.basic, clean) + 2.0);
        p.matchThreshold = 0.05f;
        p.matchVarianceWeight = 1.0f;
        const std::vector<float> weighted = wienerWithPilot(noisy, p, sigma * sigma, clean);
        p.matchVarianceWeight = 0.0f;
        EXPECT_TRUE(sameBits(weighted, wienerWithPilot(noisy, p, sigma * sigma, clean)));
    }
}

TEST(Denoise, ColouredNoiseDescribedByItsPsdBeatsWhiteAssumption) {
    const V3 size{32, 32, 32};
    const float sigma = 0.1f;
    const std::vector<float> clean = korvo_phantom::volume(size.x, size.y, size.z);
    std::vector<float> psd;
    const std::vector<float> noisy =
        korvo_phantom::addNoise(clean, korvo_phantom::colouredNoise(size.x, size.y, size.z, sigma, 3, psd));
    Parameters p = baseParameters(size, {4, 4, 4});
    p.psdSize = size;
    p.matchVarianceWeight = 1.0f;
    const StageResults coloured = bothStages(noisy, psd, p);
    p.psdSize = {1, 1, 1};
    const StageResults white = bothStages(noisy, {sigma * sigma}, p);
    EXPECT_GT(psnr(coloured.final, clean), psnr(white.final, clean) + 1.0);
    EXPECT_GT(psnr(coloured.final, clean), psnr(noisy, clean) + 5.0);
}

// One input and record give one result. For a thread count, bit for bit: repeated runs (the
// order of the additions into the accumulators must not depend on thread timing), runs with a
// match storage (where the last worker, with fewer slices, does not match rows of the one before
// it ahead of it once done) and runs on the baseline kernels. Across thread counts and bands
// split along z, y and z, or every axis (where that helper slides only the collection it matches
// on), to float rounding: a step of 3 against a window of 4 is where sliding alone would lose
// the window's edge.
TEST(Denoise, RunsAgreeAcrossStoragesKernelSetsThreadsAndBands) {
    const struct { V3 size, block; int splitAxes; bool coloured; } cases[] = {  // axes as bits
        {{26, 24, 30}, {4, 4, 4}, 0, false},  // slices of 8 and 6 on two threads
        {{26, 24, 30}, {4, 4, 4}, 4, false}, {{26, 24, 30}, {4, 4, 4}, 6, false},
        {{26, 24, 30}, {4, 4, 4}, 7, false}, {{26, 24, 30}, {4, 4, 4}, 0, true},
        {{60, 90, 1}, {8, 8, 1}, 0, true},   {{60, 90, 1}, {8, 8, 1}, 2, true},
        // Deep enough that split bands keep their weights in rings on one and two threads.
        {{26, 24, 60}, {4, 4, 4}, 0, false}, {{26, 24, 60}, {4, 4, 4}, 4, false}};
    std::vector<float> whole;  // whole bands on two threads: the first of each scene's cases
    for (const auto& c : cases) {
        std::vector<float> psd{0.01f};
        const std::vector<float> clean = korvo_phantom::volume(c.size.x, c.size.y, c.size.z);
        const std::vector<float> noisy = korvo_phantom::addNoise(
            clean, c.coloured ? korvo_phantom::colouredNoise(c.size.x, c.size.y, c.size.z, 0.1f, 5,
                                                             psd)
                              : korvo_phantom::whiteNoise(size_t(c.size.volume()), 0.1f, 9));
        Parameters p = baseParameters(c.size, c.block);
        if (c.block.z > 1) p.searchWindow = {4, 4, 4}, p.step = {3, 3, 3};
        if (c.coloured) p.psdSize = c.size, p.matchVarianceWeight = 1.0f;
        for (int axis = 0; axis < 3; ++axis)
            p.splitBlockExtraction[axis] = (c.splitAxes >> axis) & 1;
        for (int threads : {2, 1, 3, 7}) {
            SCOPED_TRACE(cat(c.size, c.coloured ? " coloured" : " white", ", split ", c.splitAxes,
                             ", threads ", threads));
            p.numThreads = threads;
            MatchStorage table(korvoMatchStorageRows(&p), p.maxGroupSize);
            const StageResults alone = bothStages(noisy, psd, p, &table.record);
            const StageResults again = bothStages(noisy, psd, p);
            const StageResults base = onBaselineKernels([&] { return bothStages(noisy, psd, p); });
            for (const StageResults* r : {&again, &base})
                ASSERT_TRUE(sameBits(r->basic, alone.basic) && sameBits(r->final, alone.final))
                    << (r == &base ? "baseline kernels" : "no storage");
            if (c.splitAxes == 0 && threads == 2) {
                whole = alone.final;
                ASSERT_GT(psnr(whole, clean), psnr(noisy, clean) + 5.0);
            }
            EXPECT_LT(maxAbsDifference(alone.final, whole), 1e-5);
        }
    }
}

// The worker that helps another matches rows on bands it extracted afresh, where the other's
// bands slid into place; a recognised transform (the plane blocks' DCT) rounds differently on the
// two paths, so groups depended on which worker matched a row, and runs differed by timing.
TEST(Denoise, PlaneBlocksOnAVolumeGiveTheSameBitsEveryRun) {
    const V3 size{14, 12, 71};
    Parameters p = baseParameters(size, {8, 8, 1});
    p.psdWorkSize = {32, 32, 1};
    p.step = {2, 2, 1}, p.searchWindow = {1, 6, 3}, p.maxGroupSize = 16;
    p.splitBlockExtraction[1] = p.splitBlockExtraction[2] = true;
    std::vector<float> noisy(size_t(size.volume()));
    for (size_t i = 0; i < noisy.size(); ++i)
        noisy[i] = float(i % size_t(size.x)) / float(size.x) + 0.1f * float(i * 7919 % 1000) / 1000.0f;
    const std::vector<float> pilot = bothStages(noisy, {0.01f}, p).basic;
    const std::vector<float> first = wienerWithPilot(noisy, p, 0.01f, pilot);
    for (int run = 0; run < 100; ++run)
        ASSERT_TRUE(sameBits(wienerWithPilot(noisy, p, 0.01f, pilot), first)) << "run " << run;
}

TEST(Denoise, PlaneWithStepLargerThanImageVisitsBothEnds) {
    const V3 size{13, 11, 1};
    Parameters p = baseParameters(size, {8, 8, 1});
    p.step = {20, 20, 1};
    // Every voxel covered (no 0/0) and a constant image stays constant.
    for (float v : entryPointHT(std::vector<float>(size_t(size.volume()), 0.25f), p, 1e-4f))
        EXPECT_NEAR(v, 0.25f, 1e-5f);
}

TEST(Denoise, EntryPointsNormaliseAxisArraysAndRejectMissingTransforms) {
    const V3 size{16, 16, 8};
    std::vector<float> noisy(size_t(size.volume()), 0.5f), out(noisy.size(), 0.0f);
    Parameters p = baseParameters(size, {4, 4, 4});
    const float two[2] = {0.0f, 0.0f};
    p.axisArrayLength = {0, 1, 2};
    p.axisArrays = {nullptr, two, two};
    korvoInterfaceHT(noisy.data(), std::vector<float>{1e-4f}.data(), &p, nullptr, out.data(), nullptr);
    EXPECT_EQ(p.axisArrayLength, (V3{1, 1, 2}));
    EXPECT_EQ(p.axisArrays.x[0], 0.0f);
    EXPECT_NE(p.axisArrays.y, two);
    EXPECT_EQ(p.axisArrays.z, two);

    try {
        entryPointHT(noisy, baseParameters(size, {8, 8, 2}), 1e-4f);
        FAIL() << "expected MissingTransformException";
    } catch (const MissingTransformException& e) {
        EXPECT_STREQ(e.what(), "No transform was passed, and no internal transform could be found to replace it!");
    }
}

// Blocks up to 512 samples have their contributions formed whole before they are
// added, larger ones row by row: both against the element-wise rule. The weights'
// variance floor is relative to the mean variance (a NaN mean leaves each block's
// own variance), the numerator's absolute: the 1e-6 and 1e-9 variances tell them apart.
TEST(Aggregate, WholeBlockAndRowPathsFollowTheElementRule) {
    const float nan = std::nanf("");
    const struct { V3 block; int n; float mean, variances[4]; } cases[] = {
        {{4, 4, 4}, 4, 0.5f, {0.3f, 1e-9f, 2.5f, 0.07f}}, {{3, 5, 2}, 4, 0.5f, {0.3f, 1e-9f, 2.5f, 0.07f}},
        {{9, 8, 8}, 4, 0.5f, {0.3f, 1e-9f, 2.5f, 0.07f}}, {{2, 2, 2}, 2, 1.0f, {1e-6f, 0.0f}},
        {{2, 2, 2}, 4, nan, {nan, 1.0f, 1e-9f, 0.0f}},    {{2, 2, 2}, 0, 1.0f, {}}};  // an empty group adds nothing
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.block << " n " << c.n);
        const V3 size{c.block.x + 3, c.block.y + 2, c.block.z + 2};
        const long vol = c.block.volume();
        std::vector<float> group(size_t(vol * 4)), window(static_cast<size_t>(vol));
        for (size_t i = 0; i < group.size(); ++i) group[i] = std::sin(0.37f * float(i)) * 3.0f;
        for (size_t i = 0; i < window.size(); ++i) window[i] = 0.5f + 0.01f * float(i % 17);
        BlockDistance<float> matches[4] = {{nullptr, 0.0f, {0, 0, 0}, {}}, {nullptr, 0.0f, {1, 2, 1}, {}},
                                           {nullptr, 0.0f, {3, 0, 2}, {}}, {nullptr, 0.0f, {1, 2, 1}, {}}};
        std::vector<float> num(size_t(size.volume()), 0.0f), den(num.size(), 0.0f), refNum = num, refDen = den;
        ImageDataMutable<float> numerator(num.data(), size, false), weights(den.data(), size, false);
        const Cube4D<float> cube{{c.block.x, c.block.y, c.block.z, c.n}, group.data()};
        aggregate<float>(matches, c.block, c.n, cube, c.variances, window.data(), c.mean, numerator, weights);
        const float floor = std::max(c.mean * 0.0001f, 1e-8f);
        for (int k = 0; k < c.n; ++k)
            for (long e = 0; e < vol; ++e) {
                const V3 p = matches[k].position;
                const size_t at = size_t(p.x + e % c.block.x +
                                         size.x * (p.y + e / c.block.x % c.block.y + size.y * (p.z + e / (c.block.x * c.block.y))));
                refNum[at] += group[size_t(k * vol + e)] * window[size_t(e)] / std::max(c.variances[k], 1e-8f);
                refDen[at] += window[size_t(e)] / (floor > c.variances[k] ? floor : c.variances[k]);
            }
        for (size_t i = 0; i < num.size(); ++i) {  // NaN where the reference has NaN
            ASSERT_TRUE(num[i] == refNum[i] || (std::isnan(num[i]) && std::isnan(refNum[i]))) << i;
            ASSERT_TRUE(den[i] == refDen[i] || (std::isnan(den[i]) && std::isnan(refDen[i]))) << i;
        }
    }
}

TEST(AlphaRooting, MatchesDirectFormula) {
    std::vector<float> c(32), v(32);
    for (size_t i = 0; i < c.size(); ++i) {
        c[i] = (i % 3 == 0 ? -1.0f : 1.0f) * (0.1f + 0.37f * float(i));
        v[i] = 0.01f * float(i + 1);
    }
    c[5] = 0.0f;
    c[0] = 4.0f;
    std::vector<float> c2 = c, v2 = v;
    Cube4D<float> coeffs{{2, 2, 4, 2}, c2.data()}, vars{{2, 2, 4, 2}, v2.data()};
    const float e = 1.3f, ef = 1.1f;
    alphaRooting(e, ef, true, coeffs, vars);
    const double a = 4.0;
    EXPECT_TRUE(c2[0] == 4.0f && v2[0] == v[0]);
    for (size_t i = 1; i < c.size(); ++i) {
        if (c[i] == 0.0f) {
            EXPECT_TRUE(c2[i] == 0.0f && v2[i] == v[i]);
            continue;
        }
        const double ex = ((i / 4) % 4 == 0) ? ef : e, p = std::pow(std::fabs(c[i]), ex);
        const double rooted = (c[i] > 0 ? 1 : -1) * std::pow(a, 1 - ex) * p;
        EXPECT_NEAR(c2[i], rooted, 1e-5 * std::fabs(rooted));
        const double var = p * p * (v[0] * (1 - ex) * (1 - ex) * std::pow(a, -2 * ex) +
                                    ex * ex * std::pow(a, 2 - 2 * ex) * v[i] / (rooted * rooted));
        EXPECT_NEAR(v2[i], var, 1e-4 * var);
    }
}
