#include "common.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <new>
#include <utility>

namespace korvo_detail {
void assertionFailed(const char* expression, const char* function, const char* file,
                     int line) noexcept {
    const char* base = std::strrchr(file, '/');
    base = base != nullptr ? base + 1 : file;
    std::fprintf(stderr, "Assertion failed: (%s), function %s, file %s, line %d.\n", expression,
                 function, base, line);
    std::fflush(stderr);
    std::abort();
}
}  // namespace korvo_detail

int halfSpectrumExtent(const Vec3<int>& w, bool useRealFft) {
    if (useRealFft && w.x == w.y && (w.z == w.x || w.z == 1)) {
        // ceil in single precision, the offset in double; odd sizes keep one extra entry.
        return static_cast<int>(static_cast<double>(std::ceil(static_cast<float>(w.x) * 0.5f + 1.0f)) +
                                1e-5);
    }
    return w.x;
}

namespace {
template <typename U>
Cube4D<U> mallocCube(int x, int y, int z, int w, bool& ok) {
    const size_t count = static_cast<size_t>(x > 0 ? x : 0) * (y > 0 ? y : 0) * (z > 0 ? z : 0) *
                         (w > 0 ? w : 0);
    auto* data = static_cast<U*>(std::malloc(count * sizeof(U)));
    ok = ok && data != nullptr;
    return Cube4D<U>{{x, y, z, w}, data};
}

template <typename U>
U* mallocArray(long count, bool& ok) {
    auto* data = static_cast<U*>(std::malloc(static_cast<size_t>(count > 0 ? count : 0) * sizeof(U)));
    ok = ok && data != nullptr;
    return data;
}

template <typename U>
U* take(U*& p) {
    return std::exchange(p, nullptr);
}
}  // namespace

template <typename T>
Memory<T> allocateMemory(const Parameters& params) {
    Memory<T> m{};
    const int n = params.maxGroupSize;
    const Vec3<int>& b = params.blockSize;
    m.matches = new BlockDistance<T>[static_cast<size_t>(n > 0 ? n : 0)];
    bool ok = true;
    m.groupSpectrum = mallocCube<T>(b.x, b.y, b.z, n, ok);
    m.noisySpectrum = mallocCube<T>(b.x, b.y, b.z, n, ok);
    m.estimate = mallocCube<T>(b.x, b.y, b.z, n, ok);
    m.variances = mallocCube<T>(b.x, b.y, b.z, n, ok);
    m.blockVariances = mallocArray<float>(n, ok);
    m.allocated = ok;
    return m;
}

template <typename T>
Memory<T>::Memory(Memory&& o) noexcept
    : matches(take(o.matches)),
      groupSpectrum{o.groupSpectrum.size, take(o.groupSpectrum.data)},
      noisySpectrum{o.noisySpectrum.size, take(o.noisySpectrum.data)},
      estimate{o.estimate.size, take(o.estimate.data)},
      variances{o.variances.size, take(o.variances.data)},
      blockVariances(take(o.blockVariances)),
      stackSize(o.stackSize),
      varianceExtents(o.varianceExtents),
      allocated(o.allocated) {}

template <typename T>
Memory<T>::~Memory() {
    delete[] matches;
    std::free(groupSpectrum.data);
    std::free(noisySpectrum.data);
    std::free(estimate.data);
    std::free(variances.data);
    std::free(blockVariances);
}

template <typename T>
TempMemory<T> createTempMemory(const Parameters& params) {
    TempMemory<T> t{};
    const Vec3<int>& w = params.psdWorkSize;
    const int d = std::max(w.x, std::max(w.y, w.z));
    const int h = halfSpectrumExtent(w, params.useRealFft);
    const int n = params.maxGroupSize;
    const int lines = std::max(params.varianceGroupLimit, 2);
    const long v = static_cast<long>(params.blockSize.volume());
    t.maxDimension = d;
    bool ok = true;
    t.halfSpectrum = mallocCube<float>(w.z, w.y, h, n, ok);
    t.spectrum = mallocCube<Complex>(w.x, w.y, w.z, n, ok);
    t.planeMask = mallocArray<unsigned char>(static_cast<long>(w.y) * w.z, ok);
    t.blockA = mallocArray<T>(v, ok);
    t.blockB = mallocArray<T>(v, ok);
    t.lineA = mallocArray<Complex>(static_cast<long>(lines) * d, ok);
    t.lineB = mallocArray<Complex>(static_cast<long>(lines) * d, ok);
    t.memberSums = mallocArray<float>(n, ok);
    t.blockC = mallocArray<T>(v, ok);
    t.allocated = ok;
    return t;
}

template <typename T>
TempMemory<T>::TempMemory(TempMemory&& o) noexcept
    : lineA(take(o.lineA)),
      lineB(take(o.lineB)),
      memberSums(take(o.memberSums)),
      spectrum{o.spectrum.size, take(o.spectrum.data)},
      halfSpectrum{o.halfSpectrum.size, take(o.halfSpectrum.data)},
      planeMask(take(o.planeMask)),
      blockA(take(o.blockA)),
      blockB(take(o.blockB)),
      blockC(take(o.blockC)),
      maxDimension(o.maxDimension),
      allocated(o.allocated) {}

template <typename T>
TempMemory<T>::~TempMemory() {
    std::free(lineA);
    std::free(lineB);
    std::free(memberSums);
    std::free(spectrum.data);
    std::free(halfSpectrum.data);
    std::free(planeMask);
    std::free(blockA);
    std::free(blockB);
    std::free(blockC);
}

template struct Memory<float>;
template struct TempMemory<float>;
template Memory<float> allocateMemory<float>(const Parameters&);
template TempMemory<float> createTempMemory<float>(const Parameters&);
