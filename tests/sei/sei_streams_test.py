#!/usr/bin/env python3
"""Stamps real encoder output with `kerm sei stamp` and checks that
1. ffmpeg decodes the stamped stream to the same pictures as the original and
   says nothing about our SEI NAL units,
2. `kerm sei dump` reads back every frame's metadata as stamped,
3. in H.265 every SEI we add is a suffix SEI.
Usage: sei_streams_test.py KERM. Exits 77 (skipped) when ffmpeg or one of its
encoders is missing."""
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile

SKIP = 77
FRAMES = 20
CASES = [  # codec, ffmpeg encoder options, raw format, extra stamp options
    ("h264", ["-c:v", "libx264", "-x264-params", "aud=1"], "h264", ["--liveview", "--modules", "3"]),
    ("h264", ["-c:v", "libx264"], "h264", []),
    ("h265", ["-c:v", "libx265", "-x265-params", "log-level=error"], "hevc", ["--liveview"]),
    ("h265", ["-c:v", "libx265", "-x265-params", "log-level=error:aud=1"], "hevc", []),
]
# A picture's SEI NAL units lead the next access unit in H.264 (and the
# closing AUD does in both codecs); a live stream completes that unit with the
# next frame, a file ends with it. ffmpeg reports that last, picture-less
# unit once; nothing else may appear.
END_OF_FILE_NOTICES = [
    r"missing picture in access unit with size \d+",
    r"no frame!",
    r"Error while decoding stream #0:0: Invalid data found when processing input",
]


def run(cmd, **kw):
    return subprocess.run(cmd, capture_output=True, text=True, **kw)


def skip_unless_tools():
    if shutil.which("ffmpeg") is None:
        print("SKIP: ffmpeg not installed (scripts/install-deps.sh installs it)")
        sys.exit(SKIP)
    encoders = run(["ffmpeg", "-hide_banner", "-encoders"]).stdout
    for enc in ("libx264", "libx265"):
        if enc not in encoders:
            print(f"SKIP: ffmpeg has no {enc} encoder")
            sys.exit(SKIP)


def picture_hashes(path, fmt):
    r = run(["ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "warning", "-f", fmt, "-i", path,
             "-f", "framemd5", "-"])
    hashes = [line.rsplit(",", 1)[1].strip() for line in r.stdout.splitlines() if line and not line.startswith("#")]
    return hashes, [re.sub(r"^\[\w+ @ 0x[0-9a-f]+\] ", "", line) for line in r.stderr.splitlines()]


def subset(want, got, where):
    """Every value in `want` appears unchanged in `got`."""
    if isinstance(want, dict):
        for k, v in want.items():
            assert isinstance(got, dict) and k in got, f"{where}.{k}: missing in dump"
            subset(v, got[k], f"{where}.{k}")
    elif isinstance(want, list):
        assert isinstance(got, list) and len(got) == len(want), f"{where}: {got} != {want}"
        for i, (w, g) in enumerate(zip(want, got)):
            subset(w, g, f"{where}[{i}]")
    else:
        assert want == got, f"{where}: dump {got}, stamped {want}"


def check_case(kerm, tmp, n, codec, enc, fmt, extra):
    name = f"{codec}-{n}"
    orig, stamped, manifest = (os.path.join(tmp, f"{name}.{s}") for s in ("orig", "stamped", "manifest"))
    r = run(["ffmpeg", "-hide_banner", "-nostdin", "-loglevel", "error", "-f", "lavfi", "-i",
             "testsrc=size=160x120:rate=10", "-frames:v", str(FRAMES), *enc, "-f", fmt, "-y", orig])
    assert r.returncode == 0, r.stderr
    r = run([kerm, "sei", "stamp", "--codec", codec, *extra, "--manifest", manifest, orig, stamped])
    assert r.returncode == 0, f"{name}: stamp failed: {r.stderr}"

    # 1. Same pictures; no word about our SEI NAL units.
    want, base_log = picture_hashes(orig, fmt)
    got, log = picture_hashes(stamped, fmt)
    assert len(want) == FRAMES and not base_log, f"{name}: original decodes to {len(want)} frames: {base_log}"
    assert got == want, f"{name}: stamped stream decodes to other pictures"
    assert not [l for l in log if "sei" in l.lower()], f"{name}: ffmpeg on our SEIs: {log}"
    for pattern in END_OF_FILE_NOTICES:
        hits = [l for l in log if re.fullmatch(pattern, l)]
        assert len(hits) <= 1, f"{name}: '{pattern}' more than once: {log}"
    rest = [l for l in log if not any(re.fullmatch(p, l) for p in END_OF_FILE_NOTICES)]
    assert not rest, f"{name}: ffmpeg warned: {rest}"

    # 2. The dump reads back what was stamped, frame by frame.
    r = run([kerm, "sei", "dump", "--json", stamped])
    assert r.returncode == 0 and not r.stderr, f"{name}: dump failed: {r.stderr}"
    dumped = [json.loads(l) for l in r.stdout.splitlines()]
    with open(manifest) as f:
        stamped_md = [json.loads(l) for l in f]
    assert len(dumped) == len(stamped_md) == FRAMES, f"{name}: {len(dumped)} frames dumped"
    data = open(stamped, "rb").read()
    assert sum(d["size"] for d in dumped) == len(data)
    for i, (d, s) in enumerate(zip(dumped, stamped_md)):
        subset(s, d, f"{name} frame {i}")
        assert d["walk"] == 0 and [c["type"] for c in d["chain"]] == [240, 257], f"{name} frame {i}: {d['chain']}"
        assert ("liveview" in d) == bool(extra)

    # 3. H.265: all our SEIs are suffix SEIs (nal_unit_type 40).
    if codec == "h265":
        for d in dumped:
            units = [d["offset"] + c["nal_offset"] for c in d["chain"]]
            if "liveview" in d:
                units.append(d["offset"] + d["size"] - d["ondi"]["lv_offset"])
            for at in units:
                assert data[at:at + 6] == b"\0\0\0\x01\x50\x01", f"{name}: not a suffix SEI at {at}"
    print(f"{name}: {FRAMES} frames, pictures identical, metadata read back")


def main():
    kerm = sys.argv[1]
    skip_unless_tools()
    with tempfile.TemporaryDirectory(dir=os.environ.get("KERM_TEST_TMP") if os.path.isdir(
            os.environ.get("KERM_TEST_TMP", "")) else None) as tmp:
        for n, case in enumerate(CASES):
            check_case(kerm, tmp, n, *case)


if __name__ == "__main__":
    main()
