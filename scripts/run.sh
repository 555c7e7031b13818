#!/usr/bin/env bash
# Main job: builds the library and the kerm tool, then runs the demonstration.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake --preset default >/dev/null
cmake --build --preset default -j "$(nproc)"
exec scripts/demo.sh build/default
