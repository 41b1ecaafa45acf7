"""Dictionary.read: the same objects as binlog-decode --format json."""
import json
import os
import pickle
import subprocess

import pytest

import wexbinlog
from conftest import synth


def decode_json(tools, dictionary, capture, *options):
    """binlog-decode --format json: (exit status, the objects, standard error)."""
    run = subprocess.run(
        [tools["decode"], "--dict", dictionary, "--format", "json", "-j", "1", *options,
         capture],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    objects = [json.loads(line) for line in run.stdout.decode("utf-8").splitlines()]
    return run.returncode, objects, run.stderr.decode("utf-8", "replace")


def check_same(tools, dictionary, capture, udp_port=5000, stats=False, max_var_bytes=65535,
               utc_offset=0, filter=None):
    options = ["-p", str(udp_port), "-m", str(max_var_bytes), "-u", str(utc_offset)]
    if stats:
        options.append("--stats")
    if filter is not None:
        options += ["-Y", filter]
    status, expected, errors = decode_json(tools, dictionary, capture, *options)
    d = wexbinlog.Dictionary(dictionary)
    try:
        got = list(d.read(capture, udp_port=udp_port, utc_offset=utc_offset, stats=stats,
                          filter=filter, max_var_bytes=max_var_bytes))
    except (OSError, ValueError) as error:
        # What binlog-decode does not decode at all: nothing on standard
        # output, a failure, and the same reason.
        assert status == 1 and expected == [], (capture, str(error))
        assert "'%s'" % capture in str(error)
        return None
    assert len(got) == len(expected), capture
    for mine, theirs in zip(got, expected):
        assert mine == theirs
        # The same keys in the same order.
        assert list(mine) == list(theirs)
    return got


def test_every_golden_capture(tools, golden_dict, golden_captures):
    decoded = 0
    for capture in golden_captures:
        for stats in (False, True):
            if check_same(tools, golden_dict, capture, stats=stats, max_var_bytes=4) is not None:
                decoded += 1
    # Most of the corpus decodes; the rest is refused as binlog-decode refuses it.
    assert decoded >= 2 * 30


def test_options_and_filter(tools, golden_dict, golden_captures):
    capture = [c for c in golden_captures if c.endswith("records_link150.pcap.gz")][0]
    got = check_same(tools, golden_dict, capture, utc_offset=-330, max_var_bytes=2)
    assert got and got[0]["time"].endswith("-05:30")
    kept = check_same(tools, golden_dict, capture, filter="kind == binlog && level <= NOTICE")
    assert kept and all(item["kind"] == "binlog" and item["level_no"] <= 4 for item in kept)
    assert len(kept) < len(got)


def test_random_captures(tools, golden_dict, tmp_path):
    for seed, extra in ((1, ()), (2, ("--gap-every", "7", "--reorder-every", "11")),
                        (3, ("--link", "ipv4")), (4, ("--gzip",))):
        capture = synth(tools, golden_dict, str(tmp_path / ("random%d.pcap" % seed)), 3000,
                        seed, *extra)
        for stats in (False, True):
            got = check_same(tools, golden_dict, capture, stats=stats)
            assert got is not None and len(got) >= 3000


def test_non_utf8_text(tools, golden_dict, golden_captures):
    capture = [c for c in golden_captures if c.endswith("non_utf8.pcap")][0]
    got = check_same(tools, golden_dict, capture)
    # Bytes that are not UTF-8 read as the characters of their value.
    texts = "".join(item.get("text", "") + item.get("message", "") for item in got)
    assert any("\u0080" <= c <= "\u00ff" for c in texts)


def test_dictionary_errors_and_pickling(golden_dict, tmp_path):
    with pytest.raises(ValueError) as error:
        wexbinlog.Dictionary(str(tmp_path / "none"))
    assert "cannot load the dictionaries in '%s'" % (tmp_path / "none") in str(error.value)
    broken = tmp_path / "broken"
    broken.mkdir()
    (broken / "x_binlog.xml").write_text("<not closed")
    with pytest.raises(ValueError) as error:
        wexbinlog.Dictionary(str(broken))
    # The library's own message comes with it.
    assert len(str(error.value)) > len("cannot load the dictionaries in '%s'" % broken)

    d = wexbinlog.Dictionary(golden_dict)
    copy = pickle.loads(pickle.dumps(d))
    assert copy.path == golden_dict
    # It pickles as its path: the bytes hold the path, not the tables.
    assert len(pickle.dumps(d)) < 200 + len(golden_dict)


def test_bad_input_raises(golden_dict, golden_captures, tmp_path):
    d = wexbinlog.Dictionary(golden_dict)
    with pytest.raises(OSError) as error:
        list(d.read(str(tmp_path / "missing.pcap")))
    assert "cannot open '%s'" % (tmp_path / "missing.pcap") in str(error.value)
    text = tmp_path / "notes.pcap"
    text.write_bytes(b"hello, this is no capture\n")
    with pytest.raises(ValueError):
        list(d.read(str(text)))
    ethernet = [c for c in golden_captures if c.endswith("ethernet_ipv4.pcap.gz")][0]
    with pytest.raises(ValueError) as error:
        list(d.read(ethernet))
    assert "udp_port" in str(error.value)
    with pytest.raises(ValueError) as error:
        d.read(ethernet, udp_port=5000, filter="level <=")
    assert "invalid filter expression" in str(error.value)
    # Damaged captures: what was read, then the damage as an event.
    for name in ("gzip_cut.pcap.gz", "gzip_bad_crc.pcap.gz", "truncated_data.pcap",
                 "oversized_record.pcap.gz"):
        capture = os.path.join(os.path.dirname(ethernet), name)
        items = list(d.read(capture, udp_port=5000))
        assert any(item.get("event") in ("truncated", "data-error", "oversized")
                   for item in items), name


def test_a_dictionary_with_mistakes_warns_when_loaded(tools, capsys, tmp_path):
    # Loads, but the typo shifts every value after it: the checker's error
    # is shown once, as binlog-decode shows it, and lint=False silences it.
    typo = tmp_path / "typo"
    typo.mkdir()
    (typo / "l2_mac_binlog.xml").write_text(
        '<?xml version="1.0"?>\n'
        '<LoggingSubSystem subsystem="L2" subsystemId="2" module="mac" moduleid="1"'
        ' binlogversion="1">\n'
        '  <LogId name="Grant" category="SCHED" logString="Grant">\n'
        '    <param type="TavUInt64_t" nameList="imsi"/>\n'
        '  </LogId>\n'
        '</LoggingSubSystem>\n')
    d = wexbinlog.Dictionary(str(typo))
    expected = ('wexbinlog: warning: %s/l2_mac_binlog.xml:4: unknown type "TavUInt64_t" '
                '(did you mean "TavUint64_t"?): its parameters take no bytes and show no '
                'value [unknown-type]\n' % typo)
    assert capsys.readouterr().err == expected
    # binlog-decode says the same of it.
    run = subprocess.run([tools["decode"], "--dict", str(typo), "/dev/null"],
                         stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    first = run.stderr.decode().splitlines()[0]
    assert first == expected.replace("wexbinlog:", "binlog-decode:", 1).rstrip("\n")
    # Unpickled where it goes, and with lint=False: nothing.
    pickle.loads(pickle.dumps(d))
    wexbinlog.Dictionary(str(typo), lint=False)
    assert capsys.readouterr().err == ""
