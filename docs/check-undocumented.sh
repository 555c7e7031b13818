#!/usr/bin/env bash
# Fails the documentation build when doxygen reports an exported function
# without documentation, or a public header without a file comment (doxygen
# lists nothing of such a header, so its functions would go unchecked). Other
# doxygen warnings stay in the log.
set -euo pipefail
log=$1
[ -s "$log" ] || exit 0
if grep -E '\(function\).*is not documented|Member .*\(.*\) \(function\)' "$log" >/dev/null; then
  echo "undocumented exported functions:" >&2
  grep -E '\(function\)' "$log" | sed -E 's/.*Member ([A-Za-z0-9_]+).*/  \1/' | sort -u >&2
  exit 1
fi
