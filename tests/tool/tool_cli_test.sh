#!/usr/bin/env bash
# The kerm command line as a user meets it.
# usage: tool_cli_test.sh KERM TESTS_DIR SCRATCH_PARENT
set -euo pipefail
kerm=$(realpath "$1") data=$2
mkdir -p "$3"
tmp=$(mktemp -d "$3/cli.XXXXXX")
mon=
cleanup() {
  if [ -n "$mon" ] && kill -0 "$mon" 2>/dev/null; then kill "$mon"; fi
  rm -rf "$tmp"
}
trap cleanup EXIT
fail() { echo "FAIL: $*" >&2; exit 1; }

# run ARGS...: sets rc, out, err
run() {
  rc=0
  timeout 10 "$kerm" "$@" >"$tmp/out" 2>"$tmp/err" </dev/null || rc=$?
  out=$(cat "$tmp/out") err=$(cat "$tmp/err")
}

# ---- help and version: standard output, status 0, nothing else happens
commands=$("$kerm" help | awk '/^commands:/ {on=1; next} on && /^  [a-z]/ {print $1}')
[ "$(wc -w <<<"$commands")" -ge 10 ] || fail "kerm help lists: $commands"
for args in --version -V -h --help help; do
  run $args
  [ "$rc" = 0 ] && [ -n "$out" ] && [ -z "$err" ] || fail "kerm $args: rc $rc, err '$err'"
done
run -V; [[ $out == "kerm (kerm_util) "[0-9]* ]] || fail "version: $out"
run --help; grep -q '^Exit status: 0 success, 1 failure, 2 usage error.$' <<<"$out" || fail "help has no exit codes"
for c in $commands; do
  # hms-monitor would listen and log-demo would log if --help were ignored:
  # the timeout in run and the empty standard error tell.
  run "$c" --help
  [ "$rc" = 0 ] && [ -z "$err" ] || fail "$c --help: rc $rc, err '$err'"
  grep -q "^Usage: kerm $c " <<<"$out" || fail "$c --help: $out"
  grep -q '^Exit status:' <<<"$out" || fail "$c --help has no exit codes"
  help_out=$out
  run help "$c"
  [ "$rc" = 0 ] && [ "$out" = "$help_out" ] || fail "kerm help $c differs from $c --help"
done
run crc -h
[ "$rc" = 0 ] && grep -q "^Usage: kerm crc " <<<"$out" || fail "crc -h: $out"
for sub in "timesync show" "timesync to-local" "sei stamp" "sei dump"; do
  run $sub --help
  [ "$rc" = 0 ] && grep -q "^Usage: kerm $sub " <<<"$out" || fail "$sub --help: rc $rc, $out"
done

# ---- usage errors: status 2, "kerm SUB: what: why", nothing on standard output
usage_error() {  # usage_error WANT ARGS...: stderr's first line starts with WANT
  local want=$1; shift
  run "$@"
  [ "$rc" = 2 ] || fail "kerm $*: rc $rc, want 2 (err '$err')"
  [ -z "$out" ] || fail "kerm $*: printed '$out'"
  [[ ${err%%$'\n'*} == "$want"* ]] || fail "kerm $*: got '${err%%$'\n'*}', want '$want...'"
}
usage_error "kerm hms-monitor: --port: 'http' is not a number" hms-monitor --port http
usage_error "kerm hms-monitor: --port: '70000' is out of range (0 .. 65535)" hms-monitor --port=70000
usage_error "kerm hms-monitor: --idle-exit-ms: '-5' is not a number" hms-monitor --idle-exit-ms=-5
usage_error "kerm logcat: --count: 'zz' is not a number" logcat --count zz
usage_error "kerm logcat: --count: '0' is out of range" logcat --count 0
usage_error "kerm logcat: --level: 'Q' is not a level" logcat --level Q
usage_error "kerm logcat: --module: 'abc' is not a module id" logcat --module abc
usage_error "kerm logcat: '86:X': 'X' is not a level" logcat 86:X
usage_error "kerm logcat: '86': a filter is MODULE:LEVEL" logcat 86
usage_error "kerm logcat: --rotate requires --max-bytes" logcat --rotate 3
usage_error "kerm logcat: --format: raw2 not in" logcat --format raw2
usage_error "kerm sei stamp: --modules: 'abc' is not a number" sei stamp --codec h264 --modules abc in out
usage_error "kerm sei stamp: --modules: '21' is out of range (0 .. 20)" sei stamp --codec=h264 --modules=21 in out
usage_error "kerm sei stamp: --codec: h263 not in" sei stamp --codec h263 in out
usage_error "kerm sei stamp: --codec is required" sei stamp in out
usage_error "kerm sei dump: IN is required" sei dump
usage_error "kerm sei: A subcommand is required" sei
usage_error "kerm hms-demo: --host: '10.0.0.5' is not a number" hms-demo --port 9 --host 10.0.0.5
usage_error "kerm hms-demo: --port is required" hms-demo
usage_error "kerm hms-demo: --script: ';x' is not a script" hms-demo --port 9 --script ';x'
usage_error "kerm crc: --seed: '-1' is not a number" crc --seed -1
usage_error "kerm crc: --seed: '0x10000' is out of range (0 .. 65535)" crc --seed=0x10000
usage_error "kerm crc: --seed: '010x' is not a number" crc --seed 010x
usage_error "kerm crc: --seed: ' 5' is not a number" crc --seed ' 5'
usage_error "kerm crc: --bogus: unknown option" crc --bogus
usage_error "kerm crc: two: unexpected argument" crc one two
usage_error "kerm hwinfo: -x: unknown option" hwinfo -x
usage_error "kerm tlv: --format: xx not in" tlv --format xx
usage_error "kerm pool: --size: 'ten' is not a size" pool --size ten
usage_error "kerm pool: --size is required" pool
usage_error "kerm pool: --areas: '0' is out of range (1 .. 1024)" pool --size 64k --areas 0
usage_error "kerm pool: --size: 100 bytes in 1 areas" pool --size 100
usage_error "kerm pool: --map excludes --json" pool --size 64k --map --json
usage_error "kerm timesync to-ssfn: LOCAL_US: '12x' is not a number" timesync to-ssfn 12x
usage_error "kerm timesync to-local: SSFN_MS: '4294967296' is out of range" timesync to-local 4294967296
usage_error "kerm timesync: A subcommand is required" timesync
usage_error "kerm: bogus: unknown command" bogus
usage_error "kerm help: bogus: unknown command" help bogus
usage_error "Usage: kerm COMMAND" # no command at all

# ---- value forms, -- and - for standard input
check=$data/crc/data/check.txt
run crc --seed 0xffff "$check"; spaced=$out
run crc --seed=65535 "$check"
[ "$rc" = 0 ] && [ "$out" = "$spaced" ] || fail "--seed=65535 differs from --seed 0xffff"
grep -q '^crc16 *0x6f91$' <<<"$out" || fail "seeded crc16: $out"
cp "$check" "$tmp/-check"
(cd "$tmp" && "$kerm" crc -- -check) >"$tmp/dashdash" || fail "crc -- -check: rc $?"
stdin_out=$("$kerm" crc - <"$check")
[ "$(cat "$tmp/dashdash")" = "$stdin_out" ] || fail "crc -- FILE and crc - < FILE differ"
grep -q '^crc8 *0xa1$' <<<"$stdin_out" || fail "crc of stdin: $stdin_out"
[ "$("$kerm" tlv --format=ss - <"$data/tlv/data/records.ss" | wc -l)" = 4 ] || fail "tlv - from stdin"

# ---- failures: status 1 and "kerm SUB: what: why"
run crc /etc
[ "$rc" = 1 ] && [ "$err" = "kerm crc: /etc: Is a directory" ] || fail "crc /etc: rc $rc, '$err'"
run tlv "$tmp/missing"
[ "$rc" = 1 ] && [ "$err" = "kerm tlv: $tmp/missing: No such file or directory" ] || fail "tlv missing: '$err'"
run pool --size 64k "$tmp/missing"
[ "$rc" = 1 ] && [[ $err == "kerm pool: $tmp/missing: No such file"* ]] || fail "pool missing: rc $rc, '$err'"
run sei dump "$tmp/missing"
[ "$rc" = 1 ] && [[ $err == "kerm sei: $tmp/missing: No such file"* ]] || fail "sei dump missing: rc $rc, '$err'"
run sei stamp --codec h264 /etc "$tmp/out.264"
[ "$rc" = 1 ] && [ "$err" = "kerm sei: /etc: Is a directory" ] || fail "sei stamp /etc: rc $rc, '$err'"
run sei dump -   # standard input, here empty
[ "$rc" = 1 ] && [[ $err == *"kerm sei: standard input: no stamped frame" ]] || fail "sei dump -: rc $rc, '$err'"
KERM_UTIL_ROOT=$tmp/noroot run timesync show
[ "$rc" = 1 ] && [[ $err == "kerm timesync: $tmp/noroot/dev/mem: No such file"* ]] || fail "timesync: '$err'"

# ---- write errors are failures
if [ -w /dev/full ]; then
  for args in "crc $check" "--version" "--help" "crc --help" "tlv $data/tlv/data/records.dd"; do
    rc=0; "$kerm" $args >/dev/full 2>"$tmp/err" || rc=$?
    [ "$rc" = 1 ] && grep -q ': standard output: No space left on device$' "$tmp/err" \
      || fail "kerm $args >/dev/full: rc $rc, $(cat "$tmp/err")"
  done
fi

# ---- JSON: one object per record, the text's fields and number formats
json_lines() {  # json_lines FILE: every line one JSON object; prints their count
  python3 -c 'import json,sys
n=0
for l in open(sys.argv[1]):
    assert isinstance(json.loads(l), dict), l
    n+=1
print(n)' "$1"
}
field() { python3 -c 'import json,sys; print(json.loads(sys.stdin.readline())[sys.argv[1]])' "$1"; }
"$kerm" crc --json "$check" >"$tmp/crc.json"
[ "$(json_lines "$tmp/crc.json")" = 1 ] || fail "crc --json: $(cat "$tmp/crc.json")"
for f in crc8 crc16 crc16-ccitt crc16-xmodem; do
  want=$("$kerm" crc "$check" | awk -v f=$f '$1 == f {print $2}')
  [ "$(field $f <"$tmp/crc.json")" = "$want" ] || fail "crc --json $f: $(cat "$tmp/crc.json"), text $want"
done
[ "$(field bytes <"$tmp/crc.json")" = 9 ] || fail "crc --json bytes"
"$kerm" tlv --json "$data/tlv/data/records.dd" >"$tmp/tlv.json"
[ "$(json_lines "$tmp/tlv.json")" = 3 ] || fail "tlv --json: $(cat "$tmp/tlv.json")"
grep -qx '{"offset":10,"type":"0x1234","length":3,"value":"01 02 03"}' "$tmp/tlv.json" || fail "tlv record: $(cat "$tmp/tlv.json")"
"$kerm" pool --json --size 64k "$data/mempool/../mempool/kerm_pool.sh" >"$tmp/pool.json" 2>/dev/null && rc=0 || rc=$?
[ "$rc" = 2 ] || fail "pool of a script as trace: rc $rc"
printf 'm a 100\nm b 70000\nf a\n' | "$kerm" pool --json --size 64k - >"$tmp/pool.json" && rc=0 || rc=$?
[ "$rc" = 1 ] && [ "$(json_lines "$tmp/pool.json")" = 1 ] || fail "pool --json: rc $rc $(cat "$tmp/pool.json")"
grep -q '"failures":\[{"line":2,"op":"malloc","size":70000}\]' "$tmp/pool.json" || fail "pool json: $(cat "$tmp/pool.json")"
mkdir -p "$tmp/root/dev"
truncate -s $((0x100001000)) "$tmp/root/dev/mem"
KERM_UTIL_ROOT=$tmp/root "$kerm" timesync set-delta 40000000 --json >"$tmp/ts.json"
grep -qx '{"offset_us":-40000000,"sign":0}' "$tmp/ts.json" || fail "timesync set-delta --json: $(cat "$tmp/ts.json")"
KERM_UTIL_ROOT=$tmp/root "$kerm" timesync --json show >"$tmp/ts.json"
grep -qx '{"counter":"0x00000000","counter_ms":0,"latched":"0x00000000","latched_ms":0,"offset_us":-40000000,"sign":0,"sync_index":0,"sync_local_us":0}' \
  "$tmp/ts.json" || fail "timesync show --json: $(cat "$tmp/ts.json")"
rc=0; KERM_UTIL_ROOT=$tmp/root "$kerm" hwinfo --json >"$tmp/hw.json" 2>/dev/null || rc=$?
[ "$rc" -le 1 ] && [ "$(json_lines "$tmp/hw.json")" = 1 ] || fail "hwinfo --json: rc $rc $(cat "$tmp/hw.json")"

# hms-monitor --json: the listening record, then one record per event.
timeout 60 "$kerm" hms-monitor --json --idle-exit-ms 1500 --timeout-ms 30000 >"$tmp/mon.json" 2>/dev/null &
mon=$!
for _ in $(seq 100); do grep -q listening "$tmp/mon.json" 2>/dev/null && break; sleep 0.1; done
port=$(sed -n 's/^{"listening":"127\.0\.0\.1:\([0-9]*\)"}$/\1/p' "$tmp/mon.json")
[ -n "$port" ] || fail "hms-monitor --json: $(cat "$tmp/mon.json")"
"$kerm" hms-demo --port "$port" --script ';0x100:2=7;' --period-ms 20 --busy-ms 2 --timeout-ms 20000 2>/dev/null \
  || fail "hms-demo: rc $?"
wait "$mon"; mon=
[ "$(json_lines "$tmp/mon.json")" = 3 ] || fail "hms-monitor --json: $(cat "$tmp/mon.json")"
for event in raised cleared; do
  grep -q '^{"reporter":"127\.0\.0\.1:[0-9]*","event":"'$event'","code":"0x00000100","index":2,"status":7}$' \
    "$tmp/mon.json" || fail "hms-monitor --json $event: $(cat "$tmp/mon.json")"
done
echo "kerm command line ok"
