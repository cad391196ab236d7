// Transform tables, recognition, metadata, the 3-D block transform and the group
// transform, each against plain products written here.
#include "helpers.h"
#include "common.h"
#include "transforms/TransformsMeta.h"
#include "transforms/tables.h"
#include "transforms/transf3D.h"
#include "transforms/transformBlocksNL.h"

namespace {
using namespace TransformsMetas;
using Kinds = Vec3<StandardTransform>;
using Mats = Vec3<const float*>;

// The one reference product: matrix m[a] along every axis a that has one (z only when
// s.z > 1), compared with a bound that scales with the magnitudes summed into each value.
void checkProduct(const std::vector<float>& in, Vec3<int> s, Mats m, const float* got) {
    std::vector<double> ref(in.begin(), in.end()), mag(in.size());
    for (size_t i = 0; i < in.size(); ++i) mag[i] = std::fabs(in[i]);
    const float* axes[3] = {m.x, m.y, s.z > 1 ? m.z : nullptr};
    for (int axis = 0; axis < 3; ++axis)
        if (axes[axis]) ref = alongAxis(ref, axes[axis], s, axis), mag = alongAxis(mag, axes[axis], s, axis, true);
    for (size_t i = 0; i < ref.size(); ++i) ASSERT_NEAR(got[i], ref[i], 1e-5 * mag[i] + 1e-30) << "index " << i;
}

std::vector<float> run3D(std::vector<float> block, Mats m, Kinds kinds, Vec3<int> s) {
    std::vector<float> a(block.size()), b(block.size());
    transf3D(block.data(), m, kinds, a.data(), b.data(), block.data(), s);  // in place
    return block;
}

// Group members scattered in memory, as a block collection stores them.
struct Group {
    std::vector<float> storage;
    std::vector<BlockDistance<float>> matches;
    int vol;
    Group(int n, int volume, unsigned seed) : storage(randomValues(size_t(n) * (volume + 3) + 1, seed)), vol(volume) {
        for (int j = 0; j < n; ++j) matches.push_back({storage.data() + (n - 1 - j) * (volume + 3) + 1, 0.0f, {}, {}});
    }
    std::vector<float> cube() const {
        std::vector<float> c;
        for (const auto& m : matches) c.insert(c.end(), m.block, m.block + vol);
        return c;
    }
};

// The group matrix acts across the members: a product along y of a (vol, n, 1) block.
void checkGroup(const std::vector<float>& in, int n, const float* m, const float* got) {
    checkProduct(in, {int(in.size()) / n, n, 1}, {nullptr, m, nullptr}, got);
}

const float* const kNoMatrix = nullptr;  // the Haar code never reads the matrix
const float* haarTable(int n, bool inv) {
    return n == 2 ? SIZE_2_TRANSFORM : (inv ? DEFAULT_GROUP_TRANSFORMS_INV : DEFAULT_GROUP_TRANSFORMS_FWD)[n];
}

double besselI0(double x) {
    double sum = 0.0, term = 1.0;
    for (int k = 1; k < 50; ++k) sum += term, term *= (x / (2 * k)) * (x / (2 * k));
    return sum;
}

// One axis of the general product (or, along y of a (volume, n, 1) block, the group's) in its
// exact rounding sequence: input[0]*M[k n], then fused multiply-adds for j = 1..n-1 in order.
std::vector<float> exactAlongAxis(const std::vector<float>& in, const float* m, Vec3<int> s, int axis) {
    const int n = axis == 0 ? s.x : axis == 1 ? s.y : s.z, stride = axis == 0 ? 1 : axis == 1 ? s.x : s.x * s.y;
    std::vector<float> out(in.size());
    for (int i = 0; i < s.volume(); ++i) {
        const int k = (i / stride) % n;
        const float* line = &in[size_t(i - k * stride)];
        float acc = line[0] * m[k * n];
        for (int j = 1; j < n; ++j) acc = std::fma(line[j * stride], m[k * n + j], acc);
        out[i] = acc;
    }
    return out;
}

// Max |inv * fwd - I| of two n x n tables.
double offIdentity(const float* inv, const float* fwd, int n) {
    double worst = 0.0;
    for (int i = 0; i < n * n; ++i) {
        double s = i / n == i % n ? -1.0 : 0.0;
        for (int k = 0; k < n; ++k) s += double(inv[i / n * n + k]) * fwd[k * n + i % n];
        worst = std::max(worst, std::fabs(s));
    }
    return worst;
}
}  // namespace

TEST(Tables, FollowTheirRulesAndInvertExactly) {
    struct Pair { const float* fwd; const float* inv; int n; bool dct; };
    const Pair pairs[] = {{DCT_4_FWD, DCT_4_INV, 4, true},     {DCT_5_FWD, DCT_5_INV, 5, true},
                          {DCT_8_FWD, DCT_8_INV, 8, true},     {HAAR_4_FWD, HAAR_4_INV, 4, false},
                          {HAAR_8_FWD, HAAR_8_INV, 8, false},  {HAAR_16_FWD, HAAR_16_INV, 16, false},
                          {HAAR_32_FWD, HAAR_32_INV, 32, false}, {HAAR_64_FWD, HAAR_64_INV, 64, false}};
    for (const Pair& p : pairs) {
        const int n = p.n;
        for (int k = 0; k < n; ++k)
            for (int j = 0; j < n; ++j) {
                // Haar row r >= 1 at level l = floor(log2 r) has support n / 2^l.
                const int level = k == 0 ? 0 : int(std::log2(k)), support = k == 0 ? 2 * n : n >> level;
                const int rel = j - (k - (1 << level)) * support;
                const double rule = p.dct ? std::sqrt((k == 0 ? 1.0 : 2.0) / n) * std::cos(M_PI * (2 * j + 1) * k / (2.0 * n))
                                    : k == 0 ? 1.0 / std::sqrt(n)
                                    : rel < 0 || rel >= support ? 0.0
                                    : (rel < support / 2 ? 1.0 : -1.0) / std::sqrt(support);
                const float f = p.fwd[k * n + j];
                ASSERT_LE(std::fabs(f - rule), std::max(1e-12, 1.0001 * std::ldexp(std::fabs(rule), -23)))
                    << n << " " << k << " " << j;
                ASSERT_EQ(p.inv[j * n + k], f);
            }
        EXPECT_LE(offIdentity(p.inv, p.fwd, n), 1e-6) << n;  // orthonormal
    }
    EXPECT_FLOAT_EQ(DCT_4_FWD[4], 0.6532815f);  // the rule itself, pinned
    EXPECT_FLOAT_EQ(DCT_4_FWD[5], 0.27059805f);
    for (int i = 0; i < 16; ++i) EXPECT_TRUE(BIOR_4_FWD[i] == HAAR_4_FWD[i] && BIOR_4_INV[i] == HAAR_4_INV[i]) << i;
    // BIOR_8: listed values, and INV * FWD = identity although INV is no transpose.
    EXPECT_TRUE(BIOR_8_FWD[1 * 8 + 1] == -0.4616456f && BIOR_8_FWD[2 * 8 + 0] == 0.5693594f);
    EXPECT_TRUE(BIOR_8_INV[2 * 8 + 4] == 0.121534f && BIOR_8_INV[0 * 8 + 2] == 0.5145586f);
    EXPECT_LE(offIdentity(BIOR_8_INV, BIOR_8_FWD, 8), 1e-6);
    // The pair table keeps 0.7071: its product is 0.99998 on the diagonal.
    EXPECT_TRUE(HAAR_2_FWD[0] == 0.7071f && HAAR_2_INV[3] == -0.7071f);
    EXPECT_NEAR(HAAR_2_INV[0] * HAAR_2_FWD[0] + HAAR_2_INV[1] * HAAR_2_FWD[2], 0.99998, 1e-6);
    EXPECT_TRUE(SIZE_2_TRANSFORM[3] == -0.70710677f && ONE[0] == 1.0f && ZERO[0] == 0.0f);
}

TEST(Tables, KaiserWindows) {
    auto w = [](int n, int i) {
        const double t = 2.0 * i / (n - 1) - 1.0;
        return besselI0(2.0 * std::sqrt(1.0 - t * t)) / besselI0(2.0);
    };
    const float w8[4] = {0.4386763f, 0.6813243f, 0.8768399f, 0.9858225f};
    for (int i = 0; i < 4; ++i) EXPECT_FLOAT_EQ(float(w(8, i)), w8[i]);
    for (int i = 0; i < 64; ++i) {
        EXPECT_FLOAT_EQ(KAISER_8x8[i], float(w(8, i % 8) * w(8, i / 8)));
        EXPECT_FLOAT_EQ(KAISER_4x4x4[i], float(w(4, i % 4) * w(4, i / 4 % 4) * w(4, i / 16)));
    }
    EXPECT_NEAR(KAISER_4x4x4[0], 0.084417, 1e-6);
    EXPECT_NEAR(KAISER_4x4x4[1 + 4 * 2 + 16 * 1], 0.789693, 1e-6);
}

TEST(Tables, ListsAndSets) {
    for (int n = 0; n <= 64; ++n) {
        const bool pow2 = n >= 2 && (n & (n - 1)) == 0;
        EXPECT_EQ(DEFAULT_GROUP_TRANSFORMS_FWD[n] != nullptr, pow2) << n;
        EXPECT_EQ(DEFAULT_GROUP_TRANSFORMS_INV[n] != nullptr, pow2) << n;
    }
    EXPECT_EQ(DEFAULT_GROUP_TRANSFORMS_FWD[64], HAAR_64_FWD);
    EXPECT_EQ(DEFAULT_GROUP_TRANSFORMS_INV[2], HAAR_2_INV);
    // Each built-in set undoes its forward tables with its inverse ones and brings its window.
    const struct { const Transforms<float>* set; Vec3<int> block; const float* window; } sets[] = {
        {&DEFAULT_TRANSFORMS_3D, {4, 4, 4}, KAISER_4x4x4},
        {&DEFAULT_TRANSFORMS_2D, {8, 8, 1}, KAISER_8x8},
        {&DEFAULT_TRANSFORMS_2D_WIE, {8, 8, 1}, KAISER_8x8}};
    for (const auto& s : sets) {
        EXPECT_TRUE(s.set->window == s.window);
        EXPECT_TRUE(s.set->groupForward == DEFAULT_GROUP_TRANSFORMS_FWD &&
                    s.set->groupInverse == DEFAULT_GROUP_TRANSFORMS_INV);
        EXPECT_LE(offIdentity(s.set->inverse.x, s.set->forward.x, s.block.x), 1e-6) << s.block;
        EXPECT_LE(offIdentity(s.set->inverse.y, s.set->forward.y, s.block.y), 1e-6) << s.block;
        EXPECT_LE(offIdentity(s.set->inverse.z, s.set->forward.z, s.block.z), 1e-6) << s.block;
    }
    const float* byKind[32] = {DCT_4_FWD, BIOR_4_FWD, HAAR_4_FWD, nullptr, DCT_5_FWD, DCT_8_FWD, BIOR_8_FWD, HAAR_8_FWD, nullptr,
                               HAAR_2_FWD, HAAR_4_FWD, HAAR_8_FWD, HAAR_16_FWD, HAAR_32_FWD, nullptr, nullptr,
                               DCT_4_INV, BIOR_4_INV, HAAR_4_INV, nullptr, DCT_5_INV, DCT_8_INV, BIOR_8_INV, HAAR_8_INV, nullptr,
                               HAAR_2_INV, HAAR_4_INV, HAAR_8_INV, HAAR_16_INV, HAAR_32_INV, nullptr, nullptr};
    for (int k = 0; k < 32; ++k) EXPECT_EQ(standardTransformTable(StandardTransform(k)), byKind[k]) << k;
}

TEST(Recognition, ToleranceAndOrder) {
    std::vector<float> m(DCT_8_FWD, DCT_8_FWD + 64);
    for (float& v : m) v += 0.0009f;
    EXPECT_EQ(getStandardBlockTransform(m.data(), 8), Dct8);
    m.assign(DCT_8_FWD, DCT_8_FWD + 64);
    m[37] += 0.0011f;
    EXPECT_EQ(getStandardBlockTransform(m.data(), 8), Arbitrary);
    m[37] = std::numeric_limits<float>::quiet_NaN();  // a NaN difference is no difference
    EXPECT_EQ(getStandardBlockTransform(m.data(), 8), Dct8);
    struct Known { const float* m; int n; StandardTransform kind; };
    const Known known[] = {{BIOR_8_FWD, 8, Bior8},        {HAAR_8_FWD, 8, Haar8},         {DCT_5_FWD, 5, Dct5},
                           {DCT_4_FWD, 4, Dct4},          {HAAR_4_FWD, 4, Bior4},         {DCT_4_INV, 4, Arbitrary},
                           {SIZE_2_TRANSFORM, 2, Arbitrary}, {HAAR_16_FWD, 16, Arbitrary}, {ONE, 1, Arbitrary}};
    for (const Known& k : known) EXPECT_EQ(getStandardBlockTransform(k.m, k.n), k.kind) << k.n;
    EXPECT_EQ(getStandardTransform4(HAAR_4_FWD), Bior4);
    EXPECT_TRUE(matchesTable(HAAR_2_FWD, SIZE_2_TRANSFORM, 4));
}

TEST(TransformMeta, KindsPerGroupSize) {
    Parameters p{};
    p.blockSize = {8, 8, 1};
    Transforms<float> t = DEFAULT_TRANSFORMS_2D;
    for (int n : {16, 20, 1, 0, 32, 64, 4}) {  // the last with DCT rows
        if (n == 4) t.forward = {DCT_8_FWD, DCT_8_FWD, ONE};
        p.maxGroupSize = n;
        TransformsMeta<float> meta = getTransformMeta(t, p);
        const StandardTransform axis = n == 4 ? Dct8 : Bior8;
        const StandardTransform inverse = n == 4 ? InverseDct8 : InverseBior8;
        EXPECT_EQ(meta.forwardKinds, (Kinds{axis, axis, Arbitrary}));
        EXPECT_EQ(meta.inverseKinds, (Kinds{inverse, inverse, InverseArbitrary}));
        EXPECT_EQ(meta.groupForward, DEFAULT_GROUP_TRANSFORMS_FWD);
        EXPECT_EQ(meta.window, KAISER_8x8);
        for (int s = 0; s <= n; ++s) {
            const int expected = s > 32 ? 15 : s == 2 ? 9 : s == 4 ? 1 : s == 8 ? 7 : s == 16 ? 12 : s == 32 ? 13 : 15;
            EXPECT_EQ(meta.groupForwardKinds[s], expected) << n << " " << s;
            EXPECT_EQ(meta.groupInverseKinds[s], expected + 16) << n << " " << s;
        }
        std::free(meta.groupForwardKinds);
        std::free(meta.groupInverseKinds);
    }
}

TEST(Transf3D, ButterfliesMatchTheProduct) {
    struct Case { const float* m; StandardTransform kind; };
    const Case cases[] = {{DCT_8_FWD, Dct8}, {DCT_8_INV, InverseDct8}, {BIOR_8_FWD, Bior8}, {BIOR_8_INV, InverseBior8}};
    const float* other = DCT_5_FWD;  // a 5-point axis beside an 8-point one
    unsigned seed = 1;
    for (const Case& c : cases) {
        // Butterfly on x only, y only, both; the product with kind 15 as well; then line
        // counts that are no multiple of eight; then both on every slice of a deeper block.
        struct Shape { Vec3<int> s; Kinds kinds; Mats m; };
        const Shape shapes[] = {{{8, 8, 1}, {c.kind, Arbitrary, Arbitrary}, {c.m, c.m, ONE}},
                                {{8, 8, 1}, {Arbitrary, c.kind, Arbitrary}, {c.m, c.m, ONE}},
                                {{8, 8, 1}, {c.kind, c.kind, Arbitrary}, {c.m, c.m, ONE}},
                                {{8, 8, 1}, ARB_TRANSFORMS, {c.m, c.m, ONE}},
                                {{8, 5, 2}, {c.kind, Arbitrary, Arbitrary}, {c.m, other, SIZE_2_TRANSFORM}},
                                {{5, 8, 2}, {Arbitrary, c.kind, Arbitrary}, {other, c.m, SIZE_2_TRANSFORM}},
                                {{8, 8, 5}, {c.kind, c.kind, Arbitrary}, {c.m, c.m, other}}};
        for (const Shape& sh : shapes) {
            const std::vector<float> in = randomValues(size_t(sh.s.volume()), seed++);
            checkProduct(in, sh.s, sh.m, run3D(in, sh.m, sh.kinds, sh.s).data());
        }
    }
}

// Every product path (the whole-cube code for 4, 6 and 8 points and the generic one, every
// axis length from 1 to beyond the stack-transposed limit) gives the bits of the plain
// sequence, on each kernel set, in place or not. A flat block's z matrix is never applied.
TEST(Transf3D, GeneralProductIsExactOnEverySet) {
    const bool baselineOnly = std::string(korvo_detail::activeKernelName()) == "baseline";
    struct Case { Vec3<int> s; Kinds kinds; };
    const Case cases[] = {{{4, 4, 4}, ARB_TRANSFORMS}, {{4, 4, 4}, {Dct4, Dct4, Dct4}}, {{8, 8, 8}, ARB_TRANSFORMS},
                          {{8, 8, 8}, {Haar8, InverseArbitrary, Dct8}}, {{3, 5, 2}, ARB_TRANSFORMS},
                          {{4, 4, 1}, ARB_TRANSFORMS}, {{8, 8, 4}, ARB_TRANSFORMS}, {{1, 4, 3}, ARB_TRANSFORMS},
                          {{40, 2, 3}, ARB_TRANSFORMS}, {{7, 1, 1}, ARB_TRANSFORMS}, {{6, 6, 6}, ARB_TRANSFORMS}};
    for (const bool baseline : {false, true}) {
        korvo_detail::forceBaselineKernels(baseline || baselineOnly);
        unsigned seed = 100;
        for (const Case& c : cases)
            for (int trial = 0; trial < 20; ++trial) {
                const Vec3<int> s = c.s;
                const auto mx = randomValues(size_t(s.x) * s.x, seed++), my = randomValues(size_t(s.y) * s.y, seed++),
                           mz = randomValues(size_t(s.z) * s.z, seed++);
                std::vector<float> in = randomValues(size_t(s.volume()), seed++);
                for (size_t i = 0; i < in.size(); i += 7) in[i] *= 1e4f;  // mixed magnitudes: rounding shows
                const Mats m{mx.data(), my.data(), mz.data()};
                std::vector<float> want = exactAlongAxis(exactAlongAxis(in, m.x, s, 0), m.y, s, 1);
                if (s.z > 1) want = exactAlongAxis(want, m.z, s, 2);
                std::vector<float> a(in.size()), b(in.size()), out(in.size());
                transf3D(in.data(), m, c.kinds, a.data(), b.data(), out.data(), s);
                const std::vector<float> inPlace = run3D(in, m, c.kinds, s);
                const std::string what = cat(s, " trial ", trial, baseline ? " baseline" : "");
                ASSERT_TRUE(sameBits(out, want)) << what;
                ASSERT_TRUE(sameBits(inPlace, want)) << what;
            }
    }
    korvo_detail::forceBaselineKernels(baselineOnly);
}

// The general product, from the matches and from a cube, gives the bits of the plain
// multiply-add chain: dense matrices of sizes fixed at compile time and not, and mostly-zero
// ones that skip their zero terms, whatever the contents left at the same address. An inverse
// Haar kind at a size without Haar code takes the product.
TEST(GroupTransform, GeneralProductIsTheMultiplyAddChain) {
    const Vec3<int> bs{3, 4, 5};  // a volume that is no multiple of the chunks of 16 or 32
    const int vol = bs.volume();
    const auto check = [&](int n, const float* fwd, const float* inv, StandardTransform invKind) {
        Group g(n, vol, 32);
        std::vector<float> out(size_t(n) * vol), back(out.size());
        Cube4D<float> forward{{3, 4, 5, n}, out.data()}, inverse{{3, 4, 5, n}, back.data()};
        transformBlocksNL(g.matches.data(), n, fwd, Arbitrary, forward, bs);
        transformBlocksNL(forward, n, inv, invKind, inverse, bs);
        ASSERT_TRUE(sameBits(out, exactAlongAxis(g.cube(), fwd, {vol, n, 1}, 1))) << n;
        ASSERT_TRUE(sameBits(back, exactAlongAxis(out, inv, {vol, n, 1}, 1))) << n;
    };
    for (int n : {2, 4, 5, 8, 16}) {
        const auto m = randomValues(size_t(n) * n, 31);
        check(n, m.data(), m.data(), n == 5 ? InverseGroupHaar4 : InverseArbitrary);
    }
    std::vector<float> reused(HAAR_32_FWD, HAAR_32_FWD + 1024);
    std::vector<float> zeroRow(HAAR_16_FWD, HAAR_16_FWD + 256);
    std::fill(zeroRow.begin() + 16 * 5, zeroRow.begin() + 16 * 6, 0.0f);
    check(16, HAAR_16_FWD, HAAR_16_INV, InverseArbitrary);
    check(16, zeroRow.data(), HAAR_16_INV, InverseArbitrary);
    check(32, reused.data(), HAAR_32_INV, InverseArbitrary);
    for (size_t i = 0; i < reused.size(); ++i) reused[i] = 0.01f * float((i * 37) % 101) - 0.5f;
    check(32, reused.data(), HAAR_32_INV, InverseArbitrary);  // same address, now dense
}

// The Haar code (exact factors) against its table's product, forward from the matches or a
// cube and back; the kind only selects the code.
TEST(GroupTransform, HaarCodeFollowsTheTables) {
    const Vec3<int> bs{4, 4, 5};
    const int vol = bs.volume();
    for (int n : {2, 4, 8, 16, 32}) {
        Group h(n, vol, 40u + unsigned(n));
        std::vector<float> fwd(size_t(n) * vol), cubeOut(fwd.size()), inv(fwd.size()), members = h.cube();
        Cube4D<float> f{{4, 4, 5, n}, fwd.data()}, c{{4, 4, 5, n}, cubeOut.data()}, i{{4, 4, 5, n}, inv.data()},
            hc{{4, 4, 5, n}, members.data()};
        transformBlocksNL(h.matches.data(), n, kNoMatrix, GroupHaar32, f, bs);
        checkGroup(members, n, haarTable(n, false), fwd.data());
        transformBlocksNL(hc, n, kNoMatrix, GroupHaar4, c, bs);
        checkGroup(members, n, haarTable(n, false), cubeOut.data());
        transformBlocksNL(f, n, kNoMatrix, InverseGroupHaar16, i, bs);
        checkGroup(fwd, n, haarTable(n, true), inv.data());
        for (size_t k = 0; k < members.size(); ++k) ASSERT_NEAR(inv[k], members[k], 2e-5);
    }
    // n = 2: exact sqrt(1/2) in the Haar code, 0.7071 in the pair table.
    Group pair(2, 1, 50);
    float two[2];
    Cube4D<float> tc{{1, 1, 1, 2}, two};
    transformBlocksNL(pair.matches.data(), 2, HAAR_2_FWD, GroupHaar16, tc, {1, 1, 1});
    EXPECT_FLOAT_EQ(two[0], 0.70710677f * (pair.matches[0].block[0] + pair.matches[1].block[0]));
    transformBlocksNL(pair.matches.data(), 2, HAAR_2_FWD, GroupHaar2, tc, {1, 1, 1});
    EXPECT_FLOAT_EQ(two[0], 0.7071f * (pair.matches[0].block[0] + pair.matches[1].block[0]));
}

TEST(GroupTransform, DegenerateSizesAndCopies) {
    Group g(12, 8, 60);
    const std::vector<float> members = g.cube();
    std::vector<float> in = members, out(members.size(), -7.0f);
    Cube4D<float> inCube{{2, 2, 2, 12}, in.data()}, cube{{2, 2, 2, 12}, out.data()};
    const float two[1] = {2.0f};
    transformBlocksNL(g.matches.data(), 1, two, Arbitrary, cube, {2, 2, 2});
    for (int i = 0; i < 8; ++i) EXPECT_EQ(out[i], 2.0f * members[i]);
    for (int from : {0, 1, 2}) {  // a single member under a Haar kind is copied, from a cube or the matches
        std::fill(out.begin(), out.end(), -7.0f);
        if (from == 2) transformBlocksNL(g.matches.data(), 1, two, GroupHaar8, cube, {2, 2, 2});
        else transformBlocksNL(inCube, 1, two, from ? InverseGroupHaar8 : GroupHaar8, cube, {2, 2, 2});
        for (int i = 0; i < 8; ++i) EXPECT_EQ(out[i], members[i]);
    }
    std::fill(out.begin(), out.end(), -7.0f);  // nothing is written for these
    transformBlocksNL(g.matches.data(), 12, kNoMatrix, GroupHaar16, cube, {2, 2, 2});  // no Haar code for 12
    transformBlocksNL(inCube, 12, kNoMatrix, GroupHaar16, cube, {2, 2, 2});
    transformBlocksNL(g.matches.data(), 0, two, Arbitrary, cube, {2, 2, 2});
    transformBlocksNL(inCube, 0, two, InverseGroupHaar4, cube, {2, 2, 2});
    transformBlocksNL(g.matches.data(), 4, HAAR_4_FWD, GroupHaar4, cube, {2, 0, 2});
    transformBlocksNL(g.matches.data(), 4, HAAR_4_FWD, Arbitrary, cube, {0, 2, 2});
    transformBlocksNL(inCube, 4, HAAR_4_INV, InverseGroupHaar4, cube, {2, 2, 0});
    for (float v : out) ASSERT_EQ(v, -7.0f);
}
