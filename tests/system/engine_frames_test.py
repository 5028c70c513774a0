"""What the command queue brings into the kernel does the same in both forms: random rules, random frames at their borders; the
same frames come out, and the same rules have counted them. As compiled_test.py, but by the daemon's way: committed as lines, and
switched while they are there.

usage: engine_frames_test.py COMPILED_DRIVER QUEUE_DRIVER
MOATKEEPER_TABLES, MOATKEEPER_EACH and MOATKEEPER_SEED in the environment: as for compiled_test.py."""

import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

import compiled_test
from lab import sandbox
from lab.bridge import Bridge
from lab.queue import Queue

TABLES = int(os.environ.get("MOATKEEPER_TABLES", "4"))
compiled_test.EACH = int(os.environ.get("MOATKEEPER_EACH", "200"))


def linesOf(saved):
    """The commands that make tables that are printed as ebtables-save does."""
    for line in saved:
        if line.startswith("-A "):
            yield "ebtables " + line
        elif line.startswith(":"):
            chain, policy = line[1:].split()
            if chain not in ("INPUT", "FORWARD", "OUTPUT"):
                yield f"ebtables -N {chain}"
            if chain != "OUTPUT":
                yield f"ebtables -P {chain} {policy}"


def isCounted(rule):
    """Nobody counts at a jump of every frame."""
    return re.match(r"-A \S+ -j (?!ACCEPT|DROP|RETURN|CONTINUE)", rule) is None


class Frames(unittest.TestCase):
    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="engine_frames_test.")
        self.addCleanup(shutil.rmtree, self.folder)
        self.addCleanup(Queue.killAll)
        self.bridge = Bridge(["p0", "p1", "p2"])
        self.addCleanup(self.bridge.close)

    def counters(self, form, saved):
        """[(rule, packets, bytes)] of each chain's, in order."""
        rules = [line for line in saved if line.startswith("-A ")]
        chains = [line[1:].split()[0] for line in saved if line.startswith(":")]
        rules.sort(key=lambda rule: chains.index(rule.split()[1]))
        if form == "compiled":
            done = subprocess.run([compiled_test.DRIVER, "held"], input="\n".join(saved) + "\n", capture_output=True, text=True,
                                  check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            counted = [tuple(map(int, line.split()[1:])) for line in done.stdout.splitlines()]
        else:
            text = subprocess.run(["ebtables-save", "-c"], check=True, capture_output=True, text=True).stdout
            found = re.findall(r"^\[(\d+):(\d+)\] -A (\S+)", text, re.M)
            found.sort(key=lambda rule: chains.index(rule[2]))
            counted = [(int(packets), int(size)) for packets, size, _ in found]
        self.assertEqual(len(counted), len(rules))
        return [(rule, *count) for rule, count in zip(rules, counted) if isCounted(rule)]

    def test_frames_and_counters_are_the_same(self):
        send = compiled_test.Compiled.send
        passed = counted = 0
        for seed in range(compiled_test.FIRST, compiled_test.FIRST + TABLES):
            saved = compiled_test.driver("rules", seed)
            frames = list(compiled_test.framesFor(seed))
            with self.subTest(seed=seed):
                said = {}
                for form in ("plain", "compiled"):
                    queue = Queue(self.folder)
                    queue.send("form " + form)
                    queue.commit(list(linesOf(saved)))
                    queue.send("status")
                    self.assertEqual(queue.answer("status"), form, queue.log())
                    said[form] = send(self, self.bridge, frames), self.counters(form, saved)
                    # The other one takes over what this one has.
                    other = "plain" if form == "compiled" else "compiled"
                    queue.send("form " + other, "begin", "end")
                    queue.answer("end")
                    self.assertEqual(send(self, self.bridge, frames), said[form][0])
                    self.assertEqual(self.counters(other, saved), said[form][1])
                    queue.kill()
                    subprocess.run(["nft", "flush", "ruleset"], check=True)
                    shutil.rmtree(self.folder + "/record")
                self.assertEqual(*said.values())
            passed += sum(len(at) for at in said["plain"][0].values())
            counted += sum(packets for _, packets, _ in said["plain"][1])
        print(f"  {TABLES} sets of rules, {compiled_test.EACH} frames for each: {passed} came out, rules counted {counted}", flush=True)
        self.assertGreater(passed, TABLES * compiled_test.EACH // 4)
        self.assertGreater(counted, TABLES * compiled_test.EACH // 2)


if __name__ == "__main__":
    Queue.driver = os.path.realpath(sys.argv[2])
    try:
        sandbox.enterNetwork()
        compiled_test.leaveBrokenPackets()
    except sandbox.Unavailable as error:
        print(f"skipped: {error}")
        sys.exit(sandbox.SKIPPED)
    unittest.main(argv=sys.argv[:1], warnings="ignore")
