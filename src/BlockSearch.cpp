// The search of block matching: the distances of every candidate of the window
// to the reference block. A kernel unit, compiled once per instruction set.
#if defined(__AVX2__)
#include <immintrin.h>
#endif

#include "Kernels.h"

namespace KORVO_KERNEL_NS {
namespace {
inline float contribution(float a, float b) {
    const float d = a - b;
    return d * d;
}
inline float contribution(const Complex& a, const Complex& b) {
    const float re = a.real - b.real;
    const float im = a.imag - b.imag;
    return re * re + im * im;
}

// Adds the contributions of coefficients [from, to) one by one, in order: the
// sums must not depend on vectorisation, or the groups would.
template <typename T>
inline float addDistance(float d, const T* KORVO_RESTRICT cand, const T* KORVO_RESTRICT ref,
                         int from, int to) {
    for (int e = from; e < to; ++e) {
        d += contribution(cand[e], ref[e]);
    }
    return d;
}

// Continues four candidates' sums over [from, to) at once: four independent
// chains keep the adder busy while each chain still adds in coefficient order.
template <typename T>
inline void addDistances4(float* d, const T* const* cand, const T* KORVO_RESTRICT ref, int from,
                          int to) {
    float d0 = d[0], d1 = d[1], d2 = d[2], d3 = d[3];
    const T* KORVO_RESTRICT c0 = cand[0];
    const T* KORVO_RESTRICT c1 = cand[1];
    const T* KORVO_RESTRICT c2 = cand[2];
    const T* KORVO_RESTRICT c3 = cand[3];
    for (int e = from; e < to; ++e) {
        d0 += contribution(c0[e], ref[e]);
        d1 += contribution(c1[e], ref[e]);
        d2 += contribution(c2[e], ref[e]);
        d3 += contribution(c3[e], ref[e]);
    }
    d[0] = d0;
    d[1] = d1;
    d[2] = d2;
    d[3] = d3;
}

// The first `to` contributions of eight candidates. Each candidate still adds its
// contributions one by one in coefficient order; with AVX the eight sums run in
// the lanes of one register, fed by an 8x8 transpose of the candidates' rows.
template <typename T>
inline void addDistances8(float* d, const T* const* cand, const T* ref, int to) {
    addDistances4(d, cand, ref, 0, to);
    addDistances4(d + 4, cand + 4, ref, 0, to);
}

#if defined(__AVX2__)
template <>
inline void addDistances8<float>(float* d, const float* const* cand, const float* ref, int to) {
    if (to % 8 != 0) {
        addDistances4(d, cand, ref, 0, to);
        addDistances4(d + 4, cand + 4, ref, 0, to);
        return;
    }
    __m256 acc = _mm256_loadu_ps(d);
    for (int e = 0; e < to; e += 8) {
        const __m256 r0 = _mm256_loadu_ps(cand[0] + e), r1 = _mm256_loadu_ps(cand[1] + e);
        const __m256 r2 = _mm256_loadu_ps(cand[2] + e), r3 = _mm256_loadu_ps(cand[3] + e);
        const __m256 r4 = _mm256_loadu_ps(cand[4] + e), r5 = _mm256_loadu_ps(cand[5] + e);
        const __m256 r6 = _mm256_loadu_ps(cand[6] + e), r7 = _mm256_loadu_ps(cand[7] + e);
        const __m256 t0 = _mm256_unpacklo_ps(r0, r1), t1 = _mm256_unpackhi_ps(r0, r1);
        const __m256 t2 = _mm256_unpacklo_ps(r2, r3), t3 = _mm256_unpackhi_ps(r2, r3);
        const __m256 t4 = _mm256_unpacklo_ps(r4, r5), t5 = _mm256_unpackhi_ps(r4, r5);
        const __m256 t6 = _mm256_unpacklo_ps(r6, r7), t7 = _mm256_unpackhi_ps(r6, r7);
        const __m256 s0 = _mm256_shuffle_ps(t0, t2, 0x44), s1 = _mm256_shuffle_ps(t0, t2, 0xEE);
        const __m256 s2 = _mm256_shuffle_ps(t1, t3, 0x44), s3 = _mm256_shuffle_ps(t1, t3, 0xEE);
        const __m256 s4 = _mm256_shuffle_ps(t4, t6, 0x44), s5 = _mm256_shuffle_ps(t4, t6, 0xEE);
        const __m256 s6 = _mm256_shuffle_ps(t5, t7, 0x44), s7 = _mm256_shuffle_ps(t5, t7, 0xEE);
        // Column k holds coefficient e + k of all eight candidates.
        const __m256 column[8] = {
            _mm256_permute2f128_ps(s0, s4, 0x20), _mm256_permute2f128_ps(s1, s5, 0x20),
            _mm256_permute2f128_ps(s2, s6, 0x20), _mm256_permute2f128_ps(s3, s7, 0x20),
            _mm256_permute2f128_ps(s0, s4, 0x31), _mm256_permute2f128_ps(s1, s5, 0x31),
            _mm256_permute2f128_ps(s2, s6, 0x31), _mm256_permute2f128_ps(s3, s7, 0x31)};
        for (int k = 0; k < 8; ++k) {
            const __m256 diff = _mm256_sub_ps(column[k], _mm256_set1_ps(ref[e + k]));
            acc = _mm256_add_ps(acc, _mm256_mul_ps(diff, diff));
        }
    }
    _mm256_storeu_ps(d, acc);
}
#endif

}  // namespace

// Once the queue is full it stays full, so from then on candidates are taken
// eight at a time for the first quarter of their sums; the decisions still run
// one candidate after another in visiting order, against the current worst.
// Candidates are read by ring slot along each row; the caller has checked that
// the window lies inside the collection's band.
template <typename T>
void search(const CollectionView<T>& coll, const float* distanceCorrection, const Vec3<int>& refPos,
            const Vec3<int>& blockSize, const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
            const Vec3<int>& windowEnd, int maxGroupSize, BlockQueue<T>& queue) {
    if (maxGroupSize == 1) {
        return;
    }
    const Vec3<int>& ring = coll.range;
    const auto blockAt = [&coll](long slot) { return coll.buffer + slot * coll.blockElements; };
    const T* ref = blockAt(refPos.x % ring.x + static_cast<long>(refPos.y % ring.y) * ring.x +
                           static_cast<long>(refPos.z % ring.z) * ring.x * ring.y);
    const int volume = blockSize.x * blockSize.y * blockSize.z;
    const int quarter = volume / 4;
    const int half = volume / 2;
    const int spanX = 2 * searchWindow.x + 1;
    const int spanY = 2 * searchWindow.y + 1;
    const long capacity = static_cast<long>(maxGroupSize) - 1;
    long size = 0;
    float worst = 0.0f;  // distance of the queue's top once it is full

    constexpr int kBatch = 8;
    const T* batchBlock[kBatch];
    float batchDistance[kBatch];
    Vec3<int> batchPosition[kBatch];
    for (int z = windowStart.z; z <= windowEnd.z; ++z) {
        for (int y = windowStart.y; y <= windowEnd.y; ++y) {
            const long rowBase =
                (static_cast<long>(z - refPos.z + searchWindow.z) * spanY + (y - refPos.y + searchWindow.y)) *
                spanX;
            const long rowSlot = static_cast<long>(y % ring.y) * ring.x +
                                 static_cast<long>(z % ring.z) * ring.x * ring.y;
            int x = windowStart.x;
            int xSlot = x % ring.x;
            while (x <= windowEnd.x) {
                int count = 0;
                const int batch = size == capacity ? kBatch : 1;
                for (; count < batch && x <= windowEnd.x; ++x) {
                    const long candidateSlot = rowSlot + xSlot;
                    if (++xSlot == ring.x) xSlot = 0;
                    if (x == refPos.x && y == refPos.y && z == refPos.z) {
                        continue;
                    }
                    batchBlock[count] = blockAt(candidateSlot);
                    batchDistance[count] = -distanceCorrection[rowBase + (x - refPos.x + searchWindow.x)];
                    batchPosition[count] = Vec3<int>{x, y, z};
                    ++count;
                }
                if (size < capacity) {
                    if (count == 1) {
                        const float d = addDistance(batchDistance[0], batchBlock[0], ref, 0, volume);
                        worst = pushCandidate(queue, {batchBlock[0], d, batchPosition[0], batchPosition[0]});
                        ++size;
                    }
                    continue;
                }
                if (count == kBatch) {
                    addDistances8(batchDistance, batchBlock, ref, quarter);
                } else {
                    for (int i = 0; i < count; ++i) {
                        batchDistance[i] = addDistance(batchDistance[i], batchBlock[i], ref, 0, quarter);
                    }
                }
                for (int i = 0; i < count; ++i) {
                    // Reject poor candidates after a quarter and a half of the sum:
                    // contributions are non-negative, so the full sum would fail too.
                    float d = batchDistance[i];
                    if (d > worst) {
                        continue;
                    }
                    d = addDistance(d, batchBlock[i], ref, quarter, half);
                    if (d > worst) {
                        continue;
                    }
                    d = addDistance(d, batchBlock[i], ref, half, volume);
                    if (!(d < worst)) {
                        continue;
                    }
                    worst = replaceWorstCandidate(queue, {batchBlock[i], d, batchPosition[i], batchPosition[i]});
                }
            }
        }
    }
}

template void search<float>(const CollectionView<float>&, const float*, const Vec3<int>&,
                            const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                            int, BlockQueue<float>&);
template void search<Complex>(const CollectionView<Complex>&, const float*, const Vec3<int>&,
                              const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                              const Vec3<int>&, int, BlockQueue<Complex>&);
}  // namespace KORVO_KERNEL_NS
