// Helpers shared by the C++ test files, and the standard headers they all use.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <ostream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "Kernels.h"
#include "korvo/korvo.h"

// Extents print as 4x3x2, in failure messages as well.
template <typename T>
std::ostream& operator<<(std::ostream& o, const Vec3<T>& v) { return o << v.x << 'x' << v.y << 'x' << v.z; }

template <typename... Args>
std::string cat(const Args&... args) {
    std::ostringstream s;
    (s << ... << args);
    return s.str();
}

// f() on the baseline kernels; then back to the set in use before.
template <typename F>
auto onBaselineKernels(F f) {
    const bool before = std::strcmp(korvo_detail::activeKernelName(), "baseline") == 0;
    korvo_detail::forceBaselineKernels(true);
    auto result = f();
    korvo_detail::forceBaselineKernels(before);
    return result;
}

// `count` values uniform in [lo, hi), drawn from `rng` or from a fresh generator seeded with `seed`.
inline std::vector<float> randomValues(size_t count, std::mt19937& rng, float lo = -1.0f, float hi = 1.0f) {
    std::uniform_real_distribution<float> u(lo, hi);
    std::vector<float> v(count);
    for (float& x : v) x = u(rng);
    return v;
}
inline std::vector<float> randomValues(size_t count, unsigned seed, float lo = -1.0f, float hi = 1.0f) {
    std::mt19937 rng(seed);
    return randomValues(count, rng, lo, hi);
}

// out_k = sum_j M[k n + j] in_j along `axis` of a block of `shape` (x fastest), in double;
// with `magnitude` the absolute values of M.
inline std::vector<double> alongAxis(const std::vector<double>& in, const float* m, Vec3<int> shape, int axis,
                                     bool magnitude = false) {
    const int n = axis == 0 ? shape.x : axis == 1 ? shape.y : shape.z;
    const int stride = axis == 0 ? 1 : axis == 1 ? shape.x : shape.x * shape.y;
    std::vector<double> out(in.size());
    for (size_t outer = 0; outer < in.size(); outer += size_t(n) * stride)
        for (size_t base = outer; base < outer + size_t(stride); ++base)
            for (int k = 0; k < n; ++k) {
                double v = 0.0;
                for (int j = 0; j < n; ++j) v += (magnitude ? std::fabs(m[k * n + j]) : m[k * n + j]) * in[base + j * stride];
                out[base + k * stride] = v;
            }
    return out;
}

using V3 = Vec3<int>;
using Matrix = std::vector<float>;  // row-major n x n

// The orthonormal DCT-II matrix of n points.
inline Matrix dctMatrix(int n) {
    Matrix m(size_t(n * n));
    for (int i = 0; i < n * n; ++i)
        m[i] = float(std::sqrt((i < n ? 1.0 : 2.0) / n) * std::cos(M_PI * (2 * (i % n) + 1) * (i / n) / (2.0 * n)));
    return m;
}

inline bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}

// The hard-thresholding stage through its exported entry point, with a white PSD of one sample.
inline std::vector<float> entryPointHT(const std::vector<float>& noisy, Parameters p, float psd) {
    std::vector<float> out(noisy.size(), 0.0f);
    korvoInterfaceHT(noisy.data(), &psd, &p, nullptr, out.data(), nullptr);
    return out;
}

struct StageResults {
    std::vector<float> basic, final;
};

// Both stages, the way a wrapper drives them; `psd` has extents p.psdSize.
inline StageResults bothStages(const std::vector<float>& noisy, const std::vector<float>& psd, const Parameters& p,
                               BlockMatchStorage* storage = nullptr) {
    StageResults r{std::vector<float>(noisy.size(), 0.0f), std::vector<float>(noisy.size(), 0.0f)};
    Parameters first = p, second = p;
    korvoInterfaceHT(noisy.data(), psd.data(), &first, nullptr, r.basic.data(), storage);
    korvoInterfaceWie(noisy.data(), psd.data(), &second, nullptr, r.basic.data(), r.final.data(), storage);
    return r;
}

// A match storage of `rows` rows of `entries` matches, plus guard rows that the stage must leave alone.
struct MatchStorage {
    static constexpr int kGuard = 3;
    std::vector<int> counts;
    std::vector<Vec3<int>> positions, relative;
    BlockMatchStorage record{};
    MatchStorage(long rows, int entries)
        : counts(size_t(rows + kGuard), -7), positions(counts.size() * size_t(entries), Vec3<int>{-7, -7, -7}),
          relative(positions.size()) {
        record = {entries, counts.data(), positions.data(), relative.data(), 0, 0};
    }
    // A copy whose record points at its own arrays.
    MatchStorage(const MatchStorage& o) : counts(o.counts), positions(o.positions), relative(o.relative), record(o.record) {
        record.counts = counts.data();
        record.positions = positions.data();
        record.relativePositions = relative.data();
    }
    bool guardsIntact(long rows) const {
        for (size_t r = size_t(rows); r < counts.size(); ++r)
            if (counts[r] != -7) return false;
        return true;
    }
};
