// This instruction set's kernels, gathered for the run-time choice (extern: a
// namespace-scope constant would otherwise stay inside this unit).
#include "Kernels.h"
#include "fused.h"

namespace KORVO_KERNEL_NS {
void fusedRows(const float* KORVO_RESTRICT a, const float* KORVO_RESTRICT b, const float* KORVO_RESTRICT c,
               float* KORVO_RESTRICT out, long n) {
    for (long i = 0; i < n; ++i) out[i] = fusedMultiplyAdd(a[i], b[i], c[i]);
}

extern const KernelSet kernelSet = {
    KORVO_KERNEL_NAME,
    &transf3D,
    &transformBlockBox,
    &groupFromMatches,
    &groupFromCube,
    &search<float>,
    &search<Complex>,
    &calculateVariances,
    &covarianceVariances,
    &transformVariancePlane,
    &calculateVariancePairs,
    &fftReal,
    &fftComplex,
    &FFTComplex64,
    &fusedRows,
};
}  // namespace KORVO_KERNEL_NS
