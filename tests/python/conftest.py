"""Where the tests find the build: set by CTest (tests/python/CMakeLists.txt)."""
import os
import subprocess

import pytest


def _env(name):
    value = os.environ.get(name)
    if not value:
        raise RuntimeError("%s is not set: run these tests through ctest" % name)
    return value


@pytest.fixture(scope="session")
def tools():
    return {
        "decode": _env("WEXBL_BINLOG_DECODE"),
        "synth": _env("WEXBL_BINLOG_SYNTH"),
        "fleet": _env("WEXBL_BINLOG_FLEET"),
    }


@pytest.fixture(scope="session")
def golden_dict():
    return _env("WEXBL_GOLDEN_DICT")


@pytest.fixture(scope="session")
def golden_captures():
    directory = _env("WEXBL_GOLDEN_CAPTURES")
    names = sorted(
        name for name in os.listdir(directory) if ".pcap" in name and not name.endswith(".cmd")
    )
    assert len(names) >= 30, "the golden captures are missing from %s" % directory
    return [os.path.join(directory, name) for name in names]


def synth(tools, dictionary, path, records, seed, *extra):
    """Writes a random capture with binlog-synth."""
    subprocess.run(
        [tools["synth"], "--dict", dictionary, "--output", path, "--records", str(records),
         "--seed", str(seed), *extra],
        check=True,
        stdout=subprocess.DEVNULL,
    )
    return path


def decode_stats(tools, dictionary, capture, udp_port=5000):
    """binlog-decode --stats on one capture: (totalRecords, missingRecords),
    or None when it printed no summary."""
    run = subprocess.run(
        [tools["decode"], "--dict", dictionary, "--stats", "-p", str(udp_port), "-j", "1",
         capture],
        stdout=subprocess.PIPE,
        stderr=subprocess.PIPE,
    )
    total = missing = None
    for line in run.stdout.decode("utf-8", "replace").splitlines():
        if line.startswith(">>totalRecords ="):
            total = int(line.split("=", 1)[1])
        elif line.startswith(">>missingRecords ="):
            missing = int(line.split("=", 1)[1].split()[0])
    if total is None:
        return None
    return total, 0 if missing is None else missing
