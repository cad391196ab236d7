// Fixed-length forward DFTs (unnormalised) for the noise-variance computation.
// A kernel unit, compiled once per instruction set.
#include <exception>

#include "Kernels.h"

namespace KORVO_KERNEL_NS {
namespace {
#include "noise/fft_kernels.inc"

// Layout of Complex and creal32_T is the same: the 64-point kernel takes either.
static_assert(sizeof(Complex) == sizeof(creal32_T), "Complex and creal32_T must share a layout");

void fft64(const Complex* in, Complex* out) {
    KORVO_KERNEL_NS::FFTComplex64(reinterpret_cast<const creal32_T*>(in), reinterpret_cast<creal32_T*>(out));
}
}  // namespace

int fftReal(int n, Complex* in, Complex* out) {
    switch (n) {
        case 4: fftReal4(in, out); break;
        case 8: fftReal8(in, out); break;
        case 16: fftReal16(in, out); break;
        case 32: fftReal32(in, out); break;
        case 64: fft64(in, out); break;  // the full complex transform: imaginary parts are read
        default: throw std::exception();
    }
    return n;
}

int fftComplex(int n, Complex* in, Complex* out) {
    switch (n) {
        case 4: fftComplex4(in, out); break;
        case 8: fftComplex8(in, out); break;
        case 16: fftComplex16(in, out); break;
        case 32: fftComplex32(in, out); break;
        case 64: fft64(in, out); break;
        default: throw std::exception();
    }
    return n;
}

// Iterative radix-2 decimation in time: bit-reversed copy, six butterfly stages.
void FFTComplex64(const creal32_T* in, creal32_T* out) {
    // cos(2 pi k / 64) and -sin(2 pi k / 64), k = 0..32, in single precision.
    static const float fv0[33] = {
        1.0F, 0.99518472F, 0.980785251F, 0.956940353F, 0.923879504F, 0.881921291F,
        0.831469595F, 0.773010433F, 0.707106769F, 0.634393275F, 0.555570245F, 0.471396744F,
        0.382683426F, 0.290284663F, 0.195090324F, 0.0980171412F, 0.0F, -0.0980171412F,
        -0.195090324F, -0.290284663F, -0.382683426F, -0.471396744F, -0.555570245F, -0.634393275F,
        -0.707106769F, -0.773010433F, -0.831469595F, -0.881921291F, -0.923879504F, -0.956940353F,
        -0.980785251F, -0.99518472F, -1.0F,
    };
    static const float fv1[33] = {
        0.0F, -0.0980171412F, -0.195090324F, -0.290284663F, -0.382683426F, -0.471396744F,
        -0.555570245F, -0.634393275F, -0.707106769F, -0.773010433F, -0.831469595F, -0.881921291F,
        -0.923879504F, -0.956940353F, -0.980785251F, -0.99518472F, -1.0F, -0.99518472F,
        -0.980785251F, -0.956940353F, -0.923879504F, -0.881921291F, -0.831469595F, -0.773010433F,
        -0.707106769F, -0.634393275F, -0.555570245F, -0.471396744F, -0.382683426F, -0.290284663F,
        -0.195090324F, -0.0980171412F, -0.0F,
    };
    creal32_T x[64];

    // Reversed-carry increment: rev walks 0, 32, 16, 48, ... the 6-bit reversals.
    int rev = 0;
    for (int j = 0; j < 64; ++j) {
        x[rev] = in[j];
        int bit = 32;
        while (bit > 0 && (rev & bit) != 0) {
            rev &= ~bit;
            bit >>= 1;
        }
        rev |= bit;
    }

    // Span 1: w = 1 throughout.
    for (int s = 0; s < 64; s += 2) {
        const creal32_T a = x[s];
        const creal32_T b = x[s + 1];
        x[s + 1] = creal32_T{a.re - b.re, a.im - b.im};
        x[s] = creal32_T{a.re + b.re, a.im + b.im};
    }
    // Span 2: w = 1 and w = -i (a swap with a negation).
    for (int s = 0; s < 64; s += 4) {
        const creal32_T a0 = x[s];
        const creal32_T b0 = x[s + 2];
        x[s + 2] = creal32_T{a0.re - b0.re, a0.im - b0.im};
        x[s] = creal32_T{a0.re + b0.re, a0.im + b0.im};
        const creal32_T a1 = x[s + 1];
        const creal32_T t1{x[s + 3].im, -x[s + 3].re};
        x[s + 3] = creal32_T{a1.re - t1.re, a1.im - t1.im};
        x[s + 1] = creal32_T{a1.re + t1.re, a1.im + t1.im};
    }
    // Spans 4 .. 32: general twiddles, read at stride 32 / h.
    for (int h = 4; h < 64; h <<= 1) {
        const int stride = 32 / h;
        for (int s = 0; s < 64; s += 2 * h) {
            {
                const creal32_T a = x[s];
                const creal32_T b = x[s + h];
                x[s + h] = creal32_T{a.re - b.re, a.im - b.im};
                x[s] = creal32_T{a.re + b.re, a.im + b.im};
            }
            for (int j = 1; j < h; ++j) {
                const float wr = fv0[j * stride];
                const float wi = fv1[j * stride];
                const creal32_T b = x[s + j + h];
                const creal32_T t{wr * b.re - wi * b.im, wr * b.im + wi * b.re};
                const creal32_T a = x[s + j];
                x[s + j + h] = creal32_T{a.re - t.re, a.im - t.im};
                x[s + j] = creal32_T{a.re + t.re, a.im + t.im};
            }
        }
    }

    for (int j = 0; j < 64; ++j) {
        out[j] = x[j];
    }
}
}  // namespace KORVO_KERNEL_NS
