#!/usr/bin/env python3
"""binlog-decode with worker threads prints byte for byte what one thread prints.

Every run is compared with the same command at -j 1: standard output,
standard error and the exit status. The captures are the golden captures
(every framing, damage and check the decoder knows) and random captures with
sequence gaps, reorders, unknown log ids and damaged tails; each is decoded
alone, and all of them in one run (statistics carry from one capture to the
next), in text, JSON and CSV, with and without a filter, with zlib and with
the fastest inflater. A run stopped by SIGINT prints complete lines in order.

usage: parallel_test.py CASE DECODE SYNTH DICT GOLDEN_CAPTURES WORK [EMULATOR]
"""

import gzip
import os
import shutil
import signal
import subprocess
import sys
import time


def fail(text):
    print("FAIL: " + text, file=sys.stderr)
    sys.exit(1)


class Tools:
    def __init__(self, decode, synth, emulator):
        self.prefix = [part for part in emulator.split("|") if part] if emulator else []
        self.decode = decode
        self.synth = synth

    def run_decode(self, args, timeout=300):
        env = dict(os.environ, TZ="UTC0")
        result = subprocess.run(self.prefix + [self.decode, "--no-progress"] + args,
                                stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env,
                                timeout=timeout)
        return result.returncode, result.stdout, result.stderr

    def run_synth(self, args):
        subprocess.run(self.prefix + [self.synth] + args, check=True,
                       stdout=subprocess.DEVNULL, timeout=300)


def first_difference(a, b):
    for i, (x, y) in enumerate(zip(a, b)):
        if x != y:
            return i
    return min(len(a), len(b))


def compare(tools, args, jobs=(2, 4)):
    """Runs `args` at -j 1 and at each of `jobs`; all must agree."""
    reference = tools.run_decode(["-j", "1"] + args)
    for n in jobs:
        got = tools.run_decode(["-j", str(n)] + args)
        for what, index in (("exit status", 0), ("standard output", 1), ("standard error", 2)):
            if got[index] != reference[index]:
                detail = ""
                if index:
                    at = first_difference(got[index], reference[index])
                    detail = " (first difference at byte %d: %r vs %r)" % (
                        at, got[index][max(0, at - 40):at + 40],
                        reference[index][max(0, at - 40):at + 40])
                else:
                    detail = " (%d vs %d)" % (got[0], reference[0])
                fail("-j %d differs from -j 1 in its %s for %s%s" % (n, what, " ".join(args),
                                                                     detail))
    return reference


def random_captures(tools, dictionary, work):
    """Captures with gaps, reorders, repeats and every record kind, some damaged."""
    made = []
    for index, (records, link, extra) in enumerate([
            (30000, "150", ["--gap-every", "97", "--reorder-every", "131"]),
            (20000, "ipv4", ["--repeat-every", "53", "--gap-every", "211"]),
            (20000, "ipv6", ["--reorder-every", "17"]),
    ]):
        name = os.path.join(work, "random%d.pcap.gz" % index)
        tools.run_synth(["--dict", dictionary, "--output", name, "--records", str(records),
                         "--seed", str(index + 7), "--link", link] + extra)
        made.append(name)
    # A plain copy cut inside a record, and a compressed one cut short.
    with gzip.open(made[0], "rb") as source:
        data = source.read()
    cut = os.path.join(work, "cut.pcap")
    with open(cut, "wb") as out:
        out.write(data[:len(data) * 2 // 3 + 5])
    with open(made[1], "rb") as source:
        packed = source.read()
    short = os.path.join(work, "short.pcap.gz")
    with open(short, "wb") as out:
        out.write(packed[:len(packed) // 2])
    # Damaged bytes in the middle: with --resync the decoder reads on.
    flipped = os.path.join(work, "flipped.pcap")
    damaged = bytearray(data)
    for at in range(len(damaged) // 3, len(damaged) // 3 + 64):
        damaged[at] ^= 0x5A
    with open(flipped, "wb") as out:
        out.write(bytes(damaged))
    return made + [cut, short, flipped]


def reduced_dictionary(dictionary, work):
    """The dictionary without its first binlog file: its log ids are unknown."""
    reduced = os.path.join(work, "reduced_dict")
    shutil.rmtree(reduced, ignore_errors=True)
    os.makedirs(reduced)
    names = sorted(os.listdir(dictionary))
    dropped = [name for name in names if "binlog" in name.lower()][0]
    for name in names:
        if name != dropped:
            shutil.copy(os.path.join(dictionary, name), reduced)
    return reduced


def case_golden(tools, dictionary, golden, work):
    captures = sorted(os.path.join(golden, name) for name in os.listdir(golden))
    if len(captures) < 20:
        fail("expected the golden captures in %s, found %d" % (golden, len(captures)))
    # (Under an emulator, text only: each run starts the emulator.)
    forms = [["-T", "text"]] if tools.prefix else [["-T", "text"], ["-T", "json"], ["-T", "csv"]]
    for capture in captures:
        for form in forms:
            compare(tools, ["-s", "-p", "5000", "-m", "4"] + form + [dictionary, capture])
    # All of them in one run: what one capture leaves carries into the next.
    compare(tools, ["-s", "-p", "5000", "-m", "4", dictionary] + captures)
    compare(tools, ["-s", "-p", "5000", "--resync", "-T", "json", dictionary] + captures)


def case_random(tools, dictionary, work):
    captures = random_captures(tools, dictionary, work)
    reduced = reduced_dictionary(dictionary, work)
    for capture in captures:
        for args in (["-s"], ["-s", "-T", "json"], ["-s", "-T", "csv", "--inflater", "zlib"],
                     ["--resync", "-s"], ["-s", "-Y", "level <= WARN || seq > 100"]):
            for dict_dir in (dictionary, reduced):
                compare(tools, args + ["-p", "5000", dict_dir, capture], jobs=(2, 4))
    compare(tools, ["-s", "-p", "5000", "-H", dictionary] + captures, jobs=(2, 3))
    compare(tools, ["-s", "-p", "5000", "--unknown=hex", reduced] + captures, jobs=(2,))
    compare(tools, ["-p", "5000", "-s", "-c", "12345", dictionary] + captures, jobs=(2, 4))
    # The same lines whichever inflater reads the compressed captures.
    with_zlib = compare(tools, ["-s", "-p", "5000", "--inflater", "zlib", dictionary] + captures)
    fastest = tools.run_decode(["-j", "2", "-s", "-p", "5000", dictionary] + captures)
    if fastest != with_zlib:
        fail("the fastest inflater and zlib give different output")


def case_interrupt(tools, dictionary, work):
    big = os.path.join(work, "big.pcap.gz")
    tools.run_synth(["--dict", dictionary, "--output", big, "--records", "400000",
                     "--gap-every", "1000"])
    _, complete, _ = tools.run_decode(["-j", "1", "-s", dictionary, big])
    lines = complete.split(b"\n")
    # Interrupted at some point of the run: what came out is a prefix of the
    # full run's records, in order, every line whole, then the statistics.
    env = dict(os.environ, TZ="UTC0")
    for delay in (0.3, 0.8):
        process = subprocess.Popen(tools.prefix + [tools.decode, "--no-progress", "-j", "2", "-s",
                                                   dictionary, big],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, env=env)
        time.sleep(delay)
        process.send_signal(signal.SIGINT)
        out, _ = process.communicate(timeout=120)
        if process.returncode == 0:
            continue  # the run ended before the signal: nothing to check
        if process.returncode != 130:
            fail("an interrupted run exits with %d, not 130" % process.returncode)
        if not out.endswith(b"\n"):
            fail("an interrupted run ends inside a line")
        got = out.split(b"\n")[:-1]
        last = max((i for i, line in enumerate(got) if line.startswith(b"[")), default=-1)
        if got[:last + 1] != lines[:last + 1]:
            fail("an interrupted run's lines are not the first lines of the full run")
        if not any(line.startswith(b">>total log record size") for line in got[last + 1:]):
            fail("an interrupted run prints no statistics after its last record")


def main():
    if len(sys.argv) < 7:
        fail(__doc__)
    case, decode, synth, dictionary, golden, work = sys.argv[1:7]
    emulator = sys.argv[7] if len(sys.argv) > 7 else ""
    tools = Tools(decode, synth, emulator)
    shutil.rmtree(work, ignore_errors=True)
    os.makedirs(work)
    cases = {
        "golden": lambda: case_golden(tools, dictionary, golden, work),
        "random": lambda: case_random(tools, dictionary, work),
        "interrupt": lambda: case_interrupt(tools, dictionary, work),
    }
    if case not in cases:
        fail("unknown case " + case)
    cases[case]()
    print("ok: " + case)


if __name__ == "__main__":
    main()
