// The fused multiply-add of the kernel units: one rounding of a*b + c, the same bits
// on every instruction set. Where the processor's own instruction may not be used
// (the x86-64 baseline), std::fma is a library call per element that stops the
// loops from vectorising; there it is computed in double precision instead, inline
// and branch-free, so the loops vectorise with SSE2.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstring>

#if !defined(KORVO_KERNEL_NS)
#error "fused.h belongs to the kernel units"
#endif

// Double arithmetic must be SSE2's (x87's wider registers would break the exact
// error term below).
#if defined(__SSE2_MATH__) && !defined(__FMA__)
#define KORVO_SOFT_FMA 1
#else
#define KORVO_SOFT_FMA 0
#endif

namespace KORVO_KERNEL_NS {

#if KORVO_SOFT_FMA
// The product of two floats is exact in double. Their sum with c, rounded to odd in
// double (53 bits, more than two beyond float's 24), then rounded once to float,
// is a*b + c correctly rounded (Boldo & Melquiond, IEEE Trans. Computers 57(4),
// 2008). No double here is ever subnormal or infinite for finite inputs (all are
// multiples of 2^-298 below 2^257), so the flush-to-zero and denormals-are-zero
// modes act only where the hardware instruction's do: denormals-are-zero on the
// float inputs as they are widened, flush-to-zero on the final narrowing, which
// sees the same tiny results since rounding to odd keeps every float rounding.
inline float fusedMultiplyAdd(float a, float b, float c) {
    const double p = static_cast<double>(a) * static_cast<double>(b);
    const double q = static_cast<double>(c);
    const double s = p + q;
    // Exact error of that sum (TwoSum: no ordering of |p| and |q| needed).
    const double qs = s - p;
    const double ps = s - qs;
    const double e = (p - ps) + (q - qs);
    std::uint64_t bits, eBits;
    std::memcpy(&bits, &s, sizeof bits);
    std::memcpy(&eBits, &e, sizeof eBits);
    // Round to odd: truncate towards zero (s one unit smaller in magnitude when the
    // error points the other way), then set the last bit when inexact. s is infinite
    // or NaN exactly when e is NaN: then, as when e is zero, s stays. Integer
    // arithmetic only: SSE2 has no 64-bit compares, and GCC does not vectorise a
    // select on a double compare here.
    constexpr std::uint64_t kMagnitude = ~std::uint64_t{0} >> 1;
    const std::uint64_t m = eBits & kMagnitude;
    const std::uint64_t inexact = ~((m - 1) | (m + (std::uint64_t{1} << 52))) >> 63;  // 0 < |e| < inf
    const std::uint64_t down = (bits ^ eBits) >> 63;
    bits = (bits - (down & inexact)) | inexact;
    double odd;
    std::memcpy(&odd, &bits, sizeof odd);
    return static_cast<float>(odd);
}
#else
inline float fusedMultiplyAdd(float a, float b, float c) { return std::fma(a, b, c); }
#endif

}  // namespace KORVO_KERNEL_NS
