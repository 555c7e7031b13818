#!/usr/bin/env bash
# Builds the 32-bit ARM target (arm-linux-gnueabihf) and runs every test suite
# under qemu-arm. Extra arguments go to ctest (e.g. -R test_target).
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=${JOBS:-$(nproc)}

command -v arm-linux-gnueabihf-g++ >/dev/null && command -v qemu-arm >/dev/null ||
  scripts/install-deps.sh
scripts/armhf-sysroot.sh
# The toolchain's initial compile flags only reach a new cache: start a new one
# when the toolchain file changed since the last configure.
fresh=()
cache=build/armhf/CMakeCache.txt
if [ -f "$cache" ] && [ cmake/armhf-toolchain.cmake -nt "$cache" ]; then fresh=(--fresh); fi
cmake --preset armhf "${fresh[@]}" >/dev/null
cmake --build --preset armhf -j "$JOBS"
ctest --preset armhf -j "$JOBS" "$@"
