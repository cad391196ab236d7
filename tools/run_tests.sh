#!/usr/bin/env bash
# Sets up what the tests need on a fresh Debian-like machine, builds, and runs
# every test: the C++ suite (GoogleTest through CTest), then the Python suite.
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/setup.sh

require "command -v g++" g++
require "command -v cmake" cmake
require "command -v ninja" ninja-build
require "command -v python3" python3
require "test -f /usr/include/gtest/gtest.h" googletest libgtest-dev
install_missing

build=${KORVO_TEST_BUILD:-build/test}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKORVO_BUILD_TESTS=ON
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

python_env test
build/venv/bin/python -m pytest tests/python -q
