#!/usr/bin/env bash
# kerm logcat receives what kerm log-demo logs, rotates its file at
# --max-bytes, and exits cleanly on SIGTERM.
set -euo pipefail
kerm=$1
if [ -z "${INNER:-}" ] && unshare -n true 2>/dev/null; then exec env INNER=1 unshare -n "$0" "$@"; fi
work=$(mktemp -d); trap 'rm -rf "$work"' EXIT
"$kerm" logcat --output "$work/log" --max-bytes 1000 > "$work/stdout" 2>/dev/null &
pid=$!
sleep 0.3
"$kerm" log-demo > /dev/null
sleep 0.5
kill -TERM "$pid"
wait "$pid"   # must exit 0 on SIGTERM
lines=$(wc -l < "$work/stdout")
[ "$lines" -eq 24 ] || { echo "expected 24 lines, got $lines"; cat "$work/stdout"; exit 1; }
[ -s "$work/log.1" ] || { echo "no rotation"; ls -l "$work"; exit 1; }
[ "$(stat -c %s "$work/log")" -le 1000 ] || { echo "rotated file too big"; exit 1; }
grep -q 'VASK86@5\[ *log_demo: *[0-9]*\] V :verbose message from the health client module$' "$work/stdout"
# A second collector cannot bind while the first runs.
"$kerm" logcat --count 1 > /dev/null 2>&1 & first=$!
sleep 0.3
if "$kerm" logcat --count 1 2>/dev/null; then echo "second collector bound"; exit 1; fi
kill -TERM "$first"; wait "$first"
echo "logcat ok"
