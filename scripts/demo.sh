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
# A new network namespace starts with its loopback down; the health demo needs it.
if [ -n "${KERM_DEMO_INNER:-}" ]; then ip link set lo up 2>/dev/null || true; fi
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

echo
echo "== kerm crc: every checksum of a small file"
printf '123456789' > "$work/check.txt"
"$kerm" crc "$work/check.txt"

echo
echo "== kerm pool: an allocation trace replayed against a 64 KiB and a 96 KiB pool"
trace="$(dirname "$(realpath "$0")")/../examples/pool_trace.txt"
"$kerm" pool --size 64k "$trace" || echo "(exit $?: an allocation failed)"
"$kerm" pool --size 96k "$trace"

echo
echo "== kerm hms-monitor receives what a scripted health client (kerm hms-demo) reports"
"$kerm" hms-monitor --port 0 --idle-exit-ms 1500 --timeout-ms 30000 > "$work/monitor.out" 2>/dev/null &
mon=$!
for _ in $(seq 100); do grep -q '^listening ' "$work/monitor.out" && break; sleep 0.1; done
port=$(sed -n 's/^listening 127\.0\.0\.1:\([0-9]*\)$/\1/p' "$work/monitor.out")
"$kerm" hms-demo --port "$port" --script ';0x100:0=1;0x100:0=3,0x200:0-2=5;0x200:1=0;' \
  --period-ms 50 --cycles-per-step 2 --timeout-ms 20000 > /dev/null 2>&1
wait "$mon" || true
cat "$work/monitor.out"

echo
echo "== kerm timesync against a substitute memory device (KERM_UTIL_ROOT)"
mkdir -p "$work/root/dev"
truncate -s $((0x100001000)) "$work/root/dev/mem"
printf '\x20\x00\x04\x00\x10\x00\x03\x00' |
  dd of="$work/root/dev/mem" bs=1 seek=$((0xFFFC1100 + 52)) conv=notrunc status=none
KERM_UTIL_ROOT="$work/root" "$kerm" timesync set-delta 40000000
KERM_UTIL_ROOT="$work/root" "$kerm" timesync show
echo "local 41000000 us -> SSFN $(KERM_UTIL_ROOT="$work/root" "$kerm" timesync to-ssfn 41000000) ms"

echo
echo "== lock-free queues: two producers, two consumers, every job back exactly once"
"$build/examples/example_queue_producer_consumer"

echo
echo "== the collections and byte buffers, one short example program each"
for ex in rbuf_lines fbuf_report list_settings ht_two_threads binheap_deadlines pqueue_alerts \
          vector_sort statemachine_light skiplist_scores trie_routes rbt_inventory avlt_sessions; do
  echo "-- example_$ex"
  "$build/examples/example_$ex" | head -n 8
done

if command -v ffmpeg >/dev/null 2>&1; then
  echo
  echo "== kerm sei: stamp a short H.264 clip with the device's SEI tail, then read it back"
  ffmpeg -loglevel error -f lavfi -i testsrc=size=160x120:rate=10 -frames:v 3 \
    -c:v libx264 -x264-params aud=1 -f h264 "$work/clip.h264"
  "$kerm" sei stamp --codec h264 --liveview "$work/clip.h264" "$work/stamped.h264"
  "$kerm" sei dump "$work/stamped.h264" | head -n 40
fi
