// Small fixed-length forward DFTs (unnormalised): lengths 4, 8, 16, 32 and 64.
#pragma once

#include "common.h"

struct creal32_T {
    float re;
    float im;
};

// Real input (imaginary parts ignored) for 4..32; the full complex transform for 64.
// Returns n; throws std::exception for any other length.
int fftReal(int n, Complex* in, Complex* out);
int fftComplex(int n, Complex* in, Complex* out);
void FFTComplex64(const creal32_T* in, creal32_T* out);
