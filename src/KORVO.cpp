#include "KORVO.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <system_error>
#include <thread>

#include "BlockCollection.h"
#include "korvo/Threading.h"
#include "korvo/matching.h"
#include "noise/covariance.h"
#include "noise/psd.h"
#include "noise/variances.h"
#include "process_reference_location.h"
#include "transforms/tables.h"

const char* MissingTransformException::what() const noexcept {
    return "No transform was passed, and no internal transform could be found to replace it!";
}

namespace korvo_detail {
namespace {
std::atomic<StageMonitor*> activeMonitor{nullptr};
}
void setStageMonitor(StageMonitor* monitor) { activeMonitor.store(monitor); }
StageMonitor* stageMonitor() { return activeMonitor.load(); }

void normaliseAxisArrays(Parameters& params) {
    int* lengths[3] = {&params.axisArrayLength.x, &params.axisArrayLength.y, &params.axisArrayLength.z};
    const float** arrays[3] = {&params.axisArrays.x, &params.axisArrays.y, &params.axisArrays.z};
    for (int a = 0; a < 3; ++a) {
        if (*lengths[a] < 2) {
            *lengths[a] = 1;
            *arrays[a] = ZERO;
        }
    }
}

int poolThreadCount(int requested) {
    return requested >= 1 ? requested : static_cast<int>(std::thread::hardware_concurrency());
}

ReferenceGrid::ReferenceGrid(const Parameters& p) {
    last = {std::max(p.imageSize.x - p.blockSize.x, 0), std::max(p.imageSize.y - p.blockSize.y, 0),
            std::max(p.imageSize.z - p.blockSize.z, 0)};
    auto ceilCount = [](int extent, int step) { return (extent + step + step - 1) / step; };
    counts = {ceilCount(p.imageSize.x, p.step.x), ceilCount(p.imageSize.y, p.step.y),
              ceilCount(p.imageSize.z, p.step.z)};
    sliceAxis = p.imageSize.z >= 2 ? 2 : 1;
}

int ReferenceGrid::slices() const { return sliceAxis == 2 ? counts.z : counts.y; }
int ReferenceGrid::perSlice() const { return sliceAxis == 2 ? counts.x * counts.y : counts.x; }

Vec3<int> ReferenceGrid::raw(const Vec3<int>& step, int k, int j, int i) const {
    if (sliceAxis == 2) return {i * step.x, j * step.y, k * step.z};
    return {i * step.x, k * step.y, 0};
}

// Offsets from the per-axis arrays, each indexed by the step index of another
// axis; then the skip test and the clamp that makes the last position visited.
bool referencePosition(const Parameters& p, const ReferenceGrid& grid, const Vec3<int>& raw,
                       Vec3<int>& position) {
    const Vec3<int>& s = p.step;
    const Vec3<int>& n = p.axisArrayLength;
    const Vec3<const float*>& a = p.axisArrays;
    int x = static_cast<int>(static_cast<float>(raw.x) - a.x[(raw.z / s.z) % n.x]);
    int y = static_cast<int>(static_cast<float>(raw.y) - a.y[(raw.x / s.x) % n.y]);
    int z = static_cast<int>(static_cast<float>(raw.z) - a.z[(raw.y / s.y) % n.z]);
    x = std::max(x, 0);
    y = std::max(y, 0);
    z = std::max(z, 0);
    if (x >= grid.last.x + s.x || y >= grid.last.y + s.y || z >= grid.last.z + s.z) return false;
    position = {std::min(x, grid.last.x), std::min(y, grid.last.y), std::min(z, grid.last.z)};
    return true;
}

long long reportedStorageRows(const Parameters& params) {
    const ReferenceGrid grid(params);
    const int axis = grid.sliceAxis;
    const long long extent = axis == 2 ? params.imageSize.z : params.imageSize.y;
    const long long step = axis == 2 ? params.step.z : params.step.y;
    return (extent / step + 1) * grid.perSlice();
}

// A split axis keeps the search window plus a margin, a whole axis keeps the image.
CollectionBands collectionBands(const Parameters& params) {
    const Vec3<int>& sw = params.searchWindow;
    const Vec3<int>& size = params.imageSize;
    const Vec3<int> band{params.splitBlockExtraction[0] ? sw.x : size.x,
                         params.splitBlockExtraction[1] ? sw.y : size.y,
                         params.splitBlockExtraction[2] ? sw.z : size.z};
    const bool whole = 2LL * band.x + 1 >= size.x && 2LL * band.y + 1 >= size.y &&
                       2LL * band.z + 1 >= size.z;
    return {band, whole};
}

namespace {
struct PlaneRange {
    int first = 1;
    int last = 0;  // empty while last < first
    bool empty() const { return last < first; }
    void add(int a, int b) {
        if (empty()) {
            first = a;
            last = b;
        } else {
            first = std::min(first, a);
            last = std::max(last, b);
        }
    }
};

// Planes along the slice axis that the groups of slice k can reach: every
// reference position the axis array's offsets can give, widened by the search
// window and the block.
PlaneRange slicePlanes(const Parameters& p, const ReferenceGrid& grid, int k) {
    const bool alongZ = grid.sliceAxis == 2;
    const int step = alongZ ? p.step.z : p.step.y;
    const int last = alongZ ? grid.last.z : grid.last.y;
    const int window = alongZ ? p.searchWindow.z : p.searchWindow.y;
    const int block = alongZ ? p.blockSize.z : p.blockSize.y;
    const int offsets = alongZ ? p.axisArrayLength.z : p.axisArrayLength.y;
    const float* offset = alongZ ? p.axisArrays.z : p.axisArrays.y;
    PlaneRange range;
    for (int v = 0; v < offsets; ++v) {
        // As referencePosition computes it.
        const int position = std::max(static_cast<int>(static_cast<float>(k * step) - offset[v]), 0);
        if (position >= last + step) continue;
        const int r = std::min(position, last);
        range.add(std::max(r - window, 0), std::min(r + window, last) + block - 1);
    }
    return range;
}

PlaneRange intersect(const PlaneRange& a, const PlaneRange& b) {
    PlaneRange r;
    r.first = std::max(a.first, b.first);
    r.last = std::min(a.last, b.last);
    return r;
}

// The planes worker t's slices reach: slice by slice, all of them, and from
// each slice on the lowest plane that slice or a later one reaches.
struct WorkerReach {
    int firstSlice = 0;
    std::vector<PlaneRange> slice;
    std::vector<int> lowest;  // the image's extent where no later slice reaches any plane
    PlaneRange hull;

    WorkerReach(const Parameters& p, const ReferenceGrid& grid, const SlicePlan& plan, int t, int extent) {
        firstSlice = t * plan.perWorker;
        const int end = std::min(firstSlice + plan.perWorker, grid.slices());
        for (int k = firstSlice; k < end; ++k) slice.push_back(slicePlanes(p, grid, k));
        lowest.assign(slice.size() + 1, extent);
        for (size_t i = slice.size(); i-- > 0;) {
            lowest[i] = slice[i].empty() ? lowest[i + 1] : std::min(lowest[i + 1], slice[i].first);
            if (!slice[i].empty()) hull.add(slice[i].first, slice[i].last);
        }
    }
    // Planes live at once: from the lowest a slice from k on reaches to the highest
    // one up to k reached.
    int width() const {
        int widest = 0, highest = -1;
        for (size_t i = 0; i < slice.size(); ++i) {
            if (!slice[i].empty()) highest = std::max(highest, slice[i].last);
            if (highest >= 0) widest = std::max(widest, highest - lowest[i] + 1);
        }
        return widest;
    }
};
}  // namespace

SlicePlan planSlices(const Parameters& params, int threads) {
    const ReferenceGrid grid(params);
    const int slices = grid.slices();
    const int extent = grid.sliceAxis == 2 ? params.imageSize.z : params.imageSize.y;
    std::vector<PlaneRange> reach(static_cast<size_t>(slices));
    for (int k = 0; k < slices; ++k) reach[static_cast<size_t>(k)] = slicePlanes(params, grid, k);
    for (int workers = std::max(threads, 1);; --workers) {
        SlicePlan plan;
        plan.workers = workers;
        plan.perWorker = static_cast<int>(std::ceil(static_cast<float>(slices) / static_cast<float>(workers)));
        plan.busy = std::min(workers, (slices + plan.perWorker - 1) / std::max(plan.perWorker, 1));
        std::vector<PlaneRange> ranges(static_cast<size_t>(workers));
        long long held = 0;
        for (int t = 0; t < workers; ++t) {
            PlaneRange& own = ranges[static_cast<size_t>(t)];
            for (int k = t * plan.perWorker; k < std::min((t + 1) * plan.perWorker, slices); ++k) {
                const PlaneRange& r = reach[static_cast<size_t>(k)];
                if (!r.empty()) own.add(r.first, r.last);
            }
            PlaneRange shared;
            for (int u = 0; u < t; ++u) {
                const PlaneRange both = intersect(own, ranges[static_cast<size_t>(u)]);
                if (!both.empty()) shared.add(both.first, both.last);
            }
            plan.slabFirst.push_back(shared.empty() ? 0 : shared.first);
            plan.slabCount.push_back(shared.empty() ? 0 : shared.last - shared.first + 1);
            held += plan.slabCount.back();
        }
        if (workers == 1 || held <= extent) return plan;
    }
}

WeightPlan planWeights(const Parameters& params, const ReferenceGrid& grid, const SlicePlan& plan) {
    WeightPlan weights;
    const int axis = grid.sliceAxis;
    if (collectionBands(params).whole || !params.splitBlockExtraction[axis]) return weights;
    const int extent = axis == 2 ? params.imageSize.z : params.imageSize.y;
    weights.held.assign(static_cast<size_t>(extent), -1);
    for (size_t t = 0; t < plan.slabCount.size(); ++t) {
        for (int q = plan.slabFirst[t]; q < plan.slabFirst[t] + plan.slabCount[t]; ++q) {
            int& index = weights.held[static_cast<size_t>(q)];
            if (index < 0) index = weights.heldCount++;
        }
    }
    int ring = 1;
    for (int t = 0; t < plan.busy; ++t) {
        ring = std::max(ring, WorkerReach(params, grid, plan, t, extent).width());
    }
    // Worth it only where the rings and held planes are fewer than the image's.
    if (static_cast<long long>(ring) * plan.busy + weights.heldCount >= extent) return WeightPlan{};
    weights.ringPlanes = ring;
    return weights;
}
}  // namespace korvo_detail

// Extract afresh, slide, or nothing, by which axes of the band are narrower than
// the image and how the reference moved.
template <StageName stage, typename T>
void moveCollections(const Vec3<int>& refPos, const Vec3<int>& step, const Vec3<int>& searchWindow,
                     const Vec3<int>& blockSize, const Vec3<T*>& transforms,
                     TempMemory<T>& memory, const ImageData<T>& image, const ImageData<T>* image2,
                     const Vec3<TransformsMetas::StandardTransform>& kinds,
                     BlockCollection<T>* collHTWie, BlockCollection<T>* coll2) {
    const Vec3<int>& size = image.size();
    const Vec3<int>& w = searchWindow;
    const bool narrowX = 2 * w.x + 1 < size.x;
    const bool narrowY = 2 * w.y + 1 < size.y;
    const bool narrowZ = 2 * w.z + 1 < size.z;
    const Vec3<const T*> forward{transforms.x, transforms.y, transforms.z};

    auto extract = [&] {
        collHTWie->extractInitial(image, refPos, blockSize, forward, kinds, false, memory,
                                  searchWindow);
        if (stage == Wiener) {
            coll2->extractInitial(*image2, refPos, blockSize, forward, kinds, false, memory,
                                  searchWindow);
        }
    };
    auto slide = [&](bool yCounts) {
        const bool moveY = yCounts && step.y != 0;
        if (!((step.x != 0 && narrowX) || moveY || step.z != 0)) {
            return;
        }
        // Near either border of a moving axis the band stays where it is.
        auto outside = [](int r, int radius, int extent) { return r <= radius + 1 || r > extent - radius; };
        if ((step.x != 0 && outside(refPos.x, w.x, size.x)) ||
            (moveY && outside(refPos.y, w.y, size.y)) ||
            (step.z != 0 && outside(refPos.z, w.z, size.z))) {
            return;
        }
        collHTWie->moveInImage(image, step, blockSize, forward, memory);
        if (stage == Wiener) {
            coll2->moveInImage(*image2, step, blockSize, forward, memory);
        }
    };

    if (narrowX) {
        if (step.y == 0 && collHTWie->getHasData()) {
            slide(false);
        } else {
            extract();
        }
    } else if (!narrowY && !narrowZ) {
        KORVO_ASSERT(collHTWie->getHasData());
    } else if (!narrowY) {
        if (collHTWie->getHasData()) {
            slide(false);
        } else {
            extract();
        }
    } else if (step.z == 0 && collHTWie->getHasData()) {
        slide(true);
    } else {
        extract();
    }
}

template void moveCollections<HardThresholding, float>(
    const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<float*>&,
    TempMemory<float>&, const ImageData<float>&, const ImageData<float>*,
    const Vec3<TransformsMetas::StandardTransform>&, BlockCollection<float>*, BlockCollection<float>*);
template void moveCollections<Wiener, float>(
    const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<float*>&,
    TempMemory<float>&, const ImageData<float>&, const ImageData<float>*,
    const Vec3<TransformsMetas::StandardTransform>&, BlockCollection<float>*, BlockCollection<float>*);

namespace {
void report(const char* message) {
    std::fprintf(stderr, "%s\n", message);
    std::fflush(stderr);
}

template <typename T>
struct ThreadMemory {
    Memory<T> memory;
    TempMemory<T> tempMemory;
    // The blocks matched on: the noisy volume's in the first stage, the pilot's in
    // the Wiener stage (which transforms its group's noisy blocks as it needs them).
    // Declared last, so released before the two memories.
    std::shared_ptr<BlockCollection<T>> collection;

    explicit ThreadMemory(const Parameters& params, const Vec3<int>& varianceExtents)
        : memory(allocateMemory<T>(params)), tempMemory(createTempMemory<T>(params)) {
        memory.varianceExtents = varianceExtents;
    }
};

// Everything the stage loop allocates for one call, released on every way out.
template <typename T>
struct StageResources {
    const TransformsMeta<T>& meta;
    float* distanceCorrection = nullptr;
    float* kernel = nullptr;
    float* localVariance = nullptr;
    float* covariance = nullptr;

    explicit StageResources(const TransformsMeta<T>& m) : meta(m) {}
    ~StageResources() {
        std::free(distanceCorrection);
        std::free(kernel);
        std::free(localVariance);
        std::free(covariance);
        std::free(meta.groupForwardKinds);
        std::free(meta.groupInverseKinds);
        ThreadPool::THREAD_POOL.clearPool();
    }
};

// A worker's slab: numerator and weights of the planes it shares with
// lower-numbered workers, zeroed, allocated once per stage.
template <typename T>
struct SlabBuffers {
    T* numerator = nullptr;
    float* weights = nullptr;
    int first = 0;
    int count = 0;
    long stride = 0;  // elements of one plane

    SlabBuffers() = default;
    SlabBuffers(const SlabBuffers&) = delete;
    SlabBuffers& operator=(const SlabBuffers&) = delete;
    ~SlabBuffers() {
        std::free(numerator);
        std::free(weights);
    }

    bool allocate(const Parameters& params, const korvo_detail::ReferenceGrid& grid,
                  const korvo_detail::SlicePlan& plan, int worker, AggregationSlab<T>& slab) {
        const size_t w = static_cast<size_t>(worker);
        const Vec3<int>& size = params.imageSize;
        slab.sliceAxis = grid.sliceAxis;
        slab.stride = grid.sliceAxis == 2 ? static_cast<long>(size.x) * size.y : size.x;
        if (plan.slabCount[w] == 0) return true;
        slab.first = first = plan.slabFirst[w];
        slab.count = count = plan.slabCount[w];
        stride = slab.stride;
        const long elements = count * stride;
        numerator = static_cast<T*>(std::calloc(static_cast<size_t>(elements), sizeof(T)));
        weights = static_cast<float*>(std::calloc(static_cast<size_t>(elements), sizeof(float)));
        slab.numerator = numerator;
        slab.weights = weights;
        return numerator != nullptr && weights != nullptr;
    }

    // weightsOf(q): where the accumulated weights of plane q are.
    template <typename WeightsOf>
    void mergeInto(T* output, WeightsOf weightsOf) const {
        if (numerator == nullptr || weights == nullptr) return;
        const long elements = count * stride;
        for (long i = 0; i < elements; ++i) output[first * stride + i] += numerator[i];
        for (int q = 0; q < count; ++q) {
            float* shared = weightsOf(first + q);
            const float* own = weights + q * stride;
            for (long i = 0; i < stride; ++i) shared[i] += own[i];
        }
    }
};

// A worker's ring of weight planes (korvo_detail::WeightPlan). A plane leaves
// once no later slice of the worker reaches it: divided out into the output
// where no slab holds it, else handed to the held planes for the merge.
template <typename T>
class WeightRing {
public:
    WeightRing(const Parameters& params, const korvo_detail::ReferenceGrid& grid,
               const korvo_detail::SlicePlan& plan, int worker, int extent)
        : reach_(params, grid, plan, worker, extent), next_(reach_.hull.first) {}
    WeightRing(const WeightRing&) = delete;
    WeightRing& operator=(const WeightRing&) = delete;
    ~WeightRing() { std::free(ring_); }

    bool allocate(int planes, AggregationSlab<T>& slab) {
        ring_ = static_cast<float*>(std::calloc(static_cast<size_t>(planes) * slab.stride, sizeof(float)));
        slab.ring = ring_;
        slab.ringPlanes = planes;
        return ring_ != nullptr;
    }
    // Before the worker's slice k (k == its end: after its last slice).
    void enter(int k, AggregationSlab<T>& slab, T* output, float* held, const std::vector<int>& heldIndex,
               std::vector<char>& divided) {
        const size_t i = static_cast<size_t>(k - reach_.firstSlice);
        const int lowest = reach_.lowest[i];
        for (; next_ < lowest && next_ <= reach_.hull.last; ++next_) {
            leave(next_, slab, output, held, heldIndex, divided);
        }
        slab.ringOrigin = lowest / slab.ringPlanes * slab.ringPlanes;
    }

private:
    void leave(int q, const AggregationSlab<T>& slab, T* output, float* held,
               const std::vector<int>& heldIndex, std::vector<char>& divided) {
        if (q >= slab.first && q < slab.first + slab.count) return;  // the slab's, merged later
        bool reached = false;
        for (const korvo_detail::PlaneRange& r : reach_.slice) {
            reached = reached || (!r.empty() && q >= r.first && q <= r.last);
        }
        if (!reached) return;  // another worker's
        float* w = ring_ + (q % slab.ringPlanes) * slab.stride;
        const int h = heldIndex[static_cast<size_t>(q)];
        if (h >= 0) {
            std::memcpy(held + h * slab.stride, w, static_cast<size_t>(slab.stride) * sizeof(float));
        } else {
            T* out = output + q * slab.stride;
            for (long v = 0; v < slab.stride; ++v) out[v] = out[v] / w[v];
            divided[static_cast<size_t>(q)] = 1;
        }
        std::memset(w, 0, static_cast<size_t>(slab.stride) * sizeof(float));
    }

    korvo_detail::WorkerReach reach_;
    int next_;  // the lowest plane that has not left
    float* ring_ = nullptr;
};

// Matches found ahead for the worker with the most slices by the last one, once
// that has finished its own: rows (of a slice) of the busy worker are claimed
// one by one by whichever of the two gets there first. The helper only matches
// and records; the owner replays the record, so groups, filtering and the order
// of the additions stay the owner's.
struct MatchHandoff {
    static constexpr int kRing = korvo_detail::kHandoffRows;  // recorded, not yet replayed
    enum : int { Free = 0, Owner = 1, Helper = 2, Ready = 3 };

    int firstSlice = 0, rowsPerSlice = 0, perRow = 0, entries = 0;
    long rows = 0;  // of the owner's slices
    std::vector<std::atomic<int>> state;
    std::atomic<long> ownerNext{0};    // the owner's next row; rows before it are replayed
    std::atomic<bool> ownerDone{false};  // the owner left its slices (finished or stopped)
    std::vector<std::int32_t> counts;
    std::vector<Vec3<int>> positions, relative;

    bool allocate(int first, int slices, int rowsInSlice, int positionsInRow, int groupSize) {
        firstSlice = first;
        rowsPerSlice = rowsInSlice;
        perRow = positionsInRow;
        entries = groupSize;
        rows = static_cast<long>(slices) * rowsInSlice;
        const size_t refs = static_cast<size_t>(kRing) * static_cast<size_t>(perRow);
        try {
            state = std::vector<std::atomic<int>>(static_cast<size_t>(rows));
            counts.assign(refs, 0);
            positions.assign(refs * static_cast<size_t>(entries), Vec3<int>{});
            relative.assign(positions.size(), Vec3<int>{});
        } catch (const std::bad_alloc&) {
            return false;
        }
        return true;
    }
    // Storage whose rows are the ring slot's references, in the order of the row.
    BlockMatchStorage slot(long row, bool replay) {
        const size_t first = static_cast<size_t>(row % kRing) * static_cast<size_t>(perRow);
        return {entries, counts.data() + first, positions.data() + first * static_cast<size_t>(entries),
                relative.data() + first * static_cast<size_t>(entries), 0, replay ? 1 : 0};
    }
    // The owner's claim on `row`: true when it matches itself, false when it must
    // replay the helper's record (waits until that is complete).
    bool ownerTakes(long row) {
        int expected = Free;
        if (state[static_cast<size_t>(row)].compare_exchange_strong(expected, Owner)) return true;
        while (state[static_cast<size_t>(row)].load(std::memory_order_acquire) != Ready) pause();
        return false;
    }
    static void pause() {
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
};

bool backwardsOnNarrowAxis(const Vec3<int>& position, const Vec3<int>& previous,
                           const Vec3<int>& band, const Vec3<int>& imageSize) {
    for (int a = 0; a < 3; ++a) {
        const bool narrow = 2 * component(band, a) + 1 < component(imageSize, a);
        if (narrow && component(position, a) < component(previous, a)) return true;
    }
    return false;
}

template <typename T>
bool bandHoldsSearchWindow(const BlockCollection<T>& collection, const Vec3<int>& position,
                           const Parameters& params) {
    Vec3<int> first{}, last{};
    setSearchWindow(position, params.searchWindow, params.blockSize, params.imageSize, first, last);
    const Vec3<int> start = collection.bufferStart();
    const Vec3<int> end = start + collection.bufferRange();
    for (int a = 0; a < 3; ++a) {
        if (component(first, a) > component(last, a)) continue;  // empty window on this axis
        if (component(first, a) < component(start, a) || component(last, a) >= component(end, a)) {
            return false;
        }
    }
    return true;
}

// Keeps a worker's own collection of `image`'s blocks covering the search window
// around `position` (`fresh`: fills it afresh, as after a jump). Collections only
// slide forwards, and a slide by a step of three or more can leave the window's
// low edge behind; either way the band is filled afresh.
template <typename T>
void keepBandAround(const Vec3<int>& position, const Vec3<int>& previous, const Vec3<int>& band,
                    const Parameters& params, const TransformsMeta<T>& meta, const ImageData<T>& image,
                    const Vec3<T*>& moveTransforms, TempMemory<T>& temp, BlockCollection<T>* coll,
                    bool fresh = false) {
    if (!fresh && !backwardsOnNarrowAxis(position, previous, band, params.imageSize)) {
        const Vec3<int> moved{std::max(position.x - previous.x, 0), std::max(position.y - previous.y, 0),
                              std::max(position.z - previous.z, 0)};
        moveCollections<HardThresholding, T>(position, moved, band, params.blockSize, moveTransforms, temp,
                                             image, nullptr, meta.forwardKinds, coll, nullptr);
        if (bandHoldsSearchWindow(*coll, position, params)) return;
    }
    coll->extractInitial(image, position, params.blockSize, meta.forward, meta.forwardKinds, false, temp,
                         band);
}

// Fills the covariance table and, when asked, the distance-correction table on
// all of the pool's threads. Units (a lane group of the covariance table, then
// a row of the distance table) are handed out in order; each is computed the
// same way whichever thread takes it. False when scratch memory ran out.
template <typename T>
bool prepareNoiseTables(const Parameters& params, const Parameters& pairParams,
                        const CovarianceTable& table, bool pairTable, const Vec3<int>& kept,
                        const StageResources<T>& resources, TempMemory<T>& mainTemp) {
    const Vec3<int>& sw = params.searchWindow;
    const Vec3<int> windowExtent{2 * sw.x + 1, 2 * sw.y + 1, 2 * sw.z + 1};
    const long covarianceUnits = table.groups();
    const long units = covarianceUnits + (pairTable ? static_cast<long>(windowExtent.y) * windowExtent.z : 0);
    std::atomic<long> nextUnit{0};
    std::atomic<bool> failed{false};
    ThreadPool::THREAD_POOL.newLoopJob([&](int t) {
        std::unique_ptr<TempMemory<T>> own;
        TempMemory<T>* scratch = t == 0 ? &mainTemp : nullptr;  // one index may use the main scratch
        for (long u = nextUnit.fetch_add(1); u < units && !failed.load(); u = nextUnit.fetch_add(1)) {
            if (u < covarianceUnits) {
                if (!computeNoiseCovarianceLanes(resources.kernel, table, u, resources.covariance)) {
                    failed.store(true);
                }
                continue;
            }
            if (scratch == nullptr) {
                own.reset(new TempMemory<T>(createTempMemory<T>(pairParams)));
                if (!own->allocated) {
                    failed.store(true);
                    return;
                }
                scratch = own.get();
            }
            const int row = static_cast<int>(u - covarianceUnits);
            calculateVariancePairRows<T>(sw, windowExtent, params.blockSize, params.psdWorkSize, kept,
                                         resources.kernel, SIZE_2_TRANSFORM, params.matchVarianceWeight,
                                         resources.distanceCorrection, *scratch, row, row + 1);
        }
    });
    return !failed.load();
}
}  // namespace

template <StageName stage, typename T>
bool korvoLoop(ImageData<T>& noisy, const float* psd, const Parameters& params,
               const TransformsMeta<T>& meta, ImageDataMutable<T>& output,
               BlockMatchStorage* storage, ImageData<T>* pilot) {
    KORVO_ASSERT(params.step > 0);
    ThreadPool& pool = ThreadPool::THREAD_POOL;
    // Constructed first: when a thread cannot be started, unwinding joins the
    // workers that did start (so that the next stage can launch) and frees the
    // metadata's tables.
    StageResources<T> resources(meta);
    pool.launchPool(params.numThreads);

    Memory<T> mainMemory = allocateMemory<T>(params);
    // The main thread's scratch only serves the distance-correction table, built
    // from two-block groups, whatever the largest group of the stage.
    Parameters pairParams = params;
    pairParams.maxGroupSize = 2;
    TempMemory<T> mainTemp = createTempMemory<T>(pairParams);
    if (!mainMemory.allocated || !mainTemp.allocated) {
        report("Error: could not allocate working memory");
        return false;
    }

    const Vec3<int>& imageSize = params.imageSize;
    const korvo_detail::ReferenceGrid grid(params);
    const korvo_detail::SlicePlan plan = korvo_detail::planSlices(params, pool.getNumThreads());
    // The weight accumulator: the whole image's, or (rings) only the planes held in slabs.
    const korvo_detail::WeightPlan weightPlan = korvo_detail::planWeights(params, grid, plan);
    const bool ringed = weightPlan.ringPlanes > 0;
    const int extent = grid.sliceAxis == 2 ? imageSize.z : imageSize.y;
    const long planeElements = static_cast<long>(imageSize.x) * imageSize.y * imageSize.z / extent;
    auto* weightData = static_cast<float*>(
        std::calloc(ringed ? static_cast<size_t>(std::max(weightPlan.heldCount, 1)) * planeElements
                           : static_cast<size_t>(imageSize.x) * imageSize.y * imageSize.z,
                    sizeof(float)));
    if (weightData == nullptr) {
        report("Failed to allocate memory for buffer.");
        return false;
    }
    ImageDataMutable<float> weights(weightData, imageSize, true);
    std::vector<char> divided(ringed ? static_cast<size_t>(extent) : 0, 0);

    // Noise model, prepared once for the whole stage.
    Vec3<int> kept = params.psdWorkSize;
    kept.x = halfSpectrumExtent(params.psdWorkSize, params.useRealFft);
    const Vec3<int>& sw = params.searchWindow;
    const Vec3<int> windowExtent{2 * sw.x + 1, 2 * sw.y + 1, 2 * sw.z + 1};
    resources.distanceCorrection = static_cast<float*>(
        std::malloc(static_cast<size_t>(windowExtent.volume()) * sizeof(float)));
    computeK3fT3<T>(psd, params.psdSize, params.psdWorkSize, kept, params.blockSize, meta.forward,
                    resources.kernel);
    if (resources.kernel != nullptr && resources.distanceCorrection != nullptr) {
        computeLocalVar(resources.kernel, kept, params.blockSize.volume(), resources.localVariance);
    }
    if (resources.localVariance == nullptr) {
        report("Could not allocate memory for variances");
        return false;
    }
    // Only the first stage matches noisy blocks; the Wiener stage matches on its
    // pilot, whose distances carry no noise to correct for. The groups' variances
    // come from the covariance table alone: the kernel it is built from is
    // released before the workers take their memory.
    const bool pairTable = stage == HardThresholding && params.matchVarianceWeight > 0;
    if (!pairTable) {
        std::fill(resources.distanceCorrection, resources.distanceCorrection + windowExtent.volume(),
                  0.0f);
    }
    const CovarianceTable table{params.psdWorkSize, kept, params.blockSize.volume()};
    resources.covariance = allocateNoiseCovariance(table);
    if (resources.covariance == nullptr || !prepareNoiseTables<T>(params, pairParams, table, pairTable,
                                                                  kept, resources, mainTemp)) {
        report("Could not allocate memory for variances");
        return false;
    }
    std::free(resources.kernel);
    resources.kernel = nullptr;

    // A band that is whole everywhere is filled once and shared.
    const korvo_detail::CollectionBands bands = korvo_detail::collectionBands(params);
    const Vec3<int>& band = bands.halfExtent;
    const bool wholeBand = bands.whole;
    if (storage != nullptr) storage->rows = 0;

    const ImageData<T>& matched = stage == Wiener ? *pilot : noisy;
    auto shared = std::make_shared<BlockCollection<T>>();
    if (wholeBand) {
        const Vec3<int> origin{0, 0, 0};
        if (!shared->extractInitial(matched, origin, params.blockSize, meta.forward, meta.forwardKinds,
                                    true, mainTemp, band)) {
            report("Failed to allocate block memory");
            return false;
        }
    }

    korvo_detail::StageMonitor* monitor = korvo_detail::stageMonitor();
    if (monitor != nullptr) {
        monitor->slicesDone.store(0);
        monitor->slicesTotal.store(grid.slices());
    }
    std::atomic<bool> failed{false};
    const Vec3<T*> moveTransforms{const_cast<T*>(meta.forward.x), const_cast<T*>(meta.forward.y),
                                  const_cast<T*>(meta.forward.z)};
    std::vector<SlabBuffers<T>> slabs(static_cast<size_t>(plan.workers));
    // The last busy worker, having fewer slices, helps the one before it. Not
    // with a match storage: its rows are the caller's to record or replay.
    const int owner = plan.busy - 2;
    MatchHandoff handoff;
    // The helper extracts its bands afresh where the owner's slid into place. The
    // two transform blocks alike only through plain matrices: a recognised
    // transform's fast kernel rounds otherwise, and a group must not depend on
    // which worker matched its row.
    const auto plain = TransformsMetas::Arbitrary;
    const bool alike = meta.forwardKinds.x == plain && meta.forwardKinds.y == plain &&
                       meta.forwardKinds.z == plain;
    const bool helping = owner >= 0 && storage == nullptr && alike &&
                         handoff.allocate(owner * plan.perWorker, plan.perWorker, grid.rowsPerSlice(),
                                          grid.counts.x, params.maxGroupSize);

    pool.newLoopJob([&](int t) {
        const int slices = grid.slices();
        const int first = t * plan.perWorker;
        const int end = std::min(first + plan.perWorker, slices);
        if (t >= plan.workers || first >= end) return;
        const bool owning = helping && t == owner;
        // However the owner leaves, the helper stops waiting for it.
        struct Leave {
            MatchHandoff* handoff;
            ~Leave() {
                if (handoff != nullptr) handoff->ownerDone.store(true, std::memory_order_release);
            }
        } leave{owning ? &handoff : nullptr};
        const FlushSubnormals flush;
        AggregationSlab<T> slab;
        std::optional<WeightRing<T>> ring;
        if (ringed) ring.emplace(params, grid, plan, t, extent);
        if (!slabs[static_cast<size_t>(t)].allocate(params, grid, plan, t, slab) ||
            (ring && !ring->allocate(weightPlan.ringPlanes, slab))) {
            report("Failed to allocate memory for buffer.");
            failed.store(true);
            return;
        }
        const auto enter = [&](int k) {
            if (ring) ring->enter(k, slab, output.data(), weights.data(), weightPlan.held, divided);
        };
        ThreadMemory<T> tm(params, kept);
        if (!tm.memory.allocated || !tm.tempMemory.allocated) {
            report("Error: could not allocate working memory");
            failed.store(true);
            return;
        }
        if (wholeBand) {
            tm.collection = shared;
        } else {
            tm.collection = std::make_shared<BlockCollection<T>>();
            if (tm.collection->allocate(imageSize, params.blockSize, band) == nullptr) {
                report("Failed to allocate block memory");
                failed.store(true);
                return;
            }
        }
        BlockCollection<T>* coll = tm.collection.get();

        const int rowCount = grid.rowsPerSlice();
        bool havePrevious = false;
        Vec3<int> previous{0, 0, 0};
        for (int k = first; k < end; ++k) {
            enter(k);
            for (int j = 0; j < rowCount; ++j) {
                if (monitor != nullptr && monitor->cancel.load(std::memory_order_relaxed)) {
                    failed.store(true);
                    return;
                }
                const long handoffRow = static_cast<long>(k - first) * rowCount + j;
                const bool replay = owning && !handoff.ownerTakes(handoffRow);
                BlockMatchStorage recorded = replay ? handoff.slot(handoffRow, true) : BlockMatchStorage{};
                for (int i = 0; i < grid.counts.x; ++i) {
                    Vec3<int> position;
                    if (!korvo_detail::referencePosition(params, grid, grid.raw(params.step, k, j, i),
                                                         position)) {
                        continue;
                    }
                    keepBandAround<T>(position, havePrevious ? previous : position, band, params, meta,
                                      matched, moveTransforms, tm.tempMemory, coll);
                    previous = position;
                    havePrevious = true;
                    processReferenceLocation<stage, T>(
                        position, params, meta, resources.distanceCorrection, resources.covariance,
                        resources.localVariance, replay ? i : grid.index(k, j, i), *coll, noisy, output,
                        weights, tm.memory, tm.tempMemory, replay ? &recorded : storage, &slab);
                }
                if (owning) handoff.ownerNext.store(handoffRow + 1, std::memory_order_release);
            }
            if (monitor != nullptr) monitor->slicesDone.fetch_add(1);
        }
        enter(end);
        if (!helping || t != plan.busy - 1) return;
        // Helper: rows ahead of the owner, while ring slots are free.
        const int ownerFirst = handoff.firstSlice;
        long lastRow = -2;  // the helper's bands only slide from row to next row
        // The row after the owner's is left to the owner: where matching takes
        // longer than the owner's replay, the owner would otherwise wait on every
        // row the helper is still matching, instead of matching some itself.
        constexpr long kGap = 2;
        static_assert(kGap < MatchHandoff::kRing, "the helper needs ring slots past the gap");
        for (long row = handoff.ownerNext.load(std::memory_order_acquire) + kGap; row < handoff.rows;) {
            if (handoff.ownerDone.load(std::memory_order_acquire)) break;
            if (monitor != nullptr && monitor->cancel.load(std::memory_order_relaxed)) break;
            const long next = handoff.ownerNext.load(std::memory_order_acquire);
            if (row < next + kGap) {  // overtaken: go on ahead of the owner
                row = next + kGap;
                continue;
            }
            if (row >= next + MatchHandoff::kRing) {  // the slot's previous row is not replayed yet
                MatchHandoff::pause();
                continue;
            }
            int expected = MatchHandoff::Free;
            if (!handoff.state[static_cast<size_t>(row)].compare_exchange_strong(expected, MatchHandoff::Helper)) {
                ++row;
                continue;
            }
            BlockMatchStorage record = handoff.slot(row, false);
            const int k = ownerFirst + static_cast<int>(row / rowCount);
            const int j = static_cast<int>(row % rowCount);
            bool jumped = row != lastRow + 1 && !wholeBand;
            lastRow = row;
            for (int i = 0; i < grid.counts.x; ++i) {
                Vec3<int> position;
                if (!korvo_detail::referencePosition(params, grid, grid.raw(params.step, k, j, i), position)) {
                    continue;
                }
                keepBandAround<T>(position, havePrevious ? previous : position, band, params, meta, matched,
                                  moveTransforms, tm.tempMemory, coll, jumped);
                jumped = false;
                previous = position;
                havePrevious = true;
                matchReferenceLocation<T>(position, params, resources.distanceCorrection, i, *coll, tm.memory,
                                          record);
            }
            handoff.state[static_cast<size_t>(row)].store(MatchHandoff::Ready, std::memory_order_release);
            ++row;
        }
    });

    if (storage != nullptr) {
        storage->rows = static_cast<std::int32_t>(korvo_detail::reportedStorageRows(params));
    }
    if (failed.load()) return false;

    // Each worker's slab after the planes it shares, in worker order.
    T* out = output.data();
    float* w = weights.data();
    if (!ringed) {
        for (const SlabBuffers<T>& slab : slabs) {
            slab.mergeInto(out, [&](int q) { return w + q * planeElements; });
        }
        const long voxels = static_cast<long>(imageSize.x) * imageSize.y * imageSize.z;
        for (long v = 0; v < voxels; ++v) out[v] = out[v] / w[v];
        return true;
    }
    const std::vector<int>& held = weightPlan.held;
    for (const SlabBuffers<T>& slab : slabs) {
        slab.mergeInto(out, [&](int q) { return w + held[static_cast<size_t>(q)] * planeElements; });
    }
    // The held planes, and any plane no worker wrote (0 / 0, as the whole accumulator gives).
    const float none = 0.0f;
    for (int q = 0; q < extent; ++q) {
        const int h = held[static_cast<size_t>(q)];
        if (h < 0 && divided[static_cast<size_t>(q)]) continue;
        T* plane = out + q * planeElements;
        const float* planeWeights = h >= 0 ? w + h * planeElements : nullptr;
        for (long v = 0; v < planeElements; ++v) {
            plane[v] = plane[v] / (planeWeights != nullptr ? planeWeights[v] : none);
        }
    }
    return true;
}

namespace {
template <StageName stage>
TransformsMeta<float> stageTransforms(Parameters& params, Transforms<float>* transforms) {
    korvo_detail::normaliseAxisArrays(params);
    if (transforms == nullptr || transforms->forward.x == nullptr) {
        const Vec3<int>& b = params.blockSize;
        if (b == Vec3<int>{4, 4, 4}) {
            // The volume set is applied as plain matrices, without recognition.
            const Transforms<float>& set = DEFAULT_TRANSFORMS_3D;
            const auto arbitrary = TransformsMetas::Arbitrary;
            const auto inverseArbitrary = TransformsMetas::InverseArbitrary;
            return TransformsMeta<float>{set.forward,
                                         set.inverse,
                                         set.groupForward,
                                         set.groupInverse,
                                         set.window,
                                         {arbitrary, arbitrary, arbitrary},
                                         nullptr,
                                         {inverseArbitrary, inverseArbitrary, inverseArbitrary},
                                         nullptr};
        }
        if (b == Vec3<int>{8, 8, 1}) {
            return getTransformMeta(stage == HardThresholding ? DEFAULT_TRANSFORMS_2D
                                                              : DEFAULT_TRANSFORMS_2D_WIE,
                                    params);
        }
        throw MissingTransformException();
    }
    if (transforms->groupForward == nullptr) {
        transforms->groupForward = DEFAULT_GROUP_TRANSFORMS_FWD;
        transforms->groupInverse = DEFAULT_GROUP_TRANSFORMS_INV;
    }
    return getTransformMeta(*transforms, params);
}
}  // namespace

namespace korvo_detail {
namespace {
// Runs the stage loop and tells its ways out apart: a refused thread start
// leaves the loop as an exception (the pool is already cleared), a cancel as a
// false result with the monitor's flag set.
template <typename Loop>
StageStatus outcome(const Parameters& params, Loop&& loop) {
    bool completed = false;
    try {
        completed = loop();
    } catch (const std::system_error&) {
        std::fprintf(stderr, "Could not start %d threads; lower numThreads\n",
                     poolThreadCount(params.numThreads));
        std::fflush(stderr);
        return StageStatus::ThreadStartFailed;
    }
    if (completed) return StageStatus::Completed;
    StageMonitor* monitor = stageMonitor();
    return monitor != nullptr && monitor->cancel.load() ? StageStatus::Cancelled
                                                        : StageStatus::OutOfMemory;
}
}  // namespace

StageStatus runStageHT(const float* noisy, const float* psd, Parameters* params,
                       Transforms<float>* transforms, float* output, BlockMatchStorage* storage) {
    ImageData<float> noisyView(noisy, params->imageSize);
    ImageDataMutable<float> outputView(output, params->imageSize, false);
    const TransformsMeta<float> meta = stageTransforms<HardThresholding>(*params, transforms);
    return outcome(*params, [&] {
        return korvoLoop<HardThresholding, float>(noisyView, psd, *params, meta, outputView, storage,
                                                  nullptr);
    });
}

StageStatus runStageWie(const float* noisy, const float* psd, Parameters* params,
                        Transforms<float>* transforms, const float* pilot, float* output,
                        BlockMatchStorage* storage) {
    ImageData<float> noisyView(noisy, params->imageSize);
    ImageData<float> pilotView(pilot, params->imageSize);
    ImageDataMutable<float> outputView(output, params->imageSize, false);
    const TransformsMeta<float> meta = stageTransforms<Wiener>(*params, transforms);
    return outcome(*params, [&] {
        return korvoLoop<Wiener, float>(noisyView, psd, *params, meta, outputView, storage,
                                        &pilotView);
    });
}
}  // namespace korvo_detail

extern "C" {
void korvoInterfaceHT(const float* noisy, const float* psd, Parameters* params,
                      Transforms<float>* transforms, float* output, BlockMatchStorage* storage) {
    korvo_detail::runStageHT(noisy, psd, params, transforms, output, storage);
}

void korvoInterfaceWie(const float* noisy, const float* psd, Parameters* params,
                       Transforms<float>* transforms, const float* pilot, float* output,
                       BlockMatchStorage* storage) {
    korvo_detail::runStageWie(noisy, psd, params, transforms, pilot, output, storage);
}
}

template bool korvoLoop<HardThresholding, float>(ImageData<float>&, const float*, const Parameters&,
                                                 const TransformsMeta<float>&,
                                                 ImageDataMutable<float>&, BlockMatchStorage*,
                                                 ImageData<float>*);
template bool korvoLoop<Wiener, float>(ImageData<float>&, const float*, const Parameters&,
                                       const TransformsMeta<float>&, ImageDataMutable<float>&,
                                       BlockMatchStorage*, ImageData<float>*);
