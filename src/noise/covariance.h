// Coefficient variances of a group from a per-run table of noise covariances.
//
// The power spectrum of a group basis vector's position pattern is a double sum over
// pairs of blocks of cos(2 pi f.(r_k - r_l) / N), so the variance of coefficient
// (e, j) is the quadratic form
//     sum_k sum_l g_jk g_jl C_e((r_k - r_l) mod N),
//     C_e(d) = sum over the kept frequencies f of k3fT3[f*B + e] cos(2 pi f.d / N),
// the covariance of coefficient e between two blocks d apart. C is tabulated once
// per run for every displacement class of the working grid; a group then costs one
// B-wide multiply-add per pair of its blocks instead of m 3-D FFTs and m*M*B
// multiply-adds.
#pragma once

#include "common.h"

// The table C: B floats per displacement class d = (dx, dy, dz), 0 <= d < workSize,
// at (dx + Nx*(dy + Ny*dz)) * B + e. C(-d) = C(d), so only the classes with
// dz <= Nz/2 are kept; covarianceClass maps any class to its row.
struct CovarianceTable {
    Vec3<int> workSize{};
    Vec3<int> keptSize{};
    int b = 0;
    long rows() const;  // displacement classes kept
    long groups() const;  // lane groups: units of computeNoiseCovarianceLanes
};

inline int covarianceClass(int x, int y, int z, const Vec3<int>& w) {
    const bool flip = z > w.z / 2;
    const int fx = flip && x != 0 ? w.x - x : x;
    const int fy = flip && y != 0 ? w.y - y : y;
    const int fz = flip ? w.z - z : z;
    return fx + w.x * (fy + w.y * fz);
}

// Allocates the table (calloc; the caller frees it; null when out of memory).
float* allocateNoiseCovariance(const CovarianceTable& table);
// Fills lane group `group` of the table (each group its own coefficients, so
// groups may be filled concurrently); false when out of scratch memory.
bool computeNoiseCovarianceLanes(const float* k3fT3, const CovarianceTable& table, long group,
                                 float* out);
// Allocates and fills the whole table into `out` (null when out of memory).
// Computed in double by separable passes.
void computeNoiseCovariance(const float* k3fT3, const Vec3<int>& workSize,
                            const Vec3<int>& keptSize, int b, float*& out);

// The same variances as calculateVariances (the first m rows exactly, the remaining
// n - m rows the even share of what is left), from the table. Relative positions
// are rewritten as calculateVariances does: each becomes (r rem workSize).
template <typename T>
void covarianceVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize, int m,
                         const float* groupTransform, const float* covariance,
                         const float* localVariances, Cube4D<float>& variances,
                         BlockDistance<float>* matches, TempMemory<T>& tmp);
