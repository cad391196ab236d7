// The record services: defaults, record and storage checks, storage and
// collection sizes, and how a stage call reports its end.
#include <functional>

#include "KORVO.h"
#include "korvo/Threading.h"
#include "helpers.h"
#include "support.h"

namespace {
constexpr auto kCompleted = korvo_detail::StageStatus::Completed;

std::string refusal(const Parameters& p, int stage = 0) {
    char message[256];
    std::memset(message, 'x', sizeof message);
    const int result = korvoCheckParameters(&p, stage, message, sizeof message);
    EXPECT_EQ(result != 0, message[0] != '\0') << message;
    return result != 0 ? std::string(message) : std::string();
}

Parameters defaults(const Vec3<int>& size, int stage = 0, float sigma = 0.1f) {
    Parameters p;
    std::memset(&p, 0xAB, sizeof p);  // every field must be set
    korvoDefaultParameters(&p, stage, size, sigma);
    return p;
}

korvo_detail::StageStatus runHT(const std::vector<float>& noisy, Parameters p, std::vector<float>& out,
                                BlockMatchStorage* storage = nullptr) {
    const float psd = 0.01f;
    out.assign(noisy.size(), 0.0f);
    return korvo_detail::runStageHT(noisy.data(), &psd, &p, nullptr, out.data(), storage);
}
}  // namespace

TEST(DefaultParameters, FollowThePackageAndPassTheCheck) {
    // Groups of up to 16 blocks (32 in the Wiener stage); the match threshold a mean squared
    // difference per voxel of 9 (3) noise variances; the window clamped to what the image serves.
    const struct { Vec3<int> size; float sigma; Vec3<int> block, step, window, psdWork; } cases[] = {
        {{40, 30, 20}, 0.5f, {4, 4, 4}, {3, 3, 3}, {5, 5, 5}, {16, 16, 16}},
        {{50, 14, 1}, 0.1f, {8, 8, 1}, {3, 3, 1}, {11, 6, 0}, {32, 32, 1}},
        {{6, 5, 7}, 0.1f, {4, 4, 4}, {3, 3, 3}, {2, 1, 3}, {16, 16, 16}},
        {{4, 4, 4}, 0.1f, {4, 4, 4}, {3, 3, 3}, {0, 0, 0}, {16, 16, 16}}};
    for (const auto& c : cases)
        for (int stage : {0, 1}) {
            SCOPED_TRACE(testing::Message() << c.size << " stage " << stage);
            const Parameters p = defaults(c.size, stage, c.sigma);
            EXPECT_EQ(p.blockSize, c.block);
            EXPECT_EQ(p.step, c.step);
            EXPECT_EQ(p.searchWindow, c.window);
            EXPECT_EQ(p.psdWorkSize, c.psdWork);
            EXPECT_EQ(p.maxGroupSize, stage ? 32 : 16);
            EXPECT_FLOAT_EQ(p.matchThreshold, (stage ? 3.0f : 9.0f) * float(c.block.volume()) * c.sigma * c.sigma);
            EXPECT_TRUE(p.axisArrayLength == (Vec3<int>{0, 0, 0}) && p.axisArrays.x == nullptr);
            EXPECT_EQ(refusal(p, stage), "");
        }
}

TEST(CheckParameters, RefusesWhatTheStageCannotServe) {
    const float nan = std::nanf("");
    const float offsets[2] = {1.0f, 3e9f};
    const float shifted[2] = {-5.0f, -5.0f};  // every row of references starts at x = 5
    const struct {
        const char* field;  // named in the reason
        std::function<void(Parameters&)> change;
    } cases[] = {
        {"imageSize", [](Parameters& p) { p.imageSize.y = 0; }},
        {"imageSize", [](Parameters& p) { p.imageSize = {2048, 2048, 1024}; }},
        {"blockSize", [](Parameters& p) { p.blockSize.z = 0; }}, {"blockSize", [](Parameters& p) { p.imageSize.z = 3; }},
        {"step", [](Parameters& p) { p.step.x = 0; }}, {"step", [](Parameters& p) { p.step.y = 5; }},
        {"maxGroupSize", [](Parameters& p) { p.maxGroupSize = 12; }},
        {"maxGroupSize", [](Parameters& p) { p.maxGroupSize = 128; }},
        {"maxGroupSize", [](Parameters& p) { p.maxGroupSize = 0; }},
        {"varianceGroupLimit", [](Parameters& p) { p.varianceGroupLimit = -1; }},
        {"varianceGroupLimit", [](Parameters& p) { p.varianceGroupLimit = 65; }},
        {"minReduceCount", [](Parameters& p) { p.minReduceCount = 3; }},
        {"minReduceCount", [](Parameters& p) { p.minReduceCount = 0; }},
        {"psdWorkSize", [](Parameters& p) { p.psdWorkSize.x = 12; }},
        {"psdWorkSize", [](Parameters& p) { p.psdWorkSize.z = 1; }},
        {"psdWorkSize", [](Parameters& p) { p.psdWorkSize = {64, 64, 16}; }},
        {"psdSize", [](Parameters& p) { p.psdSize.x = 0; }},
        {"searchWindow", [](Parameters& p) { p.searchWindow.z = -1; }},
        {"searchWindow", [](Parameters& p) { p.searchWindow = {1000, 1000, 1000}; }},
        {"thresholdFactor", [=](Parameters& p) { p.thresholdFactor = nan; }},
        {"thresholdFactor", [](Parameters& p) { p.thresholdFactor = -1.0f; }},
        {"wienerFactor", [](Parameters& p) { p.wienerFactor = 0.0f; }},
        {"matchVarianceWeight", [](Parameters& p) { p.matchVarianceWeight = INFINITY; }},
        {"matchThreshold", [](Parameters& p) { p.matchThreshold = -2.0f; }},
        {"sharpenExponent", [](Parameters& p) { p.sharpen = true; p.sharpenExponent = 0.0f; }},
        {"axisArrays", [](Parameters& p) { p.axisArrayLength.y = 3; }},
        {"axisArrays", [&](Parameters& p) { p.axisArrayLength.z = 2; p.axisArrays.z = offsets; }},
        {"uncovered", [&](Parameters& p) { p.axisArrayLength.x = 2; p.axisArrays.x = shifted; }},
    };
    for (const auto& c : cases) {
        Parameters p = defaults({24, 20, 16});
        c.change(p);
        const std::string reason = refusal(p);
        EXPECT_NE(reason.find(c.field), std::string::npos) << c.field << ": '" << reason << "'";
    }
    Parameters p = defaults({24, 20, 16});
    EXPECT_NE(refusal(p, 2).find("stage"), std::string::npos);
    EXPECT_EQ(korvoCheckParameters(nullptr, 0, nullptr, 0), 1);
    // Truncated to the buffer, always terminated.
    p.step.x = 0;
    char tiny[6];
    EXPECT_EQ(korvoCheckParameters(&p, 0, tiny, sizeof tiny), 1);
    EXPECT_EQ(std::strlen(tiny), 5u);
    // A step beyond the block is harmless where the image is no wider than the block.
    p = defaults({24, 8, 1});
    p.step = {3, 9, 4};
    EXPECT_EQ(refusal(p), "");
}

// Whatever the check accepts must run both stages, record and replay without stopping on an
// assertion, and its match storage's rows cover every row the stage writes, tightly. Random
// small records, then larger ones, some with per-axis offsets.
TEST(CheckParameters, EveryAcceptedRecordRunsAndFillsItsStorageRows) {
    const auto check = [](const Parameters& p, unsigned seed) {
        const Vec3<int> size = p.imageSize;
        const auto scene = korvo_phantom::whiteNoiseScene(size.x, size.y, size.z, 0.1f, seed);
        const long rows = korvoMatchStorageRows(&p);
        ASSERT_GT(rows, 0);
        MatchStorage storage(rows, p.maxGroupSize);
        std::vector<float> basic, replayed;
        ASSERT_EQ(runHT(scene.noisy, p, basic, &storage.record), kCompleted);
        EXPECT_TRUE(storage.guardsIntact(rows));
        // Tight: the last row is written (or reported).
        EXPECT_LE(storage.record.rows, rows);
        EXPECT_TRUE(storage.counts[size_t(rows - 1)] != -7 || storage.record.rows == rows);
        char text[256] = "";
        EXPECT_EQ(korvoCheckMatchStorage(&p, &storage.record, text, sizeof text), 0) << text;
        storage.record.filled = 1;
        ASSERT_EQ(runHT(scene.noisy, p, replayed, &storage.record), kCompleted);
        EXPECT_EQ(basic, replayed);
        std::vector<float> final(basic.size(), 0.0f);
        const float psd = 0.01f;
        Parameters second = p;
        EXPECT_EQ(korvo_detail::runStageWie(scene.noisy.data(), &psd, &second, nullptr,
                                            basic.data(), final.data(), nullptr),
                  kCompleted);
        for (float v : final) ASSERT_TRUE(std::isfinite(v));
    };
#if defined(__SANITIZE_THREAD__)
    const int records = 8;  // the thread sanitizer runs the stages ten times slower
#else
    const int records = 24;
#endif
    std::mt19937 rng(11);
    auto pick = [&](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
    int accepted = 0;
    for (int trial = 0; trial < 400 && accepted < records; ++trial) {
        const bool plane = pick(0, 2) == 0;
        const Vec3<int> size{pick(3, 16), pick(3, 16), plane ? 1 : pick(3, 10)};
        Parameters p = defaults(size, pick(0, 1));
        p.blockSize = plane || pick(0, 3) == 0 ? Vec3<int>{8, 8, 1} : Vec3<int>{4, 4, 4};
        p.step = {pick(0, 5), pick(1, 5), pick(1, 5)};
        p.searchWindow = {pick(0, 7), pick(0, 7), pick(0, 4)};
        p.maxGroupSize = 1 << pick(0, 6);
        p.varianceGroupLimit = pick(0, 40);
        p.minReduceCount = pick(1, 2);
        const int work[] = {4, 8, 16, 32};
        p.psdWorkSize = {work[pick(0, 3)], work[pick(0, 3)], p.blockSize.z == 1 ? pick(0, 1) * 7 + 1 : work[pick(0, 2)]};
        p.useRealFft = pick(0, 1) == 1;
        p.matchVarianceWeight = static_cast<float>(pick(0, 2));
        p.matchThreshold = pick(0, 1) ? 0.0f : 1e3f;
        for (bool& flag : p.splitBlockExtraction) flag = pick(0, 1) == 1;
        p.sharpen = pick(0, 3) == 0;
        p.numThreads = pick(1, 3);
        if (korvoCheckParameters(&p, 0, nullptr, 0) != 0) continue;
        ++accepted;
        SCOPED_TRACE(testing::Message() << "trial " << trial);
        check(p, static_cast<unsigned>(trial));
    }
    EXPECT_EQ(accepted, records);
    const float shift[2] = {3.0f, 3.0f};  // brings grid points beyond the last position back
    const struct { Vec3<int> size, step; bool offsets; } cases[] = {
        {{23, 19, 13}, {3, 3, 3}, false}, {{20, 17, 1}, {3, 2, 1}, false},
        {{21, 18, 14}, {2, 3, 4}, true}, {{17, 22, 1}, {4, 5, 1}, true}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.size << " step " << c.step);
        Parameters p = defaults(c.size);
        p.step = c.step;
        p.numThreads = 2;
        if (c.offsets) p.axisArrayLength = {0, 2, 2}, p.axisArrays = {nullptr, shift, shift};
        ASSERT_EQ(refusal(p), "");
        check(p, 1);
    }
}

TEST(CheckMatchStorage, RefusesStoragesTheReplayCannotRead) {
    const Vec3<int> size{20, 18, 14};
    Parameters p = defaults(size);
    p.numThreads = 1;
    p.splitBlockExtraction[2] = true;
    const long rows = korvoMatchStorageRows(&p);
    MatchStorage recorded(rows, p.maxGroupSize);
    std::vector<float> out;
    ASSERT_EQ(runHT(korvo_phantom::whiteNoiseScene(size.x, size.y, size.z, 0.1f, 1).noisy, p, out, &recorded.record),
              kCompleted);
    recorded.record.filled = 1;
    EXPECT_EQ(korvoCheckMatchStorage(&p, &recorded.record, nullptr, 0), 0);
    // A larger group limit replays the recorded sizes; the row stride stays.
    Parameters larger = p;
    larger.maxGroupSize = 64;
    EXPECT_EQ(korvoCheckMatchStorage(&larger, &recorded.record, nullptr, 0), 0);

    // A row on the first plane holding a group of at least four blocks.
    const auto start = [&](int r) { return static_cast<size_t>(r) * static_cast<size_t>(p.maxGroupSize); };
    int row = 0;
    while (recorded.counts[static_cast<size_t>(row)] < 4 || recorded.positions[start(row)].z != 0) ++row;
    const size_t first = start(row);
    const struct {
        const char* what;  // in the reason
        std::function<void(MatchStorage&, Parameters&)> change;
    } cases[] = {
        {"blocks", [&](MatchStorage& s, Parameters&) { s.counts[static_cast<size_t>(row)] = 3; }},
        {"blocks", [&](MatchStorage& s, Parameters&) { s.counts[static_cast<size_t>(row)] = 0; }},
        {"blocks", [&](MatchStorage&, Parameters& q) { q.maxGroupSize = 2; }},
        {"not a block position", [&](MatchStorage& s, Parameters&) { s.positions[first + 1].x = size.x - 3; }},
        {"not a block position", [&](MatchStorage& s, Parameters&) { s.positions[first + 1].y = -1; }},
        {"search window", [&](MatchStorage& s, Parameters&) { s.positions[first + 1].z = 10; }},
        {"relative position", [&](MatchStorage& s, Parameters&) { s.relative[first].x += 1; }},
        {"entriesPerReference", [&](MatchStorage& s, Parameters&) { s.record.entriesPerReference = 0; }},
        {"reports", [&](MatchStorage& s, Parameters&) { s.record.rows = static_cast<int>(rows) + 1; }},
        {"counts", [&](MatchStorage& s, Parameters&) { s.record.counts = nullptr; }},
    };
    for (const auto& c : cases) {
        MatchStorage copy = recorded;
        Parameters q = p;
        c.change(copy, q);
        char message[256] = "";
        EXPECT_EQ(korvoCheckMatchStorage(&q, &copy.record, message, sizeof message), 1) << c.what;
        EXPECT_NE(std::string(message).find(c.what), std::string::npos) << c.what << ": " << message;
    }
}

TEST(CollectionBytes, WholeBandsOnceSplitBandsPerWorker) {
    Parameters p = defaults({30, 26, 22});
    p.numThreads = 3;
    const long long block = 64 * 4;
    EXPECT_EQ(korvoCollectionBytes(&p, 0), 27LL * 23 * 19 * block);
    // The Wiener stage keeps the pilot's blocks only.
    EXPECT_EQ(korvoCollectionBytes(&p, 1), 27LL * 23 * 19 * block);
    p.splitBlockExtraction[2] = true;  // band of 2 * 5 + 3 positions along z
    EXPECT_EQ(korvoCollectionBytes(&p, 0), 3 * 27LL * 23 * 13 * block);
    p.searchWindow.z = 12;  // the band covers the image: whole again
    EXPECT_EQ(korvoCollectionBytes(&p, 1), 27LL * 23 * 19 * block);
    p.blockSize.x = 0;
    EXPECT_EQ(korvoCollectionBytes(&p, 0), 0);
    EXPECT_EQ(korvoMatchStorageRows(&p), 0);
}

class StageStatus : public testing::Test {
protected:
    const korvo_phantom::Scene scene = korvo_phantom::whiteNoiseScene(16, 16, 12, 0.1f, 2);
    Parameters p = defaults({16, 16, 12});
};

TEST_F(StageStatus, ThreadStartFailureLeavesThePoolReusable) {
    p.numThreads = 4;
    std::vector<float> reference, failed, again;
    ASSERT_EQ(runHT(scene.noisy, p, reference), kCompleted);
    for (int worker : {1, 3, 2}) {  // the last through the exported entry point, which returns
        korvo_detail::failThreadStartAt(worker);
        testing::internal::CaptureStderr();
        if (worker == 2) entryPointHT(scene.noisy, p, 0.01f);
        else EXPECT_EQ(runHT(scene.noisy, p, failed), korvo_detail::StageStatus::ThreadStartFailed);
        EXPECT_NE(testing::internal::GetCapturedStderr().find("Could not start 4 threads"), std::string::npos);
        ASSERT_EQ(runHT(scene.noisy, p, again), kCompleted);
        EXPECT_EQ(again, reference);
    }
}

TEST_F(StageStatus, CancelAndMemoryFailuresAreToldApart) {
    std::vector<float> out;
    korvo_detail::StageMonitor monitor;
    monitor.cancel.store(true);
    korvo_detail::setStageMonitor(&monitor);
    EXPECT_EQ(runHT(scene.noisy, p, out), korvo_detail::StageStatus::Cancelled);
    korvo_detail::setStageMonitor(nullptr);

    // A band of a gigavoxel volume needs far more memory than exists; nothing is read before
    // the allocation fails, so small buffers stand in for the volume.
    Parameters huge = defaults({1024, 1024, 1024});
    const std::vector<float> tiny(16, 0.0f);
    testing::internal::CaptureStderr();
    EXPECT_EQ(runHT(tiny, huge, out), korvo_detail::StageStatus::OutOfMemory);
    testing::internal::GetCapturedStderr();
    // The exported entry point reports on stderr and returns, its output untouched.
    testing::internal::CaptureStderr();
    EXPECT_EQ(entryPointHT(tiny, huge, 0.01f), tiny);
    const std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("Failed to allocate"), std::string::npos) << err;
}

// The distance-correction table is built from pairs of blocks, also when a
// stage's groups hold one block (its working memory once had room for one).
TEST_F(StageStatus, GroupsOfOneBlockRunWithNoiseCorrection) {
    p.maxGroupSize = 1;
    ASSERT_TRUE(refusal(p).empty() && p.matchVarianceWeight > 0.0f);
    std::vector<float> out;
    ASSERT_EQ(runHT(scene.noisy, p, out), kCompleted);
    for (float v : out) ASSERT_TRUE(std::isfinite(v));
}
