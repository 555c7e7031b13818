#!/usr/bin/env bash
# kerm sei with too little memory for its input: a message and status 1,
# never an abort, and no half-written output.
# usage: sei_lowmem_test.sh KERM SCRATCH_PARENT
set -euo pipefail
kerm=$1
mkdir -p "$2"
tmp=$(mktemp -d "$2/lowmem-XXXXXX")
trap 'rm -rf "$tmp"' EXIT
truncate -s 64M "$tmp/in.264"
for args in "dump $tmp/in.264" "stamp --codec h264 $tmp/in.264 $tmp/out.264"; do
  rc=0
  (ulimit -v 90000; exec "$kerm" sei $args) 2>"$tmp/err" >/dev/null || rc=$?
  if [ "$rc" -ne 1 ] || ! grep -q "out of memory" "$tmp/err"; then
    echo "FAIL: sei $args under 90 MB exited $rc: $(cat "$tmp/err")"; exit 1
  fi
  [ ! -e "$tmp/out.264" ] || { echo "FAIL: sei $args left a partial output"; exit 1; }
done
echo "kerm sei: short memory reported"
