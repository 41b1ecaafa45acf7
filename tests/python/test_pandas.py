"""Dictionary.to_pandas: one row per record."""
import os

import wexbinlog


def as_text(data):
    """Bytes as read() gives them: UTF-8 as it is, every other byte as the
    character of its value."""
    return "".join(
        chr(ord(c) - 0xDC00) if 0xDC80 <= ord(c) <= 0xDCFF else c
        for c in data.decode("utf-8", "surrogateescape")
    )


def golden_text(name):
    here = os.path.dirname(os.path.abspath(__file__))
    path = os.path.join(here, "..", "golden", "expected", name)
    with open(path, "rb") as f:
        return as_text(f.read())


def test_rows_and_values(golden_dict, golden_captures):
    d = wexbinlog.Dictionary(golden_dict)
    for capture in golden_captures:
        try:
            items = [item for item in d.read(capture, udp_port=5000, max_var_bytes=4)
                     if "event" not in item]
        except (OSError, ValueError):
            continue
        frame = d.to_pandas(capture, udp_port=5000, max_var_bytes=4)
        assert len(frame) == len(items), capture
        assert list(frame.columns[:5]) == ["capture", "record", "kind", "time", "epoch_us"]
        for row, item in zip(frame.to_dict(orient="records"), items):
            assert row["record"] == item["record"] and row["seq"] == item["seq"]
            for group in ("header", "params"):
                for field in item.get(group, ()):
                    column = wexbinlog._column(field)
                    assert row[column] == field["value"], (capture, column)


def test_records_link150_lines(golden_dict, golden_captures):
    capture = [c for c in golden_captures if c.endswith("records_link150.pcap.gz")][0]
    frame = wexbinlog.Dictionary(golden_dict).to_pandas(capture, max_var_bytes=4)
    # The records' lines are the golden case's expected output, line by line
    # (bytes that are not UTF-8 compared as the characters of their value).
    # (A syslog message keeps its line feed: the lines are compared joined.)
    expected = golden_text("records_link150.out")
    assert len(frame) > 10
    assert "".join(text + "\n" for text in frame["text"]) == expected
    kinds = set(frame["kind"])
    assert kinds == {"binlog", "legacy", "syslog", "capture"}
    # A plain capture record has no level; binary log records have theirs.
    assert frame[frame["kind"] == "capture"]["level"].isna().all()
    assert frame[frame["kind"] == "binlog"]["level_no"].notna().all()
