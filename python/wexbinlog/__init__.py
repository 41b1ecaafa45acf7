"""Binary log captures decoded with XML dictionaries, as Python data.

    import wexbinlog
    d = wexbinlog.Dictionary("/etc/dictionaries")
    for item in d.read("capture.pcap.gz", udp_port=5000, filter="level <= WARN"):
        ...  # one dict per record and event, the keys of binlog-decode --format json
    frame = d.to_pandas("capture.pcap.gz", udp_port=5000)

Dictionary(path) raises ValueError with the library's messages when the
directory does not load; a Dictionary pickles as its path (it loads again
where it is unpickled). read() raises OSError for a capture that cannot be
opened or read and ValueError for a file that is no capture or a UDP-framed
capture without udp_port; damage after the first record comes as event
dicts ("truncated", "data-error", ...), as binlog-decode writes them.
"""

from ._wexbinlog import Dictionary, Reader, __version__, check_filter

__all__ = ["Dictionary", "Reader", "RECORD_COLUMNS", "__version__", "check_filter"]

#: The columns of to_pandas() before the parameters' own, in this order.
RECORD_COLUMNS = [
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
    "tag",
    "message",
    "seq",
    "frame",
    "length",
    "text",
]
_FIXED = frozenset(RECORD_COLUMNS)


def _column(field):
    """A value's column: its name, name[i] for an array element; a name
    that is one of the fixed columns gets "param." in front."""
    name = field["name"]
    if name in _FIXED:
        name = "param." + name
    if "index" in field:
        name = "%s[%d]" % (name, field["index"])
    return name


def record_row(item):
    """A record dict of read() as one flat row: the fixed fields, then one
    entry per header and parameter value (its "value")."""
    row = {key: item[key] for key in RECORD_COLUMNS if key in item}
    for group in ("header", "params"):
        for field in item.get(group, ()):
            row[_column(field)] = field["value"]
    return row


def _to_pandas(self, capture, udp_port=0, utc_offset=0, filter=None, max_var_bytes=65535):
    """The capture's records as a pandas DataFrame, one row per record:
    the columns of RECORD_COLUMNS (empty where a record has no such field:
    a plain capture record has no level, only syslog records a tag), then one
    column per parameter name in the order first met (module header values
    first; array elements as name[i]). Events are left out."""
    import pandas

    rows = []
    columns = {}
    for item in self.read(
        capture,
        udp_port=udp_port,
        utc_offset=utc_offset,
        filter=filter,
        max_var_bytes=max_var_bytes,
    ):
        if "event" in item:
            continue
        row = record_row(item)
        for key in row:
            columns.setdefault(key, None)
        rows.append(row)
    params = [key for key in columns if key not in _FIXED]
    return pandas.DataFrame.from_records(rows, columns=RECORD_COLUMNS + params)


Dictionary.to_pandas = _to_pandas
