#!/usr/bin/env bash
# kerm timesync against a sparse substitute for the memory device.
# usage: kerm_timesync.sh SCRATCH_PARENT [EMULATOR...] KERM
set -euo pipefail
parent=$1; shift
mkdir -p "$parent"
root=$(mktemp -d "$parent/timesync-XXXXXX")
trap 'rm -rf "$root"' EXIT
export KERM_UTIL_ROOT=$root
cmd=("$@")
run() { "${cmd[@]}" timesync "$@"; }

fail() { echo "FAIL: $*" >&2; exit 1; }
expect() {  # expect WANT ARGS...: stdout of `kerm timesync ARGS` is WANT
    local want=$1; shift
    local got
    got=$(run "$@") || fail "kerm timesync $* exited $?"
    [ "$got" = "$want" ] || fail "kerm timesync $*: got '$got', want '$want'"
}
# poke PHYS HEXBYTES: write raw bytes at a physical offset
poke() { printf "$2" | dd of="$root/dev/mem" bs=1 seek=$(($1)) conv=notrunc status=none; }

# No device yet: a clear error, not a fault.
if run show 2>/dev/null; then fail "show without a device succeeded"; fi
run to-ssfn 12x 2>/dev/null && fail "bad number accepted"
run to-local 4294967296 2>/dev/null && fail "SSFN milliseconds above 32 bits accepted"

mkdir -p "$root/dev"
truncate -s $((0x100001000)) "$root/dev/mem"
block=0xFFFC1100
poke $((block + 52)) '\x20\x00\x04\x00'   # counter 0x00040020
poke $((block + 56)) '\x10\x00\x03\x00'   # latched 0x00030010 = 30736 ms
poke $((block + 268)) '\x07\x00\x00\x00'

expect "offset:     +736000 us (sign 1)" set-delta 30000000
expect 31736 to-ssfn 31000000
expect 31000000 to-local 31736
out=$(run show)
for want in "counter:    0x00040020 (40992 ms)" "latched:    0x00030010 (30736 ms)" \
            "offset:     +736000 us (sign 1)" "sync index: 7" "sync local: 0 us"; do
    grep -qxF "$want" <<<"$out" || fail "show lacks '$want': $out"
done

expect "offset:     -9264000 us (sign 0)" set-delta 40000000
expect 30736 to-ssfn 40000000
expect 40000000 to-local 30736
echo "kerm timesync ok"
