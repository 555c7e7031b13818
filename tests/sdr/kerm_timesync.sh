#!/usr/bin/env bash
# kerm timesync against a sparse substitute for the memory device.
# usage: kerm_timesync.sh SCRATCH_PARENT [EMULATOR...] KERM
set -euo pipefail
mkdir -p "$1"
root=$(mktemp -d "$1/timesync-XXXXXX"); shift
trap 'rm -rf "$root"' EXIT
export KERM_UTIL_ROOT=$root
cmd=("$@")
fail() { echo "FAIL: $*" >&2; exit 1; }
expect() {  # expect WANT ARGS...: stdout of `kerm timesync ARGS` is WANT
    local want=$1 got; shift
    got=$("${cmd[@]}" timesync "$@") || fail "timesync $* exited $?"
    [ "$got" = "$want" ] || fail "timesync $*: got '$got', want '$want'"
}
reject() {  # an error exit, neither success nor a fault
    local rc=0; "${cmd[@]}" timesync "$@" 2>/dev/null || rc=$?
    [ "$rc" -ge 1 ] && [ "$rc" -lt 128 ] || fail "timesync $* exited $rc"
}
unmappable() {  # exit 1 with the mapping named, for every subcommand that maps
    local sub rc err
    for sub in show "to-ssfn 1000" "set-delta 1000"; do
        rc=0; err=$("${cmd[@]}" timesync $sub 2>&1 >/dev/null) || rc=$?
        [ "$rc" -eq 1 ] || fail "timesync $sub on $1 exited $rc"
        [[ $err == *"cannot map"* ]] || fail "timesync $sub on $1: '$err'"
    done
}
poke() { printf "$2" | dd of="$root/dev/mem" bs=1 seek=$(($1)) conv=notrunc status=none; }

reject show  # no device yet
reject to-ssfn 12x
reject to-local 4294967296
mkdir -p "$root/dev"
ln -s /dev/null "$root/dev/mem"
unmappable "a link to /dev/null"
rm "$root/dev/mem"; mkfifo "$root/dev/mem"
unmappable "a FIFO"
rm "$root/dev/mem"
truncate -s $((0x100001000)) "$root/dev/mem"
poke $((0xFFFC1100 + 52)) '\x20\x00\x04\x00'   # counter 0x00040020
poke $((0xFFFC1100 + 56)) '\x10\x00\x03\x00'   # latched 0x00030010 = 30736 ms
poke $((0xFFFC1100 + 268)) '\x07\x00\x00\x00'
expect "offset:     -9264000 us (sign 0)" set-delta 40000000
expect 30736 to-ssfn 40000000
expect "offset:     +736000 us (sign 1)" set-delta 30000000
expect 31000000 to-local 31736
expect "counter:    0x00040020 (40992 ms)
latched:    0x00030010 (30736 ms)
offset:     +736000 us (sign 1)
sync index: 7
sync local: 0 us" show
echo "kerm timesync ok"
