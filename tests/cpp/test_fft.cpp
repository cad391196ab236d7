// Fixed-length FFT kernels against a plain O(n^2) DFT in double precision.
#include <gtest/gtest.h>

#include <cmath>
#include <exception>
#include <random>
#include <vector>

#include "noise/fft.h"

namespace {
using Fft = int (*)(int, Complex*, Complex*);

std::vector<Complex> referenceDft(const std::vector<Complex>& x, bool realOnly) {
    const size_t n = x.size();
    std::vector<Complex> out(n);
    for (size_t k = 0; k < n; ++k) {
        double re = 0.0;
        double im = 0.0;
        for (size_t j = 0; j < n; ++j) {
            const double angle = -2.0 * M_PI * static_cast<double>(j * k % n) / static_cast<double>(n);
            const double xr = x[j].real;
            const double xi = realOnly ? 0.0 : x[j].imag;
            re += xr * std::cos(angle) - xi * std::sin(angle);
            im += xr * std::sin(angle) + xi * std::cos(angle);
        }
        out[k] = Complex{static_cast<float>(re), static_cast<float>(im)};
    }
    return out;
}

std::vector<Complex> randomInput(int n, std::mt19937& rng) {
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<Complex> x(static_cast<size_t>(n));
    for (Complex& c : x) {
        c = Complex{u(rng), u(rng)};
    }
    return x;
}

std::vector<Complex> run(Fft fft, std::vector<Complex> in) {
    std::vector<Complex> out(in.size(), Complex{-7.0f, -7.0f});
    const std::vector<Complex> copy = in;
    EXPECT_EQ(fft(static_cast<int>(in.size()), in.data(), out.data()), static_cast<int>(in.size()));
    for (size_t j = 0; j < in.size(); ++j) {  // the input is left alone
        EXPECT_EQ(in[j].real, copy[j].real);
        EXPECT_EQ(in[j].imag, copy[j].imag);
    }
    return out;
}

// Float radix-2 error grows like log2(n) roundings of values of size sum|x|.
void expectClose(const std::vector<Complex>& got, const std::vector<Complex>& want, double scale) {
    const double n = static_cast<double>(got.size());
    const double tol = 4.0 * std::log2(n) * 1.2e-7 * scale;
    for (size_t k = 0; k < got.size(); ++k) {
        EXPECT_NEAR(got[k].real, want[k].real, tol) << "k = " << k;
        EXPECT_NEAR(got[k].imag, want[k].imag, tol) << "k = " << k;
    }
}

const int LENGTHS[] = {4, 8, 16, 32, 64};
}  // namespace

TEST(Fft, MatchesDirectDftOnRandomInput) {
    std::mt19937 rng(1234);
    for (int n : LENGTHS) {
        for (int trial = 0; trial < 20; ++trial) {
            SCOPED_TRACE(n);
            const std::vector<Complex> x = randomInput(n, rng);
            const double scale = 2.0 * n;
            expectClose(run(fftComplex, x), referenceDft(x, false), scale);
            // The real-input kernels read only real parts; 64 is the complex transform.
            expectClose(run(fftReal, x), referenceDft(x, n != 64), scale);
        }
    }
}

TEST(Fft, RealInputGivesHermitianSpectrumWithExactlyRealEnds) {
    std::mt19937 rng(99);
    for (int n : {4, 8, 16, 32}) {
        std::vector<Complex> x = randomInput(n, rng);
        const std::vector<Complex> out = run(fftReal, x);
        EXPECT_EQ(out[0].imag, 0.0f);
        EXPECT_EQ(out[static_cast<size_t>(n / 2)].imag, 0.0f);
        for (int k = 1; k < n; ++k) {
            EXPECT_EQ(out[static_cast<size_t>(k)].real, out[static_cast<size_t>(n - k)].real);
            EXPECT_EQ(out[static_cast<size_t>(k)].imag, -out[static_cast<size_t>(n - k)].imag);
        }
        // Imaginary parts of the input make no difference below 64 ...
        for (Complex& c : x) {
            c.imag = 0.0f;
        }
        const std::vector<Complex> clean = run(fftReal, x);
        for (int k = 0; k < n; ++k) {
            EXPECT_EQ(out[static_cast<size_t>(k)].real, clean[static_cast<size_t>(k)].real);
            EXPECT_EQ(out[static_cast<size_t>(k)].imag, clean[static_cast<size_t>(k)].imag);
        }
    }
    // ... but length 64 is the complex transform and reads them.
    std::vector<Complex> x(64, Complex{0.0f, 0.0f});
    x[0].imag = 1.0f;
    const std::vector<Complex> out = run(fftReal, x);
    EXPECT_EQ(out[5].imag, 1.0f);
}

TEST(Fft, ImpulseAndConstant) {
    for (int n : LENGTHS) {
        for (Fft fft : {fftReal, fftComplex}) {
            std::vector<Complex> impulse(static_cast<size_t>(n), Complex{0.0f, 0.0f});
            impulse[0].real = 1.0f;
            for (const Complex& c : run(fft, impulse)) {
                EXPECT_EQ(c.real, 1.0f);
                EXPECT_EQ(c.imag, 0.0f);
            }
            const std::vector<Complex> constant(static_cast<size_t>(n), Complex{2.5f, 0.0f});
            std::vector<Complex> want(static_cast<size_t>(n), Complex{0.0f, 0.0f});
            want[0].real = 2.5f * static_cast<float>(n);
            const std::vector<Complex> out = run(fft, constant);
            EXPECT_EQ(out[0].real, want[0].real);  // sums of equal powers of two are exact
            EXPECT_EQ(out[0].imag, 0.0f);
            expectClose(out, want, 2.5 * n);
        }
    }
}

TEST(Fft, UnsupportedLengthsThrowWithoutWriting) {
    std::vector<Complex> in(128, Complex{1.0f, 1.0f});
    for (int n : {1, 2, 3, 5, 12, 33, 128, 0, -4}) {
        for (Fft fft : {fftReal, fftComplex}) {
            std::vector<Complex> out(128, Complex{-3.0f, -3.0f});
            EXPECT_THROW(fft(n, in.data(), out.data()), std::exception) << n;
            for (const Complex& c : out) {
                EXPECT_EQ(c.real, -3.0f);
                EXPECT_EQ(c.imag, -3.0f);
            }
        }
    }
}

TEST(Fft, Direct64PointKernelMatchesDispatch) {
    std::mt19937 rng(7);
    std::vector<Complex> x = randomInput(64, rng);
    std::vector<creal32_T> in(64);
    std::vector<creal32_T> out(64);
    for (size_t j = 0; j < 64; ++j) {
        in[j] = creal32_T{x[j].real, x[j].imag};
    }
    FFTComplex64(in.data(), out.data());
    const std::vector<Complex> viaDispatch = run(fftComplex, x);
    for (size_t k = 0; k < 64; ++k) {
        EXPECT_EQ(out[k].re, viaDispatch[k].real);
        EXPECT_EQ(out[k].im, viaDispatch[k].imag);
    }
}
