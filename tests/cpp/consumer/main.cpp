// A consumer of the installed package: only the public headers and find_package(korvo).
#include <korvo/korvo.h>

#include <cmath>
#include <cstdio>
#include <vector>

int main() {
    Parameters p{};
    p.blockSize = {8, 8, 1};
    p.psdWorkSize = {16, 16, 1};
    p.useRealFft = true;
    p.maxGroupSize = 16;
    p.varianceGroupLimit = 4;
    p.thresholdFactor = 7.29f;
    p.wienerFactor = 1.0f;
    p.searchWindow = {5, 5, 0};
    p.imageSize = {32, 32, 1};
    p.psdSize = {1, 1, 1};
    p.step = {3, 3, 1};
    p.minReduceCount = 1;
    p.matchThreshold = 1e30f;
    p.numThreads = 1;
    std::vector<float> in(32 * 32, 0.5f), out(in.size(), 0.0f);
    const float psd = 0.01f;
    korvoInterfaceHT(in.data(), &psd, &p, nullptr, out.data(), nullptr);
    for (float v : out) {
        if (std::fabs(v - 0.5f) > 1e-5f) {
            std::printf("unexpected value %f\n", v);
            return 1;
        }
    }
    std::printf("consumer ok\n");
    return 0;
}
