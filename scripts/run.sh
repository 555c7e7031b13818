#!/usr/bin/env bash
# Main job: builds the library and the kerm tool, then runs the demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
# Compiler-cache hits across checkouts in other folders (paths made relative,
# the working directory left out of the hash).
export CCACHE_BASEDIR=${CCACHE_BASEDIR:-$PWD} CCACHE_NOHASHDIR=${CCACHE_NOHASHDIR:-1}
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)"
exec scripts/demo.sh build/default
