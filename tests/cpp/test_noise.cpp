// Noise model: PSD preparation against direct computations, and the coefficient
// variances of groups against the empirical variances of simulated coloured noise.
#include "helpers.h"
#include "common.h"
#include "noise/covariance.h"
#include "noise/psd.h"
#include "noise/variances.h"

namespace {
size_t volume(const V3& v) { return size_t(v.x) * v.y * v.z; }

// Orthonormal Haar matrix of a power-of-two size: averages first, then differences.
Matrix haarMatrix(int n) {
    if (n == 1) return {1.0f};
    const int h = n / 2;
    const Matrix half = haarMatrix(h);
    const float r = float(std::sqrt(0.5));
    Matrix m(size_t(n * n), 0.0f);
    for (int i = 0; i < h; ++i) {
        for (int j = 0; j < h; ++j) m[i * n + 2 * j] = m[i * n + 2 * j + 1] = half[i * h + j] * r;
        m[(h + i) * n + 2 * i] = r;
        m[(h + i) * n + 2 * i + 1] = -r;
    }
    return m;
}

struct Owned {  // a malloc'ed result; never copied
    float* p = nullptr;
    ~Owned() { std::free(p); }
};

struct Tap { V3 offset; double weight; };

// |DFT of the taps at frequency f|^2 on grid g: the one reference DFT here.
double power(const std::vector<Tap>& taps, const V3& f, const V3& g) {
    double re = 0.0, im = 0.0;
    for (const Tap& t : taps) {
        const double a = -2.0 * M_PI * (double(f.x * t.offset.x) / g.x + double(f.y * t.offset.y) / g.y +
                                        double(f.z * t.offset.z) / g.z);
        re += t.weight * std::cos(a);
        im += t.weight * std::sin(a);
    }
    return re * re + im * im;
}

// Noise model arrays and scratch as the stage loop prepares them.
struct Model {
    V3 grid, block, kept;
    Owned k3, localVariance, covariance;
    TempMemory<float> tmp;
    static TempMemory<float> scratch(const V3& grid, const V3& block, bool useRealFft, int maxGroup) {
        Parameters p{};
        p.blockSize = block;
        p.psdWorkSize = grid;
        p.useRealFft = useRealFft;
        p.maxGroupSize = p.varianceGroupLimit = maxGroup;
        return createTempMemory<float>(p);
    }
    Model(const std::vector<float>& psd, const V3& g, const V3& b, const Matrix* t, bool useRealFft, int maxGroup)
        : grid(g), block(b), kept{halfSpectrumExtent(g, useRealFft), g.y, g.z},
          tmp(scratch(g, b, useRealFft, maxGroup)) {
        computeK3fT3<float>(psd.data(), g, g, kept, b, {t[0].data(), t[1].data(), t[2].data()}, k3.p);
        if (k3.p) computeLocalVar(k3.p, kept, int(volume(b)), localVariance.p);
        if (k3.p) computeNoiseCovariance(k3.p, g, kept, int(volume(b)), covariance.p);
        EXPECT_TRUE(k3.p && localVariance.p && covariance.p && tmp.allocated);
    }
    // Variances of a group at `positions` by the spectrum route, or by the covariance
    // table; `positions` is rewritten as the call rewrites its records.
    std::vector<float> variances(std::vector<V3> positions, const Matrix& group, int m, bool table = false,
                                 std::vector<V3>* rewritten = nullptr) {
        const int n = int(positions.size());
        std::vector<float> out(volume(block) * size_t(n), -1.0f);
        Cube4D<float> cube{{block.x, block.y, block.z, n}, out.data()};
        std::vector<BlockDistance<float>> matches(positions.size());
        for (size_t k = 0; k < positions.size(); ++k) matches[k].relativePosition = positions[k];
        if (table)
            covarianceVariances<float>(n, block, grid, m, group.data(), covariance.p, localVariance.p, cube,
                                       matches.data(), tmp);
        else
            calculateVariances<float>(n, block, grid, kept, m, group.data(), k3.p, localVariance.p, cube,
                                      matches.data(), tmp);
        for (size_t k = 0; rewritten && k < positions.size(); ++k) (*rewritten)[k] = matches[k].relativePosition;
        return out;
    }
};

// |DFT of the zero-padded basis function|^2 * PSD / N^2, x frequency slowest, the coefficient fastest.
std::vector<double> referenceK3fT3(const std::vector<float>& psd, const V3& g, const V3& b, const Matrix* t) {
    const size_t bcount = volume(b);
    const double n = double(volume(g));
    std::vector<double> out(volume(g) * bcount);
    for (size_t e = 0; e < bcount; ++e) {
        const int c = int(e) % b.x, bb = int(e) / b.x % b.y, a = int(e) / (b.x * b.y);
        std::vector<Tap> basis;
        for (int z = 0; z < std::min(b.z, g.z); ++z)
            for (int y = 0; y < std::min(b.y, g.y); ++y)
                for (int x = 0; x < std::min(b.x, g.x); ++x)
                    basis.push_back({{x, y, z}, double(t[0][c * b.x + x]) * t[1][bb * b.y + y] * t[2][a * b.z + z]});
        for (int fx = 0; fx < g.x; ++fx)
            for (int fy = 0; fy < g.y; ++fy)
                for (int fz = 0; fz < g.z; ++fz)
                    out[((fx * g.y + fy) * g.z + fz) * bcount + e] =
                        power(basis, {fx, fy, fz}, g) * psd[fx + g.x * (fy + g.y * fz)] / (n * n);
    }
    return out;
}

// Stationary periodic noise: white Gaussian noise circularly convolved with `taps`.
struct NoiseField {
    V3 grid;
    std::vector<Tap> taps;
    std::vector<double> white, field;

    size_t at(int x, int y, int z) const {
        auto wrap = [](int v, int n) {  // no division: this is the simulation's hot spot
            for (; v < 0; v += n) {}
            for (; v >= n; v -= n) {}
            return v;
        };
        return size_t(wrap(x, grid.x) + grid.x * (wrap(y, grid.y) + grid.y * wrap(z, grid.z)));
    }
    // E|fftn(noise)|^2 = |fftn(kernel)|^2 * N for unit-variance white noise.
    std::vector<float> psd() const {
        std::vector<float> out(volume(grid));
        for (int fz = 0; fz < grid.z; ++fz)
            for (int fy = 0; fy < grid.y; ++fy)
                for (int fx = 0; fx < grid.x; ++fx)
                    out[at(fx, fy, fz)] = float(power(taps, {fx, fy, fz}, grid) * double(volume(grid)));
        return out;
    }
    void draw(std::mt19937& rng, std::normal_distribution<double>& normal) {
        white.resize(volume(grid));
        field.resize(volume(grid));
        for (double& v : white) v = normal(rng);
        for (int z = 0; z < grid.z; ++z)
            for (int y = 0; y < grid.y; ++y)
                for (int x = 0; x < grid.x; ++x) {
                    double v = 0.0;
                    for (const Tap& t : taps) v += t.weight * white[at(x - t.offset.x, y - t.offset.y, z - t.offset.z)];
                    field[at(x, y, z)] = v;
                }
    }
    // 3-D coefficients of the block at `p` (periodic), appended to `out`.
    void blockTransform(const V3& p, const V3& b, const Matrix* t, std::vector<double>& out) const {
        std::vector<double> block;
        block.reserve(volume(b));
        for (int z = 0; z < b.z; ++z)
            for (int y = 0; y < b.y; ++y)
                for (int x = 0; x < b.x; ++x) block.push_back(field[at(p.x + x, p.y + y, p.z + z)]);
        for (int axis = 0; axis < 3; ++axis) block = alongAxis(block, t[axis].data(), b, axis);
        out.insert(out.end(), block.begin(), block.end());
    }
};

struct Scenario {
    V3 grid, block;
    Matrix t[3];
    std::vector<Tap> taps;
    std::vector<std::vector<V3>> groups;  // each of a power-of-two size
    V3 centre, extent;                    // pair table: half extents
    int draws;
};

void checkAgainstSimulation(const Scenario& s) {
    const size_t bcount = volume(s.block), pairs = volume(s.extent);
    NoiseField noise{s.grid, s.taps, {}, {}};
    // Empirical second moments (the noise has mean zero).
    std::vector<std::vector<double>> groupSquares(s.groups.size());
    std::vector<Matrix> haar(s.groups.size());
    for (size_t g = 0; g < s.groups.size(); ++g) {
        haar[g] = haarMatrix(int(s.groups[g].size()));
        groupSquares[g].assign(s.groups[g].size() * bcount, 0.0);
    }
    std::vector<double> pairSum(pairs, 0.0), pairSquares(pairs, 0.0), coefficients;
    std::mt19937 rng(20240611);
    std::normal_distribution<double> normal(0.0, 1.0);
    for (int draw = 0; draw < s.draws; ++draw) {
        noise.draw(rng, normal);
        for (size_t g = 0; g < s.groups.size(); ++g) {
            const int n = int(s.groups[g].size());
            coefficients.clear();
            for (const V3& p : s.groups[g]) noise.blockTransform(p, s.block, s.t, coefficients);
            coefficients = alongAxis(coefficients, haar[g].data(), {int(bcount), n, 1}, 1);  // across the members
            for (size_t i = 0; i < coefficients.size(); ++i) groupSquares[g][i] += coefficients[i] * coefficients[i];
        }
        coefficients.clear();
        noise.blockTransform(s.centre, s.block, s.t, coefficients);  // kept in front; each other block
        for (size_t i = 0; i < pairs; ++i) {                            // is appended, then dropped
            const int dx = int(i) % s.extent.x, dy = int(i) / s.extent.x % s.extent.y;
            noise.blockTransform({dx, dy, int(i) / (s.extent.x * s.extent.y)}, s.block, s.t, coefficients);
            double d = 0.0;
            for (size_t e = 0; e < bcount; ++e) d += std::pow(coefficients[e] - coefficients[bcount + e], 2);
            pairSum[i] += d;
            pairSquares[i] += d * d;
            coefficients.resize(bcount);
        }
    }

    for (bool useRealFft : {false, true}) {
        SCOPED_TRACE(useRealFft ? "half spectrum" : "full spectrum");
        Model model(noise.psd(), s.grid, s.block, s.t, useRealFft, 8);
        double scale = 0.0;
        for (size_t e = 0; e < bcount; ++e) scale = std::max(scale, double(model.localVariance.p[e]));
        for (size_t g = 0; g < s.groups.size(); ++g) {
            SCOPED_TRACE(testing::Message() << "group " << g);
            const int n = int(s.groups[g].size());
            const std::vector<float> exact = model.variances(s.groups[g], haar[g], n);
            int failures = 0;  // five sigma of a sample variance
            for (size_t i = 0; i < exact.size() && failures < 10; ++i) {
                const double empirical = groupSquares[g][i] / s.draws;
                if (std::abs(empirical - exact[i]) > 5.0 * exact[i] * std::sqrt(2.0 / (s.draws - 1)) + 1e-6 * scale)
                    ++failures, ADD_FAILURE() << "coefficient " << i % bcount << " of group member " << i / bcount
                                              << ": model " << exact[i] << ", simulation " << empirical;
            }
            // Fewer exact coefficients: those computed agree bit for bit, and the rest
            // share what makes each 3-D coefficient's variances add up to n * local.
            for (int m = 0; m <= n; ++m) {
                const std::vector<float> partial = model.variances(s.groups[g], haar[g], m);
                for (size_t e = 0; e < bcount; ++e) {
                    double total = 0.0;
                    for (int j = 0; j < n; ++j) {
                        total += partial[j * bcount + e];
                        if (j < m) { ASSERT_EQ(partial[j * bcount + e], exact[j * bcount + e]); }
                    }
                    EXPECT_NEAR(total, n * double(model.localVariance.p[e]), 1e-5 * n * scale) << "m " << m;
                }
            }
        }
        const float weight = 0.75f, pairTransform[4] = {0.70710677f, 0.70710677f, 0.70710677f, -0.70710677f};
        std::vector<float> table(pairs, -1.0f);
        calculateVariancePairs<float>(s.centre, s.extent, s.block, s.grid, model.kept, model.k3.p, pairTransform,
                                      weight, table.data(), model.tmp);
        // Filled in parts, as the stage's threads share it: the same table.
        std::vector<float> parts(pairs, -1.0f);
        for (int row = 0; row < s.extent.y * s.extent.z; row += 2)
            calculateVariancePairRows<float>(s.centre, s.extent, s.block, s.grid, model.kept, model.k3.p,
                                             pairTransform, weight, parts.data(), model.tmp, row, row + 2);
        EXPECT_EQ(parts, table);
        for (size_t i = 0; i < pairs; ++i) {
            const double mean = pairSum[i] / s.draws;
            const double spread = std::sqrt(std::max(pairSquares[i] / s.draws - mean * mean, 0.0) / (s.draws - 1));
            EXPECT_NEAR(table[i], weight * mean, weight * (5.0 * spread + 1e-5 * scale * double(bcount))) << i;
        }
        EXPECT_EQ(table[size_t(s.centre.x + s.extent.x * (s.centre.y + s.extent.y * s.centre.z))], 0.0f);
    }
}
}  // namespace

TEST(Psd, Resize) {
    std::mt19937 rng(5);
    const V3 size{5, 3, 4};
    const std::vector<float> psd = randomValues(volume(size), rng, 0.5f, 2.0f);
    Owned same;
    resizePSD(psd.data(), size, size, size, same.p);
    ASSERT_NE(same.p, nullptr);
    for (size_t i = 0; i < psd.size(); ++i) EXPECT_NEAR(same.p[i], psd[i], 1e-5f * psd[i]) << i;
    // Up along each axis in turn: 1, 3 -> 1, 2, 3, 3 (no wrap to the first sample), times 4 / 2.
    // Down by two in x and y: every output is the sample it lands on, times 1/4.
    const float two[2] = {1, 3}, up[4] = {2, 4, 6, 6}, flat[16] = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
    const float down[4] = {1.0f / 4, 3.0f / 4, 9.0f / 4, 11.0f / 4};
    const struct { V3 from, to; const float *in, *want; } cases[] = {{{2, 1, 1}, {4, 1, 1}, two, up},
        {{1, 2, 1}, {1, 4, 1}, two, up}, {{1, 1, 2}, {1, 1, 4}, two, up}, {{4, 4, 1}, {2, 2, 1}, flat, down}};
    for (const auto& c : cases) {
        Owned out;
        resizePSD(c.in, c.from, c.to, c.to, out.p);
        ASSERT_NE(out.p, nullptr);
        for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(out.p[i], c.want[i]) << c.to << " " << i;
    }
}

TEST(Psd, K3fT3MatchesDirectComputationAndFoldsAlongX) {
    // The z block extent exceeds the grid's: only the first samples of each row count.
    std::mt19937 rng(11);
    const V3 block{3, 2, 4};
    const Matrix t[3] = {randomValues(9, rng, -1, 1), randomValues(4, rng, -1, 1), randomValues(16, rng, -1, 1)};
    for (int nx : {8, 7, 6}) {
        SCOPED_TRACE(nx);
        const V3 grid{nx, 4, 3};
        const std::vector<float> psd = randomValues(volume(grid), rng, 0.5f, 2.0f);
        const std::vector<double> want = referenceK3fT3(psd, grid, block, t);
        Owned full, folded;
        computeK3fT3<float>(psd.data(), grid, grid, grid, block, {t[0].data(), t[1].data(), t[2].data()}, full.p);
        ASSERT_NE(full.p, nullptr);
        double peak = 0.0;
        for (double v : want) peak = std::max(peak, v);
        for (size_t i = 0; i < want.size(); ++i) ASSERT_NEAR(full.p[i], want[i], 1e-4 * peak) << i;
        if (nx == 6) continue;
        // Fold with kx = 5. 8: 1..3 doubled, 0 and 4 kept, 5..7 cleared. 7 (odd, the
        // bounds kept as they are): 1 and 2 doubled, 0 and 3 kept, 4..6 cleared.
        const float factors[2][8] = {{1, 2, 2, 2, 1, 0, 0, 0}, {1, 2, 2, 1, 0, 0, 0}};
        computeK3fT3<float>(psd.data(), grid, grid, {5, grid.y, grid.z}, block, {t[0].data(), t[1].data(), t[2].data()},
                            folded.p);
        ASSERT_NE(folded.p, nullptr);
        const size_t plane = size_t(grid.y * grid.z) * volume(block);
        for (size_t i = 0; i < plane * size_t(nx); ++i)
            ASSERT_EQ(folded.p[i], factors[nx == 7][i / plane] * full.p[i]) << "fx " << i / plane;
    }
    // The normaliser is a 32-bit product. 32^3: N^2 = 2^30 is exact; the PSD resized from one
    // sample is N, so K3fT3 = 2^-15. 64 x 64 x 16: N^2 = 2^32 wraps to 0: all infinite or NaN.
    const float one[1] = {1.0f};
    for (const V3& grid : {V3{32, 32, 32}, V3{64, 64, 16}}) {
        Owned k3;
        computeK3fT3<float>(one, {1, 1, 1}, grid, grid, {1, 1, 1}, {one, one, one}, k3.p);
        ASSERT_NE(k3.p, nullptr);
        for (size_t i = 0; i < volume(grid); ++i) {
            if (grid.z == 32) ASSERT_EQ(k3.p[i], std::ldexp(1.0f, -15)) << i;
            else ASSERT_FALSE(std::isfinite(k3.p[i])) << i;
        }
    }
}

TEST(Psd, LocalVariancesAreSums) {
    std::vector<float> k3(5 * 3);
    for (size_t i = 0; i < k3.size(); ++i) k3[i] = float(i) * 0.25f;
    for (const V3& size : {V3{5, 1, 1}, V3{0, 4, 4}, V3{4, 0, 4}, V3{4, 4, 0}}) {  // sums, or zeros when empty
        Owned sums;
        computeLocalVar(k3.data(), size, 3, sums.p);
        ASSERT_NE(sums.p, nullptr);
        for (int e = 0; e < 3; ++e) {
            float want = 0.0f;
            for (int m = 0; m < int(volume(size)); ++m) want += k3[m * 3 + e];
            EXPECT_EQ(sums.p[e], want);
        }
    }
}

TEST(Variances, SingleBlockZeroLimitPeriodicWrapAndScratchBound) {
    const Matrix d = dctMatrix(4), t[3] = {d, d, d}, haar = haarMatrix(4), half{0.5f};
    std::vector<float> psd(512);
    for (size_t i = 0; i < psd.size(); ++i) psd[i] = 1.0f + 0.5f * float(i % 7);
    Model model(psd, {8, 8, 8}, {4, 4, 4}, t, true, 4);
    const float* local = model.localVariance.p;
    // One block: power is groupTransform[0]^2 everywhere.
    const std::vector<float> one = model.variances({{3, 1, 6}}, half, 1);
    for (int e = 0; e < 64; ++e) EXPECT_NEAR(one[e], 0.25f * local[e], 1e-5f * local[e]);
    // m = 0: every coefficient gets the single-block variance.
    const std::vector<V3> spots{{0, 0, 0}, {1, 2, 3}, {5, 5, 0}, {7, 0, 2}};
    const std::vector<float> none = model.variances(spots, haar, 0);
    for (size_t i = 0; i < none.size(); ++i) EXPECT_FLOAT_EQ(none[i], local[i % 64]);
    // A relative position of Nx (or 2 Ny) is the same place as 0; the call rewrites it.
    EXPECT_EQ(model.variances(spots, haar, 4), model.variances({{8, 0, 0}, {1, 2, 11}, {13, 21, 8}, {7, 0, 2}}, haar, 4));
    std::vector<BlockDistance<float>> records(1);
    records[0].relativePosition = V3{9, 17, 8};
    std::vector<float> out(64);
    Cube4D<float> cube{{4, 4, 4, 1}, out.data()};
    calculateVariances<float>(1, model.block, model.grid, model.kept, 1, half.data(), model.k3.p, nullptr, cube,
                              records.data(), model.tmp);
    EXPECT_EQ(records[0].relativePosition, (V3{1, 1, 0}));
    // A group larger than the scratch was made for aborts.
    Model small(psd, {8, 8, 8}, {4, 4, 4}, t, false, 2);
    EXPECT_DEATH(small.variances(spots, haar, 4), "coord\\.x < size\\.x && coord\\.y < size\\.y && "
                                                  "coord\\.z < size\\.z && coord\\.w < size\\.w");
}

// The covariance table against the spectrum route: the same variances to float
// rounding and the same rewritten positions, over grids (half and full spectrum, a
// plane, not cubic), blocks, white and coloured spectra, groups and exact rows; and
// the same bits from the baseline kernels as from the chosen ones.
TEST(Variances, CovarianceTableMatchesSpectrumRoute) {
    struct Case { V3 grid, block; bool useRealFft, coloured; };
    const Case cases[] = {{{16, 16, 16}, {4, 4, 4}, true, true}, {{8, 8, 8}, {4, 4, 4}, true, false},
                          {{8, 4, 16}, {3, 2, 4}, false, true}, {{16, 16, 1}, {8, 8, 1}, true, true},
                          {{4, 8, 8}, {2, 2, 2}, true, true},   {{8, 8, 8}, {8, 8, 8}, false, true},
                          {{32, 32, 1}, {5, 3, 1}, true, true},
                          {{4, 4, 4}, {4, 4, 4}, false, false}};
    std::mt19937 rng(11);
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << "grid " << c.grid << " block " << c.block);
        const Matrix t[3] = {dctMatrix(c.block.x), dctMatrix(c.block.y), dctMatrix(c.block.z)};
        const std::vector<float> psd =
            c.coloured ? randomValues(volume(c.grid), rng, 0.02f, 5.0f) : std::vector<float>(volume(c.grid), 1.0f);
        Model model(psd, c.grid, c.block, t, c.useRealFft, 64);
        const size_t bcount = volume(c.block);
        // White unit PSD: each orthonormal basis function has energy 1, so every local variance
        // is sum_f |F|^2 / N^2 = 1 / N, also from a folded half spectrum.
        for (size_t e = 0; e < bcount && !c.coloured; ++e)
            EXPECT_NEAR(model.localVariance.p[e], 1.0 / double(volume(c.grid)), 1e-6 / 64) << e;
        for (int n : {1, 2, 4, 8, 16, 32, 64}) {
            std::vector<V3> spots(size_t(n), V3{});
            for (V3& p : spots) {  // up to twice the grid: the call wraps them
                p = {int(rng() % unsigned(2 * c.grid.x)), int(rng() % unsigned(2 * c.grid.y)),
                     int(rng() % unsigned(2 * c.grid.z))};
            }
            if (n > 2) spots[2] = spots[1];  // two blocks at one place
            const Matrix group = n % 8 == 0 ? dctMatrix(n) : haarMatrix(n);
            for (int m : {0, 1, 2, n}) {
                if (m > n) continue;
                std::vector<V3> viaSpectrum(spots.size()), viaTable(spots.size());
                const std::vector<float> expected = model.variances(spots, group, m, false, &viaSpectrum);
                const std::vector<float> actual = model.variances(spots, group, m, true, &viaTable);
                ASSERT_EQ(viaTable, viaSpectrum);
                ASSERT_EQ(onBaselineKernels([&] { return model.variances(spots, group, m, true); }), actual);
                for (size_t i = 0; i < expected.size(); ++i) {
                    // Relative to the coefficient's variance in one block times the group
                    // size; both routes round sums of hundreds or thousands of terms.
                    const double scale = n * double(model.localVariance.p[i % bcount]);
                    const double error = std::abs(double(actual[i]) - expected[i]) / scale;
                    ASSERT_LE(error, 2e-5) << "n " << n << " m " << m << " coefficient " << i % bcount
                                           << " row " << i / bcount << ": " << actual[i] << " vs " << expected[i];
                }
            }
        }
    }
}

TEST(VariancesSimulation, VolumeWhiteAndColouredNoise) {
    const Matrix d = dctMatrix(4);
    Scenario s{{8, 8, 8}, {4, 4, 4}, {d, d, d}, {{{0, 0, 0}, 1.0}},
               {{{0, 0, 0}, {1, 0, 0}, {0, 2, 1}, {5, 6, 7}},  // overlapping and far apart
                {{2, 2, 2}, {2, 2, 2}, {3, 2, 2}, {7, 7, 7}},  // repeated; wraps around
                {{6, 1, 3}, {10, 1, 3}, {6, 9, 3}, {6, 1, 4}, {0, 0, 0}, {1, 1, 1}, {4, 4, 4}, {3, 7, 5}},
                {{4, 3, 2}}},
               {2, 1, 1}, {5, 3, 3}, 8000};
    checkAgainstSimulation(s);
    // Anisotropic and asymmetric, so a swapped axis or a mirrored frequency shows.
    s.taps = {{{0, 0, 0}, 1.0}, {{1, 0, 0}, 0.6}, {{-1, 0, 0}, 0.3}, {{0, 1, 0}, -0.5},
              {{0, 0, 1}, 0.4},  {{1, 1, 0}, 0.25}, {{0, 2, 1}, 0.2}};
    SCOPED_TRACE("coloured");
    checkAgainstSimulation(s);
}

TEST(VariancesSimulation, PlaneColouredNoise) {
    const Matrix d = dctMatrix(8);
    checkAgainstSimulation({{16, 16, 1}, {8, 8, 1}, {d, d, {1.0f}},
                            {{{0, 0, 0}, 1.0}, {{1, 0, 0}, 0.7}, {{0, 1, 0}, -0.4}, {{2, 1, 0}, 0.3}, {{-1, 2, 0}, 0.2}},
                            {{{0, 0, 0}, {3, 0, 0}, {0, 5, 0}, {12, 13, 0}},
                             {{9, 9, 0}, {9, 9, 0}, {10, 9, 0}, {15, 2, 0}, {17, 9, 0}, {1, 1, 0}, {8, 0, 0}, {4, 11, 0}}},
                            {3, 3, 0}, {7, 7, 1}, 6000});
}
