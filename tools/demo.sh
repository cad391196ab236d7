#!/usr/bin/env bash
# Sets up the Python package on a fresh Debian-like machine and runs the demo:
# a synthetic phantom is denoised, the PSNR before and after is printed and the
# middle slices are written to korvo-demo.png.
set -euo pipefail
cd "$(dirname "$0")/.."
source tools/setup.sh

require "command -v g++" g++
require "command -v python3" python3
install_missing

python_env progress plot
build/venv/bin/korvo demo "$@"
