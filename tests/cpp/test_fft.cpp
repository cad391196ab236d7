// Fixed-length FFT kernels against a plain O(n^2) DFT in double precision.
#include <exception>

#include "helpers.h"
#include "noise/fft.h"

namespace {
using Fft = int (*)(int, Complex*, Complex*);
using Signal = std::vector<Complex>;

Signal referenceDft(const Signal& x, bool realOnly) {
    const size_t n = x.size();
    Signal out(n);
    for (size_t k = 0; k < n; ++k) {
        double re = 0.0, im = 0.0;
        for (size_t j = 0; j < n; ++j) {
            const double angle = -2.0 * M_PI * double(j * k % n) / double(n), xr = x[j].real,
                         xi = realOnly ? 0.0 : x[j].imag;
            re += xr * std::cos(angle) - xi * std::sin(angle);
            im += xr * std::sin(angle) + xi * std::cos(angle);
        }
        out[k] = Complex{float(re), float(im)};
    }
    return out;
}

Signal randomInput(int n, std::mt19937& rng) {
    const std::vector<float> v = randomValues(2 * size_t(n), rng);
    Signal x(static_cast<size_t>(n));
    for (size_t k = 0; k < x.size(); ++k) x[k] = Complex{v[2 * k], v[2 * k + 1]};
    return x;
}

void expectSame(const Signal& got, const Signal& want) {
    ASSERT_EQ(got.size(), want.size());
    for (size_t k = 0; k < got.size(); ++k)
        EXPECT_TRUE(got[k].real == want[k].real && got[k].imag == want[k].imag) << "k = " << k;
}

Signal run(Fft fft, Signal in) {
    const Signal copy = in;
    Signal out(in.size(), Complex{-7.0f, -7.0f});
    EXPECT_EQ(fft(int(in.size()), in.data(), out.data()), int(in.size()));
    expectSame(in, copy);  // the input is left alone
    return out;
}

// Float radix-2 error grows like log2(n) roundings of values of size sum|x|.
void expectClose(const Signal& got, const Signal& want, double scale) {
    const double tol = 4.0 * std::log2(double(got.size())) * 1.2e-7 * scale;
    for (size_t k = 0; k < got.size(); ++k) {
        EXPECT_NEAR(got[k].real, want[k].real, tol) << "k = " << k;
        EXPECT_NEAR(got[k].imag, want[k].imag, tol) << "k = " << k;
    }
}

const int LENGTHS[] = {4, 8, 16, 32, 64};
}  // namespace

// Random input, an impulse and a constant (whose sums of equal powers of two are exact).
TEST(Fft, MatchesDirectDftAndRealInputRules) {
    std::mt19937 rng(1234);
    for (int n : LENGTHS) {
        SCOPED_TRACE(n);
        for (int trial = 0; trial < 20; ++trial) {
            const Signal x = randomInput(n, rng);
            expectClose(run(fftComplex, x), referenceDft(x, false), 2.0 * n);
            // The real-input kernels read only real parts; 64 is the complex transform.
            expectClose(run(fftReal, x), referenceDft(x, n != 64), 2.0 * n);
        }
        for (Fft fft : {fftReal, fftComplex}) {
            Signal impulse(size_t(n), Complex{0.0f, 0.0f}), want(size_t(n), Complex{0.0f, 0.0f});
            impulse[0].real = 1.0f;
            expectSame(run(fft, impulse), Signal(size_t(n), Complex{1.0f, 0.0f}));
            want[0].real = 2.5f * float(n);
            const Signal out = run(fft, Signal(size_t(n), Complex{2.5f, 0.0f}));
            EXPECT_TRUE(out[0].real == want[0].real && out[0].imag == 0.0f);
            expectClose(out, want, 2.5 * n);
        }
        if (n == 64) continue;
        // Below 64 a real input's spectrum is Hermitian with exactly real ends, and the input's
        // imaginary parts make no difference ...
        Signal x = randomInput(n, rng);
        const Signal out = run(fftReal, x);
        EXPECT_TRUE(out[0].imag == 0.0f && out[size_t(n / 2)].imag == 0.0f);
        for (int k = 1; k < n; ++k)
            EXPECT_TRUE(out[k].real == out[n - k].real && out[k].imag == -out[n - k].imag) << k;
        for (Complex& c : x) c.imag = 0.0f;
        expectSame(run(fftReal, x), out);
    }
    // ... but length 64 is the complex transform and reads them.
    Signal impulse(64, Complex{0.0f, 0.0f});
    impulse[0].imag = 1.0f;
    EXPECT_EQ(run(fftReal, impulse)[5].imag, 1.0f);
    // The 64-point kernel called directly gives the dispatch's bits.
    const Signal x = randomInput(64, rng);
    std::vector<creal32_T> in(64), out(64);
    for (size_t j = 0; j < 64; ++j) in[j] = creal32_T{x[j].real, x[j].imag};
    FFTComplex64(in.data(), out.data());
    Signal direct(64);
    for (size_t k = 0; k < 64; ++k) direct[k] = Complex{out[k].re, out[k].im};
    expectSame(direct, run(fftComplex, x));
}

TEST(Fft, UnsupportedLengthsThrowWithoutWriting) {
    Signal in(128, Complex{1.0f, 1.0f});
    for (int n : {1, 2, 3, 5, 12, 33, 128, 0, -4})
        for (Fft fft : {fftReal, fftComplex}) {
            Signal out(128, Complex{-3.0f, -3.0f});
            EXPECT_THROW(fft(n, in.data(), out.data()), std::exception) << n;
            expectSame(out, Signal(128, Complex{-3.0f, -3.0f}));
        }
}
