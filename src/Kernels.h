// The hot kernels (block-matching sums, block and group transforms, coefficient
// variances and their FFTs) are compiled once per instruction set, each copy in its
// own namespace, and one copy is chosen at run time. Both copies give the same bits:
// fused multiply-adds are written out (fusedMultiplyAdd, fused.h) and nothing else is
// contracted.
#pragma once

#include <cstdint>

#include "BlockCollection.h"
#include "common.h"
#include "noise/fft.h"

// What the matching search reads of a collection: the dispatcher checks the
// window against the band, so the kernel only does the ring arithmetic.
template <typename T>
struct CollectionView {
    const T* buffer;
    long blockElements;
    Vec3<int> range;
};

// Per-thread storage of a search's candidates, owned by the caller (compiled
// once, for the baseline), so the kernels instantiate no standard-library code
// over shared types. keys and records hold at least maxGroupSize - 1 entries,
// log one per position of the window.
template <typename T>
struct SearchScratch {
    std::uint64_t* keys;        // (distance, slot) keys; on return the slots in heap order
    BlockDistance<T>* records;  // candidates by slot
    std::uint64_t* log;         // accepted candidates, (distance, index in the window) keys
};

struct KernelSet {
    const char* name;
    void (*transf3D)(const float*, const Vec3<const float*>&,
                     const Vec3<TransformsMetas::StandardTransform>&, float*, float*, float*,
                     const Vec3<int>&);
    bool (*transformBlockBox)(const float*, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                              const Vec3<int>&, const Vec3<const float*>&,
                              const Vec3<TransformsMetas::StandardTransform>&, const BlockRing&, float*);
    void (*groupFromMatches)(const BlockDistance<float>*, int, const float*,
                             TransformsMetas::StandardTransform, Cube4D<float>&, const Vec3<int>&);
    void (*groupFromCube)(const Cube4D<float>&, int, const float*,
                          TransformsMetas::StandardTransform, Cube4D<float>&, const Vec3<int>&);
    int (*searchFloat)(const CollectionView<float>&, const float*, const Vec3<int>&, const Vec3<int>&,
                       const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, int, const SearchScratch<float>&);
    int (*searchComplex)(const CollectionView<Complex>&, const float*, const Vec3<int>&,
                         const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, int,
                         const SearchScratch<Complex>&);
    void (*variances)(int, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, int, const float*,
                      const float*, const float*, Cube4D<float>&, BlockDistance<float>*,
                      TempMemory<float>&);
    void (*covarianceVariances)(int, const Vec3<int>&, const Vec3<int>&, int, const float*,
                                const float*, const float*, Cube4D<float>&, BlockDistance<float>*,
                                TempMemory<float>&);
    void (*variancePlane)(const Vec3<int>&, const Vec3<int>&, int, Cube4D<Complex>&, Cube4D<float>&,
                          const bool*, TempMemory<float>&);
    void (*variancePairs)(const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                          const Vec3<int>&, const float*, const float*, float, float*,
                          TempMemory<float>&, int, int);
    int (*fftReal)(int, Complex*, Complex*);
    int (*fftComplex)(int, Complex*, Complex*);
    void (*fft64)(const creal32_T*, creal32_T*);
    // out[i] = fma(a[i], b[i], c[i]) as the kernels compute it, so the sets' arithmetic
    // can be compared element by element.
    void (*fusedRows)(const float*, const float*, const float*, float*, long);
};

namespace korvo_kernels_base {
extern const KernelSet kernelSet;
}
#if defined(KORVO_HAVE_AVX2_KERNELS)
namespace korvo_kernels_avx2 {
extern const KernelSet kernelSet;  // AVX2 and FMA
}
#endif

// The set the library runs with: the fastest one the processor supports.
const KernelSet& activeKernels();

namespace korvo_detail {
// Tests and benchmarks: run the baseline kernels even where faster ones exist
// (false: back to the automatic choice).
KORVO_API void forceBaselineKernels(bool force);
// Name of the kernel set in use: "avx2" or "baseline".
KORVO_API const char* activeKernelName();
}  // namespace korvo_detail

// Inside a kernel unit: the kernels of that unit's instruction set, as the other
// kernel units call them.
#if defined(KORVO_KERNEL_NS)
namespace KORVO_KERNEL_NS {
void transf3D(const float* input, const Vec3<const float*>& transforms,
              const Vec3<TransformsMetas::StandardTransform>& kinds, float* bufferA,
              float* bufferB, float* output, const Vec3<int>& size);
// Forward transforms of the blocks at lo .. lo + count - 1 of an image of the given
// size into their ring slots, the same bits as transf3D per block; x and y passes are
// shared between neighbouring blocks. False (nothing done) unless every axis takes the
// general product. scratch: boxScratchFloats(blockSize) floats.
bool transformBlockBox(const float* image, const Vec3<int>& imageSize, const Vec3<int>& lo,
                       const Vec3<int>& count, const Vec3<int>& blockSize,
                       const Vec3<const float*>& transforms,
                       const Vec3<TransformsMetas::StandardTransform>& kinds, const BlockRing& ring,
                       float* scratch);
void groupFromMatches(const BlockDistance<float>* matches, int n, const float* matrix,
                      TransformsMetas::StandardTransform kind, Cube4D<float>& output,
                      const Vec3<int>& blockSize);
void groupFromCube(const Cube4D<float>& input, int n, const float* matrix,
                   TransformsMetas::StandardTransform kind, Cube4D<float>& output,
                   const Vec3<int>& blockSize);
// Returns how many candidates it kept: scratch.keys[0 .. count) name their slots in heap order.
template <typename T>
int search(const CollectionView<T>& coll, const float* distanceCorrection, const Vec3<int>& refPos,
           const Vec3<int>& blockSize, const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
           const Vec3<int>& windowEnd, int maxGroupSize, const SearchScratch<T>& scratch);
void calculateVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize,
                        const Vec3<int>& keptSize, int m, const float* groupTransform,
                        const float* k3fT3, const float* localVariances, Cube4D<float>& variances,
                        BlockDistance<float>* matches, TempMemory<float>& tmp);
void covarianceVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize, int m,
                         const float* groupTransform, const float* covariance,
                         const float* localVariances, Cube4D<float>& variances,
                         BlockDistance<float>* matches, TempMemory<float>& tmp);
void transformVariancePlane(const Vec3<int>& workSize, const Vec3<int>& keptSize, int m,
                            Cube4D<Complex>& grid, Cube4D<float>& power, const bool* rowMask,
                            TempMemory<float>& tmp);
void calculateVariancePairs(const Vec3<int>& centre, const Vec3<int>& extent,
                            const Vec3<int>& blockSize, const Vec3<int>& workSize,
                            const Vec3<int>& keptSize, const float* k3fT3,
                            const float* pairTransform, float weight, float* table,
                            TempMemory<float>& tmp, int firstRow, int endRow);
int fftReal(int n, Complex* in, Complex* out);
int fftComplex(int n, Complex* in, Complex* out);
void FFTComplex64(const creal32_T* in, creal32_T* out);
void fusedRows(const float* a, const float* b, const float* c, float* out, long n);
}  // namespace KORVO_KERNEL_NS
#endif
