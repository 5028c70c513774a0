"""The compiled form of the rules does in the kernel what the plain form does: random rules of all kinds, random frames at
their borders (tagged, fragments, IPv4 options, IPv6 extension headers, short and broken ones); the same frames come out
of the same ports, in the same order, and the same rules have counted them, packets and bytes.

usage: compiled_test.py COMPILED_DRIVER
MOATKEEPER_TABLES in the environment says how many sets of rules, MOATKEEPER_EACH how many frames for each,
MOATKEEPER_SEED the first of them."""

import os
import re
import subprocess
import sys
import unittest

from lab import sandbox
from lab.bridge import Bridge

DRIVER = os.path.realpath(sys.argv[1])
TABLES = int(os.environ.get("MOATKEEPER_TABLES", "40"))
EACH = int(os.environ.get("MOATKEEPER_EACH", "500"))
FIRST = int(os.environ.get("MOATKEEPER_SEED", "1"))
AT_ONCE = 50  # what fits into the sockets


def driver(*arguments):
    done = subprocess.run([DRIVER, *(str(argument) for argument in arguments)], capture_output=True, text=True, check=False)
    if done.returncode != 0:
        raise AssertionError(f"{arguments}: {done.stderr}")
    return done.stdout.splitlines()


def framesFor(seed):
    """(port, bytes); those for the device have its address."""
    for line in driver("frames", seed, EACH):
        port, whereTo, text = line.split()
        data = bytes.fromhex(text)
        yield port, (bytes.fromhex(Bridge.mac.replace(":", "")) if whereTo == "device" else data[:6]) + data[6:]


def plainCounters(marks):
    """{mark: (packets, bytes)} of the rules that have counted anything. marks: of each chain's rules, {chain: [mark, ...]}."""
    saved = subprocess.run(["ebtables-save", "-c"], check=True, capture_output=True, text=True).stdout
    found = {}
    for packets, size, chain in re.findall(r"^\[(\d+):(\d+)\] -A (\S+)", saved, re.M):
        found.setdefault(chain, []).append((int(packets), int(size)))
    if {chain: len(counters) for chain, counters in found.items()} != {chain: len(all_) for chain, all_ in marks.items()}:
        raise AssertionError(f"other rules than expected: {saved}")
    sums = {}
    for chain, counters in found.items():
        for mark, (packets, size) in zip(marks[chain], counters):
            before = sums.get(mark, (0, 0))
            sums[mark] = (before[0] + packets, before[1] + size)
    return {mark: sum_ for mark, sum_ in sums.items() if mark != 0 and sum_[0] != 0}


class Compiled(unittest.TestCase):
    def testFramesAndCountersAreTheSame(self):
        bridge = Bridge(["p0", "p1", "p2"])
        self.addCleanup(bridge.close)
        passed = counted = 0
        for seed in range(FIRST, FIRST + TABLES):
            frames = list(framesFor(seed))
            marks = {}
            for line in driver("marks", seed):
                marks.setdefault(line.split()[0], []).append(int(line.split()[1]))
            ofRules = {mark for all_ in marks.values() for mark in all_}
            rules = "\n".join(driver("rules", seed)) + "\n"
            with self.subTest(seed=seed):
                subprocess.run(["ebtables-restore"], input=rules, text=True, check=True)
                try:
                    plain = self.send(bridge, frames)
                    plainly = plainCounters(marks)
                finally:
                    subprocess.run(["nft", "delete", "table", "bridge", "filter"], check=True)
                driver("apply", seed)
                try:
                    compiled = self.send(bridge, frames)
                    compiledly = {int(mark): (int(packets), int(size)) for mark, packets, size in
                                  (line.split() for line in driver("counters", seed)) if int(mark) in ofRules}
                finally:
                    subprocess.run(["nft", "delete", "table", "bridge", "moatkeeper"], check=True)
                self.assertEqual(plain, compiled)
                self.assertEqual(plainly, compiledly)
            passed += sum(len(at) for at in plain.values())
            counted += sum(packets for packets, _ in plainly.values())
        print(f"  {TABLES} sets of rules, {EACH} frames for each: {passed} came out, rules counted {counted}", flush=True)
        self.assertGreater(passed, TABLES * EACH // 4)
        self.assertGreater(counted, TABLES * EACH // 2)

    def testOneProgramIsMadeOfTheOtherAndReadBack(self):
        for seed in range(FIRST, FIRST + max(2, TABLES // 10)):
            print("  seed", seed, *driver("changes", seed, 20), flush=True)

    def send(self, bridge, frames):
        """What has come out where, in order."""
        received = {}
        for first in range(0, len(frames), AT_ONCE):
            for name, some in bridge.sendRaw(frames[first:first + AT_ONCE]).items():
                received.setdefault(name, []).extend(some)
        return received


def leaveBrokenPackets():
    """To the rules: others would look at them before, and drop them."""
    for family in ("iptables", "ip6tables"):
        path = f"/proc/sys/net/bridge/bridge-nf-call-{family}"
        if os.path.exists(path):
            with open(path, "w", encoding="ascii") as switch:
                switch.write("0")


if __name__ == "__main__":
    sandbox.enterNetwork()
    leaveBrokenPackets()
    try:
        unittest.main(argv=sys.argv[:1])
    except sandbox.Unavailable as error:
        print(f"skipped: {error}")
        sys.exit(sandbox.SKIPPED)
