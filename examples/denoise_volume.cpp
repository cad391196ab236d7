// Denoises a raw float32 volume (or a generated phantom) with both stages and the
// built-in transforms, using nothing but the installed interface.
//
//   denoise_volume --phantom 96 96 64 --sigma 0.1 [--out result.raw]
//   denoise_volume noisy.raw NX NY NZ --sigma 0.1 [--clean clean.raw] [--out result.raw]
//
// Raw files hold NX*NY*NZ little-endian float32 samples, x fastest. NZ = 1 denoises
// a single plane with 8x8 blocks; otherwise 4x4x4 blocks are used.
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <utility>
#include <vector>

#include "korvo/korvo.h"
#include "support.h"

namespace {
bool readRaw(const std::string& path, size_t count, std::vector<float>& out) {
    std::ifstream in(path, std::ios::binary);
    out.resize(count);
    in.read(reinterpret_cast<char*>(out.data()), static_cast<std::streamsize>(count * sizeof(float)));
    return static_cast<size_t>(in.gcount()) == count * sizeof(float);
}

bool writeRaw(const std::string& path, const std::vector<float>& data) {
    std::ofstream out(path, std::ios::binary);
    out.write(reinterpret_cast<const char*>(data.data()), static_cast<std::streamsize>(data.size() * sizeof(float)));
    return static_cast<bool>(out);
}

int usage() {
    std::fprintf(stderr,
                 "usage: denoise_volume --phantom NX NY NZ --sigma S [--out FILE]\n"
                 "       denoise_volume NOISY.raw NX NY NZ --sigma S [--clean CLEAN.raw] [--out FILE]\n");
    return 2;
}
}  // namespace

int main(int argc, char** argv) {
    if (argc < 5) return usage();
    const bool phantom = std::strcmp(argv[1], "--phantom") == 0;
    const int nx = std::atoi(argv[2]), ny = std::atoi(argv[3]), nz = std::atoi(argv[4]);
    float sigma = -1.0f;
    std::string cleanPath, outPath;
    for (int i = 5; i + 1 < argc; i += 2) {
        if (std::strcmp(argv[i], "--sigma") == 0) sigma = std::strtof(argv[i + 1], nullptr);
        else if (std::strcmp(argv[i], "--clean") == 0) cleanPath = argv[i + 1];
        else if (std::strcmp(argv[i], "--out") == 0) outPath = argv[i + 1];
        else return usage();
    }
    if (nx < 1 || ny < 1 || nz < 1 || !(sigma > 0.0f)) return usage();
    const size_t count = static_cast<size_t>(nx) * ny * nz;

    // The package's defaults for each stage, checked before anything is allocated.
    Parameters stages[2];
    for (int stage = 0; stage < 2; ++stage) {
        korvoDefaultParameters(&stages[stage], stage, {nx, ny, nz}, sigma);
        char reason[256];
        if (korvoCheckParameters(&stages[stage], stage, reason, sizeof reason) != 0) {
            std::fprintf(stderr, "cannot denoise this volume: %s\n", reason);
            return 1;
        }
        std::printf("stage %d keeps %.1f MiB of pre-transformed blocks\n", stage,
                    static_cast<double>(korvoCollectionBytes(&stages[stage], stage)) / (1 << 20));
    }
    std::vector<float> noisy, clean;
    if (phantom) {
        korvo_phantom::Scene scene = korvo_phantom::whiteNoiseScene(nx, ny, nz, sigma, 2024);
        clean = std::move(scene.clean);
        noisy = std::move(scene.noisy);
    } else {
        if (!readRaw(argv[1], count, noisy)) {
            std::fprintf(stderr, "cannot read %zu floats from %s\n", count, argv[1]);
            return 1;
        }
        if (!cleanPath.empty() && !readRaw(cleanPath, count, clean)) {
            std::fprintf(stderr, "cannot read %zu floats from %s\n", count, cleanPath.c_str());
            return 1;
        }
    }

    const float psd = sigma * sigma;

    std::vector<float> basic(count, 0.0f), result(count, 0.0f);
    const auto t0 = std::chrono::steady_clock::now();
    korvoInterfaceHT(noisy.data(), &psd, &stages[0], nullptr, basic.data(), nullptr);
    const auto t1 = std::chrono::steady_clock::now();
    korvoInterfaceWie(noisy.data(), &psd, &stages[1], nullptr, basic.data(), result.data(), nullptr);
    const auto t2 = std::chrono::steady_clock::now();
    const double s1 = std::chrono::duration<double>(t1 - t0).count();
    const double s2 = std::chrono::duration<double>(t2 - t1).count();
    std::printf("%d x %d x %d: hard thresholding %.2f s, Wiener %.2f s\n", nx, ny, nz, s1, s2);

    if (!clean.empty()) {
        std::printf("PSNR noisy %.2f dB, first stage %.2f dB, final %.2f dB\n",
                    korvo_phantom::psnr(noisy, clean), korvo_phantom::psnr(basic, clean),
                    korvo_phantom::psnr(result, clean));
    }
    if (!outPath.empty() && !writeRaw(outPath, result)) {
        std::fprintf(stderr, "cannot write %s\n", outPath.c_str());
        return 1;
    }
    return 0;
}
