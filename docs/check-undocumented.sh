#!/usr/bin/env bash
# Fails the documentation build when doxygen reports an exported function
# without documentation; other doxygen warnings are shown but do not fail.
set -euo pipefail
log=$1
[ -s "$log" ] || exit 0
cat "$log" >&2
if grep -E '\(function\).*is not documented|Member .*\(.*\) \(function\)' "$log" >/dev/null; then
  echo "undocumented exported functions:" >&2
  grep -E '\(function\)' "$log" | sed -E 's/.*Member ([A-Za-z0-9_]+).*/  \1/' | sort -u >&2
  exit 1
fi
