// Throughput of both stages on a 128x128x64 volume (white and coloured noise, 1
// and 2 threads), the baseline kernels against the fastest ones the processor
// runs, and where the time of the hard-thresholding stage goes with each.
//
//   cmake -S . -B build/bench -DKORVO_BUILD_BENCH=ON && cmake --build build/bench
//   build/bench/bench/bench_stages [NX NY NZ]
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "BlockCollection.h"
#include "KORVO.h"
#include "Kernels.h"
#include "korvo/Threading.h"
#include "korvo/matching.h"
#include "noise/covariance.h"
#include "noise/psd.h"
#include "noise/variances.h"
#include "support.h"
#include "process_reference_location.h"
#include "transforms/tables.h"
#include "transforms/transf3D.h"
#include "transforms/transformBlocksNL.h"

namespace {
using Clock = std::chrono::steady_clock;
double seconds(Clock::time_point a, Clock::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

Parameters benchParameters(const Vec3<int>& size) {
    Parameters p = korvo_phantom::exampleParameters(size);
    p.searchWindow = {4, 4, 4};
    return p;
}

struct Case {
    const char* name;
    std::vector<float> noisy;
    std::vector<float> psd;
    Vec3<int> psdSize;
    float matchVarianceWeight;
};

constexpr int kPieces = 7;
const char* const kPieceNames[kPieces] = {"noise preparation", "forward block transforms", "block matching",
                                          "group transform", "coefficient variances", "inverse transforms",
                                          "aggregation"};

// The hard-thresholding stage's pieces, run one after another on one thread
// over the same reference grid as the stage loop; seconds per piece.
std::vector<double> breakdown(const Case& c, const Vec3<int>& size) {
    Parameters p = benchParameters(size);
    p.psdSize = c.psdSize;
    p.matchVarianceWeight = c.matchVarianceWeight;
    const Transforms<float>& set = DEFAULT_TRANSFORMS_3D;
    const auto arb = TransformsMetas::Arbitrary, inv = TransformsMetas::InverseArbitrary;
    const TransformsMeta<float> meta{set.forward, set.inverse, set.groupForward, set.groupInverse, set.window,
                                     {arb, arb, arb}, nullptr, {inv, inv, inv}, nullptr};
    ThreadPool::THREAD_POOL.launchPool(1);
    const FlushSubnormals flush;  // as the stage's workers do
    Memory<float> memory = allocateMemory<float>(p);
    TempMemory<float> temp = createTempMemory<float>(p);
    Vec3<int> kept = p.psdWorkSize;
    kept.x = halfSpectrumExtent(p.psdWorkSize, p.useRealFft);
    memory.varianceExtents = kept;

    double tNoise = 0, tForward = 0, tMatch = 0, tGroup = 0, tVariance = 0, tInverse = 0, tAggregate = 0;
    auto t0 = Clock::now();
    float *kernel = nullptr, *local = nullptr;
    computeK3fT3<float>(c.psd.data(), p.psdSize, p.psdWorkSize, kept, p.blockSize, meta.forward, kernel);
    computeLocalVar(kernel, kept, p.blockSize.volume(), local);
    // The stage's own route to the variances: the per-run covariance table.
    float* covariance = nullptr;
    computeNoiseCovariance(kernel, p.psdWorkSize, kept, static_cast<int>(p.blockSize.volume()), covariance);
    const Vec3<int> extent{2 * p.searchWindow.x + 1, 2 * p.searchWindow.y + 1, 2 * p.searchWindow.z + 1};
    std::vector<float> correction(static_cast<size_t>(extent.volume()), 0.0f);
    if (p.matchVarianceWeight > 0) {
        calculateVariancePairs<float>(p.searchWindow, extent, p.blockSize, p.psdWorkSize, kept, kernel,
                                      SIZE_2_TRANSFORM, p.matchVarianceWeight, correction.data(), temp);
    }
    auto t1 = Clock::now();
    tNoise = seconds(t0, t1);

    ImageData<float> image(c.noisy.data(), size);
    BlockCollection<float> collection;
    collection.extractInitial(image, {0, 0, 0}, p.blockSize, meta.forward, meta.forwardKinds, true, temp, size);
    tForward = seconds(t1, Clock::now());

    std::vector<float> num(c.noisy.size(), 0.0f), den(c.noisy.size(), 0.0f);
    ImageDataMutable<float> numerator(num.data(), size, false), weights(den.data(), size, false);
    const Vec3<int> last{size.x - p.blockSize.x, size.y - p.blockSize.y, size.z - p.blockSize.z};
    const long V = p.blockSize.volume();
    for (int z = 0; z < last.z + p.step.z; z += p.step.z) {
        for (int y = 0; y < last.y + p.step.y; y += p.step.y) {
            for (int x = 0; x < last.x + p.step.x; x += p.step.x) {
                const Vec3<int> ref{std::min(x, last.x), std::min(y, last.y), std::min(z, last.z)};
                auto a = Clock::now();
                Vec3<int> ws{}, we{};
                setSearchWindow(ref, p.searchWindow, p.blockSize, size, ws, we);
                getBlockMatches<float>(collection, correction.data(), ref, p.blockSize, p.searchWindow, ws, we,
                                       p.maxGroupSize, p.minReduceCount, p.matchThreshold, memory.matches,
                                       memory.stackSize);
                const int n = memory.stackSize;
                auto b = Clock::now();
                transformBlocksNL<float>(memory.matches, n, meta.groupForward[n], arb, memory.groupSpectrum,
                                         p.blockSize);
                auto d = Clock::now();
                covarianceVariances<float>(n, p.blockSize, p.psdWorkSize, std::min(n, p.varianceGroupLimit),
                                           meta.groupForward[n], covariance, local, memory.variances,
                                           memory.matches, temp);
                auto e = Clock::now();
                transformBlocksNL<float>(memory.groupSpectrum, n, meta.groupInverse[n], inv, memory.estimate,
                                         p.blockSize);
                for (int k = 0; k < n; ++k) {
                    float* block = memory.estimate.data + k * V;
                    transf3D<float>(block, meta.inverse, meta.inverseKinds, temp.blockA, temp.blockB, block,
                                    p.blockSize);
                }
                auto f = Clock::now();
                std::fill(memory.blockVariances, memory.blockVariances + n, 1.0f);
                aggregate<float>(memory.matches, p.blockSize, n, memory.estimate, memory.blockVariances,
                                 meta.window, 1.0f, numerator, weights);
                auto g = Clock::now();
                tMatch += seconds(a, b);
                tGroup += seconds(b, d);
                tVariance += seconds(d, e);
                tInverse += seconds(e, f);
                tAggregate += seconds(f, g);
            }
        }
    }
    std::free(kernel);
    std::free(local);
    std::free(covariance);
    ThreadPool::THREAD_POOL.clearPool();
    return {tNoise, tForward, tMatch, tGroup, tVariance, tInverse, tAggregate};
}
}  // namespace

int main(int argc, char** argv) {
    Vec3<int> size{128, 128, 64};
    if (argc == 4) size = {std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3])};
    const size_t count = static_cast<size_t>(size.volume());
    const float sigma = 0.1f;
    const std::vector<float> clean = korvo_phantom::volume(size.x, size.y, size.z);

    std::vector<Case> cases(2);
    cases[0].name = "white";
    cases[0].noisy = korvo_phantom::whiteNoise(count, sigma, 7);
    cases[0].psd = {sigma * sigma};
    cases[0].psdSize = {1, 1, 1};
    cases[0].matchVarianceWeight = 0.0f;
    cases[1].name = "coloured";
    cases[1].noisy = korvo_phantom::colouredNoise(size.x, size.y, size.z, sigma, 7, cases[1].psd);
    cases[1].psdSize = size;
    cases[1].matchVarianceWeight = 1.0f;
    for (Case& c : cases) c.noisy = korvo_phantom::addNoise(clean, c.noisy);

    std::printf("volume %d x %d x %d, blocks 4x4x4, step 3, search window +-4, groups of 16\n", size.x, size.y,
                size.z);
    // Throughput (Mvoxel/s) of both stages and the PSNR of the result.
    struct Run {
        double ht, wiener, psnr;
    };
    auto run = [&](const Case& c, int threads) {
        Parameters p = benchParameters(size);
        p.psdSize = c.psdSize;
        p.matchVarianceWeight = c.matchVarianceWeight;
        p.numThreads = threads;
        std::vector<float> basic(count, 0.0f), result(count, 0.0f);
        Parameters first = p, second = p;
        auto t0 = Clock::now();
        korvo_detail::runStageHT(c.noisy.data(), c.psd.data(), &first, nullptr, basic.data(), nullptr);
        auto t1 = Clock::now();
        korvo_detail::runStageWie(c.noisy.data(), c.psd.data(), &second, nullptr, basic.data(), result.data(),
                                  nullptr);
        auto t2 = Clock::now();
        return Run{static_cast<double>(count) / seconds(t0, t1) * 1e-6,
                   static_cast<double>(count) / seconds(t1, t2) * 1e-6, korvo_phantom::psnr(result, clean)};
    };
    const char* fast = korvo_detail::activeKernelName();
    std::printf("kernels: %s, against the baseline ones\n\n", fast);
    std::printf("| noise | threads | hard thresholding (Mvox/s) | Wiener (Mvox/s) | PSNR in -> out (dB) |\n");
    std::printf("|---|---|---|---|---|\n");
    for (const Case& c : cases) {
        for (int threads : {1, 2}) {
            const Run r = run(c, threads);
            std::printf("| %s | %d | %.3f | %.3f | %.2f -> %.2f |\n", c.name, threads, r.ht, r.wiener,
                        korvo_phantom::psnr(c.noisy, clean), r.psnr);
            std::fflush(stdout);
        }
    }
    // Baseline against the chosen set, each measured right after the other.
    std::printf("\n| noise (1 thread) | stage | %s (Mvox/s) | baseline (Mvox/s) | %s / baseline |\n", fast, fast);
    std::printf("|---|---|---|---|---|\n");
    for (const Case& c : cases) {
        const Run f = run(c, 1);
        korvo_detail::forceBaselineKernels(true);
        const Run b = run(c, 1);
        korvo_detail::forceBaselineKernels(false);
        std::printf("| %s | hard thresholding | %.3f | %.3f | %.2f |\n", c.name, f.ht, b.ht, f.ht / b.ht);
        std::printf("| %s | Wiener | %.3f | %.3f | %.2f |\n", c.name, f.wiener, b.wiener, f.wiener / b.wiener);
        std::fflush(stdout);
    }
    for (const Case& c : cases) {
        const std::vector<double> t = breakdown(c, size);
        korvo_detail::forceBaselineKernels(true);
        const std::vector<double> base = breakdown(c, size);
        korvo_detail::forceBaselineKernels(false);
        double total = 0, baseTotal = 0;
        for (int i = 0; i < kPieces; ++i) {
            total += t[size_t(i)];
            baseTotal += base[size_t(i)];
        }
        std::printf("\nwhere the hard-thresholding stage spends its time (%s noise, 1 thread):\n", c.name);
        std::printf("  %-26s %9s %7s %10s %8s\n", "", fast, "", "baseline", "ratio");
        for (int i = 0; i < kPieces; ++i) {
            const double a = t[size_t(i)], b = base[size_t(i)];
            std::printf("  %-26s %8.3f s %5.1f %% %8.3f s %7.2f\n", kPieceNames[i], a, 100.0 * a / total, b,
                        a > 0 ? b / a : 0.0);
        }
        std::printf("  %-26s %8.3f s         %8.3f s %7.2f\n", "total", total, baseTotal, baseTotal / total);
    }
    return 0;
}
