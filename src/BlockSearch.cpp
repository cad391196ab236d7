// The search of block matching: the distances of every candidate of the window
// to the reference block. A kernel unit, compiled once per instruction set.
#if defined(__AVX2__)
#include <immintrin.h>
#elif defined(__SSE2__) || defined(_M_X64)
#include <emmintrin.h>
#define KORVO_SEARCH_SSE 1
#endif

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <limits>
#include <utility>

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

// The candidate heap holds (distance, slot) keys in one word each and orders
// them by distance alone, so std::push_heap and std::pop_heap put every key
// exactly where they would put its 40-byte record in the queue's own heap,
// moving a fifth of the bytes per step. The search's log holds the same kind
// of word with the candidate's index in the window in place of the slot.
inline std::uint64_t heapKey(float distance, int slot) {
    std::uint32_t bits;
    std::memcpy(&bits, &distance, sizeof bits);
    return static_cast<std::uint64_t>(slot) << 32 | bits;
}
inline float keyDistance(std::uint64_t key) {
    const std::uint32_t bits = static_cast<std::uint32_t>(key);
    float distance;
    std::memcpy(&distance, &bits, sizeof distance);
    return distance;
}
inline int keySlot(std::uint64_t key) { return static_cast<int>(key >> 32); }
struct ByDistance {
    bool operator()(std::uint64_t a, std::uint64_t b) const { return keyDistance(a) < keyDistance(b); }
};

// Candidates whose sums run side by side; batches are padded to a multiple of kLanes.
constexpr int kBatch = 32;  // at most the bits of a decision mask
constexpr int kLanes = 8;

// The sums of kLanes candidates as independent chains, each still adding its
// contributions one by one in coefficient order (the sums must not depend on
// vectorisation, or the groups would): the adder is kept busy where a single
// chain would wait on every add.
template <typename T>
inline void addDistancesChains(float* d, const T* const* cand, const T* KORVO_RESTRICT ref, int volume) {
    float acc[kLanes];
    for (int i = 0; i < kLanes; ++i) acc[i] = d[i];
    for (int e = 0; e < volume; ++e) {
        for (int i = 0; i < kLanes; ++i) acc[i] += contribution(cand[i][e], ref[e]);
    }
    for (int i = 0; i < kLanes; ++i) d[i] = acc[i];
}

#if defined(__AVX2__)
// Eight candidates per register; two registers in flight cover the adder's latency.
struct Lanes {
    using V = __m256;
    static constexpr int kWidth = 8;
    static constexpr int kInFlight = 2;
    // column[k]: (cand[e + k] - ref[e + k])^2 of the eight candidates, each product
    // rounded once. Candidate i shares a register with candidate i + 4 (one per
    // 128-bit half), so that only 4x4 transposes within the halves remain.
    static void squares(const float* const* cand, const float* ref, int e, V* column) {
        for (int h = 0; h < 8; h += 4) {
            const V r = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(ref + e + h));
            V q[4];
            for (int i = 0; i < 4; ++i) {
                const V pair = _mm256_insertf128_ps(_mm256_castps128_ps256(_mm_loadu_ps(cand[i] + e + h)),
                                                    _mm_loadu_ps(cand[i + 4] + e + h), 1);
                const V diff = _mm256_sub_ps(pair, r);
                q[i] = _mm256_mul_ps(diff, diff);
            }
            const V t0 = _mm256_unpacklo_ps(q[0], q[1]), t1 = _mm256_unpackhi_ps(q[0], q[1]);
            const V t2 = _mm256_unpacklo_ps(q[2], q[3]), t3 = _mm256_unpackhi_ps(q[2], q[3]);
            column[h] = _mm256_shuffle_ps(t0, t2, 0x44);
            column[h + 1] = _mm256_shuffle_ps(t0, t2, 0xEE);
            column[h + 2] = _mm256_shuffle_ps(t1, t3, 0x44);
            column[h + 3] = _mm256_shuffle_ps(t1, t3, 0xEE);
        }
    }
    static V add(V a, V b) { return _mm256_add_ps(a, b); }
    static V load(const float* p) { return _mm256_loadu_ps(p); }
    static void store(float* p, V v) { _mm256_storeu_ps(p, v); }
    // Whether every lane is at least `bound`.
    static bool atLeast(V v, float bound) {
        return _mm256_movemask_ps(_mm256_cmp_ps(v, _mm256_set1_ps(bound), _CMP_GE_OQ)) == 0xFF;
    }
};
#define KORVO_SEARCH_LANES 1
#elif defined(KORVO_SEARCH_SSE)
// Four candidates per register.
struct Lanes {
    using V = __m128;
    static constexpr int kWidth = 4;
    static constexpr int kInFlight = 4;
    static V load(const float* p) { return _mm_loadu_ps(p); }
    static void store(float* p, V v) { _mm_storeu_ps(p, v); }
    static void squares(const float* const* cand, const float* ref, int e, V* column) {
        const V r = _mm_loadu_ps(ref + e);
        for (int i = 0; i < 4; ++i) {
            const V diff = _mm_sub_ps(_mm_loadu_ps(cand[i] + e), r);
            column[i] = _mm_mul_ps(diff, diff);
        }
        _MM_TRANSPOSE4_PS(column[0], column[1], column[2], column[3]);
    }
    static V add(V a, V b) { return _mm_add_ps(a, b); }
    static bool atLeast(V v, float bound) {
        return _mm_movemask_ps(_mm_cmpge_ps(v, _mm_set1_ps(bound))) == 0xF;
    }
};
#define KORVO_SEARCH_LANES 1
#endif

// Index of the lowest set bit of a nonzero mask.
inline int lowestBit(std::uint32_t mask) {
#if defined(__GNUC__) && defined(__AVX2__)  // the baseline set must not count with tzcnt
    return __builtin_ctz(mask);
#else
    int i = 0;
    while (!(mask & 1u)) {
        mask >>= 1;
        ++i;
    }
    return i;
#endif
}

// Asks for a block's cache lines ahead of its use.
template <typename T>
inline void prefetchBlock(const T* block, long elements) {
#if defined(KORVO_SEARCH_LANES)
    const char* bytes = reinterpret_cast<const char*>(block);
    for (long offset = 0; offset < elements * static_cast<long>(sizeof(T)); offset += 64) {
        _mm_prefetch(bytes + offset, _MM_HINT_T1);
    }
#else
    (void)block;
    (void)elements;
#endif
}

#if defined(KORVO_SEARCH_LANES)
// Coefficients [e, e + width) of one register of candidates: every lane adds its
// contributions one by one in coefficient order, exactly as the scalar sum does.
inline void addColumns(Lanes::V& acc, const float* const* cand, const float* ref, int e) {
    Lanes::V column[Lanes::kWidth];
    Lanes::squares(cand, ref, e, column);
    for (int k = 0; k < Lanes::kWidth; ++k) acc = Lanes::add(acc, column[k]);
}

// The sums of several registers of candidates, whose chains overlap. The
// registers are named one by one (not looped over) so that they stay registers.
// Once every lane is at least `bound` the rest is left out: contributions are
// non-negative, so such a sum can only end at or above it.
template <std::size_t... g>
void addDistancesLanes(std::index_sequence<g...>, float* d, const float* const* cand, const float* ref,
                       int volume, float bound) {
    constexpr int w = Lanes::kWidth;
    constexpr int kCheck = 2 * w;  // coefficients between looks at the bound
    Lanes::V acc[sizeof...(g)] = {Lanes::load(d + g * w)...};
    for (int e = 0; e < volume; e += w) {
        (addColumns(acc[g], cand + g * w, ref, e), ...);
        if ((e + w) % kCheck == 0 && e + w < volume && (Lanes::atLeast(acc[g], bound) && ...)) break;
    }
    (Lanes::store(d + g * w, acc[g]), ...);
}
#endif

// Sums of a padded batch of n candidates (n a multiple of kLanes): each the
// full sum, or (vector lanes only) a partial one at least `bound`.
template <typename T>
inline void addDistancesBatch(float* d, const T* const* cand, const T* ref, int volume, int n,
                              float /*bound*/) {
    for (int i = 0; i < n; i += kLanes) addDistancesChains(d + i, cand + i, ref, volume);
}

#if defined(KORVO_SEARCH_LANES)
template <>
inline void addDistancesBatch<float>(float* d, const float* const* cand, const float* ref, int volume, int n,
                                     float bound) {
    constexpr int w = Lanes::kWidth;
    if (volume % w != 0) {
        for (int i = 0; i < n; i += kLanes) addDistancesChains(d + i, cand + i, ref, volume);
        return;
    }
    int i = 0;
    for (; i + Lanes::kInFlight * w <= n; i += Lanes::kInFlight * w) {
        addDistancesLanes(std::make_index_sequence<Lanes::kInFlight>(), d + i, cand + i, ref, volume, bound);
    }
    for (; i < n; i += w) {
        addDistancesLanes(std::make_index_sequence<1>(), d + i, cand + i, ref, volume, bound);
    }
}
#endif

// How a search keeps its candidates. Sorted: by descending distance, the worst
// first, which is also a heap; every accepted candidate is logged. Heap: the
// standard heap, exactly as the queue builds it.
enum class Keep { Sorted, Heap };

// A push, or a pop then a push, exactly as the queue makes them.
inline void heapAdd(std::uint64_t* keys, long& size, long capacity, std::uint64_t key) {
    if (size < capacity) {
        keys[size++] = key;
    } else {
        std::pop_heap(keys, keys + size, ByDistance());  // the worst goes last; its slot is free
        keys[size - 1] = key;
    }
    std::push_heap(keys, keys + size, ByDistance());
}

// Candidates are gathered in batches whose full sums run side by side; the
// decisions still run one candidate after another in visiting order (the first
// ones fill the queue, later ones compete with the current worst). Each sum is
// exactly the one-by-one sum, and a sum that a partial check would have rejected
// fails the full check too (contributions are non-negative), so the queue ends
// as a one-at-a-time search with early rejection leaves it.
// Candidates are read by ring slot along each row; the caller has checked that
// the window lies inside the collection's band.
// Returns the number kept, or -1 where a Sorted search accepted a NaN distance.
template <Keep keep, typename T>
int searchKept(const CollectionView<T>& coll, const float* distanceCorrection, const Vec3<int>& refPos,
               const Vec3<int>& blockSize, const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
               const Vec3<int>& windowEnd, int maxGroupSize, const SearchScratch<T>& scratch) {
    const Vec3<int>& ring = coll.range;
    const auto blockAt = [&coll](long slot) { return coll.buffer + slot * coll.blockElements; };
    const T* ref = blockAt(refPos.x % ring.x + static_cast<long>(refPos.y % ring.y) * ring.x +
                           static_cast<long>(refPos.z % ring.z) * ring.x * ring.y);
    const int volume = blockSize.x * blockSize.y * blockSize.z;
    const int spanX = 2 * searchWindow.x + 1;
    const int spanY = 2 * searchWindow.y + 1;
    const long capacity = static_cast<long>(maxGroupSize) - 1;
    long size = 0;
    float worst = 0.0f;  // distance of the worst kept candidate once the queue is full

    // Two batches: one is summed while the decisions of the one before run, so
    // the branchy decisions overlap the tail of the sums instead of waiting on it.
    struct Batch {
        const T* block[kBatch];
        float distance[kBatch];
        Vec3<int> position[kBatch];
        int count;
    };
    Batch batches[2];
    const auto sum = [&](Batch& b) {
        // Padding lanes read the reference block; their sums are not looked at
        // (and, infinite, never keep a register from stopping early).
        const int padded = (b.count + kLanes - 1) / kLanes * kLanes;
        for (int i = b.count; i < padded; ++i) {
            b.block[i] = ref;
            b.distance[i] = std::numeric_limits<float>::infinity();
        }
        // With the queue full, a candidate is taken only below the worst, which
        // only drops: a sum that reaches the worst of now is decided already.
        const float bound = size == capacity ? worst : std::numeric_limits<float>::infinity();
        addDistancesBatch(b.distance, b.block, ref, volume, padded, bound);
    };
    std::uint64_t* const keys = scratch.keys;  // Sorted: by descending distance
    // Sorted: every accepted candidate as (distance, index in the window), in order.
    std::uint64_t* const log = scratch.log;
    long logged = 0;
    const int windowX = windowEnd.x - windowStart.x + 1, windowY = windowEnd.y - windowStart.y + 1;
    const auto windowIndex = [&](const Vec3<int>& p) {
        return ((p.z - windowStart.z) * windowY + (p.y - windowStart.y)) * windowX + (p.x - windowStart.x);
    };
    bool tied = false, notANumber = false;
    // The slot of a new record: the next free one, or the leaving worst's.
    const auto take = [&](const T* block, float d, const Vec3<int>& p) {
        const int slot = size < capacity ? static_cast<int>(size) : keySlot(keys[0]);
        scratch.records[slot] = BlockDistance<T>{block, d, p, p};
        return heapKey(d, slot);
    };
    // Sorted: where the kept distances are distinct the queue keeps the same
    // candidates (its decisions read only the worst distance, and it always
    // drops the one candidate there) and any heap of them pops in the same order.
    // A distance met twice marks the search for a replay of the log on the heap.
    const auto add = [&](const Batch& b, int i) {
        const float d = b.distance[i];
        if constexpr (keep == Keep::Heap) {
            heapAdd(keys, size, capacity, take(b.block[i], d, b.position[i]));
        } else {
            log[logged++] = heapKey(d, windowIndex(b.position[i]));
            const std::uint64_t key = take(b.block[i], d, b.position[i]);
            notANumber |= d != d;
            const auto at = [keys](long k) { return keyDistance(keys[k]); };
            long m = size;
            if (size < capacity) {
                for (; m > 0 && at(m - 1) < d; --m) keys[m] = keys[m - 1];
                tied |= m > 0 && at(m - 1) == d;
                ++size;
            } else {  // the worst, keys[0], leaves
                for (m = 1; m < size && at(m) > d; ++m) keys[m - 1] = keys[m];
                tied |= m < size && at(m) == d;
                --m;
            }
            keys[m] = key;
        }
        worst = keyDistance(keys[0]);
    };
    const auto decide = [&](const Batch& b) {
        int i = 0;
        for (; i < b.count && size < capacity; ++i) add(b, i);
        // The worst only drops as candidates are taken, so a candidate not below
        // it now never gets in: only the others are looked at, in order.
        std::uint32_t below = 0;
        for (int k = i; k < b.count; ++k) below |= static_cast<std::uint32_t>(b.distance[k] < worst) << k;
        for (; below != 0; below &= below - 1) {
            const int k = lowestBit(below);
            if (b.distance[k] < worst) add(b, k);
        }
    };
    Batch* filling = &batches[0];
    Batch* pending = nullptr;  // summed, not yet decided
    filling->count = 0;
    for (int z = windowStart.z; z <= windowEnd.z; ++z) {
        for (int y = windowStart.y; y <= windowEnd.y; ++y) {
            // Index of the correction of (x, y, z) is rowCorrection + x.
            const long rowCorrection =
                (static_cast<long>(z - refPos.z + searchWindow.z) * spanY + (y - refPos.y + searchWindow.y)) * spanX +
                (searchWindow.x - refPos.x);
            const long rowSlot = static_cast<long>(y % ring.y) * ring.x +
                                 static_cast<long>(z % ring.z) * ring.x * ring.y;
            const int skipX = y == refPos.y && z == refPos.z ? refPos.x : -1;  // the reference itself
            // The row visited next, fetched while this one is summed: the band is
            // mostly beyond the inner caches, and the sums would wait on it.
            const int nextY = y < windowEnd.y ? y + 1 : windowStart.y;
            const int nextZ = y < windowEnd.y ? z : z + 1;
            const long nextRowSlot = static_cast<long>(nextY % ring.y) * ring.x +
                                     static_cast<long>(nextZ % ring.z) * ring.x * ring.y;
            int xSlot = windowStart.x % ring.x;
            for (int x = windowStart.x; x <= windowEnd.x; ++x) {
                const long candidateSlot = rowSlot + xSlot;
                prefetchBlock(blockAt(nextRowSlot + xSlot), coll.blockElements);
                if (++xSlot == ring.x) xSlot = 0;
                if (x == skipX) {
                    continue;
                }
                const T* block = blockAt(candidateSlot);
                const float start = -distanceCorrection[rowCorrection + x];
                const int i = filling->count;
                filling->block[i] = block;
                filling->distance[i] = start;
                filling->position[i] = Vec3<int>{x, y, z};
                if (++filling->count == kBatch) {
                    sum(*filling);
                    if (pending) decide(*pending);
                    pending = filling;
                    filling = filling == &batches[0] ? &batches[1] : &batches[0];
                    filling->count = 0;
                }
            }
        }
    }
    if (filling->count > 0) sum(*filling);
    if (pending) decide(*pending);
    decide(*filling);
    if constexpr (keep == Keep::Sorted) {
        if (notANumber) return -1;  // the heap's order with a NaN is its own
        if (tied) {
            size = 0;
            for (long j = 0; j < logged; ++j) {
                const int w = keySlot(log[j]);
                const Vec3<int> p{windowStart.x + w % windowX, windowStart.y + w / windowX % windowY,
                                  windowStart.z + w / (windowX * windowY)};
                const T* block = blockAt(p.x % ring.x + static_cast<long>(p.y % ring.y) * ring.x +
                                         static_cast<long>(p.z % ring.z) * ring.x * ring.y);
                heapAdd(keys, size, capacity, take(block, keyDistance(log[j]), p));
            }
        }
    }
    for (long k = 0; k < size; ++k) keys[k] = static_cast<std::uint64_t>(keySlot(keys[k]));
    return static_cast<int>(size);
}

}  // namespace

template <typename T>
int search(const CollectionView<T>& coll, const float* distanceCorrection, const Vec3<int>& refPos,
           const Vec3<int>& blockSize, const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
           const Vec3<int>& windowEnd, int maxGroupSize, const SearchScratch<T>& scratch) {
    if (maxGroupSize <= 1) {  // no room beside the reference (and none for a heap below zero)
        return 0;
    }
    const int kept = searchKept<Keep::Sorted>(coll, distanceCorrection, refPos, blockSize, searchWindow,
                                              windowStart, windowEnd, maxGroupSize, scratch);
    if (kept >= 0) return kept;
    return searchKept<Keep::Heap>(coll, distanceCorrection, refPos, blockSize, searchWindow, windowStart,
                                  windowEnd, maxGroupSize, scratch);
}

template int search<float>(const CollectionView<float>&, const float*, const Vec3<int>&,
                           const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                           int, const SearchScratch<float>&);
template int search<Complex>(const CollectionView<Complex>&, const float*, const Vec3<int>&,
                             const Vec3<int>&, const Vec3<int>&, const Vec3<int>&,
                             const Vec3<int>&, int, const SearchScratch<Complex>&);
}  // namespace KORVO_KERNEL_NS
