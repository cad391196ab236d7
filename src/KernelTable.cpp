// This instruction set's kernels, gathered for the run-time choice.
#include "Kernels.h"

namespace KORVO_KERNEL_NS {
const KernelSet kernelSet = {
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
