// The run-time choice of kernel set, and the library's kernel entry points, which
// forward to the chosen set.
#include "Kernels.h"

#include <atomic>

#include "noise/covariance.h"
#include "noise/variances.h"
#include "transforms/transf3D.h"
#include "transforms/transformBlocksNL.h"

namespace {
const KernelSet& bestKernels() {
#if defined(KORVO_HAVE_AVX2_KERNELS)
    // The processor and the operating system (saved vector state) must both agree.
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2") && __builtin_cpu_supports("fma")) {
        return korvo_kernels_avx2::kernelSet;
    }
#endif
    return korvo_kernels_base::kernelSet;
}

std::atomic<const KernelSet*> chosen{nullptr};
}  // namespace

const KernelSet& activeKernels() {
    const KernelSet* set = chosen.load(std::memory_order_relaxed);
    if (set == nullptr) {
        set = &bestKernels();
        chosen.store(set, std::memory_order_relaxed);
    }
    return *set;
}

namespace korvo_detail {
void forceBaselineKernels(bool force) {
    chosen.store(force ? &korvo_kernels_base::kernelSet : &bestKernels(), std::memory_order_relaxed);
}
const char* activeKernelName() { return activeKernels().name; }
}  // namespace korvo_detail

template <typename T>
void transf3D(const T* input, const Vec3<const T*>& transforms,
              const Vec3<TransformsMetas::StandardTransform>& kinds, T* bufferA, T* bufferB,
              T* output, const Vec3<int>& size) {
    activeKernels().transf3D(input, transforms, kinds, bufferA, bufferB, output, size);
}

template <typename T>
void transformBlocksNL(const BlockDistance<T>* matches, int n, const T* matrix,
                       TransformsMetas::StandardTransform kind, Cube4D<T>& output,
                       const Vec3<int>& blockSize) {
    activeKernels().groupFromMatches(matches, n, matrix, kind, output, blockSize);
}

template <typename T>
void transformBlocksNL(const Cube4D<T>& input, int n, const T* matrix,
                       TransformsMetas::StandardTransform kind, Cube4D<T>& output,
                       const Vec3<int>& blockSize) {
    activeKernels().groupFromCube(input, n, matrix, kind, output, blockSize);
}

template <typename T>
void calculateVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize,
                        const Vec3<int>& keptSize, int m, const float* groupTransform,
                        const float* k3fT3, const float* localVariances, Cube4D<float>& variances,
                        BlockDistance<float>* matches, TempMemory<T>& tmp) {
    activeKernels().variances(n, blockSize, workSize, keptSize, m, groupTransform, k3fT3,
                              localVariances, variances, matches, tmp);
}

template <typename T>
void covarianceVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize, int m,
                         const float* groupTransform, const float* covariance,
                         const float* localVariances, Cube4D<float>& variances,
                         BlockDistance<float>* matches, TempMemory<T>& tmp) {
    activeKernels().covarianceVariances(n, blockSize, workSize, m, groupTransform, covariance,
                                        localVariances, variances, matches, tmp);
}

template <typename T>
void transformVariancePlane(const Vec3<int>& workSize, const Vec3<int>& keptSize, int m,
                            Cube4D<Complex>& grid, Cube4D<float>& power, const bool* rowMask,
                            TempMemory<T>& tmp) {
    activeKernels().variancePlane(workSize, keptSize, m, grid, power, rowMask, tmp);
}

template <typename T>
void calculateVariancePairs(const Vec3<int>& centre, const Vec3<int>& extent,
                            const Vec3<int>& blockSize, const Vec3<int>& workSize,
                            const Vec3<int>& keptSize, const float* k3fT3,
                            const float* pairTransform, float weight, float* table,
                            TempMemory<T>& tmp) {
    calculateVariancePairRows(centre, extent, blockSize, workSize, keptSize, k3fT3, pairTransform,
                              weight, table, tmp, 0, extent.y * extent.z);
}

template <typename T>
void calculateVariancePairRows(const Vec3<int>& centre, const Vec3<int>& extent,
                               const Vec3<int>& blockSize, const Vec3<int>& workSize,
                               const Vec3<int>& keptSize, const float* k3fT3,
                               const float* pairTransform, float weight, float* table,
                               TempMemory<T>& tmp, int firstRow, int endRow) {
    activeKernels().variancePairs(centre, extent, blockSize, workSize, keptSize, k3fT3,
                                  pairTransform, weight, table, tmp, firstRow, endRow);
}

int fftReal(int n, Complex* in, Complex* out) { return activeKernels().fftReal(n, in, out); }
int fftComplex(int n, Complex* in, Complex* out) { return activeKernels().fftComplex(n, in, out); }
void FFTComplex64(const creal32_T* in, creal32_T* out) { activeKernels().fft64(in, out); }

template void transf3D<float>(const float*, const Vec3<const float*>&,
                              const Vec3<TransformsMetas::StandardTransform>&, float*, float*,
                              float*, const Vec3<int>&);
template void transformBlocksNL<float>(const BlockDistance<float>*, int, const float*,
                                       TransformsMetas::StandardTransform, Cube4D<float>&,
                                       const Vec3<int>&);
template void transformBlocksNL<float>(const Cube4D<float>&, int, const float*,
                                       TransformsMetas::StandardTransform, Cube4D<float>&,
                                       const Vec3<int>&);
template void transformVariancePlane<float>(const Vec3<int>&, const Vec3<int>&, int,
                                            Cube4D<Complex>&, Cube4D<float>&, const bool*,
                                            TempMemory<float>&);
template void calculateVariances<float>(int, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                                        int, const float*, const float*, const float*,
                                        Cube4D<float>&, BlockDistance<float>*, TempMemory<float>&);
template void covarianceVariances<float>(int, const Vec3<int>&, const Vec3<int>&, int,
                                         const float*, const float*, const float*, Cube4D<float>&,
                                         BlockDistance<float>*, TempMemory<float>&);
template void calculateVariancePairs<float>(const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                                            const Vec3<int>&, const Vec3<int>&, const float*,
                                            const float*, float, float*, TempMemory<float>&);
template void calculateVariancePairRows<float>(const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                                               const Vec3<int>&, const Vec3<int>&, const float*,
                                               const float*, float, float*, TempMemory<float>&, int,
                                               int);
