// Exported helpers that prepare a noise PSD. Each hands back a malloc'ed array
// through `out` (release it with free); a failed allocation leaves it null.
#pragma once

#include "korvo/common.h"

// Trilinear resize of `psd` (extents psdSize) to newSize, scaled by the ratio of
// grid sizes; only z < extent.z and y < extent.y are filled.
KORVO_API void resizePSD(const float* psd, const Vec3<int>& psdSize, const Vec3<int>& newSize,
                         const Vec3<int>& extent, float*& out);

// Noise power per frequency and 3-D coefficient. `dims` and `kept` list the
// slowest axis of the input arrays first.
KORVO_API void calculateK3fT3(const float* psd, const float* basisSpectra,
                              const Vec3<int>& blockSize, const Vec3<int>& dims,
                              const Vec3<int>& kept, float*& out);

// Sum of each of `count` coefficients over size.x*size.y*size.z records.
KORVO_API void computeLocalVar(const float* k3fT3, const Vec3<int>& size, int count, float*& out);
