#!/usr/bin/env python3
"""Checks a golden case's JSON Lines and CSV output against its text output.

    check_structured.py json|csv --driver PATH [--emulator WORD]... --dict DIR
        --stats S --port P --maxvar M --offset O --capture-dir DIR
        --expected-out FILE --expected-err FILE --actual PREFIX [--jq PATH]
        CAPTURE...

json: runs golden_driver's json route over the captures and checks that
  - it exits with 0 and its standard error is the expected file's bytes;
  - every line of its standard output is one JSON object, read by Python's
    strict parser (UTF-8 that Python's own decoder accepts, no NaN or
    Infinity, no raw control characters, no repeated key) and, when jq is
    given, by jq to the same values;
  - records and events have the keys the format documents, in its order,
    with values of the documented types; every field a record's line shows
    (time, source, log name, level, category, sequence number, syslog tag,
    capture length) agrees with the record's own keys, and the time with
    epoch_us and the case's offset;
  - the records' "text" and the "message" of the events that the reader
    prints on standard output, one line each, are the expected standard
    output line for line, and the "message" of the other events are the
    expected standard error in order;
csv: runs the csv and the json route and checks that
  - the csv route exits with 0 with the expected standard error;
  - Python's csv module (strict) reads the output, which is the documented
    header row, then one row per JSON record, each row ending in CR LF, and
    Python's csv writer writes the rows back to the same bytes;
  - each row's capture, record, kind, time, subsystem, module, log, level,
    category and seq agree with the JSON record of the same position, its
    message with the record's line, its params with the JSON values.

Texts are compared as the JSON output decodes them: bytes of the expected
files and of the CSV that are not well-formed UTF-8 are read as the
characters U+0080 to U+00FF of the same value, one per byte.
"""

import argparse
import codecs
import csv
import datetime
import io
import json
import os
import re
import subprocess
import sys

# The events the reader prints on standard output; the others go to
# standard error.
OUTPUT_EVENTS = {"gap", "reorder", "summary", "version-mismatch", "level-out-of-range"}

# Every event's keys between "offset" and "message" (optional ones in a
# second tuple: present together or not at all).
EVENT_KEYS = {
    "open-failed": (["error"], []),
    "read-error": (["error"], []),
    "data-error": (["error", "uncompressed_bytes"], []),
    "bad-link-type": (["link_type"], []),
    "oversized": (["length"], []),
    "truncated": ([], ["expected", "present"]),
    "unknown-log-id": (["log_id", "packet_type", "epoch_us", "level_no", "seq", "payload"], []),
    "invalid-packet-type": (
        ["log_id", "packet_type", "epoch_us", "level_no", "seq", "payload"], []),
    "version-mismatch": (["log_id", "log", "version", "expected_version"], []),
    "level-out-of-range": (["log_id", "log", "level_no"], []),
    "syslog-too-short": (["length"], []),
    "var-binary-too-long": (["size", "count"], []),
    "display-not-found": (["display"], []),
    "gap": (["module", "last_seq", "seq", "missing", "missing_before"], []),
    "reorder": (["module", "last_seq", "seq"], []),
    "summary": (["total", "missing", "out_of_order", "bytes"],
                ["received_per_ms", "generated_per_ms"]),
    "resync": (["skipped", "compressed_skipped", "found"], []),
    "no-global-header": ([], []),
    "not-a-capture": ([], []),
    "display-unavailable": ([], []),
    "timestamp-failed": ([], []),
    "note": ([], []),
}
EVENT_STRING_KEYS = {"event", "capture", "message", "error", "log_id", "module", "log",
                     "payload", "display"}

RECORD_KEYS = {
    "binlog": ["capture", "record", "kind", "time", "epoch_us", "subsystem", "module", "log",
               "level", "level_no", "category", "seq", "header", "params", "text"],
    "legacy": ["capture", "record", "kind", "time", "epoch_us", "subsystem", "module", "log",
               "level", "level_no", "category", "seq", "frame", "params", "text"],
    "syslog": ["capture", "record", "kind", "time", "epoch_us", "level", "level_no", "tag",
               "message", "seq", "text"],
    "capture": ["capture", "record", "kind", "time", "epoch_us", "seq", "length", "text"],
}
INTEGER_TYPES = {"TavUint64_t", "TavInt64_t", "TavUint32_t", "TavInt32_t", "TavUint16_t",
                 "TavInt16_t", "TavUint8_t", "TavInt8_t"}
TYPE_RANGES = {
    "TavUint64_t": (0, 2**64 - 1), "TavInt64_t": (-2**63, 2**63 - 1),
    "TavUint32_t": (0, 2**32 - 1), "TavInt32_t": (-2**31, 2**31 - 1),
    "TavUint16_t": (0, 2**16 - 1), "TavInt16_t": (-2**15, 2**15 - 1),
    "TavUint8_t": (0, 2**8 - 1), "TavInt8_t": (-2**7, 2**7 - 1),
}
LEVEL_NAMES = {"CRITICAL": 1, "ERROR": 2, "WARN": 3, "NOTICE": 4, "INFO": 5, "DEBUG": 6,
               "DEVEL": 7, "ALWAYS": 8}
CSV_HEADER = b"capture,record,kind,time,subsystem,module,log,level,category,seq,message,params\r\n"


class CheckError(Exception):
    pass


def _bytes_as_characters(error):
    # Every byte that is not part of a well-formed sequence stands for the
    # character of its value (U+0080 to U+00FF).
    bad = error.object[error.start:error.end]
    return "".join(chr(b) for b in bad), error.end


codecs.register_error("golden-bytes-as-characters", _bytes_as_characters)


def decode_text(data):
    """Bytes as the JSON output decodes them (see the module's docstring)."""
    return data.decode("utf-8", "golden-bytes-as-characters")


def _reject_constant(name):
    raise ValueError("not JSON: %s" % name)


def _no_repeated_keys(pairs):
    seen = set()
    for key, _ in pairs:
        if key in seen:
            raise ValueError("key %r appears twice" % key)
        seen.add(key)
    return dict(pairs)


def parse_json_lines(data, jq=None):
    """Each line of `data` (bytes) as a JSON object; every check of the
    module's docstring on the syntax. Returns the list of objects."""
    if data and not data.endswith(b"\n"):
        raise CheckError("the JSON output does not end with a line feed")
    objects = []
    lines = data.split(b"\n")[:-1] if data else []
    for number, line in enumerate(lines, 1):
        try:
            text = line.decode("utf-8", "strict")
        except UnicodeDecodeError as error:
            raise CheckError("JSON line %d is not UTF-8: %s" % (number, error))
        try:
            value = json.loads(text, object_pairs_hook=_no_repeated_keys,
                               parse_constant=_reject_constant)
        except ValueError as error:
            raise CheckError("JSON line %d does not parse: %s\n%s" % (number, error, text))
        if not isinstance(value, dict):
            raise CheckError("JSON line %d is not an object: %s" % (number, text))
        objects.append(value)
    if jq:
        result = subprocess.run([jq, "-c", "."], input=data, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE)
        if result.returncode != 0:
            raise CheckError("jq refuses the JSON output: %s" % result.stderr.decode(
                "utf-8", "replace"))
        again = result.stdout.split(b"\n")[:-1] if result.stdout else []
        if len(again) != len(objects):
            raise CheckError("jq read %d values, Python %d" % (len(again), len(objects)))
        for number, (line, value) in enumerate(zip(again, objects), 1):
            if json.loads(line.decode("utf-8", "strict")) != value:
                raise CheckError("jq reads line %d differently: %s" % (number, line))
    return objects


def is_record(value):
    return "kind" in value


def _check_type(where, value, types):
    if isinstance(value, bool) or not isinstance(value, types):
        raise CheckError("%s: %r is not of the documented type" % (where, value))


def _check_integer(where, value, low, high):
    # Integers whose magnitude is 2^53 or more are strings of their digits.
    if isinstance(value, str):
        if not re.fullmatch(r"-?[0-9]+", value):
            raise CheckError("%s: %r is not an integer" % (where, value))
        number = int(value)
        if abs(number) < 2**53:
            raise CheckError("%s: %r should be a JSON number" % (where, value))
    else:
        _check_type(where, value, int)
        number = value
        if abs(number) >= 2**53:
            raise CheckError("%s: %r should be a string" % (where, value))
    if not low <= number <= high:
        raise CheckError("%s: %r is out of range" % (where, value))
    return number


def check_value(where, item):
    keys = list(item)
    wanted = ["name"] + (["index"] if "index" in item else []) + ["type", "value"]
    wanted += (["text"] if "text" in item else []) + (["enum"] if "enum" in item else [])
    if keys != wanted:
        raise CheckError("%s: keys %s" % (where, keys))
    _check_type(where + " name", item["name"], str)
    if "index" in item:
        _check_type(where + " index", item["index"], int)
    _check_type(where + " text", item.get("text", ""), str)
    _check_type(where + " enum", item.get("enum", ""), str)
    kind = item["type"]
    if kind in INTEGER_TYPES:
        _check_integer(where + " value", item["value"], *TYPE_RANGES[kind])
    elif kind in ("binarystring", "varbinarystring"):
        _check_type(where + " value", item["value"], str)
        if not re.fullmatch(r"(?:[0-9a-f]{2})*", item["value"]):
            raise CheckError("%s: %r is not lower-case hex" % (where, item["value"]))
    elif kind == "string":
        _check_type(where + " value", item["value"], str)
    else:
        raise CheckError("%s: unknown type %r" % (where, kind))


def _iso_time(epoch_us, offset_minutes):
    shown = datetime.datetime(1970, 1, 1) + datetime.timedelta(
        microseconds=epoch_us, minutes=offset_minutes)
    text = shown.strftime("%Y-%m-%dT%H:%M:%S") + ".%03d" % (shown.microsecond // 1000)
    if offset_minutes == 0:
        return text + "Z"
    sign = "+" if offset_minutes > 0 else "-"
    return text + "%s%02d:%02d" % (sign, abs(offset_minutes) // 60, abs(offset_minutes) % 60)


# The first fields of the lines (section of the README on the output line).
LOG_LINE = re.compile(r"\[([^\]]*)\] \[ *([^\]]*)\] \[ *([^\]]*)\] \[ *([^\]]*)\] "
                      r"\[ *([^\]]*)\] \[([0-9]+)\] ")
SYSLOG_LINE = re.compile(r"\[([^\]]*)\] \[syslog\] \[ *([^\]]*)\] \[ *([^\]]*)\] "
                         r"\[([0-9]+)\] \[(.*)\]", re.S)
CAPTURE_LINE = re.compile(r"\[([^\]]*)\] \[wireshark\] \[length=([0-9]+)\] "
                          r"\[seqNo= *([0-9]+)\]")


def check_record(where, record, offset_minutes):
    kind = record["kind"]
    if kind not in RECORD_KEYS:
        raise CheckError("%s: unknown kind %r" % (where, kind))
    if list(record) != RECORD_KEYS[kind]:
        raise CheckError("%s: keys %s, documented %s" % (where, list(record), RECORD_KEYS[kind]))
    for key in ("capture", "time", "text", "subsystem", "module", "log", "level", "category",
                "tag", "message", "frame"):
        if key in record:
            _check_type("%s %s" % (where, key), record[key], str)
    for key in ("record", "epoch_us", "level_no", "seq", "length"):
        if key in record:
            _check_integer("%s %s" % (where, key), record[key], 0, 2**64 - 1)
    if record["time"] != _iso_time(record["epoch_us"], offset_minutes):
        raise CheckError("%s: time %s is not epoch_us %d with %d minutes" % (
            where, record["time"], record["epoch_us"], offset_minutes))
    for part in ("header", "params"):
        if part in record:
            _check_type("%s %s" % (where, part), record[part], list)
            for i, item in enumerate(record[part]):
                _check_type("%s %s[%d]" % (where, part, i), item, dict)
                check_value("%s %s[%d]" % (where, part, i), item)
    if "level" in record and record["level"] in LEVEL_NAMES and \
            LEVEL_NAMES[record["level"]] != record["level_no"]:
        raise CheckError("%s: level %s with level_no %d" % (where, record["level"],
                                                            record["level_no"]))
    # The line shows the time without the offset's suffix ("Z" always).
    text = record["text"]
    if kind in ("binlog", "legacy"):
        match = LOG_LINE.match(text)
        shown = match and (match.group(1), match.group(2), match.group(3), match.group(4),
                           match.group(5), int(match.group(6)))
        own = (record["time"][:23] + "Z", record["subsystem"] + ":" + record["module"],
               record["log"], record["level"], record["category"], record["seq"])
    elif kind == "syslog":
        match = SYSLOG_LINE.fullmatch(text)
        shown = match and (match.group(1), match.group(2), match.group(3), int(match.group(4)),
                           match.group(5))
        own = (record["time"][:23] + "Z", record["tag"].lstrip(" "), record["level"],
               record["seq"], record["message"].replace("\n", "\\n"))
    else:
        match = CAPTURE_LINE.fullmatch(text)
        shown = match and (match.group(1), int(match.group(2)), int(match.group(3)))
        own = (record["time"][:23] + "Z", record["length"], record["seq"])
    if shown != own:
        raise CheckError("%s: the line shows %s, the keys say %s" % (where, shown, own))


def check_event(where, event):
    name = event.get("event")
    if name not in EVENT_KEYS:
        raise CheckError("%s: unknown event %r" % (where, name))
    required, optional = EVENT_KEYS[name]
    keys = list(event)
    inner = keys[4:-1]
    if keys[:4] != ["event", "capture", "record", "offset"] or keys[-1] != "message" or \
            (inner != required and inner != required + optional):
        raise CheckError("%s: keys %s" % (where, keys))
    for key, value in event.items():
        if key in EVENT_STRING_KEYS:
            _check_type("%s %s" % (where, key), value, str)
        elif key == "found":
            if not isinstance(value, bool):
                raise CheckError("%s: found %r" % (where, value))
        elif key in ("received_per_ms", "generated_per_ms"):
            _check_type("%s %s" % (where, key), value, (int, float))
        else:
            _check_integer("%s %s" % (where, key), value, -2**63, 2**64 - 1)


def _first_difference(expected, actual, what):
    expected_lines = expected.split("\n")
    actual_lines = actual.split("\n")
    for number, (want, got) in enumerate(zip(expected_lines, actual_lines), 1):
        if want != got:
            return "%s line %d:\n  expected %r\n  got      %r" % (what, number, want, got)
    return "%s: %d lines expected, %d got" % (what, len(expected_lines), len(actual_lines))


def check_json_run(objects, expected_out, expected_err, captures, offset_minutes):
    """The checks of a json run's objects against the expected text."""
    out = []
    err_pos = 0
    last = None
    for number, value in enumerate(objects, 1):
        where = "JSON line %d" % number
        if ("kind" in value) == ("event" in value):
            raise CheckError("%s is neither a record nor an event" % where)
        if is_record(value):
            check_record(where, value, offset_minutes)
            if value["capture"] not in captures:
                raise CheckError("%s: capture %r was not read" % (where, value["capture"]))
            place = (captures.index(value["capture"]), value["record"])
            if last is not None and place <= last:
                raise CheckError("%s: record %s after %s" % (where, place, last))
            last = place
            out.append(value["text"] + "\n")
        else:
            check_event(where, value)
            if value["event"] in OUTPUT_EVENTS:
                out.append(value["message"] + "\n")
            else:
                # The message is the text without its last line feed.
                message = value["message"]
                if not expected_err.startswith(message, err_pos):
                    raise CheckError("%s: message %r is not next on standard error: %r" % (
                        where, message, expected_err[err_pos:err_pos + 200]))
                err_pos += len(message)
                if expected_err.startswith("\n", err_pos):
                    err_pos += 1
    actual_out = "".join(out)
    if actual_out != expected_out:
        raise CheckError(_first_difference(expected_out, actual_out, "standard output"))
    if err_pos != len(expected_err):
        raise CheckError("standard error has more than the events' messages: %r" %
                         expected_err[err_pos:])


def run_driver(args, route, extra=(), cwd=None):
    command = list(args.emulator) + [args.driver] + list(extra) + [
        route, args.dict, args.stats, args.port, args.maxvar, args.offset] + list(args.captures)
    result = subprocess.run(command, cwd=cwd or args.capture_dir, stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE)
    return result


def _save(path, data):
    os.makedirs(os.path.dirname(path), exist_ok=True)
    with open(path, "wb") as f:
        f.write(data)


def parse_csv(data):
    """The rows of a CSV output (bytes), read by the csv module in strict
    mode, after checking the header row, the row ends, and that the csv
    writer writes the rows back to the same bytes. Fields are bytes."""
    if not data.startswith(CSV_HEADER):
        raise CheckError("the CSV output does not start with the header row %r: %r" % (
            CSV_HEADER, data[:200]))
    text = data.decode("utf-8", "surrogateescape")
    try:
        rows = list(csv.reader(io.StringIO(text, newline=""), strict=True))
    except csv.Error as error:
        raise CheckError("the csv module refuses the output: %s" % error)
    again = io.StringIO(newline="")
    writer = csv.writer(again, lineterminator="\r\n", quoting=csv.QUOTE_MINIMAL)
    writer.writerows(rows)
    if again.getvalue().encode("utf-8", "surrogateescape") != data:
        raise CheckError("the rows do not write back to the same bytes (quoting or row ends)")
    for number, row in enumerate(rows, 1):
        if len(row) != 12:
            raise CheckError("CSV row %d has %d fields: %r" % (number, len(row), row))
    return [[field.encode("utf-8", "surrogateescape") for field in row] for row in rows[1:]]


def check_csv_rows(rows, records):
    if len(rows) != len(records):
        raise CheckError("%d CSV rows for %d JSON records" % (len(rows), len(records)))
    for number, (row, record) in enumerate(zip(rows, records), 2):
        fields = [decode_text(field) for field in row]
        (capture, number_field, kind, time, subsystem, module, log, level, category, seq,
         message, params) = fields
        kind_ = record["kind"]
        wanted = [record["capture"], str(record["record"]), kind_, record["time"]]
        if kind_ in ("binlog", "legacy"):
            wanted += [record["subsystem"], record["module"], record["log"], record["level"],
                       record["category"]]
        elif kind_ == "syslog":
            wanted += ["", "", record["tag"], record["level"], ""]
        else:
            wanted += ["", "", "", "", ""]
        wanted.append(str(record["seq"]))
        if fields[:10] != wanted:
            raise CheckError("CSV row %d: %r, the JSON record says %r" % (
                number, fields[:10], wanted))
        text = record["text"]
        if kind_ == "binlog":
            good = text.endswith("[%s] " % message)
        elif kind_ == "syslog":
            good = text.endswith("[%s]" % message)
        elif kind_ == "legacy":
            good = message != "" and text.endswith(message)
        else:
            good = message == ""
        if not good:
            raise CheckError("CSV row %d: message %r does not end the line %r" % (
                number, message, text))
        values = record.get("header", []) + record.get("params", [])
        wanted_params = " ".join(
            "%s%s=%s" % (v["name"], "[%d]" % v["index"] if "index" in v else "", v["text"])
            for v in values)
        if params != wanted_params:
            raise CheckError("CSV row %d: params %r, the JSON values say %r" % (
                number, params, wanted_params))


def read_file(path):
    with open(path, "rb") as f:
        return f.read()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("mode", choices=["json", "csv"])
    parser.add_argument("--driver", required=True)
    parser.add_argument("--emulator", action="append", default=[])
    parser.add_argument("--dict", required=True)
    parser.add_argument("--stats", required=True)
    parser.add_argument("--port", required=True)
    parser.add_argument("--maxvar", required=True)
    parser.add_argument("--offset", required=True)
    parser.add_argument("--capture-dir", required=True)
    parser.add_argument("--expected-out", required=True)
    parser.add_argument("--expected-err", required=True)
    parser.add_argument("--actual", required=True)
    parser.add_argument("--jq")
    parser.add_argument("captures", nargs="+")
    args = parser.parse_args()

    expected_out = read_file(args.expected_out)
    expected_err = read_file(args.expected_err)
    try:
        json_run = run_driver(args, "json")
        _save(args.actual + ".json", json_run.stdout)
        _save(args.actual + ".json.err", json_run.stderr)
        if json_run.returncode != 0:
            raise CheckError("the json route exited with %d" % json_run.returncode)
        if json_run.stderr != expected_err:
            raise CheckError(_first_difference(decode_text(expected_err),
                                               decode_text(json_run.stderr),
                                               "json route, standard error"))
        objects = parse_json_lines(json_run.stdout, args.jq)
        check_json_run(objects, decode_text(expected_out), decode_text(expected_err),
                       [decode_text(os.fsencode(name)) for name in args.captures],
                       int(args.offset))
        records = [value for value in objects if is_record(value)]
        if args.mode == "csv":
            csv_run = run_driver(args, "csv")
            _save(args.actual + ".csv", csv_run.stdout)
            _save(args.actual + ".csv.err", csv_run.stderr)
            if csv_run.returncode != 0:
                raise CheckError("the csv route exited with %d" % csv_run.returncode)
            if csv_run.stderr != expected_err:
                raise CheckError(_first_difference(decode_text(expected_err),
                                                   decode_text(csv_run.stderr),
                                                   "csv route, standard error"))
            check_csv_rows(parse_csv(csv_run.stdout), records)
            print("%d CSV rows agree with the JSON records" % len(records))
        else:
            print("%d JSON lines (%d records) reproduce the expected output" % (
                len(objects), len(records)))
    except CheckError as error:
        print("FAILED: %s" % error, file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
