// Services around the stage entry points: the package defaults, checks of a
// record and of a filled match storage, and the sizes a host allocates for them.
#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <vector>

#include "BlockCollection.h"
#include "KORVO.h"
#include "korvo/korvo.h"
#include "noise/covariance.h"

namespace {
constexpr int kMaxGroup = 64;
// The noise model's normaliser is the square of the work grid's point count,
// formed in 32 bits.
constexpr long long kMaxWorkPoints = 46340;
constexpr long long kIntMax = INT_MAX;

const char* const kAxis[3] = {"x", "y", "z"};

long long product(const Vec3<int>& v) { return static_cast<long long>(v.x) * v.y * v.z; }
bool isPowerOfTwo(long long n) { return n > 0 && (n & (n - 1)) == 0; }
bool isFftLength(int n) { return n == 1 || n == 4 || n == 8 || n == 16 || n == 32 || n == 64; }

// Copies the reason into the caller's buffer; always 1, the refusing result.
class Reason {
public:
    Reason(char* message, int capacity) : _message(message), _capacity(capacity) {}
    __attribute__((format(printf, 2, 3))) int operator()(const char* format, ...) const {
        if (_message != nullptr && _capacity > 0) {
            va_list args;
            va_start(args, format);
            std::vsnprintf(_message, static_cast<size_t>(_capacity), format, args);
            va_end(args);
        }
        return 1;
    }

private:
    char* _message;
    int _capacity;
};

#define KORVO_V3 "(%d, %d, %d)"
#define KORVO_V3_ARGS(v) (v).x, (v).y, (v).z

int checkVectors(const Parameters& p, const Reason& refuse) {
    const Vec3<int>& image = p.imageSize;
    const Vec3<int>& block = p.blockSize;
    if (!(image > 0)) return refuse("imageSize " KORVO_V3 " must be at least 1 on every axis", KORVO_V3_ARGS(image));
    if (product(image) > kIntMax) {
        return refuse("imageSize " KORVO_V3 " holds %lld voxels, more than 2^31 - 1", KORVO_V3_ARGS(image),
                      product(image));
    }
    if (!(block > 0)) return refuse("blockSize " KORVO_V3 " must be at least 1 on every axis", KORVO_V3_ARGS(block));
    if (!(p.step > 0)) return refuse("step " KORVO_V3 " must be at least 1 on every axis", KORVO_V3_ARGS(p.step));
    long long references = 1;
    for (int a = 0; a < 3; ++a) {
        const int e = component(image, a), b = component(block, a), s = component(p.step, a);
        if (b > e) {
            return refuse("blockSize " KORVO_V3 " is larger than imageSize " KORVO_V3 " along %s",
                          KORVO_V3_ARGS(block), KORVO_V3_ARGS(image), kAxis[a]);
        }
        // Positions 0, s, 2s, ... leave the voxels between blocks uncovered (0/0).
        if (s > b && e > b) {
            return refuse("step " KORVO_V3 " is larger than blockSize " KORVO_V3
                          " along %s, so voxels between blocks would stay uncovered",
                          KORVO_V3_ARGS(p.step), KORVO_V3_ARGS(block), kAxis[a]);
        }
        const long long span = static_cast<long long>(e) + 2LL * s - 1;
        if (span > kIntMax) {
            return refuse("step " KORVO_V3 " is too large for imageSize " KORVO_V3, KORVO_V3_ARGS(p.step),
                          KORVO_V3_ARGS(image));
        }
        // A single plane enumerates no positions along z.
        if (a < 2 || image.z > 1) references *= span / s;
    }
    if (references > kIntMax) {
        return refuse("step " KORVO_V3 " gives %lld reference positions, more than 2^31 - 1",
                      KORVO_V3_ARGS(p.step), references);
    }
    const Vec3<int>& work = p.psdWorkSize;
    for (int a = 0; a < 3; ++a) {
        if (!isFftLength(component(work, a))) {
            return refuse("psdWorkSize " KORVO_V3 " must be 1, 4, 8, 16, 32 or 64 on every axis",
                          KORVO_V3_ARGS(work));
        }
        if (component(work, a) < component(block, a)) {
            return refuse("psdWorkSize " KORVO_V3 " is smaller than blockSize " KORVO_V3 " along %s",
                          KORVO_V3_ARGS(work), KORVO_V3_ARGS(block), kAxis[a]);
        }
    }
    if (product(work) > kMaxWorkPoints) {
        return refuse("psdWorkSize " KORVO_V3 " has %lld points, more than %lld", KORVO_V3_ARGS(work),
                      product(work), kMaxWorkPoints);
    }
    if (!(p.psdSize > 0) || product(p.psdSize) > kIntMax) {
        return refuse("psdSize " KORVO_V3 " must be at least 1 on every axis and hold at most 2^31 - 1 values",
                      KORVO_V3_ARGS(p.psdSize));
    }
    const Vec3<int>& w = p.searchWindow;
    if (w.x < 0 || w.y < 0 || w.z < 0) {
        return refuse("searchWindow " KORVO_V3 " must not be negative", KORVO_V3_ARGS(w));
    }
    if ((2LL * w.x + 1) * (2LL * w.y + 1) * (2LL * w.z + 1) > kIntMax) {
        return refuse("searchWindow " KORVO_V3 " holds more than 2^31 - 1 positions", KORVO_V3_ARGS(w));
    }
    return 0;
}

int checkNumbers(const Parameters& p, const Reason& refuse) {
    if (!isPowerOfTwo(p.maxGroupSize) || p.maxGroupSize > kMaxGroup) {
        return refuse("maxGroupSize must be a power of two from 1 to %d, got %d", kMaxGroup, p.maxGroupSize);
    }
    if (p.varianceGroupLimit < 0 || p.varianceGroupLimit > kMaxGroup) {
        return refuse("varianceGroupLimit must be from 0 to %d, got %d", kMaxGroup, p.varianceGroupLimit);
    }
    // Groups at or below minReduceCount are kept as found; only 1 and 2 guarantee
    // that every group size is a power of two, which the group transforms need.
    if (p.minReduceCount < 1 || p.minReduceCount > 2) {
        return refuse("minReduceCount must be 1 or 2, got %d (other values leave groups whose size is not a "
                      "power of two)",
                      p.minReduceCount);
    }
    const struct {
        const char* name;
        float value;
        bool positive;
    } factors[] = {{"thresholdFactor", p.thresholdFactor, false},
                   {"wienerFactor", p.wienerFactor, true},
                   {"matchVarianceWeight", p.matchVarianceWeight, false},
                   {"matchThreshold", p.matchThreshold, false}};
    for (const auto& f : factors) {
        const bool inRange = f.positive ? f.value > 0.0f : f.value >= 0.0f;
        if (!std::isfinite(f.value) || !inRange) {
            return refuse("%s must be finite and %s, got %g", f.name, f.positive ? "positive" : "at least 0",
                          static_cast<double>(f.value));
        }
    }
    if (p.sharpen) {
        for (float e : {p.sharpenExponent, p.sharpenExponentFlat}) {
            if (!(e > 0.0f && e <= 4.0f)) {
                return refuse("sharpenExponent and sharpenExponentFlat must lie in (0, 4] when sharpen is set, "
                              "got %g and %g",
                              static_cast<double>(p.sharpenExponent), static_cast<double>(p.sharpenExponentFlat));
            }
        }
    }
    if (p.numThreads < 1 && korvo_detail::poolThreadCount(p.numThreads) < 1) {
        return refuse("numThreads %d asks for every core, but the system reports no core count", p.numThreads);
    }
    return 0;
}

// An array offsets the axis it names by its values; every offset grid
// coordinate must convert to int.
int checkAxisArrays(const Parameters& p, const Reason& refuse) {
    const int lengths[3] = {p.axisArrayLength.x, p.axisArrayLength.y, p.axisArrayLength.z};
    const float* arrays[3] = {p.axisArrays.x, p.axisArrays.y, p.axisArrays.z};
    for (int a = 0; a < 3; ++a) {
        if (lengths[a] < 2) continue;
        if (arrays[a] == nullptr) {
            return refuse("axisArrays.%s is null but axisArrayLength.%s is %d", kAxis[a], kAxis[a], lengths[a]);
        }
        const double limit = kIntMax - (component(p.imageSize, a) + 2.0 * component(p.step, a));
        for (int i = 0; i < lengths[a]; ++i) {
            if (!(std::fabs(static_cast<double>(arrays[a][i])) < limit)) {
                return refuse("axisArrays.%s[%d] = %g is not a finite offset below %.0f", kAxis[a], i,
                              static_cast<double>(arrays[a][i]), limit);
            }
        }
    }
    return 0;
}

// Without offsets a step no larger than the block covers every voxel; offsets
// can shift whole rows of references away, leaving voxels that no reference
// block covers and that the final division turns into 0/0.
int checkCoverage(const Parameters& record, const Reason& refuse) {
    const Vec3<int>& n = record.axisArrayLength;
    if (n.x < 2 && n.y < 2 && n.z < 2) return 0;
    Parameters p = record;
    korvo_detail::normaliseAxisArrays(p);
    const Vec3<int>& size = p.imageSize;
    const Vec3<int>& b = p.blockSize;
    std::vector<bool> covered(static_cast<size_t>(product(size)), false);
    const korvo_detail::ReferenceGrid grid(p);
    korvo_detail::forEachReference(p, grid, [&](int, const Vec3<int>& r) {
        for (int z = r.z; z < r.z + b.z; ++z) {
            for (int y = r.y; y < r.y + b.y; ++y) {
                const size_t row = static_cast<size_t>(size.x) * (y + static_cast<size_t>(size.y) * z);
                std::fill_n(covered.begin() + static_cast<long>(row + r.x), b.x, true);
            }
        }
        return true;
    });
    for (size_t v = 0; v < covered.size(); ++v) {
        if (covered[v]) continue;
        const long long x = static_cast<long long>(v % size.x), yz = static_cast<long long>(v / size.x);
        return refuse("the per-axis offsets (axisArrays) leave voxel (%lld, %lld, %lld) uncovered by any "
                      "reference block",
                      x, yz % size.y, yz / size.y);
    }
    return 0;
}

int checkRecord(const Parameters* p, int stage, const Reason& refuse) {
    if (p == nullptr) return refuse("no parameter record was given");
    if (stage != HardThresholding && stage != Wiener) {
        return refuse("stage must be 0 (hard thresholding) or 1 (Wiener), got %d", stage);
    }
    if (checkVectors(*p, refuse) != 0 || checkNumbers(*p, refuse) != 0) return 1;
    if (checkAxisArrays(*p, refuse) != 0) return 1;
    return checkCoverage(*p, refuse);
}

// The largest row index the stage loop can write, plus one: the last grid point
// in enumeration order that is not skipped. Only a few slices are looked at
// unless offsets skip many points.
long long writtenRows(const Parameters& normalised) {
    const korvo_detail::ReferenceGrid grid(normalised);
    for (int k = grid.slices() - 1; k >= 0; --k) {
        for (int j = grid.rowsPerSlice() - 1; j >= 0; --j) {
            for (int i = grid.counts.x - 1; i >= 0; --i) {
                Vec3<int> position;
                if (korvo_detail::referencePosition(normalised, grid, grid.raw(normalised.step, k, j, i),
                                                    position)) {
                    return static_cast<long long>(grid.index(k, j, i)) + 1;
                }
            }
        }
    }
    return 0;
}

// One stored group against what replaying it reads.
int checkGroup(const Parameters& p, const BlockMatchStorage& s, long long row, const Vec3<int>& reference,
               const Reason& refuse) {
    const int n = s.counts[row];
    if (!isPowerOfTwo(n) || n > std::min(s.entriesPerReference, p.maxGroupSize)) {
        return refuse("row %lld (reference at " KORVO_V3 ") holds %d blocks: expected a power of two from 1 "
                      "to %d",
                      row, KORVO_V3_ARGS(reference), n, std::min(s.entriesPerReference, p.maxGroupSize));
    }
    const Vec3<int> last = p.imageSize - p.blockSize;
    const korvo_detail::CollectionBands bands = korvo_detail::collectionBands(p);
    const long long first = row * s.entriesPerReference;
    Vec3<int> corner = s.positions[first];
    for (int k = 0; k < n; ++k) {
        const Vec3<int>& q = s.positions[first + k];
        for (int a = 0; a < 3; ++a) {
            const int c = component(q, a), r = component(reference, a), w = component(p.searchWindow, a);
            if (c < 0 || c > component(last, a)) {
                return refuse("row %lld, block %d: position " KORVO_V3 " is not a block position of the image",
                              row, k, KORVO_V3_ARGS(q));
            }
            // A split band holds only the search window around the reference.
            if (!bands.whole && p.splitBlockExtraction[a] && (c < r - w || c > r + w)) {
                return refuse("row %lld, block %d: position " KORVO_V3 " lies outside the search window "
                              "around the reference " KORVO_V3 " along %s, which a split band does not hold",
                              row, k, KORVO_V3_ARGS(q), KORVO_V3_ARGS(reference), kAxis[a]);
            }
        }
        corner = {std::min(corner.x, q.x), std::min(corner.y, q.y), std::min(corner.z, q.z)};
    }
    for (int k = 0; k < n; ++k) {
        const Vec3<int> expected = s.positions[first + k] - corner;
        if (s.relativePositions[first + k] != expected) {
            return refuse("row %lld, block %d: relative position " KORVO_V3 " should be " KORVO_V3
                          " (position minus the group's smallest corner)",
                          row, k, KORVO_V3_ARGS(s.relativePositions[first + k]), KORVO_V3_ARGS(expected));
        }
    }
    return 0;
}
}  // namespace

void korvoFitSearchWindow(Parameters* params) {
    if (params == nullptr) return;
    auto serve = [](int w, int extent, int block) { return std::min(w, std::max(extent - block, 0)); };
    const Vec3<int>& n = params->imageSize;
    const Vec3<int>& b = params->blockSize;
    Vec3<int>& w = params->searchWindow;
    w = {serve(w.x, n.x, b.x), serve(w.y, n.y, b.y), serve(w.z, n.z, b.z)};
}

void korvoDefaultParameters(Parameters* params, int stage, Vec3<int> imageSize, float sigma) {
    if (params == nullptr) return;
    const bool plane = imageSize.z == 1;
    Parameters p{};
    p.blockSize = plane ? Vec3<int>{8, 8, 1} : Vec3<int>{4, 4, 4};
    p.psdWorkSize = p.blockSize.z == 1 ? Vec3<int>{32, 32, 1} : Vec3<int>{16, 16, 16};
    p.useRealFft = true;
    p.maxGroupSize = stage == Wiener ? 32 : 16;
    p.varianceGroupLimit = 1;
    p.thresholdFactor = 2.7f * 2.7f;
    p.wienerFactor = 0.75f;
    p.matchVarianceWeight = 1.0f;
    p.searchWindow = plane ? Vec3<int>{11, 11, 0} : Vec3<int>{5, 5, 5};
    p.imageSize = imageSize;
    korvoFitSearchWindow(&p);
    p.psdSize = {1, 1, 1};
    p.step = {3, 3, p.blockSize.z == 1 ? 1 : 3};
    p.minReduceCount = 1;
    // Mean squared difference per voxel in units of the noise variance.
    const float perVoxel = stage == Wiener ? 3.0f : 9.0f;
    p.matchThreshold = perVoxel * static_cast<float>(p.blockSize.volume()) * sigma * sigma;
    p.axisArrayLength = {0, 0, 0};
    p.axisArrays = {nullptr, nullptr, nullptr};
    p.sharpen = false;
    p.sharpenVariances = false;
    p.sharpenExponent = 0.8f;
    p.sharpenExponentFlat = 0.8f;
    p.numThreads = 0;
    *params = p;
}

int korvoCheckParameters(const Parameters* params, int stage, char* message, int capacity) {
    const Reason refuse(message, capacity);
    if (checkRecord(params, stage, refuse) != 0) return 1;
    if (message != nullptr && capacity > 0) message[0] = '\0';
    return 0;
}

int korvoCheckMatchStorage(const Parameters* params, const BlockMatchStorage* storage, char* message,
                           int capacity) {
    const Reason refuse(message, capacity);
    if (checkRecord(params, HardThresholding, refuse) != 0) return 1;
    if (storage == nullptr) return refuse("no match storage was given");
    if (storage->counts == nullptr || storage->positions == nullptr || storage->relativePositions == nullptr) {
        return refuse("the match storage lacks its counts, positions or relative positions");
    }
    if (storage->entriesPerReference < 1) {
        return refuse("entriesPerReference must be at least 1, got %d", storage->entriesPerReference);
    }
    Parameters p = *params;
    korvo_detail::normaliseAxisArrays(p);
    const long long rows = korvoMatchStorageRows(params);
    if (storage->rows < 0 || storage->rows > rows) {
        return refuse("the match storage reports %d rows; this record has %lld", storage->rows, rows);
    }
    // Every row the stage reads, in its order.
    const korvo_detail::ReferenceGrid grid(p);
    const bool valid = korvo_detail::forEachReference(p, grid, [&](int row, const Vec3<int>& reference) {
        return checkGroup(p, *storage, row, reference, refuse) == 0;
    });
    if (!valid) return 1;
    if (message != nullptr && capacity > 0) message[0] = '\0';
    return 0;
}

long korvoMatchStorageRows(const Parameters* params) {
    if (checkRecord(params, HardThresholding, Reason(nullptr, 0)) != 0) return 0;
    Parameters p = *params;
    korvo_detail::normaliseAxisArrays(p);
    return static_cast<long>(std::max(korvo_detail::reportedStorageRows(p), writtenRows(p)));
}

long long korvoCollectionBytes(const Parameters* params, int stage) {
    if (checkRecord(params, stage, Reason(nullptr, 0)) != 0) return 0;
    const korvo_detail::CollectionBands bands = korvo_detail::collectionBands(*params);
    const long long perCollection =
        BlockCollection<float>::bandBlockCount(params->imageSize, params->blockSize, bands.halfExtent) *
        params->blockSize.volume() * static_cast<long long>(sizeof(float));
    Parameters p = *params;
    korvo_detail::normaliseAxisArrays(p);
    // Split bands: one set per worker that gets slices.
    const long long copies =
        bands.whole ? 1 : korvo_detail::planSlices(p, korvo_detail::poolThreadCount(p.numThreads)).busy;
    // One collection: the noisy volume's blocks, or the pilot's in the Wiener stage.
    return perCollection * copies;
}

long long korvoWorkingBytes(const Parameters* params, int stage) {
    if (checkRecord(params, stage, Reason(nullptr, 0)) != 0) return 0;
    Parameters p = *params;
    korvo_detail::normaliseAxisArrays(p);
    const long long f = sizeof(float);
    const long long block = p.blockSize.volume();
    const long long group = p.maxGroupSize;
    const Vec3<int>& sw = p.searchWindow;
    const long long window = (2LL * sw.x + 1) * (2LL * sw.y + 1) * (2LL * sw.z + 1);
    // The weights (the whole image's, or each worker's ring and the planes held
    // for the merge), the noise covariance table, the distance table and the
    // per-coefficient variances.
    const korvo_detail::ReferenceGrid grid(p);
    const korvo_detail::SlicePlan plan =
        korvo_detail::planSlices(p, korvo_detail::poolThreadCount(p.numThreads));
    const korvo_detail::WeightPlan weights = korvo_detail::planWeights(p, grid, plan);
    const long long extent = grid.sliceAxis == 2 ? p.imageSize.z : p.imageSize.y;
    const long long ringPlanes = static_cast<long long>(weights.ringPlanes) * plan.busy;
    const long long weightPlanes =
        weights.ringPlanes == 0 ? extent : ringPlanes + std::max(weights.heldCount, 1);
    const CovarianceTable covariance{p.psdWorkSize, p.psdWorkSize, static_cast<int>(block)};
    long long bytes = product(p.imageSize) / extent * weightPlanes * f + covariance.rows() * block * f +
                      window * f + block * f;
    // Per worker: the group's four cubes, its match records, the block scratch.
    bytes += plan.busy * ((4 * block * group + group + 3 * block) * f +
                          group * static_cast<long long>(sizeof(BlockDistance<float>)));
    // Planes two workers both write, kept apart until they are merged.
    const long long plane = grid.sliceAxis == 2 ? static_cast<long long>(p.imageSize.x) * p.imageSize.y
                                                : p.imageSize.x;
    for (int count : plan.slabCount) bytes += count * plane * 2 * f;
    // Matches recorded ahead for the busiest worker: a few rows of records, and
    // a claim flag per row of its slices.
    if (plan.busy >= 2) {
        const long long records = static_cast<long long>(korvo_detail::kHandoffRows) * grid.counts.x;
        bytes += records * (static_cast<long long>(sizeof(std::int32_t)) + group * 2 * static_cast<long long>(sizeof(Vec3<int>))) +
                 static_cast<long long>(plan.perWorker) * grid.rowsPerSlice() * static_cast<long long>(sizeof(int));
    }
    return bytes;
}
