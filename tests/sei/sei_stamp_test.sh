#!/usr/bin/env bash
# kerm sei stamp on hand-made streams: the other codec's stream is refused
# before anything is written; a frame too long for the 16-bit live-view target
# length is stamped with a warning.
# usage: sei_stamp_test.sh SCRATCH_PARENT [EMULATOR...] KERM
set -euo pipefail
mkdir -p "$1"
tmp=$(mktemp -d "$1/stamp-XXXXXX"); shift
trap 'rm -rf "$tmp"' EXIT
kerm=("$@")
fail() { echo "FAIL: $*" >&2; exit 1; }
filler() { head -c "$1" /dev/zero | tr '\0' '\021'; }
# H.264: SPS, PPS, then IDR slices with first_mb_in_slice 0 (one frame each).
h264_frame() { printf '\0\0\0\1\x67\x42\xc0\x1e\0\0\0\1\x68\xce\x3c\x80\0\0\0\1\x65\x88'; filler "$1"; }
# H.265: VPS, SPS, PPS, then an IDR_W_RADL slice opening a picture.
h265_frame() { printf '\0\0\0\1\x40\x01\x0c\0\0\0\1\x42\x01\x01\0\0\0\1\x44\x01\xc1\0\0\0\1\x26\x01\xaf'; filler "$1"; }
{ h264_frame 100; h264_frame 70000; } >"$tmp/in.264"
{ h265_frame 100; h265_frame 100; } >"$tmp/in.265"

refused() {  # refused CODEC FILE
    local rc=0
    "${kerm[@]}" sei stamp --codec "$1" "$2" "$tmp/out" 2>"$tmp/err" || rc=$?
    [ "$rc" -eq 1 ] && grep -q ": not an H.26[45] stream" "$tmp/err" || fail "$1 on $2: exit $rc, $(cat "$tmp/err")"
    [ ! -e "$tmp/out" ] || fail "$1 on $2 wrote an output"
}
refused h265 "$tmp/in.264"
refused h264 "$tmp/in.265"

"${kerm[@]}" sei stamp --codec h265 "$tmp/in.265" "$tmp/out" 2>"$tmp/err" || fail "h265: $(cat "$tmp/err")"
grep -q "stamped 2 frames" "$tmp/err" || fail "h265: $(cat "$tmp/err")"
"${kerm[@]}" sei stamp --codec h264 --liveview "$tmp/in.264" "$tmp/out" 2>"$tmp/err" || fail "h264: $(cat "$tmp/err")"
grep -q "frame 1: 70022 bytes wrap the 16-bit live-view target length (stored 4486)" "$tmp/err" \
    || fail "no wrap warning: $(cat "$tmp/err")"
[ "$(grep -c wrap "$tmp/err")" -eq 1 ] || fail "the short frame warned too: $(cat "$tmp/err")"
"${kerm[@]}" sei dump --json "$tmp/out" | grep -q '"frm_tar_len":4486' || fail "dump does not show the stored length"
echo "kerm sei stamp: codec mismatch refused, wrapping target length warned"
