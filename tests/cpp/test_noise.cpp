// Noise model: PSD preparation against direct computations, and the coefficient
// variances of groups against the empirical variances of simulated coloured noise.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <random>
#include <vector>

#include "common.h"
#include "noise/psd.h"
#include "noise/variances.h"

namespace {
using Matrix = std::vector<float>;  // row-major n x n

Matrix dctMatrix(int n) {
    Matrix m(static_cast<size_t>(n * n));
    for (int k = 0; k < n; ++k) {
        const double c = k == 0 ? std::sqrt(1.0 / n) : std::sqrt(2.0 / n);
        for (int j = 0; j < n; ++j) {
            m[static_cast<size_t>(k * n + j)] =
                static_cast<float>(c * std::cos(M_PI * (2 * j + 1) * k / (2.0 * n)));
        }
    }
    return m;
}

// Orthonormal Haar matrix of a power-of-two size: averages first, then differences.
Matrix haarMatrix(int n) {
    if (n == 1) {
        return Matrix{1.0f};
    }
    const Matrix half = haarMatrix(n / 2);
    const int h = n / 2;
    const float r = static_cast<float>(std::sqrt(0.5));
    Matrix m(static_cast<size_t>(n * n), 0.0f);
    for (int i = 0; i < h; ++i) {
        for (int j = 0; j < h; ++j) {
            const float v = half[static_cast<size_t>(i * h + j)] * r;
            m[static_cast<size_t>(i * n + 2 * j)] = v;
            m[static_cast<size_t>(i * n + 2 * j + 1)] = v;
        }
        m[static_cast<size_t>((h + i) * n + 2 * i)] = r;
        m[static_cast<size_t>((h + i) * n + 2 * i + 1)] = -r;
    }
    return m;
}

const float SIZE_2_TRANSFORM[4] = {0.70710677f, 0.70710677f, 0.70710677f, -0.70710677f};

struct Owned {  // a malloc'ed result
    float* p = nullptr;
    Owned() = default;
    Owned(const Owned&) = delete;
    Owned& operator=(const Owned&) = delete;
    ~Owned() { std::free(p); }
};

size_t volume(const Vec3<int>& v) { return static_cast<size_t>(v.x) * v.y * v.z; }

// Noise model arrays as the stage loop prepares them.
struct Model {
    Vec3<int> kept;
    Owned k3;
    Owned localVariance;
};

void prepare(Model& model, const std::vector<float>& psd, const Vec3<int>& grid,
             const Vec3<int>& block, const Matrix& tx, const Matrix& ty, const Matrix& tz,
             bool useRealFft) {
    model.kept = Vec3<int>{halfSpectrumExtent(grid, useRealFft), grid.y, grid.z};
    computeK3fT3<float>(psd.data(), grid, grid, model.kept, block,
                        Vec3<const float*>{tx.data(), ty.data(), tz.data()}, model.k3.p);
    ASSERT_NE(model.k3.p, nullptr);
    computeLocalVar(model.k3.p, model.kept, block.x * block.y * block.z, model.localVariance.p);
    ASSERT_NE(model.localVariance.p, nullptr);
}

TempMemory<float> scratch(const Vec3<int>& grid, const Vec3<int>& block, bool useRealFft, int n) {
    Parameters p{};
    p.blockSize = block;
    p.psdWorkSize = grid;
    p.useRealFft = useRealFft;
    p.maxGroupSize = n;
    p.varianceGroupLimit = n;
    TempMemory<float> t = createTempMemory<float>(p);
    EXPECT_TRUE(t.allocated);
    return t;
}

// Variances of a group at `positions` (copied: the call rewrites them).
std::vector<float> modelVariances(const Model& model, const Vec3<int>& grid, const Vec3<int>& block,
                                  const std::vector<Vec3<int>>& positions, const Matrix& group,
                                  int m, TempMemory<float>& tmp) {
    const int n = static_cast<int>(positions.size());
    std::vector<float> out(volume(block) * static_cast<size_t>(n), -1.0f);
    Cube4D<float> cube{{block.x, block.y, block.z, n}, out.data()};
    std::vector<BlockDistance<float>> matches(positions.size());
    for (size_t k = 0; k < positions.size(); ++k) {
        matches[k].relativePosition = positions[k];
    }
    calculateVariances<float>(n, block, grid, model.kept, m, group.data(), model.k3.p,
                              model.localVariance.p, cube, matches.data(), tmp);
    return out;
}
}  // namespace

// ---------------------------------------------------------------------------------
// PSD preparation

TEST(Psd, ResizeSameSizeReproducesThePsd) {
    const Vec3<int> size{5, 3, 4};
    std::vector<float> psd(volume(size));
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(0.5f, 2.0f);
    for (float& v : psd) {
        v = u(rng);
    }
    Owned out;
    resizePSD(psd.data(), size, size, size, out.p);
    ASSERT_NE(out.p, nullptr);
    for (size_t i = 0; i < psd.size(); ++i) {
        EXPECT_NEAR(out.p[i], psd[i], 1e-5f * psd[i]) << i;
    }
}

TEST(Psd, ResizeUpClampsAtTheLastSampleAndScales) {
    // The same two-sample profile along each axis in turn: 1, 3 -> 1, 2, 3, 3 (not 2:
    // no wrap to the first sample), times the ratio of grid sizes, 2.
    const Vec3<int> sizes[3] = {{2, 1, 1}, {1, 2, 1}, {1, 1, 2}};
    const Vec3<int> targets[3] = {{4, 1, 1}, {1, 4, 1}, {1, 1, 4}};
    for (int axis = 0; axis < 3; ++axis) {
        const float psd[2] = {1.0f, 3.0f};
        Owned out;
        resizePSD(psd, sizes[axis], targets[axis], targets[axis], out.p);
        ASSERT_NE(out.p, nullptr);
        const float want[4] = {2.0f, 4.0f, 6.0f, 6.0f};
        for (int i = 0; i < 4; ++i) {
            EXPECT_FLOAT_EQ(out.p[i], want[i]) << "axis " << axis << " i " << i;
        }
    }
    // Down by two in x and y: every output is the sample it lands on, times 1/4.
    const float flat[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    Owned down;
    resizePSD(flat, Vec3<int>{4, 4, 1}, Vec3<int>{2, 2, 1}, Vec3<int>{2, 2, 1}, down.p);
    ASSERT_NE(down.p, nullptr);
    const float want[4] = {1.0f / 4, 3.0f / 4, 9.0f / 4, 11.0f / 4};
    for (int i = 0; i < 4; ++i) {
        EXPECT_FLOAT_EQ(down.p[i], want[i]) << i;
    }
}

namespace {
// Direct reference: |3-D DFT of the zero-padded basis function|^2 * PSD / N^2, laid out
// x frequency slowest, the coefficient fastest.
std::vector<double> referenceK3fT3(const std::vector<float>& psd, const Vec3<int>& g,
                                   const Vec3<int>& b, const Matrix& tx, const Matrix& ty,
                                   const Matrix& tz) {
    const int bcount = b.x * b.y * b.z;
    const double n = static_cast<double>(volume(g));
    std::vector<double> out(volume(g) * static_cast<size_t>(bcount));
    for (int fx = 0; fx < g.x; ++fx) {
        for (int fy = 0; fy < g.y; ++fy) {
            for (int fz = 0; fz < g.z; ++fz) {
                for (int a = 0; a < b.z; ++a) {
                    for (int bb = 0; bb < b.y; ++bb) {
                        for (int c = 0; c < b.x; ++c) {
                            double re = 0.0;
                            double im = 0.0;
                            for (int z = 0; z < std::min(b.z, g.z); ++z) {
                                for (int y = 0; y < std::min(b.y, g.y); ++y) {
                                    for (int x = 0; x < std::min(b.x, g.x); ++x) {
                                        const double v = static_cast<double>(tx[static_cast<size_t>(c * b.x + x)]) *
                                                         ty[static_cast<size_t>(bb * b.y + y)] *
                                                         tz[static_cast<size_t>(a * b.z + z)];
                                        const double angle =
                                            -2.0 * M_PI *
                                            (static_cast<double>(fx * x) / g.x + static_cast<double>(fy * y) / g.y +
                                             static_cast<double>(fz * z) / g.z);
                                        re += v * std::cos(angle);
                                        im += v * std::sin(angle);
                                    }
                                }
                            }
                            const int e = c + b.x * (bb + b.y * a);
                            const size_t f = static_cast<size_t>(fx + g.x * (fy + g.y * fz));
                            out[static_cast<size_t>(((fx * g.y + fy) * g.z + fz) * bcount + e)] =
                                (re * re + im * im) * psd[f] / (n * n);
                        }
                    }
                }
            }
        }
    }
    return out;
}

Matrix randomMatrix(int n, std::mt19937& rng) {
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    Matrix m(static_cast<size_t>(n * n));
    for (float& v : m) {
        v = u(rng);
    }
    return m;
}
}  // namespace

TEST(Psd, K3fT3MatchesDirectComputationAndFoldsAlongX) {
    // The z block extent exceeds the grid's: only the first samples of each row count.
    std::mt19937 rng(11);
    const Vec3<int> block{3, 2, 4};
    const Matrix tx = randomMatrix(block.x, rng);
    const Matrix ty = randomMatrix(block.y, rng);
    const Matrix tz = randomMatrix(block.z, rng);
    const int bcount = block.x * block.y * block.z;
    for (int nx : {8, 7, 6}) {
        SCOPED_TRACE(nx);
        const Vec3<int> grid{nx, 4, 3};
        std::vector<float> psd(volume(grid));
        std::uniform_real_distribution<float> u(0.5f, 2.0f);
        for (float& v : psd) {
            v = u(rng);
        }
        const std::vector<double> want = referenceK3fT3(psd, grid, block, tx, ty, tz);
        const Vec3<const float*> transforms{tx.data(), ty.data(), tz.data()};
        Owned full;
        computeK3fT3<float>(psd.data(), grid, grid, grid, block, transforms, full.p);
        ASSERT_NE(full.p, nullptr);
        double peak = 0.0;
        for (double v : want) {
            peak = std::max(peak, v);
        }
        for (size_t i = 0; i < want.size(); ++i) {
            ASSERT_NEAR(full.p[i], want[i], 1e-4 * peak) << i;
        }

        if (nx == 6) {
            continue;
        }
        // Fold with kx = 5. 8: 1..3 doubled, 0 and 4 kept, 5..7 cleared. 7 (odd, the
        // bounds kept as they are): 1 and 2 doubled, 0 and 3 kept, 4..6 cleared.
        const float factors8[8] = {1, 2, 2, 2, 1, 0, 0, 0};
        const float factors7[7] = {1, 2, 2, 1, 0, 0, 0};
        const float* factor = nx == 8 ? factors8 : factors7;
        Owned folded;
        computeK3fT3<float>(psd.data(), grid, grid, Vec3<int>{5, grid.y, grid.z}, block, transforms,
                            folded.p);
        ASSERT_NE(folded.p, nullptr);
        const size_t plane = static_cast<size_t>(grid.y * grid.z * bcount);
        for (size_t i = 0; i < plane * static_cast<size_t>(nx); ++i) {
            ASSERT_EQ(folded.p[i], factor[i / plane] * full.p[i]) << "fx " << i / plane;
        }
    }
}

TEST(Psd, NoFoldWhenEverythingIsKept) {
    const Vec3<int> grid{4, 4, 4};
    const Vec3<int> block{4, 4, 4};
    const Matrix d = dctMatrix(4);
    const std::vector<float> psd(volume(grid), 1.0f);
    Owned k3;
    computeK3fT3<float>(psd.data(), grid, grid, grid, block,
                        Vec3<const float*>{d.data(), d.data(), d.data()}, k3.p);
    ASSERT_NE(k3.p, nullptr);
    // White unit PSD: each orthonormal basis function has energy 1, so every local
    // variance is sum_f |F|^2 / N^2 = 1 / N.
    Owned lv;
    computeLocalVar(k3.p, grid, 64, lv.p);
    ASSERT_NE(lv.p, nullptr);
    for (int e = 0; e < 64; ++e) {
        EXPECT_NEAR(lv.p[e], 1.0f / 64, 1e-6f) << e;
    }
}

TEST(Psd, LocalVarSumsRecordsAndGivesZerosForAnEmptySize) {
    std::vector<float> k3(5 * 3);
    for (size_t i = 0; i < k3.size(); ++i) {
        k3[i] = static_cast<float>(i) * 0.25f;
    }
    Owned sums;
    computeLocalVar(k3.data(), Vec3<int>{5, 1, 1}, 3, sums.p);
    ASSERT_NE(sums.p, nullptr);
    for (int e = 0; e < 3; ++e) {
        float want = 0.0f;
        for (int m = 0; m < 5; ++m) {
            want += k3[static_cast<size_t>(m * 3 + e)];
        }
        EXPECT_EQ(sums.p[e], want);
    }
    for (const Vec3<int>& empty : {Vec3<int>{0, 4, 4}, Vec3<int>{4, 0, 4}, Vec3<int>{4, 4, 0}}) {
        Owned zeros;
        computeLocalVar(k3.data(), empty, 3, zeros.p);
        ASSERT_NE(zeros.p, nullptr);
        for (int e = 0; e < 3; ++e) {
            EXPECT_EQ(zeros.p[e], 0.0f);
        }
    }
}

TEST(Psd, NormaliserIsA32BitProduct) {
    const float one[1] = {1.0f};
    const Vec3<const float*> identity{one, one, one};
    const Vec3<int> unitBlock{1, 1, 1};
    // 32^3: N^2 = 2^30 is exact; the PSD resized from one sample is N, so K3fT3 = 2^-15.
    Owned ok;
    const Vec3<int> cube{32, 32, 32};
    computeK3fT3<float>(one, unitBlock, cube, cube, unitBlock, identity, ok.p);
    ASSERT_NE(ok.p, nullptr);
    for (size_t i = 0; i < volume(cube); ++i) {
        ASSERT_EQ(ok.p[i], std::ldexp(1.0f, -15)) << i;
    }
    // 64 x 64 x 16: N^2 = 2^32 wraps to 0 and every entry is infinite or NaN.
    Owned wrapped;
    const Vec3<int> big{64, 64, 16};
    computeK3fT3<float>(one, unitBlock, big, big, unitBlock, identity, wrapped.p);
    ASSERT_NE(wrapped.p, nullptr);
    for (size_t i = 0; i < volume(big); ++i) {
        ASSERT_FALSE(std::isfinite(wrapped.p[i])) << i;
    }
}

// ---------------------------------------------------------------------------------
// Coefficient variances: deterministic properties

TEST(Variances, SingleBlockZeroLimitAndPeriodicWrap) {
    const Vec3<int> grid{8, 8, 8};
    const Vec3<int> block{4, 4, 4};
    const Matrix d = dctMatrix(4);
    std::vector<float> psd(volume(grid));
    for (size_t i = 0; i < psd.size(); ++i) {
        psd[i] = 1.0f + 0.5f * static_cast<float>(i % 7);
    }
    Model model;
    prepare(model, psd, grid, block, d, d, d, true);
    TempMemory<float> tmp = scratch(grid, block, true, 4);

    // One block: power is groupTransform[0]^2 everywhere.
    const Matrix half{0.5f};
    const std::vector<float> one = modelVariances(model, grid, block, {{3, 1, 6}}, half, 1, tmp);
    for (int e = 0; e < 64; ++e) {
        EXPECT_NEAR(one[static_cast<size_t>(e)], 0.25f * model.localVariance.p[e],
                    1e-5f * model.localVariance.p[e]);
    }
    // m = 0: every coefficient gets the single-block variance.
    const Matrix haar = haarMatrix(4);
    const std::vector<Vec3<int>> spots{{0, 0, 0}, {1, 2, 3}, {5, 5, 0}, {7, 0, 2}};
    const std::vector<float> none = modelVariances(model, grid, block, spots, haar, 0, tmp);
    for (size_t i = 0; i < none.size(); ++i) {
        EXPECT_FLOAT_EQ(none[i], model.localVariance.p[i % 64]);
    }
    // A relative position of Nx (or 2 Ny) is the same place as 0; the call rewrites it.
    const std::vector<float> plain = modelVariances(model, grid, block, spots, haar, 4, tmp);
    const std::vector<float> wrapped =
        modelVariances(model, grid, block, {{8, 0, 0}, {1, 2, 11}, {13, 21, 8}, {7, 0, 2}}, haar, 4, tmp);
    EXPECT_EQ(plain, wrapped);
    std::vector<BlockDistance<float>> records(1);
    records[0].relativePosition = Vec3<int>{9, 17, 8};
    std::vector<float> out(64);
    Cube4D<float> cube{{4, 4, 4, 1}, out.data()};
    calculateVariances<float>(1, block, grid, model.kept, 1, half.data(), model.k3.p, nullptr, cube,
                              records.data(), tmp);
    EXPECT_EQ(records[0].relativePosition, (Vec3<int>{1, 1, 0}));
}

TEST(VariancesDeathTest, GroupLargerThanTheScratchAborts) {
    const Vec3<int> grid{8, 8, 8};
    const Vec3<int> block{4, 4, 4};
    const Matrix d = dctMatrix(4);
    const std::vector<float> psd(volume(grid), 1.0f);
    Model model;
    prepare(model, psd, grid, block, d, d, d, false);
    TempMemory<float> tmp = scratch(grid, block, false, 2);
    EXPECT_DEATH(modelVariances(model, grid, block, {{0, 0, 0}, {1, 0, 0}, {2, 0, 0}, {3, 0, 0}},
                                haarMatrix(4), 4, tmp),
                 "coord\\.x < size\\.x && coord\\.y < size\\.y && coord\\.z < size\\.z && "
                 "coord\\.w < size\\.w");
}

// ---------------------------------------------------------------------------------
// Coefficient variances against simulation

namespace {
struct Tap {
    Vec3<int> offset;
    double weight;
};

// Stationary periodic noise: white Gaussian noise circularly convolved with `taps`.
struct NoiseField {
    Vec3<int> grid;
    std::vector<Tap> taps;
    std::vector<double> white;
    std::vector<double> field;

    int wrap(int v, int n) const { return ((v % n) + n) % n; }
    size_t at(int x, int y, int z) const {
        return static_cast<size_t>(wrap(x, grid.x) + grid.x * (wrap(y, grid.y) + grid.y * wrap(z, grid.z)));
    }

    // E|fftn(noise)|^2 = |fftn(kernel)|^2 * N for unit-variance white noise.
    std::vector<float> psd() const {
        std::vector<float> out(volume(grid));
        const double n = static_cast<double>(volume(grid));
        for (int fz = 0; fz < grid.z; ++fz) {
            for (int fy = 0; fy < grid.y; ++fy) {
                for (int fx = 0; fx < grid.x; ++fx) {
                    double re = 0.0;
                    double im = 0.0;
                    for (const Tap& t : taps) {
                        const double angle = -2.0 * M_PI *
                                             (static_cast<double>(fx * t.offset.x) / grid.x +
                                              static_cast<double>(fy * t.offset.y) / grid.y +
                                              static_cast<double>(fz * t.offset.z) / grid.z);
                        re += t.weight * std::cos(angle);
                        im += t.weight * std::sin(angle);
                    }
                    out[at(fx, fy, fz)] = static_cast<float>((re * re + im * im) * n);
                }
            }
        }
        return out;
    }

    void draw(std::mt19937& rng, std::normal_distribution<double>& normal) {
        white.resize(volume(grid));
        field.assign(volume(grid), 0.0);
        for (double& v : white) {
            v = normal(rng);
        }
        for (int z = 0; z < grid.z; ++z) {
            for (int y = 0; y < grid.y; ++y) {
                for (int x = 0; x < grid.x; ++x) {
                    double s = 0.0;
                    for (const Tap& t : taps) {
                        s += t.weight * white[at(x - t.offset.x, y - t.offset.y, z - t.offset.z)];
                    }
                    field[at(x, y, z)] = s;
                }
            }
        }
    }
};

// 3-D coefficients of the block at `p` (periodic), by separable matrix products.
void blockTransform(const NoiseField& noise, const Vec3<int>& p, const Vec3<int>& b, const Matrix& tx,
                    const Matrix& ty, const Matrix& tz, std::vector<double>& out) {
    const size_t count = volume(b);
    std::vector<double> block(count);
    std::vector<double> tmp(count);
    for (int z = 0; z < b.z; ++z) {
        for (int y = 0; y < b.y; ++y) {
            for (int x = 0; x < b.x; ++x) {
                block[static_cast<size_t>(x + b.x * (y + b.y * z))] = noise.field[noise.at(p.x + x, p.y + y, p.z + z)];
            }
        }
    }
    auto pass = [&](const Matrix& t, int axis, const std::vector<double>& in, std::vector<double>& res) {
        const int n = axis == 0 ? b.x : axis == 1 ? b.y : b.z;
        const int strides[3] = {1, b.x, b.x * b.y};
        const int s = strides[axis];
        for (size_t i = 0; i < count; ++i) {
            const int coord = static_cast<int>(i) / s % n;
            const size_t base = i - static_cast<size_t>(coord * s);
            double v = 0.0;
            for (int j = 0; j < n; ++j) {
                v += t[static_cast<size_t>(coord * n + j)] * in[base + static_cast<size_t>(j * s)];
            }
            res[i] = v;
        }
    };
    pass(tx, 0, block, tmp);
    pass(ty, 1, tmp, block);
    pass(tz, 2, block, out);
}

struct Scenario {
    Vec3<int> grid;
    Vec3<int> block;
    Matrix tx, ty, tz;
    std::vector<Tap> taps;
    std::vector<std::vector<Vec3<int>>> groups;  // each of a power-of-two size
    Vec3<int> centre;                            // pair table: half extents
    Vec3<int> extent;
    int draws;
};

double fiveSigma(double variance, int draws) { return 5.0 * variance * std::sqrt(2.0 / (draws - 1)); }

void checkAgainstSimulation(const Scenario& s) {
    const int bcount = s.block.x * s.block.y * s.block.z;
    NoiseField noise{s.grid, s.taps, {}, {}};
    const std::vector<float> psd = noise.psd();

    // Empirical second moments (the noise has mean zero).
    std::vector<std::vector<double>> groupSquares(s.groups.size());
    std::vector<Matrix> haar(s.groups.size());
    for (size_t g = 0; g < s.groups.size(); ++g) {
        haar[g] = haarMatrix(static_cast<int>(s.groups[g].size()));
        groupSquares[g].assign(s.groups[g].size() * static_cast<size_t>(bcount), 0.0);
    }
    const size_t pairs = volume(s.extent);
    std::vector<double> pairSum(pairs, 0.0);
    std::vector<double> pairSquares(pairs, 0.0);

    std::mt19937 rng(20240611);
    std::normal_distribution<double> normal(0.0, 1.0);
    std::vector<std::vector<double>> coefficients;
    std::vector<double> reference(static_cast<size_t>(bcount));
    std::vector<double> other(static_cast<size_t>(bcount));
    for (int draw = 0; draw < s.draws; ++draw) {
        noise.draw(rng, normal);
        for (size_t g = 0; g < s.groups.size(); ++g) {
            const auto& members = s.groups[g];
            coefficients.resize(members.size(), std::vector<double>(static_cast<size_t>(bcount)));
            for (size_t k = 0; k < members.size(); ++k) {
                blockTransform(noise, members[k], s.block, s.tx, s.ty, s.tz, coefficients[k]);
            }
            const size_t n = members.size();
            for (size_t j = 0; j < n; ++j) {
                for (int e = 0; e < bcount; ++e) {
                    double v = 0.0;
                    for (size_t k = 0; k < n; ++k) {
                        v += haar[g][j * n + k] * coefficients[k][static_cast<size_t>(e)];
                    }
                    groupSquares[g][j * static_cast<size_t>(bcount) + static_cast<size_t>(e)] += v * v;
                }
            }
        }
        blockTransform(noise, s.centre, s.block, s.tx, s.ty, s.tz, reference);
        for (int dz = 0; dz < s.extent.z; ++dz) {
            for (int dy = 0; dy < s.extent.y; ++dy) {
                for (int dx = 0; dx < s.extent.x; ++dx) {
                    blockTransform(noise, Vec3<int>{dx, dy, dz}, s.block, s.tx, s.ty, s.tz, other);
                    double d = 0.0;
                    for (int e = 0; e < bcount; ++e) {
                        const double diff = reference[static_cast<size_t>(e)] - other[static_cast<size_t>(e)];
                        d += diff * diff;
                    }
                    const size_t i = static_cast<size_t>(dx + s.extent.x * (dy + s.extent.y * dz));
                    pairSum[i] += d;
                    pairSquares[i] += d * d;
                }
            }
        }
    }

    for (bool useRealFft : {false, true}) {
        SCOPED_TRACE(useRealFft ? "half spectrum" : "full spectrum");
        Model model;
        prepare(model, psd, s.grid, s.block, s.tx, s.ty, s.tz, useRealFft);
        TempMemory<float> tmp = scratch(s.grid, s.block, useRealFft, 8);
        double scale = 0.0;
        for (int e = 0; e < bcount; ++e) {
            scale = std::max(scale, static_cast<double>(model.localVariance.p[e]));
        }
        for (size_t g = 0; g < s.groups.size(); ++g) {
            SCOPED_TRACE(testing::Message() << "group " << g);
            const int n = static_cast<int>(s.groups[g].size());
            const std::vector<float> exact = modelVariances(model, s.grid, s.block, s.groups[g], haar[g], n, tmp);
            int failures = 0;
            for (size_t i = 0; i < exact.size() && failures < 10; ++i) {
                const double empirical = groupSquares[g][i] / s.draws;
                const double tol = fiveSigma(exact[i], s.draws) + 1e-6 * scale;
                if (std::abs(empirical - exact[i]) > tol) {
                    ++failures;
                    ADD_FAILURE() << "coefficient " << i % static_cast<size_t>(bcount) << " of group member "
                                  << i / static_cast<size_t>(bcount) << ": model " << exact[i]
                                  << ", simulation " << empirical;
                }
            }
            // Fewer exact coefficients: those computed agree bit for bit, and the rest
            // share what makes each 3-D coefficient's variances add up to n * local.
            for (int m = 0; m <= n; ++m) {
                const std::vector<float> partial =
                    modelVariances(model, s.grid, s.block, s.groups[g], haar[g], m, tmp);
                for (int e = 0; e < bcount; ++e) {
                    double total = 0.0;
                    for (int j = 0; j < n; ++j) {
                        const size_t i = static_cast<size_t>(j * bcount + e);
                        total += partial[i];
                        if (j < m) {
                            ASSERT_EQ(partial[i], exact[i]);
                        }
                    }
                    EXPECT_NEAR(total, static_cast<double>(n) * model.localVariance.p[e], 1e-5 * n * scale) << "m " << m;
                }
            }
        }

        const float weight = 0.75f;
        std::vector<float> table(pairs, -1.0f);
        calculateVariancePairs<float>(s.centre, s.extent, s.block, s.grid, model.kept, model.k3.p,
                                      SIZE_2_TRANSFORM, weight, table.data(), tmp);
        for (size_t i = 0; i < pairs; ++i) {
            const double mean = pairSum[i] / s.draws;
            const double spread = std::sqrt(std::max(pairSquares[i] / s.draws - mean * mean, 0.0) / (s.draws - 1));
            EXPECT_NEAR(table[i], weight * mean, weight * (5.0 * spread + 1e-5 * scale * bcount)) << "entry " << i;
        }
        const size_t zero = static_cast<size_t>(s.centre.x + s.extent.x * (s.centre.y + s.extent.y * s.centre.z));
        EXPECT_EQ(table[zero], 0.0f);
    }
}
}  // namespace

TEST(VariancesSimulation, VolumeWhiteAndColouredNoise) {
    Scenario s;
    s.grid = Vec3<int>{8, 8, 8};
    s.block = Vec3<int>{4, 4, 4};
    s.tx = s.ty = s.tz = dctMatrix(4);
    s.groups = {
        {{0, 0, 0}, {1, 0, 0}, {0, 2, 1}, {5, 6, 7}},          // overlapping and far apart
        {{2, 2, 2}, {2, 2, 2}, {3, 2, 2}, {7, 7, 7}},          // repeated; wraps around
        {{6, 1, 3}, {10, 1, 3}, {6, 9, 3}, {6, 1, 4}, {0, 0, 0}, {1, 1, 1}, {4, 4, 4}, {3, 7, 5}},
        {{4, 3, 2}},
    };
    s.centre = Vec3<int>{2, 1, 1};
    s.extent = Vec3<int>{5, 3, 3};
    s.draws = 8000;
    s.taps = {{{0, 0, 0}, 1.0}};
    {
        SCOPED_TRACE("white");
        checkAgainstSimulation(s);
    }
    // Anisotropic and asymmetric, so a swapped axis or a mirrored frequency shows.
    s.taps = {{{0, 0, 0}, 1.0}, {{1, 0, 0}, 0.6}, {{-1, 0, 0}, 0.3}, {{0, 1, 0}, -0.5},
              {{0, 0, 1}, 0.4}, {{1, 1, 0}, 0.25}, {{0, 2, 1}, 0.2}};
    {
        SCOPED_TRACE("coloured");
        checkAgainstSimulation(s);
    }
}

TEST(VariancesSimulation, PlaneColouredNoise) {
    Scenario s;
    s.grid = Vec3<int>{16, 16, 1};
    s.block = Vec3<int>{8, 8, 1};
    s.tx = s.ty = dctMatrix(8);
    s.tz = Matrix{1.0f};
    s.groups = {
        {{0, 0, 0}, {3, 0, 0}, {0, 5, 0}, {12, 13, 0}},
        {{9, 9, 0}, {9, 9, 0}, {10, 9, 0}, {15, 2, 0}, {17, 9, 0}, {1, 1, 0}, {8, 0, 0}, {4, 11, 0}},
    };
    s.centre = Vec3<int>{3, 3, 0};
    s.extent = Vec3<int>{7, 7, 1};
    s.draws = 6000;
    s.taps = {{{0, 0, 0}, 1.0}, {{1, 0, 0}, 0.7}, {{0, 1, 0}, -0.4}, {{2, 1, 0}, 0.3}, {{-1, 2, 0}, 0.2}};
    checkAgainstSimulation(s);
}
