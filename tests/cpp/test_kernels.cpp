// The kernel sets compiled for different instruction sets give the same bits, and
// forcing the baseline set works. (Each kernel's test against a plain reference
// runs once more on the baseline set: see CMakeLists.txt.)
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "Kernels.h"
#include "korvo/korvo.h"
#include "support.h"

namespace {
// The automatic choice, when it is not the baseline set.
bool fasterSetChosen() { return std::string(korvo_detail::activeKernelName()) != "baseline"; }

struct Outputs {
    std::vector<float> basic, final;
};

Outputs bothStages(const Parameters& p, const std::vector<float>& noisy, const std::vector<float>& psd) {
    Outputs o{std::vector<float>(noisy.size(), 0.0f), std::vector<float>(noisy.size(), 0.0f)};
    Parameters first = p, second = p;
    korvoInterfaceHT(noisy.data(), psd.data(), &first, nullptr, o.basic.data(), nullptr);
    korvoInterfaceWie(noisy.data(), psd.data(), &second, nullptr, o.basic.data(), o.final.data(), nullptr);
    return o;
}

bool sameBits(const std::vector<float>& a, const std::vector<float>& b) {
    return a.size() == b.size() && std::memcmp(a.data(), b.data(), a.size() * sizeof(float)) == 0;
}
}  // namespace

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

// Both stages, white and coloured noise, volume and image. On one thread: with more,
// the order in which workers add into shared voxels varies from run to run.
TEST(Kernels, StagesGiveTheSameBitsOnEverySet) {
    if (!fasterSetChosen()) GTEST_SKIP() << "only the baseline kernels run here";
    struct Case {
        Vec3<int> size;
        bool coloured;
    };
    const Case cases[] = {{{28, 24, 20}, false}, {{28, 24, 20}, true}, {{64, 56, 1}, false}, {{64, 56, 1}, true}};
    for (const Case& c : cases) {
        const size_t count = static_cast<size_t>(c.size.volume());
        const float sigma = 0.1f;
        std::vector<float> psd{sigma * sigma};
        const std::vector<float> noise = c.coloured
                                             ? korvo_phantom::colouredNoise(c.size.x, c.size.y, c.size.z, sigma, 5, psd)
                                             : korvo_phantom::whiteNoise(count, sigma, 5);
        const std::vector<float> noisy =
            korvo_phantom::addNoise(korvo_phantom::volume(c.size.x, c.size.y, c.size.z), noise);
        Parameters p = korvo_phantom::exampleParameters(c.size);
        p.numThreads = 1;
        if (c.coloured) {
            p.psdSize = c.size;
            p.matchVarianceWeight = 1.0f;
        }
        const std::string what = std::to_string(c.size.z) + (c.coloured ? " coloured" : " white");
        const Outputs fast = bothStages(p, noisy, psd);
        korvo_detail::forceBaselineKernels(true);
        const Outputs base = bothStages(p, noisy, psd);
        korvo_detail::forceBaselineKernels(false);
        EXPECT_TRUE(sameBits(fast.basic, base.basic)) << what;
        EXPECT_TRUE(sameBits(fast.final, base.final)) << what;
        EXPECT_FALSE(sameBits(fast.final, noisy)) << what;  // the stages did run
    }
}
