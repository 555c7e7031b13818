#!/usr/bin/env python3
"""Stamps real encoder output with `kerm sei stamp`; ffmpeg must decode it to the same pictures without a word
about our SEIs, `kerm sei dump` must read every frame's metadata back, and H.265 SEIs must be suffix SEIs.
Usage: sei_streams_test.py KERM. Exits 77 (skipped) without ffmpeg, libx264 or libx265."""
import json, os, re, shutil, subprocess, sys, tempfile

FRAMES = 20
CASES = [  # codec, ffmpeg encoder options, raw format, extra stamp options
    ("h264", ["-c:v", "libx264", "-x264-params", "aud=1"], "h264", ["--liveview", "--modules", "3"]),
    ("h264", ["-c:v", "libx264"], "h264", []),
    ("h265", ["-c:v", "libx265", "-x265-params", "log-level=error"], "hevc", ["--liveview"]),
    ("h265", ["-c:v", "libx265", "-x265-params", "log-level=error:aud=1"], "hevc", []),
]
# Our SEIs and the closing AUD end each access unit, so a file ends with one picture-less unit that ffmpeg
# reports once (a live stream completes it with the next frame). Nothing else may appear.
END_OF_FILE = [r"missing picture in access unit with size \d+", r"no frame!",
               r"Error while decoding stream #0:0: Invalid data found when processing input"]


def run(*cmd):
    return subprocess.run(cmd, capture_output=True, text=True)


def decode(path, fmt):
    """Per-picture hashes and ffmpeg's warnings without their context prefix."""
    r = run("ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "warning", "-f", fmt, "-i", path, "-f", "framemd5", "-")
    hashes = [l.rsplit(",", 1)[1].strip() for l in r.stdout.splitlines() if l and not l.startswith("#")]
    return hashes, [re.sub(r"^\[\w+ @ 0x[0-9a-f]+\] ", "", l) for l in r.stderr.splitlines()]


def subset(want, got, where):
    """Every value in `want` appears unchanged in `got`."""
    if isinstance(want, list):
        assert isinstance(got, list) and len(got) == len(want), f"{where}: {got} != {want}"
        want, got = dict(enumerate(want)), dict(enumerate(got))
    if isinstance(want, dict):
        for k, v in want.items():
            assert isinstance(got, dict) and k in got, f"{where}.{k}: missing in dump"
            subset(v, got[k], f"{where}.{k}")
    else:
        assert want == got, f"{where}: dump {got}, stamped {want}"


def check_case(kerm, tmp, name, codec, enc, fmt, extra):
    orig, stamped, manifest = (os.path.join(tmp, f"{name}.{s}") for s in ("orig", "stamped", "manifest"))
    r = run("ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "error", "-f", "lavfi", "-i",
            "testsrc=size=160x120:rate=10", "-frames:v", str(FRAMES), *enc, "-f", fmt, "-y", orig)
    assert r.returncode == 0, r.stderr
    r = run(kerm, "sei", "stamp", "--codec", codec, *extra, "--manifest", manifest, orig, stamped)
    assert r.returncode == 0, f"{name}: stamp failed: {r.stderr}"

    want, base_log = decode(orig, fmt)
    got, log = decode(stamped, fmt)
    assert len(want) == FRAMES and not base_log, f"{name}: original decodes to {len(want)} frames: {base_log}"
    assert got == want, f"{name}: stamped stream decodes to other pictures"
    for pattern in END_OF_FILE:
        assert sum(bool(re.fullmatch(pattern, l)) for l in log) <= 1, f"{name}: '{pattern}' repeated: {log}"
    rest = [l for l in log if not any(re.fullmatch(p, l) for p in END_OF_FILE)]
    assert not rest, f"{name}: ffmpeg warned: {rest}"

    r = run(kerm, "sei", "dump", "--json", stamped)
    assert r.returncode == 0 and not r.stderr, f"{name}: dump failed: {r.stderr}"
    dumped = [json.loads(l) for l in r.stdout.splitlines()]
    with open(manifest) as f:
        stamped_md = [json.loads(l) for l in f]
    data = open(stamped, "rb").read()
    assert len(dumped) == len(stamped_md) == FRAMES and sum(d["size"] for d in dumped) == len(data)
    for i, (d, s) in enumerate(zip(dumped, stamped_md)):
        subset(s, d, f"{name} frame {i}")
        assert d["walk"] == 0 and [c["type"] for c in d["chain"]] == [240, 257], f"{name} frame {i}: {d['chain']}"
        assert ("liveview" in d) == bool(extra)
        units = [d["offset"] + c["nal_offset"] for c in d["chain"]]
        if "liveview" in d:
            units.append(d["offset"] + d["size"] - d["ondi"]["lv_offset"])
        for at in units if codec == "h265" else []:
            assert data[at:at + 6] == b"\0\0\0\x01\x50\x01", f"{name}: not a suffix SEI at {at}"
    print(f"{name}: {FRAMES} frames, pictures identical, metadata read back")


def main():
    encoders = run("ffmpeg", "-hide_banner", "-encoders").stdout if shutil.which("ffmpeg") else ""
    if "libx264" not in encoders or "libx265" not in encoders:
        print("SKIP: ffmpeg with libx264 and libx265 needed (scripts/install-deps.sh installs it)")
        sys.exit(77)
    scratch = os.environ.get("KERM_TEST_TMP", "")
    with tempfile.TemporaryDirectory(dir=scratch if os.path.isdir(scratch) else None) as tmp:
        for n, case in enumerate(CASES):
            check_case(sys.argv[1], tmp, f"{case[0]}-{n}", *case)


if __name__ == "__main__":
    main()
