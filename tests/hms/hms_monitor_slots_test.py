#!/usr/bin/env python3
"""kerm hms-monitor under junk: datagrams that are not reports (empty ones too) from many source ports never take
a reporter slot, a full table of live reporters refuses a newcomer without evicting anyone, and reporters that fell
silent give their slots up. Usage: hms_monitor_slots_test.py KERM [EMULATOR...]"""
import socket, struct, subprocess, sys, threading, time

IDLE_MS = 1500
SLOTS = 16
WAIT = 60  # generous: the monitor may run under qemu-arm


class Monitor:
    def __init__(self, cmd):
        self.p = subprocess.Popen(cmd + ["hms-monitor", "--port", "0", "--timeout-ms", "120000",
                                         "--reporter-idle-ms", str(IDLE_MS)],
                                  stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.out, self.err = [], []
        for stream, lines in ((self.p.stdout, self.out), (self.p.stderr, self.err)):
            threading.Thread(target=lambda s=stream, l=lines: [l.append(x.rstrip("\n")) for x in s],
                             daemon=True).start()
        self.port = int(self.wait_for(self.out, "listening ").rsplit(":", 1)[1])

    def wait_for(self, lines, text, count=1):
        end = time.time() + WAIT
        while time.time() < end:
            hits = [l for l in list(lines) if text in l]
            if len(hits) >= count:
                return hits[-1]
            time.sleep(0.02)
        raise AssertionError(f"no '{text}' (x{count}) from the monitor; stdout {self.out}, stderr {self.err}")


class Sender:
    def __init__(self, port):
        self.s = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
        self.s.bind(("127.0.0.1", 0))
        self.name = "%s:%d" % self.s.getsockname()
        self.to = ("127.0.0.1", port)
        self.seq = 0

    def send(self, data):
        self.s.sendto(data, self.to)

    def report(self, *entries):
        """One whole cycle in one message: {0, seq, 0x80} and (code, index, status) entries."""
        body = b"".join(struct.pack("<IBB", *e) for e in entries)
        self.send(bytes([0, self.seq & 0xFF, 0x80]) + body)
        self.seq += 1


JUNK = [b"", b"\x00", b"\x00\x00", b"\x01\x00\x80", b"\x00\x00\x80" + b"\x01" * 5, b"\x00" * 1100,
        b"\xff" * 9, b"hello", b"\x00\x00\x80\x00", b"\x00\x05\x01", b"\x00\x00\x81", b"junk junk",
        b"\x00" * 1006, b"\x00\x00", b"\x00\x00\x80" + b"\x00" * 7, b"\x02"]


def main():
    mon = Monitor(sys.argv[2:] + [sys.argv[1]])
    try:
        junk = [Sender(mon.port) for _ in JUNK]
        for s, data in zip(junk, JUNK):
            s.send(data)
        mon.wait_for(mon.err, "malformed message", len(JUNK) - 2)  # two are the frames of a continued cycle
        live = Sender(mon.port)
        live.report((0x100, 0, 1))
        mon.wait_for(mon.out, f"[{live.name}] raised code=0x00000100 index=0 status=1")

        # The table fills with heartbeating reporters; a newcomer is refused, junk changes nothing.
        quiet = [Sender(mon.port) for _ in range(SLOTS - 1)]
        for s in quiet:
            s.report()
        late = Sender(mon.port)
        late.report((0x200, 0, 1))
        mon.wait_for(mon.err, "too many reporters")
        for s, data in zip([Sender(mon.port) for _ in JUNK], JUNK):
            s.send(data)
        live.report((0x100, 0, 2))
        mon.wait_for(mon.out, f"[{live.name}] changed code=0x00000100 index=0 status=2")
        assert not any("0x00000200" in l for l in mon.out), mon.out

        # The quiet ones fall silent; the live one keeps reporting and keeps its slot.
        end = time.time() + 2 * IDLE_MS / 1000
        while time.time() < end:
            live.report((0x100, 0, 2))
            time.sleep(0.2)
        mon.wait_for(mon.err, "forgotten", SLOTS - 1)
        late.report((0x200, 0, 1))
        mon.wait_for(mon.out, f"[{late.name}] raised code=0x00000200 index=0 status=1")
        live.report()
        mon.wait_for(mon.out, f"[{live.name}] cleared code=0x00000100 index=0 status=2")
        assert not any(live.name in l for l in mon.err if "forgotten" in l), mon.err
        assert sum("raised" in l for l in mon.out) == 2, mon.out
    finally:
        mon.p.terminate()
        mon.p.wait(timeout=WAIT)
    print("hms-monitor: junk refused, live reporters kept, silent ones expired")


if __name__ == "__main__":
    main()
