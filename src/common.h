// Core value types (exported in korvo/common.h) and the per-thread working memory.
#pragma once

#include <cstdint>
#include <cstdlib>

#if defined(__x86_64__) || defined(_M_X64) || defined(__i386__)
#include <xmmintrin.h>
#endif

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

// Component `axis` (0: x, 1: y, 2: z) of v.
inline int component(const Vec3<int>& v, int axis) { return axis == 0 ? v.x : (axis == 1 ? v.y : v.z); }

// Extent of the x axis of frequency-domain buffers: the half spectrum when the
// real FFT applies to a cubic (or flat square) working grid.
int halfSpectrumExtent(const Vec3<int>& psdWorkSize, bool useRealFft);

template <typename T>
Memory<T> allocateMemory(const Parameters& params);

template <typename T>
TempMemory<T> createTempMemory(const Parameters& params);

// While alive, the calling thread treats subnormal floats as zero. Coloured-noise
// spectra reach far below the smallest normal float, and subnormal arithmetic
// costs the variance sums several times their normal speed; values that small
// carry no weight in a denoised sample.
class FlushSubnormals {
public:
    FlushSubnormals() {
#if defined(__x86_64__) || defined(_M_X64) || defined(__i386__)
        _saved = _mm_getcsr();
        _mm_setcsr(_saved | 0x8040u);  // flush-to-zero and denormals-are-zero
#elif defined(__aarch64__)
        __asm__ __volatile__("mrs %0, fpcr" : "=r"(_saved));
        __asm__ __volatile__("msr fpcr, %0" : : "r"(_saved | (std::uint64_t{1} << 24)));
#endif
    }
    ~FlushSubnormals() {
#if defined(__x86_64__) || defined(_M_X64) || defined(__i386__)
        _mm_setcsr(_saved);
#elif defined(__aarch64__)
        __asm__ __volatile__("msr fpcr, %0" : : "r"(_saved));
#endif
    }
    FlushSubnormals(const FlushSubnormals&) = delete;
    FlushSubnormals& operator=(const FlushSubnormals&) = delete;

private:
#if defined(__aarch64__)
    std::uint64_t _saved = 0;
#else
    unsigned _saved = 0;
#endif
};
