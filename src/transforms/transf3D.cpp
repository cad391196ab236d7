// Separable 3-D block transform; a kernel unit, compiled once per instruction set.
#include <algorithm>
#include <cmath>
#include <cstddef>

#if defined(__AVX2__) && defined(__FMA__)
#include <immintrin.h>
#define KORVO_CUBE_VECTORS 1
#else
#define KORVO_CUBE_VECTORS 0
#endif

#include "Kernels.h"
#include "fused.h"
#include "transforms/product.h"

namespace KORVO_KERNEL_NS {
namespace {

using TransformsMetas::StandardTransform;
using product::productOverRowsAnySize;

// Product along an axis whose points lie `stride` apart, for `count` neighbouring
// lines side by side (y and z passes, and every pass with n = 1).
void productAcrossLines(const float* in, float* out, const float* m, int n, std::ptrdiff_t count,
                        std::ptrdiff_t stride) {
    productOverRowsAnySize([in, stride](int j) { return in + j * stride; }, m, n, out, stride,
                           count);
}

// Largest x extent whose transposed matrix is kept on the stack.
constexpr int kMaxTransposed = 32;

// Contiguous lines of n points (x pass): the vector loop runs over the output
// coefficients k, reading the matrix transposed (mt[j*js + k*ks] = M[k*n + j]).
// Per element: input[0]*M[k*n], then fused multiply-adds for j = 1..n-1 ascending.
template <int N>
void productAlongLines(const float* KORVO_RESTRICT in, float* KORVO_RESTRICT out,
                       const float* KORVO_RESTRICT mt, int n, std::ptrdiff_t js,
                       std::ptrdiff_t ks, std::ptrdiff_t lines) {
    const int np = N > 0 ? N : n;
    for (std::ptrdiff_t l = 0; l < lines; ++l) {
        const float* KORVO_RESTRICT src = in + l * np;
        float* KORVO_RESTRICT dst = out + l * np;
        const float x0 = src[0];
        for (int k = 0; k < np; ++k) dst[k] = x0 * mt[k * ks];
        for (int j = 1; j < np; ++j) {
            const float xj = src[j];
            for (int k = 0; k < np; ++k) dst[k] = fusedMultiplyAdd(xj, mt[j * js + k * ks], dst[k]);
        }
    }
}

template <int N>
void productAlongLinesTransposed(const float* in, float* out, const float* m, int n,
                                 std::ptrdiff_t lines) {
    const int np = N > 0 ? N : n;
    float mt[N > 0 ? N * N : kMaxTransposed * kMaxTransposed];
    for (int k = 0; k < np; ++k)
        for (int j = 0; j < np; ++j) mt[j * np + k] = m[k * np + j];
    productAlongLines<N>(in, out, mt, np, np, 1, lines);
}

void productX(const float* in, float* out, const float* m, int n, std::ptrdiff_t lines) {
    switch (n) {
        case 1:
            productAcrossLines(in, out, m, 1, lines, 0);
            return;
        case 4:
            productAlongLinesTransposed<4>(in, out, m, n, lines);
            return;
        case 6:
            productAlongLinesTransposed<6>(in, out, m, n, lines);
            return;
        case 8:
            productAlongLinesTransposed<8>(in, out, m, n, lines);
            return;
        default:
            if (n <= kMaxTransposed) {
                productAlongLinesTransposed<0>(in, out, m, n, lines);
            } else {
                productAlongLines<0>(in, out, m, n, 1, n, lines);
            }
            return;
    }
}

// 8-point butterflies. Each maps eight samples v[p] to eight results o[p] and
// equals, up to rounding, the product with the corresponding standard table.
constexpr float kC1 = 0.98078525f;   // cos(pi/16)
constexpr float kS1 = 0.19509032f;   // sin(pi/16)
constexpr float kC3 = 0.8314696f;    // cos(3pi/16)
constexpr float kS3 = 0.55557024f;   // sin(3pi/16)
constexpr float kC8 = 0.9238795f;    // cos(pi/8)
constexpr float kS8 = 0.38268343f;   // sin(pi/8)
constexpr float kRootHalf = 0.70710677f;

struct Dct8Forward {
    static inline void apply(const float* v, float* o) {
        const float s0 = v[0] + v[7], s1 = v[1] + v[6], s2 = v[2] + v[5], s3 = v[3] + v[4];
        const float d0 = v[0] - v[7], d1 = v[1] - v[6], d2 = v[2] - v[5], d3 = v[3] - v[4];
        const float a = s0 - s3, b = s1 - s2;
        o[0] = kRootHalf * ((s0 + s3) + (s1 + s2)) * 0.5f;
        o[4] = kRootHalf * ((s0 + s3) - (s1 + s2)) * 0.5f;
        o[2] = (kC8 * a + kS8 * b) * 0.5f;
        o[6] = (kS8 * a - kC8 * b) * 0.5f;
        o[1] = (kC1 * d0 + kC3 * d1 + kS3 * d2 + kS1 * d3) * 0.5f;
        o[3] = (kC3 * d0 - kS1 * d1 - kC1 * d2 - kS3 * d3) * 0.5f;
        o[5] = (kS3 * d0 - kC1 * d1 + kS1 * d2 + kC3 * d3) * 0.5f;
        o[7] = (kS1 * d0 - kS3 * d1 + kC3 * d2 - kC1 * d3) * 0.5f;
    }
};

struct Dct8Inverse {
    static inline void apply(const float* c, float* o) {
        const float p = kRootHalf * (c[0] + c[4]), q = kRootHalf * (c[0] - c[4]);
        const float u = kC8 * c[2] + kS8 * c[6], w = kS8 * c[2] - kC8 * c[6];
        const float e0 = p + u, e3 = p - u, e1 = q + w, e2 = q - w;
        const float o0 = kC1 * c[1] + kC3 * c[3] + kS3 * c[5] + kS1 * c[7];
        const float o1 = kC3 * c[1] - kS1 * c[3] - kC1 * c[5] - kS3 * c[7];
        const float o2 = kS3 * c[1] - kC1 * c[3] + kS1 * c[5] + kC3 * c[7];
        const float o3 = kS1 * c[1] - kS3 * c[3] + kC3 * c[5] - kC1 * c[7];
        o[0] = (e0 + o0) * 0.5f;
        o[7] = (e0 - o0) * 0.5f;
        o[1] = (e1 + o1) * 0.5f;
        o[6] = (e1 - o1) * 0.5f;
        o[2] = (e2 + o2) * 0.5f;
        o[5] = (e2 - o2) * 0.5f;
        o[3] = (e3 + o3) * 0.5f;
        o[4] = (e3 - o3) * 0.5f;
    }
};

// Biorthogonal pair: a Haar step on sample pairs, then the coarse half is
// filtered with the two long taps plus a correction from the pair differences.
constexpr float kBiorTap = 0.48585334f;
constexpr float kBiorCorrection = 0.08350605f;
constexpr float kBiorSynthesis = 0.7276957f;
constexpr float kBiorSynthesisCorrection = 0.121533975f;

struct Bior8Forward {
    static inline void apply(const float* v, float* o) {
        const float s0 = v[0] + v[1], s1 = v[2] + v[3], s2 = v[4] + v[5], s3 = v[6] + v[7];
        const float d0 = v[0] - v[1], d1 = v[2] - v[3], d2 = v[4] - v[5], d3 = v[6] - v[7];
        const float lo = s0 + s1, hi = s2 + s3;
        const float e = kBiorCorrection * ((d0 + d1) - (d2 + d3));
        o[0] = kRootHalf * (kBiorTap * (lo + hi));
        o[1] = kRootHalf * (kBiorTap * (hi - lo) + 2.0f * kBiorCorrection * ((d0 - d1) - (d2 - d3)));
        o[2] = kBiorTap * (s0 - s1) + e;
        o[3] = kBiorTap * (s2 - s3) - e;
        o[4] = kRootHalf * d0;
        o[5] = kRootHalf * d1;
        o[6] = kRootHalf * d2;
        o[7] = kRootHalf * d3;
    }
};

struct Bior8Inverse {
    static inline void apply(const float* c, float* o) {
        const float lo = kRootHalf * (c[0] - c[1]), hi = kRootHalf * (c[0] + c[1]);
        const float m0 = kRootHalf * (kBiorSynthesis * (lo + c[2])) +
                         kBiorSynthesisCorrection * (c[7] - c[5]);
        const float m1 = kRootHalf * (kBiorSynthesis * (lo - c[2])) +
                         kBiorSynthesisCorrection * (c[4] - c[6]);
        const float m2 = kRootHalf * (kBiorSynthesis * (hi + c[3])) +
                         kBiorSynthesisCorrection * (c[5] - c[7]);
        const float m3 = kRootHalf * (kBiorSynthesis * (hi - c[3])) +
                         kBiorSynthesisCorrection * (c[6] - c[4]);
        const float r4 = kRootHalf * c[4], r5 = kRootHalf * c[5];
        const float r6 = kRootHalf * c[6], r7 = kRootHalf * c[7];
        o[0] = m0 + r4;
        o[1] = m0 - r4;
        o[2] = m1 + r5;
        o[3] = m1 - r5;
        o[4] = m2 + r6;
        o[5] = m2 - r6;
        o[6] = m3 + r7;
        o[7] = m3 - r7;
    }
};

// Applies a butterfly to `count` lines whose points lie `stride` apart and whose
// starts lie `step` apart. With step 1 the loop runs over contiguous lines.
template <class Butterfly>
void butterflyLines(const float* KORVO_RESTRICT in, float* KORVO_RESTRICT out,
                    std::ptrdiff_t count, std::ptrdiff_t stride, std::ptrdiff_t step) {
    for (std::ptrdiff_t l = 0; l < count; ++l) {
        float v[8];
        float o[8];
        for (int p = 0; p < 8; ++p) v[p] = in[l * step + p * stride];
        Butterfly::apply(v, o);
        for (int p = 0; p < 8; ++p) out[l * step + p * stride] = o[p];
    }
}

// An 8x8 tile, the butterfly down its columns. With every extent known at
// compile time the whole tile becomes straight vector code.
template <class Butterfly>
void butterflyTile(const float* KORVO_RESTRICT in, float* KORVO_RESTRICT out) {
    for (int l = 0; l < 8; ++l) {
        float v[8];
        float o[8];
        for (int p = 0; p < 8; ++p) v[p] = in[l + p * 8];
        Butterfly::apply(v, o);
        for (int p = 0; p < 8; ++p) out[l + p * 8] = o[p];
    }
}

template <class Butterfly>
void butterflyPass(const float* in, float* out, bool alongX, int sx, int sy, int sz) {
    const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(sx) * sy;
    if (alongX) {
        // Eight lines at a time are turned into columns so that the butterfly
        // runs across lines as in the y pass; leftover lines go one by one.
        const std::ptrdiff_t lines = static_cast<std::ptrdiff_t>(sy) * sz;
        std::ptrdiff_t l = 0;
        for (; l + 8 <= lines; l += 8) {
            float tile[64];
            float result[64];
            for (int a = 0; a < 8; ++a)
                for (int p = 0; p < 8; ++p) tile[p * 8 + a] = in[(l + a) * 8 + p];
            butterflyTile<Butterfly>(tile, result);
            for (int a = 0; a < 8; ++a)
                for (int p = 0; p < 8; ++p) out[(l + a) * 8 + p] = result[p * 8 + a];
        }
        butterflyLines<Butterfly>(in + l * 8, out + l * 8, lines - l, 1, 8);
    } else {
        for (int z = 0; z < sz; ++z) {
            const float* src = in + z * plane;
            float* dst = out + z * plane;
            if (sx == 8) {  // the flat 8x8 blocks of the built-in sets
                butterflyTile<Butterfly>(src, dst);
            } else {
                butterflyLines<Butterfly>(src, dst, sx, sx, 1);
            }
        }
    }
}

bool hasButterfly(StandardTransform kind) {
    return kind == TransformsMetas::Dct8 || kind == TransformsMetas::InverseDct8 ||
           kind == TransformsMetas::Bior8 || kind == TransformsMetas::InverseBior8;
}

#if KORVO_CUBE_VECTORS

// Cubes of 4, 6 and 8 points per axis with the general product on every axis, all
// three passes in 8-wide registers. Each output is input[0]*M[k*n] followed by
// fused multiply-adds for j = 1..n-1 ascending, as in the generic code, so the
// bits are the same; the passes leave bufferA and bufferB as the generic code does.

// n rows of eight values, `stride` apart: out row k = sum over j of row j * M[k*n + j].
template <int N>
inline void rowsProduct(const float* in, float* out, const float* m, std::ptrdiff_t stride) {
    __m256 r[N];
    for (int j = 0; j < N; ++j) r[j] = _mm256_loadu_ps(in + j * stride);
    for (int k = 0; k < N; ++k) {
        __m256 acc = _mm256_mul_ps(r[0], _mm256_broadcast_ss(m + k * N));
        for (int j = 1; j < N; ++j) acc = _mm256_fmadd_ps(r[j], _mm256_broadcast_ss(m + k * N + j), acc);
        _mm256_storeu_ps(out + k * stride, acc);
    }
}

// rowsProduct for four rows, the matrix broadcast once into registers: loops
// over many blocks would otherwise read M again after every store to a block.
struct Rows4 {
    __m256 m[16];
    explicit Rows4(const float* matrix) {
        for (int i = 0; i < 16; ++i) m[i] = _mm256_broadcast_ss(matrix + i);
    }
    inline void operator()(const float* in, float* out, std::ptrdiff_t stride) const {
        __m256 r[4];
        for (int j = 0; j < 4; ++j) r[j] = _mm256_loadu_ps(in + j * stride);
        for (int k = 0; k < 4; ++k) {
            __m256 acc = _mm256_mul_ps(r[0], m[4 * k]);
            for (int j = 1; j < 4; ++j) acc = _mm256_fmadd_ps(r[j], m[4 * k + j], acc);
            _mm256_storeu_ps(out + k * stride, acc);
        }
    }
};

// y pass of a 4x4 plane: output rows k and k+1 from input row j (four values, rows
// four apart) in both halves, times M[k*4 + j] in the low half and M[(k+1)*4 + j]
// in the high one.
struct PlaneY4 {
    __m256 pair[2][4];
    explicit PlaneY4(const float* m) {
        const __m256 y01 = _mm256_loadu_ps(m), y23 = _mm256_loadu_ps(m + 8);
        const __m256 half[2] = {y01, y23};
        for (int p = 0; p < 2; ++p) {
            pair[p][0] = _mm256_permute_ps(half[p], 0x00);
            pair[p][1] = _mm256_permute_ps(half[p], 0x55);
            pair[p][2] = _mm256_permute_ps(half[p], 0xAA);
            pair[p][3] = _mm256_permute_ps(half[p], 0xFF);
        }
    }
    inline void operator()(const float* rows, float* out) const {
        __m256 row[4];
        for (int j = 0; j < 4; ++j) row[j] = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(rows + 4 * j));
        for (int p = 0; p < 2; ++p) {
            __m256 acc = _mm256_mul_ps(row[0], pair[p][0]);
            for (int j = 1; j < 4; ++j) acc = _mm256_fmadd_ps(row[j], pair[p][j], acc);
            _mm256_storeu_ps(out + 8 * p, acc);
        }
    }
};

void cube4(const float* in, const Vec3<const float*>& m, float* a, float* b, float* out) {
    // x pass: a register holds two lines; sample j of each line is spread over its
    // half and meets column j of the matrix, held in both halves (a 4x4 transpose
    // of the rows, each loaded into both halves).
    __m256 rows[4];
    for (int k = 0; k < 4; ++k) rows[k] = _mm256_broadcast_ps(reinterpret_cast<const __m128*>(m.x + 4 * k));
    const __m256 lo01 = _mm256_unpacklo_ps(rows[0], rows[1]), lo23 = _mm256_unpacklo_ps(rows[2], rows[3]);
    const __m256 hi01 = _mm256_unpackhi_ps(rows[0], rows[1]), hi23 = _mm256_unpackhi_ps(rows[2], rows[3]);
    const __m256 col[4] = {_mm256_shuffle_ps(lo01, lo23, 0x44), _mm256_shuffle_ps(lo01, lo23, 0xEE),
                           _mm256_shuffle_ps(hi01, hi23, 0x44), _mm256_shuffle_ps(hi01, hi23, 0xEE)};
    for (int i = 0; i < 8; ++i) {
        const __m256 v = _mm256_loadu_ps(in + 8 * i);
        __m256 acc = _mm256_mul_ps(_mm256_permute_ps(v, 0x00), col[0]);
        acc = _mm256_fmadd_ps(_mm256_permute_ps(v, 0x55), col[1], acc);
        acc = _mm256_fmadd_ps(_mm256_permute_ps(v, 0xAA), col[2], acc);
        acc = _mm256_fmadd_ps(_mm256_permute_ps(v, 0xFF), col[3], acc);
        _mm256_storeu_ps(a + 8 * i, acc);
    }
    const PlaneY4 planeY(m.y);
    for (int z = 0; z < 4; ++z) planeY(a + 16 * z, b + 16 * z);
    // z pass: half planes side by side.
    const Rows4 planeZ(m.z);
    planeZ(b, out, 16);
    planeZ(b + 8, out + 8, 16);
}

void cube8(const float* in, const Vec3<const float*>& m, float* a, float* b, float* out) {
    // x pass: one line per register, sample j broadcast against column j.
    __m256 col[8];
    for (int j = 0; j < 8; ++j)
        col[j] = _mm256_setr_ps(m.x[j], m.x[8 + j], m.x[16 + j], m.x[24 + j], m.x[32 + j], m.x[40 + j],
                                m.x[48 + j], m.x[56 + j]);
    for (int l = 0; l < 64; ++l) {
        const float* line = in + 8 * l;
        __m256 acc = _mm256_mul_ps(_mm256_broadcast_ss(line), col[0]);
        for (int j = 1; j < 8; ++j) acc = _mm256_fmadd_ps(_mm256_broadcast_ss(line + j), col[j], acc);
        _mm256_storeu_ps(a + 8 * l, acc);
    }
    for (int z = 0; z < 8; ++z) rowsProduct<8>(a + 64 * z, b + 64 * z, m.y, 8);
    for (int y = 0; y < 8; ++y) rowsProduct<8>(b + 8 * y, out + 8 * y, m.z, 64);
}

// Blocks of six points per axis: rows of six values fill six of the eight lanes
// (lanes 6 and 7 are neither read nor written).
inline __m256i sixLanes() { return _mm256_setr_epi32(-1, -1, -1, -1, -1, -1, 0, 0); }

// rowsProduct for six rows of six values, `stride` apart.
inline void rows6(const float* in, float* out, const float* m, std::ptrdiff_t stride) {
    const __m256i six = sixLanes();
    __m256 r[6];
    for (int j = 0; j < 6; ++j) r[j] = _mm256_maskload_ps(in + j * stride, six);
    for (int k = 0; k < 6; ++k) {
        __m256 acc = _mm256_mul_ps(r[0], _mm256_broadcast_ss(m + k * 6));
        for (int j = 1; j < 6; ++j) acc = _mm256_fmadd_ps(r[j], _mm256_broadcast_ss(m + k * 6 + j), acc);
        _mm256_maskstore_ps(out + k * stride, six, acc);
    }
}

// z pass of a 6x6x6 block: six planes of 36 values, as four full vectors and a half.
inline void planes6(const float* in, float* out, const float* m) {
    for (int r = 0; r < 4; ++r) rowsProduct<6>(in + 8 * r, out + 8 * r, m, 36);
    __m128 h[6];
    for (int j = 0; j < 6; ++j) h[j] = _mm_loadu_ps(in + 32 + j * 36);
    for (int k = 0; k < 6; ++k) {
        __m128 acc = _mm_mul_ps(h[0], _mm_set1_ps(m[k * 6]));
        for (int j = 1; j < 6; ++j) acc = _mm_fmadd_ps(h[j], _mm_set1_ps(m[k * 6 + j]), acc);
        _mm_storeu_ps(out + 32 + k * 36, acc);
    }
}

// x pass of lines of six values: sample j broadcast against column j of M.
struct Lines6 {
    __m256 col[6];
    explicit Lines6(const float* m) {
        for (int j = 0; j < 6; ++j)
            col[j] = _mm256_setr_ps(m[j], m[6 + j], m[12 + j], m[18 + j], m[24 + j], m[30 + j], 0.0f, 0.0f);
    }
    inline void operator()(const float* line, float* out) const {
        __m256 acc = _mm256_mul_ps(_mm256_broadcast_ss(line), col[0]);
        for (int j = 1; j < 6; ++j) acc = _mm256_fmadd_ps(_mm256_broadcast_ss(line + j), col[j], acc);
        _mm256_maskstore_ps(out, sixLanes(), acc);
    }
};

void cube6(const float* in, const Vec3<const float*>& m, float* a, float* b, float* out) {
    const Lines6 lines(m.x);
    for (int l = 0; l < 36; ++l) lines(in + 6 * l, a + 6 * l);
    for (int z = 0; z < 6; ++z) rows6(a + 36 * z, b + 36 * z, m.y, 6);
    planes6(b, out, m.z);
}

// True when the cube code took the block.
bool cubeProduct(const float* in, const Vec3<const float*>& m,
                 const Vec3<StandardTransform>& kinds, float* a, float* b, float* out, int sx, int sy,
                 int sz) {
    if (sx != sy || sy != sz || hasButterfly(kinds.x) || hasButterfly(kinds.y)) return false;
    if (sx == 4) {
        cube4(in, m, a, b, out);
        return true;
    }
    if (sx == 6) {
        cube6(in, m, a, b, out);
        return true;
    }
    if (sx == 8) {
        cube8(in, m, a, b, out);
        return true;
    }
    return false;
}
#else
// Without the vector unit the generic code below does the same sequence.
bool cubeProduct(const float*, const Vec3<const float*>&, const Vec3<StandardTransform>&, float*,
                 float*, float*, int, int, int) {
    return false;
}
#endif

// One x or y pass: the butterfly of a recognised 8-point kind, else the product.
void axisPass(const float* in, float* out, const float* m, StandardTransform kind, bool alongX,
              int sx, int sy, int sz) {
    switch (kind) {
        case TransformsMetas::Dct8:
            butterflyPass<Dct8Forward>(in, out, alongX, sx, sy, sz);
            return;
        case TransformsMetas::InverseDct8:
            butterflyPass<Dct8Inverse>(in, out, alongX, sx, sy, sz);
            return;
        case TransformsMetas::Bior8:
            butterflyPass<Bior8Forward>(in, out, alongX, sx, sy, sz);
            return;
        case TransformsMetas::InverseBior8:
            butterflyPass<Bior8Inverse>(in, out, alongX, sx, sy, sz);
            return;
        default:
            break;
    }
    const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(sx) * sy;
    if (alongX) {
        productX(in, out, m, sx, static_cast<std::ptrdiff_t>(sy) * sz);
    } else {
        for (int z = 0; z < sz; ++z)
            productAcrossLines(in + z * plane, out + z * plane, m, sy, sx, sx);
    }
}

// Blocks loaded together. The x pass of an image row segment and the y pass of a
// column of x-pass rows do not depend on the block that asks for them, so a tile of
// blocks (one x position, up to kBoxTile positions along y and z) computes each once:
// X holds the x pass of the tile's image rows, row (y', z') at (z' * rowsY + y') * bx;
// Y the y pass, plane (y, z') at (y * planesZ + z') * bx * by. Only the z pass is
// per block. Every value goes through the same operations as in transf3D.
struct BoxTile {
    const float* image;  // first voxel of the tile's first block
    std::ptrdiff_t rowStride, planeStride;
    Vec3<int> first;  // position of that block
    int ty, tz;       // block positions along y and z
    Vec3<int> b;
    int rowsY() const { return ty + b.y - 1; }
    int planesZ() const { return tz + b.z - 1; }
    std::ptrdiff_t plane() const { return static_cast<std::ptrdiff_t>(b.x) * b.y; }
};

// Calls line(row, out) for every image row of the tile: out is its place in X.
template <class Line>
void forEachRowX(const BoxTile& t, float* X, Line line) {
    for (int z = 0; z < t.planesZ(); ++z)
        for (int y = 0; y < t.rowsY(); ++y)
            line(t.image + z * t.planeStride + y * t.rowStride,
                 X + (static_cast<std::ptrdiff_t>(z) * t.rowsY() + y) * t.b.x);
}

template <int N>
void boxRowsX(const BoxTile& t, const float* m, float* X) {
    const int n = N > 0 ? N : t.b.x;
    float mt[N > 0 ? N * N : kMaxTransposed * kMaxTransposed];
    const bool transposed = n <= kMaxTransposed;
    if (transposed)
        for (int k = 0; k < n; ++k)
            for (int j = 0; j < n; ++j) mt[j * n + k] = m[k * n + j];
    const float* mm = transposed ? mt : m;
    const std::ptrdiff_t js = transposed ? n : 1, ks = transposed ? 1 : n;
    forEachRowX(t, X, [&](const float* row, float* out) {
        productAlongLines<N>(row, out, mm, n, js, ks, 1);
    });
}

void boxPassX(const BoxTile& t, const float* m, float* X) {
    switch (t.b.x) {
        case 4:
            boxRowsX<4>(t, m, X);
            return;
        case 6:
#if KORVO_CUBE_VECTORS
        {
            const Lines6 lines(m);
            forEachRowX(t, X, lines);
            return;
        }
#endif
            boxRowsX<6>(t, m, X);
            return;
        case 8:
            boxRowsX<8>(t, m, X);
            return;
        default:
            boxRowsX<0>(t, m, X);
            return;
    }
}

// Calls pass(rows, out) for every plane of Y: rows are the x-pass rows it is made of.
template <class Pass>
void forEachPlaneY(const BoxTile& t, const float* X, float* Y, Pass pass) {
    for (int z = 0; z < t.planesZ(); ++z)
        for (int y = 0; y < t.ty; ++y)
            pass(X + (static_cast<std::ptrdiff_t>(z) * t.rowsY() + y) * t.b.x,
                 Y + (static_cast<std::ptrdiff_t>(y) * t.planesZ() + z) * t.plane());
}

// Calls pass(planes, slot) for every block of the tile: planes are its y-pass planes.
template <class Pass>
void forEachBlockZ(const BoxTile& t, const float* Y, const BlockRing& ring, Pass pass) {
    const Vec3<int>& r = ring.range;
    const long sx = t.first.x % r.x;
    for (int y = 0; y < t.ty; ++y) {
        for (int z = 0; z < t.tz; ++z) {
            const long slot = sx + static_cast<long>((t.first.y + y) % r.y) * r.x +
                              static_cast<long>((t.first.z + z) % r.z) * r.x * r.y;
            pass(Y + (static_cast<std::ptrdiff_t>(y) * t.planesZ() + z) * t.plane(),
                 ring.buffer + slot * ring.blockElements);
        }
    }
}

void boxTile(const BoxTile& t, const Vec3<const float*>& m, float* scratch, const BlockRing& ring) {
    float* X = scratch;
    float* Y = scratch + static_cast<std::ptrdiff_t>(t.rowsY()) * t.planesZ() * t.b.x;
    boxPassX(t, m.x, X);
    const std::ptrdiff_t plane = t.plane();
#if KORVO_CUBE_VECTORS
    if (t.b.x == 4 && t.b.y == 4 && t.b.z == 4) {
        const PlaneY4 planeY(m.y);
        forEachPlaneY(t, X, Y, [&](const float* rows, float* out) { planeY(rows, out); });
        const Rows4 planeZ(m.z);
        forEachBlockZ(t, Y, ring, [&](const float* planes, float* out) {
            planeZ(planes, out, 16);
            planeZ(planes + 8, out + 8, 16);
        });
        return;
    }
    if (t.b.x == 6 && t.b.y == 6 && t.b.z == 6) {
        forEachPlaneY(t, X, Y, [&](const float* rows, float* out) { rows6(rows, out, m.y, 6); });
        forEachBlockZ(t, Y, ring, [&](const float* planes, float* out) { planes6(planes, out, m.z); });
        return;
    }
    if (t.b.x == 8 && t.b.y == 8 && t.b.z == 8) {
        forEachPlaneY(t, X, Y, [&](const float* rows, float* out) { rowsProduct<8>(rows, out, m.y, 8); });
        forEachBlockZ(t, Y, ring, [&](const float* planes, float* out) {
            for (int r = 0; r < 8; ++r) rowsProduct<8>(planes + 8 * r, out + 8 * r, m.z, 64);
        });
        return;
    }
#endif
    const int bx = t.b.x, by = t.b.y, bz = t.b.z;
    forEachPlaneY(t, X, Y, [&](const float* rows, float* out) {
        productAcrossLines(rows, out, m.y, by, bx, bx);
    });
    forEachBlockZ(t, Y, ring, [&](const float* planes, float* out) {
        if (bz == 1) {  // a single plane has no z pass
            for (std::ptrdiff_t i = 0; i < plane; ++i) out[i] = planes[i];
        } else {
            productAcrossLines(planes, out, m.z, bz, plane, plane);
        }
    });
}

}  // namespace

void transf3D(const float* input, const Vec3<const float*>& transforms,
              const Vec3<TransformsMetas::StandardTransform>& kinds, float* bufferA,
              float* bufferB, float* output, const Vec3<int>& size) {
    const int sx = size.x, sy = size.y, sz = size.z;
    if (cubeProduct(input, transforms, kinds, bufferA, bufferB, output, sx, sy, sz)) return;
    if (sx >= 1 && sy >= 1 && sz >= 1) {
        axisPass(input, bufferA, transforms.x, kinds.x, true, sx, sy, sz);
        axisPass(bufferA, sz == 1 ? output : bufferB, transforms.y, kinds.y, false, sx, sy, sz);
        if (sz >= 2) {
            const std::ptrdiff_t plane = static_cast<std::ptrdiff_t>(sx) * sy;
            productAcrossLines(bufferB, output, transforms.z, sz, plane, plane);
        }
    }
}

bool transformBlockBox(const float* image, const Vec3<int>& imageSize, const Vec3<int>& lo,
                       const Vec3<int>& count, const Vec3<int>& blockSize,
                       const Vec3<const float*>& transforms,
                       const Vec3<TransformsMetas::StandardTransform>& kinds, const BlockRing& ring,
                       float* scratch) {
    if (hasButterfly(kinds.x) || hasButterfly(kinds.y)) return false;
    const std::ptrdiff_t rowStride = imageSize.x;
    const std::ptrdiff_t planeStride = rowStride * imageSize.y;
    for (int x = lo.x; x < lo.x + count.x; ++x) {
        for (int y = lo.y; y < lo.y + count.y; y += kBoxTile) {
            for (int z = lo.z; z < lo.z + count.z; z += kBoxTile) {
                const BoxTile tile{image + z * planeStride + y * rowStride + x, rowStride, planeStride,
                                   {x, y, z}, std::min(kBoxTile, lo.y + count.y - y),
                                   std::min(kBoxTile, lo.z + count.z - z), blockSize};
                boxTile(tile, transforms, scratch, ring);
            }
        }
    }
    return true;
}

}  // namespace KORVO_KERNEL_NS
