#!/usr/bin/env bash
# Demonstration: the log collector receives lines that a demo program logs
# through the socket output.
set -euo pipefail
build=${1:-build/default}
kerm=$build/tools/kerm
echo "(demo not available yet)"
"$kerm" help
