#!/usr/bin/env bash
# Demonstration: `kerm logcat` collects what `kerm log-demo` logs through the
# socket output. Runs in a private network namespace where possible, so the
# collector's abstract socket name cannot clash with a running collector.
set -euo pipefail
build=${1:-build/default}
kerm=$(realpath "$build/tools/kerm")
if [ -z "${KERM_DEMO_INNER:-}" ] && unshare -n true 2>/dev/null; then
  exec env KERM_DEMO_INNER=1 unshare -n "$0" "$@"
fi
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
echo "== kerm logcat (collector) in the background"
"$kerm" logcat --output "$work/collected.log" --max-bytes 65536 >/dev/null 2>"$work/logcat.err" &
cat_pid=$!
for _ in $(seq 50); do [ -e "$work/collected.log" ] && break; sleep 0.1; done
sleep 0.2
echo "== kerm log-demo (logs every level from four modules)"
"$kerm" log-demo
sleep 0.5
kill -TERM "$cat_pid"; wait "$cat_pid" || true
echo "== what the collector received ($(wc -l < "$work/collected.log") lines)"
cat "$work/collected.log"
