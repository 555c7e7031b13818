#!/usr/bin/env bash
# kerm logcat receives what kerm log-demo logs, filters it by level and
# module, formats it, rotates its file at --max-bytes over --rotate files,
# and exits cleanly on SIGTERM.
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
# Filters and formats: --level, --module and MODULE:LEVEL filters, brief and raw.
collect() {  # collect OUT ARGS...: what logcat ARGS prints of one log-demo run
  local out=$1; shift
  "$kerm" logcat "$@" > "$out" 2>/dev/null &
  local pid=$!
  sleep 0.3
  "$kerm" log-demo > /dev/null
  sleep 0.5
  kill -TERM "$pid"; wait "$pid"
}
count() {  # count FILE WANT
  [ "$(wc -l < "$1")" -eq "$2" ] || { echo "$1: expected $2 lines"; cat "$1"; exit 1; }
}
collect "$work/warn" --level W --format brief
count "$work/warn" 12   # F, E and W of four modules
grep -qx 'W/86: warning message from the health client module' "$work/warn"
if grep -q '^[ITV]/' "$work/warn"; then echo "--level W let a lower level through"; exit 1; fi
collect "$work/filtered" --format=raw 86:V '*:E'
count "$work/filtered" 12   # six of module 86, F and E of the three others
grep -qx 'verbose message from the health client module' "$work/filtered"
collect "$work/mod" --module 0x86 --level I
count "$work/mod" 4
grep -c 'VASK86@' "$work/mod" | grep -qx 4
# Rotation over three files: FILE.1 .. FILE.3, never a fourth.
collect "$work/rot.out" --output "$work/rot" --max-bytes 300 --rotate 3
for i in 1 2 3; do [ -s "$work/rot.$i" ] || { echo "no rot.$i"; ls -l "$work"; exit 1; }; done
[ ! -e "$work/rot.4" ] || { echo "kept a fourth file"; exit 1; }
[ "$(stat -c %s "$work/rot.3")" -le 300 ] || { echo "rotated file too big"; exit 1; }
# A second collector cannot bind while the first runs.
"$kerm" logcat --count 1 > /dev/null 2>&1 & first=$!
sleep 0.3
if "$kerm" logcat --count 1 2>/dev/null; then echo "second collector bound"; exit 1; fi
kill -TERM "$first"; wait "$first"
echo "logcat ok"
