#!/usr/bin/python3
"""A fleet on one machine: how long a change in the centre takes until it is in force on the first, the median and the last of
many devices, and what each part takes of memory and of the processor.

Each device has network, mount and host name of its own, a bridge, a relay and a daemon; the centre is a cluster of three with
their doors. All talk by TLS. The centre's programs go first on the processor, as they have machines of their own in earnest;
without that all share this one evenly (--even). Needs root.
  one, all    milliseconds from the transaction's begin until one of 1,000 rules, or each, is in force, by the devices' own words
  told        until the centre knows that from the last device
  processor   milliseconds for one such change, of all processes of the part
  memory      MB of all processes of the part, what they share with others divided (PSS)
"""

import contextlib
import datetime
import os
import pathlib
import statistics
import tempfile
import time

import arguments
from lab import config, sandbox, waiting
from lab.fleet import PARTS, Fleet, waitForAll
from lab.units import Unit

RULES = 1000
CALM_MS = 500  # of the processor, in a second
TICK_MS = 1000 / os.sysconf("SC_CLK_TCK")


def rule(number, key):
    return {"Id": number, "Enabled": 1, "RulePrio": number, "InInterface": "p0", "OutInterface": "p1",
            "SrcMAC": f"02:{key >> 24 & 255:02x}:{key >> 16 & 255:02x}:{key >> 8 & 255:02x}:{key & 255:02x}:01", "Target": "DROP"}


def processorOf(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="ascii").rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) * TICK_MS


def processorOfEach(fleet):
    return {part: {pid: processorOf(pid) for pid in pids} for part, pids in fleet.processes().items()}


def used(before, after):
    """By part; of a process that was started anew meanwhile, what it has used since."""
    return {part: sum(ms - before[part].get(pid, 0) for pid, ms in after[part].items()) for part in PARTS}


def memoryOf(pid):
    for line in pathlib.Path(f"/proc/{pid}/smaps_rollup").read_text(encoding="ascii").splitlines():
        if line.startswith("Pss:"):
            return int(line.split()[1]) / 1024
    return 0


def secondsOf(text):
    return datetime.datetime.fromisoformat(text.replace("Z", "+00:00")).timestamp()


def measure(fleet, member, operations):
    """Milliseconds on the first, the median and the last device, until that is told, and of the processor by part."""
    before = processorOfEach(fleet)
    begin = time.time()
    number = fleet.change(*operations, member=member)
    rows = waitForAll(fleet, member, number, seconds=30 + len(fleet.all))
    told = time.time()
    times = sorted((secondsOf(row["Since"]) - begin) * 1000 for row in rows.values())
    time.sleep(1)  # what the relays still pass on to each other belongs to it
    return [times[0], statistics.median(times), times[-1], (told - begin) * 1000,
            *used(before, processorOfEach(fleet)).values()]


def waitForCalm(fleet, seconds):
    """Until what devices told each other of the change before has reached all: a second with hardly any work."""
    def isCalm():
        before = processorOfEach(fleet)
        time.sleep(1)
        return sum(used(before, processorOfEach(fleet)).values()) < CALM_MS
    waiting.until(isCalm, "the fleet to be calm", seconds)


def prefer(program):
    os.setpriority(os.PRIO_PROCESS, program.pid, -20)


@contextlib.contextmanager
def doorsStartedAnew(fleet, even):
    """What their units do when their server has left the cluster, which it does when it gets no processor for too long."""
    def start(key):
        print(f"  the door of central server {key[0] + 1} has ended and starts anew")
        door = fleet.startDoor(*key)
        if not even:
            prefer(door)
        return door
    units = [Unit(lambda key=key: start(key), 0.1, door) for key, door in fleet.doors.items()]
    try:
        yield
    finally:
        for unit in units:
            unit.close()


def run(build, count, rounds, even):
    with tempfile.TemporaryDirectory(dir="/run") as folder:
        begin = time.monotonic()
        with Fleet(build, folder, devices=0) as fleet, fleet.member(seconds=30 + count) as member, \
                doorsStartedAnew(fleet, even):
            if not even:
                for program in (*fleet.centre.servers, *fleet.doors.values()):
                    prefer(program)
            fleet.addDevices(count)
            number = fleet.change(*(config.insert(config.RULES, **rule(i, i)) for i in range(1, RULES + 1)), member=member)
            waitForAll(fleet, member, number, seconds=120 + count)
            print(f"{count} devices, set up in {time.monotonic() - begin:.0f} s")
            print(f"{'':6}{'first':>8}{'median':>8}{'last':>8}{'told':>8}" + "".join(f"{part:>10}" for part in PARTS))
            key = RULES
            for name in ("one", "all"):
                results = []
                for _ in range(rounds):
                    ids = [RULES // 2] if name == "one" else range(1, RULES + 1)
                    operations = []
                    for i in ids:
                        key += 1
                        operations.append({"op": "update", "table": config.RULES, "where": [["Id", "==", i]],
                                           "row": rule(i, key)})
                    waitForCalm(fleet, seconds=120 + count)
                    results.append(measure(fleet, member, operations))
                middle = [statistics.median(column) for column in zip(*results)]
                print(f"{name:6}" + "".join(f"{value:8.0f}" for value in middle[:4])
                      + "".join(f"{value:10.0f}" for value in middle[4:]))
            memory = {part: sum(map(memoryOf, pids)) for part, pids in fleet.processes().items()}
            print(f"{'memory':38}" + "".join(f"{memory[part]:10.1f}" for part in PARTS), flush=True)


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("build", type=arguments.existing, help="folder of the build")
    parser.add_argument("--devices", default="10,100", help="how many, one fleet after the other (%(default)s)")
    parser.add_argument("--rounds", type=int, default=3, help="how many (%(default)s)")
    parser.add_argument("--even", action="store_true", help="no program goes first")
    options = parser.parse_args()
    sandbox.enter(options.build)
    for count in options.devices.split(","):
        run(options.build, int(count), options.rounds, options.even)


if __name__ == "__main__":
    arguments.run(main)
