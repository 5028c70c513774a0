#!/usr/bin/python3
"""Measures what refused lines cost: 4,000 lines of which 400 are refused, beside 4,000 good ones, in one run.

usage: refusals.py BUILD_FOLDER

Runs in namespaces of its own; needs root. Medians of nine.
"""

import os
import statistics
import subprocess
import sys

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
sys.path.insert(0, os.path.join(SOURCE, "tests", "system"))
from lab import refusals, sandbox  # noqa: E402


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    build = os.path.realpath(sys.argv[1])
    sandbox.enter(SOURCE, build)
    times = {kind: [] for kind in ("none", *refusals.REFUSED)}
    processes = {}
    for _ in range(9):
        for kind, spent in times.items():
            subprocess.run(["nft", "flush", "ruleset"], check=True)
            done = subprocess.run([f"{build}/tests/system/queue_driver", "--direct"], capture_output=True, text=True,
                                  input="\n".join(refusals.lines(4000, kind)) + "\n", check=True)
            fields = dict(field.split("=") for field in done.stdout.split())
            spent.append(int(fields["us"]) / 1000)
            processes[kind] = fields["processes"]
    clean = statistics.median(times["none"])
    print(f"{'400 refused for':<16}{'ms':>9}{'of clean':>10}{'processes':>11}")
    for kind, spent in times.items():
        print(f"{kind:<16}{statistics.median(spent):>9.0f}{statistics.median(spent) / clean:>10.1f}{processes[kind]:>11}")


if __name__ == "__main__":
    main()
