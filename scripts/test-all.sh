#!/usr/bin/env bash
# Builds and runs every test suite: host (RelWithDebInfo), ASan+UBSan,
# ThreadSanitizer (threaded suites), the 32-bit ARM target under qemu, and the
# bounded fuzz runs. Exits non-zero on the first failing stage.
set -euo pipefail
cd "$(dirname "$0")/.."
# Compiler-cache hits across checkouts in other folders (paths made relative,
# the working directory left out of the hash).
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
JOBS=${JOBS:-$(nproc)}
FUZZ_SECONDS=${FUZZ_SECONDS:-20}

scripts/install-deps.sh

stage() { echo; echo "=== $*"; }

summary=$(mktemp); trap 'rm -f "$summary"' EXIT
# Runs a test command, keeping its ctest summary line for the total.
counted() { "$@" 2>&1 | tee -a "$summary"; return "${PIPESTATUS[0]}"; }

run_preset() {
  local p=$1
  stage "configure/build/test: $p"
  cmake --preset "$p" >/dev/null
  cmake --build --preset "$p" -j "$JOBS"
  counted ctest --preset "$p" -j "$JOBS"
}

run_preset default
if [ -x scripts/package.sh ]; then
  stage "Debian packages: build, lintian, install into a scratch root, C consumer"
  scripts/package.sh build/package
fi
run_preset asan
run_preset tsan
if [ -x scripts/armhf.sh ]; then
  stage "32-bit ARM target under qemu"
  counted scripts/armhf.sh
fi
if [ -x scripts/fuzz.sh ]; then
  stage "fuzz targets, ${FUZZ_SECONDS}s each"
  FUZZ_SECONDS=$FUZZ_SECONDS counted scripts/fuzz.sh
fi
stage "all test stages passed"
tests=$(grep -oE 'tests failed out of [0-9]+' "$summary" | awk '{s += $5} END {print s + 0}')
fuzzers=$(grep -c '^--- fuzz_' "$summary" || true)
echo "total: $((tests + fuzzers)) passed, 0 failed"
