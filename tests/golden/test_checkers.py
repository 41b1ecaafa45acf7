#!/usr/bin/env python3
"""Shows that check_structured.py's checks fail on what they must refuse.

A small run (a record, a statistics event and an error event) written by
hand passes; each damaged copy of it (bad JSON, keys out of order, a field
that disagrees with the line, a text that differs from the expected output,
bad CSV) must raise CheckError. Run by ctest as golden.checkers.
"""

import copy
import json
import sys

# No compiled copy of the checker in the source tree.
sys.dont_write_bytecode = True
import check_structured as cs  # noqa: E402

TEXT = ("[2023-11-14T22:13:20.001Z] [CORE:SCHED] [                 UeAttach] [    INFO] "
        "[     SCHED] [100] [cellId=17 ] [UE state=ACTIVE] ")
RECORD = {
    "capture": "a.pcap", "record": 1, "kind": "binlog", "time": "2023-11-14T22:13:20.001Z",
    "epoch_us": 1700000000001000, "subsystem": "CORE", "module": "SCHED", "log": "UeAttach",
    "level": "INFO", "level_no": 5, "category": "SCHED", "seq": 100,
    "header": [{"name": "cellId", "type": "TavUint16_t", "value": 17, "text": "17"}],
    "params": [{"name": "state", "type": "TavUint16_t", "value": 1, "text": "ACTIVE",
                "enum": "CellState"}],
    "text": TEXT,
}
GAP = {"event": "gap", "capture": "a.pcap", "record": 1, "offset": 24, "module": "0x102",
       "last_seq": 1, "seq": 100, "missing": 98, "missing_before": 0,
       "message": ">>gap"}
NOT_FOUND = {"event": "display-not-found", "capture": "a.pcap", "record": 1, "offset": 24,
             "display": "X", "message": "Displayformat X not found"}
OBJECTS = [GAP, RECORD, NOT_FOUND]
OUT = ">>gap\n" + TEXT + "\n"
ERR = "Displayformat X not found\n"
CSV = (cs.CSV_HEADER + b"a.pcap,1,binlog,2023-11-14T22:13:20.001Z,CORE,SCHED,UeAttach,INFO,"
       b"SCHED,100,UE state=ACTIVE,cellId=17 state=ACTIVE\r\n")

failures = []


def lines(objects):
    return b"".join(json.dumps(value, separators=(",", ":")).encode() + b"\n"
                    for value in objects)


def run(objects_data=None, out=OUT, err=ERR, csv_data=CSV):
    data = lines(OBJECTS) if objects_data is None else objects_data
    objects = cs.parse_json_lines(data)
    cs.check_json_run(objects, out, err, ["a.pcap"], 0)
    cs.check_csv_rows(cs.parse_csv(csv_data), [v for v in objects if cs.is_record(v)])


def refused(what, **kwargs):
    try:
        run(**kwargs)
    except cs.CheckError:
        return
    failures.append(what)


def changed(change):
    objects = copy.deepcopy(OBJECTS)
    change(objects)
    return lines(objects)


def main():
    run()  # the run as written passes

    good = lines(OBJECTS)
    refused("NaN", objects_data=good.replace(b'"seq":100,', b'"seq":NaN,', 1))
    refused("a repeated key", objects_data=good.replace(b'"seq":100,', b'"seq":100,"seq":100,', 1))
    refused("a line that is no object", objects_data=b"[1]\n" + good)
    refused("two objects on a line", objects_data=good.replace(b"}\n", b"} {}\n", 1))
    refused("a byte that is not UTF-8", objects_data=good.replace(b"UeAttach", b"UeAtt\xe9ch", 1))
    refused("no line feed at the end", objects_data=good[:-1])
    refused("a raw tab in a string", objects_data=good.replace(b"UE state", b"UE\tstate", 1))

    def swap(objects):
        record = objects[1]
        objects[1] = dict([("record", record["record"]), ("capture", record["capture"])] +
                          [(k, v) for k, v in record.items() if k not in ("record", "capture")])
    refused("record keys out of order", objects_data=changed(swap))
    refused("a missing key", objects_data=changed(lambda o: o[1].pop("category")))
    refused("an event key too many", objects_data=changed(lambda o: o[0].update(extra=1)))
    refused("a level that is not its number",
            objects_data=changed(lambda o: o[1].update(level_no=6)))
    refused("a time that is not epoch_us",
            objects_data=changed(lambda o: o[1].update(epoch_us=1700000000002000)))
    refused("a seq the line does not show", objects_data=changed(lambda o: o[1].update(seq=101)))
    refused("a 64-bit value as a JSON number",
            objects_data=changed(lambda o: o[1]["params"][0].update(
                type="TavUint64_t", value=2**53)))
    refused("a value out of its type's range",
            objects_data=changed(lambda o: o[1]["params"][0].update(value=70000)))
    refused("a capture that was not read",
            objects_data=changed(lambda o: [v.update(capture="b.pcap") for v in o]))

    refused("a line that differs", out=OUT.replace("ACTIVE", "IDLE"))
    refused("a line missing", out=OUT + "more\n")
    refused("an event message that differs", err="Displayformat Y not found\n")
    refused("more on standard error", err=ERR + "Warning\n")
    refused("an output event that is expected on standard error",
            out=TEXT + "\n", err=">>gap\n" + ERR)

    refused("a wrong CSV header", csv_data=CSV.replace(b"params", b"param", 1))
    refused("a CSV row ending in LF", csv_data=CSV[:-2] + b"\n")
    refused("a CSV row without its end", csv_data=CSV[:-2])
    refused("a CSV field with a comma unquoted",
            csv_data=CSV.replace(b"UE state=ACTIVE", b"UE, state=ACTIVE"))
    refused("a quote inside an unquoted CSV field",
            csv_data=CSV.replace(b"UE state=ACTIVE", b"UE\"state=ACTIVE"))
    refused("a CSV field quoted without need",
            csv_data=CSV.replace(b"UE state=ACTIVE", b'"UE state=ACTIVE"'))
    refused("a CSV column that disagrees", csv_data=CSV.replace(b",SCHED,100,", b",SCHED,101,"))
    refused("a CSV message that is not the line's",
            csv_data=CSV.replace(b"UE state=ACTIVE", b"UE state=IDLE"))
    refused("CSV params that are not the values", csv_data=CSV.replace(b"cellId=17", b"cellId=18"))
    refused("a CSV row too many", csv_data=CSV + CSV[len(cs.CSV_HEADER):])

    for what in failures:
        print("FAILED: accepted %s" % what, file=sys.stderr)
    if failures:
        return 1
    print("every damaged copy is refused")
    return 0


if __name__ == "__main__":
    sys.exit(main())
