// Exported block-matching helpers.
#pragma once

#include "korvo/common.h"

template <typename T>
class BlockCollection;

// Inclusive window of candidate positions around refPos, clamped to the volume.
KORVO_API void setSearchWindow(const Vec3<int>& refPos, const Vec3<int>& searchWindow,
                               const Vec3<int>& blockSize, const Vec3<int>& imageSize,
                               Vec3<int>& windowStart, Vec3<int>& windowEnd);

// The reference block followed by its best matches; `count` is the group size.
template <typename T>
KORVO_API void getBlockMatches(const BlockCollection<T>& coll, const float* distanceCorrection,
                               const Vec3<int>& refPos, const Vec3<int>& blockSize,
                               const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
                               const Vec3<int>& windowEnd, int maxGroupSize, int minReduceCount,
                               float matchThreshold, BlockDistance<T>* out, int& count);
