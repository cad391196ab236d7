#!/usr/bin/env bash
# Sets up the Python package on a fresh Debian-like machine and runs the demo:
# a synthetic phantom is denoised, the PSNR before and after is printed and the
# middle slices are written to korvo-demo.png.
set -euo pipefail
cd "$(dirname "$0")/.."

SUDO=""
if [ "$(id -u)" != 0 ] && command -v sudo >/dev/null; then SUDO=sudo; fi
need=()
command -v g++ >/dev/null || need+=(g++)
command -v python3 >/dev/null || need+=(python3)
if [ ${#need[@]} -gt 0 ]; then
  echo "installing: ${need[*]}"
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq "${need[@]}"
fi

source tools/python_env.sh progress
build/venv/bin/korvo demo "$@"
