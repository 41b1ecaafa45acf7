#!/usr/bin/env python3
"""binlog-decode --report FILE.html.

    report_test.py CASE DECODE SYNTH DICT_DIR CAPTURE_DIR WORK_DIR [CHROMIUM]

static: the page of the golden captures read as HTML by Python: one file,
        nothing fetched (no script, no src or href), the tables' figures the
        same as --summary --format json, the filter named, names from the
        captures escaped; its size does not grow with the records.
browser-golden, browser-large: the page rendered by headless Chromium
        (--dump-dom): the tables of the rendered DOM hold the figures of
        --summary --format json (golden captures; a 1,000,000-record
        synthetic capture), and a screenshot is not blank. Skipped, with a
        loud message, only when chromium is not installed (exit 77).
"""
import html.parser
import json
import os
import random
import shutil
import struct
import subprocess
import sys
import zlib

CASE, DECODE, SYNTH, DICT, CAPS, WORK = sys.argv[1:7]
CHROMIUM = sys.argv[7] if len(sys.argv) > 7 else ""
COLUMNS = ["records", "gaps", "missing", "reorders", "duplicates", "unknown_ids",
           "version_mismatches", "level_errors", "malformed"]
GOLDEN = ["stats_a.pcap.gz", "stats_b.pcap", "stats_c.pcap.gz", "stats_d.pcap.gz",
          "header_only.pcap", "dispatch_checks.pcap"]
failures = []


def check(condition, what):
    if not condition:
        failures.append(what)
        print("FAIL:", what, file=sys.stderr)


def decode(*args, cwd=CAPS):
    proc = subprocess.run([DECODE, "--no-progress", "-d", DICT] + list(args), cwd=cwd,
                          capture_output=True, env=dict(os.environ, TZ="UTC0"))
    if proc.returncode not in (0, 1):
        raise SystemExit(f"binlog-decode {' '.join(args)}: exit {proc.returncode}: "
                         f"{proc.stderr.decode(errors='replace')}")
    return proc


class Tables(html.parser.HTMLParser):
    """The text of every cell of every table with an id, row by row; the
    text of elements with an id; the tags and attributes used."""

    def __init__(self):
        super().__init__(convert_charrefs=True)
        self.tables = {}
        self.ids = {}
        self.tags = set()
        self.attributes = set()
        self._table = None
        self._cell = None
        self._open_ids = []

    def handle_starttag(self, tag, attrs):
        self.tags.add(tag)
        attrs = dict(attrs)
        self.attributes.update(attrs)
        if tag == "table" and "id" in attrs:
            self._table = attrs["id"]
            self.tables[self._table] = []
        elif tag == "tr" and self._table:
            self.tables[self._table].append([])
        elif tag in ("td", "th") and self._table:
            self._cell = ""
        if "id" in attrs:
            self.ids.setdefault(attrs["id"], "")
            self._open_ids.append((tag, attrs["id"]))

    def handle_endtag(self, tag):
        if tag in ("td", "th") and self._table and self._cell is not None:
            self.tables[self._table][-1].append(self._cell)
            self._cell = None
        elif tag == "table":
            self._table = None
        if self._open_ids and self._open_ids[-1][0] == tag:
            self._open_ids.pop()

    def handle_data(self, data):
        if self._cell is not None:
            self._cell += data
        for _, ident in self._open_ids:
            self.ids[ident] += data


def parse(text):
    parser = Tables()
    parser.feed(text)
    parser.close()
    return parser


def compare_summary(page, rows, label):
    """The module table of the page holds the rows of --summary -T json."""
    table = page.tables.get("summary-table")
    check(table is not None, f"{label}: the page has the module table")
    if table is None:
        return
    check(table[0] == ["module", "first", "last"] + COLUMNS, f"{label}: header {table[0]}")
    expected = []
    for r in rows:
        expected.append([r.get("module", "(total)"), r["first"] or "-", r["last"] or "-"] +
                        [str(r[c]) for c in COLUMNS])
    check(table[1:] == expected, f"{label}: module table\n{table[1:]}\nexpected\n{expected}")
    total = rows[-1]
    for ident, key in (("total-records", "records"), ("total-missing", "missing"),
                       ("total-reorders", "reorders"), ("total-unknown-ids", "unknown_ids")):
        check(page.ids.get(ident, "").strip() == str(total[key]),
              f"{label}: overview {ident} {page.ids.get(ident)!r}, expected {total[key]}")


def summary_rows(*args, cwd=CAPS):
    out = decode("--summary-only", "-T", "json", *args, cwd=cwd).stdout.decode()
    return [json.loads(line) for line in out.splitlines()]


def check_golden_page(page, label):
    rows = summary_rows(*GOLDEN)
    compare_summary(page, rows, label)
    captures = page.tables.get("capture-table", [])
    check([r[0] for r in captures[1:]] == GOLDEN, f"{label}: capture rows {captures}")
    # stats_b is cut short; its one record is counted.
    by_name = {r[0]: r for r in captures[1:]}
    check(by_name.get("stats_b.pcap", [""] * 13)[12] == "truncated",
          f"{label}: stats_b damaged: {by_name.get('stats_b.pcap')}")
    check(by_name.get("stats_b.pcap", [""] * 4)[3] == "1", f"{label}: stats_b records")
    check(page.ids.get("damaged-captures", "").strip() == "1", f"{label}: damaged captures")
    # dispatch_checks: 0x1020009 twice (records 1 and 9), 0x7070001 once.
    check(page.tables.get("unknown-table", [])[1:] ==
          [["0x1020009", "CORE:SCHED", "2", "dispatch_checks.pcap", "1"],
           ["0x7070001", "0x0707", "1", "dispatch_checks.pcap", "2"]],
          f"{label}: unknown ids {page.tables.get('unknown-table')}")
    # Gaps and reorders: CORE:SCHED 10 -> 13 (2 missing) and 12 after 13 in
    # stats_a, 15 -> 17 in stats_c, 1 -> 3 and 3 -> 7 in dispatch_checks.
    marks = [(r[1], r[2], r[3], r[4], r[5]) for r in page.tables.get("marks-table", [])[1:]]
    check(marks == [("CORE:SCHED", "gap", "10", "13", "2"), ("CORE:SCHED", "reorder", "13", "12", ""),
                    ("CORE:SCHED", "gap", "15", "17", "1"), ("CORE:SCHED", "gap", "1", "3", "1"),
                    ("CORE:SCHED", "gap", "3", "7", "3")], f"{label}: marks {marks}")
    # The dictionary's logs that no record showed: its coverage table lists
    # every log of the dictionary that is not UeAttach or RxPower.
    coverage = page.tables.get("coverage-table", [])
    check(["CORE:SCHED", "0x1020001", "UeAttach"] not in coverage and
          ["RADIO:PHY", "0x2010001", "RxPower"] not in coverage and len(coverage) > 1,
          f"{label}: coverage {coverage[:4]}")
    # The top logs: UeAttach 7 records, then RxPower 3 (dispatch 2, stats_c 1).
    top = page.tables.get("top-logs-table", [])
    check(top[1:3] == [["1", "CORE:SCHED", "UeAttach", "7"], ["2", "RADIO:PHY", "RxPower", "3"]],
          f"{label}: top logs {top[:3]}")
    timeline = page.tables.get("timeline-table", [])
    check(sum(int(r[-1]) for r in timeline[1:]) == rows[-1]["records"],
          f"{label}: the timeline's buckets add up to the records")
    levels = page.tables.get("levels-table", [])
    check(sum(int(c) for r in levels[1:] for c in r[1:]) ==
          rows[-1]["records"] - 1,  # the plain capture record has no level
          f"{label}: the level table adds up to the records with a level")


def make_report(*args, cwd=CAPS, name="report.html"):
    os.makedirs(WORK, exist_ok=True)
    path = os.path.join(WORK, name)
    decode("--report", path, "-o", os.path.join(WORK, "lines.txt"), *args, cwd=cwd)
    with open(path, "rb") as f:
        return path, f.read()


def case_static():
    path, data = make_report(*GOLDEN)
    text = data.decode("utf-8")
    page = parse(text)
    check_golden_page(page, "static")
    # Records rendered by worker threads count on the page as the serial
    # run's do (a syslog record's tag, the shown time with an offset): the
    # same page.
    for jobs in ("1", "2", "3"):
        _, other = make_report("-j", jobs, *GOLDEN, name=f"golden-j{jobs}.html")
        check(other == data, f"-j {jobs}: the same page as the default run")
    _, shifted = make_report("-j", "1", "--utc-offset", "-90", *GOLDEN, name="shifted-j1.html")
    check(b"2023-11-14T20:43:20" in shifted, "-j 1 --utc-offset -90: times shifted")
    for jobs in ("2", "3"):
        _, other = make_report("-j", jobs, "--utc-offset", "-90", *GOLDEN,
                               name=f"shifted-j{jobs}.html")
        check(other == shifted, f"-j {jobs} --utc-offset -90: the same page as -j 1")
    # Self-contained: no script, nothing that loads or links anything.
    check("script" not in page.tags, "no script element")
    check(not ({"src", "href"} & page.attributes), f"no src or href: {page.attributes}")
    check(text.count("http") == text.count('xmlns="http://www.w3.org/2000/svg"'),
          "no address but the SVG namespace")
    check(page.ids.get("filter", "") == "none: every record", "no filter named")
    # Hovering a mark shows the module, the sequence numbers and the time.
    check('<path class="mark gap" d="M' in text and
          "<title>CORE:SCHED: gap, sequence 13 after 10 (2 missing) at "
          "2023-11-14T22:13:20.200Z</title></path>" in text, "a gap's mark and its title")
    check("<title>CORE:SCHED: reorder, sequence 12 after 13 at 2023-11-14T22:13:20.300Z"
          "</title></path>" in text, "a reorder's mark and its title")
    # dispatch_checks' first gap is revealed by record 3 (a version mismatch,
    # not printed) at 22:13:20.003: the mark has that record's time.
    check("<title>CORE:SCHED: gap, sequence 3 after 1 (1 missing) at "
          "2023-11-14T22:13:20.003Z</title></path>" in text, "a mark at an unprinted record")
    # Captures that are not decoded are listed with why.
    _, data = make_report("missing.pcap", "wrong_linktype.pcap", "ethernet_ipv4.pcap.gz",
                          "stats_a.pcap.gz", name="unread.html")
    page = parse(data.decode("utf-8"))
    check([(r[0], r[3], r[12]) for r in page.tables["capture-table"][1:]] ==
          [("missing.pcap", "0", "not opened"), ("wrong_linktype.pcap", "0", "not opened"),
           ("ethernet_ipv4.pcap.gz", "0", "not decoded: no --udp-port"),
           ("stats_a.pcap.gz", "6", "")], f"unread captures: {page.tables['capture-table']}")
    check(page.ids.get("damaged-captures", "").strip() == "3", "three captures not read")
    # With a filter: the page says which, and counts the records it keeps.
    _, data = make_report("-Y", "module == RADIO:PHY && seq < 6", "--since",
                          "2023-11-14T22:13:20Z", *GOLDEN, name="filtered.html")
    page = parse(data.decode("utf-8"))
    check(page.ids.get("filter", "") ==
          "module == RADIO:PHY && seq < 6 and time >= 2023-11-14T22:13:20Z",
          f"filter named: {page.ids.get('filter')!r}")
    compare_summary(page, summary_rows("-Y", "module == RADIO:PHY && seq < 6", "--since",
                                       "2023-11-14T22:13:20Z", *GOLDEN), "filtered")
    # Names from captures are escaped: a capture named like markup stays text.
    odd = os.path.join(WORK, "odd")
    os.makedirs(odd, exist_ok=True)
    name = "<b>&\"x'\xe9.pcap"
    shutil.copy(os.path.join(CAPS, "stats_a.pcap.gz"), os.path.join(odd, name))
    bad = os.path.join(os.fsencode(odd), b"bad\xff.pcap")
    shutil.copy(os.path.join(CAPS, "stats_a.pcap.gz"), bad)
    shutil.copy(os.path.join(CAPS, "stats_a.pcap.gz"), os.path.join(odd, "ctl\x01\x7f.pcap"))
    _, data = make_report(name, "bad\udcff.pcap", "ctl\x01\x7f.pcap", cwd=odd, name="odd.html")
    # Control characters as their control pictures, U+2401 and U+2421.
    check(b"ctl&#x2401;&#x2421;.pcap" in data, "control characters as control pictures")
    check(b"<b>" not in data.split(b"<body>")[1].replace(b"<b>and</b>", b""),
          "no markup from a capture name")
    check("&lt;b&gt;&amp;&quot;x&#39;\xe9.pcap".encode() in data, "the name escaped")
    check(b"bad&#xFF;.pcap" in data, "a byte that is not UTF-8 as a character reference")
    page = parse(data.decode("utf-8"))
    check([r[0] for r in page.tables["capture-table"][1:]] ==
          [name, "bad\xff.pcap", "ctl\u2401\u2421.pcap"],
          f"names read back: {page.tables['capture-table']}")
    # The size depends on the modules, logs and buckets, not on the records:
    # 100,000 and 200,000 records of the same mix (enough gaps and reorders
    # to fill the list of marks) give pages of about the same size.
    sizes = []
    for count in ("100000", "200000"):
        capture = os.path.join(WORK, count + ".pcap.gz")
        subprocess.run([SYNTH, "-d", DICT, "-o", capture, "-n", count, "--rate", count,
                        "--gap-every", "97", "--reorder-every", "89"],
                       check=True, capture_output=True)
        _, page_bytes = make_report("-j", "2", capture, name=count + ".html")
        sizes.append(len(page_bytes))
        check(b"gaps and reorders are marked and listed (one in " in page_bytes,
              f"{count}: marks sampled")
    check(abs(sizes[0] - sizes[1]) < sizes[0] // 20 and max(sizes) < 400000,
          f"report sizes: {sizes[0]} for 100,000 records, {sizes[1]} for 200,000")
    check_timeline_order()


def pcap_in_order(source, target, order):
    """Writes the records of the plain pcap `source` to `target` in another
    order: "reversed", or "shuffled" (a fixed seed)."""
    with open(source, "rb") as f:
        data = f.read()
    records, at = [], 24
    while at + 16 <= len(data):
        length = struct.unpack_from("<I", data, at + 8)[0]
        records.append(data[at:at + 16 + length])
        at += 16 + length
    if order == "reversed":
        records.reverse()
    else:
        random.Random(7).shuffle(records)
    with open(target, "wb") as f:
        f.write(data[:24] + b"".join(records))


def check_timeline_order():
    """The timeline's buckets do not depend on the order of the records:
    the same records in time order, reversed and shuffled (times spread
    over hours, so the buckets widen many times) give the same charts."""
    ordered = os.path.join(WORK, "ordered.pcap")
    subprocess.run([SYNTH, "-d", DICT, "-o", ordered, "--plain", "-n", "20000", "--rate",
                    "2.5", "--seed", "5"], check=True, capture_output=True)
    pages = {}
    for order in ("ordered", "reversed", "shuffled"):
        capture = os.path.join(WORK, order + ".pcap")
        if order != "ordered":
            pcap_in_order(ordered, capture, order)
        for jobs in ("1", "2"):
            _, data = make_report("-j", jobs, capture, name=f"{order}-{jobs}.html")
            page = parse(data.decode("utf-8"))
            pages[(order, jobs)] = (page.tables.get("timeline-table"),
                                    page.tables.get("levels-table"))
    first = pages[("ordered", "1")]
    check(first[0] is not None and len(first[0]) > 2 and
          sum(int(r[-1]) for r in first[0][1:]) == 20000, f"timeline of 20,000: {first[0]}")
    for key, tables in pages.items():
        check(tables == first, f"timeline and levels of {key} as in time order")


def chromium(*args):
    return subprocess.run([CHROMIUM, "--headless", "--no-sandbox", "--disable-gpu",
                           "--disable-dev-shm-usage", "--no-first-run", "--mute-audio",
                           "--user-data-dir=" + os.path.join(WORK, "profile")] + list(args),
                          capture_output=True, timeout=120)


def png_colours(path):
    """The distinct pixel values of an 8-bit RGB or RGBA PNG."""
    with open(path, "rb") as f:
        data = f.read()
    check(data[:8] == b"\x89PNG\r\n\x1a\n", "the screenshot is a PNG")
    pos, idat, width, height, kind = 8, b"", 0, 0, 0
    while pos < len(data):
        length, = struct.unpack(">I", data[pos:pos + 4])
        tag = data[pos + 4:pos + 8]
        body = data[pos + 8:pos + 8 + length]
        if tag == b"IHDR":
            width, height, depth, kind = struct.unpack(">IIBB", body[:10])
            check(depth == 8 and kind in (2, 6), f"PNG depth {depth}, colour type {kind}")
        elif tag == b"IDAT":
            idat += body
        pos += 12 + length
    raw = zlib.decompress(idat)
    bpp = 3 if kind == 2 else 4
    stride = width * bpp
    previous = bytearray(stride)
    colours = set()
    for y in range(height):
        start = y * (stride + 1)
        kind_of_filter = raw[start]
        line = bytearray(raw[start + 1:start + 1 + stride])
        for i in range(stride):
            a = line[i - bpp] if i >= bpp else 0
            b = previous[i]
            c = previous[i - bpp] if i >= bpp else 0
            if kind_of_filter == 1:
                line[i] = (line[i] + a) & 0xff
            elif kind_of_filter == 2:
                line[i] = (line[i] + b) & 0xff
            elif kind_of_filter == 3:
                line[i] = (line[i] + (a + b) // 2) & 0xff
            elif kind_of_filter == 4:
                p = a + b - c
                pa, pb, pc = abs(p - a), abs(p - b), abs(p - c)
                line[i] = (line[i] + (a if pa <= pb and pa <= pc else b if pb <= pc else c)) & 0xff
        if y % 4 == 0:
            for x in range(0, stride, bpp * 2):
                colours.add(bytes(line[x:x + 3]))
        previous = line
    return colours


def browser_check(path, rows, label, screenshot=True):
    proc = chromium("--dump-dom", "file://" + path)
    check(proc.returncode == 0, f"{label}: chromium --dump-dom exit {proc.returncode}: "
          f"{proc.stderr.decode(errors='replace')[-2000:]}")
    page = parse(proc.stdout.decode("utf-8"))
    compare_summary(page, rows, label + " (rendered)")
    if screenshot:
        png = os.path.join(WORK, label + ".png")
        proc = chromium("--screenshot=" + png, "--window-size=1100,1400", "file://" + path)
        check(proc.returncode == 0 and os.path.exists(png), f"{label}: screenshot taken")
        if os.path.exists(png):
            colours = png_colours(png)
            check(len(colours) > 8, f"{label}: the screenshot shows {len(colours)} colours")
    return page


def case_browser_golden():
    path, _ = make_report(*GOLDEN)
    page = browser_check(path, summary_rows(*GOLDEN), "golden")
    check_golden_page(page, "golden (rendered)")


def case_browser_large():
    capture = os.path.join(WORK, "million.pcap.gz")
    os.makedirs(WORK, exist_ok=True)
    subprocess.run([SYNTH, "-d", DICT, "-o", capture, "-n", "1000000", "--rate", "20000",
                    "--gap-every", "1009", "--reorder-every", "997", "--repeat-every", "991"],
                   check=True, capture_output=True)
    # One run writes the report and prints the table it describes.
    path = os.path.join(WORK, "million.html")
    out = decode("-j", "2", "--summary-only", "-T", "json", "--report", path,
                 capture).stdout.decode()
    rows = [json.loads(line) for line in out.splitlines()]
    check(rows[-1]["records"] == 1000000, f"a million records: {rows[-1]}")
    check(rows[-1]["missing"] > 0 and rows[-1]["reorders"] > 0, f"gaps and reorders: {rows[-1]}")
    size = os.path.getsize(path)
    check(size < 2000000, f"the page of a million records is {size} bytes")
    page = browser_check(path, rows, "large")
    timeline = page.tables.get("timeline-table", [])
    check(sum(int(r[-1]) for r in timeline[1:]) == 1000000, "the timeline adds up")


shutil.rmtree(WORK, ignore_errors=True)
os.makedirs(WORK, exist_ok=True)
if CASE.startswith("browser"):
    if not CHROMIUM or not os.access(CHROMIUM, os.X_OK):
        print("*" * 72 + "\nSKIPPED: chromium is not installed, so the HTML report is not checked "
              "in a browser.\nInstall it (scripts/install-deps.sh --tests) to run this test.\n" +
              "*" * 72, file=sys.stderr)
        sys.exit(77)
{"static": case_static, "browser-golden": case_browser_golden,
 "browser-large": case_browser_large}[CASE]()
if failures:
    print(f"{len(failures)} failure(s)", file=sys.stderr)
    sys.exit(1)
print(f"report.{CASE}: ok")
