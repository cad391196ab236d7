#!/usr/bin/env bash
# Sets up what the tests need on a fresh Debian-like machine, builds, and runs
# every test: the C++ suite (GoogleTest through CTest), then the Python suite.
set -euo pipefail
cd "$(dirname "$0")/.."

SUDO=""
if [ "$(id -u)" != 0 ] && command -v sudo >/dev/null; then SUDO=sudo; fi
need=()
command -v g++ >/dev/null || need+=(g++)
command -v cmake >/dev/null || need+=(cmake)
command -v ninja >/dev/null || need+=(ninja-build)
command -v python3 >/dev/null || need+=(python3)
[ -f /usr/include/gtest/gtest.h ] || need+=(googletest libgtest-dev)
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}"
fi

build=${KORVO_TEST_BUILD:-build/test}
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=Release -DKORVO_BUILD_TESTS=ON
cmake --build "$build" -j "$(nproc)"
ctest --test-dir "$build" --output-on-failure -j "$(nproc)"

source tools/python_env.sh test
build/venv/bin/python -m pytest tests/python -q
