// Core value types (exported in korvo/common.h) and the per-thread working memory.
#pragma once

#include <cstdlib>

#include "korvo/common.h"
#include "korvo/korvo.h"

#if defined(__GNUC__) || defined(__clang__)
#define KORVO_RESTRICT __restrict__
#else
#define KORVO_RESTRICT
#endif

// Buffers of the current group, sized once per thread for the largest group.
template <typename T>
struct Memory {
    BlockDistance<T>* matches;
    Cube4D<T> groupSpectrum;
    Cube4D<T> noisySpectrum;
    Cube4D<T> estimate;
    Cube4D<T> variances;
    float* blockVariances;
    int stackSize;
    Vec3<int> varianceExtents;
    bool allocated;

    Memory() = default;
    Memory(const Memory&) = delete;
    Memory& operator=(const Memory&) = delete;
    Memory(Memory&& other) noexcept;
    ~Memory();
};

// Scratch for transforms and noise variances, sized once per thread.
template <typename T>
struct TempMemory {
    Complex* lineA;
    Complex* lineB;
    float* memberSums;
    Cube4D<Complex> spectrum;
    Cube4D<float> halfSpectrum;  // extents (work z, work y, H, N): z first on purpose
    unsigned char* planeMask;
    T* blockA;
    T* blockB;
    T* blockC;
    int maxDimension;
    bool allocated;

    TempMemory() = default;
    TempMemory(const TempMemory&) = delete;
    TempMemory& operator=(const TempMemory&) = delete;
    TempMemory(TempMemory&& other) noexcept;
    ~TempMemory();
};

// Extent of the x axis of frequency-domain buffers: the half spectrum when the
// real FFT applies to a cubic (or flat square) working grid.
int halfSpectrumExtent(const Vec3<int>& psdWorkSize, bool useRealFft);

template <typename T>
Memory<T> allocateMemory(const Parameters& params);

template <typename T>
TempMemory<T> createTempMemory(const Parameters& params);
