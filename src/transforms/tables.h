// Standard transform matrices, aggregation windows and the built-in transform sets.
// Matrices are row-major; an inverse is applied like a forward matrix.
#pragma once

#include "common.h"

extern const float DCT_4_FWD[16];
extern const float DCT_4_INV[16];
extern const float DCT_5_FWD[25];
extern const float DCT_5_INV[25];
extern const float DCT_8_FWD[64];
extern const float DCT_8_INV[64];
extern const float HAAR_2_FWD[4];  // 0.7071, not sqrt(1/2): the pair transform is kept as shipped
extern const float HAAR_2_INV[4];
extern const float HAAR_4_FWD[16];
extern const float HAAR_4_INV[16];
extern const float HAAR_8_FWD[64];
extern const float HAAR_8_INV[64];
extern const float HAAR_16_FWD[256];
extern const float HAAR_16_INV[256];
extern const float HAAR_32_FWD[1024];
extern const float HAAR_32_INV[1024];
extern const float HAAR_64_FWD[4096];
extern const float HAAR_64_INV[4096];
extern const float BIOR_4_FWD[16];
extern const float BIOR_4_INV[16];
extern const float BIOR_8_FWD[64];
extern const float BIOR_8_INV[64];
extern const float SIZE_2_TRANSFORM[4];
extern const float ONE[1];
extern const float ZERO[1];
extern const float KAISER_8x8[64];
extern const float KAISER_4x4x4[64];

// Per-group-size lists (index = group size, 0..64); null where no table exists.
extern const float* DEFAULT_GROUP_TRANSFORMS_FWD[65];
extern const float* DEFAULT_GROUP_TRANSFORMS_INV[65];

extern const Transforms<float> DEFAULT_TRANSFORMS_3D;      // 4x4x4, both stages
extern const Transforms<float> DEFAULT_TRANSFORMS_2D;      // 8x8x1, hard thresholding
extern const Transforms<float> DEFAULT_TRANSFORMS_2D_WIE;  // 8x8x1, Wiener

// Forces the general matrix product on all three axes.
extern const Vec3<TransformsMetas::StandardTransform> ARB_TRANSFORMS;

// Table of a standard kind (null for kinds without one).
const float* standardTransformTable(TransformsMetas::StandardTransform kind);

// Kind of a per-axis forward matrix of `size` points (15 when not standard).
template <typename T>
TransformsMetas::StandardTransform getStandardBlockTransform(const T* matrix, int size);

// Kind of a 4-point forward matrix: 0, 1 or 15.
TransformsMetas::StandardTransform getStandardTransform4(const float* matrix);

// True when every entry matches `table` within the recognition tolerance.
bool matchesTable(const float* matrix, const float* table, int count);
