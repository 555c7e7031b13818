#!/usr/bin/env bash
# Compares the built library's ABI (functions, variables and the types they
# reach through the public headers) with the checked-in baseline. Any
# difference fails: an ABI change is made on purpose, with
# scripts/update-abi.sh, and shows up in review as a baseline change.
set -euo pipefail
lib=$1 inc=$2 baseline=$3
tmp=$(mktemp -d); trap 'rm -rf "$tmp"' EXIT
abidw --no-corpus-path --no-show-locs --headers-dir "$inc" "$lib" > "$tmp/current.abi"
rc=0
abidiff --no-show-locs --headers-dir2 "$inc" "$baseline" "$tmp/current.abi" > "$tmp/report" || rc=$?
if [ "$rc" -ne 0 ]; then
  cat "$tmp/report"
  echo "ABI differs from $baseline (abidiff status $rc); if intended, run scripts/update-abi.sh"
  exit 1
fi
echo "abi ok: $(grep -c '<elf-symbol ' "$baseline") symbols as in the baseline"
