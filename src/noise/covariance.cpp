// The per-run table of noise covariances between blocks by displacement.
#include "noise/covariance.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>

namespace {
constexpr int kLanes = 8;  // coefficients transformed together

struct Scratch {  // one complex array, real and imaginary parts apart
    double* re;
    double* im;
    explicit Scratch(long count)
        : re(static_cast<double*>(std::malloc(sizeof(double) * static_cast<size_t>(count)))),
          im(static_cast<double*>(std::malloc(sizeof(double) * static_cast<size_t>(count)))) {}
    ~Scratch() {
        std::free(re);
        std::free(im);
    }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;
    bool ok() const { return re != nullptr && im != nullptr; }
};

// exp(2 pi i k / n) for k < n, in double.
struct Roots : Scratch {
    explicit Roots(int n) : Scratch(n) {
        for (int k = 0; ok() && k < n; ++k) {
            const double a = 2.0 * M_PI * static_cast<double>(k) / static_cast<double>(n);
            re[k] = std::cos(a);
            im[k] = std::sin(a);
        }
    }
};

// re + i im = sum over f < count of a_f exp(2 pi i f d / n), lane by lane, where a_f
// starts at element first + f * stride of `a`.
void rotatedSum(const Scratch& a, long first, long stride, int count, const Roots& roots, int n,
                int d, double* re, double* im) {
    for (int l = 0; l < kLanes; ++l) re[l] = im[l] = 0.0;
    for (int f = 0; f < count; ++f) {
        const int t = static_cast<int>(static_cast<long>(f) * d % n);
        const double c = roots.re[t], s = roots.im[t];
        const double* ar = a.re + first + f * stride;
        const double* ai = a.im + first + f * stride;
        for (int l = 0; l < kLanes; ++l) {
            re[l] += ar[l] * c - ai[l] * s;
            im[l] += ar[l] * s + ai[l] * c;
        }
    }
}
}  // namespace

long CovarianceTable::rows() const {
    const long nx = std::max(workSize.x, 0), ny = std::max(workSize.y, 0), nz = std::max(workSize.z, 0);
    return nz < 1 ? 0 : nx * ny * (nz / 2 + 1);
}

long CovarianceTable::groups() const { return (std::max(b, 0) + kLanes - 1) / kLanes; }

float* allocateNoiseCovariance(const CovarianceTable& table) {
    const long total = table.rows() * std::max(table.b, 0);
    return static_cast<float*>(std::calloc(static_cast<size_t>(std::max(total, 1L)), sizeof(float)));
}

bool computeNoiseCovarianceLanes(const float* k3fT3, const CovarianceTable& table, long group,
                                 float* out) {
    const Vec3<int>& workSize = table.workSize;
    const int b = table.b;
    const int nx = std::max(workSize.x, 0), ny = std::max(workSize.y, 0), nz = std::max(workSize.z, 0);
    const int kx = std::min(std::max(table.keptSize.x, 0), nx);  // never past the array's x planes
    const int e0 = static_cast<int>(group) * kLanes;
    if (table.rows() < 1 || kx < 1 || e0 >= b) return true;

    // Frequencies are (fx, fy, fz) with fx < kx, stored as K3fT3 orders them (x slowest).
    const long kept = static_cast<long>(kx) * ny * nz;
    Scratch alongZ(kept * kLanes), alongY(kept * kLanes);
    Roots rx(nx), ry(ny), rz(nz);
    if (!alongZ.ok() || !alongY.ok() || !rx.ok() || !ry.ok() || !rz.ok()) return false;
    const int lanes = std::min(kLanes, b - e0);
    const int hz = nz / 2;  // the classes kept along z
    // Along z (the input is real): (fx, fy, dz).
    for (long row = 0; row < static_cast<long>(kx) * ny; ++row) {
        const float* in = k3fT3 + row * nz * b + e0;
        for (int dz = 0; dz <= hz; ++dz) {
            double* re = alongZ.re + (row * nz + dz) * kLanes;
            double* im = alongZ.im + (row * nz + dz) * kLanes;
            for (int l = 0; l < kLanes; ++l) re[l] = im[l] = 0.0;
            for (int fz = 0; fz < nz; ++fz) {
                const int t = static_cast<int>(static_cast<long>(fz) * dz % nz);
                const float* v = in + static_cast<long>(fz) * b;
                for (int l = 0; l < lanes; ++l) {
                    re[l] += v[l] * rz.re[t];
                    im[l] += v[l] * rz.im[t];
                }
            }
        }
    }
    // Along y: (fx, dy, dz).
    const long yStride = static_cast<long>(nz) * kLanes;
    for (int fx = 0; fx < kx; ++fx) {
        for (int dy = 0; dy < ny; ++dy) {
            for (int dz = 0; dz <= hz; ++dz) {
                const long to = ((static_cast<long>(fx) * ny + dy) * nz + dz) * kLanes;
                rotatedSum(alongZ, static_cast<long>(fx) * ny * yStride + dz * kLanes, yStride, ny, ry, ny,
                           dy, alongY.re + to, alongY.im + to);
            }
        }
    }
    // Along x, real part only: (dx, dy, dz), x fastest.
    const long xStride = static_cast<long>(ny) * yStride;
    for (int dz = 0; dz <= hz; ++dz) {
        for (int dy = 0; dy < ny; ++dy) {
            for (int dx = 0; dx < nx; ++dx) {
                double re[kLanes], im[kLanes];
                rotatedSum(alongY, (static_cast<long>(dy) * nz + dz) * kLanes, xStride, kx, rx, nx, dx, re, im);
                float* to = out + (dx + static_cast<long>(nx) * (dy + static_cast<long>(ny) * dz)) * b + e0;
                for (int l = 0; l < lanes; ++l) to[l] = static_cast<float>(re[l]);
            }
        }
    }
    return true;
}

void computeNoiseCovariance(const float* k3fT3, const Vec3<int>& workSize,
                            const Vec3<int>& keptSize, int b, float*& out) {
    const CovarianceTable table{workSize, keptSize, b};
    out = allocateNoiseCovariance(table);
    for (long g = 0; out != nullptr && g < table.groups(); ++g) {
        if (!computeNoiseCovarianceLanes(k3fT3, table, g, out)) {
            std::free(out);
            out = nullptr;
        }
    }
}
