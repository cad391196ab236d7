// Entry points, the stage loop and the collection moves that the loop drives.
#pragma once

#include <atomic>

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

// The entry points' work, with the stage loop's result passed back (the exported
// entry points drop it, as their interface prescribes).
KORVO_API bool runStageHT(const float* noisy, const float* psd, Parameters* params,
                          Transforms<float>* transforms, float* output, BlockMatchStorage* storage);
KORVO_API bool runStageWie(const float* noisy, const float* psd, Parameters* params,
                           Transforms<float>* transforms, const float* pilot, float* output,
                           BlockMatchStorage* storage);
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
