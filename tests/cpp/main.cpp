// Test main. `--baseline-kernels` runs every test of the executable on the baseline
// kernel set, so each kernel's comparison with its plain reference covers both sets.
#include <gtest/gtest.h>

#include <cstring>

#include "Kernels.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--baseline-kernels") == 0) korvo_detail::forceBaselineKernels(true);
    }
    return RUN_ALL_TESTS();
}
