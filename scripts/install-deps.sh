#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need.
# Idempotent: does nothing when everything is already installed.
set -euo pipefail

PACKAGES=(
  build-essential cmake pkg-config git
  libcjson-dev uuid-dev
  android-liblog-dev android-libutils-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libspdlog-dev libboost-dev
  libjemalloc-dev libmimalloc-dev libconcurrentqueue-dev libfmt-dev libabsl-dev
  gnuplot-nox ccache
  debhelper dpkg-dev lintian abigail-tools doxygen help2man libcli11-dev
  clang-14 libclang-rt-14-dev
  g++-arm-linux-gnueabihf qemu-user
  ffmpeg
  python3 iproute2
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all packages present"
  exit 0
fi
echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then SUDO=sudo; fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update
$SUDO apt-get install -y --no-install-recommends "${missing[@]}"
