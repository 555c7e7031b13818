#!/usr/bin/env bash
# A scripted health client reports by UDP on 127.0.0.1 to the monitor; the
# monitor's events must be exactly the transitions of the script, including
# cycles split over several messages, one of them 130 messages long so that its
# 7-bit packet index wraps (its errors are cleared in two steps: the client's
# 255 pool nodes cannot hold 130 active errors and 130 clears at once).
# usage: hms_udp_test.sh KERM [EMULATOR...]
set -euo pipefail
run=("${@:2}" "$1")
base=${KERM_TEST_TMP:-${TMPDIR:-/tmp}}
mkdir -p "$base"
tmp=$(mktemp -d "$base/hms_udp.XXXXXX")
mon=
cleanup() {
  if [ -n "$mon" ] && kill -0 "$mon" 2>/dev/null; then kill "$mon"; fi
  rm -rf "$tmp"
}
trap cleanup EXIT

timeout 300 "${run[@]}" hms-monitor --port 0 --idle-exit-ms 3000 --timeout-ms 240000 \
  >"$tmp/monitor.out" 2>"$tmp/monitor.err" &
mon=$!
for _ in $(seq 600); do
  grep -q '^listening ' "$tmp/monitor.out" 2>/dev/null && break
  sleep 0.1
done
port=$(sed -n 's/^listening 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$tmp/monitor.out")
[ -n "$port" ] || { echo "monitor did not start"; cat "$tmp/monitor.err"; exit 1; }

script=';0x100:0=1,0x100:1=2;0x100:0=3;0x100:0=3,0x200:0-11=5;0x200:0-5=5,0x200:6-11=6;0x300:0-129=1;0x300:0-63=1;'
timeout 240 "${run[@]}" hms-demo --port "$port" --script "$script" --period-ms 50 --busy-ms 2 \
  --max-items 1 --cycles-per-step 2 --timeout-ms 200000 2>"$tmp/demo.err" >/dev/null \
  || { echo "demo failed"; cat "$tmp/demo.err"; exit 1; }
wait "$mon"
mon=

{
  echo "raised code=0x00000100 index=0 status=1"
  echo "raised code=0x00000100 index=1 status=2"
  echo "changed code=0x00000100 index=0 status=3"
  echo "cleared code=0x00000100 index=1 status=2"
  for i in $(seq 0 11); do echo "raised code=0x00000200 index=$i status=5"; done
  for i in $(seq 6 11); do echo "changed code=0x00000200 index=$i status=6"; done
  echo "cleared code=0x00000100 index=0 status=3"
  for i in $(seq 0 129); do echo "raised code=0x00000300 index=$i status=1"; done
  for i in $(seq 0 5); do echo "cleared code=0x00000200 index=$i status=5"; done
  for i in $(seq 6 11); do echo "cleared code=0x00000200 index=$i status=6"; done
  for i in $(seq 64 129); do echo "cleared code=0x00000300 index=$i status=1"; done
  for i in $(seq 0 63); do echo "cleared code=0x00000300 index=$i status=1"; done
} >"$tmp/expected"

grep '^\[' "$tmp/monitor.out" | sed 's/^\[[^]]*\] //' >"$tmp/events"
reporters=$(grep '^\[' "$tmp/monitor.out" | sed 's/^\[\([^]]*\)\].*/\1/' | sort -u | wc -l)
if ! diff -u "$tmp/expected" "$tmp/events"; then
  echo "--- monitor stderr"; cat "$tmp/monitor.err"; echo "--- demo stderr"; cat "$tmp/demo.err"
  exit 1
fi
[ "$reporters" -eq 1 ] || { echo "expected one reporter, saw $reporters"; exit 1; }
if grep -q 'dropped\|malformed\|no room' "$tmp/monitor.err"; then cat "$tmp/monitor.err"; exit 1; fi
echo "hms over UDP: $(wc -l <"$tmp/events") events as scripted"
