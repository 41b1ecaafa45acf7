"""Fleet decoding on local Dask clusters of worker processes."""
import json
import os
import subprocess

import pytest

from conftest import decode_stats, synth


@pytest.fixture(scope="module")
def cluster_client():
    from distributed import Client, LocalCluster

    with LocalCluster(n_workers=2, processes=True, threads_per_worker=1,
                      dashboard_address=None) as cluster:
        with Client(cluster, timeout="60s") as client:
            yield client


@pytest.fixture(scope="module")
def fleet_captures(tools, golden_dict, tmp_path_factory):
    """20 random captures, some with gaps and reorders, some compressed or
    Ethernet-framed."""
    directory = tmp_path_factory.mktemp("fleet")
    paths = []
    for i in range(20):
        extra = ["--gap-every", str(5 + i), "--reorder-every", str(9 + i)] if i % 2 else []
        if i % 3 == 0:
            extra.append("--gzip")
        if i % 5 == 4:
            extra += ["--link", "ipv4"]
        name = "c%02d.pcap%s" % (i, ".gz" if i % 3 == 0 else "")
        paths.append(synth(tools, golden_dict, str(directory / name), 500 + 97 * i, 100 + i,
                           *extra))
    return paths


def test_summary_equals_stats(cluster_client, tools, golden_dict, fleet_captures,
                              golden_captures, tmp_path):
    from wexbinlog import fleet

    missing = str(tmp_path / "gone.pcap")
    damaged = [c for c in golden_captures if c.endswith("gzip_cut.pcap.gz")][0]
    paths = fleet_captures + [missing, damaged]
    table = fleet.summary(paths, golden_dict, cluster_client, udp_port=5000, timeout=120)
    assert list(table.columns) == fleet.SUMMARY_COLUMNS
    assert list(dict.fromkeys(table["capture"])) == paths
    for capture in fleet_captures:
        rows = table[table["capture"] == capture]
        assert rows["error"].isna().all()
        total, lost = decode_stats(tools, golden_dict, capture)
        assert rows["records"].sum() == total, capture
        assert rows["missing"].sum() == lost, capture
        assert (rows["first_time"] <= rows["last_time"]).all()
    # The first and last times of a module whose counted records all came
    # out as records: those of its records, to the microsecond.
    import pandas
    import wexbinlog

    d = wexbinlog.Dictionary(golden_dict)
    compared = 0
    for capture in fleet_captures[:4]:
        times = {}
        for item in d.read(capture, udp_port=5000):
            if item.get("kind") in ("binlog", "legacy"):
                name = "%s:%s" % (item["subsystem"], item["module"])
                times.setdefault(name, []).append(item["epoch_us"])
        for row in table[table["capture"] == capture].itertuples():
            if row.module in times and len(times[row.module]) == row.records:
                first = pandas.Timestamp(min(times[row.module]), unit="us", tz="UTC")
                last = pandas.Timestamp(max(times[row.module]), unit="us", tz="UTC")
                assert (row.first_time, row.last_time) == (first, last)
                compared += 1
    assert compared >= 4
    # Row by row as binlog-decode --summary counts the capture alone: the
    # same rows ("(syslog)" and "(capture)" for the records counted by kind),
    # and in each the same gaps' missing records, reorders and unknown ids.
    for capture in fleet_captures:
        run = subprocess.run([tools["decode"], "--dict", golden_dict, "--summary-only", "-T",
                              "json", "-p", "5000", "-j", "1", capture],
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        expected = {r["module"]: (r["missing"], r["reorders"], r["unknown_ids"])
                    for r in map(json.loads, run.stdout.decode().splitlines())
                    if r["summary"] == "module"}
        rows = table[table["capture"] == capture]
        got = {r.module: (r.missing, r.reorders, r.unknown_ids) for r in rows.itertuples()}
        assert got == expected, capture
    assert (table["module"] == "(syslog)").any() and (table["module"] == "(capture)").any()
    # The gaps written into the odd captures show.
    assert table[table["capture"].isin(fleet_captures[1::2])]["missing"].sum() > 0
    assert table[table["capture"].isin(fleet_captures[1::2])]["reorders"].sum() > 0
    gone = table[table["capture"] == missing]
    assert len(gone) == 1 and "cannot open" in gone["error"].iloc[0]
    cut = table[table["capture"] == damaged]
    assert cut["error"].notna().sum() == 1
    assert cut["error"].dropna().iloc[0].startswith("'%s': " % damaged)
    # The cluster is still there.
    assert cluster_client.submit(sum, [1, 2], pure=False).result(timeout=60) == 3


def test_records_lazy_per_capture(cluster_client, golden_dict, fleet_captures):
    import wexbinlog
    from wexbinlog import fleet

    expression = "level <= ERROR"
    frame = fleet.records(fleet_captures[:4], golden_dict, cluster_client,
                          filter=expression, udp_port=5000)
    assert frame.npartitions == 4
    result = cluster_client.compute(frame).result(timeout=120)
    d = wexbinlog.Dictionary(golden_dict)
    expected = [item for capture in fleet_captures[:4]
                for item in d.read(capture, udp_port=5000, filter=expression)
                if "event" not in item]
    assert len(result) == len(expected) > 0
    assert list(result["record"]) == [item["record"] for item in expected]
    assert (result["level_no"] <= 2).all()
    assert result["error"].isna().all()
    with pytest.raises(ValueError) as error:
        fleet.records(fleet_captures, golden_dict, cluster_client, filter="level <=")
    assert "invalid filter expression" in str(error.value)


def test_binlog_fleet_command(tools, golden_dict, fleet_captures, tmp_path):
    missing = str(tmp_path / "gone.pcap")
    run = subprocess.run(
        [tools["fleet"], "--local", "2", "--format", "json", "-p", "5000", golden_dict,
         fleet_captures[0], fleet_captures[1], missing],
        stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120,
    )
    # A capture that failed: its row, a message, exit status 1.
    assert run.returncode == 1, run.stderr
    rows = [json.loads(line) for line in run.stdout.decode().splitlines()]
    for capture in fleet_captures[:2]:
        total, _ = decode_stats(tools, golden_dict, capture)
        assert sum(r["records"] for r in rows if r["capture"] == capture) == total
    assert [r["capture"] for r in rows if r["error"]] == [missing]
    assert ("binlog-fleet: cannot open '%s'" % missing) in run.stderr.decode()
    usage = subprocess.run([tools["fleet"], golden_dict], stdout=subprocess.PIPE,
                           stderr=subprocess.PIPE, timeout=60)
    assert usage.returncode == 2 and usage.stderr.startswith(b"binlog-fleet: ")


BIG_DICTIONARY = """<?xml version="1.0" encoding="UTF-8"?>
<LoggingSubSystem subsystem="BIG" subsystemId="3" module="BLOB" moduleid="1" binlogversion="1">
  <LogId name="Blob" logString="blob {n}" category="DATA">
    <Param type="TavUint32_t" nameList="n"/>
    <Param type="binarystring" nameList="data" size="20000"/>
  </LogId>
</LoggingSubSystem>
"""


def test_records_memory_bounded(tools, tmp_path):
    """Two captures of about 300 MB each (records of 20,000 bytes, which as
    dicts take more still) through a worker whose memory limit is 300 MB: a
    filter keeps about 1 % of the records, and the worker, which decodes one
    capture at a time and never holds more than its matches, finishes."""
    import dask
    from distributed import Client, LocalCluster

    import wexbinlog
    from wexbinlog import fleet

    dictionary = tmp_path / "dict"
    dictionary.mkdir()
    (dictionary / "big_binlog.xml").write_text(BIG_DICTIONARY)
    limit = 300 * 1000 * 1000
    paths = []
    for seed in (1, 2):
        path = synth(tools, str(dictionary), str(tmp_path / ("big%d.pcap" % seed)), 16000,
                     seed, "--plain")
        assert os.path.getsize(path) > limit
        paths.append(path)
    expression = "level == CRITICAL"
    d = wexbinlog.Dictionary(str(dictionary))
    expected = [(item["capture"], item["record"]) for path in paths
                for item in d.read(path, filter=expression) if "event" not in item]
    assert 0 < len(expected) < 1000
    # The nanny ends a worker that goes over 95 % of its limit (and the task
    # then fails); nothing is spilled or paused on the way.
    with dask.config.set({"distributed.worker.memory.target": False,
                          "distributed.worker.memory.spill": False,
                          "distributed.worker.memory.pause": False,
                          "distributed.worker.memory.terminate": 0.95}):
        with LocalCluster(n_workers=1, processes=True, threads_per_worker=1,
                          memory_limit=limit, dashboard_address=None) as cluster:
            with Client(cluster, timeout="60s") as client:
                frame = fleet.records(paths, str(dictionary), client, filter=expression)
                result = client.compute(frame).result(timeout=120)
                memory = client.run(lambda dask_worker: dask_worker.monitor.get_process_memory())
    # 600 MB of captures are not left behind in the test's directory.
    for path in paths:
        os.unlink(path)
    assert result["error"].isna().all()
    assert list(zip(result["capture"], result["record"])) == expected
    assert all(0 < used < limit for used in memory.values())
