// Pre-transformed blocks of a band of the volume, kept in a ring buffer so the
// band can slide with the reference position, and the block matching over them.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <functional>
#include <queue>
#include <vector>

#include "ImageData.h"
#include "common.h"
#include "korvo/matching.h"

// Where loaded blocks go: the slots of a ring-addressed band.
struct BlockRing {
    float* buffer;
    long blockElements;
    Vec3<int> range;
};

// Blocks loaded together are transformed a tile at a time: one x position, at most
// kBoxTile positions along y and z. The floats of scratch one tile needs: the x
// pass of its image rows, then the y pass of its block columns.
constexpr int kBoxTile = 16;
inline long boxScratchFloats(const Vec3<int>& b) {
    const long rowsY = kBoxTile + b.y - 1, planesZ = kBoxTile + b.z - 1;
    return rowsY * planesZ * b.x + static_cast<long>(kBoxTile) * planesZ * b.x * b.y;
}

template <typename T>
class BlockCollection {
public:
    BlockCollection() = default;
    BlockCollection(const BlockCollection&) = delete;
    BlockCollection& operator=(const BlockCollection&) = delete;
    ~BlockCollection() { std::free(_buffer); }

    // Ring addressing on every axis: a position keeps its slot while it stays in
    // the band, so sliding never moves stored blocks.
    long slot(const Vec3<int>& p) const {
        const Vec3<int>& r = _bufferRange;
        return static_cast<long>(p.x % r.x) + static_cast<long>(p.y % r.y) * r.x +
               static_cast<long>(p.z % r.z) * r.x * r.y;
    }

    const T* getBlock(const Vec3<int>& coords) const {
        KORVO_ASSERT(coords >= _bufferStart);
        KORVO_ASSERT(coords < _bufferStart + _bufferRange);
        return _buffer + slot(coords) * _blockElements;
    }

    const T* blockAtSlot(long slotIndex) const { return _buffer + slotIndex * _blockElements; }

    bool getHasData() const { return _hasData; }
    const Vec3<int>& bufferStart() const { return _bufferStart; }
    const Vec3<int>& bufferRange() const { return _bufferRange; }
    long blockCount() const { return _blockCount; }
    long blockElements() const { return _blockElements; }

    // For callers that fill the slots themselves (after allocate): declares the
    // band the buffer holds.
    void setBand(const Vec3<int>& start, const Vec3<int>& range) {
        _bufferStart = start;
        _bufferRange = range;
    }

    // Sizes the buffer for blockCount slots (reusing the old one); null and a
    // message on the error stream on failure.
    T* allocate(long blockCount, long blockElements, long& totalElements);
    // Slots of the largest band of half extents `band` around any position
    // (the whole image on an axis where the band covers it).
    static long long bandBlockCount(const Vec3<int>& imageSize, const Vec3<int>& blockSize,
                                    const Vec3<int>& band);
    // Sizes the buffer for the largest band a worker can need.
    T* allocate(const Vec3<int>& imageSize, const Vec3<int>& blockSize,
                const Vec3<int>& searchWindow);

    // Fills the band around pos from scratch and transforms it (spread over the
    // pool when called outside a loop job). False when there is no buffer.
    bool extractInitial(const ImageData<float>& image, const Vec3<int>& pos,
                        const Vec3<int>& blockSize, const Vec3<const float*>& transforms,
                        const Vec3<TransformsMetas::StandardTransform>& kinds, bool allocate,
                        TempMemory<float>& memory, const Vec3<int>& searchWindow);

    // Slides the band forward by step, loading and transforming only the blocks
    // that enter it.
    void moveInImage(const ImageData<float>& image, const Vec3<int>& step,
                     const Vec3<int>& blockSize, const Vec3<const float*>& transforms,
                     TempMemory<float>& memory);

private:
    // Loads and transforms the blocks at lo <= p < hi into their slots.
    void loadBox(const ImageData<float>& image, const Vec3<int>& lo, const Vec3<int>& hi,
                 const Vec3<int>& blockSize, const Vec3<const float*>& transforms,
                 const Vec3<TransformsMetas::StandardTransform>& kinds, float* scratch);
    float* boxScratch(int tiles, const Vec3<int>& blockSize);

    bool _hasData = false;
    T* _buffer = nullptr;
    long _blockCount = 0;
    long _blockElements = 0;
    Vec3<int> _bufferRange{};
    Vec3<int> _bufferStart{};
    std::vector<float> _scratch;  // grows once, then serves every load
};

// The block of `image` at p, read and transformed into dst (the transform's two
// scratch blocks given): what a collection would hold for it.
void transformedBlock(const ImageData<float>& image, const Vec3<int>& p, const Vec3<int>& blockSize,
                      const Vec3<const float*>& transforms,
                      const Vec3<TransformsMetas::StandardTransform>& kinds, float* scratchA,
                      float* scratchB, float* dst);

// Candidates of one search, worst kept candidate on top. Its storage can be
// taken back once the queue is spent, so that searches reuse one allocation.
template <typename T>
class BlockQueue
    : public std::priority_queue<BlockDistance<T>, std::vector<BlockDistance<T>>, std::less<BlockDistance<T>>> {
public:
    using std::priority_queue<BlockDistance<T>, std::vector<BlockDistance<T>>,
                              std::less<BlockDistance<T>>>::priority_queue;
    std::vector<BlockDistance<T>> takeStorage() {
        this->c.clear();
        return std::move(this->c);
    }
    // The records at `slots`, in heap order for this queue's comparison: as
    // std::push_heap and std::pop_heap built it where distances tie, else by
    // descending distance (a heap too, and with distinct distances any heap of
    // the same records pops in the same order).
    void adoptHeap(const BlockDistance<T>* records, const std::uint64_t* slots, int count) {
        this->c.clear();
        for (int k = 0; k < count; ++k) this->c.push_back(records[slots[k]]);
    }
};

// The best maxGroupSize - 1 candidates of the window around refPos.
template <typename T>
BlockQueue<T> blockMatching(const BlockCollection<T>& coll, const float* distanceCorrection,
                            const Vec3<int>& refPos, const Vec3<int>& blockSize,
                            const Vec3<int>& searchWindow, const Vec3<int>& windowStart,
                            const Vec3<int>& windowEnd, int maxGroupSize);

// Trims the candidates to a power-of-two group within the threshold and writes
// them to out[1 ..] by ascending distance.
template <typename T>
void unloadBlockQueue(int minReduceCount, float matchThreshold, Vec3<int>& minCorner,
                      BlockQueue<T>& queue, BlockDistance<T>* out, int& count);
