#!/usr/bin/env python3
"""Bytes that are not UTF-8 in JSON and CSV output, capture names included.

    check_non_utf8.py --driver PATH [--emulator WORD]... --dict DIR
        --capture FILE --expected-out FILE --expected-err FILE [--jq PATH]

Copies the capture non_utf8.pcap (captures/non_utf8.pcap.synth) into a
temporary directory under a name with two bytes that are not UTF-8,
b"caf\\xe9\\xff.pcap", and reads it there, followed by a missing file named
b"missing\\xfe.pcap", on the json and the csv route. Checks:
  - the JSON is valid (Python's strict parser, jq) and reproduces the
    expected text output and standard error (check_structured.py's checks);
  - the JSON writes each byte that is not part of a well-formed UTF-8
    sequence as the escape \\u0080 .. \\u00ff of its value, keeps well-formed
    UTF-8 as it is, and escapes the quote, the backslash, the tab and DEL:
    the string values, the syslog tag and message, the capture's name and
    the open failure's message are compared as bytes of the JSON line;
  - the CSV holds the bytes as they are, and quotes the field with the
    comma and the quotes.
"""

import argparse
import os
import shutil
import sys
import tempfile

# No compiled copy of the checker in the source tree.
sys.dont_write_bytecode = True
import check_structured as cs  # noqa: E402

NAME = b"caf\xe9\xff.pcap"
MISSING = b"missing\xfe.pcap"

# Per record of non_utf8.pcap: byte strings each JSON line must contain.
JSON_PIECES = {
    1: [b'"capture":"caf\\u00e9\\u00ff.pcap"',
        b'{"name":"s","type":"string","value":"caf\\u00e9 \xc3\xa9\\u00ff",'
        b'"text":"caf\\u00e9 \xc3\xa9\\u00ff"}'],
    2: [b'"value":"\\u00c0\\u00af\\u00ed\\u00a0\\u0080\\u00e2\\u0082("'],
    3: [b'"value":"\\u00fe\\u00ff"', b'"value":"\xe2\x82\xac\\u0080"'],
    4: [b'"tag":"t\\u00e4g"',
        b'"message":"m\\u00fcnchen \\u00f4\\u0090\\u0080\\u0080 caf\xc3\xa9\\n\\u0080end"'],
    5: [b'"value":"a,\\"b\\"\\\\\\t\\u007f"'],
}

# The same values as Python decodes them.
DECODED = {
    1: ("s", "caf\u00e9 \u00e9\u00ff"),
    2: ("s", "\u00c0\u00af\u00ed\u00a0\u0080\u00e2\u0082("),
    3: ("trailer", "\u20ac\u0080"),
    5: ("s", 'a,"b"\\\t\x7f'),
}

# Per record: the CSV row's log, message and params columns, as bytes.
CSV_FIELDS = {
    1: (b"TextBraces", b"s=caf\xe9 \xc3\xa9\xff", b"s=caf\xe9 \xc3\xa9\xff y=2"),
    2: (b"TextBraces", b"s=\xc0\xaf\xed\xa0\x80\xe2\x82(", b"s=\xc0\xaf\xed\xa0\x80\xe2\x82( y=0"),
    4: (b"t\xe4g", b"m\xfcnchen \xf4\x90\x80\x80 caf\xc3\xa9\\n\x80end", b""),
    5: (b"TextBraces", b's=a,"b"\\\t\x7f', b's=a,"b"\\\t\x7f y=0'),
}
# The quoted field of record 5's message, as the CSV holds it.
CSV_QUOTED = b'"s=a,""b""\\\t\x7f"'


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--emulator", action="append", default=[])
    parser.add_argument("--dict", required=True)
    parser.add_argument("--capture", required=True)
    parser.add_argument("--expected-out", required=True)
    parser.add_argument("--expected-err", required=True)
    parser.add_argument("--jq")
    args = parser.parse_args()

    with tempfile.TemporaryDirectory() as directory:
        shutil.copyfile(args.capture, os.path.join(os.fsencode(directory), NAME))
        args.capture_dir = directory
        args.captures = [os.fsdecode(NAME), os.fsdecode(MISSING)]
        args.stats, args.port, args.maxvar, args.offset = "0", "5000", "4", "0"
        try:
            check(args)
        except cs.CheckError as error:
            print("FAILED: %s" % error, file=sys.stderr)
            return 1
    print("the bytes that are not UTF-8 decode as documented in JSON and stay in CSV")
    return 0


def check(args):
    expected_out = cs.read_file(args.expected_out)
    # The missing file's failure comes after the records.
    expected_err = cs.read_file(args.expected_err) + b"File open failed [" + MISSING + b"]\n"

    run = cs.run_driver(args, "json")
    if run.returncode != 0 or run.stderr != expected_err:
        raise cs.CheckError("json route: exit %d, standard error %r, expected %r" % (
            run.returncode, run.stderr, expected_err))
    objects = cs.parse_json_lines(run.stdout, args.jq)
    cs.check_json_run(objects, cs.decode_text(expected_out), cs.decode_text(expected_err),
                      ["caf\u00e9\u00ff.pcap", "missing\u00fe.pcap"], 0)
    lines = run.stdout.split(b"\n")[:-1]
    records = [value for value in objects if cs.is_record(value)]
    if [record["record"] for record in records] != [1, 2, 3, 4, 5]:
        raise cs.CheckError("records %s, expected 1 to 5" % [r["record"] for r in records])
    for line, value in zip(lines, objects):
        if not cs.is_record(value):
            continue
        for piece in JSON_PIECES[value["record"]]:
            if piece not in line:
                raise cs.CheckError("record %d: %r not in %r" % (value["record"], piece, line))
        if value["capture"] != "caf\u00e9\u00ff.pcap":
            raise cs.CheckError("record %d: capture %r" % (value["record"], value["capture"]))
        if value["record"] in DECODED:
            name, text = DECODED[value["record"]]
            found = [item["value"] for item in value["params"] if item["name"] == name]
            if found != [text]:
                raise cs.CheckError("record %d: %s is %r, expected %r" % (
                    value["record"], name, found, text))
    syslog = records[3]
    if (syslog["tag"], syslog["message"]) != (
            "t\u00e4g", "m\u00fcnchen \u00f4\u0090\u0080\u0080 caf\u00e9\n\u0080end"):
        raise cs.CheckError("syslog tag %r, message %r" % (syslog["tag"], syslog["message"]))
    failure = objects[-1]
    if failure.get("event") != "open-failed" or failure["capture"] != "missing\u00fe.pcap" or \
            failure["message"] != "File open failed [missing\u00fe.pcap]" or \
            b'"message":"File open failed [missing\\u00fe.pcap]"' not in lines[-1]:
        raise cs.CheckError("the last line is not the open failure: %r" % lines[-1])

    run = cs.run_driver(args, "csv")
    if run.returncode != 0 or run.stderr != expected_err:
        raise cs.CheckError("csv route: exit %d, standard error %r" % (run.returncode,
                                                                       run.stderr))
    rows = cs.parse_csv(run.stdout)
    cs.check_csv_rows(rows, records)
    for number, row in enumerate(rows, 1):
        if row[0] != NAME:
            raise cs.CheckError("CSV row %d: capture %r" % (number, row[0]))
        if number in CSV_FIELDS and (row[6], row[10], row[11]) != CSV_FIELDS[number]:
            raise cs.CheckError("CSV row %d: log, message, params %r, expected %r" % (
                number, (row[6], row[10], row[11]), CSV_FIELDS[number]))
    if CSV_QUOTED not in run.stdout:
        raise cs.CheckError("the CSV does not hold %r" % CSV_QUOTED)


if __name__ == "__main__":
    sys.exit(main())
