#!/usr/bin/env python3
"""The compiled form by the command queue: what is in the kernel is what is made of the wanted rules, after every commit, after
others have changed it, and after a kill; and no frame gets between the forms.

usage: engine_test.py QUEUE_DRIVER COMPILED_DRIVER [unittest arguments]
MOATKEEPER_SWITCHES in the environment says how many times the form is switched to and fro, MOATKEEPER_FRAMES under how many
frames, MOATKEEPER_CHANGES how many random commits there are.
"""
import glob
import os
import pathlib
import random
import shutil
import socket
import struct
import subprocess
import sys
import tempfile
import unittest

from lab import sandbox, waiting
from lab.queue import Queue
from lab.stream import ALLOWED, FORBIDDEN, TimedStream, makeBridge

SWITCHES = int(os.environ.get("MOATKEEPER_SWITCHES", "10"))
FRAMES = int(os.environ.get("MOATKEEPER_FRAMES", "3000"))
CHANGES = int(os.environ.get("MOATKEEPER_CHANGES", "30"))
COMPILED_DRIVER = os.path.realpath(sys.argv[2])
CHAINS = ("UserForwardRules", "UserForwardPolicy")
SETUP = [line for chain in CHAINS for line in (f"ebtables -N {chain}", f"ebtables -P {chain} RETURN",
                                               f"ebtables -A FORWARD -j {chain}")]
CLEANUP = ([f"ebtables -D FORWARD -j {chain}" for chain in CHAINS] + [f"ebtables -X {chain}" for chain in CHAINS] +
           ["ebtables -P FORWARD ACCEPT"])
FILL = "-i in -o out "


def sh(*words, check=True, given=None):
    return subprocess.run(words, input=given, capture_output=True, text=True, check=check)


def mac(number):
    return f"02:cc:00:00:{number >> 8:02x}:{number & 255:02x}"


def network(number):
    return f"10.{number >> 8}.{number & 255}.0"


def randomRule(pick):
    number = pick.randrange(200)
    kind = pick.choice(("mac", "mac", "network", "port", "destination"))
    target = pick.choice(("ACCEPT", "DROP"))
    if kind == "mac":
        return f"{FILL}-s {mac(number)} -j {target}"
    if kind == "destination":
        return f"{FILL}-d {mac(number)} -j {target}"
    if kind == "network":
        return f"{FILL}-p IPv4 --ip-source {network(number)}/{pick.choice((24, 24, 20))} -j {target}"
    log = pick.choice(("", "--log-level 4 --log-prefix \"x\" "))
    return f"{FILL}-p IPv4 --ip-protocol 6 --ip-destination-port {number} {log}-j {target}"


def transactions():
    """That the kernel has seen: NFT_MSG_GETGEN."""
    with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, 12) as kernel:
        kernel.send(struct.pack("=IHHIIBBH", 20, 10 << 8 | 16, 1, 1, 0, 0, 0, 0))
        return int.from_bytes(kernel.recv(4096)[24:28], "big")


def tables():
    return sh("nft", "list", "tables", "bridge").stdout.split("table bridge ")[1:]


class Engine(unittest.TestCase):
    def setUp(self):
        sh("nft", "flush", "ruleset")
        self.folder = tempfile.mkdtemp(prefix="engine_test.")
        self.addCleanup(shutil.rmtree, self.folder)
        self.addCleanup(Queue.killAll)
        self.policy = "ACCEPT"

    def start(self, form="compiled", **environment):
        queue = Queue(self.folder, environment=environment)
        queue.send("form " + form)
        return queue

    def commit(self, queue, rules):
        queue.commit(["ebtables -F UserForwardRules", f"ebtables -P FORWARD {self.policy}"] +
                     [f"ebtables -A UserForwardRules {rule}" for rule in rules])

    def held(self, rules):
        """What has been counted by the rules; fails when the kernel has something else than what is made of them."""
        text = "\n".join(["*filter", ":INPUT ACCEPT", f":FORWARD {self.policy}", ":OUTPUT ACCEPT",
                          *[f":{chain} RETURN" for chain in CHAINS], *[f"-A FORWARD -j {chain}" for chain in CHAINS],
                          *[f"-A UserForwardRules {rule}" for rule in rules], ""])
        done = sh(COMPILED_DRIVER, "held", check=False, given=text)
        self.assertEqual((done.returncode, done.stderr), (0, ""), done.stdout[:3000])
        return [int(line.split()[1]) for line in done.stdout.splitlines() if line.startswith("UserForwardRules ")]

    def isHeld(self, rules):
        try:
            self.held(rules)
        except AssertionError:
            return False
        return True

    def expectPlain(self, rules):
        saved = sh("ebtables-save").stdout.splitlines()
        self.assertEqual(len([line for line in saved if line.startswith("-A UserForwardRules")]), len(rules))
        self.assertNotIn("moatkeeper", "".join(tables()))

    def expectNothingPlain(self):
        self.assertNotIn("User", sh("ebtables-save").stdout)

    def test_after_every_commit_the_kernel_has_what_is_made_of_the_rules(self):
        pick = random.Random(1)
        queue = self.start()
        queue.commit(SETUP)
        rules = []
        for number in range(CHANGES):
            if number % 10 == 0:
                rules = [randomRule(pick) for _ in range(pick.randrange(1, 150))]
            for _ in range(pick.randrange(3)):
                rules.insert(pick.randrange(len(rules) + 1), randomRule(pick))
            if rules and pick.randrange(2):
                rules.pop(pick.randrange(len(rules)))
            self.policy = pick.choice(("ACCEPT", "DROP"))
            self.commit(queue, rules)
            self.held(rules)
            self.expectNothingPlain()
            if number % 7 == 6:
                queue.send("form plain", "begin", "end")
                queue.answer("end")
                self.expectPlain(rules)
                queue.send("form compiled", "begin", "end")
                queue.answer("end")
                self.held(rules)
        self.assertNotRegex(queue.log(), "queue:11[0167]")
        self.stop(queue)

    def test_a_row_leaves_the_counters_of_others(self):
        queue = self.start()
        queue.commit(SETUP)
        rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(500)]
        self.commit(queue, rules)
        with TimedStream(bytes.fromhex(mac(7).replace(":", ""))):
            waiting.until(lambda: self.held(rules)[7] > 10, "frames to be counted")
        before = self.held(rules)
        rules[250] = f"{FILL}-s {mac(900)} -j ACCEPT"
        generation = transactions()
        self.commit(queue, rules)
        self.assertEqual(transactions() - generation, 1)
        after = self.held(rules)
        self.assertEqual(after[:250] + after[251:], before[:250] + before[251:])
        self.stop(queue)

    def test_counters_stay_where_rules_only_change_places(self):
        queue = self.start()
        queue.commit(SETUP)
        rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(3)]  # too few for a map
        self.commit(queue, rules)
        with TimedStream(bytes.fromhex(mac(1).replace(":", ""))):
            waiting.until(lambda: self.held(rules)[1] > 10, "frames to be counted")
        counted = self.held(rules)
        for more in range(3, 9):
            rules.append(f"{FILL}-s {mac(more)} -j ACCEPT")
            self.commit(queue, rules)
            self.assertEqual(self.held(rules)[:3], counted)
        while len(rules) > 2:
            rules.pop()
            self.commit(queue, rules)
            self.assertEqual(self.held(rules)[:2], counted[:2])
        self.stop(queue)

    def test_what_others_do_is_undone(self):
        queue = self.start()
        queue.commit(SETUP)
        rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(30)]
        self.commit(queue, rules)
        self.held(rules)
        for command in ("delete table bridge moatkeeper", "flush table bridge moatkeeper", "flush ruleset",
                        "flush chain bridge moatkeeper FORWARD", "add rule bridge moatkeeper FORWARD counter drop",
                        "add chain bridge moatkeeper other",
                        "add map bridge moatkeeper other { type ether_addr : verdict; }"):
            with self.subTest(command):
                sh("nft", command)
                waiting.until(lambda: self.isHeld(rules), f"repair after {command}")
        waiting.until(lambda: "form was gone" in queue.log() and "form was changed" in queue.log(), queue.log)
        self.assertIn("queue:116: nft (process ", queue.log())
        self.stop(queue)

    def test_rules_of_others_need_the_plain_form(self):
        queue = self.start()
        queue.commit(SETUP)
        rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(30)]
        self.commit(queue, rules)
        self.held(rules)
        sh("ebtables", "-A", "FORWARD", "-i", "theirs", "-j", "DROP")
        waiting.until(lambda: "queue:119: the form of the rules in the kernel is plain: rules of others are in FORWARD" in queue.log(),
                      queue.log)
        self.expectPlain(rules)
        queue.send("status")
        self.assertEqual(queue.answer("status"), "plain:_rules_of_others_are_in_FORWARD")
        sh("ebtables", "-D", "FORWARD", "-i", "theirs", "-j", "DROP")
        waiting.until(lambda: self.isHeld(rules), "the compiled form to come back")
        self.expectNothingPlain()
        self.stop(queue)

    def test_after_a_kill_the_next_takes_over(self):
        rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(40)]
        for form in ("compiled", "plain", "compiled"):
            queue = self.start("compiled")
            queue.send("begin", *["add " + line for line in SETUP + [f"ebtables -A UserForwardRules {rule}" for rule in rules]],
                       "process", "end")
            queue.answer("end")
            self.held(rules)
            queue.kill()
            self.held(rules)
            queue = self.start(form)
            queue.send("begin", *["add " + line for line in SETUP + [f"ebtables -A UserForwardRules {rule}" for rule in rules[1:]]],
                       "process", "end")
            queue.answer("end")
            if form == "compiled":
                self.held(rules[1:])
                self.expectNothingPlain()
            else:
                self.expectPlain(rules[1:])
            self.stop(queue)

    def test_without_its_module_the_rules_are_plain(self):
        rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(40)]
        lines = ["add " + line for line in SETUP + [f"ebtables -A UserForwardRules {rule}" for rule in rules]]
        other, broken = (os.path.join(self.folder, name) for name in ("other", "broken"))
        for folder in (other, broken):
            os.mkdir(folder)
        module = os.path.join(other, "moatkeeper-compiled.so")
        shutil.copy(glob.glob("/lib/*/libmnl.so.0")[0], module)
        pathlib.Path(broken, "moatkeeper-compiled.so").touch()
        for folder, why in ((other, "moatkeeper-compiled.so is of another build than the daemon"),
                            (broken, f"{broken}/moatkeeper-compiled.so: file too short")):
            with self.subTest(why):
                queue = self.start()
                queue.send("begin", *lines, "process", "end")
                queue.answer("end")
                self.held(rules)
                queue.kill()
                queue = self.start(LD_LIBRARY_PATH=folder)  # which is looked into before the program's own
                queue.send("begin", *lines, "process", "end")
                queue.answer("end")
                self.expectPlain(rules)
                self.assertIn(f"queue:119: the form of the rules in the kernel is plain: {why}\n", queue.log())
                queue.send("status")
                self.assertEqual(queue.answer("status"), f"plain: {why}".replace(" ", "_"))
                self.stop(queue)

    def test_a_bad_row_costs_itself(self):
        queue = self.start()
        queue.commit(SETUP)
        rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(20)]
        bad = f"{FILL}-p ! IPv4 --ip-source 10.0.0.1 -j ACCEPT"
        self.commit(queue, rules[:10] + [bad] + rules[10:])
        self.assertRegex(queue.log(), "queue:101: refused .*--ip-source 10.0.0.1")
        self.held(rules)
        self.stop(queue)

    def test_what_the_kernel_refuses_is_the_same_in_both_forms(self):
        there, back = CHAINS
        told = []
        for form in ("plain", "compiled"):
            queue = self.start(form)
            queue.commit(SETUP[:2] + SETUP[3:5] + SETUP[2:3] +
                         [f"ebtables -A {there} {FILL}-s {mac(i)} -j DROP" for i in range(20)])
            queue.commit([f"ebtables -A {there} -i a -j {back}", f"ebtables -A {back} -i b -j {there}",
                          f"ebtables -A {back} -i c -j DROP"])
            told.append([line for line in queue.log().splitlines() if "queue:110" in line])
            queue.send("status")
            self.assertEqual(queue.answer("status"), form)
            queue.send(f"add {CLEANUP[0]}", *["add " + line for line in CLEANUP[2:]], "process")
            self.assertEqual(queue.finish(), 0, queue.log())
        self.assertEqual(*told)
        self.assertRegex("\n".join(told[0]), rf"^.*refused \"ebtables -A {back} -i b -j {there}\": Too many levels .*$")

    def test_no_frame_gets_between_the_forms(self):
        for policy in ("ACCEPT", "DROP"):
            self.policy = policy
            queue = self.start()
            queue.commit(SETUP)
            allowed, forbidden = (":".join(f"{byte:02x}" for byte in source) for source in (ALLOWED, FORBIDDEN))
            rules = [f"{FILL}-s {mac(i)} -j ACCEPT" for i in range(100)]
            rules += [f"{FILL}-p IPv4 --ip-source {network(i)}/{24 - i % 2} -j ACCEPT" for i in range(0, 100, 2)]
            rules += [f"{FILL}-s {allowed} -j ACCEPT"] if policy == "DROP" else [f"{FILL}-s {forbidden} -j DROP"]
            self.commit(queue, rules)
            with TimedStream(ALLOWED, FORBIDDEN, pause=0) as stream:
                for number in range(SWITCHES):
                    for form in ("plain", "compiled"):
                        queue.send("form " + form, "begin", "end")
                        queue.answer("end")
                    waiting.until(lambda: len(stream.sent) >= (number + 1) * FRAMES // SWITCHES, "frames")
                self.held(rules)
            lost = [n for n in range(len(stream.sent)) if n % 2 == 0 and n not in stream.received]
            through = [n for n in stream.received if n % 2 == 1]
            print(f"policy {policy}: {2 * SWITCHES} switches under {len(stream.sent)} frames: "
                  f"{len(lost)} lost, {len(through)} let through", flush=True)
            self.assertEqual((lost, through), ([], []))
            self.stop(queue)

    def stop(self, queue):
        queue.send(*["add " + line for line in CLEANUP], "process")
        self.assertEqual(queue.finish(), 0, queue.log())
        self.expectNothingPlain()
        self.assertNotIn("moatkeeper", "".join(tables()))


if __name__ == "__main__":
    Queue.driver = os.path.realpath(sys.argv[1])
    try:
        sandbox.enterNetwork()
        makeBridge()
    except (sandbox.Unavailable, subprocess.CalledProcessError) as reason:
        print(f"skipped: {reason}")
        sys.exit(sandbox.SKIPPED)
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2, warnings="ignore")
