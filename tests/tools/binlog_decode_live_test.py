#!/usr/bin/env python3
"""Live decoding tests of binlog-decode: --listen (IPv4 and IPv6), -w with
gzip and rotation, the summary and its signals, malformed datagrams,
--follow of a growing capture and a standard input that arrives in parts.

    binlog_decode_live_test.py CASE DECODE SYNTH DICTIONARY_DIR WORK_DIR

Everything goes over the loopback interface (127.0.0.1 and ::1). The records
are sent by `binlog-synth --send`; the expected lines are those binlog-decode
prints for the capture binlog-synth writes with the same options (a sent
datagram is byte for byte the UDP payload of that capture's record), or for
the capture the listener wrote. Every wait polls with a deadline.
"""

import gzip
import os
import random
import re
import signal
import socket
import struct
import subprocess
import sys
import time

# The load rate of the big runs. A sanitizer build decodes several times
# slower than a release build: there the runs check the same things at a
# rate such a build keeps up with (WEXBL_LIVE_SLOW is set by the build).
LOAD_RATE = 10000 if os.environ.get("WEXBL_LIVE_SLOW") else 50000

CASE = sys.argv[1]
DECODE, SYNTH, DICT, WORK = (os.path.abspath(p) for p in sys.argv[2:6])

failures = []


def fail(text):
    failures.append(text)
    print("FAIL [%s] %s" % (CASE, text), file=sys.stderr)


def check(condition, text):
    if not condition:
        fail(text)
    return condition


def run(args, **kwargs):
    """Runs a tool to its end (at most 60 s)."""
    return subprocess.run(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=60,
                          **kwargs)


def synth_capture(path, records, seed, link, port, rate, extra=()):
    """The capture of the records `send` sends: the sender's time stamps
    follow its rate, as a capture's do."""
    result = run([SYNTH, "--dict", DICT, "--records", str(records), "--seed", str(seed),
                  "--rate", str(rate), "--link", link, "--udp-port", str(port), "--output", path] +
                 list(extra))
    if result.returncode != 0:
        sys.exit("binlog-synth failed: " + result.stderr.decode())


def decode(*args):
    """The lines binlog-decode prints for a capture (exit status 0 required)."""
    result = run([DECODE, "--dict", DICT] + list(args))
    check(result.returncode == 0, "decoding %s: exit %d: %s" %
          (" ".join(args), result.returncode, result.stderr.decode()))
    return result.stdout


def free_port(family):
    """A UDP port nobody uses right now on the loopback address."""
    with socket.socket(family, socket.SOCK_DGRAM) as s:
        s.bind(("::1" if family == socket.AF_INET6 else "127.0.0.1", 0))
        return s.getsockname()[1]


def bound(port):
    """Whether a UDP socket is bound to `port` (from /proc/net/udp*)."""
    for table in ("/proc/net/udp", "/proc/net/udp6"):
        try:
            with open(table) as f:
                next(f)
                for line in f:
                    local = line.split()[1]
                    if int(local.rsplit(":", 1)[1], 16) == port:
                        return True
        except OSError:
            pass
    return False


def wait_for(condition, what, seconds=20.0):
    deadline = time.monotonic() + seconds
    while time.monotonic() < deadline:
        if condition():
            return True
        time.sleep(0.02)
    fail("timed out waiting for " + what)
    return False


class Listener:
    """binlog-decode (--listen or --follow) with its standard output and
    error in files."""

    def __init__(self, name, args):
        self.out_path = os.path.join(WORK, name + ".out")
        self.err_path = os.path.join(WORK, name + ".err")
        self.out = open(self.out_path, "wb")
        self.err = open(self.err_path, "wb")
        self.process = subprocess.Popen([DECODE, "--dict", DICT] + args, stdout=self.out,
                                        stderr=self.err)

    def stdout(self):
        with open(self.out_path, "rb") as f:
            return f.read()

    def stderr(self):
        with open(self.err_path, "rb") as f:
            return f.read().decode()

    def wait(self, seconds=30.0):
        try:
            status = self.process.wait(timeout=seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            fail("the listener did not end within %g s" % seconds)
            status = None
        self.out.close()
        self.err.close()
        return status


def start_listener(name, port, args):
    # A receive buffer that holds a few seconds of datagrams: the machine
    # may be busy with other work while the tests run.
    if "--buffer-size" not in args:
        args = args + ["--buffer-size", "16777216"]
    listener = Listener(name, args)
    if not wait_for(lambda: bound(port) or listener.process.poll() is not None,
                    "the listener to bind port %d" % port):
        listener.process.kill()
    check(listener.process.poll() is None,
          "the listener ended early: " + listener.stderr())
    return listener


def send(target, records, seed, rate, extra=()):
    """binlog-synth --send: the random records of `seed`, paced at `rate`."""
    result = run([SYNTH, "--send", target, "--dict", DICT, "--records", str(records), "--seed",
                  str(seed), "--rate", str(rate)] + list(extra))
    check(result.returncode == 0, "binlog-synth --send failed: " + result.stderr.decode())


def pcap_records(data):
    """The (time, data) of every record of a little-endian microsecond pcap."""
    magic, _, _, _, _, _, link = struct.unpack_from("<IHHiIII", data, 0)
    if magic != 0xA1B2C3D4:
        raise ValueError("not a little-endian microsecond pcap")
    offset = 24
    records = []
    while offset + 16 <= len(data):
        seconds, micros, captured, _ = struct.unpack_from("<IIII", data, offset)
        offset += 16
        records.append(((seconds, micros), data[offset:offset + captured]))
        offset += captured
    return link, records


def udp_payloads(path):
    """The UDP payloads of an Ethernet capture without VLAN tags."""
    _, records = pcap_records(open(path, "rb").read())
    payloads = []
    for _, frame in records:
        ether_type = struct.unpack_from(">H", frame, 12)[0]
        payloads.append(frame[42:] if ether_type == 0x0800 else frame[62:])
    return payloads


SUMMARY = re.compile(r"^binlog-decode: udp:(\d+): (\d+) datagrams received, (\d+) malformed "
                     r"\((\d+) too short, (\d+) too long\), (\d+) dropped by the kernel, "
                     r"(\d+) records$")
MODULE = re.compile(r"^binlog-decode: udp:(\d+): module (\S+): (\d+) records, (\d+) missing, "
                    r"(\d+) reordered$")


def summaries(stderr):
    """Each summary in the listener's standard error: (figures, {module: counts})."""
    found = []
    for line in stderr.splitlines():
        m = SUMMARY.match(line)
        if m:
            found.append(([int(x) for x in m.groups()], {}))
            continue
        m = MODULE.match(line)
        if m and found:
            found[-1][1][m.group(2)] = [int(x) for x in m.groups()[2:]]
    return found


def check_summary(stderr, port, datagrams, too_short, too_long, records, in_order=True):
    found = summaries(stderr)
    if not check(found, "no summary on standard error:\n" + stderr):
        return
    figures, modules = found[-1]
    check(figures == [port, datagrams, too_short + too_long, too_short, too_long, 0, records],
          "summary %s, expected %s" % (figures,
                                       [port, datagrams, too_short + too_long, too_short,
                                        too_long, 0, records]))
    check(sum(counts[0] for counts in modules.values()) == records,
          "the modules' records do not add up to %d: %s" % (records, modules))
    check(all(counts[1] == 0 for counts in modules.values()),
          "records missing: %s" % modules)
    # Records sent in two runs start their numbers again in the second.
    check(all(counts[2] == 0 for counts in modules.values()) == in_order,
          "reorders: %s" % modules)


# ---- The cases ---------------------------------------------------------------------------------


def case_ipv4():
    """100,000 datagrams at 50,000/s: all decoded, none lost, the same lines as
    the capture -w wrote (gzip) and as the capture binlog-synth writes."""
    port = free_port(socket.AF_INET)
    records = 100000
    written = os.path.join(WORK, "live.pcap.gz")
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "-w", written, "--count", str(records), "--stats"])
    send("127.0.0.1:%d" % port, records, 11, LOAD_RATE)
    status = listener.wait()
    check(status == 0, "listener exit status %s: %s" % (status, listener.stderr()))
    check_summary(listener.stderr(), port, records, 0, 0, records)
    lines = listener.stdout()
    check(lines.count(b"\n") > records, "fewer lines than records")
    check(run(["gzip", "-t", written]).returncode == 0, "gzip -t fails on " + written)
    check(decode("--stats", "--udp-port", str(port), written) == lines,
          "the listener's lines differ from those of the capture it wrote")
    original = os.path.join(WORK, "sent.pcap")
    synth_capture(original, records, 11, "ipv4", port, LOAD_RATE)
    check(decode("--stats", "--udp-port", str(port), original) == lines,
          "the listener's lines differ from those of the capture of the same records")
    # The frames: IPv4 from 127.0.0.1 to 127.0.0.1, UDP to the listening port,
    # time stamps of the receive time, payloads those sent.
    link, frames = pcap_records(gzip.open(written).read())
    check(link == 1, "link type %d, expected 1" % link)
    check(len(frames) == records, "%d frames written, expected %d" % (len(frames), records))
    now = time.time()
    sent = udp_payloads(original)
    for (when, frame), payload in zip(frames, sent):
        ok = (struct.unpack_from(">H", frame, 12)[0] == 0x0800 and
              frame[26:30] == bytes([127, 0, 0, 1]) and frame[30:34] == bytes([127, 0, 0, 1]) and
              struct.unpack_from(">H", frame, 36)[0] == port and frame[42:] == payload and
              now - 120 < when[0] <= now + 1)
        if not check(ok, "frame %r does not carry %r" % (frame[:50], payload[:20])):
            break


def case_ipv6():
    """A smaller run over [::1], written as a plain capture of IPv6 frames."""
    port = free_port(socket.AF_INET6)
    records = 5000
    written = os.path.join(WORK, "live6.pcap")
    listener = start_listener("listen", port, [
        "--listen", "[::1]:%d" % port, "-w", written, "--count", str(records), "--format",
        "json"])
    send("[::1]:%d" % port, records, 12, 20000)
    status = listener.wait()
    check(status == 0, "listener exit status %s: %s" % (status, listener.stderr()))
    check_summary(listener.stderr(), port, records, 0, 0, records)
    # The same objects but for the source's name.
    lines = listener.stdout()
    check(lines.startswith(b'{"capture":"udp:%d",' % port), "JSON objects name no udp:PORT")
    lines = lines.replace(b'{"capture":"udp:%d",' % port, b'{"capture":"live6.pcap",')
    os.chdir(WORK)
    check(decode("--format", "json", "--udp-port", str(port), "live6.pcap") == lines,
          "the listener's JSON lines differ from those of the capture it wrote")
    original = os.path.join(WORK, "sent.pcap")
    synth_capture(original, records, 12, "ipv6", port, 20000)
    os.replace(written, written + ".kept")
    os.replace(original, os.path.join(WORK, "live6.pcap"))
    check(decode("--format", "json", "--udp-port", str(port), "live6.pcap") == lines,
          "the listener's JSON lines differ from those of the capture of the same records")
    _, frames = pcap_records(open(written + ".kept", "rb").read())
    loopback = bytes(15) + b"\x01"
    check(len(frames) == records, "%d frames written, expected %d" % (len(frames), records))
    check(all(struct.unpack_from(">H", f, 12)[0] == 0x86DD and f[22:38] == loopback and
              f[38:54] == loopback and struct.unpack_from(">H", f, 56)[0] == port
              for _, f in frames), "a frame is not IPv6 from ::1 to [::1]:%d" % port)


def case_any_address():
    """No address: one socket for IPv6 and IPv4; an IPv4 sender is written
    as IPv4, an IPv6 one as IPv6."""
    port = free_port(socket.AF_INET6)
    written = os.path.join(WORK, "both.pcap")
    listener = start_listener("listen", port, ["--listen", str(port), "-w", written,
                                               "--count", "200"])
    send("127.0.0.1:%d" % port, 100, 13, 20000)
    send("[::1]:%d" % port, 100, 14, 20000)
    status = listener.wait()
    check(status == 0, "listener exit status %s: %s" % (status, listener.stderr()))
    check_summary(listener.stderr(), port, 200, 0, 0, 200, in_order=False)
    _, frames = pcap_records(open(written, "rb").read())
    types = [struct.unpack_from(">H", f, 12)[0] for _, f in frames]
    check(types == [0x0800] * 100 + [0x86DD] * 100, "frame types %s" % sorted(set(types)))
    check(decode("--udp-port", str(port), written) == listener.stdout(),
          "the listener's lines differ from those of the capture it wrote")


def case_gaps():
    """Gaps and reorders: printed as they come with --stats, and counted per
    module in the summary."""
    port = free_port(socket.AF_INET)
    records = 3000
    damage = ["--gap-every", "97", "--reorder-every", "251"]
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "--count", str(records), "--stats"])
    send("127.0.0.1:%d" % port, records, 27, 20000, damage)
    check(listener.wait() == 0, "the listener's exit status")
    lines = listener.stdout()
    original = os.path.join(WORK, "sent.pcap")
    synth_capture(original, records, 27, "ipv4", port, 20000, damage)
    check(decode("--stats", "--udp-port", str(port), original) == lines,
          "the listener's lines differ from those of the capture of the same records")
    missing = {}
    reorders = {}
    for line in lines.decode().splitlines():
        m = re.match(r">>possibly missing packets: module=0x([0-9a-f]+),.*: diff=(\d+),", line)
        if m:
            missing[int(m.group(1), 16)] = missing.get(int(m.group(1), 16), 0) + int(m.group(2))
        m = re.match(r">>out of order packets: module=0x([0-9a-f]+),", line)
        if m:
            reorders[int(m.group(1), 16)] = reorders.get(int(m.group(1), 16), 0) + 1
    check(sum(missing.values()) > 20 and sum(reorders.values()) > 5,
          "few gaps (%s) or reorders (%s)" % (missing, reorders))
    found = summaries(listener.stderr())
    if check(found, "no summary: " + listener.stderr()):
        figures, modules = found[-1]
        check(figures == [port, records, 0, 0, 0, 0, records], "summary %s" % figures)
        check(sum(c[1] for c in modules.values()) == sum(missing.values()) and
              sum(c[2] for c in modules.values()) == sum(reorders.values()),
              "summary %s; lines: missing %s, reordered %s" % (modules, missing, reorders))


def case_kernel_drops():
    """Datagrams that a full receive buffer cannot take are counted as
    dropped by the kernel: with the listener stopped, a tiny buffer keeps a
    few of 3000 datagrams and drops the rest."""
    port = free_port(socket.AF_INET)
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "--line-buffered", "--buffer-size", "4096"])
    listener.process.send_signal(signal.SIGSTOP)
    send("127.0.0.1:%d" % port, 3000, 26, 0)
    listener.process.send_signal(signal.SIGCONT)
    # Until what the buffer held is decoded: the output no longer grows.
    seen = (-1, 0.0)
    deadline = time.monotonic() + 20
    while time.monotonic() < deadline:
        size = len(listener.stdout())
        if size != seen[0]:
            seen = (size, time.monotonic())
        elif size > 0 and time.monotonic() - seen[1] > 0.3:
            break
        time.sleep(0.02)
    listener.process.send_signal(signal.SIGINT)
    check(listener.wait() == 0, "the listener's exit status after SIGINT")
    found = summaries(listener.stderr())
    if check(found, "no summary: " + listener.stderr()):
        _, received, malformed, _, _, dropped, records = found[-1][0]
        check(received + dropped == 3000 and dropped > 0 and malformed == 0 and
              records == received, "summary %s" % found[-1][0])
        check(listener.stdout().count(b"\n") == records,
              "%d lines for %d records" % (listener.stdout().count(b"\n"), records))


def case_malformed():
    """10,000 datagrams too short or too long among 2,000 valid ones: every
    valid one decoded, the others counted, their messages rate-limited. A
    run in which the kernel dropped datagrams (its receive buffer full while
    the machine was busy) proves nothing: it is run again, sent at half the
    rate, at most three times in all."""
    for attempt in range(3):
        if malformed_run(2 ** attempt):
            return
    fail("the kernel dropped datagrams in each of 3 runs")


def malformed_run(slowdown):
    """One run of case_malformed, its datagrams sent `slowdown` times slower
    than the first run's; false when the kernel dropped datagrams."""
    port = free_port(socket.AF_INET)
    original = os.path.join(WORK, "valid.pcap")
    synth_capture(original, 2000, 15, "ipv4", port, 1000)
    valid = udp_payloads(original)
    rng = random.Random(15)
    bad = [bytes(rng.randrange(0, 32)) for _ in range(5000)] + \
          [bytes(rng.randrange(24939, 30000)) for _ in range(5000)]
    rng.shuffle(bad)
    datagrams = []
    for i, payload in enumerate(valid):
        datagrams.extend(bad[i * 5:i * 5 + 5])
        datagrams.append(payload)
    # The long datagrams take some 27 KiB each: a buffer of 64 MiB holds a
    # few hundred milliseconds of them, for a listener the machine's other
    # work holds up (a valid datagram the kernel drops would never come).
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "--count", str(len(valid)), "--buffer-size",
        "67108864"])
    started = time.monotonic()
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        # About 20,000 datagrams a second, in bursts of 100 (5,000 in an
        # instrumented build: the long ones fill a receive buffer fast).
        pause = 0.005 * 50000 / LOAD_RATE * slowdown
        for i, payload in enumerate(datagrams):
            s.sendto(payload, ("127.0.0.1", port))
            if i % 100 == 99:
                time.sleep(pause)
    # Every valid datagram decoded ends the listener; one the kernel dropped
    # never comes, and SIGINT ends it with its summary, which counts the drops.
    try:
        status = listener.process.wait(timeout=15)
    except subprocess.TimeoutExpired:
        listener.process.send_signal(signal.SIGINT)
        status = listener.wait()
        found = summaries(listener.stderr())
        if found and found[-1][0][5] > 0:
            print("[malformed] the kernel dropped %d datagrams; running again at half the rate" %
                  found[-1][0][5], file=sys.stderr)
            return False
        fail("the listener did not end, and the kernel dropped nothing: " + listener.stderr())
        return True
    listener.wait()
    elapsed = time.monotonic() - started
    check(status == 0, "listener exit status %s: %s" % (status, listener.stderr()))
    short = sum(1 for d in bad if len(d) < 32)
    check_summary(listener.stderr(), port, len(datagrams), short, len(bad) - short, len(valid))
    check(decode("--udp-port", str(port), original) == listener.stdout(),
          "the valid datagrams' lines differ from those of their capture")
    first = re.compile(r"^binlog-decode: udp:%d: datagram (\d+) from 127\.0\.0\.1:\d+ is too "
                       r"(short|long) \((\d+) bytes; a record takes 32 to 24938\): not decoded$"
                       % port)
    more = re.compile(r"^binlog-decode: udp:%d: (\d+) more malformed datagrams? \((\d+) too "
                      r"short, (\d+) too long\): not decoded$" % port)
    told = 0
    messages = 0
    for line in listener.stderr().splitlines():
        m = first.match(line)
        if m:
            check(messages == 0, "a second full message: " + line)
            check(m.group(1) == "1" and int(m.group(3)) == len(bad[0]),
                  "the first message names the wrong datagram: " + line)
            told += 1
            messages += 1
        m = more.match(line)
        if m:
            check(int(m.group(1)) == int(m.group(2)) + int(m.group(3)), "bad sum: " + line)
            told += int(m.group(1))
            messages += 1
    check(told == len(bad), "the messages tell of %d malformed datagrams, not %d" %
          (told, len(bad)))
    # The first, then one a second at most, and the rest at the end.
    check(2 <= messages <= 2 + int(elapsed) + 1,
          "%d messages about malformed datagrams in %.1f s" % (messages, elapsed))
    return True


def case_signals():
    """SIGUSR1 prints the summary and the listener goes on; SIGINT ends it
    with status 0, the summary, and a complete gzip capture."""
    port = free_port(socket.AF_INET)
    written = os.path.join(WORK, "signals.pcap.gz")
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "-w", written, "--line-buffered"])
    send("127.0.0.1:%d" % port, 3000, 16, 20000)
    first = os.path.join(WORK, "first.pcap")
    synth_capture(first, 3000, 16, "ipv4", port, 20000)
    expected = decode("--udp-port", str(port), first)
    # --line-buffered: the lines are in the file without waiting for more.
    wait_for(lambda: listener.stdout() == expected, "the first 3000 records' lines")
    listener.process.send_signal(signal.SIGUSR1)
    wait_for(lambda: summaries(listener.stderr()), "the summary after SIGUSR1")
    check(listener.process.poll() is None, "the listener ended after SIGUSR1")
    found = summaries(listener.stderr())
    if found:
        check(found[0][0] == [port, 3000, 0, 0, 0, 0, 3000], "SIGUSR1 summary %s" % found[0][0])
    send("127.0.0.1:%d" % port, 2000, 17, 20000)
    second = os.path.join(WORK, "second.pcap")
    synth_capture(second, 2000, 17, "ipv4", port, 20000)
    expected += decode("--udp-port", str(port), second)
    wait_for(lambda: listener.stdout() == expected, "the next 2000 records' lines")
    listener.process.send_signal(signal.SIGINT)
    status = listener.wait()
    check(status == 0, "exit status %s after SIGINT" % status)
    found = summaries(listener.stderr())
    check(len(found) == 2, "%d summaries, expected 2" % len(found))
    check_summary(listener.stderr(), port, 5000, 0, 0, 5000, in_order=False)
    check(listener.stdout() == expected, "the lines differ from those of the records sent")
    check(run(["gzip", "-t", written]).returncode == 0, "gzip -t fails after SIGINT")
    check(decode("--udp-port", str(port), written) == expected,
          "the capture written up to SIGINT does not decode to the lines")


def case_rotation():
    """--rotate-size: numbered files, each valid and within the size, that
    together hold every record in order."""
    port = free_port(socket.AF_INET)
    base = os.path.join(WORK, "rot.pcap")
    records = 20000
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "-w", base, "--rotate-size", "0.25", "--count",
        str(records)])
    send("127.0.0.1:%d" % port, records, 18, LOAD_RATE)
    status = listener.wait()
    check(status == 0, "listener exit status %s: %s" % (status, listener.stderr()))
    check(not os.path.exists(base), "the unnumbered file was written with rotation")
    names = sorted(n for n in os.listdir(WORK) if n.startswith("rot-"))
    check(len(names) >= 4, "only %d rotated files: %s" % (len(names), names))
    check(names == ["rot-%06d.pcap" % i for i in range(1, len(names) + 1)],
          "file names %s" % names)
    together = b""
    for name in names:
        path = os.path.join(WORK, name)
        size = os.path.getsize(path)
        check(size <= 250000, "%s holds %d bytes, above 0.25 MB" % (name, size))
        check(size >= 200000 or name == names[-1], "%s holds only %d bytes" % (name, size))
        together += decode("--udp-port", str(port), path)
    check(together == listener.stdout(), "the files together do not hold every record")
    original = os.path.join(WORK, "sent.pcap")
    synth_capture(original, records, 18, "ipv4", port, LOAD_RATE)
    check(decode("--udp-port", str(port), original) == together,
          "the files' lines differ from those of the records sent")


def case_rotation_gzip():
    """--rotate-size with gzip, and --rotate-seconds: every file a complete
    gzip stream; the size is that of the compressed file."""
    port = free_port(socket.AF_INET)
    base = os.path.join(WORK, "rot.pcap.gz")
    records = 30000
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "-w", base, "--rotate-size", "0.1",
        "--rotate-seconds", "3600", "--count", str(records)])
    send("127.0.0.1:%d" % port, records, 19, LOAD_RATE)
    status = listener.wait()
    check(status == 0, "listener exit status %s: %s" % (status, listener.stderr()))
    names = sorted(n for n in os.listdir(WORK) if n.startswith("rot-"))
    check(len(names) >= 3, "only %d rotated files: %s" % (len(names), names))
    check(names == ["rot-%06d.pcap.gz" % i for i in range(1, len(names) + 1)],
          "file names %s" % names)
    together = b""
    for name in names:
        path = os.path.join(WORK, name)
        check(run(["gzip", "-t", path]).returncode == 0, "gzip -t fails on " + name)
        # The compressor holds back less than its output buffer and window.
        check(os.path.getsize(path) <= 100000 + 65536 + 32768, "%s is too large" % name)
        together += decode("--udp-port", str(port), path)
    check(together == listener.stdout(), "the files together do not hold every record")


def case_rotation_seconds():
    """--rotate-seconds: a new numbered file each second while datagrams
    come, together every record in order."""
    port = free_port(socket.AF_INET)
    base = os.path.join(WORK, "timed.pcap.gz")
    records = 2500
    listener = start_listener("listen", port, [
        "--listen", "127.0.0.1:%d" % port, "-w", base, "--rotate-seconds", "1", "--count",
        str(records)])
    started = time.monotonic()
    send("127.0.0.1:%d" % port, records, 23, 1000)
    status = listener.wait()
    elapsed = time.monotonic() - started
    check(status == 0, "listener exit status %s: %s" % (status, listener.stderr()))
    names = sorted(n for n in os.listdir(WORK) if n.startswith("timed-"))
    check(names == ["timed-%06d.pcap.gz" % i for i in range(1, len(names) + 1)],
          "file names %s" % names)
    # 2.5 s of datagrams: a file for each second begun.
    check(3 <= len(names) <= int(elapsed) + 2, "%d files in %.1f s" % (len(names), elapsed))
    together = b""
    for name in names:
        path = os.path.join(WORK, name)
        check(run(["gzip", "-t", path]).returncode == 0, "gzip -t fails on " + name)
        together += decode("--udp-port", str(port), path)
    check(together == listener.stdout(), "the files together do not hold every record")


def grow(path, data, chunk, pause):
    """Appends `data` to `path` in pieces of `chunk` bytes (which cut records)."""
    with open(path, "ab") as f:
        for offset in range(0, len(data), chunk):
            f.write(data[offset:offset + chunk])
            f.flush()
            time.sleep(pause)


def follow_case(compressed):
    source = os.path.join(WORK, "full.pcap.gz" if compressed else "full.pcap")
    result = run([SYNTH, "--dict", DICT, "--records", "5000", "--seed", "20", "--output",
                  source])
    check(result.returncode == 0, "binlog-synth failed")
    expected = decode("--stats", source)
    data = open(source, "rb").read()
    target = os.path.join(WORK, "growing.pcap.gz" if compressed else "growing.pcap")
    open(target, "wb").close()
    follower = Listener("follow", ["--follow", "--stats", "--line-buffered", target])
    # 7919 bytes: a prime, so the pieces end inside records and headers.
    grow(target, data[:len(data) // 2], 7919, 0.01)
    wait_for(lambda: len(follower.stdout()) > 0, "the first lines of the growing capture")
    check(follower.process.poll() is None, "--follow ended at the end of the file")
    grow(target, data[len(data) // 2:], 7919, 0.01)
    # Every record's line, then the statistics when it is stopped.
    records_part = expected[:expected.find(b">>totalRecords")]
    check(records_part.count(b"\n") >= 5000, "the records' lines are not before the statistics")
    wait_for(lambda: follower.stdout() == records_part, "every line of the capture")
    follower.process.send_signal(signal.SIGINT)
    status = follower.wait()
    check(status == 0, "exit status %s after SIGINT: %s" % (status, follower.stderr()))
    check(follower.stdout() == expected, "the followed capture's lines differ from the file's")
    check(follower.stderr() == "", "messages: " + follower.stderr())


def case_follow():
    """--follow of a plain capture appended in pieces."""
    follow_case(False)


def case_follow_gzip():
    """--follow of a gzip capture appended in pieces."""
    follow_case(True)


def case_follow_truncate():
    """A followed capture that is truncated, then replaced, is said so and
    read again from its start."""
    source = os.path.join(WORK, "full.pcap")
    run([SYNTH, "--dict", DICT, "--records", "1000", "--seed", "21", "--output", source])
    data = open(source, "rb").read()
    half = os.path.join(WORK, "half.pcap")
    # Cut inside a record: its line is not printed until the rest comes.
    open(half, "wb").write(data[:len(data) // 2])
    half_lines = run([DECODE, "--dict", DICT, half]).stdout
    full_lines = decode(source)
    target = os.path.join(WORK, "followed.pcap")
    open(target, "wb").write(data[:len(data) // 2])
    follower = Listener("follow", ["--follow", "--line-buffered", target])
    wait_for(lambda: follower.stdout() == half_lines, "the lines of the first half")
    with open(target, "r+b") as f:
        f.truncate(0)
    # Noticed only while the file is shorter than what was read.
    wait_for(lambda: "file truncated" in follower.stderr(), "the truncation to be noticed")
    grow(target, data, 65536, 0.0)
    wait_for(lambda: follower.stdout() == half_lines + full_lines,
             "the lines of the capture after the truncation")
    replacement = os.path.join(WORK, "replacement.pcap")
    open(replacement, "wb").write(data)
    os.replace(replacement, target)
    wait_for(lambda: follower.stdout() == half_lines + full_lines + full_lines,
             "the lines of the replaced capture")
    follower.process.send_signal(signal.SIGTERM)
    status = follower.wait()
    check(status == 0, "exit status %s after SIGTERM" % status)
    check(follower.stderr() == "binlog-decode: %s: file truncated\n"
          "binlog-decode: %s: file replaced\n" % (target, target),
          "messages: %r" % follower.stderr())


def case_follow_live():
    """The gzip capture -w writes can be followed while it is written: the
    listener flushes it while it waits."""
    port = free_port(socket.AF_INET)
    written = os.path.join(WORK, "live.pcap.gz")
    listener = start_listener("listen", port, ["--listen", "127.0.0.1:%d" % port, "-w", written])
    send("127.0.0.1:%d" % port, 500, 24, 5000)
    follower = Listener("follow", ["--follow", "--line-buffered", "--udp-port", str(port),
                                   written])
    send("127.0.0.1:%d" % port, 500, 25, 5000)
    sent = os.path.join(WORK, "sent.pcap")
    synth_capture(sent, 500, 24, "ipv4", port, 5000)
    expected = decode("--udp-port", str(port), sent)
    synth_capture(sent, 500, 25, "ipv4", port, 5000)
    expected += decode("--udp-port", str(port), sent)
    wait_for(lambda: follower.stdout() == expected, "the followed capture's lines")
    follower.process.send_signal(signal.SIGINT)
    check(follower.wait() == 0, "the follower's exit status after SIGINT")
    listener.process.send_signal(signal.SIGINT)
    check(listener.wait() == 0, "the listener's exit status after SIGINT")
    check(listener.stdout() == expected, "the listener's lines differ from those sent")
    check(follower.stdout() == expected, "the follower's lines differ from those sent")


def case_stdin():
    """A capture on standard input is decoded as it arrives: the lines of
    the first part come before the second part is written."""
    source = os.path.join(WORK, "full.pcap")
    run([SYNTH, "--dict", DICT, "--records", "2000", "--seed", "22", "--output", source])
    data = open(source, "rb").read()
    cut = len(data) // 2 + 7  # inside a record
    part = os.path.join(WORK, "part1.pcap")
    open(part, "wb").write(data[:cut])
    part_lines = run([DECODE, "--dict", DICT, part]).stdout
    check(part_lines.count(b"\n") > 500, "the first part holds few records")
    process = subprocess.Popen([DECODE, "--dict", DICT, "-"], stdin=subprocess.PIPE,
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    process.stdin.write(data[:cut])
    process.stdin.flush()
    got = b""
    deadline = time.monotonic() + 20
    os.set_blocking(process.stdout.fileno(), False)
    while len(got) < len(part_lines) and time.monotonic() < deadline:
        try:
            piece = os.read(process.stdout.fileno(), 65536)
        except BlockingIOError:
            time.sleep(0.02)
            continue
        if not piece:
            break
        got += piece
    check(got == part_lines, "before the second part came, %d of %d bytes of lines" %
          (len(got), len(part_lines)))
    check(process.poll() is None, "binlog-decode ended before its input did")
    os.set_blocking(process.stdout.fileno(), True)
    out, err = process.communicate(data[cut:], timeout=30)
    check(process.returncode == 0, "exit status %d: %s" % (process.returncode, err.decode()))
    check(got + out == decode(source), "the lines differ from those of the whole capture")


def case_usage():
    """Combinations that make no sense are usage errors (status 2)."""
    try_help = "Try 'binlog-decode --help' for more information.\n"
    cases = [
        (["--listen", "5000", DICT, "x.pcap"],
         "binlog-decode: --listen receives its records over UDP: no capture operands "
         "('x.pcap')\n" + try_help),
        (["--rotate-size", "1", DICT, "x.pcap"],
         "binlog-decode: --rotate-size and --rotate-seconds rotate the capture of -w: they "
         "need -w\n" + try_help),
        (["--listen", "5000", "--rotate-seconds", "5", DICT],
         "binlog-decode: --rotate-size and --rotate-seconds rotate the capture of -w: they "
         "need -w\n" + try_help),
        (["-w", "x.pcap", DICT, "y.pcap"],
         "binlog-decode: -w (--write) writes what --listen receives: it needs --listen\n" +
         try_help),
        (["--follow", DICT, "-"],
         "binlog-decode: --follow reads files as they grow: standard input cannot be one\n" +
         try_help),
        (["--follow", DICT, "a.pcap", "b.pcap"],
         "binlog-decode: --follow follows one capture file\n" + try_help),
        (["--follow", DICT, "."],
         "binlog-decode: --follow follows one capture file: '.' is none\n"),
        (["--listen", "5000", "--follow", DICT],
         "binlog-decode: --follow reads captures: not with --listen\n" + try_help),
        (["--listen", "0", DICT],
         "binlog-decode: invalid --listen '0': invalid port '0' (expected 1-65535)\n"),
        (["--listen", "65536", DICT],
         "binlog-decode: invalid --listen '65536': invalid port '65536' (expected 1-65535)\n"),
        (["--listen", "::1:5000", DICT],
         "binlog-decode: invalid --listen '::1:5000': write an IPv6 address in brackets: "
         "[ADDRESS]:PORT\n"),
        (["--listen", "[::1]5000", DICT],
         "binlog-decode: invalid --listen '[::1]5000': expected [IPV6-ADDRESS]:PORT\n"),
        (["--listen", "[127.0.0.1]:5000", DICT],
         "binlog-decode: invalid --listen '[127.0.0.1]:5000': '127.0.0.1' is not an IPv6 "
         "address\n"),
        (["--listen", "localhost:5000", DICT],
         "binlog-decode: invalid --listen 'localhost:5000': 'localhost' is not an IPv4 "
         "address\n"),
        (["--listen", "5000", "-w", "x.pcap", "--rotate-size", "0", DICT],
         "binlog-decode: invalid --rotate-size '0' (expected megabytes, e.g. 100 or 0.5)\n"),
        (["--listen", "5000", "--buffer-size", "-1", DICT],
         "binlog-decode: invalid --buffer-size '-1' (expected 1-2147483647 bytes)\n"),
        (["--listen", "5000"], "binlog-decode: expected a dictionary directory\n" + try_help),
    ]
    for args, message in cases:
        result = run([DECODE] + args, cwd=WORK)
        check(result.returncode == 2 and result.stdout == b"" and
              result.stderr.decode() == message,
              "binlog-decode %s: exit %d, %r" % (" ".join(args), result.returncode,
                                                  result.stderr.decode()))
    # A port in use is a runtime failure.
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind(("127.0.0.1", 0))
        port = s.getsockname()[1]
        result = run([DECODE, "--dict", DICT, "--listen", "127.0.0.1:%d" % port])
        check(result.returncode == 1 and result.stderr.decode() ==
              "binlog-decode: cannot listen on 127.0.0.1:%d: Address already in use\n" % port,
              "a port in use: exit %d, %r" % (result.returncode, result.stderr.decode()))


CASES = {name[5:]: function for name, function in globals().items() if name.startswith("case_")}

if __name__ == "__main__":
    if CASE not in CASES:
        sys.exit("unknown case " + CASE)
    os.environ["TZ"] = "UTC0"
    if os.path.isdir(WORK):
        for name in os.listdir(WORK):
            os.remove(os.path.join(WORK, name))
    os.makedirs(WORK, exist_ok=True)
    CASES[CASE]()
    sys.exit(1 if failures else 0)
