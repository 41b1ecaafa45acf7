#!/usr/bin/python3
"""Records per second of the wexbinlog package against `gzip -dc`.

    PYTHONPATH=build/python /usr/bin/python3 bench/python_read.py \
        --synth build/bin/binlog-synth [--dict DIR] [--capture FILE] \
        [--records 2000000] [--rounds 5] [--fleet 20]

Writes a gzip capture of RECORDS random records with binlog-synth (the
golden dictionary unless --dict says otherwise), or takes --capture (for
the figures beside scripts/bench-e2e.sh's: its dictionary and 2,000,000-record
capture, kept with BENCH_KEEP=1 BENCH_WORK=DIR), then times in ROUNDS
alternating rounds: `gzip -dc CAPTURE > /dev/null`, `d.read` (every dict
built and dropped) and, in the first PANDAS_ROUNDS of them, `d.to_pandas`.
Prints the medians as records per second and as a ratio to the `gzip -dc`
rate, and a floor beside them: CPython's own C code (marshal.loads) building
the dicts of the first FLOOR records again from a compact binary form, with no
decoding at all; no route that hands out these dicts can run faster. With --fleet N, also times
fleet.summary over N captures of RECORDS / N records on a local cluster of 1
and of 2 worker processes (the cluster is started before the clock runs).
The machine's other load moves these figures: compare ratios of one run.
"""
import argparse
import os
import statistics
import subprocess
import sys
import tempfile
import time


def timed(function):
    start = time.perf_counter()
    result = function()
    return time.perf_counter() - start, result


def gzip_dc(capture):
    with open(os.devnull, "wb") as sink:
        subprocess.run(["gzip", "-dc", capture], stdout=sink, check=True)


def main():
    here = os.path.dirname(os.path.abspath(__file__))
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--synth", required=True, help="the binlog-synth tool")
    parser.add_argument("--dict", default=os.path.join(here, "..", "tests", "golden", "dict",
                                                       "main"))
    parser.add_argument("--capture", help="an existing capture of RECORDS records")
    parser.add_argument("--records", type=int, default=2000000)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--fleet", type=int, default=0, metavar="N")
    parser.add_argument("--floor", type=int, default=50000, metavar="FLOOR",
                        help="records whose dicts are rebuilt by marshal.loads (0: none)")
    parser.add_argument("--pandas-rounds", type=int, default=1, metavar="N",
                        help="rounds that also time to_pandas (the slowest route; 0: none)")
    args = parser.parse_args()

    import wexbinlog

    work = tempfile.mkdtemp(prefix="wexbl-pybench-")
    capture = args.capture
    if capture is None:
        capture = os.path.join(work, "bench.pcap.gz")
        subprocess.run([args.synth, "--dict", args.dict, "--output", capture, "--records",
                        str(args.records), "--seed", "7", "--gzip-level", "6"], check=True,
                       stdout=subprocess.DEVNULL)
    d = wexbinlog.Dictionary(args.dict)

    def read_all():
        # Records (the dicts of events are built too, and not counted).
        count = 0
        for item in d.read(capture):
            if "event" not in item:
                count += 1
        return count

    times = {"gzip -dc": [], "d.read (dicts)": [], "d.to_pandas": []}
    counts = {}
    for round_ in range(args.rounds):
        times["gzip -dc"].append(timed(lambda: gzip_dc(capture))[0])
        seconds, counts["d.read (dicts)"] = timed(read_all)
        times["d.read (dicts)"].append(seconds)
        print("round %d: gzip -dc %.2f s, d.read %.2f s" % (
            round_ + 1, times["gzip -dc"][-1], seconds), file=sys.stderr, flush=True)
        if round_ < args.pandas_rounds:
            seconds, frame = timed(lambda: d.to_pandas(capture))
            counts["d.to_pandas"] = len(frame)
            del frame
            times["d.to_pandas"].append(seconds)
    records = counts["d.read (dicts)"]
    base = records / statistics.median(times["gzip -dc"])
    print("%-28s %14s %8s" % ("route", "records/s", "ratio"))
    for name, samples in times.items():
        if not samples:
            continue
        rate = records / statistics.median(samples)
        print("%-28s %14.0f %8.2f" % (name, rate, rate / base))
    if args.floor:
        import itertools
        import marshal

        blobs = [marshal.dumps(item) for item in
                 itertools.islice((i for i in d.read(capture) if "event" not in i), args.floor)]

        def rebuild():
            for blob in blobs:
                marshal.loads(blob)

        seconds = statistics.median(timed(rebuild)[0] for _ in range(args.rounds))
        rate = len(blobs) / seconds
        print("%-28s %14.0f %8.2f" % ("floor: marshal.loads", rate, rate / base))
    if args.fleet:
        from distributed import Client, LocalCluster

        from wexbinlog import fleet

        paths = []
        for i in range(args.fleet):
            path = os.path.join(work, "fleet%02d.pcap.gz" % i)
            subprocess.run([args.synth, "--dict", args.dict, "--output", path, "--records",
                            str(records // args.fleet), "--seed", str(10 + i),
                            "--gzip-level", "6"],
                           check=True, stdout=subprocess.DEVNULL)
            paths.append(path)
        for workers in (1, 2):
            with LocalCluster(n_workers=workers, processes=True, threads_per_worker=1,
                              dashboard_address=None) as cluster, Client(cluster) as client:
                fleet.summary(paths[:1], args.dict, client)  # dictionaries loaded, warm
                samples = []
                for _ in range(args.rounds):
                    samples.append(timed(lambda: fleet.summary(paths, args.dict, client))[0])
            rate = (records // args.fleet) * args.fleet / statistics.median(samples)
            print("%-28s %14.0f %8.2f" % ("fleet.summary, %d worker%s" % (
                workers, "" if workers == 1 else "s"), rate, rate / base))
    for name in os.listdir(work):
        os.unlink(os.path.join(work, name))
    os.rmdir(work)
    return 0


if __name__ == "__main__":
    sys.exit(main())
