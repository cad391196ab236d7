// Exact noise variance of every coefficient of a group under coloured noise.
#pragma once

#include "common.h"

template <typename T>
void calculateVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize,
                        const Vec3<int>& keptSize, int m, const float* groupTransform,
                        const float* k3fT3, const float* localVariances, Cube4D<float>& variances,
                        BlockDistance<float>* matches, TempMemory<T>& tmp);

template <typename T>
void transformVariancePlane(const Vec3<int>& workSize, const Vec3<int>& keptSize, int m,
                            Cube4D<Complex>& grid, Cube4D<float>& power, const bool* rowMask,
                            TempMemory<T>& tmp);

// Expected squared noise distance between two blocks per search displacement,
// times `weight`.
template <typename T>
void calculateVariancePairs(const Vec3<int>& centre, const Vec3<int>& extent,
                            const Vec3<int>& blockSize, const Vec3<int>& workSize,
                            const Vec3<int>& keptSize, const float* k3fT3,
                            const float* pairTransform, float weight, float* table,
                            TempMemory<T>& tmp);
// The same for the rows dy + extent.y * dz from firstRow up to endRow only: parts
// of one table may be filled concurrently, each with its own scratch.
template <typename T>
void calculateVariancePairRows(const Vec3<int>& centre, const Vec3<int>& extent,
                               const Vec3<int>& blockSize, const Vec3<int>& workSize,
                               const Vec3<int>& keptSize, const float* k3fT3,
                               const float* pairTransform, float weight, float* table,
                               TempMemory<T>& tmp, int firstRow, int endRow);
