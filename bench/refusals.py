#!/usr/bin/python3
"""Measures what refused lines cost: 4,000 lines of which 400 are refused, beside 4,000 good ones, in one run.

Runs in namespaces of its own; needs root. Medians of nine, each of a fill of an empty table, and of a refill of a table
that holds 4,000 rules: what every commit but the first is.
"""

import os
import statistics
import subprocess

import arguments
from lab import refusals, sandbox

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
COUNT = 4000


def carry_out(build, lines):
    """Returns the milliseconds and the number of processes."""
    done = subprocess.run([f"{build}/tests/system/queue_driver", "--direct"], capture_output=True, text=True,
                          input="\n".join(lines) + "\n", check=True)
    fields = dict(field.split("=") for field in done.stdout.split())
    return int(fields["us"]) / 1000, fields["processes"]


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("build", type=arguments.existing, help="the build folder")
    build = parser.parse_args().build
    sandbox.enter(SOURCE, build)
    kinds = ("none", *refusals.REFUSED)
    fills, refills, processes = {kind: [] for kind in kinds}, {kind: [] for kind in kinds}, {}
    for _ in range(9):
        for kind in kinds:
            lines = refusals.lines(COUNT, kind)
            subprocess.run(["nft", "flush", "ruleset"], check=True)
            fills[kind].append(carry_out(build, lines)[0])
            subprocess.run(["nft", "flush", "ruleset"], check=True)
            carry_out(build, refusals.lines(COUNT, "none"))
            spent, processes[kind] = carry_out(build, ["ebtables -F U", *lines[1:]])
            refills[kind].append(spent)
    print(f"{'400 refused for':<16}{'fill ms':>9}{'of clean':>10}{'refill ms':>11}{'of clean':>10}{'processes':>11}")
    for kind in kinds:
        row = f"{kind:<16}"
        for times, width in ((fills, 9), (refills, 11)):
            spent, clean = statistics.median(times[kind]), statistics.median(times["none"])
            row += f"{spent:>{width}.0f}{spent / clean:>10.1f}"
        print(row + f"{processes[kind]:>11}")


if __name__ == "__main__":
    arguments.run(main)
