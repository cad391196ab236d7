// Noise variance of every coefficient of a group's 4-D spectrum under coloured noise:
// from the power spectrum of the pattern of block positions of each group basis vector,
// or as a quadratic form over the pairs of blocks in the run's covariance table.
// A kernel unit, compiled once per instruction set.
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "Kernels.h"
#include "fused.h"
#include "noise/covariance.h"

namespace KORVO_KERNEL_NS {
namespace {
constexpr int kRows = 4;     // group coefficients accumulated together
constexpr int kLanes = 16;   // block coefficients accumulated together

// Rows j < m: out[j*B + e] = sum over f of k3fT3[f*B + e] * power_j[f], each accumulated
// by fma from 0 in increasing f. Tiles of four rows by sixteen coefficients keep their
// sums in registers for the whole sweep over f; the ragged edges take the plain loop,
// which accumulates in the same order, so every element gets the same value either way.
void exactVariances(const float* k3fT3, const float* power, long planeStride, long frequencies,
                    int m, int b, float* out) {
    const int fullRows = m - m % kRows;
    const int fullLanes = b - b % kLanes;
    for (int j0 = 0; j0 < fullRows; j0 += kRows) {
        const float* p0 = power + static_cast<long>(j0) * planeStride;
        const float* p1 = p0 + planeStride;
        const float* p2 = p1 + planeStride;
        const float* p3 = p2 + planeStride;
        for (int e0 = 0; e0 < fullLanes; e0 += kLanes) {
            float a0[kLanes] = {}, a1[kLanes] = {}, a2[kLanes] = {}, a3[kLanes] = {};
            for (long f = 0; f < frequencies; ++f) {
                const float* KORVO_RESTRICT record = k3fT3 + f * b + e0;
                const float q0 = p0[f], q1 = p1[f], q2 = p2[f], q3 = p3[f];
                for (int e = 0; e < kLanes; ++e) a0[e] = fusedMultiplyAdd(record[e], q0, a0[e]);
                for (int e = 0; e < kLanes; ++e) a1[e] = fusedMultiplyAdd(record[e], q1, a1[e]);
                for (int e = 0; e < kLanes; ++e) a2[e] = fusedMultiplyAdd(record[e], q2, a2[e]);
                for (int e = 0; e < kLanes; ++e) a3[e] = fusedMultiplyAdd(record[e], q3, a3[e]);
            }
            float* o = out + static_cast<long>(j0) * b + e0;
            for (int e = 0; e < kLanes; ++e) {
                o[e] = a0[e];
                o[b + e] = a1[e];
                o[2 * b + e] = a2[e];
                o[3 * b + e] = a3[e];
            }
        }
    }
    // What the tiles leave: the last rows (all coefficients) and the last coefficients.
    auto plain = [&](int j, int eFrom) {
        float* row = out + static_cast<long>(j) * b;
        for (int e = eFrom; e < b; ++e) row[e] = 0.0f;
        const float* p = power + static_cast<long>(j) * planeStride;
        for (long f = 0; f < frequencies; ++f) {
            const float* record = k3fT3 + f * b;
            for (int e = eFrom; e < b; ++e) row[e] = fusedMultiplyAdd(record[e], p[f], row[e]);
        }
    };
    for (int j = 0; j < fullRows; ++j) {
        if (fullLanes < b) plain(j, fullLanes);
    }
    for (int j = fullRows; j < m; ++j) plain(j, 0);
}

constexpr int kPairBatch = 512;         // all pairs of a group of 32 at once
constexpr int kMemberStride = 1 << 16;  // pair (k, l) is numbered k * stride + l

struct PairBatch {
    int row[kPairBatch];     // the pair's displacement class: its row of the table
    int member[kPairBatch];  // the pair's number
    float weight[kPairBatch];
    int dx[kPairBatch], dy[kPairBatch], dz[kPairBatch];  // scratch: unwrapped displacements
    int count;
};

// row[e] += sum over the batch of weight_i * covariance[row_i * b + e] for
// e0 <= e < e0 + lanes, accumulated by fused multiply-adds in batch order. The sums
// stay in registers; with enough lanes their chains of multiply-adds overlap.
template <int lanes>
void addPairLanes(const PairBatch& batch, const float* covariance, int b, int e0, float* KORVO_RESTRICT row) {
    constexpr int kAhead = 8;  // rows fetched ahead: the table outgrows the nearer caches
    float sum[lanes];
    for (int e = 0; e < lanes; ++e) sum[e] = row[e0 + e];
    for (int i = 0; i < batch.count; ++i) {
        if (i + kAhead < batch.count) __builtin_prefetch(covariance + static_cast<long>(batch.row[i + kAhead]) * b + e0);
        const float* KORVO_RESTRICT c = covariance + static_cast<long>(batch.row[i]) * b + e0;
        const float weight = batch.weight[i];
        for (int e = 0; e < lanes; ++e) sum[e] = fusedMultiplyAdd(weight, c[e], sum[e]);
    }
    for (int e = 0; e < lanes; ++e) row[e0 + e] = sum[e];
}

void addPairs(const PairBatch& batch, const float* covariance, int b, float* row) {
    constexpr int kWide = 4 * kLanes;
    int e0 = 0;
    for (; e0 + kWide <= b; e0 += kWide) addPairLanes<kWide>(batch, covariance, b, e0, row);
    for (; e0 + kLanes <= b; e0 += kLanes) addPairLanes<kLanes>(batch, covariance, b, e0, row);
    for (; e0 < b; ++e0) addPairLanes<1>(batch, covariance, b, e0, row);
}

// Rows m <= j < n. The group transform is orthonormal: the variances of a coefficient
// over the group add up to n times its single-block variance, and what the exactly
// computed rows leave is shared evenly. `sum` holds B floats of scratch.
void shareRemainder(int n, int m, int b, const float* localVariances, float* out, float* sum) {
    for (int e = 0; e < b; ++e) {
        sum[e] = 0.0f;
    }
    for (int j = 0; j < m; ++j) {
        const float* row = out + static_cast<long>(j) * b;
        for (int e = 0; e < b; ++e) {
            sum[e] += row[e];
        }
    }
    if (n > m) {
        const float count = static_cast<float>(n);
        const float share = static_cast<float>(n - m);
        for (int j = m; j < n; ++j) {
            float* row = out + static_cast<long>(j) * b;
            for (int e = 0; e < b; ++e) {
                row[e] = fusedMultiplyAdd(count, localVariances[e], -sum[e]) / share;
            }
        }
    }
}
}  // namespace

void transformVariancePlane(const Vec3<int>& workSize, const Vec3<int>& keptSize, int m,
                            Cube4D<Complex>& grid, Cube4D<float>& power, const bool* rowMask,
                            TempMemory<float>& tmp) {
    const int nx = workSize.x;
    const int ny = workSize.y;
    const int nz = workSize.z;
    const int kx = keptSize.x;
    const long stride = tmp.maxDimension;

    // Along x: real input, and only rows that hold a block (the others are all zero).
    if (nx >= 2 && m >= 1) {
        for (int j = 0; j < m; ++j) {
            Complex* in = tmp.lineA + j * stride;
            Complex* out = tmp.lineB + j * stride;
            for (int z = 0; z < nz; ++z) {
                for (int y = 0; y < ny; ++y) {
                    if (!rowMask[y + ny * z]) {
                        continue;
                    }
                    const Complex* row = &grid.at(Vec4i{0, y, z, j});
                    std::memcpy(in, row, static_cast<size_t>(nx) * sizeof(Complex));
                    KORVO_KERNEL_NS::fftReal(nx, in, out);
                    for (int x = 0; x < nx; ++x) {
                        grid.setCoeff(Vec4i{x, y, z, j}, out[x]);
                    }
                }
            }
        }
    }
    // Along z. Only the kept x frequencies are read later, and a column whose y
    // holds no block in any plane is all zeros, which the transform leaves as they are.
    if (nz >= 2 && m >= 1) {
        constexpr int kLongestLine = 64;  // no supported transform length exceeds it
        bool columnHasBlock[kLongestLine] = {};
        const bool skipEmpty = ny <= kLongestLine;
        for (int z = 0; skipEmpty && z < nz; ++z) {
            for (int y = 0; y < ny; ++y) {
                columnHasBlock[y] = columnHasBlock[y] || rowMask[y + ny * z];
            }
        }
        const int columns = std::min(kx, nx);
        for (int j = 0; j < m; ++j) {
            Complex* in = tmp.lineA + j * stride;
            Complex* out = tmp.lineB + j * stride;
            for (int y = 0; y < ny; ++y) {
                if (skipEmpty && !columnHasBlock[y]) {
                    continue;
                }
                for (int x = 0; x < columns; ++x) {
                    for (int z = 0; z < nz; ++z) {
                        in[z] = grid.at(Vec4i{x, y, z, j});
                    }
                    KORVO_KERNEL_NS::fftComplex(nz, in, out);
                    for (int z = 0; z < nz; ++z) {
                        grid.setCoeff(Vec4i{x, y, z, j}, out[z]);
                    }
                }
            }
        }
    }
    if (m < 1 || nz < 1) {
        return;
    }
    // Along y, only over the kept x frequencies, straight to squared magnitudes.
    if (ny >= 2) {
        for (int j = 0; j < m; ++j) {
            Complex* in = tmp.lineA + j * stride;
            Complex* out = tmp.lineB + j * stride;
            for (int z = 0; z < nz; ++z) {
                for (int x = 0; x < kx; ++x) {
                    for (int y = 0; y < ny; ++y) {
                        in[y] = grid.at(Vec4i{x, y, z, j});
                    }
                    KORVO_KERNEL_NS::fftComplex(ny, in, out);
                    for (int y = 0; y < ny; ++y) {
                        power.setCoeff(Vec4i{z, y, x, j},
                                       fusedMultiplyAdd(out[y].real, out[y].real, out[y].imag * out[y].imag));
                    }
                }
            }
        }
    } else if (ny == 1) {
        for (int j = 0; j < m; ++j) {
            for (int z = 0; z < nz; ++z) {
                for (int x = 0; x < kx; ++x) {
                    const Complex v = grid.at(Vec4i{x, 0, z, j});
                    power.setCoeff(Vec4i{z, 0, x, j}, fusedMultiplyAdd(v.real, v.real, v.imag * v.imag));
                }
            }
        }
    }
}

void calculateVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize,
                        const Vec3<int>& keptSize, int m, const float* groupTransform,
                        const float* k3fT3, const float* localVariances, Cube4D<float>& variances,
                        BlockDistance<float>* matches, TempMemory<float>& tmp) {
    Cube4D<Complex>& grid = tmp.spectrum;
    Cube4D<float>& power = tmp.halfSpectrum;
    const Vec3<int>& w = workSize;

    // Only the m planes that are transformed are ever read: later group basis
    // vectors get the even share, so their patterns are neither built nor cleared.
    const int exact = std::min(m, n);
    const int planes = std::min(std::max(exact, 0), grid.size.w);
    std::memset(grid.data, 0, static_cast<size_t>(grid.slot() * planes) * sizeof(Complex));
    std::memset(tmp.planeMask, 0, static_cast<size_t>(w.y) * static_cast<size_t>(w.z));

    // Block positions on the periodic working grid, and the rows that contain one.
    for (int k = 0; k < n; ++k) {
        Vec3<int>& r = matches[k].relativePosition;
        r = Vec3<int>{r.x % w.x, r.y % w.y, r.z % w.z};
        tmp.planeMask[r.y + w.y * r.z] = 1;
    }
    // Plane j: the pattern of group basis vector j, weighted impulses at the blocks.
    for (int k = 0; k < n; ++k) {
        const Vec3<int>& r = matches[k].relativePosition;
        for (int j = 0; j < exact; ++j) {
            const Vec4i at{r.x, r.y, r.z, j};
            // Outside the cube the read is skipped, so that the setter's assertion, not
            // an out-of-bounds read, reports a cube too small for the group.
            const bool inside = r.x < grid.size.x && r.y < grid.size.y && r.z < grid.size.z &&
                                j < grid.size.w;
            Complex value = inside ? grid.at(at) : Complex{0.0f, 0.0f};
            value.real += groupTransform[j * n + k];
            grid.setCoeff(at, value);
        }
    }
    transformVariancePlane(workSize, keptSize, m, grid, power,
                           reinterpret_cast<const bool*>(tmp.planeMask), tmp);

    const int b = blockSize.x * blockSize.y * blockSize.z;
    if (b < 1) {
        return;
    }
    if (m >= 1) {
        const long frequencies = static_cast<long>(keptSize.x) * keptSize.y * keptSize.z;
        exactVariances(k3fT3, power.data, power.slot(), std::max(frequencies, 0L), m, b,
                       variances.data);
    }
    // The block-collection scratch is idle while variances are computed.
    shareRemainder(n, m, b, localVariances, variances.data, tmp.blockC);
}

void covarianceVariances(int n, const Vec3<int>& blockSize, const Vec3<int>& workSize, int m,
                         const float* groupTransform, const float* covariance,
                         const float* localVariances, Cube4D<float>& variances,
                         BlockDistance<float>* matches, TempMemory<float>& tmp) {
    const Vec3<int>& w = workSize;
    for (int k = 0; k < n; ++k) {
        Vec3<int>& r = matches[k].relativePosition;
        r = Vec3<int>{r.x % w.x, r.y % w.y, r.z % w.z};
    }
    const int b = blockSize.x * blockSize.y * blockSize.z;
    if (b < 1) {
        return;
    }
    const int exact = std::max(std::min(m, n), 0);
    float* out = variances.data;
    // Every block with itself: displacement 0, weight sum_k g_jk^2.
    for (int j = 0; j < exact; ++j) {
        float weight = 0.0f;
        for (int k = 0; k < n; ++k) {
            const float g = groupTransform[j * n + k];
            weight = fusedMultiplyAdd(g, g, weight);
        }
        float* row = out + static_cast<long>(j) * b;
        for (int e = 0; e < b; ++e) row[e] = weight * covariance[e];
    }
    // Each unordered pair once, counted twice (the covariance is even in the
    // displacement), in batches of whole rows of pairs (k, l > k).
    PairBatch batch;
    batch.count = 0;
    auto flush = [&]() {
        for (int j = 0; j < exact; ++j) {
            const float* g = groupTransform + j * n;
            for (int i = 0; i < batch.count; ++i) {
                const int pair = batch.member[i];
                batch.weight[i] = 2.0f * g[pair / kMemberStride] * g[pair % kMemberStride];
            }
            addPairs(batch, covariance, b, out + static_cast<long>(j) * b);
        }
        batch.count = 0;
    };
    const int wx = w.x, wy = w.y, wz = w.z;
    for (int k = 0; exact > 0 && k < n - 1; ++k) {
        const Vec3<int> p = matches[k].relativePosition;
        for (int from = k + 1; from < n; from += kPairBatch) {  // a row longer than a batch: in parts
            const int count = std::min(n - from, kPairBatch);
            if (batch.count + count > kPairBatch) flush();
            // Displacements wrapped into [0, N) without branches, then their table rows.
            int* KORVO_RESTRICT dx = batch.dx;
            int* KORVO_RESTRICT dy = batch.dy;
            int* KORVO_RESTRICT dz = batch.dz;
            for (int i = 0; i < count; ++i) {
                const Vec3<int>& q = matches[from + i].relativePosition;
                dx[i] = p.x - q.x;
                dy[i] = p.y - q.y;
                dz[i] = p.z - q.z;
            }
            int* KORVO_RESTRICT row = batch.row + batch.count;
            int* KORVO_RESTRICT member = batch.member + batch.count;
            for (int i = 0; i < count; ++i) {
                const int x = dx[i] + (wx & (dx[i] >> 31));
                const int y = dy[i] + (wy & (dy[i] >> 31));
                const int z = dz[i] + (wz & (dz[i] >> 31));
                row[i] = covarianceClass(x, y, z, w);
                member[i] = k * kMemberStride + from + i;
            }
            batch.count += count;
        }
    }
    flush();
    shareRemainder(n, exact, b, localVariances, out, tmp.blockC);
}

void calculateVariancePairs(const Vec3<int>& centre, const Vec3<int>& extent,
                            const Vec3<int>& blockSize, const Vec3<int>& workSize,
                            const Vec3<int>& keptSize, const float* k3fT3,
                            const float* pairTransform, float weight, float* table,
                            TempMemory<float>& tmp, int firstRow, int endRow) {
    const int b = blockSize.x * blockSize.y * blockSize.z;
    Cube4D<float> cube{{blockSize.x, blockSize.y, blockSize.z, 2},
                       static_cast<float*>(std::malloc(static_cast<size_t>(b) * 2 * sizeof(float)))};
    BlockDistance<float> records[2] = {};
    records[0].relativePosition = centre;
    const int endAt = std::min(endRow, extent.y * extent.z);
    for (int rowIndex = std::max(firstRow, 0); rowIndex < endAt; ++rowIndex) {
        const int dy = rowIndex % extent.y, dz = rowIndex / extent.y;
        for (int dx = 0; dx < extent.x; ++dx) {
            records[1].relativePosition = Vec3<int>{dx, dy, dz};
            calculateVariances(2, blockSize, workSize, keptSize, 2, pairTransform, k3fT3, nullptr, cube,
                               records, tmp);
            // The second group coefficient is the scaled difference of the two blocks.
            float s = 0.0f;
            for (int e = 0; e < b; ++e) {
                s += cube.data[b + e];
            }
            table[dx + extent.x * (dy + extent.y * dz)] = (s + s) * weight;
        }
    }
    std::free(cube.data);
}

}  // namespace KORVO_KERNEL_NS
