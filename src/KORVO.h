// Entry points, the stage loop and the collection moves that the loop drives.
#pragma once

#include <atomic>
#include <vector>

#include "ImageData.h"
#include "common.h"
#include "korvo/korvo.h"
#include "transforms/TransformsMeta.h"

template <typename T>
class BlockCollection;

enum StageName : int { HardThresholding = 0, Wiener = 1 };

namespace korvo_detail {
// Optional observer of a running stage, for hosts that show progress or let the
// user interrupt: the loop counts finished slices and stops taking new slices
// once `cancel` is set (the stage then reports failure).
struct StageMonitor {
    std::atomic<long> slicesDone{0};
    std::atomic<long> slicesTotal{0};
    std::atomic<bool> cancel{false};
};
// Installed by the host around one call; null when nobody watches.
KORVO_API void setStageMonitor(StageMonitor* monitor);
StageMonitor* stageMonitor();

// How a stage call ended. Anything but Completed leaves the output partial.
enum class StageStatus : int {
    Completed = 0,
    OutOfMemory = 1,        // a buffer could not be allocated (message on stderr)
    ThreadStartFailed = 2,  // the pool could not start numThreads threads
    Cancelled = 3,          // the monitor's cancel flag stopped the stage
};

// The entry points' work, with the outcome passed back (the exported entry
// points drop it, as their interface prescribes).
KORVO_API StageStatus runStageHT(const float* noisy, const float* psd, Parameters* params,
                                 Transforms<float>* transforms, float* output,
                                 BlockMatchStorage* storage);
KORVO_API StageStatus runStageWie(const float* noisy, const float* psd, Parameters* params,
                                  Transforms<float>* transforms, const float* pilot, float* output,
                                  BlockMatchStorage* storage);

// Per-axis arrays shorter than two values count as absent: length 1, ZERO.
void normaliseAxisArrays(Parameters& params);

// Rows of matches the last busy worker records ahead for the one before it.
constexpr int kHandoffRows = 4;

// Threads a pool launched with `requested` runs (the hardware's when below 1).
int poolThreadCount(int requested);

// Reference grid of one stage: positions per axis and the enumeration that
// numbers them (the row of the match storage).
struct ReferenceGrid {
    Vec3<int> last;    // last valid block position per axis
    Vec3<int> counts;  // positions per axis, ceil((extent + step) / step)
    int sliceAxis;     // z for a volume, y for a single plane

    explicit ReferenceGrid(const Parameters& p);
    int slices() const;
    int perSlice() const;
    int rowsPerSlice() const { return sliceAxis == 2 ? counts.y : 1; }
    // Raw grid coordinates of slice k, row j, column i.
    Vec3<int> raw(const Vec3<int>& step, int k, int j, int i) const;
    int index(int k, int j, int i) const { return (k * rowsPerSlice() + j) * counts.x + i; }
};

// The reference position of a raw grid point after the per-axis offsets and the
// clamp to the last position; false when the point is skipped. The record's
// axis arrays must be normalised.
bool referencePosition(const Parameters& p, const ReferenceGrid& grid, const Vec3<int>& raw,
                       Vec3<int>& position);

// Calls visit(row, position) for every reference position in the stage's order,
// skipped grid points left out; stops when visit returns false (then false).
template <typename Visit>
bool forEachReference(const Parameters& p, const ReferenceGrid& grid, Visit&& visit) {
    for (int k = 0; k < grid.slices(); ++k) {
        for (int j = 0; j < grid.rowsPerSlice(); ++j) {
            for (int i = 0; i < grid.counts.x; ++i) {
                Vec3<int> position;
                if (!referencePosition(p, grid, grid.raw(p.step, k, j, i), position)) continue;
                if (!visit(grid.index(k, j, i), position)) return false;
            }
        }
    }
    return true;
}

// Rows a stage reports in BlockMatchStorage::rows after recording.
long long reportedStorageRows(const Parameters& params);

// Band half extents of the block collections and whether one band covers the
// whole image (then one collection per image is shared by all workers).
struct CollectionBands {
    Vec3<int> halfExtent;
    bool whole;
};
CollectionBands collectionBands(const Parameters& params);

// How the slices of the reference grid are shared among the workers. Worker t
// walks slices [t * perWorker, (t + 1) * perWorker) in order and keeps a slab
// for the planes along the slice axis, [slabFirst[t], slabFirst[t] + slabCount[t]),
// that lower-numbered workers can also touch. The slabs together never hold more
// planes than the image: where they would, fewer workers share the slices.
struct SlicePlan {
    int workers = 1;  // workers sharing the slices, at most the pool's threads
    int busy = 1;     // those whose share is not empty
    int perWorker = 0;
    std::vector<int> slabFirst;
    std::vector<int> slabCount;
};
// For a record with normalised axis arrays.
SlicePlan planSlices(const Parameters& params, int threads);

// How a stage keeps its weight accumulator. Where the bands are split along the
// slice axis (so that every group, found or replayed, lies within the search
// window of its reference along it), each worker keeps the weights of the planes
// it alone writes in a ring of `ringPlanes` planes, and the planes held in
// workers' slabs (`held`: per plane its index among them, or -1) wait for the
// merge. Otherwise (`ringPlanes` 0) the accumulator covers the whole image.
struct WeightPlan {
    int ringPlanes = 0;
    std::vector<int> held;
    int heldCount = 0;
};
WeightPlan planWeights(const Parameters& params, const ReferenceGrid& grid, const SlicePlan& plan);
}  // namespace korvo_detail

template <StageName stage, typename T>
bool korvoLoop(ImageData<T>& noisy, const float* psd, const Parameters& params,
               const TransformsMeta<T>& meta, ImageDataMutable<T>& output,
               BlockMatchStorage* storage, ImageData<T>* pilot);

// Keeps the worker's collections covering the band around refPos: extract again,
// slide, or nothing. `step` is how far refPos moved since the previous call.
template <StageName stage, typename T>
void moveCollections(const Vec3<int>& refPos, const Vec3<int>& step, const Vec3<int>& searchWindow,
                     const Vec3<int>& blockSize, const Vec3<T*>& transforms,
                     TempMemory<T>& memory, const ImageData<T>& image, const ImageData<T>* image2,
                     const Vec3<TransformsMetas::StandardTransform>& kinds,
                     BlockCollection<T>* collHTWie, BlockCollection<T>* coll2);
