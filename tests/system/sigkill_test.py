#!/usr/bin/python3
"""Kills the daemon at random moments: the bridge tables always hold an old or a new state, and the next start and stop
leave them exactly as they were before the first.

usage: sigkill_test.py --daemon MOATKEEPER [--kills N] [--seed N]

The tables hold rules of somebody else all the time, which must stay as they are. Moments: while the daemon starts,
while a stream of changes is being committed, and while it cleans up after SIGTERM.
"""

import argparse
import os
import random
import signal
import subprocess
import sys
import threading
import time

from lab import kernel, sandbox, waiting
from lab.config import FILTER_RULES, FILTERS, FORWARD_POLICY, INPUT_POLICY, MAIN, RULES, Config
from lab.programs import startDaemon, startServer

SYSTEM_TESTS = os.path.dirname(os.path.abspath(__file__))
SCHEMA = os.path.join(SYSTEM_TESTS, "..", "..", "schema", "moatkeeper.ovsschema")
FOREIGN = """*filter
-N Foreign
-P Foreign RETURN
-A Foreign -s 02:00:00:00:00:99 -j DROP
-A FORWARD -j Foreign
-A INPUT -i other -j ACCEPT
COMMIT
"""


def configuration(variant):
    """Two configurations that differ in every table."""
    return {
        MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": ("ACCEPT", "DROP")[variant]}],
        INPUT_POLICY: [{"Id": 1, "Interface": "office", "Policy": ("ACCEPT", "DROP")[variant]}],
        FORWARD_POLICY: [{"Id": 1 + variant, "InInterface": "office", "OutInterface": "guest", "Policy": "DROP"}],
        RULES: [{"Id": number, "RulePrio": number, "InInterface": "office", "OutInterface": "uplink",
                 "SrcMAC": f"02:00:00:{variant:02x}:00:{number:02x}", "Target": "DROP"}
                for number in range(1, 200 - 50 * variant)],
        FILTERS: [{"Id": number, "Prio": number + 3 * variant, "InInterface": "office", "OutInterface": "guest",
                   "MatchCriteria": "mac", "Mode": ("blacklist", "whitelist")[variant]} for number in (1, 2)],
        FILTER_RULES: [{"Id": number, "BridgeFilterID": 1 + number % 2,
                        "FilterMatch": f"02:00:00:00:01:{number:02x}"} for number in range(1, 20 + variant)],
    }


class Changes(threading.Thread):
    """Switches between the two configurations until stopped."""

    def __init__(self, config):
        super().__init__()
        self._config = config
        self._ended = threading.Event()

    def run(self):
        variant = 0
        while not self._ended.is_set():
            variant = 1 - variant
            self._config.replace(configuration(variant))

    def stop(self):
        self._ended.set()
        self.join()


def waitForTools():
    """A transaction that the killed daemon has begun ends without it: wait until nobody works on our tables."""
    ours = os.readlink("/proc/self/ns/net")

    def working():
        for entry in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.readlink(f"/proc/{entry}/ns/net") == ours and "tables" in os.readlink(f"/proc/{entry}/exe"):
                    return True
            except OSError:
                pass  # gone meanwhile, or a thread of the kernel
        return False
    waiting.until(lambda: not working(), "the tool's end", 60)


def killSomewhen(daemon, config, place, dice):
    if place == "start":
        time.sleep(dice.uniform(0, 0.12))
        daemon.stop(signal.SIGKILL)
    else:
        changes = Changes(config)
        changes.start()
        time.sleep(dice.uniform(0.05, 0.4))
        if place == "clean-up":
            os.kill(daemon.pid, signal.SIGTERM)
            time.sleep(dice.uniform(0, 0.05))
        daemon.stop(signal.SIGKILL)
        changes.stop()
    waitForTools()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--daemon", required=True)
    parser.add_argument("--kills", type=int, default=30)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    options.daemon = os.path.realpath(options.daemon)
    try:
        sandbox.enter(options.daemon)
        subprocess.run(["ebtables-restore", "--noflush"], input=FOREIGN, text=True, check=True)
    except (sandbox.Unavailable, subprocess.CalledProcessError) as reason:
        print(f"skipped: {reason}")
        sys.exit(sandbox.SKIPPED)
    print(f"seed {options.seed}")
    dice = random.Random(options.seed)
    before = kernel.readTables()
    server = startServer(SCHEMA, "/run")
    config = Config()

    # What a start with either configuration leads to.
    states = [before]
    for variant in (0, 1):
        config.replace(configuration(variant))
        daemon = startDaemon(options.daemon, "/run")
        waiting.until(lambda: kernel.readTables() != before, "the first commit")
        states.append(kernel.readTables())
        assert daemon.stop() == 0, daemon.readLog()
        assert kernel.readTables() == before, kernel.readTables()
    assert states[1] != states[2]

    seen = {place: [0, 0, 0] for place in ("start", "run", "clean-up")}
    for kill in range(options.kills):
        place = dice.choice(list(seen))
        daemon = startDaemon(options.daemon, "/run")
        killSomewhen(daemon, config, place, dice)
        found = kernel.readTables()
        assert found in states, f"kill {kill} ({place}): a mixture: {found}"
        seen[place][states.index(found)] += 1

        variant = dice.randrange(2)
        config.replace(configuration(variant))
        daemon = startDaemon(options.daemon, "/run")
        daemon.waitForLog("commitToSystem is called")  # the tables may hold the wanted state from before
        waiting.until(lambda: kernel.readTables() == states[1 + variant],
                      lambda: f"kill {kill} ({place}): the next start's state:\n{daemon.readLog()[-3000:]}")
        assert daemon.stop() == 0, daemon.readLog()
        assert kernel.readTables() == before, f"kill {kill} ({place}): left behind: {kernel.readTables()}"
    config.close()
    server.stop()
    for place, counts in seen.items():
        print(f"killed at {place}: {counts[0]} times nothing was in, {counts[1]} and {counts[2]} times a whole state")


if __name__ == "__main__":
    main()
