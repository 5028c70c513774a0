#!/usr/bin/env python3
"""What frames meet while the tables are changed.

usage: under_frames_test.py QUEUE_DRIVER [--changes N] [--rules N] [--switches N] [unittest arguments]

In a network namespace of its own. Prints what it measures.
"""
import argparse
import os
import random
import re
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import unittest

from lab import sandbox
from lab.queue import Queue
from lab.stream import ALLOWED, FORBIDDEN, TimedStream, makeBridge

OPTIONS = argparse.Namespace()
SETUP = ["ebtables -N UserForwardRules", "ebtables -P UserForwardRules RETURN", "ebtables -A FORWARD -j UserForwardRules"]
CLEANUP = ["ebtables -D FORWARD -j UserForwardRules", "ebtables -X UserForwardRules", "ebtables -P FORWARD ACCEPT"]
FILL = "ebtables -A UserForwardRules "


def sh(*words):
    return subprocess.run(words, capture_output=True, text=True, check=True).stdout


def mac(number):
    return f"02:cc:00:00:{number >> 8:02x}:{number & 255:02x}"


class UnderFrames(unittest.TestCase):
    def setUp(self):
        sh("nft", "flush", "ruleset")
        self.folder = tempfile.mkdtemp(prefix="under_frames.")
        self.addCleanup(shutil.rmtree, self.folder)
        self.addCleanup(Queue.killAll)
        self.queue = Queue(self.folder)

    def finish(self):
        self.queue.send(*["add " + line for line in CLEANUP], "process")
        self.assertEqual(self.queue.finish(), 0)
        self.assertNotIn("User", sh("ebtables-save"))

    def test_counters_of_rules_that_stay_never_go_back(self):
        pick = random.Random(1)
        macs = [mac(i) for i in range(50)]
        self.queue.commit(SETUP + [f"{FILL}-s {source} -j ACCEPT" for source in macs])
        before = {}
        sources = [bytes.fromhex(source.replace(":", "")) for source in macs]
        with TimedStream(*sources):
            for number in range(OPTIONS.changes):
                macs[pick.randrange(len(macs) // 2)] = mac(100 + number)
                self.queue.commit(["ebtables -F UserForwardRules"] +
                                  [f"{FILL}-s {source} -j ACCEPT" for source in macs])
                listed = sh("nft", "list", "chain", "bridge", "filter", "UserForwardRules")
                after = {source: (int(packets), int(size)) for source, packets, size in
                         re.findall(r"ether saddr (\S+) counter packets (\d+) bytes (\d+)", listed)}
                self.assertEqual(set(after), set(macs))
                for source in after.keys() & before.keys():
                    self.assertGreaterEqual(after[source], before[source], source)
                before = after
        counted = sum(packets for packets, _ in before.values())
        print(f"{OPTIONS.changes} changes of one rule of {len(macs)}: no counter went back; {counted} frames counted")
        self.assertGreater(counted, 0)
        self.finish()

    def test_a_policy_that_changes_with_the_rules(self):
        """Rules that drop give way to a policy that does: in between a frame could get through."""
        rules = [f"{FILL}-s {mac(i)} -i in -o out -j ACCEPT" for i in range(OPTIONS.rules)] + [FILL + "-j DROP"]
        self.queue.commit(SETUP)
        passed = []
        for _ in range(OPTIONS.switches):
            self.queue.commit(["ebtables -F UserForwardRules", "ebtables -P FORWARD ACCEPT"] + rules)
            with TimedStream(FORBIDDEN, pause=0) as stream:
                time.sleep(0.1)
                self.queue.commit(["ebtables -F UserForwardRules", "ebtables -P FORWARD DROP"])
                time.sleep(0.1)
                self.queue.commit(["ebtables -F UserForwardRules", "ebtables -P FORWARD ACCEPT"] + rules)
            passed.append(len(stream.received))
        print(f"{len(passed)} times from {OPTIONS.rules} rules to a policy and back: forbidden frames let through "
              f"each time {passed}")
        self.assertLessEqual(statistics.median(passed), 9, "single frames")
        self.finish()


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("driver")
    parser.add_argument("--changes", type=int, default=50)
    parser.add_argument("--rules", type=int, default=2000)
    parser.add_argument("--switches", type=int, default=3)
    rest = parser.parse_known_args(namespace=OPTIONS)[1]
    Queue.driver = os.path.realpath(OPTIONS.driver)
    try:
        sys.argv[0] = os.path.realpath(sys.argv[0])
        sandbox.enter(os.path.dirname(Queue.driver))
        makeBridge()
    except (sandbox.Unavailable, subprocess.CalledProcessError) as reason:
        print(f"skipped: {reason}")
        sys.exit(sandbox.SKIPPED)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2, warnings="ignore")
