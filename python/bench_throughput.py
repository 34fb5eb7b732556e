"""Python row of the file throughput benchmark: the access units of a file
through qosdkmm.FileInput (unpaced, iterated from Python) against the C++
FileInput in sync mode (qo-bench throughput --only 4), interleaved runs.

    PYTHONPATH=build/release/python python3 python/bench_throughput.py \\
        --build build/release --h264 FILE --runs 5 --out DIR      (writes DIR/throughput_python.md)
"""

import argparse
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time


def cpp_seconds(bench, path):
    """One run of the C++ node in sync mode, as qo-bench times it."""
    with tempfile.TemporaryDirectory() as out:
        subprocess.run([bench, "throughput", "--only", "4", "--runs", "1", "--h264", path,
                        "--out", out], check=True, capture_output=True, timeout=300)
        table = open(os.path.join(out, "throughput.md")).read()
    m = re.search(r"^\| FileInput, sync mode \| ([0-9.]+) \|", table, re.M)
    if m is None:
        sys.exit("bench_throughput: qo-bench reported no sync-mode time:\n" + table)
    return float(m.group(1)) / 1e3


def python_seconds(qosdkmm, path):
    """From opening the input until it is closed after its last access unit."""
    started = time.monotonic()
    with qosdkmm.FileInput(path, framerate=0, stream_type="h264") as source:
        units = sum(1 for _ in source)
    return time.monotonic() - started, units


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build", default="build/release")
    parser.add_argument("--h264", required=True, help="1080p H.264 elementary stream")
    parser.add_argument("--runs", type=int, default=5)
    parser.add_argument("--out", required=True)
    args = parser.parse_args()
    sys.path.insert(0, os.path.join(args.build, "python"))
    import qosdkmm

    bench = os.path.join(args.build, "bench", "qo-bench")
    cpp, py, units = [], [], set()
    for _ in range(args.runs):
        cpp.append(cpp_seconds(bench, args.h264))
        seconds, n = python_seconds(qosdkmm, args.h264)
        py.append(seconds)
        units.add(n)
    if len(units) != 1:
        sys.exit(f"bench_throughput: the Python runs delivered different counts: {units}")
    (n,) = units
    c, p = statistics.median(cpp), statistics.median(py)
    ratio = c / p
    verdict = "**met**" if ratio >= 0.8 else "**MISSED**"
    command = f"python3 python/bench_throughput.py --h264 {args.h264} --runs {args.runs}"
    with open(os.path.join(args.out, "throughput_python.md"), "w") as f:
        f.write("## Python: frames to Python\n\n"
                "| Reader | median time (ms) | AU/s | rate / C++ sync mode |\n"
                "| --- | --- | --- | --- |\n"
                f"| FileInput, sync mode (C++, qo-bench) | {c * 1e3:.1f} | {n / c:.0f} | 1.00 |\n"
                f"| qosdkmm.FileInput, framerate 0, Python loop | {p * 1e3:.1f} | {n / p:.0f} "
                f"| {ratio:.2f} |\n\n"
                f"Target: Python at least 0.8 of the C++ node's rate: {verdict}\n\n"
                f"Command: `{command}` ({n} access units, {args.runs} interleaved runs)\n\n")
    print(f"bench_throughput: {n} AU, C++ {c * 1e3:.1f} ms, Python {p * 1e3:.1f} ms, "
          f"ratio {ratio:.2f}", file=sys.stderr)


if __name__ == "__main__":
    main()
