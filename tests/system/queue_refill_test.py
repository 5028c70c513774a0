#!/usr/bin/python3
"""Refills of thousands of rules, changes of one, and repairs of what another program has done, under a steady stream of
frames: none is lost that must pass, and none passes that must not, but between another's change and its repair.

usage: queue_refill_test.py QUEUE_DRIVER [--refills N] [--changes N] [--repairs N] [--rules N] [--frames N]

In a network namespace of its own: a bridge with the ports `in` and `out`, whose far ends send and receive. Two senders
take turns. The rules let the first through and drop the rest of what goes from `in` to `out`; they stand behind all
the others, so that a table half filled would decide differently: with DROP as the policy of FORWARD it would lose the
first sender's frames, with ACCEPT it would let the second's through. Everything is done under both.
"""

import argparse
import os
import subprocess
import sys
import time

from lab import sandbox, waiting
from lab.queue import Queue
from lab.stream import ALLOWED, FORBIDDEN, TimedStream, makeBridge

CHAIN = "UserForwardRules"
ATTACKS = [["ebtables", "-F", CHAIN], ["nft", "flush", "ruleset"], ["ebtables", "-D", "FORWARD", "-j", CHAIN],
           ["ebtables", "-I", CHAIN, "1", "-j", "DROP"], ["ebtables", "-I", CHAIN, "1", "-j", "ACCEPT"]]


def run(*words):
    return subprocess.run(words, capture_output=True, text=True, check=True).stdout


def inForce():
    return [line for line in run("ebtables-save").splitlines() if line.startswith((":", "-A"))]


class Rules:
    """The last two let one sender through and nothing else."""

    def __init__(self, queue, count):
        self._queue = queue
        self._macs = [0] * (count - 2)
        self._given = 0

    def _new(self):
        self._given += 1
        return f"02:cc:{self._given >> 24:02x}:{self._given >> 16 & 255:02x}:{self._given >> 8 & 255:02x}:{self._given & 255:02x}"

    def change(self, number):
        """Of one rule."""
        self._macs[number % len(self._macs)] = self._new()
        self._commit()

    def refill(self):
        self._macs = [self._new() for _ in self._macs]
        self._commit()

    def _commit(self):
        self._queue.commit([f"ebtables -F {CHAIN}"] + [f"ebtables -A {CHAIN} -s {mac} -j DROP" for mac in self._macs] +
                           [f"ebtables -A {CHAIN} -i in -o out -s 02:aa:00:00:00:01 -j ACCEPT",
                            f"ebtables -A {CHAIN} -i in -o out -j DROP"])


class UnderFrames:
    """Everything under one policy."""

    def __init__(self, options, policy, queue, rules):
        self._options = options
        self._rules = rules
        self.windows = []  # between another's change and the repair
        queue.commit([f"ebtables -P FORWARD {policy}"])
        rules.refill()
        refills = 0
        with TimedStream(ALLOWED, FORBIDDEN, pause=0.0001) as self.stream:
            while refills < options.refills // 2 or len(self.stream.sent) < options.frames // 2:
                rules.refill()
                refills += 1
                self._share(options.changes, refills, lambda number: rules.change(number * 7919))
                self._share(options.repairs, refills, self._attack)
        self.refills = refills

    def _share(self, total, refill, action):
        """As many of half the total as belong behind this refill."""
        refills = self._options.refills // 2
        if refill <= refills:
            for number in range(total // 2 * (refill - 1) // refills, total // 2 * refill // refills):
                action(number)

    def _attack(self, number):
        wanted = inForce()
        begin = time.monotonic()
        run(*ATTACKS[number % len(ATTACKS)])
        waiting.until(lambda: inForce() == wanted, "the repair")
        self.windows.append((begin, time.monotonic()))

    def wrong(self):
        """How many frames were lost and how many let through: in those windows, and otherwise."""
        counts = {True: [0, 0], False: [0, 0]}
        for number, sent in enumerate(self.stream.sent):
            passed, forbidden = number in self.stream.received, self.stream.source(number) == FORBIDDEN
            if passed == forbidden:
                counts[any(begin <= sent <= end for begin, end in self.windows)][forbidden] += 1
        return counts[True], counts[False]


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("driver")
    parser.add_argument("--refills", type=int, default=20)
    parser.add_argument("--changes", type=int, default=100, help="of one rule")
    parser.add_argument("--repairs", type=int, default=20)
    parser.add_argument("--rules", type=int, default=2000)
    parser.add_argument("--frames", type=int, default=50_000)
    options = parser.parse_args()
    Queue.driver = os.path.realpath(options.driver)
    try:
        sandbox.enter(os.path.dirname(Queue.driver))
        makeBridge()
    except (sandbox.Unavailable, subprocess.CalledProcessError) as reason:
        print(f"skipped: {reason}")
        sys.exit(sandbox.SKIPPED)
    queue = Queue("/run")
    queue.commit([f"ebtables -N {CHAIN}", f"ebtables -P {CHAIN} RETURN", f"ebtables -A FORWARD -j {CHAIN}"])
    rules = Rules(queue, options.rules)
    parts = [UnderFrames(options, policy, queue, rules) for policy in ("DROP", "ACCEPT")]
    queue.send(f"add ebtables -D FORWARD -j {CHAIN}", f"add ebtables -X {CHAIN}", "add ebtables -P FORWARD ACCEPT",
               "process")
    assert queue.finish() == 0, queue.log()
    assert CHAIN not in str(inForce()), inForce()

    meanwhile, otherwise = ([sum(counts) for counts in zip(*which)] for which in zip(*(part.wrong() for part in parts)))
    print(f"{sum(part.refills for part in parts)} refills of {options.rules} rules, {options.changes} changes of one and "
          f"{sum(len(part.windows) for part in parts)} repairs, {sum(len(part.stream.sent) for part in parts)} frames: "
          f"between another's change and the repair {meanwhile[0]} lost and {meanwhile[1]} let through, otherwise "
          f"{otherwise[0]} and {otherwise[1]}")
    assert otherwise == [0, 0], queue.log()
    assert sum(meanwhile) > 0, "the frames do not meet the rules"


if __name__ == "__main__":
    main()
