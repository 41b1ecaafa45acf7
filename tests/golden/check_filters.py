#!/usr/bin/env python3
"""Runs the filter table (filters.txt) on the golden captures.

    check_filters.py --driver PATH [--emulator WORD]... --dict DIR
        --capture-dir DIR --table FILE [--jq PATH]

For each group of the table, golden_driver's json route reads the group's
captures once without a filter, then once with each expression. A filtered
run must exit with 0, keep exactly the records the table lists (each the
same JSON object as in the unfiltered run), hand out the same statistics,
version and level events as the unfiltered run (the reader's checks and
statistics see every record), and only error events that the unfiltered run
has too, in the same order (a record the filter rejects from its header is
not decoded, so it has no messages about its values). Each bad expression
must make the driver exit with 2 and print

    golden_driver: bad filter: MESSAGE
      EXPRESSION
      ^ (POSITION blanks before it)

on standard error, nothing on standard output. Every failing line of the
table is reported.
"""

import argparse
import re
import subprocess
import sys

# No compiled copy of the checker in the source tree.
sys.dont_write_bytecode = True
import check_structured as cs  # noqa: E402

DEFAULTS = {"stats": "0", "port": "5000", "maxvar": "4", "offset": "0"}


def table_bytes(text):
    """An expression of the table as bytes: backquotes around it dropped,
    \\xHH turned into the byte HH, {N*C} into N times C."""
    if len(text) >= 2 and text.startswith("`") and text.endswith("`"):
        text = text[1:-1]
    text = re.sub(r"\{([0-9]+)\*(.)\}", lambda m: m.group(2) * int(m.group(1)), text)
    out = bytearray()
    i = 0
    raw = text.encode("utf-8")
    while i < len(raw):
        match = re.match(rb"\\x([0-9a-fA-F]{2})", raw[i:])
        if match:
            out.append(int(match.group(1), 16))
            i += 4
        else:
            out.append(raw[i])
            i += 1
    return bytes(out)


def read_table(path):
    """Groups (labels, settings, [(line, expression, kept)]) and the bad
    expressions [(line, expression, position, message)]."""
    groups = []
    bad = None
    with open(path, encoding="utf-8") as f:
        for number, line in enumerate(f, 1):
            line = line.rstrip("\n")
            if not line.strip() or line.startswith("#"):
                continue
            if line == "bad":
                bad = []
                continue
            if line.startswith("captures "):
                labels = []
                settings = dict(DEFAULTS)
                for word in line.split()[1:]:
                    key, _, value = word.partition("=")
                    if key in DEFAULTS:
                        settings[key] = value
                    else:
                        labels.append((key, value))
                groups.append((labels, settings, []))
                continue
            expression, separator, result = line.rpartition(" => ")
            if not separator:
                raise SystemExit("%s:%d: no ' => ' in %r" % (path, number, line))
            if bad is not None:
                position, _, message = result.partition(" ")
                bad.append((number, table_bytes(expression), int(position), message))
                continue
            if not groups:
                raise SystemExit("%s:%d: an expression before the first captures line" % (
                    path, number))
            labels = dict(groups[-1][0])
            kept = []
            if result != "none":
                for word in result.split():
                    match = re.fullmatch(r"([A-Za-z]+)([0-9]+)", word)
                    if not match or match.group(1) not in labels:
                        raise SystemExit("%s:%d: bad record %r" % (path, number, word))
                    kept.append((labels[match.group(1)], int(match.group(2))))
            groups[-1][2].append((number, table_bytes(expression), kept))
    return groups, bad or []


class Case:
    """The driver's arguments for one group."""

    def __init__(self, args, labels, settings):
        self.emulator = args.emulator
        self.driver = args.driver
        self.dict = args.dict
        self.capture_dir = args.capture_dir
        self.captures = [capture for _, capture in labels]
        self.stats = settings["stats"]
        self.port = settings["port"]
        self.maxvar = settings["maxvar"]
        self.offset = settings["offset"]


def split_run(objects):
    records = [value for value in objects if cs.is_record(value)]
    output = [value for value in objects
              if not cs.is_record(value) and value["event"] in cs.OUTPUT_EVENTS]
    errors = [value for value in objects
              if not cs.is_record(value) and value["event"] not in cs.OUTPUT_EVENTS]
    return records, output, errors


def is_subsequence(part, whole):
    rest = iter(whole)
    return all(any(item == other for other in rest) for item in part)


def show(expression):
    return expression.decode("utf-8", "backslashreplace")


def check_group(args, labels, settings, entries):
    case = Case(args, labels, settings)
    failures = []
    plain = cs.run_driver(case, "json")
    if plain.returncode != 0:
        return ["captures %s: the unfiltered run exited with %d" % (case.captures,
                                                                    plain.returncode)]
    objects = cs.parse_json_lines(plain.stdout, args.jq)
    all_records, all_output, all_errors = split_run(objects)
    by_place = {(record["capture"], record["record"]): record for record in all_records}
    for number, expression, kept in entries:
        where = "line %d (%s)" % (number, show(expression))
        for place in kept:
            if place not in by_place:
                failures.append("%s: %s record %d is no record of the unfiltered run" % (
                    where, place[0], place[1]))
        result = cs.run_driver(case, "json", extra=[b"--filter", expression])
        if result.returncode != 0:
            failures.append("%s: exited with %d: %s" % (
                where, result.returncode, result.stderr.decode("utf-8", "backslashreplace")))
            continue
        try:
            filtered = cs.parse_json_lines(result.stdout, args.jq)
        except cs.CheckError as error:
            failures.append("%s: %s" % (where, error))
            continue
        records, output, errors = split_run(filtered)
        got = [(record["capture"], record["record"]) for record in records]
        wanted = sorted(kept, key=lambda place: (case.captures.index(place[0]), place[1]))
        if got != wanted:
            failures.append("%s: kept %s, expected %s" % (
                where, " ".join("%s:%d" % place for place in got) or "none",
                " ".join("%s:%d" % place for place in wanted) or "none"))
            continue
        for record in records:
            if record != by_place[(record["capture"], record["record"])]:
                failures.append("%s: %s:%d differs from the unfiltered run" % (
                    where, record["capture"], record["record"]))
        if output != all_output:
            failures.append("%s: the statistics, version and level events differ from the "
                            "unfiltered run" % where)
        if not is_subsequence(errors, all_errors):
            failures.append("%s: error events the unfiltered run does not have" % where)
    return failures


def check_bad(args, entries, labels):
    case = Case(args, labels, dict(DEFAULTS))
    failures = []
    for number, expression, position, message in entries:
        where = "line %d (%s)" % (number, show(expression))
        result = cs.run_driver(case, "json", extra=[b"--filter", expression])
        wanted = b"golden_driver: bad filter: %s\n  %s\n  %s^\n" % (
            message.encode("utf-8"), expression, b" " * position)
        if result.returncode != 2 or result.stdout or result.stderr != wanted:
            failures.append("%s: exit %d, standard output %r, standard error\n%s"
                            "expected\n%s" % (where, result.returncode, result.stdout,
                                              result.stderr.decode("utf-8", "backslashreplace"),
                                              wanted.decode("utf-8", "backslashreplace")))
    return failures


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--emulator", action="append", default=[])
    parser.add_argument("--dict", required=True)
    parser.add_argument("--capture-dir", required=True)
    parser.add_argument("--table", required=True)
    parser.add_argument("--jq")
    args = parser.parse_args()

    groups, bad = read_table(args.table)
    failures = []
    expressions = 0
    try:
        for labels, settings, entries in groups:
            failures += check_group(args, labels, settings, entries)
            expressions += len(entries)
        if groups:
            failures += check_bad(args, bad, groups[0][0])
    except cs.CheckError as error:
        failures.append(str(error))
    for failure in failures:
        print("FAILED: %s" % failure, file=sys.stderr)
    if failures:
        return 1
    if expressions == 0 or not bad:
        print("FAILED: the table holds no expressions", file=sys.stderr)
        return 1
    print("%d expressions keep the records listed; %d bad expressions give their messages" % (
        expressions, len(bad)))
    return 0


if __name__ == "__main__":
    sys.exit(main())
