#include <algorithm>

#include "BlockCollection.h"

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

inline bool isPowerOfTwo(long n) { return n > 0 && (n & (n - 1)) == 0; }
}  // namespace

void setSearchWindow(const Vec3<int>& refPos, const Vec3<int>& searchWindow,
                     const Vec3<int>& blockSize, const Vec3<int>& imageSize,
                     Vec3<int>& windowStart, Vec3<int>& windowEnd) {
    windowStart = {std::max(refPos.x - searchWindow.x, 0), std::max(refPos.y - searchWindow.y, 0),
                   std::max(refPos.z - searchWindow.z, 0)};
    windowEnd = {std::min(refPos.x + searchWindow.x, imageSize.x - blockSize.x),
                 std::min(refPos.y + searchWindow.y, imageSize.y - blockSize.y),
                 std::min(refPos.z + searchWindow.z, imageSize.z - blockSize.z)};
}

template <typename T>
BlockQueue<T> blockMatching(const BlockCollection<T>& coll, const float* distanceCorrection,
                            const Vec3<int>& refPos, const Vec3<int>& blockSize,
                            const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
                            const Vec3<int>& windowEnd, int maxGroupSize) {
    const T* ref = coll.getBlock(refPos);
    std::vector<BlockDistance<T>> storage;
    storage.reserve(static_cast<size_t>(std::max(maxGroupSize, 1)));
    BlockQueue<T> queue(std::less<BlockDistance<T>>(), std::move(storage));
    if (maxGroupSize == 1) {
        return queue;
    }
    const int volume = blockSize.x * blockSize.y * blockSize.z;
    const int quarter = volume / 4;
    const int half = volume / 2;
    const int spanX = 2 * searchWindow.x + 1;
    const int spanY = 2 * searchWindow.y + 1;
    bool full = false;  // holds maxGroupSize - 1 candidates

    for (int z = windowStart.z; z <= windowEnd.z; ++z) {
        for (int y = windowStart.y; y <= windowEnd.y; ++y) {
            const long rowBase =
                (static_cast<long>(z - refPos.z + searchWindow.z) * spanY + (y - refPos.y + searchWindow.y)) *
                spanX;
            for (int x = windowStart.x; x <= windowEnd.x; ++x) {
                const Vec3<int> p{x, y, z};
                if (p == refPos) {
                    continue;
                }
                const T* cand = coll.getBlock(p);
                float d = -distanceCorrection[rowBase + (x - refPos.x + searchWindow.x)];
                if (!full) {
                    d = addDistance(d, cand, ref, 0, volume);
                    queue.push({cand, d, p, p});
                    full = static_cast<long>(queue.size()) == static_cast<long>(maxGroupSize) - 1;
                    continue;
                }
                // Reject poor candidates after a quarter and a half of the sum:
                // contributions are non-negative, so the full sum would fail too.
                const float worst = queue.top().distance;
                d = addDistance(d, cand, ref, 0, quarter);
                if (d > worst) {
                    continue;
                }
                d = addDistance(d, cand, ref, quarter, half);
                if (d > worst) {
                    continue;
                }
                d = addDistance(d, cand, ref, half, volume);
                if (!(d < worst)) {
                    continue;
                }
                queue.pop();
                queue.push({cand, d, p, p});
            }
        }
    }
    return queue;
}

template <typename T>
void unloadBlockQueue(int minReduceCount, float matchThreshold, Vec3<int>& minCorner,
                      BlockQueue<T>& queue, BlockDistance<T>* out, int& count) {
    // Groups of minReduceCount blocks or fewer are left as they are.
    if (minReduceCount > 0) {
        const size_t limit = static_cast<size_t>(minReduceCount - 1);
        while (queue.size() > limit) {
            if (queue.top().distance <= matchThreshold &&
                isPowerOfTwo(static_cast<long>(queue.size()) + 1)) {
                break;
            }
            queue.pop();
        }
    }
    count = static_cast<int>(queue.size());
    for (int k = count; k >= 1; --k) {
        out[k] = queue.top();
        queue.pop();
        const Vec3<int>& p = out[k].position;
        minCorner = {std::min(minCorner.x, p.x), std::min(minCorner.y, p.y),
                     std::min(minCorner.z, p.z)};
    }
    for (int k = 1; k <= count; ++k) {
        out[k].relativePosition = out[k].position - minCorner;
    }
}

template <typename T>
void getBlockMatches(const BlockCollection<T>& coll, const float* distanceCorrection,
                     const Vec3<int>& refPos, const Vec3<int>& blockSize,
                     const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
                     const Vec3<int>& windowEnd, int maxGroupSize, int minReduceCount,
                     float matchThreshold, BlockDistance<T>* out, int& count) {
    BlockQueue<T> queue = blockMatching(coll, distanceCorrection, refPos, blockSize, searchWindow,
                                        windowStart, windowEnd, maxGroupSize);
    Vec3<int> minCorner = refPos;
    unloadBlockQueue(minReduceCount, matchThreshold, minCorner, queue, out, count);
    out[0] = {coll.getBlock(refPos), 0.0f, refPos, refPos - minCorner};
    count += 1;
}

#define KORVO_INSTANTIATE_MATCHING(T)                                                            \
    template BlockQueue<T> blockMatching<T>(const BlockCollection<T>&, const float*,             \
                                            const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, \
                                            const Vec3<int>&, const Vec3<int>&, int);            \
    template void unloadBlockQueue<T>(int, float, Vec3<int>&, BlockQueue<T>&, BlockDistance<T>*, \
                                      int&);                                                     \
    template KORVO_API void getBlockMatches<T>(                                                  \
        const BlockCollection<T>&, const float*, const Vec3<int>&, const Vec3<int>&,             \
        const Vec3<int>&, const Vec3<int>&, const Vec3<int>&, int, int, float, BlockDistance<T>*, \
        int&);

KORVO_INSTANTIATE_MATCHING(float)
KORVO_INSTANTIATE_MATCHING(Complex)
