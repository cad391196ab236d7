#include <algorithm>
#include <cstdint>
#include <vector>

#include "BlockCollection.h"
#include "Kernels.h"

namespace {
// Each thread keeps the storage of its last candidate queue, so that a search
// allocates only when the group limit grows.
template <typename T>
std::vector<BlockDistance<T>>& spareQueueStorage() {
    static thread_local std::vector<BlockDistance<T>> spare;
    return spare;
}

// Each thread's candidate storage, grown only when the group limit or the
// window grows.
template <typename T>
SearchScratch<T> searchScratch(int maxGroupSize, long positions) {
    static thread_local std::vector<std::uint64_t> keys, log;
    static thread_local std::vector<BlockDistance<T>> records;
    const size_t n = static_cast<size_t>(std::max(maxGroupSize, 1));
    if (keys.size() < n) {
        keys.resize(n);
        records.resize(n);
    }
    if (log.size() < static_cast<size_t>(positions)) log.resize(static_cast<size_t>(positions));
    return {keys.data(), records.data(), log.data()};
}

inline bool isPowerOfTwo(long n) { return n > 0 && (n & (n - 1)) == 0; }

inline auto searchKernel(const BlockCollection<float>&) { return activeKernels().searchFloat; }
inline auto searchKernel(const BlockCollection<Complex>&) { return activeKernels().searchComplex; }
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
    coll.getBlock(refPos);
    std::vector<BlockDistance<T>> storage = std::move(spareQueueStorage<T>());
    storage.clear();
    storage.reserve(static_cast<size_t>(std::max(maxGroupSize, 1)));
    BlockQueue<T> queue(std::less<BlockDistance<T>>(), std::move(storage));
    // The window's two corners carry the band checks for the whole box between them.
    if (windowStart.x <= windowEnd.x && windowStart.y <= windowEnd.y && windowStart.z <= windowEnd.z) {
        coll.getBlock(windowStart);
        coll.getBlock(windowEnd);
    }
    const CollectionView<T> view{coll.blockAtSlot(0), coll.blockElements(), coll.bufferRange()};
    const Vec3<int> span = windowEnd - windowStart + Vec3<int>{1, 1, 1};
    const long positions = static_cast<long>(std::max(span.x, 0)) * std::max(span.y, 0) * std::max(span.z, 0);
    const SearchScratch<T> scratch = searchScratch<T>(maxGroupSize, positions);
    const int kept = searchKernel(coll)(view, distanceCorrection, refPos, blockSize, searchWindow, windowStart,
                                        windowEnd, maxGroupSize, scratch);
    queue.adoptHeap(scratch.records, scratch.keys, kept);
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
    spareQueueStorage<T>() = queue.takeStorage();
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
