#include "BlockCollection.h"

#include <algorithm>
#include <cmath>
#include <cstddef>
#include <iostream>

#include "Kernels.h"
#include "korvo/Threading.h"
#include "transforms/tables.h"
#include "transforms/transf3D.h"

namespace {
// Every component at least s.
bool operator>=(const Vec3<int>& v, int s) { return v.x >= s && v.y >= s && v.z >= s; }

// One axis of the band around pos: one position beyond the search window on
// each side, computed from the clamped start.
void bandAxis(int pos, int radius, int imageExtent, int blockExtent, int& start, int& end) {
    start = std::min(std::max(pos - radius - 1, 0), imageExtent - 1);
    end = std::min(start + 2 * radius + 2, imageExtent - blockExtent);
}

// Rows of W values (w when W is 0), `rowStride` apart in planes `planeStride` apart,
// packed one after another into dst.
template <int W>
void copyRows(const float* KORVO_RESTRICT src, std::ptrdiff_t rowStride, std::ptrdiff_t planeStride,
              int w, int h, int d, float* KORVO_RESTRICT dst) {
    const int width = W > 0 ? W : w;
    for (int k = 0; k < d; ++k) {
        for (int j = 0; j < h; ++j) {
            const float* row = src + k * planeStride + j * rowStride;
            for (int i = 0; i < width; ++i) dst[i] = row[i];
            dst += width;
        }
    }
}

// Raw voxels of the block at p into dst, x fastest. The checked accessor vouches
// for the block's first and last voxels, and so for every voxel between them.
void copyBlock(const ImageData<float>& image, const Vec3<int>& p, const Vec3<int>& blockSize,
               float* KORVO_RESTRICT dst) {
    const float* first = &image.at(p);
    image.at(p + blockSize - Vec3<int>{1, 1, 1});
    const std::ptrdiff_t rowStride = image.size().x;
    const std::ptrdiff_t planeStride = rowStride * image.size().y;
    switch (blockSize.x) {
        case 4:
            copyRows<4>(first, rowStride, planeStride, 4, blockSize.y, blockSize.z, dst);
            return;
        case 8:
            copyRows<8>(first, rowStride, planeStride, 8, blockSize.y, blockSize.z, dst);
            return;
        default:
            copyRows<0>(first, rowStride, planeStride, blockSize.x, blockSize.y, blockSize.z, dst);
            return;
    }
}

// Visits the positions lo <= p < hi, z outermost and x innermost, each with its
// ring slot for a band of `range` positions per axis.
template <class Visit>
void forEachSlot(const Vec3<int>& lo, const Vec3<int>& hi, const Vec3<int>& range, Visit visit) {
    for (int z = lo.z; z < hi.z; ++z) {
        for (int y = lo.y; y < hi.y; ++y) {
            const long row = static_cast<long>(y % range.y) * range.x +
                             static_cast<long>(z % range.z) * range.x * range.y;
            for (int x = lo.x, sx = lo.x % range.x; x < hi.x; ++x, sx = sx + 1 == range.x ? 0 : sx + 1) {
                visit(Vec3<int>{x, y, z}, row + sx);
            }
        }
    }
}
}  // namespace

template <typename T>
T* BlockCollection<T>::allocate(long blockCount, long blockElements, long& totalElements) {
    _blockCount = blockCount;
    _blockElements = blockElements;
    totalElements = blockCount * blockElements;
    const size_t bytes = static_cast<size_t>(totalElements) * sizeof(T);
    _buffer = static_cast<T*>(_buffer != nullptr ? std::realloc(_buffer, bytes) : std::malloc(bytes));
    if (_buffer == nullptr) {
        std::cerr << "Failed to allocate block memory! \n"
                     "If profile.split_block_extraction is set to [False, False, False], this is "
                     "likely fixed by \n"
                     "setting the value to [False, False, True] or, if still failing, [False, True, "
                     "True]. \n"
                     "pro = KORVOProfile(); pro.split_block_extraction = [False, False, True]; y_est "
                     "= korvo(z, psd, pro);"
                  << std::endl;
    }
    return _buffer;
}

template <typename T>
long long BlockCollection<T>::bandBlockCount(const Vec3<int>& imageSize, const Vec3<int>& blockSize,
                                             const Vec3<int>& band) {
    // One position beyond the band on each side, at most every position of the image.
    auto positions = [](int window, int image, int block) {
        return std::min(2LL * window + 2, static_cast<long long>(image) - block) + 1;
    };
    return positions(band.x, imageSize.x, blockSize.x) * positions(band.y, imageSize.y, blockSize.y) *
           positions(band.z, imageSize.z, blockSize.z);
}

template <typename T>
T* BlockCollection<T>::allocate(const Vec3<int>& imageSize, const Vec3<int>& blockSize,
                                const Vec3<int>& searchWindow) {
    KORVO_ASSERT(blockSize.x <= imageSize.x && blockSize.y <= imageSize.y &&
                 blockSize.z <= imageSize.z);
    const int blockCount = static_cast<int>(bandBlockCount(imageSize, blockSize, searchWindow));
    KORVO_ASSERT(blockCount > 0);
    long total = 0;
    return allocate(blockCount, static_cast<long>(blockSize.x) * blockSize.y * blockSize.z, total);
}

template <typename T>
bool BlockCollection<T>::extractInitial(const ImageData<float>& image, const Vec3<int>& pos,
                                            const Vec3<int>& blockSize,
                                            const Vec3<const float*>& transforms,
                                            const Vec3<TransformsMetas::StandardTransform>& kinds,
                                            bool allocate, TempMemory<float>& /*memory*/,
                                            const Vec3<int>& searchWindow) {
    const long blockVolume = static_cast<long>(blockSize.x) * blockSize.y * blockSize.z;
    const Vec3<int>& size = image.size();
    KORVO_ASSERT(pos.x >= 0 && pos.y >= 0 && pos.z >= 0);
    KORVO_ASSERT(blockSize.x <= size.x && blockSize.y <= size.y && blockSize.z <= size.z);

    Vec3<int> start{};
    Vec3<int> end{};
    bandAxis(pos.x, searchWindow.x, size.x, blockSize.x, start.x, end.x);
    bandAxis(pos.y, searchWindow.y, size.y, blockSize.y, start.y, end.y);
    bandAxis(pos.z, searchWindow.z, size.z, blockSize.z, start.z, end.z);
    KORVO_ASSERT(start >= 0);
    KORVO_ASSERT(end + blockSize <= size);

    const Vec3<int> range = end - start + Vec3<int>{1, 1, 1};
    const long blockCount = static_cast<long>(range.x) * range.y * range.z;
    KORVO_ASSERT(blockCount > 0);
    _bufferStart = start;
    _bufferRange = range;

    if (allocate) {
        long total = 0;
        if (this->allocate(blockCount, blockVolume, total) == nullptr) {
            return false;
        }
    } else if (_buffer == nullptr) {
        return false;
    }

    // Thread index t takes a share of the band along its longest axis.
    const int n = ThreadPool::THREAD_POOL.getNumThreads();
    float* const scratch = boxScratch(n, blockSize);
    const long scratchFloats = boxScratchFloats(blockSize);
    int Vec3<int>::*const axis = range.x >= range.y && range.x >= range.z ? &Vec3<int>::x
                                 : range.y >= range.z                     ? &Vec3<int>::y
                                                                          : &Vec3<int>::z;
    const int share = (range.*axis + n - 1) / n;
    const std::function<void(int)> job = [&](int t) {
        Vec3<int> lo = start;
        Vec3<int> hi = end + Vec3<int>{1, 1, 1};
        lo.*axis = start.*axis + t * share;
        hi.*axis = std::min(lo.*axis + share, hi.*axis);
        if (lo.*axis < hi.*axis) loadBox(image, lo, hi, blockSize, transforms, kinds, scratch + t * scratchFloats);
    };
    ThreadPool::THREAD_POOL.newLoopJob(job);

    _hasData = true;
    return true;
}

template <typename T>
void BlockCollection<T>::moveInImage(const ImageData<float>& image, const Vec3<int>& step,
                                         const Vec3<int>& blockSize,
                                         const Vec3<const float*>& transforms,
                                         TempMemory<float>& /*memory*/) {
    const Vec3<int>& size = image.size();
    // Per axis: the slab entering the band on a moving axis, the whole band otherwise.
    auto span = [](int d, int start, int range, int imageExtent, int blockExtent, int& lo, int& hi) {
        if (d != 0) {
            lo = start + range;
            hi = std::min(lo + d, imageExtent - blockExtent + 1);
        } else {
            lo = start;
            hi = start + range;
        }
    };
    Vec3<int> lo{};
    Vec3<int> hi{};
    span(step.x, _bufferStart.x, _bufferRange.x, size.x, blockSize.x, lo.x, hi.x);
    span(step.y, _bufferStart.y, _bufferRange.y, size.y, blockSize.y, lo.y, hi.y);
    span(step.z, _bufferStart.z, _bufferRange.z, size.z, blockSize.z, lo.z, hi.z);

    if (hi.x > lo.x && hi.y > lo.y && hi.z > lo.z) {
        // Entering blocks always take the general product.
        loadBox(image, lo, hi, blockSize, transforms, ARB_TRANSFORMS, boxScratch(1, blockSize));
    }
    _bufferStart = _bufferStart + step;
}

template <typename T>
float* BlockCollection<T>::boxScratch(int tiles, const Vec3<int>& blockSize) {
    const size_t floats = static_cast<size_t>(tiles) * static_cast<size_t>(boxScratchFloats(blockSize));
    if (_scratch.size() < floats) _scratch.resize(floats);
    return _scratch.data();
}

template <typename T>
void BlockCollection<T>::loadBox(const ImageData<float>& image, const Vec3<int>& lo, const Vec3<int>& hi,
                                 const Vec3<int>& blockSize, const Vec3<const float*>& transforms,
                                 const Vec3<TransformsMetas::StandardTransform>& kinds, float* scratch) {
    // The checked accessor vouches for the box's first and last voxels.
    image.at(lo);
    image.at(hi + blockSize - Vec3<int>{2, 2, 2});
    const BlockRing ring{_buffer, _blockElements, _bufferRange};
    if (activeKernels().transformBlockBox(image.data(), image.size(), lo, hi - lo, blockSize, transforms,
                                          kinds, ring, scratch)) {
        return;
    }
    // Butterfly kinds: block by block, each transformed right after its copy.
    const long blockVolume = static_cast<long>(blockSize.x) * blockSize.y * blockSize.z;
    forEachSlot(lo, hi, _bufferRange, [&](const Vec3<int>& p, long s) {
        T* block = _buffer + s * _blockElements;
        copyBlock(image, p, blockSize, block);
        transf3D<float>(block, transforms, kinds, scratch, scratch + blockVolume, block, blockSize);
    });
}

void transformedBlock(const ImageData<float>& image, const Vec3<int>& p, const Vec3<int>& blockSize,
                      const Vec3<const float*>& transforms,
                      const Vec3<TransformsMetas::StandardTransform>& kinds, float* scratchA,
                      float* scratchB, float* dst) {
    copyBlock(image, p, blockSize, dst);
    transf3D<float>(dst, transforms, kinds, scratchA, scratchB, dst, blockSize);
}

template class BlockCollection<float>;
template Complex* BlockCollection<Complex>::allocate(long, long, long&);
