#!/usr/bin/env python3
"""binlog-decode --summary and --summary-only on the golden captures.

    summary_test.py CASE DECODE SYNTH DICT_DIR CAPTURE_DIR WORK_DIR [EMULATOR]

The expected tables are worked out by hand from the capture scripts under
tests/golden/captures/ (each case says how); the text layout is checked
against a literal line and against the layout the help text describes.
"""
import csv
import io
import json
import os
import shutil
import subprocess
import sys

CASE, DECODE, SYNTH, DICT, CAPS, WORK = sys.argv[1:7]
EMU = [w for w in (sys.argv[7] if len(sys.argv) > 7 else "").split("|") if w]

COLUMNS = ["records", "gaps", "missing", "reorders", "duplicates", "unknown_ids",
           "version_mismatches", "level_errors", "malformed"]
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAIL:", what, file=sys.stderr)


def run(*args, code=None):
    if code is None:
        # stats_b.pcap is cut short: a damaged capture gives exit status 1.
        code = 1 if "stats_b.pcap" in args else 0
    proc = subprocess.run(EMU + [DECODE, "--no-progress", "-d", DICT] + list(args),
                          cwd=CAPS, capture_output=True, env=dict(os.environ, TZ="UTC0"))
    check(proc.returncode == code,
          f"{' '.join(args)}: exit {proc.returncode}, expected {code}; "
          f"stderr: {proc.stderr.decode(errors='replace')}")
    return proc


def row(name, first, last, **counts):
    values = {c: counts.get(c, 0) for c in COLUMNS}
    return {"module": name, "first": first, "last": last, **values}


def text_table(rows):
    """The text layout as the help text describes it: module, first and last
    left-aligned, the counts right-aligned, two blanks between columns, each
    column as wide as its widest cell, no blanks at the end of a line."""
    cells = [["module", "first", "last"] + COLUMNS]
    for r in rows:
        cells.append([r["module"], r["first"] or "-", r["last"] or "-"] +
                     [str(r[c]) for c in COLUMNS])
    widths = [max(len(line[i]) for line in cells) for i in range(len(cells[0]))]
    out = ""
    for line in cells:
        parts = [cell.ljust(widths[i]) if i < 3 else cell.rjust(widths[i])
                 for i, cell in enumerate(line)]
        out += "  ".join(parts).rstrip(" ") + "\n"
    return out


def json_table(rows):
    out = ""
    for r in rows:
        obj = {"summary": "total"} if r["module"] == "(total)" else \
            {"summary": "module", "module": r["module"]}
        obj["first"] = r["first"]
        obj["last"] = r["last"]
        for c in COLUMNS:
            obj[c] = r[c]
        out += json.dumps(obj, separators=(",", ":")) + "\n"
    return out


def csv_table(rows):
    out = "module,first,last," + ",".join(COLUMNS) + "\r\n"
    for r in rows:
        out += ",".join([r["module"], r["first"] or "", r["last"] or ""] +
                        [str(r[c]) for c in COLUMNS]) + "\r\n"
    return out


def summary_json(*args):
    proc = run("--summary-only", "-T", "json", *args)
    return [json.loads(line) for line in proc.stdout.decode().splitlines()]


T = "2023-11-14T22:13:"

# stats_a.pcap.gz, one record every 100 ms from 22:13:20.100:
#   CORE:SCHED seq 10, 13 (gap: 11 and 12 missing), 12 (reorder: the
#   statistics take it off the missing count), 13 (the last number again: a
#   duplicate); a syslog record (.500) and a plain capture record (.600).
STATS_A = [
    row("(capture)", T + "20.600Z", T + "20.600Z", records=1),
    row("(syslog)", T + "20.500Z", T + "20.500Z", records=1),
    row("CORE:SCHED", T + "20.100Z", T + "20.400Z", records=4, gaps=1, missing=1, reorders=1,
        duplicates=1),
    row("(total)", T + "20.100Z", T + "20.600Z", records=6, gaps=1, missing=1, reorders=1,
        duplicates=1),
]

# dispatch_checks.pcap, one record a millisecond from 22:13:20.001:
#   1 0x01020009 seq 1: unknown id (CORE:SCHED has no log 9)
#   2 0x07070001 seq 2: unknown id, module 0x0707 not in the dictionary
#   3 UeAttach version 2, seq 3: version mismatch; CORE:SCHED 1 -> 3: a gap of 1
#   4 RxPower level 10 seq 4: level out of range (RADIO:PHY starts at 4)
#   5 RxPower level 9 seq 4 (.005): shown; 4 again: a duplicate
#   6 RxPower level 10 seq 5 (.006): shown
#   7 RxPower packet type 7 seq 6: malformed (unknown packet type), in sequence
#   8 syslog seq 6 (.008): shown, a sequence space of its own
#   9 0x01020009 seq 7: unknown id; CORE:SCHED 3 -> 7: a gap of 3
DISPATCH = [
    row("(syslog)", T + "20.008Z", T + "20.008Z", records=1),
    row("0x0707", None, None, unknown_ids=1),
    row("CORE:SCHED", None, None, gaps=2, missing=4, unknown_ids=2, version_mismatches=1),
    row("RADIO:PHY", T + "20.005Z", T + "20.006Z", records=2, duplicates=1, level_errors=1,
        malformed=1),
    row("(total)", T + "20.005Z", T + "20.008Z", records=3, gaps=2, missing=4, duplicates=1,
        unknown_ids=3, version_mismatches=1, level_errors=1, malformed=1),
]

# The five files of the statistics case, in one run:
#   stats_a as above; stats_b: CORE:SCHED seq 15 (21.100), then a truncated
#   record (the file is abandoned: the statistics carry over); stats_c:
#   CORE:SCHED seq 17 (21.300: 16 missing) and RADIO:PHY seq 1 (21.500);
#   stats_d: CORE:SCHED seq 30 at 22.000500 (the statistics started afresh);
#   header_only: no record.
ACROSS = ["stats_a.pcap.gz", "stats_b.pcap", "stats_c.pcap.gz", "stats_d.pcap.gz",
          "header_only.pcap"]
ACROSS_ROWS = [
    row("(capture)", T + "20.600Z", T + "20.600Z", records=1),
    row("(syslog)", T + "20.500Z", T + "20.500Z", records=1),
    row("CORE:SCHED", T + "20.100Z", T + "22.000Z", records=7, gaps=2, missing=2, reorders=1,
        duplicates=1),
    row("RADIO:PHY", T + "21.500Z", T + "21.500Z", records=1),
    row("(total)", T + "20.100Z", T + "22.000Z", records=10, gaps=2, missing=2, reorders=1,
        duplicates=1),
]


def case_layouts():
    proc = run("--summary-only", "stats_a.pcap.gz")
    out = proc.stdout.decode()
    check(out == text_table(STATS_A), f"text table:\n{out}\nexpected:\n{text_table(STATS_A)}")
    # One line spelt out: module padded to "CORE:SCHED", the times, and the
    # counts right-aligned under their names.
    line = ("CORE:SCHED  2023-11-14T22:13:20.100Z  2023-11-14T22:13:20.400Z        4     1"
            "        1         1           1            0                   0             0"
            "          0\n")
    check(line in out, "the CORE:SCHED line of the text table")
    check(out.startswith("module      first"), "the header line")
    proc = run("--summary-only", "-T", "json", "stats_a.pcap.gz")
    check(proc.stdout.decode() == json_table(STATS_A), f"json table:\n{proc.stdout.decode()}")
    proc = run("--summary-only", "-T", "csv", "stats_a.pcap.gz")
    check(proc.stdout.decode() == csv_table(STATS_A), f"csv table:\n{proc.stdout.decode()}")
    check(list(csv.reader(io.StringIO(proc.stdout.decode(), newline="")))[0][:3] ==
          ["module", "first", "last"], "csv header")
    # With records: the lines, then the table; the statistics lines only
    # with --stats.
    plain = run("stats_a.pcap.gz").stdout.decode()
    both = run("--summary", "stats_a.pcap.gz").stdout.decode()
    check(both == plain + text_table(STATS_A), "--summary after the records")
    check(">>" not in both, "no statistics lines without --stats")
    stats = run("--stats", "stats_a.pcap.gz").stdout.decode()
    both = run("--stats", "--summary", "stats_a.pcap.gz").stdout.decode()
    check(both == stats + text_table(STATS_A), "--stats --summary")
    # JSON: the records and events, then the table's objects.
    records = run("-T", "json", "stats_a.pcap.gz").stdout.decode()
    both = run("-T", "json", "--summary", "stats_a.pcap.gz").stdout.decode()
    check(both == records + json_table(STATS_A), "json records then the table")
    # CSV: the file holds the records; the table goes to standard error.
    records = run("-T", "csv", "stats_a.pcap.gz").stdout.decode()
    # (--no-lint: the test dictionary's deliberate mistake would be named
    # on standard error too.)
    proc = run("--no-lint", "-T", "csv", "--summary", "stats_a.pcap.gz")
    check(proc.stdout.decode() == records, "csv records unchanged by --summary")
    check(proc.stderr.decode() == csv_table(STATS_A), "csv table on standard error")
    # The time as the JSON "time" field shows it, with the UTC offset.
    rows = summary_json("-u", "90", "stats_d.pcap.gz")
    check(rows[0]["first"] == "2023-11-14T23:43:22.000+01:30", f"offset time: {rows[0]}")


def case_dispatch():
    out = run("--summary-only", "dispatch_checks.pcap").stdout.decode()
    check(out == text_table(DISPATCH), f"dispatch table:\n{out}\nexpected:\n{text_table(DISPATCH)}")
    check(summary_json("dispatch_checks.pcap") == json.loads("[" + ",".join(
        json_table(DISPATCH).splitlines()) + "]"), "dispatch json")


def stats_lines(*args):
    """missingRecords and outOfOrderRecords of every --stats summary."""
    out = run("--stats", "-T", "text", *args).stdout.decode()
    missing = sum(int(l.split("=")[1].split()[0]) for l in out.splitlines()
                  if l.startswith(">>missingRecords ="))
    reorders = sum(int(l.split("=")[1]) for l in out.splitlines()
                   if l.startswith(">>outOfOrderRecords ="))
    return missing, reorders


def case_statistics():
    out = run("--summary-only", *ACROSS).stdout.decode()
    check(out == text_table(ACROSS_ROWS), f"across table:\n{out}\nexpected:\n"
          f"{text_table(ACROSS_ROWS)}")
    total = summary_json(*ACROSS)[-1]
    check((total["missing"], total["reorders"]) == stats_lines(*ACROSS),
          f"summary {total} against the statistics {stats_lines(*ACROSS)}")
    check(stats_lines(*ACROSS) == (2, 1), "the statistics count 2 missing and 1 reorder")


def case_random():
    # A larger capture with gaps, reorders and repeats in every module: the
    # table's missing and reorders add up to the statistics' counts, and one
    # worker thread or two give the same table.
    os.makedirs(WORK, exist_ok=True)
    capture = os.path.join(WORK, "random.pcap.gz")
    subprocess.run(EMU + [SYNTH, "-d", DICT, "-o", capture, "-n", "20000", "--seed", "7",
                          "--gap-every", "97", "--reorder-every", "89", "--repeat-every", "83"],
                   check=True, capture_output=True)
    rows = summary_json("-j", "1", capture)
    total = rows[-1]
    check((total["missing"], total["reorders"]) == stats_lines("-j", "1", capture),
          f"random: {total} against {stats_lines('-j', '1', capture)}")
    check(total["missing"] > 100 and total["reorders"] > 100 and total["duplicates"] > 100,
          f"random: the capture has gaps, reorders and repeats: {total}")
    check(sum(r["records"] for r in rows[:-1]) == total["records"] == 20000,
          f"random: records {total['records']}")
    for jobs in ("2", "3"):
        check(summary_json("-j", jobs, capture) == rows, f"random: -j {jobs}")
        text = run("--summary", "-j", jobs, capture).stdout
        lines = run("-j", "1", capture).stdout
        check(text == lines + run("--summary-only", "-j", "1", capture).stdout,
              f"random: lines and table with -j {jobs}")


def case_filter():
    # -Y keeps the RADIO:PHY record only; the gaps and reorders are those of
    # every record read (the statistics see them all).
    rows = summary_json("-Y", "module == RADIO:PHY", *ACROSS)
    check([r.get("module") for r in rows] == ["CORE:SCHED", "RADIO:PHY", None],
          f"filter rows: {rows}")
    check(rows[0]["records"] == 0 and rows[0]["missing"] == 2 and rows[0]["reorders"] == 1,
          f"filter: CORE:SCHED {rows[0]}")
    check(rows[1]["records"] == 1 and rows[2]["records"] == 1, f"filter: {rows}")


def case_merge():
    # --merge reads each capture with statistics of its own; stats_a and
    # dispatch_checks both end normally, so the table is the one of the two
    # read one after the other: the rows of both, added up.
    merged = summary_json("--merge", "stats_a.pcap.gz", "dispatch_checks.pcap")
    apart = summary_json("stats_a.pcap.gz", "dispatch_checks.pcap")
    check(merged == apart, f"merge:\n{merged}\n{apart}")
    names = [r.get("module") for r in apart]
    check(names == ["(capture)", "(syslog)", "0x0707", "CORE:SCHED", "RADIO:PHY", None],
          f"merge rows {names}")
    sched = apart[3]
    check((sched["records"], sched["gaps"], sched["missing"], sched["reorders"],
           sched["duplicates"], sched["unknown_ids"]) == (4, 3, 5, 1, 1, 2), f"merge: {sched}")
    check(apart[1]["records"] == 2 and apart[1]["first"] == T + "20.008Z" and
          apart[1]["last"] == T + "20.500Z", f"merge: syslog {apart[1]}")
    # Two captures over the same time, records interleaved, each with gaps
    # and reorders: merged, every capture keeps statistics of its own, and
    # the table is the same as read one after the other, its missing and
    # reorders those of the statistics.
    os.makedirs(WORK, exist_ok=True)
    captures = []
    for seed in ("3", "4"):
        captures.append(os.path.join(WORK, f"seed{seed}.pcap.gz"))
        subprocess.run(EMU + [SYNTH, "-d", DICT, "-o", captures[-1], "-n", "5000", "--seed", seed,
                              "--gap-every", "37", "--reorder-every", "31"],
                       check=True, capture_output=True)
    merged = summary_json("--merge", *captures)
    apart = summary_json(*captures)
    check(merged == apart, f"merge of random captures:\n{merged}\n{apart}")
    check((merged[-1]["missing"], merged[-1]["reorders"]) == stats_lines("--merge", *captures),
          f"merge: {merged[-1]} against the statistics {stats_lines('--merge', *captures)}")


def case_usage():
    proc = run("--summary", "--listen", "5999", DICT, code=2)
    check(b"--summary reads captures: not with --listen" in proc.stderr, "--listen refused")
    proc = run("--report", "", "stats_a.pcap.gz", code=2)
    check(b"invalid --report '': expected a file name" in proc.stderr, "empty --report")
    os.makedirs(WORK, exist_ok=True)
    copy = os.path.join(WORK, "a.pcap.gz")
    shutil.copy(os.path.join(CAPS, "stats_a.pcap.gz"), copy)
    proc = run("--report", copy, copy, code=2)
    check(b"refusing to overwrite it" in proc.stderr, "report onto a capture refused")
    proc = run("--report", os.path.join(WORK, "no", "such", "dir.html"), "stats_a.pcap.gz",
               code=1)
    check(b"cannot write the report" in proc.stderr, "unwritable report")
    help_text = run("--help").stdout.decode()
    for word in ("--summary", "--summary-only", "--report FILE", "version_mismatches"):
        check(word in help_text, f"--help mentions {word}")


CASES = {"layouts": case_layouts, "dispatch": case_dispatch, "statistics": case_statistics,
         "random": case_random, "filter": case_filter, "merge": case_merge, "usage": case_usage}
shutil.rmtree(WORK, ignore_errors=True)
CASES[CASE]()
if failures:
    print(f"{len(failures)} failure(s)", file=sys.stderr)
    sys.exit(1)
print(f"summary.{CASE}: ok")
