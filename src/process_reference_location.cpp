#include "process_reference_location.h"

#include <algorithm>
#include <cmath>
#include <mutex>

#include "BlockCollection.h"
#include "korvo/matching.h"
#include "noise/covariance.h"
#include "transforms/tables.h"
#include "transforms/transf3D.h"
#include "transforms/transformBlocksNL.h"

namespace {
// The per-size lists carry no 1-point entry; a lone block is transformed by the identity.
const float* groupMatrix(const float* const* list, int n) {
    const float* matrix = list[n];
    return (matrix == nullptr && n == 1) ? ONE : matrix;
}

template <typename T>
void gatherGroup(const Vec3<int>& referencePosition, const Parameters& params,
                 const float* distanceCorrection, int referenceIndex,
                 const BlockCollection<T>& matchCollection, Memory<T>& memory,
                 BlockMatchStorage* storage) {
    BlockDistance<T>* matches = memory.matches;
    if (storage == nullptr || storage->filled == 0) {
        Vec3<int> windowStart{}, windowEnd{};
        setSearchWindow(referencePosition, params.searchWindow, params.blockSize, params.imageSize,
                        windowStart, windowEnd);
        getBlockMatches<T>(matchCollection, distanceCorrection, referencePosition, params.blockSize,
                           params.searchWindow, windowStart, windowEnd, params.maxGroupSize,
                           params.minReduceCount, params.matchThreshold, matches, memory.stackSize);
        if (storage != nullptr) {
            const long row = static_cast<long>(referenceIndex) * storage->entriesPerReference;
            storage->counts[referenceIndex] = memory.stackSize;
            for (int k = 0; k < memory.stackSize; ++k) {
                storage->positions[row + k] = matches[k].position;
                storage->relativePositions[row + k] = matches[k].relativePosition;
            }
        }
        return;
    }
    const long row = static_cast<long>(referenceIndex) * storage->entriesPerReference;
    memory.stackSize = storage->counts[referenceIndex];
    for (int k = 0; k < memory.stackSize; ++k) {
        matches[k].block = matchCollection.getBlock(storage->positions[row + k]);
        matches[k].position = storage->positions[row + k];
        matches[k].relativePosition = storage->relativePositions[row + k];
    }
}

// Variance of every block's estimate from the coefficient variances of the group
// (the inverse group transform spreads them over the members), and their mean.
template <typename T>
float blockVariances(int n, long blockVolume, const float* inverse, Memory<T>& memory,
                     TempMemory<T>& tempMemory) {
    float* sums = tempMemory.memberSums;
    for (int k = 0; k < n; ++k) {
        const T* slot = memory.variances.data + k * blockVolume;
        float s = 0.0f;
        for (long e = 0; e < blockVolume; ++e) s += slot[e];
        sums[k] = s;
    }
    float total = 0.0f;
    for (int u = 0; u < n; ++u) {
        float v = 0.0f;
        for (int k = 0; k < n; ++k) {
            const float t = inverse[u * n + k];
            v += t * sums[k] * t;
        }
        memory.blockVariances[u] = v;
        total += v;
    }
    return n < 1 ? 0.0f : total / static_cast<float>(n);
}

// Takes the aggregation lock, spinning a while before sleeping on it: it is held
// for one group's accumulation only, much shorter than a sleep and a wake-up.
std::unique_lock<std::mutex> takeLock(std::mutex& mutex) {
    constexpr int kSpins = 1000;
    for (int i = 0; i < kSpins; ++i) {
        if (mutex.try_lock()) return std::unique_lock<std::mutex>(mutex, std::adopt_lock);
#if defined(__x86_64__) || defined(__i386__)
        __builtin_ia32_pause();
#endif
    }
    return std::unique_lock<std::mutex>(mutex);
}

template <typename T>
Cube4D<T> firstMembers(const Cube4D<T>& cube, int n) {
    return Cube4D<T>{{cube.size.x, cube.size.y, cube.size.z, n}, cube.data};
}
}  // namespace

template <typename T>
void alphaRooting(float exponent, float exponentFlat, bool updateVariances,
                  Cube4D<T>& coefficients, Cube4D<T>& variances) {
    const T d = coefficients.data[0];
    if (d == 0) return;
    const float a = std::fabs(d);
    const float exponents[2] = {exponentFlat, exponent};
    float scale[2], aPowMinus2e[2], aPow2Minus2e[2];
    for (int s = 0; s < 2; ++s) {
        const float e = exponents[s];
        scale[s] = a * std::pow(a, -e);
        aPowMinus2e[s] = std::pow(a, -2.0f * e);
        aPow2Minus2e[s] = std::pow(a, 2.0f - 2.0f * e);
    }
    const float vd = variances.data[0];
    const long count = coefficients.count();
    if (count < 2) return;
    const long plane = static_cast<long>(coefficients.size.x) * coefficients.size.y;
    const long depth = coefficients.size.z;
    for (long i = 1; i < count; ++i) {
        const int s = (i / plane) % depth == 0 ? 0 : 1;
        const float e = exponents[s];
        const float c = coefficients.data[i];
        float p, rooted;
        if (c > 0) {
            p = std::pow(c, e);
            rooted = scale[s] * p;
        } else if (c < 0) {
            p = std::pow(-c, e);
            rooted = -(scale[s] * p);
        } else {
            continue;  // zero (or NaN) stays as it is
        }
        coefficients.data[i] = rooted;
        if (updateVariances) {
            const float oneMinusE = 1.0f - e;
            const float dcTerm = oneMinusE * oneMinusE * aPowMinus2e[s];
            const float ownTerm = e * e * aPow2Minus2e[s];
            variances.data[i] = p * p * (vd * dcTerm + ownTerm * variances.data[i] / (rooted * rooted));
        }
    }
}

template <typename T>
void aggregate(const BlockDistance<T>* matches, const Vec3<int>& blockSize, int groupSize,
               const Cube4D<T>& group, const float* blockVariances, const float* window,
               float meanVariance, ImageDataMutable<T>& numerator, ImageDataMutable<float>& weights,
               const AggregationSlab<T>* slab) {
    const int bx = blockSize.x, by = blockSize.y, bz = blockSize.z;
    if (groupSize < 1 || bz < 1 || by < 1 || bx < 1) return;
    // The weight floor is relative to the group; the numerator's is absolute. Kept apart on purpose.
    const float floor = std::max(meanVariance * 0.0001f, 1e-8f);
    const long slot = group.slot();
    const long rowStride = numerator._size.x;
    const long planeStride = numerator._planeSize;
    T* num = numerator.data();
    float* wts = weights.data();
    const bool slabbed = slab != nullptr && slab->count > 0;
    const bool ringed = slab != nullptr && slab->ring != nullptr;
    const bool alongZ = slab == nullptr || slab->sliceAxis == 2;
    const int slabFirst = slabbed ? slab->first : 0;
    const int slabEnd = slabbed ? slab->first + slab->count : 0;
    // Starts of row (y, z) of the block at p in the numerator and the weights: in
    // the slab on the planes it holds; else the weights in the worker's ring, if any.
    struct Rows {
        T* numerator;
        float* weights;
    };
    auto rows = [&](const Vec3<int>& p, int y, int z) {
        const long offset = p.x + (p.y + y) * rowStride + (p.z + z) * planeStride;
        const int plane = alongZ ? p.z + z : p.y + y;
        if (plane >= slabFirst && plane < slabEnd) {
            const long at = offset - slabFirst * slab->stride;
            return Rows{slab->numerator + at, slab->weights + at};
        }
        if (!ringed) return Rows{num + offset, wts + offset};
        long at = plane - slab->ringOrigin;
        if (at >= slab->ringPlanes) at -= slab->ringPlanes;
        return Rows{num + offset, slab->ring + (offset + (at - plane) * slab->stride)};
    };
    // Up to this many samples a block's contributions are formed first, whole
    // (eight lanes at a time), and then only added row by row.
    constexpr long kFormed = 512;
    const long volume = static_cast<long>(bx) * by * bz;
    alignas(32) T formedNum[kFormed];
    alignas(32) float formedWts[kFormed];
    for (int k = 0; k < groupSize; ++k) {
        const float v = blockVariances[k];
        const float vN = std::max(v, 1e-8f);
        const float vW = floor > v ? floor : v;
        const Vec3<int>& p = matches[k].position;
        const T* block = group.data + k * slot;
        if (volume > kFormed) {
            for (int z = 0; z < bz; ++z) {
                for (int y = 0; y < by; ++y) {
                    const T* g = block + bx * (y + by * z);
                    const float* w = window + bx * (y + by * z);
                    T* KORVO_RESTRICT numRow = rows(p, y, z).numerator;
                    for (int x = 0; x < bx; ++x) numRow[x] += g[x] * w[x] / vN;
                }
            }
            for (int z = 0; z < bz; ++z) {
                for (int y = 0; y < by; ++y) {
                    const float* w = window + bx * (y + by * z);
                    float* KORVO_RESTRICT wRow = rows(p, y, z).weights;
                    for (int x = 0; x < bx; ++x) wRow[x] += w[x] / vW;
                }
            }
            continue;
        }
        for (long e = 0; e < volume; ++e) {
            formedNum[e] = block[e] * window[e] / vN;
            formedWts[e] = window[e] / vW;
        }
        for (int z = 0; z < bz; ++z) {
            for (int y = 0; y < by; ++y) {
                const long at = bx * (y + by * z);
                const Rows r = rows(p, y, z);
                T* KORVO_RESTRICT numRow = r.numerator;
                float* KORVO_RESTRICT wRow = r.weights;
                for (int x = 0; x < bx; ++x) numRow[x] += formedNum[at + x];
                for (int x = 0; x < bx; ++x) wRow[x] += formedWts[at + x];
            }
        }
    }
}

template <StageName stage, typename T>
void processReferenceLocation(const Vec3<int>& referencePosition, const Parameters& params,
                              const TransformsMeta<T>& meta, const float* distanceCorrection,
                              const float* noiseCovariance, const float* localVariance,
                              int referenceIndex, const BlockCollection<T>& collection,
                              const ImageData<T>& noisyImage, ImageDataMutable<T>& numerator,
                              ImageDataMutable<float>& weights, Memory<T>& memory,
                              TempMemory<T>& tempMemory, BlockMatchStorage* storage,
                              const AggregationSlab<T>* slab) {
    static std::mutex aggregationMutex;
    gatherGroup(referencePosition, params, distanceCorrection, referenceIndex, collection, memory,
                storage);
    KORVO_ASSERT(((memory.stackSize & (memory.stackSize - 1)) == 0));
    const int n = memory.stackSize;
    const Vec3<int>& blockSize = params.blockSize;
    const long blockVolume = static_cast<long>(blockSize.volume());
    const long count = n * blockVolume;

    const float* forward = groupMatrix(meta.groupForward, n);
    const float* inverse = groupMatrix(meta.groupInverse, n);
    const auto kind = meta.groupForwardKinds != nullptr ? meta.groupForwardKinds[n]
                                                        : TransformsMetas::Arbitrary;
    const int exactMembers = std::min(n, params.varianceGroupLimit);
    float* c = memory.groupSpectrum.data;
    float* v = memory.variances.data;
    Cube4D<T>* filtered = &memory.groupSpectrum;

    transformBlocksNL<T>(memory.matches, n, forward, kind, memory.groupSpectrum, blockSize);
    if (stage == HardThresholding) {
        covarianceVariances<T>(n, blockSize, params.psdWorkSize, exactMembers, forward,
                               noiseCovariance, localVariance, memory.variances, memory.matches,
                               tempMemory);
        // The group DC (index 0) is never dropped.
        const float threshold = params.thresholdFactor;
        for (long i = 1; i < count; ++i) {
            const bool drop = c[i] * c[i] < threshold * v[i];
            c[i] = drop ? 0.0f : c[i];
            v[i] = drop ? 0.0f : v[i];
        }
        if (params.sharpen) {
            Cube4D<T> coefficients = firstMembers(memory.groupSpectrum, n);
            Cube4D<T> variances = firstMembers(memory.variances, n);
            alphaRooting(params.sharpenExponent, params.sharpenExponentFlat,
                         params.sharpenVariances, coefficients, variances);
        }
    } else {
        // Matched on the pilot; the noisy blocks at the same positions are filtered.
        // Only the group's are needed, so they are transformed here (into the
        // estimate's buffer, free until the inverse transforms) rather than kept
        // for a whole band.
        for (int k = 0; k < n; ++k) {
            T* block = memory.estimate.data + k * blockVolume;
            transformedBlock(noisyImage, memory.matches[k].position, blockSize, meta.forward, meta.forwardKinds,
                             tempMemory.blockA, tempMemory.blockB, block);
            memory.matches[k].block = block;
        }
        transformBlocksNL<T>(memory.matches, n, forward, kind, memory.noisySpectrum, blockSize);
        covarianceVariances<T>(n, blockSize, params.psdWorkSize, exactMembers, forward,
                               noiseCovariance, localVariance, memory.variances, memory.matches,
                               tempMemory);
        const float* KORVO_RESTRICT pilot = memory.groupSpectrum.data;
        float* KORVO_RESTRICT noisy = memory.noisySpectrum.data;
        const float factor = params.wienerFactor;
        for (long i = 0; i < count; ++i) {
            const float p = pilot[i] * pilot[i];
            const float m = std::max(v[i], 1e-8f);
            const float w = p / (factor * m + p);
            noisy[i] = noisy[i] * w;
            v[i] = v[i] * (w * w);
        }
        filtered = &memory.noisySpectrum;
    }

    transformBlocksNL<T>(*filtered, n, inverse, TransformsMetas::inverseOf(kind), memory.estimate,
                         blockSize);
    for (int k = 0; k < n; ++k) {
        T* block = memory.estimate.data + k * blockVolume;
        transf3D<T>(block, meta.inverse, meta.inverseKinds, tempMemory.blockA, tempMemory.blockB,
                    block, blockSize);
    }
    const float meanVariance = blockVariances(n, blockVolume, inverse, memory, tempMemory);

    const std::unique_lock<std::mutex> lock = takeLock(aggregationMutex);
    aggregate<T>(memory.matches, blockSize, n, memory.estimate, memory.blockVariances, meta.window,
                 meanVariance, numerator, weights, slab);
}

template <typename T>
void matchReferenceLocation(const Vec3<int>& position, const Parameters& params,
                            const float* distanceCorrection, int referenceIndex,
                            const BlockCollection<T>& collection, Memory<T>& memory,
                            BlockMatchStorage& storage) {
    KORVO_ASSERT(storage.filled == 0);
    gatherGroup(position, params, distanceCorrection, referenceIndex, collection, memory, &storage);
}

template void matchReferenceLocation<float>(const Vec3<int>&, const Parameters&, const float*, int,
                                            const BlockCollection<float>&, Memory<float>&,
                                            BlockMatchStorage&);
template void alphaRooting<float>(float, float, bool, Cube4D<float>&, Cube4D<float>&);
template void aggregate<float>(const BlockDistance<float>*, const Vec3<int>&, int,
                               const Cube4D<float>&, const float*, const float*, float,
                               ImageDataMutable<float>&, ImageDataMutable<float>&,
                               const AggregationSlab<float>*);
template void processReferenceLocation<HardThresholding, float>(
    const Vec3<int>&, const Parameters&, const TransformsMeta<float>&, const float*, const float*,
    const float*, int, const BlockCollection<float>&, const ImageData<float>&,
    ImageDataMutable<float>&, ImageDataMutable<float>&, Memory<float>&, TempMemory<float>&,
    BlockMatchStorage*, const AggregationSlab<float>*);
template void processReferenceLocation<Wiener, float>(
    const Vec3<int>&, const Parameters&, const TransformsMeta<float>&, const float*, const float*,
    const float*, int, const BlockCollection<float>&, const ImageData<float>&,
    ImageDataMutable<float>&, ImageDataMutable<float>&, Memory<float>&, TempMemory<float>&,
    BlockMatchStorage*, const AggregationSlab<float>*);
