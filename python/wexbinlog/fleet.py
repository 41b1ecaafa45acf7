"""Decoding many captures on a Dask distributed cluster.

One task per capture; each worker process loads a dictionary once and keeps
it (a module-level cache keyed by the directory's path). A capture that does
not exist, does not open or is damaged gives an error row, never an
exception that brings down the computation.

    from distributed import Client
    from wexbinlog import fleet
    with Client("tcp://scheduler:8786") as client:
        table = fleet.summary(paths, "/etc/dictionaries", client, udp_port=5000)
        frame = fleet.records(paths, "/etc/dictionaries", client, filter="level <= ERROR")
        errors = frame.compute()
"""

import argparse
import json
import sys

from . import Dictionary, __version__, check_filter

__all__ = ["summary", "records", "SUMMARY_COLUMNS", "RECORDS_COLUMNS", "main"]

#: The columns of summary(), one row per capture and module (and one row
#: with the error for a capture that failed or ended on damage).
SUMMARY_COLUMNS = [
    "capture",
    "module",
    "module_key",
    "records",
    "missing",
    "reorders",
    "unknown_ids",
    "first_time",
    "last_time",
    "error",
]

#: The columns of records(): the record's fixed fields, its values as a
#: dict {name: value} (array elements as name[i]), and the error of a
#: capture that failed (a row of its own, the other columns empty).
RECORDS_COLUMNS = [
    "capture",
    "record",
    "kind",
    "time",
    "epoch_us",
    "subsystem",
    "module",
    "log",
    "level",
    "level_no",
    "category",
    "seq",
    "text",
    "params",
    "error",
]

_dictionaries = {}


def _dictionary(path):
    """The worker's dictionary for `path`, loaded on first use."""
    dictionary = _dictionaries.get(path)
    if dictionary is None:
        dictionary = Dictionary(path)
        _dictionaries[path] = dictionary
    return dictionary


def _error_row(capture, message):
    return {
        "capture": capture,
        "module": None,
        "module_key": None,
        "records": 0,
        "missing": 0,
        "reorders": 0,
        "unknown_ids": 0,
        "first_us": None,
        "last_us": None,
        "error": message,
    }


def summarize_capture(capture, dictionary_dir, udp_port=0):
    """The summary rows of one capture (runs on a worker)."""
    try:
        result = _dictionary(dictionary_dir).summary(capture, udp_port)
    except Exception as error:  # noqa: BLE001 - any failure becomes the capture's error row
        return [_error_row(capture, str(error))]
    rows = [dict(row, capture=capture, error=None) for row in result["rows"]]
    if result["error"] is not None:
        rows.append(_error_row(capture, result["error"]))
    return rows


def _summary_frame(rows):
    import pandas

    frame = pandas.DataFrame.from_records(
        rows,
        columns=[
            "capture",
            "module",
            "module_key",
            "records",
            "missing",
            "reorders",
            "unknown_ids",
            "first_us",
            "last_us",
            "error",
        ],
    )
    for column in ("records", "missing", "reorders", "unknown_ids"):
        frame[column] = frame[column].astype("int64")
    # Empty in an error row.
    frame["module_key"] = pandas.array(list(frame["module_key"]), dtype="Int64")
    # Through a nullable integer array: a float column would round the
    # microseconds.
    for column in ("first", "last"):
        micros = pandas.array(list(frame.pop(column + "_us")), dtype="Int64")
        frame[column + "_time"] = pandas.to_datetime(micros, unit="us", utc=True)
    return frame[SUMMARY_COLUMNS]


def summary(paths, dictionary_dir, client, udp_port=0, timeout=None):
    """Decodes every capture on the cluster of `client` (one task each) and
    returns a pandas DataFrame of SUMMARY_COLUMNS, one row per capture and
    module in the order of `paths` (syslog records and plain capture records
    in the rows "(syslog)" and "(capture)", as binlog-decode --summary has
    them; a gap or reorder in the row of the record that revealed it): the
    records the statistics count (those decoded and those of unknown log
    ids, other versions, levels out of range or unknown packet types), the
    records missing by their sequence numbers, reorders and unknown log ids,
    and the first and last record times (the senders', UTC). Per capture, `records` sums to the
    >>totalRecords of `binlog-decode --stats` and `missing` to its
    >>missingRecords. A task that fails on the cluster (a worker lost, the
    timeout) gives an error row too."""
    paths = list(paths)
    futures = client.map(
        summarize_capture,
        paths,
        dictionary_dir=dictionary_dir,
        udp_port=udp_port,
        pure=False,
    )
    rows = []
    for capture, future in zip(paths, futures):
        try:
            rows.extend(future.result(timeout=timeout))
        except Exception as error:  # noqa: BLE001 - the cluster's failure, as an error row
            rows.append(_error_row(capture, "%s: %s" % (type(error).__name__, error)))
    return _summary_frame(rows)


def records_of_capture(capture, dictionary_dir, filter=None, udp_port=0, utc_offset=0,
                       max_var_bytes=65535):
    """The matching records of one capture as a pandas DataFrame of
    RECORDS_COLUMNS (runs on a worker); events are left out."""
    import pandas

    rows = []
    try:
        for item in _dictionary(dictionary_dir).read(
            capture,
            udp_port=udp_port,
            utc_offset=utc_offset,
            filter=filter,
            max_var_bytes=max_var_bytes,
        ):
            if "event" in item:
                continue
            values = {}
            for group in ("header", "params"):
                for field in item.get(group, ()):
                    name = field["name"]
                    if "index" in field:
                        name = "%s[%d]" % (name, field["index"])
                    values[name] = field["value"]
            row = {key: item.get(key) for key in RECORDS_COLUMNS[:-2]}
            row["params"] = values
            row["error"] = None
            rows.append(row)
    except Exception as error:  # noqa: BLE001 - the capture's failure, as a row of its own
        row = {key: None for key in RECORDS_COLUMNS}
        row["capture"] = capture
        row["error"] = str(error)
        rows.append(row)
    return pandas.DataFrame.from_records(rows, columns=RECORDS_COLUMNS).astype(object)


def records(paths, dictionary_dir, client=None, filter=None, udp_port=0, utc_offset=0,
            max_var_bytes=65535):
    """A dask.dataframe of the records `filter` keeps (all without one), one
    partition per capture, built lazily: nothing is decoded until it is
    computed, and a worker decodes one capture per task, so it holds at most
    one capture's matches at a time. Compute it on `client`:
    `client.compute(frame)` (or `frame.compute()` with `client` the default
    client). A bad filter expression raises ValueError at once."""
    import dask
    import dask.dataframe
    import pandas

    if filter is not None:
        check_filter(filter)  # a bad expression is said here, not by every task
    paths = list(paths)
    parts = [
        dask.delayed(records_of_capture, pure=False)(
            capture, dictionary_dir, filter, udp_port, utc_offset, max_var_bytes
        )
        for capture in paths
    ]
    meta = pandas.DataFrame({column: pandas.Series([], dtype=object) for column in RECORDS_COLUMNS})
    return dask.dataframe.from_delayed(parts, meta=meta, verify_meta=False)


# ---- The command line ------------------------------------------------------------------

PROGRAM = "binlog-fleet"


class _Formatter(argparse.HelpFormatter):
    """Starts the usage with "Usage:", as the other tools do (and as help2man
    reads it for the manual page's synopsis)."""

    def add_usage(self, usage, actions, groups, prefix=None):
        if prefix is None:
            prefix = "Usage: "
        super().add_usage(usage, actions, groups, prefix)


class _Parser(argparse.ArgumentParser):
    def __init__(self, **kwargs):
        kwargs.setdefault("formatter_class", _Formatter)
        super().__init__(**kwargs)

    def error(self, message):
        sys.stderr.write("%s: %s\n" % (PROGRAM, message))
        sys.stderr.write("usage: %s\n" % self.format_usage().split(": ", 1)[1].strip())
        sys.exit(2)


def _parser():
    parser = _Parser(
        prog=PROGRAM,
        description="Decode captures on a Dask cluster and print one row per capture "
        "and module.",
    )
    # --help and --version need neither Dask nor pandas: those are imported
    # once there is work to do.
    parser.add_argument("--version", action="version", version="%s %s" % (PROGRAM, __version__))
    where = parser.add_mutually_exclusive_group(required=True)
    where.add_argument("--scheduler", metavar="ADDRESS",
                       help="the Dask scheduler to run on (tcp://host:8786)")
    where.add_argument("--local", metavar="N", type=int,
                       help="run on a local cluster of N worker processes")
    parser.add_argument("-p", "--udp-port", type=int, default=0, metavar="PORT",
                        help="UDP destination port of the log datagrams in Ethernet captures")
    parser.add_argument("--format", choices=("text", "json"), default="text",
                        help="a table (text) or one JSON object per row")
    parser.add_argument("-o", "--output", default="-", metavar="FILE",
                        help="write here instead of standard output ('-')")
    parser.add_argument("dictionary", metavar="DICT", help="the dictionary directory")
    parser.add_argument("captures", metavar="CAPTURE", nargs="+", help="capture files")
    return parser


def _json_rows(frame):
    import pandas

    out = []
    for row in frame.to_dict(orient="records"):
        for key in ("first_time", "last_time"):
            value = row[key]
            row[key] = None if value is None or value != value else value.isoformat()
        value = row["module_key"]
        row["module_key"] = None if value is None or value is pandas.NA else int(value)
        if row["module"] != row["module"]:
            row["module"] = None
        out.append(json.dumps(row, ensure_ascii=False))
    return "".join(line + "\n" for line in out)


def main(argv=None):
    args = _parser().parse_args(argv)
    if args.local is not None and args.local < 1:
        sys.stderr.write("%s: --local needs at least 1 worker\n" % PROGRAM)
        return 2
    if not 0 <= args.udp_port <= 65535:
        sys.stderr.write("%s: --udp-port must be 0 to 65535\n" % PROGRAM)
        return 2
    try:
        from distributed import Client, LocalCluster
    except ImportError as error:
        sys.stderr.write("%s: Dask distributed is not installed: %s\n" % (PROGRAM, error))
        return 1
    try:
        if args.local is not None:
            with LocalCluster(n_workers=args.local, processes=True, threads_per_worker=1,
                              dashboard_address=None) as cluster, Client(cluster) as client:
                frame = summary(args.captures, args.dictionary, client, udp_port=args.udp_port)
        else:
            with Client(args.scheduler, timeout="30s") as client:
                frame = summary(args.captures, args.dictionary, client, udp_port=args.udp_port)
    except (OSError, TimeoutError) as error:
        sys.stderr.write("%s: cannot reach the cluster: %s\n" % (PROGRAM, error))
        return 1
    if args.format == "json":
        text = _json_rows(frame)
    else:
        text = frame.to_string(index=False) + "\n"
    try:
        if args.output == "-":
            sys.stdout.write(text)
            sys.stdout.flush()
        else:
            with open(args.output, "w", encoding="utf-8") as out:
                out.write(text)
    except OSError as error:
        sys.stderr.write("%s: cannot write '%s': %s\n" % (PROGRAM, args.output, error))
        return 1
    failed = frame["error"].notna()
    for capture, message in zip(frame["capture"][failed], frame["error"][failed]):
        sys.stderr.write("%s: %s\n" % (PROGRAM, message))
    return 1 if failed.any() else 0
