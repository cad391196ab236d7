#include "transforms/tables.h"

#include <cmath>

namespace {

// ---- Compile-time generation -----------------------------------------------
// The DCT, Haar and Kaiser tables are computed here in double precision by
// series and rounded once to float, so they are true constants in read-only
// storage and follow their defining rules rather than typed-in digits.

constexpr double kPi = 3.14159265358979323846;

constexpr double cSqrt(double x) {
    if (x <= 0.0) return 0.0;
    double r = x < 1.0 ? 1.0 : x;
    for (int i = 0; i < 100; ++i) {
        const double next = 0.5 * (r + x / r);
        if (next == r) break;
        r = next;
    }
    return r;
}

constexpr double cCos(double x) {
    while (x > kPi) x -= 2.0 * kPi;
    while (x < -kPi) x += 2.0 * kPi;
    double term = 1.0;
    double sum = 1.0;
    for (int k = 1; k < 40; ++k) {
        term *= -x * x / static_cast<double>((2 * k - 1) * (2 * k));
        sum += term;
    }
    return sum;
}

// Modified Bessel function of the first kind, order 0.
constexpr double cBesselI0(double x) {
    double term = 1.0;
    double sum = 1.0;
    for (int k = 1; k < 60; ++k) {
        const double f = x / (2.0 * k);
        term *= f * f;
        sum += term;
    }
    return sum;
}

// Values that are zero by the rule come out of the series as ~1e-17; store 0.
constexpr float toTable(double v) {
    return static_cast<float>(v > -1e-12 && v < 1e-12 ? 0.0 : v);
}

template <int N>
struct SquareTables {
    float fwd[N * N];
    float inv[N * N];
};

template <int N>
constexpr SquareTables<N> transposePair(const double (&fwd)[N * N]) {
    SquareTables<N> t{};
    for (int k = 0; k < N; ++k) {
        for (int j = 0; j < N; ++j) {
            t.fwd[k * N + j] = toTable(fwd[k * N + j]);
            t.inv[j * N + k] = toTable(fwd[k * N + j]);
        }
    }
    return t;
}

// Orthonormal DCT-II: row k is c_k cos(pi (2j+1) k / 2N).
template <int N>
constexpr SquareTables<N> makeDct() {
    double m[N * N]{};
    for (int k = 0; k < N; ++k) {
        const double c = cSqrt((k == 0 ? 1.0 : 2.0) / N);
        for (int j = 0; j < N; ++j) m[k * N + j] = c * cCos(kPi * (2 * j + 1) * k / (2.0 * N));
    }
    return transposePair<N>(m);
}

// Orthonormal Haar: row 0 the scaling vector, then the detail vectors from the
// widest support to the narrowest, left to right within a support.
template <int N>
constexpr SquareTables<N> makeHaar() {
    double m[N * N]{};
    for (int j = 0; j < N; ++j) m[j] = 1.0 / cSqrt(N);
    for (int level = 1, row = 1; level < N; level *= 2) {
        const int support = N / level;
        const double v = 1.0 / cSqrt(support);
        for (int b = 0; b < level; ++b, ++row) {
            for (int j = 0; j < support / 2; ++j) {
                m[row * N + b * support + j] = v;
                m[row * N + b * support + support / 2 + j] = -v;
            }
        }
    }
    return transposePair<N>(m);
}

constexpr double kaiser(int n, int i) {
    constexpr double beta = 2.0;
    const double t = 2.0 * i / (n - 1) - 1.0;
    return cBesselI0(beta * cSqrt(1.0 - t * t)) / cBesselI0(beta);
}

struct Window64 {
    float v[64];
};

constexpr Window64 makeKaiser8x8() {
    Window64 w{};
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) w.v[x + 8 * y] = static_cast<float>(kaiser(8, x) * kaiser(8, y));
    return w;
}

constexpr Window64 makeKaiser4x4x4() {
    Window64 w{};
    for (int z = 0; z < 4; ++z)
        for (int y = 0; y < 4; ++y)
            for (int x = 0; x < 4; ++x)
                w.v[x + 4 * y + 16 * z] =
                    static_cast<float>(kaiser(4, x) * kaiser(4, y) * kaiser(4, z));
    return w;
}

constexpr SquareTables<4> kDct4 = makeDct<4>();
constexpr SquareTables<5> kDct5 = makeDct<5>();
constexpr SquareTables<8> kDct8 = makeDct<8>();
constexpr SquareTables<4> kHaar4 = makeHaar<4>();
constexpr SquareTables<8> kHaar8 = makeHaar<8>();
constexpr SquareTables<16> kHaar16 = makeHaar<16>();
constexpr SquareTables<32> kHaar32 = makeHaar<32>();
constexpr SquareTables<64> kHaar64 = makeHaar<64>();
constexpr Window64 kKaiser8x8 = makeKaiser8x8();
constexpr Window64 kKaiser4x4x4 = makeKaiser4x4x4();

}  // namespace

// Brace lists of t[first], t[first + 1], ... for the array definitions below.
#define KORVO_E1(t, i) t[i],
#define KORVO_E2(t, i) KORVO_E1(t, i) KORVO_E1(t, i + 1)
#define KORVO_E4(t, i) KORVO_E2(t, i) KORVO_E2(t, i + 2)
#define KORVO_E8(t, i) KORVO_E4(t, i) KORVO_E4(t, i + 4)
#define KORVO_E16(t, i) KORVO_E8(t, i) KORVO_E8(t, i + 8)
#define KORVO_E32(t, i) KORVO_E16(t, i) KORVO_E16(t, i + 16)
#define KORVO_E64(t, i) KORVO_E32(t, i) KORVO_E32(t, i + 32)
#define KORVO_E128(t, i) KORVO_E64(t, i) KORVO_E64(t, i + 64)
#define KORVO_E256(t, i) KORVO_E128(t, i) KORVO_E128(t, i + 128)
#define KORVO_E512(t, i) KORVO_E256(t, i) KORVO_E256(t, i + 256)
#define KORVO_E1024(t, i) KORVO_E512(t, i) KORVO_E512(t, i + 512)
#define KORVO_E2048(t, i) KORVO_E1024(t, i) KORVO_E1024(t, i + 1024)
#define KORVO_E4096(t, i) KORVO_E2048(t, i) KORVO_E2048(t, i + 2048)

const float DCT_4_FWD[16] = {KORVO_E16(kDct4.fwd, 0)};
const float DCT_4_INV[16] = {KORVO_E16(kDct4.inv, 0)};
const float DCT_5_FWD[25] = {KORVO_E16(kDct5.fwd, 0) KORVO_E8(kDct5.fwd, 16) KORVO_E1(kDct5.fwd, 24)};
const float DCT_5_INV[25] = {KORVO_E16(kDct5.inv, 0) KORVO_E8(kDct5.inv, 16) KORVO_E1(kDct5.inv, 24)};
const float DCT_8_FWD[64] = {KORVO_E64(kDct8.fwd, 0)};
const float DCT_8_INV[64] = {KORVO_E64(kDct8.inv, 0)};

// The pair table keeps the four-digit constant; see SIZE_2_TRANSFORM for the exact one.
const float HAAR_2_FWD[4] = {0.7071f, 0.7071f, 0.7071f, -0.7071f};
const float HAAR_2_INV[4] = {0.7071f, 0.7071f, 0.7071f, -0.7071f};
const float HAAR_4_FWD[16] = {KORVO_E16(kHaar4.fwd, 0)};
const float HAAR_4_INV[16] = {KORVO_E16(kHaar4.inv, 0)};
const float HAAR_8_FWD[64] = {KORVO_E64(kHaar8.fwd, 0)};
const float HAAR_8_INV[64] = {KORVO_E64(kHaar8.inv, 0)};
const float HAAR_16_FWD[256] = {KORVO_E256(kHaar16.fwd, 0)};
const float HAAR_16_INV[256] = {KORVO_E256(kHaar16.inv, 0)};
const float HAAR_32_FWD[1024] = {KORVO_E1024(kHaar32.fwd, 0)};
const float HAAR_32_INV[1024] = {KORVO_E1024(kHaar32.inv, 0)};
const float HAAR_64_FWD[4096] = {KORVO_E4096(kHaar64.fwd, 0)};
const float HAAR_64_INV[4096] = {KORVO_E4096(kHaar64.inv, 0)};

// The 4-point biorthogonal pair coincides with the 4-point Haar pair.
const float BIOR_4_FWD[16] = {KORVO_E16(kHaar4.fwd, 0)};
const float BIOR_4_INV[16] = {KORVO_E16(kHaar4.inv, 0)};

// Three-level periodic spline wavelet with a 2-tap analysis high-pass and a
// 10-tap analysis low-pass. The inverse is the exact inverse, not the transpose.
const float BIOR_8_FWD[64] = {
    0.3435502f,   0.3435502f,  0.3435502f,   0.3435502f,  0.3435502f,   0.3435502f,  0.3435502f,   0.3435502f,
    -0.2254548f,  -0.4616456f, -0.4616456f,  -0.2254548f, 0.2254548f,   0.4616456f,  0.4616456f,   0.2254548f,
    0.5693594f,   0.4023473f,  -0.4023473f,  -0.5693594f, -0.08350605f, 0.08350605f, -0.08350605f, 0.08350605f,
    -0.08350605f, 0.08350605f, -0.08350605f, 0.08350605f, 0.5693594f,   0.4023473f,  -0.4023473f,  -0.5693594f,
    0.7071068f,   -0.7071068f, 0.0f,         0.0f,        0.0f,         0.0f,        0.0f,         0.0f,
    0.0f,         0.0f,        0.7071068f,   -0.7071068f, 0.0f,         0.0f,        0.0f,         0.0f,
    0.0f,         0.0f,        0.0f,         0.0f,        0.7071068f,   -0.7071068f, 0.0f,         0.0f,
    0.0f,         0.0f,        0.0f,         0.0f,        0.0f,         0.0f,        0.7071068f,   -0.7071068f,
};
const float BIOR_8_INV[64] = {
    0.3638479f, -0.3638479f, 0.5145586f,  0.0f,        0.7071068f,  -0.121534f,  0.0f,        0.121534f,
    0.3638479f, -0.3638479f, 0.5145586f,  0.0f,        -0.7071068f, -0.121534f,  0.0f,        0.121534f,
    0.3638479f, -0.3638479f, -0.5145586f, 0.0f,        0.121534f,   0.7071068f,  -0.121534f,  0.0f,
    0.3638479f, -0.3638479f, -0.5145586f, 0.0f,        0.121534f,   -0.7071068f, -0.121534f,  0.0f,
    0.3638479f, 0.3638479f,  0.0f,        0.5145586f,  0.0f,        0.121534f,   0.7071068f,  -0.121534f,
    0.3638479f, 0.3638479f,  0.0f,        0.5145586f,  0.0f,        0.121534f,   -0.7071068f, -0.121534f,
    0.3638479f, 0.3638479f,  0.0f,        -0.5145586f, -0.121534f,  0.0f,        0.121534f,   0.7071068f,
    0.3638479f, 0.3638479f,  0.0f,        -0.5145586f, -0.121534f,  0.0f,        0.121534f,   -0.7071068f,
};

const float SIZE_2_TRANSFORM[4] = {0.70710677f, 0.70710677f, 0.70710677f, -0.70710677f};
const float ONE[1] = {1.0f};
const float ZERO[1] = {0.0f};
const float KAISER_8x8[64] = {KORVO_E64(kKaiser8x8.v, 0)};
const float KAISER_4x4x4[64] = {KORVO_E64(kKaiser4x4x4.v, 0)};

namespace {
struct GroupList {
    const float* entries[65];
};

// Haar tables at the powers of two 2..64, null elsewhere.
constexpr GroupList makeGroupList(bool inverse) {
    GroupList list{};
    list.entries[2] = inverse ? HAAR_2_INV : HAAR_2_FWD;
    list.entries[4] = inverse ? HAAR_4_INV : HAAR_4_FWD;
    list.entries[8] = inverse ? HAAR_8_INV : HAAR_8_FWD;
    list.entries[16] = inverse ? HAAR_16_INV : HAAR_16_FWD;
    list.entries[32] = inverse ? HAAR_32_INV : HAAR_32_FWD;
    list.entries[64] = inverse ? HAAR_64_INV : HAAR_64_FWD;
    return list;
}
constexpr GroupList kGroupFwd = makeGroupList(false);
constexpr GroupList kGroupInv = makeGroupList(true);
}  // namespace

const float* DEFAULT_GROUP_TRANSFORMS_FWD[65] = {KORVO_E64(kGroupFwd.entries, 0) KORVO_E1(kGroupFwd.entries, 64)};
const float* DEFAULT_GROUP_TRANSFORMS_INV[65] = {KORVO_E64(kGroupInv.entries, 0) KORVO_E1(kGroupInv.entries, 64)};

#undef KORVO_E4096
#undef KORVO_E2048
#undef KORVO_E1024
#undef KORVO_E512
#undef KORVO_E256
#undef KORVO_E128
#undef KORVO_E64
#undef KORVO_E32
#undef KORVO_E16
#undef KORVO_E8
#undef KORVO_E4
#undef KORVO_E2
#undef KORVO_E1

const Transforms<float> DEFAULT_TRANSFORMS_3D = {
    {DCT_4_FWD, DCT_4_FWD, DCT_4_FWD},   {DCT_4_INV, DCT_4_INV, DCT_4_INV},
    DEFAULT_GROUP_TRANSFORMS_FWD,        DEFAULT_GROUP_TRANSFORMS_INV,
    KAISER_4x4x4};
const Transforms<float> DEFAULT_TRANSFORMS_2D = {
    {BIOR_8_FWD, BIOR_8_FWD, ONE},       {BIOR_8_INV, BIOR_8_INV, ONE},
    DEFAULT_GROUP_TRANSFORMS_FWD,        DEFAULT_GROUP_TRANSFORMS_INV,
    KAISER_8x8};
const Transforms<float> DEFAULT_TRANSFORMS_2D_WIE = {
    {DCT_8_FWD, DCT_8_FWD, ONE},         {DCT_8_INV, DCT_8_INV, ONE},
    DEFAULT_GROUP_TRANSFORMS_FWD,        DEFAULT_GROUP_TRANSFORMS_INV,
    KAISER_8x8};

const Vec3<TransformsMetas::StandardTransform> ARB_TRANSFORMS = {
    TransformsMetas::Arbitrary, TransformsMetas::Arbitrary, TransformsMetas::Arbitrary};

namespace {

using TransformsMetas::StandardTransform;

// Tables by kind; kinds without a table are null.
const float* const standardTransformsList[32] = {
    DCT_4_FWD,   BIOR_4_FWD,  HAAR_4_FWD, nullptr,    DCT_5_FWD,   DCT_8_FWD,   BIOR_8_FWD,
    HAAR_8_FWD,  nullptr,     HAAR_2_FWD, HAAR_4_FWD, HAAR_8_FWD,  HAAR_16_FWD, HAAR_32_FWD,
    nullptr,     nullptr,     DCT_4_INV,  BIOR_4_INV, HAAR_4_INV,  nullptr,     DCT_5_INV,
    DCT_8_INV,   BIOR_8_INV,  HAAR_8_INV, nullptr,    HAAR_2_INV,  HAAR_4_INV,  HAAR_8_INV,
    HAAR_16_INV, HAAR_32_INV, nullptr,    nullptr,
};

// The 5-point reference as recognition compares it: the two entries that are
// zero by the rule are compared with these fixed values.
struct Dct5Reference {
    float v[25];
};
constexpr Dct5Reference makeDct5Reference() {
    Dct5Reference r{};
    for (int i = 0; i < 25; ++i) r.v[i] = kDct5.fwd[i];
    r.v[7] = 3.5108334e-17f;
    r.v[17] = 0.0f;
    return r;
}
constexpr Dct5Reference kDct5Reference = makeDct5Reference();

constexpr float kTolerance = 0.001f;

}  // namespace

bool matchesTable(const float* matrix, const float* table, int count) {
    for (int i = 0; i < count; ++i) {
        // A NaN difference compares false and so never counts as different.
        if (std::fabs(matrix[i] - table[i]) > kTolerance) return false;
    }
    return true;
}

const float* standardTransformTable(StandardTransform kind) {
    const int k = static_cast<int>(kind);
    return k >= 0 && k < 32 ? standardTransformsList[k] : nullptr;
}

StandardTransform getStandardTransform4(const float* matrix) {
    if (matchesTable(matrix, standardTransformsList[TransformsMetas::Dct4], 16))
        return TransformsMetas::Dct4;
    // The Bior and Haar 4-point tables are equal, so Haar is never reported.
    if (matchesTable(matrix, standardTransformsList[TransformsMetas::Bior4], 16))
        return TransformsMetas::Bior4;
    if (matchesTable(matrix, standardTransformsList[TransformsMetas::Haar4], 16))
        return TransformsMetas::Haar4;
    return TransformsMetas::Arbitrary;
}

template <typename T>
StandardTransform getStandardBlockTransform(const T* matrix, int size) {
    switch (size) {
        case 8: {
            // Row 0 separates the DCT/Haar family from the biorthogonal one.
            const float d0 = std::fabs(matrix[0] - 0.35355338f);
            if (d0 <= kTolerance && matchesTable(matrix + 1, DCT_8_FWD + 1, 63))
                return TransformsMetas::Dct8;
            if (std::fabs(matrix[0] - 0.3435502f) <= kTolerance &&
                matchesTable(matrix + 1, BIOR_8_FWD + 1, 63))
                return TransformsMetas::Bior8;
            if (d0 > kTolerance) return TransformsMetas::Arbitrary;
            return matchesTable(matrix + 1, HAAR_8_FWD + 1, 63) ? TransformsMetas::Haar8
                                                                 : TransformsMetas::Arbitrary;
        }
        case 5:
            return matchesTable(matrix, kDct5Reference.v, 25) ? TransformsMetas::Dct5
                                                               : TransformsMetas::Arbitrary;
        case 4:
            return getStandardTransform4(matrix);
        default:
            return TransformsMetas::Arbitrary;
    }
}

template StandardTransform getStandardBlockTransform<float>(const float*, int);
