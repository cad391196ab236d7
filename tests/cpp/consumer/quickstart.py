"""Runs the README's C++ quick start as a user would: its shell block builds and
installs the library into a scratch prefix (without GoogleTest in sight), then its
CMake and C++ blocks, with a small main around the C++, build and run a consumer.

usage: quickstart.py SOURCE_DIR SCRATCH_DIR
"""
import os
import re
import shutil
import subprocess
import sys

MAIN = r"""
#include <cmath>
#include <cstdio>
#include <random>

// A bright box in a darker volume, white noise of std 0.1: the denoised volume
// must lie clearly closer to the clean one than the noisy input does.
int main() {
    const int nx = 24, ny = 20, nz = 16;
    const float sigma = 0.1f;
    std::vector<float> clean(static_cast<size_t>(nx) * ny * nz), noisy(clean.size());
    std::mt19937 rng(3);
    std::normal_distribution<float> noise(0.0f, sigma);
    for (int z = 0; z < nz; ++z)
        for (int y = 0; y < ny; ++y)
            for (int x = 0; x < nx; ++x) {
                const size_t i = static_cast<size_t>(x + nx * (y + ny * z));
                const bool inside = x > 5 && x < 18 && y > 4 && y < 15 && z > 3 && z < 12;
                clean[i] = inside ? 0.8f : 0.2f;
                noisy[i] = clean[i] + noise(rng);
            }
    const std::vector<float> result = denoise(noisy, nx, ny, nz, sigma);
    double before = 0.0, after = 0.0;
    for (size_t i = 0; i < clean.size(); ++i) {
        before += (noisy[i] - clean[i]) * (noisy[i] - clean[i]);
        after += (result[i] - clean[i]) * (result[i] - clean[i]);
    }
    std::printf("quick start: rms error %.4f -> %.4f\n", std::sqrt(before / clean.size()),
                std::sqrt(after / clean.size()));
    return after < 0.25 * before ? 0 : 1;
}
"""


def blocks(readme):
    """The fenced blocks of the C++ quick start section, by language."""
    section = re.search(r"^## C\+\+ quick start\n(.*?)(?=^## )", readme, re.S | re.M).group(1)
    found = {}
    for language, body in re.findall(r"^```(\w+)\n(.*?)^```", section, re.S | re.M):
        found.setdefault(language, []).append(body)
    return found


def run(command, **kwargs):
    print("+", command if isinstance(command, str) else " ".join(command), flush=True)
    subprocess.run(command, check=True, **kwargs)


def main():
    source, scratch = os.path.abspath(sys.argv[1]), os.path.abspath(sys.argv[2])
    shutil.rmtree(scratch, ignore_errors=True)
    home = os.path.join(scratch, "home")
    os.makedirs(home)
    with open(os.path.join(source, "README.md")) as f:
        found = blocks(f.read())
    (shell,), (cmake,), (cpp,) = found["bash"], found["cmake"], found["cpp"]

    # The user's commands, with the build tree moved into the scratch folder and
    # GoogleTest hidden, so that the build must not need it.
    env = dict(os.environ, HOME=home, CMAKE_BUILD_PARALLEL_LEVEL="2")
    shell = shell.replace("build/release", os.path.join(scratch, "build"))
    shell = re.sub(r"^(cmake -S .*)$", r"\1 -DCMAKE_DISABLE_FIND_PACKAGE_GTest=ON",
                   shell, flags=re.M)
    run(["bash", "-euo", "pipefail", "-c", shell], cwd=source, env=env)

    consumer = os.path.join(scratch, "consumer")
    os.makedirs(consumer)
    program = re.search(r"add_executable\(\s*(\S+)\s+(\S+)\s*\)", cmake)
    with open(os.path.join(consumer, "CMakeLists.txt"), "w") as f:
        f.write(cmake)
    with open(os.path.join(consumer, program.group(2)), "w") as f:
        f.write(cpp + MAIN)
    prefix = os.path.join(home, ".local")
    run(["cmake", "-S", consumer, "-B", os.path.join(consumer, "build"), "-DCMAKE_PREFIX_PATH=" + prefix], env=env)
    run(["cmake", "--build", os.path.join(consumer, "build")], env=env)
    run([os.path.join(consumer, "build", program.group(1))], env=env)


if __name__ == "__main__":
    main()
