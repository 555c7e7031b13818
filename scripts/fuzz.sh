#!/usr/bin/env bash
# Builds the libFuzzer targets (clang, ASan+UBSan) and runs each for a bounded
# time. A crash, leak or sanitizer report fails the run.
#   scripts/fuzz.sh            every target FUZZ_SECONDS (default 60) seconds
#   scripts/fuzz.sh --long N   every target N seconds, then the inputs that
#                              reach new code are merged (minimised) into the
#                              checked-in corpora fuzz/corpus/<target>/
set -euo pipefail
cd "$(dirname "$0")/.."
FUZZ_SECONDS=${FUZZ_SECONDS:-60}
long=0
if [ "${1:-}" = "--long" ]; then
  [[ ${2:-} =~ ^[0-9]+$ ]] || { echo "usage: scripts/fuzz.sh [--long SECONDS]" >&2; exit 2; }
  FUZZ_SECONDS=$2
  long=1
fi
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
  if [ "$long" -eq 1 ]; then
    # Only inputs that reach code the checked-in corpus does not join it
    # (edges only: hit counts would let in hundreds of near-duplicates).
    mkdir -p "fuzz/corpus/$name"
    before=$(ls "fuzz/corpus/$name" | wc -l)
    "$bin" -merge=1 -use_counters=0 "fuzz/corpus/$name" "$corpus" > "build/fuzz/$name.merge.log" 2>&1 \
      || { tail -n 30 "build/fuzz/$name.merge.log"; echo "$name: merge failed"; exit 1; }
    echo "$name: $(( $(ls "fuzz/corpus/$name" | wc -l) - before )) new inputs in fuzz/corpus/$name"
  fi
done
echo "fuzz: all targets ran clean"
