#!/usr/bin/env bash
# Builds the 32-bit ARM target (arm-linux-gnueabihf) and runs every test suite
# under qemu-arm. Extra arguments go to ctest (e.g. -R test_target).
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}

command -v arm-linux-gnueabihf-g++ >/dev/null && command -v qemu-arm >/dev/null ||
  scripts/install-deps.sh
scripts/armhf-sysroot.sh
cmake --preset armhf >/dev/null
cmake --build --preset armhf -j "$JOBS"
ctest --preset armhf -j "$JOBS" "$@"
