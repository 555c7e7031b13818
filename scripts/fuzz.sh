#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs each for a bounded
# time. A crash, leak or sanitizer report fails the run.
set -euo pipefail
cd "$(dirname "$0")/.."
FUZZ_SECONDS=${FUZZ_SECONDS:-60}
if ! ls fuzz/fuzz_*.cpp >/dev/null 2>&1; then echo "no fuzz targets"; exit 0; fi
cmake --preset fuzz >/dev/null
cmake --build --preset fuzz -j "${JOBS:-$(nproc)}"
for bin in build/fuzz/fuzz/fuzz_*; do
  [ -x "$bin" ] || continue
  name=$(basename "$bin")
  corpus=build/fuzz/corpus/$name
  mkdir -p "$corpus"
  seeds=()
  [ -d "fuzz/corpus/$name" ] && seeds=("fuzz/corpus/$name")
  echo "--- $name (${FUZZ_SECONDS}s)"
  rc=0
  "$bin" -max_total_time="$FUZZ_SECONDS" -print_final_stats=1 -artifact_prefix="build/fuzz/$name-" \
    "$corpus" "${seeds[@]}" > "build/fuzz/$name.log" 2>&1 || rc=$?
  grep -E "^(#[0-9]+ +DONE|stat::number_of_executed_units)" "build/fuzz/$name.log" || true
  if [ "$rc" -ne 0 ]; then tail -n 60 "build/fuzz/$name.log"; echo "$name failed"; exit 1; fi
done
echo "fuzz: all targets ran clean"
