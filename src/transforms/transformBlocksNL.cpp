// The transform across a group; a kernel unit, compiled once per instruction set.
#include <algorithm>
#include <cmath>
#include <cstddef>
#include <cstring>
#include <memory>

#include "Kernels.h"
#include "transforms/product.h"

namespace KORVO_KERNEL_NS {
namespace {

using TransformsMetas::StandardTransform;
using product::productOverRowsAnySize;
using product::SparseRows;

// The sparse form of the last few large matrices this thread multiplied with,
// recognised by address and contents (a caller's table may be reused).
const SparseRows* sparseForm(const float* m, int n) {
    if (n < 16 || n > SparseRows::kMaxN) return nullptr;
    struct Entry {
        const float* source = nullptr;
        int n = 0;
        bool sparse = false;
        float copy[SparseRows::kMaxN * SparseRows::kMaxN];
        SparseRows rows;
    };
    constexpr int kEntries = 4;
    struct Cache {
        Entry entry[kEntries];
        int next = 0;
    };
    thread_local std::unique_ptr<Cache> cache;
    if (!cache) cache.reset(new Cache());
    const size_t bytes = sizeof(float) * static_cast<size_t>(n) * static_cast<size_t>(n);
    for (const Entry& e : cache->entry) {
        if (e.source == m && e.n == n && std::memcmp(e.copy, m, bytes) == 0)
            return e.sparse ? &e.rows : nullptr;
    }
    Entry& e = cache->entry[cache->next];
    cache->next = (cache->next + 1) % kEntries;
    e.source = m;
    e.n = n;
    std::memcpy(e.copy, m, bytes);
    e.sparse = e.rows.build(m, n);
    return e.sparse ? &e.rows : nullptr;
}

// Output member k = input member 0 times M[k*n], then fused multiply-adds over
// the members j = 1..n-1 in ascending order, coefficient by coefficient.
template <class Members>
void generalProduct(Members member, int n, const float* m, float* out, std::ptrdiff_t vol) {
    if (vol < 1 || n < 1) return;
    if (const SparseRows* sparse = sparseForm(m, n)) {
        product::sparseProductOverRows(member, *sparse, out, vol, vol);
        return;
    }
    productOverRowsAnySize(member, m, n, out, vol, vol);
}

constexpr int kMaxHaar = 32;
// Coefficients handled together by the Haar code; the per-level scratch of one
// chunk lives on the stack.
constexpr int kChunk = 32;

// Number of levels of an n-point Haar transform, -1 when n is not 1, 2, ..., 32.
int haarLevels(int n) {
    for (int levels = 0, size = 1; size <= kMaxHaar; ++levels, size *= 2)
        if (n == size) return levels;
    return -1;
}

// 1/sqrt(support) for the supports 2, 4, ..., 32, as exact float constants.
float haarFactor(int support) {
    switch (support) {
        case 2:
            return 0.70710677f;
        case 4:
            return 0.5f;
        case 8:
            return 0.35355338f;
        case 16:
            return 0.25f;
        default:
            return 0.17677669f;
    }
}

// One analysis step: pairwise sums (scaled by sumScale, 1 between levels) and
// scaled differences.
void analysisStep(const float* KORVO_RESTRICT a, const float* KORVO_RESTRICT b,
                  float* KORVO_RESTRICT sum, float* KORVO_RESTRICT diff, float sumScale,
                  float diffScale, int count) {
    for (int t = 0; t < count; ++t) {
        sum[t] = (a[t] + b[t]) * sumScale;
        diff[t] = (a[t] - b[t]) * diffScale;
    }
}

// One synthesis step: a coarse value plus and minus its scaled detail.
void synthesisStep(const float* KORVO_RESTRICT coarse, const float* KORVO_RESTRICT detail,
                   float* KORVO_RESTRICT even, float* KORVO_RESTRICT odd, float scale,
                   int count) {
    for (int t = 0; t < count; ++t) {
        const float d = detail[t] * scale;
        even[t] = coarse[t] + d;
        odd[t] = coarse[t] - d;
    }
}

void copyMember(const float* KORVO_RESTRICT src, float* KORVO_RESTRICT dst, std::ptrdiff_t vol) {
    for (std::ptrdiff_t i = 0; i < vol; ++i) dst[i] = src[i];
}

// Forward Haar across n = 2^L members: details go straight to their final
// members (finest support first), sums climb through two alternating sets of scratch rows.
// Output order: scaling value, then details from the widest support down.
template <class Members>
void haarForward(Members member, int n, float* out, std::ptrdiff_t vol) {
    const int levels = haarLevels(n);
    if (vol < 1 || levels < 0) return;
    if (n == 1) {
        copyMember(member(0), out, vol);
        return;
    }
    float scratch[2][kMaxHaar / 2][kChunk];
    for (std::ptrdiff_t i0 = 0; i0 < vol; i0 += kChunk) {
        const int count = static_cast<int>(std::min<std::ptrdiff_t>(kChunk, vol - i0));
        int m = n;
        for (int level = 0, support = 2; level < levels; ++level, support *= 2, m /= 2) {
            const float(*cur)[kChunk] = scratch[level % 2 == 0 ? 1 : 0];
            float(*next)[kChunk] = scratch[level % 2];
            const bool last = m == 2;
            const float f = haarFactor(support);
            for (int p = 0; p < m / 2; ++p) {
                const float* a = level == 0 ? member(2 * p) + i0 : cur[2 * p];
                const float* b = level == 0 ? member(2 * p + 1) + i0 : cur[2 * p + 1];
                float* sum = last ? out + i0 : next[p];
                analysisStep(a, b, sum, out + (m / 2 + p) * vol + i0, last ? f : 1.0f, f, count);
            }
        }
    }
}

// Inverse of haarForward: from the scaling value, each level splits every
// coarse value into two with the details of the next narrower support.
void haarInverse(const float* in, int n, float* out, std::ptrdiff_t vol) {
    const int levels = haarLevels(n);
    if (vol < 1 || levels < 0) return;
    if (n == 1) {
        copyMember(in, out, vol);
        return;
    }
    float scratch[2][kMaxHaar / 2][kChunk];
    const float top = haarFactor(n);
    for (std::ptrdiff_t i0 = 0; i0 < vol; i0 += kChunk) {
        const int count = static_cast<int>(std::min<std::ptrdiff_t>(kChunk, vol - i0));
        for (int t = 0; t < count; ++t) scratch[1][0][t] = in[i0 + t] * top;
        int m = 1;
        for (int level = 0, support = n; level < levels; ++level, support /= 2, m *= 2) {
            const float(*cur)[kChunk] = scratch[level % 2 == 0 ? 1 : 0];
            float(*next)[kChunk] = scratch[level % 2];
            const bool last = support == 2;
            const float f = haarFactor(support);
            for (int p = 0; p < m; ++p) {
                float* even = last ? out + (2 * p) * vol + i0 : next[2 * p];
                float* odd = last ? out + (2 * p + 1) * vol + i0 : next[2 * p + 1];
                synthesisStep(cur[p], in + (m + p) * vol + i0, even, odd, f, count);
            }
        }
    }
}

bool isForwardHaar(StandardTransform kind) {
    return kind >= TransformsMetas::GroupHaar4 && kind <= TransformsMetas::GroupHaar32;
}

bool isInverseHaar(StandardTransform kind) {
    return kind >= TransformsMetas::InverseGroupHaar4 &&
           kind <= TransformsMetas::InverseGroupHaar32;
}

}  // namespace

void groupFromMatches(const BlockDistance<float>* matches, int n, const float* matrix,
                      StandardTransform kind, Cube4D<float>& output, const Vec3<int>& blockSize) {
    const std::ptrdiff_t vol = static_cast<std::ptrdiff_t>(blockSize.x) * blockSize.y * blockSize.z;
    const auto member = [matches](int j) { return matches[j].block; };
    if (isForwardHaar(kind)) {
        haarForward(member, n, output.data, vol);
    } else {
        generalProduct(member, n, matrix, output.data, vol);
    }
}

void groupFromCube(const Cube4D<float>& input, int n, const float* matrix, StandardTransform kind,
                   Cube4D<float>& output, const Vec3<int>& blockSize) {
    const std::ptrdiff_t vol = static_cast<std::ptrdiff_t>(blockSize.x) * blockSize.y * blockSize.z;
    const float* data = input.data;
    const auto member = [data, vol](int j) { return data + j * vol; };
    if (isForwardHaar(kind)) {
        haarForward(member, n, output.data, vol);
    } else if (isInverseHaar(kind) && haarLevels(n) >= 0) {
        haarInverse(data, n, output.data, vol);
    } else {
        // Also the inverse Haar kinds at sizes the Haar code does not cover.
        generalProduct(member, n, matrix, output.data, vol);
    }
}

}  // namespace KORVO_KERNEL_NS
