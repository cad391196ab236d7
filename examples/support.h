// Synthetic volumes, noise and starting parameters, shared by the example, the tests
// and the benchmark.
#pragma once

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <random>
#include <vector>

#include "korvo/korvo.h"

namespace korvo_phantom {

// Nested ellipsoids of different intensity over a gentle gradient, values in [0, 1].
// A volume with nz = 1 is a single plane.
inline std::vector<float> volume(int nx, int ny, int nz) {
    struct Ellipsoid {
        float cx, cy, cz, rx, ry, rz, value;
    };
    const Ellipsoid shapes[] = {
        {0.50f, 0.50f, 0.50f, 0.42f, 0.40f, 0.45f, 0.35f},
        {0.35f, 0.45f, 0.45f, 0.12f, 0.20f, 0.25f, 0.30f},
        {0.65f, 0.55f, 0.55f, 0.15f, 0.10f, 0.20f, 0.45f},
        {0.50f, 0.30f, 0.60f, 0.06f, 0.06f, 0.10f, -0.20f},
        {0.55f, 0.70f, 0.40f, 0.05f, 0.12f, 0.08f, 0.25f},
    };
    std::vector<float> v(static_cast<size_t>(nx) * ny * nz);
    for (int z = 0; z < nz; ++z) {
        for (int y = 0; y < ny; ++y) {
            for (int x = 0; x < nx; ++x) {
                const float px = (x + 0.5f) / nx, py = (y + 0.5f) / ny;
                const float pz = nz == 1 ? 0.5f : (z + 0.5f) / nz;
                float value = 0.1f + 0.1f * px;
                for (const Ellipsoid& e : shapes) {
                    const float dx = (px - e.cx) / e.rx, dy = (py - e.cy) / e.ry, dz = (pz - e.cz) / e.rz;
                    if (dx * dx + dy * dy + dz * dz <= 1.0f) value += e.value;
                }
                v[static_cast<size_t>(x) + static_cast<size_t>(nx) * (y + static_cast<size_t>(ny) * z)] = value;
            }
        }
    }
    return v;
}

inline std::vector<float> whiteNoise(size_t count, float sigma, std::uint32_t seed) {
    std::mt19937 rng(seed);
    std::normal_distribution<float> normal(0.0f, sigma);
    std::vector<float> n(count);
    for (float& value : n) value = normal(rng);
    return n;
}

// Periodic convolution of white noise with a small 3x3x3 (or 3x3 for planes)
// smoothing kernel, normalised so the coloured noise keeps standard deviation
// sigma. Returns the noise; `psd` receives E|fftn(noise)|^2 on the volume's grid.
inline std::vector<float> colouredNoise(int nx, int ny, int nz, float sigma, std::uint32_t seed,
                                        std::vector<float>& psd) {
    const int kz = nz == 1 ? 1 : 3;
    const float taps[3] = {0.5f, 1.0f, 0.5f};
    std::vector<float> kernel(static_cast<size_t>(9 * kz));
    double energy = 0.0;
    for (int c = 0; c < kz; ++c)
        for (int b = 0; b < 3; ++b)
            for (int a = 0; a < 3; ++a) {
                const float w = taps[a] * taps[b] * (kz == 1 ? 1.0f : taps[c]);
                kernel[static_cast<size_t>(a + 3 * (b + 3 * c))] = w;
                energy += static_cast<double>(w) * w;
            }
    const float norm = static_cast<float>(1.0 / std::sqrt(energy));
    for (float& w : kernel) w *= norm;

    const size_t count = static_cast<size_t>(nx) * ny * nz;
    const std::vector<float> white = whiteNoise(count, sigma, seed);
    std::vector<float> out(count, 0.0f);
    auto wrap = [](int i, int n) { return ((i % n) + n) % n; };
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                float s = 0.0f;
                for (int c = 0; c < kz; ++c)
                    for (int b = 0; b < 3; ++b)
                        for (int a = 0; a < 3; ++a) {
                            const int sx = wrap(x - a + 1, nx), sy = wrap(y - b + 1, ny);
                            const int sz = kz == 1 ? z : wrap(z - c + 1, nz);
                            s += kernel[static_cast<size_t>(a + 3 * (b + 3 * c))] *
                                 white[static_cast<size_t>(sx) + static_cast<size_t>(nx) * (sy + static_cast<size_t>(ny) * sz)];
                        }
                out[static_cast<size_t>(x) + static_cast<size_t>(nx) * (y + static_cast<size_t>(ny) * z)] = s;
            }

    // PSD = sigma^2 * N * |DFT(kernel)|^2, directly from the few kernel taps.
    psd.assign(count, 0.0f);
    const double pi2 = 6.283185307179586;
    for (int fz = 0; fz < nz; ++fz)
        for (int fy = 0; fy < ny; ++fy)
            for (int fx = 0; fx < nx; ++fx) {
                std::complex<double> h = 0.0;
                for (int c = 0; c < kz; ++c)
                    for (int b = 0; b < 3; ++b)
                        for (int a = 0; a < 3; ++a) {
                            const double phase = pi2 * (static_cast<double>(fx) * (a - 1) / nx +
                                                        static_cast<double>(fy) * (b - 1) / ny +
                                                        (kz == 1 ? 0.0 : static_cast<double>(fz) * (c - 1) / nz));
                            h += static_cast<double>(kernel[static_cast<size_t>(a + 3 * (b + 3 * c))]) *
                                 std::polar(1.0, -phase);
                        }
                psd[static_cast<size_t>(fx) + static_cast<size_t>(nx) * (fy + static_cast<size_t>(ny) * fz)] =
                    static_cast<float>(static_cast<double>(sigma) * sigma * static_cast<double>(count) * std::norm(h));
            }
    return out;
}

inline std::vector<float> addNoise(const std::vector<float>& clean, const std::vector<float>& noise) {
    std::vector<float> v(clean.size());
    for (size_t i = 0; i < v.size(); ++i) v[i] = clean[i] + noise[i];
    return v;
}

// The phantom of the given extents and a copy with white noise added.
struct Scene {
    std::vector<float> clean;
    std::vector<float> noisy;
};
inline Scene whiteNoiseScene(int nx, int ny, int nz, float sigma, std::uint32_t seed) {
    Scene s;
    s.clean = volume(nx, ny, nz);
    s.noisy = addNoise(s.clean, whiteNoise(s.clean.size(), sigma, seed));
    return s;
}

inline double psnr(const std::vector<float>& estimate, const std::vector<float>& clean, double peak = 1.0) {
    double mse = 0.0;
    for (size_t i = 0; i < clean.size(); ++i) {
        const double d = static_cast<double>(estimate[i]) - clean[i];
        mse += d * d;
    }
    mse /= static_cast<double>(clean.size());
    return 10.0 * std::log10(peak * peak / mse);
}

// Where the benchmark and the tests start: the package defaults for the first
// stage (built-in transforms, 4x4x4 blocks or 8x8x1 for a single plane, white
// noise given as one PSD value, all cores), with the settings their figures were
// measured with pinned: a smaller noise grid and window, four exact variance
// members, a plain Wiener gain and no match threshold.
inline Parameters exampleParameters(const Vec3<int>& imageSize) {
    const bool plane = imageSize.z == 1;
    Parameters p;
    korvoDefaultParameters(&p, 0, imageSize, 1.0f);
    p.psdWorkSize = plane ? Vec3<int>{16, 16, 1} : Vec3<int>{8, 8, 8};
    p.varianceGroupLimit = 4;
    p.wienerFactor = 1.0f;
    p.matchVarianceWeight = 0.0f;
    p.searchWindow = plane ? Vec3<int>{7, 7, 0} : Vec3<int>{4, 4, 4};
    p.matchThreshold = std::numeric_limits<float>::max();
    return p;
}

}  // namespace korvo_phantom
