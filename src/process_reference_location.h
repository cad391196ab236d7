// What each stage does at one reference position: gather the group, filter it in
// the 4-D transform domain, bring it back and aggregate it.
#pragma once

#include "ImageData.h"
#include "KORVO.h"
#include "common.h"
#include "transforms/TransformsMeta.h"

template <typename T>
class BlockCollection;

// One worker's private accumulators for the planes along the slice axis that
// lower-numbered workers also touch: contributions there are added here and
// merged in worker order after the stage, so that the order of the additions
// into the shared accumulators does not depend on thread timing.
template <typename T>
struct AggregationSlab {
    int sliceAxis = 2;  // 2: planes along z; 1: rows along y (a single plane)
    int first = 0;      // first plane held
    int count = 0;      // planes held; 0: everything goes to the shared accumulators
    long stride = 0;    // elements of one plane
    T* numerator = nullptr;
    float* weights = nullptr;
    // Where the bands are split along the slice axis, the weights of the planes
    // the worker alone writes stay in a ring of a few planes, each divided out
    // as the worker leaves it: plane q sits at q - ringOrigin, wrapped by ringPlanes.
    float* ring = nullptr;
    int ringPlanes = 0;
    int ringOrigin = 0;
};

template <StageName stage, typename T>
void processReferenceLocation(const Vec3<int>& referencePosition, const Parameters& params,
                              const TransformsMeta<T>& meta, const float* distanceCorrection,
                              const float* covariance, const float* localVariance,
                              int referenceIndex, const BlockCollection<T>& collection,
                              const ImageData<T>& noisyImage, ImageDataMutable<T>& numerator,
                              ImageDataMutable<float>& weights, Memory<T>& memory,
                              TempMemory<T>& tempMemory, BlockMatchStorage* storage,
                              const AggregationSlab<T>* slab = nullptr);

// Finds the group of the reference at `position` in `collection` (the pilot's in
// the Wiener stage) and records it in row `referenceIndex` of `storage`, which
// must be recording: the filter can replay it from there, on another thread.
template <typename T>
void matchReferenceLocation(const Vec3<int>& position, const Parameters& params,
                            const float* distanceCorrection, int referenceIndex,
                            const BlockCollection<T>& collection, Memory<T>& memory,
                            BlockMatchStorage& storage);

// Sharpens the surviving coefficients relative to the group DC; the DC itself
// and its variance are never changed.
template <typename T>
void alphaRooting(float exponent, float exponentFlat, bool updateVariances,
                  Cube4D<T>& coefficients, Cube4D<T>& variances);

// Adds every filtered block, windowed and weighted by its inverse variance, into
// the accumulators (into `slab` instead on the planes it holds). The caller
// holds the stage's aggregation lock.
template <typename T>
void aggregate(const BlockDistance<T>* matches, const Vec3<int>& blockSize, int groupSize,
               const Cube4D<T>& group, const float* blockVariances, const float* window,
               float meanVariance, ImageDataMutable<T>& numerator, ImageDataMutable<float>& weights,
               const AggregationSlab<T>* slab = nullptr);
