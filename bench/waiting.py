#!/usr/bin/python3
"""How long one more rule takes with many there: `moatctl rule add` from its start to its end, waiting until the kernel has
the rule; the same without waiting; and `ebtables -A` to a chain of its own in the same table, which checks and stores nothing.

Runs as root, or where user namespaces can be made.
"""

import os
import statistics
import subprocess
import tempfile
import time

import arguments
import moatctl
from lab import kernel, programs, sandbox
from lab.bridge import Bridge

PORTS = 8


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("build", type=arguments.existing, help="folder of the build")
    parser.add_argument("rules", type=int, nargs="?", default=1000, help="how many (%(default)s)")
    parser.add_argument("runs", type=int, nargs="?", default=30, help="how many (%(default)s)")
    options = parser.parse_args()
    sandbox.enter(options.build)
    bridge = Bridge([f"eth{number}" for number in range(PORTS)])
    with tempfile.TemporaryDirectory() as folder:
        server = programs.startServer(programs.SCHEMA, folder)
        daemon = programs.startDaemon(f"{options.build}/daemon/moatkeeper", folder)
        try:
            measure(f"{options.build}/moatctl/moatctl", folder, options.rules, options.runs)
        finally:
            daemon.stop()
            server.stop()
    bridge.close()


def measure(tool, folder, count, runs):
    full = os.path.join(folder, "full.json")
    with open(full, "w", encoding="utf-8") as file:
        file.write(moatctl.configuration(count))
    subprocess.run([tool, "global", "set", "--input", "ACCEPT", "--forward", "ACCEPT"], check=True)
    subprocess.run([tool, "--timeout", "60", "import", full], check=True, stdout=subprocess.DEVNULL)
    subprocess.run(["ebtables", "-N", "Bare"], check=True)
    add = (tool, "rule", "add", "--in", "eth0", "--out", "eth1", "--drop", "--src-mac")
    ways = {"moatctl rule add": add, "  without waiting": (*add[:3], "--no-wait", *add[3:]),
            "ebtables -A": ("ebtables", "-A", "Bare", "-i", "eth0", "-o", "eth1", "-j", "DROP", "-s")}
    wall, processor = ({way: [] for way in ways} for _ in range(2))
    for number in range(runs):
        for place, (way, words) in enumerate(ways.items()):
            mac = f"02:00:00:ff:{number:02x}:{place:02x}"
            time.sleep(0.15)  # as a person types; a daemon tells what is in force ten times a second
            before, times = time.monotonic(), os.times()
            subprocess.run([*words, mac], check=True, stdout=subprocess.DEVNULL)
            wall[way].append((time.monotonic() - before) * 1000)
            processor[way].append((sum(os.times()[2:4]) - sum(times[2:4])) * 1000)
            if "without" not in way and mac not in str(kernel.readTables()):
                raise RuntimeError(f"{way} has ended, and the kernel has no rule for {mac}")
    print(f"{count} rules, {runs} runs, milliseconds")
    print(f"{'':20}{'shortest':>10}{'median':>10}{'longest':>10}{'processor':>11}")
    for way in ways:
        print(f"{way:20}{min(wall[way]):10.0f}{statistics.median(wall[way]):10.0f}{max(wall[way]):10.0f}"
              f"{statistics.median(processor[way]):11.0f}")


if __name__ == "__main__":
    arguments.run(main)
