// Preparation of the noise PSD: resize to the working grid, multiply by the squared
// spectra of the 3-D transform basis functions, fold to the half spectrum along x.
#include "noise/psd.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace {
// 32-bit wrapping product: sizes and the normaliser are formed in 32 bits on purpose.
int wrappingProduct(int a, int b) {
    return static_cast<int>(static_cast<std::uint32_t>(a) * static_cast<std::uint32_t>(b));
}

float* mallocFloats(long count) {
    // At least one element, so that an empty array is not mistaken for a failure.
    return static_cast<float*>(std::malloc(static_cast<size_t>(std::max(count, 1L)) * sizeof(float)));
}

// Interpolation stencil of one output index along one axis; no wrap at the end.
struct Stencil {
    int lo;
    int hi;
    float w0;
    float w1;
};

Stencil stencil(int i, int newExtent, int psdExtent) {
    const float t = static_cast<float>(i) / static_cast<float>(newExtent) * static_cast<float>(psdExtent);
    const int hi = std::max(static_cast<int>(std::ceil(t)), 1);
    const int lo = hi - 1;
    return Stencil{std::min(lo, psdExtent - 1), std::min(hi, psdExtent - 1),
                   static_cast<float>(hi) - t, t - static_cast<float>(lo)};
}

// S[i][f] = |DFT_n(row i of the bs x bs matrix, zero-padded)|^2 at frequency f.
void basisPowerTable(const float* transform, int bs, int n, float* table) {
    const int taps = std::min(bs, n);
    if (taps < 1) {
        std::memset(table, 0, static_cast<size_t>(std::max(bs * n, 0)) * sizeof(float));
        return;
    }
    for (int i = 0; i < bs; ++i) {
        for (int f = 0; f < n; ++f) {
            float c = 0.0f;
            float s = 0.0f;
            for (int j = 0; j < taps; ++j) {
                const float theta = static_cast<float>(f) * 6.2831855f * static_cast<float>(j) /
                                    static_cast<float>(n);
                const float coefficient = transform[i * bs + j];
                c += coefficient * std::cos(theta);
                s += coefficient * std::sin(theta);
            }
            table[i * n + f] = std::fma(c, c, s * s);
        }
    }
}
}  // namespace

KORVO_API void resizePSD(const float* psd, const Vec3<int>& psdSize, const Vec3<int>& newSize,
                         const Vec3<int>& extent, float*& out) {
    out = static_cast<float*>(std::malloc(
        static_cast<size_t>(std::max(newSize.x, 0)) * static_cast<size_t>(std::max(newSize.y, 0)) *
        static_cast<size_t>(std::max(newSize.z, 0)) * sizeof(float)));
    if (out == nullptr || extent.z < 1 || extent.y < 1 || newSize.x < 1) {
        return;
    }
    const float scale = static_cast<float>(wrappingProduct(wrappingProduct(newSize.x, newSize.y), newSize.z)) /
                        static_cast<float>(wrappingProduct(wrappingProduct(psdSize.x, psdSize.y), psdSize.z));
    const long psdPlane = static_cast<long>(psdSize.x) * psdSize.y;
    for (int z = 0; z < extent.z; ++z) {
        const Stencil sz = stencil(z, newSize.z, psdSize.z);
        for (int y = 0; y < extent.y; ++y) {
            const Stencil sy = stencil(y, newSize.y, psdSize.y);
            // Row offsets of the four (y, z) corners, in corner order.
            const long rows[4] = {sy.lo * static_cast<long>(psdSize.x) + sz.lo * psdPlane,
                                  sy.lo * static_cast<long>(psdSize.x) + sz.hi * psdPlane,
                                  sy.hi * static_cast<long>(psdSize.x) + sz.lo * psdPlane,
                                  sy.hi * static_cast<long>(psdSize.x) + sz.hi * psdPlane};
            const float yz[4] = {sy.w0, sy.w0, sy.w1, sy.w1};
            const float zw[4] = {sz.w0, sz.w1, sz.w0, sz.w1};
            float* row = out + static_cast<long>(newSize.x) * (y + static_cast<long>(newSize.y) * z);
            for (int x = 0; x < newSize.x; ++x) {
                const Stencil sx = stencil(x, newSize.x, psdSize.x);
                const int xs[2] = {sx.lo, sx.hi};
                const float xw[2] = {sx.w0, sx.w1};
                float sum = 0.0f;
                for (int cx = 0; cx < 2; ++cx) {
                    for (int c = 0; c < 4; ++c) {
                        sum = std::fma(psd[xs[cx] + rows[c]], xw[cx] * yz[c] * zw[c], sum);
                    }
                }
                row[x] = sum * scale;
            }
        }
    }
}

KORVO_API void calculateK3fT3(const float* psd, const float* basisSpectra,
                              const Vec3<int>& blockSize, const Vec3<int>& dims,
                              const Vec3<int>& kept, float*& out) {
    const int d0 = dims.x;
    const int d1 = dims.y;
    const int d2 = dims.z;
    const int n = wrappingProduct(wrappingProduct(d0, d1), d2);
    const int b = wrappingProduct(wrappingProduct(blockSize.x, blockSize.y), blockSize.z);
    const int count = wrappingProduct(b, n);
    // A wrapped (negative) count converts to a huge size and fails like any other.
    out = static_cast<float*>(std::malloc(static_cast<size_t>(count) * sizeof(float)));
    if (out == nullptr) {
        return;
    }
    const int k0 = kept.x;
    if (d2 < 1 || k0 < 1 || d1 < 1 || blockSize.x < 1 || blockSize.y < 1 || blockSize.z < 1) {
        return;
    }
    // Kept as a 32-bit product: it wraps for grids above 46340 points.
    const float norm = static_cast<float>(wrappingProduct(n, n));
    const long bl = b;
    const long nl = n;
    // Tiles of 16 coefficients: the basis rows are then read sequentially along i2 and
    // the output written 16 contiguous values at a time. Every entry is one product
    // and one division, so the order of the loops does not change any result.
    constexpr int TILE = 16;
    for (int i0 = 0; i0 < k0; ++i0) {
        for (int i1 = 0; i1 < d1; ++i1) {
            const long gRow = d2 * (i1 + static_cast<long>(d1) * i0);
            for (int e0 = 0; e0 < b; e0 += TILE) {
                const int lanes = std::min(TILE, b - e0);
                for (int i2 = 0; i2 < d2; ++i2) {
                    const long g = i2 + gRow;
                    const float p = psd[g];
                    const float* KORVO_RESTRICT src = basisSpectra + e0 * nl + g;
                    float* KORVO_RESTRICT dst =
                        out + ((i2 * static_cast<long>(d1) + i1) * d0 + i0) * bl + e0;
                    for (int l = 0; l < lanes; ++l) {
                        dst[l] = (p * src[l * nl]) / norm;
                    }
                }
            }
        }
    }
}

template <typename T>
void computeK3fT3(const float* psd, const Vec3<int>& psdSize, Vec3<int> workSize,
                  const Vec3<int>& keptSize, const Vec3<int>& blockSize,
                  const Vec3<const float*>& transforms, float*& out) {
    float* resized = nullptr;
    resizePSD(psd, psdSize, workSize, keptSize, resized);
    if (resized == nullptr) {
        return;
    }
    const Vec3<int>& w = workSize;
    const Vec3<int>& bs = blockSize;
    float* sx = mallocFloats(static_cast<long>(bs.x) * w.x);
    float* sy = mallocFloats(static_cast<long>(bs.y) * w.y);
    float* sz = mallocFloats(static_cast<long>(bs.z) * w.z);
    const long nx = w.x;
    const long plane = nx * w.y;
    const long n = plane * w.z;
    const long b = static_cast<long>(bs.x) * bs.y * bs.z;
    float* product = mallocFloats(b * n);
    float* k3 = nullptr;
    if (sx != nullptr && sy != nullptr && sz != nullptr && product != nullptr) {
        basisPowerTable(transforms.x, bs.x, w.x, sx);
        basisPowerTable(transforms.y, bs.y, w.y, sy);
        basisPowerTable(transforms.z, bs.z, w.z, sz);
        for (int a = 0; a < bs.z; ++a) {
            for (int bb = 0; bb < bs.y; ++bb) {
                for (int c = 0; c < bs.x; ++c) {
                    const long e = c + bs.x * (bb + static_cast<long>(bs.y) * a);
                    const float* KORVO_RESTRICT rowX = sx + c * nx;
                    for (int fz = 0; fz < w.z; ++fz) {
                        const float pz = sz[a * static_cast<long>(w.z) + fz];
                        for (int fy = 0; fy < w.y; ++fy) {
                            const float py = sy[bb * static_cast<long>(w.y) + fy];
                            float* KORVO_RESTRICT dst = product + e * n + fy * nx + fz * plane;
                            for (int fx = 0; fx < w.x; ++fx) {
                                dst[fx] = (rowX[fx] * py) * pz;
                            }
                        }
                    }
                }
            }
        }
        calculateK3fT3(resized, product, blockSize, Vec3<int>{w.z, w.y, w.x},
                       Vec3<int>{keptSize.z, keptSize.y, keptSize.x}, k3);
    }
    std::free(resized);
    std::free(product);
    std::free(sx);
    std::free(sy);
    std::free(sz);
    if (k3 == nullptr) {
        return;
    }

    // Fold the discarded upper half of the x frequencies onto their mirrors. For odd
    // sizes the bounds are not an exact fold; they are kept as they are.
    const int kx = keptSize.x;
    const long kept = static_cast<long>(kx) * keptSize.y * keptSize.z;
    const long yz = static_cast<long>(w.z) * w.y;
    if (kept < n && yz >= 1) {
        const int r = w.x % 2;
        const long xPlane = yz * b;  // entries of one x frequency
        if (kx - r - 1 >= 2 && b >= 1) {
            float* KORVO_RESTRICT p = k3 + xPlane;
            const long doubled = (kx - r - 2) * xPlane;
            for (long i = 0; i < doubled; ++i) {
                p[i] = p[i] + p[i];
            }
        }
        if (kx - r < w.x) {
            const long first = std::max(kx - r, 0);
            std::memset(k3 + first * xPlane, 0, static_cast<size_t>((w.x - first) * xPlane) * sizeof(float));
        }
    }
    out = k3;
}

KORVO_API void computeLocalVar(const float* k3fT3, const Vec3<int>& size, int count,
                               float*& out) {
    out = static_cast<float*>(std::malloc(static_cast<size_t>(count) * sizeof(float)));
    if (out == nullptr || count < 1) {
        return;
    }
    const long records = static_cast<long>(size.x) * size.y * size.z;
    float* KORVO_RESTRICT sum = out;
    for (int e = 0; e < count; ++e) {
        sum[e] = 0.0f;
    }
    // Vectorised across coefficients; every coefficient still sums in increasing m.
    for (long m = 0; m < records; ++m) {
        const float* KORVO_RESTRICT record = k3fT3 + m * count;
        for (int e = 0; e < count; ++e) {
            sum[e] += record[e];
        }
    }
}

template void computeK3fT3<float>(const float*, const Vec3<int>&, Vec3<int>, const Vec3<int>&,
                                  const Vec3<int>&, const Vec3<const float*>&, float*&);
