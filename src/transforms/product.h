// The general matrix product of the transforms, applied to n rows of `count`
// contiguous values at once. Internal to the transform kernel units: it lives in
// their instruction set's namespace, so each compiled copy keeps its own code.
#pragma once

#include <cstddef>

#include "common.h"
#include "fused.h"

#if !defined(KORVO_KERNEL_NS)
#error "product.h belongs to the kernel units"
#endif

namespace KORVO_KERNEL_NS {
namespace product {

// dst[i] = src[i] * f
inline void scaleRow(const float* KORVO_RESTRICT src, float f, float* KORVO_RESTRICT dst,
                     std::ptrdiff_t count) {
    for (std::ptrdiff_t i = 0; i < count; ++i) dst[i] = src[i] * f;
}

// dst[i] = fma(src[i], f, dst[i])
inline void fmaRow(const float* KORVO_RESTRICT src, float f, float* KORVO_RESTRICT dst,
                   std::ptrdiff_t count) {
    for (std::ptrdiff_t i = 0; i < count; ++i) dst[i] = fusedMultiplyAdd(src[i], f, dst[i]);
}

// Output row k = row(0)*M[k*n] followed by fused multiply-adds with row(j)*M[k*n + j]
// for j = 1..n-1 in ascending order, element by element; output rows lie
// `outStride` apart and must not overlap the input rows. `row(j)` returns the
// start of input row j. With N > 0 the size is fixed at compile time: the
// row loops unroll and every element is accumulated in a register; otherwise
// the values are accumulated in the output rows.
template <int N, class Rows>
void productOverRows(Rows row, const float* KORVO_RESTRICT m, int n, float* KORVO_RESTRICT out,
                     std::ptrdiff_t outStride, std::ptrdiff_t count) {
    if constexpr (N > 0) {
        const float* KORVO_RESTRICT in[N];
        for (int j = 0; j < N; ++j) in[j] = row(j);
        for (std::ptrdiff_t i = 0; i < count; ++i) {
            for (int k = 0; k < N; ++k) {
                float acc = in[0][i] * m[k * N];
                for (int j = 1; j < N; ++j) acc = fusedMultiplyAdd(in[j][i], m[k * N + j], acc);
                out[k * outStride + i] = acc;
            }
        }
    } else {
        // Sixteen values at a time stay in registers through all n terms; the
        // tail is accumulated in the output row. Both follow the same order.
        constexpr std::ptrdiff_t kBlock = 16;
        const std::ptrdiff_t blocked = count - count % kBlock;
        for (int k = 0; k < n; ++k) {
            const float* mk = m + static_cast<std::ptrdiff_t>(k) * n;
            float* dst = out + k * outStride;
            for (std::ptrdiff_t i0 = 0; i0 < blocked; i0 += kBlock) {
                float acc[kBlock];
                const float* r0 = row(0) + i0;
                for (std::ptrdiff_t i = 0; i < kBlock; ++i) acc[i] = r0[i] * mk[0];
                for (int j = 1; j < n; ++j) {
                    const float* rj = row(j) + i0;
                    for (std::ptrdiff_t i = 0; i < kBlock; ++i)
                        acc[i] = fusedMultiplyAdd(rj[i], mk[j], acc[i]);
                }
                for (std::ptrdiff_t i = 0; i < kBlock; ++i) dst[i0 + i] = acc[i];
            }
            if (blocked < count) {
                scaleRow(row(0) + blocked, mk[0], dst + blocked, count - blocked);
                for (int j = 1; j < n; ++j) fmaRow(row(j) + blocked, mk[j], dst + blocked, count - blocked);
            }
        }
    }
}

// The nonzero entries of an n x n matrix, row by row in column order. Skipping
// the zero terms of the product changes no value: a fused multiply-add with a
// zero product returns its addend (only the sign of an all-zero sum may differ).
struct SparseRows {
    static constexpr int kMaxN = 32;
    int n = 0;
    int start[kMaxN + 1] = {};
    int column[kMaxN * kMaxN] = {};
    float value[kMaxN * kMaxN] = {};

    // False (and nothing kept) when n is out of range or fewer than half the
    // entries are zero, where the dense loops do as well.
    bool build(const float* m, int size) {
        if (size < 1 || size > kMaxN) return false;
        int nonzero = 0;
        for (int i = 0; i < size * size; ++i) nonzero += m[i] != 0.0f;
        if (2 * nonzero > size * size) return false;
        n = size;
        int at = 0;
        for (int k = 0; k < size; ++k) {
            start[k] = at;
            for (int j = 0; j < size; ++j) {
                if (m[k * size + j] == 0.0f) continue;
                column[at] = j;
                value[at++] = m[k * size + j];
            }
        }
        start[size] = at;
        return true;
    }
};

// productOverRows<0> over the nonzero terms only, in the same order.
template <class Rows>
void sparseProductOverRows(Rows row, const SparseRows& s, float* KORVO_RESTRICT out,
                           std::ptrdiff_t outStride, std::ptrdiff_t count) {
    constexpr std::ptrdiff_t kBlock = 16;
    const std::ptrdiff_t blocked = count - count % kBlock;
    const float* in[SparseRows::kMaxN];
    for (int j = 0; j < s.n; ++j) in[j] = row(j);
    for (int k = 0; k < s.n; ++k) {
        float* dst = out + k * outStride;
        const int first = s.start[k], end = s.start[k + 1];
        if (first == end) {
            for (std::ptrdiff_t i = 0; i < count; ++i) dst[i] = 0.0f;
            continue;
        }
        const float* KORVO_RESTRICT r0 = in[s.column[first]];
        const float m0 = s.value[first];
        for (std::ptrdiff_t i0 = 0; i0 < blocked; i0 += kBlock) {
            float acc[kBlock];
            for (std::ptrdiff_t i = 0; i < kBlock; ++i) acc[i] = r0[i0 + i] * m0;
            for (int t = first + 1; t < end; ++t) {
                const float* KORVO_RESTRICT rj = in[s.column[t]] + i0;
                const float mj = s.value[t];
                for (std::ptrdiff_t i = 0; i < kBlock; ++i) acc[i] = fusedMultiplyAdd(rj[i], mj, acc[i]);
            }
            for (std::ptrdiff_t i = 0; i < kBlock; ++i) dst[i0 + i] = acc[i];
        }
        if (blocked < count) {
            scaleRow(r0 + blocked, m0, dst + blocked, count - blocked);
            for (int t = first + 1; t < end; ++t)
                fmaRow(in[s.column[t]] + blocked, s.value[t], dst + blocked, count - blocked);
        }
    }
}

// productOverRows with the common sizes (6: the larger blocks for coloured noise)
// fixed at compile time.
template <class Rows>
void productOverRowsAnySize(Rows row, const float* m, int n, float* out, std::ptrdiff_t outStride,
                            std::ptrdiff_t count) {
    switch (n) {
        case 2:
            productOverRows<2>(row, m, n, out, outStride, count);
            return;
        case 4:
            productOverRows<4>(row, m, n, out, outStride, count);
            return;
        case 6:
            productOverRows<6>(row, m, n, out, outStride, count);
            return;
        case 8:
            productOverRows<8>(row, m, n, out, outStride, count);
            return;
        default:
            productOverRows<0>(row, m, n, out, outStride, count);
            return;
    }
}

}  // namespace product
}  // namespace KORVO_KERNEL_NS
