// This instruction set's kernels, gathered for the run-time choice (extern: a
// namespace-scope constant would otherwise stay inside this unit).
#include "Kernels.h"

namespace KORVO_KERNEL_NS {
extern const KernelSet kernelSet = {
    KORVO_KERNEL_NAME,
    &transf3D,
    &groupFromMatches,
    &groupFromCube,
    &search<float>,
    &search<Complex>,
    &calculateVariances,
    &transformVariancePlane,
    &calculateVariancePairs,
    &fftReal,
    &fftComplex,
    &FFTComplex64,
};
}  // namespace KORVO_KERNEL_NS
