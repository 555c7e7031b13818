#!/usr/bin/env bash
# Fails the documentation build when doxygen reports an exported function
# without documentation, or a public header without a file comment (doxygen
# lists nothing of such a header, so its functions would go unchecked). Other
# doxygen warnings stay in the log.
# Usage: check-undocumented.sh WARNINGS_LOG [INCLUDE_DIR]
set -euo pipefail
log=$1
incdir=${2:-}
status=0
if [ -n "$incdir" ]; then
  missing=$(grep -L '@file' "$incdir"/*.h || true)
  if [ -n "$missing" ]; then
    echo "public headers without a /** @file ... */ comment:" >&2
    for h in $missing; do echo "  ${h##*/}" >&2; done
    status=1
  fi
fi
if [ -s "$log" ] && grep -E '\(function\).*is not documented|Member .*\(.*\) \(function\)' "$log" >/dev/null; then
  echo "undocumented exported functions:" >&2
  grep -E '\(function\)' "$log" | sed -E 's/.*Member ([A-Za-z0-9_]+).*/  \1/' | sort -u >&2
  status=1
fi
exit $status
