// Preparation of the noise PSD into per-frequency, per-coefficient noise powers.
#pragma once

#include "common.h"
#include "korvo/noise.h"

// Resize, basis spectra, K3fT3 and the half-spectrum fold along x. On failure
// `out` is left as the caller set it.
template <typename T>
void computeK3fT3(const float* psd, const Vec3<int>& psdSize, Vec3<int> workSize,
                  const Vec3<int>& keptSize, const Vec3<int>& blockSize,
                  const Vec3<const float*>& transforms, float*& out);
