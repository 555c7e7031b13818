#!/usr/bin/env bash
# kerm pool replays a trace: failures named by line, exit 1 for them, exit 2
# and the offending line for a bad trace.
# usage: kerm_pool.sh TRACE [EMULATOR...] KERM
set -euo pipefail
trace=$1; shift
cmd=("$@")
fail() { echo "FAIL: $*" >&2; exit 1; }
out=$("${cmd[@]}" pool --size 64k "$trace") && rc=0 || rc=$?
[ "$rc" = 1 ] || fail "exit $rc, want 1 (one failed malloc)"
grep -qx 'failures:         1' <<<"$out" || fail "failure count: $out"
grep -qx '  line 13: malloc of 40000 bytes failed' <<<"$out" || fail "failure line: $out"
grep -q '^peak in use:      39072 bytes requested' <<<"$out" || fail "peak: $out"
grep -q '^in use at end:    34096 bytes in 3 buffers' <<<"$out" || fail "end: $out"
grep -q '^regions:          1,' <<<"$out" || fail "regions: $out"

out=$("${cmd[@]}" pool --size 256k --areas 4 --map "$trace") || fail "256k in 4 areas exited $?"
grep -qx 'failures:         0' <<<"$out" || fail "4 areas: $out"
grep -q '^regions:          4,' <<<"$out" || fail "4 areas: $out"
[ "$(grep -c 'sentinel' <<<"$out")" = 4 ] || fail "map shows no 4 sentinels: $out"

bad() {  # bad TEXT WANT: exit 2 and WANT on stderr
    local err rc=0
    err=$(printf "$1" | "${cmd[@]}" pool --size 64k 2>&1 >/dev/null) || rc=$?
    [ "$rc" = 2 ] || fail "'$1' exited $rc, want 2"
    grep -qF "$2" <<<"$err" || fail "'$1': got '$err', want '$2'"
}
bad 'm a 10\nx a 10\n' 'kerm pool: line 2: unknown operation'
bad 'm a 10\nm a 20\n' "line 2: 'a' is already allocated"
bad '# c\nf z\n' "line 2: free of 'z', which is not allocated"
bad 'm a ten\n' "line 1: bad size 'ten'"
bad 'c a 2\n' "line 1: 'c' takes 3 fields, found 2"
rc=0; "${cmd[@]}" pool --size 100 "$trace" 2>/dev/null || rc=$?
[ "$rc" = 2 ] || fail "a too small pool exited $rc"
echo "kerm pool ok"
