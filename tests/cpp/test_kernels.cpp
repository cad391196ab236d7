// The kernel sets compiled for different instruction sets give the same bits, and
// forcing the baseline set works. (Each kernel's test against a plain reference
// runs once more on the baseline set: see CMakeLists.txt; the stages' results on
// both sets are compared in test_denoise.cpp.)
#include <cfloat>
#include <cstdint>
#include <functional>
#include <optional>

#include "helpers.h"

// The automatic choice, when it is not the baseline set.
static bool fasterSetChosen() { return std::string(korvo_detail::activeKernelName()) != "baseline"; }

TEST(Kernels, ForcingTheBaselineSet) {
    const std::string chosen = korvo_detail::activeKernelName();
#if defined(__x86_64__)
    if (!__builtin_cpu_supports("avx2") || !__builtin_cpu_supports("fma")) EXPECT_EQ(chosen, "baseline");
#endif
    korvo_detail::forceBaselineKernels(true);
    EXPECT_STREQ(korvo_detail::activeKernelName(), "baseline");
    korvo_detail::forceBaselineKernels(false);
    EXPECT_EQ(korvo_detail::activeKernelName(), chosen);
}

namespace {
std::uint32_t bitsOf(float f) { std::uint32_t u; std::memcpy(&u, &f, sizeof u); return u; }
float fromBits(std::uint32_t u) { float f; std::memcpy(&f, &u, sizeof f); return f; }

struct Triples {
    std::vector<float> a, b, c;
    void add(float x, float y, float z) { a.push_back(x), b.push_back(y), c.push_back(z); }
};

using Rng = std::mt19937_64;
int uniform(Rng& rng, int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); }
float sign(Rng& rng) { return rng() & 1 ? -1.0f : 1.0f; }
// A random 24-bit significand in [1, 2), times 2^e.
float randomFloat(Rng& rng, int e) {
    return sign(rng) * std::ldexp(1.0f + static_cast<float>(rng() & 0x7fffff) * 0x1p-23f, e);
}

// Inputs whose exact a*b + c lies exactly on, or a hair beside, the midpoint of two
// floats: a*b = half an ulp of c times (1 - r^2 2^-46) or (1 + 2r 2^-23 + r^2 2^-46).
// A sum rounded to nearest in double lands on the midpoint, and its second rounding
// then goes the wrong way half the time.
void nearTies(Rng& rng, Triples& t) {
    float c = randomFloat(rng, uniform(rng, -100, 100));
    if (rng() % 8 == 0) c = std::copysign(std::ldexp(1.0f, std::ilogb(c)), c);
    const float productSign = sign(rng);
    int half = std::ilogb(c) - 24;
    // Below a power of two the floats lie twice as close.
    if (bitsOf(c) << 9 == 0 && productSign != std::copysign(1.0f, c)) --half;
    const float r = static_cast<float>(rng() % 4 == 0 ? 0 : uniform(rng, 1, 2048)) * 0x1p-23f;
    const int ea = half / 2 + uniform(rng, -10, 10);
    t.add(productSign * std::ldexp(1.0f + r, ea), std::ldexp(rng() & 1 ? 1.0f - r : 1.0f + r, half - ea), c);
}

// Results near the smallest normal float (where flush-to-zero decides) and below.
void nearUnderflow(Rng& rng, Triples& t) {
    const int ea = uniform(rng, -90, -30);
    const float a = randomFloat(rng, ea), b = randomFloat(rng, uniform(rng, -152, -120) - ea);
    switch (rng() % 4) {
        case 0: t.add(a, b, sign(rng) * 0.0f); break;
        case 1: t.add(a, b, std::copysign(FLT_MIN, -a * b)); break;
        case 2: t.add(a, b, randomFloat(rng, uniform(rng, -128, -120))); break;  // some subnormal
        default: t.add(a, b, fromBits(static_cast<std::uint32_t>(rng()) & 0x807fffffu)); break;
    }
}

const std::function<void(Rng&, Triples&)> kGenerators[] = {
    // Any bit patterns: every exponent, subnormals, infinities, NaNs.
    [](Rng& rng, Triples& t) {
        t.add(fromBits(static_cast<std::uint32_t>(rng())), fromBits(static_cast<std::uint32_t>(rng())),
              fromBits(static_cast<std::uint32_t>(rng())));
    },
    // Ordinary magnitudes with c near a*b.
    [](Rng& rng, Triples& t) {
        const int ea = uniform(rng, -30, 30), eb = uniform(rng, -30, 30);
        t.add(randomFloat(rng, ea), randomFloat(rng, eb), randomFloat(rng, ea + eb + uniform(rng, -26, 26)));
    },
    nearTies,
    // Cancellation: c is minus the rounded product, a few ulps off.
    [](Rng& rng, Triples& t) {
        const float a = randomFloat(rng, uniform(rng, -60, 60)), b = randomFloat(rng, uniform(rng, -60, 60));
        const float p = -(a * b);
        t.add(a, b, fromBits(bitsOf(p) + static_cast<std::uint32_t>(uniform(rng, -4, 4))));
    },
    nearUnderflow,
    // Products near the largest float.
    [](Rng& rng, Triples& t) {
        const int ea = uniform(rng, 40, 90);
        t.add(randomFloat(rng, ea), randomFloat(rng, uniform(rng, 124, 127) - ea),
              randomFloat(rng, uniform(rng, 100, 127)));
    },
};
constexpr size_t kNearTies = 2, kNearUnderflow = 4;

// Every triple of zeros, subnormals, boundaries, infinities and NaN.
Triples specialTriples() {
    const float inf = std::numeric_limits<float>::infinity();
    std::vector<float> values{std::numeric_limits<float>::quiet_NaN()};
    for (float v : {0.0f, FLT_TRUE_MIN, FLT_MIN - FLT_TRUE_MIN, FLT_MIN, 1.0f, 1.0f + FLT_EPSILON, 3.0f, FLT_MAX, inf}) {
        values.push_back(v);
        values.push_back(-v);
    }
    Triples t;
    for (float x : values)
        for (float y : values)
            for (float z : values) t.add(x, y, z);
    return t;
}

// How many results differ from the reference (NaNs of any payload match), with the first few.
int differences(const Triples& t, const std::vector<float>& got, const std::vector<float>& want,
                std::string& examples) {
    int count = 0;
    for (size_t i = 0; i < got.size(); ++i) {
        if (std::isnan(got[i]) && std::isnan(want[i])) continue;
        if (bitsOf(got[i]) == bitsOf(want[i])) continue;
        if (++count <= 3) {
            char line[160];
            std::snprintf(line, sizeof line, "\n  fma(%a, %a, %a): %a, want %a", t.a[i], t.b[i], t.c[i], got[i],
                          want[i]);
            examples += line;
        }
    }
    return count;
}
}  // namespace

// The baseline set's fused multiply-add against the processor's instruction (the
// library's std::fma where no faster set runs), with and without subnormals flushed
// as the stages' workers run; rounding in double before float would not pass.
TEST(Kernels, FusedMultiplyAddRoundsOnceOnEverySet) {
    const KernelSet& reference = activeKernels();
    const bool hardware = fasterSetChosen();
    const KernelSet& base = *onBaselineKernels([] { return &activeKernels(); });

    Rng rng(7);
    std::vector<Triples> cases;
    for (const auto& generate : kGenerators) {
        Triples t;
        for (int i = 0; i < (1 << 20) + 3; ++i) generate(rng, t);  // odd count: the loops' scalar tails too
        cases.push_back(std::move(t));
    }
    cases.push_back(specialTriples());

    std::vector<std::vector<float>> unflushed(cases.size());
    for (const bool flush : {false, true}) {
        if (flush && !hardware) continue;  // the library's std::fma may not follow the flush modes
        for (size_t k = 0; k < cases.size(); ++k) {
            const Triples& t = cases[k];
            const long n = static_cast<long>(t.a.size());
            std::vector<float> got(t.a.size()), want(t.a.size()), doubled(t.a.size());
            {
                std::optional<FlushSubnormals> modes;
                if (flush) modes.emplace();
                base.fusedRows(t.a.data(), t.b.data(), t.c.data(), got.data(), n);
                if (hardware) reference.fusedRows(t.a.data(), t.b.data(), t.c.data(), want.data(), n);
                else for (long i = 0; i < n; ++i) want[i] = std::fma(t.a[i], t.b[i], t.c[i]);
                for (long i = 0; i < n; ++i)
                    doubled[i] = static_cast<float>(static_cast<double>(t.a[i]) * t.b[i] + t.c[i]);
            }
            const std::string what = "case " + std::to_string(k) + (flush ? " flushed" : "");
            std::string examples;
            EXPECT_EQ(differences(t, got, want, examples), 0) << what << examples;
            if (k == kNearTies) EXPECT_GT(differences(t, doubled, want, examples), 1000) << "inputs too easy";
            if (flush && k == kNearUnderflow) EXPECT_GT(differences(t, got, unflushed[k], examples), 1000) << what;
            if (!flush) unflushed[k] = std::move(got);
        }
    }
}
