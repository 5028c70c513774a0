#!/usr/bin/env python3
"""The command queue against the kernel's bridge tables, in a network namespace of its own. What it does when the
kernel's answers go wrong is tested without a kernel: tests/unit/transaction_queue_test.cpp.

usage: queue_test.py QUEUE_DRIVER [--refused LINES] [--changes N] [--filters N] [--waiting CHANGES]
                     [--returns N] [unittest arguments]
"""
import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
import unittest

from lab import netfilter, sandbox, waiting
from lab.queue import Queue

OPTIONS = argparse.Namespace()


def sh(*words, check=True, text_in=None):
    return subprocess.run(words, input=text_in, capture_output=True, text=True, check=check)


def tables():
    return [line for line in sh("ebtables-save").stdout.splitlines() if not line.startswith("#")]


SETUP = ["ebtables -N UserInputRules", "ebtables -P UserInputRules RETURN", "ebtables -A INPUT -j UserInputRules"]
CLEANUP = ["ebtables -D INPUT -j UserInputRules", "ebtables -X UserInputRules", "ebtables -P INPUT ACCEPT"]


def mac_rule(number, chain="UserInputRules"):
    return f"ebtables -A {chain} -s 02:00:00:00:{number >> 8:02x}:{number & 255:02x} -j DROP"


def filter_lines(chain):
    return [f"ebtables -N {chain}; ebtables -P {chain} RETURN",
            f"ebtables -I FORWARD 1 -i p2 -o p1 -j {chain};ebtables -I FORWARD 1 -o p2 -i p1 -j {chain};",
            f"ebtables -A {chain} -s 02:00:00:00:00:01 -j DROP"]


def filter_end(chain):
    return [f"ebtables -D FORWARD -i p2 -o p1 -j {chain};ebtables -D FORWARD -o p2 -i p1 -j {chain};",
            f"ebtables -F {chain}; ebtables -X {chain}"]


class QueueTest(unittest.TestCase):
    def setUp(self):
        sh("nft", "flush", "ruleset")
        self.folder = tempfile.mkdtemp(prefix="queue_test.")
        self.addCleanup(shutil.rmtree, self.folder)
        self.addCleanup(Queue.killAll)

    def test_a_commit_is_one_transaction_and_waits_for_its_end(self):
        queue = Queue(self.folder)
        before = netfilter.generation()
        queue.send("begin", *["add " + line for line in SETUP], "process", "state")
        queue.answer("ready")
        self.assertNotIn(":UserInputRules RETURN", tables())
        queue.send("add " + mac_rule(1), "process", "end")
        queue.answer("end")
        self.assertIn(":UserInputRules RETURN", tables())
        queue.commit([])
        self.assertEqual(netfilter.generation(), before + 1, "nothing queued, nothing done")
        queue.send(*["add " + line for line in CLEANUP], "process")
        self.assertEqual(queue.finish(), 0)
        self.assertEqual(netfilter.generation(), before + 2)
        self.assertNotIn("UserInput", str(tables()))
        self.assertFalse(os.path.exists(self.folder + "/record/tables"))

    def test_a_refill_changes_only_what_changed(self):
        rules = [mac_rule(i) for i in range(200)]
        queue = Queue(self.folder)
        queue.commit(SETUP + rules)
        handles = self.handles()
        before = netfilter.generation()
        queue.commit(["ebtables -F UserInputRules"] + rules)
        self.assertEqual(netfilter.generation(), before, "the same again is no transaction")
        queue.commit(["ebtables -F UserInputRules"] + rules[:70] + [mac_rule(999)] + rules[71:150] + rules[151:])
        after = self.handles()
        self.assertEqual(len(after), 200)  # the rules, and the jump to their chain
        self.assertEqual(len(set(after) - set(handles)), 1)
        self.assertEqual([line for line in tables() if line.startswith("-A UserInputRules")],
                         [rule.removeprefix("ebtables ") for rule in rules[:70] + [mac_rule(999)] + rules[71:150] + rules[151:]])

    def handles(self):
        listed = sh("nft", "-a", "list", "ruleset").stdout
        return [line.rsplit(" ", 1)[1] for line in listed.splitlines() if "# handle" in line and "counter" in line]

    def test_refusals_are_told_once(self):
        queue = Queue(self.folder)
        bad = "ebtables -A UserInputRules -s broken -j DROP"
        queue.commit(SETUP + [bad, mac_rule(1)])
        for i in range(5):
            queue.commit(["ebtables -F UserInputRules", bad, mac_rule(2 + i)])
        self.assertEqual(queue.log().count("broken"), 2, "the line and its word")  # in one log line
        queue.commit(["ebtables -F UserInputRules", mac_rule(1)])
        queue.commit(["ebtables -F UserInputRules", bad])
        self.assertEqual(queue.log().count("refused \"ebtables -A UserInputRules -s broken"), 2, queue.log())
        queue.finish()

    def test_many_refused_lines_do_not_fill_the_log(self):
        queue = Queue(self.folder)
        bad = [f"ebtables -A UserInputRules -j Missing{number}" for number in range(OPTIONS.refused // 2)]
        bad += [f"ebtables -A UserInputRules -s broken{number} -j DROP" for number in range(OPTIONS.refused // 2)]
        queue.commit(SETUP + bad)
        for number in range(OPTIONS.changes):
            queue.commit(["ebtables -F UserInputRules", *bad, mac_rule(number)])
        lines = len(queue.log().splitlines())
        print(f"{len(bad)} lines refused in each of {OPTIONS.changes} changes of another row: {lines} lines in the log")
        self.assertLessEqual(lines, 2.5 * len(bad))
        self.assertGreaterEqual(lines, len(bad))
        queue.finish()

    def test_what_waits_is_as_small_as_the_configuration_and_in_force_when_the_right_is_back(self):
        chains = [f"{number}p2p1MACblacklist" for number in range(100, 100 + OPTIONS.filters)]
        away = [line for chain in chains for line in filter_end(chain)]
        variant = 0

        def refill():
            """All filters go and come with other rules, as after a change of one."""
            nonlocal variant
            variant += 1
            return away * (variant > 1) + [line for chain in chains for line in filter_lines(chain) + [
                f"ebtables -A {chain} -s 02:00:00:{variant >> 8:02x}:{variant & 255:02x}:{i:02x} -j DROP"
                for i in range(2)]]

        queue = Queue(self.folder)
        queue.commit(refill())
        queue.send("memory")
        before = int(queue.answer("memory"))
        refills, returns = [], []
        for number in range(OPTIONS.returns):
            refills.append(queue.commit(refill()))
            generation = netfilter.generation()
            queue.send("rights off")
            # The first time without a right as long as it takes.
            for _ in range(1 if number else OPTIONS.waiting):
                queue.commit(refill())
            queue.send("memory")
            after = int(queue.answer("memory"))
            self.assertLessEqual(after, 2 * before)  # none with a sanitizer, which keeps memory itself
            self.assertEqual(netfilter.generation(), generation)
            queue.send("rights on")
            returns.append(int(queue.answer("rights")) / 1e6)
            self.assertNotEqual(netfilter.generation(), generation)
            marks = f":{variant >> 8:02x}:{variant & 255:02x}:00 -j DROP"
            self.assertEqual(sum(marks in line for line in tables()), OPTIONS.filters)
        refilled, returned = statistics.median(refills), statistics.median(returns)
        print(f"{OPTIONS.waiting} changes of {OPTIONS.filters} filters without the right: {before} bytes before, {after} "
              f"after; a refill takes {refilled * 1000:.1f} ms, and from the right's return until in force "
              f"{returned * 1000:.1f} ms (medians of {len(returns)}, worst {max(returns) * 1000:.1f} ms)")
        self.assertLessEqual(returned, 2 * refilled * max(1, os.getloadavg()[0] / os.cpu_count()))
        self.assertEqual(queue.log().count("queue:111: the bridge tables cannot be changed: Operation not permitted"),
                         OPTIONS.returns)
        queue.send(*["add " + line for line in away], "process")
        self.assertEqual(queue.finish(), 0)
        self.assertNotIn("blacklist", str(tables()))

    def test_who_starts_without_the_right_is_at_work_when_it_comes(self):
        queue = Queue(self.folder, "--without-rights")
        queue.commit(SETUP)
        time.sleep(0.05)
        self.assertNotIn("UserInputRules", str(tables()))
        queue.send("rights on")
        waiting.until(lambda: "-A INPUT -j UserInputRules" in tables(), lambda: queue.log())
        sh("ebtables", "-F", "INPUT")  # is watched from then on
        waiting.until(lambda: "-A INPUT -j UserInputRules" in tables(), lambda: queue.log())
        queue.send(*["add " + line for line in CLEANUP], "process")
        queue.finish()

    def test_a_second_process_takes_over_what_the_first_has_now(self):
        first = Queue(self.folder)
        first.commit(SETUP)
        second = Queue(self.folder)
        second.send("state")
        second.answer("ready")
        first.commit(["ebtables -N Later", "ebtables -A INPUT -j Later"])
        first.kill()
        second.commit(SETUP + ["ebtables -N Later", "ebtables -A INPUT -j Later"])
        self.assertEqual([line for line in tables() if line.startswith("-A INPUT")],
                         ["-A INPUT -j UserInputRules", "-A INPUT -j Later"])
        second.send(*["add " + line for line in CLEANUP + ["ebtables -D INPUT -j Later", "ebtables -X Later"]], "process")
        second.finish()
        self.assertNotIn("User", str(tables()))
        self.assertNotIn("Later", str(tables()))

    def test_what_others_have_and_nobody_can_read_hinders_nothing(self):
        sh("nft", "-f", "-", text_in="""table bridge filter {
            set ports { type ifname; elements = { "eth7", "eth8" }; }
            chain INPUT { type filter hook input priority -200; policy accept;
                          ether type ip meta mark set 7 counter; iifname @ports counter drop; }
            chain theirs { vlan id 5 accept; }
            }
            table bridge other {
            chain c { type filter hook forward priority 5; }
            }
            """)
        before = sh("nft", "-s", "list", "ruleset").stdout
        queue = Queue(self.folder)
        queue.commit(SETUP + ["ebtables -P INPUT DROP", mac_rule(1)])
        listed = sh("nft", "-s", "list", "ruleset").stdout
        for part in ("jump UserInputRules", "policy drop", "mark set", "@ports", "vlan id 5"):
            self.assertIn(part, listed)
        queue.kill()
        queue = Queue(self.folder)
        queue.commit(SETUP + [mac_rule(2)])
        queue.send(*["add " + line for line in CLEANUP], "process")
        self.assertEqual(queue.finish(), 0)
        self.assertEqual(sh("nft", "-s", "list", "ruleset").stdout, before, queue.log())

    def test_refused_lines_cost_themselves_only(self):
        queue = Queue(self.folder)
        queue.commit(SETUP + ["ebtables -A UserInputRules -s broken -j DROP", mac_rule(1), mac_rule(2, "Missing"),
                              "ebtables -A UserInputRules -j AlsoMissing", "ebtables -N UserInputRules", mac_rule(3),
                              "ebtables -D UserInputRules -i eth7 -j DROP", "ebtables -P INPUT "])
        queue.finish()
        rules = [line for line in tables() if line.startswith("-A UserInputRules")]
        self.assertEqual(len(rules), 2, tables())
        log = queue.log()
        for part in ['word "broken" of -s: expected a MAC', "Missing -s", "No chain/target/match", "AlsoMissing",
                     "already exists", "Bad rule", "needs a policy: ACCEPT or DROP"]:
            self.assertIn(part, log)
        self.assertEqual(log.count("refused"), 6, log)

    def test_the_time_of_the_last_commit_is_kept(self):
        lock = self.folder + "/record/lock"

        def times(action):
            """The time kept after the action, and those before and behind it."""
            before = time.time_ns()
            action()
            return before, os.stat(lock).st_mtime_ns, time.time_ns()

        queue = Queue(self.folder)
        queue.send("state")
        queue.answer("ready")
        self.assertEqual(os.stat(lock).st_mtime_ns, 0, "nothing carried out yet")
        queue.commit([])
        queue.commit([mac_rule(1, "Missing")])
        self.assertEqual(os.stat(lock).st_mtime_ns, 0, "nothing that could be carried out")
        # Policies leave nothing to record, rules change nothing in the record: the time is kept all the same.
        for lines in (["ebtables -P INPUT ACCEPT"], SETUP, [mac_rule(2), mac_rule(1, "Missing")], [mac_rule(1)]):
            before, kept, after = times(lambda some=lines: queue.commit(some))
            self.assertTrue(before <= kept <= after, f"{lines}: {before} {kept} {after}")
        record = os.stat(self.folder + "/record/tables").st_mtime_ns
        self.assertLess(record, before, "the record itself was not written again")
        queue.send(*["add " + line for line in CLEANUP], "process")
        before, kept, after = times(queue.finish)
        self.assertTrue(before <= kept <= after, "the clean-up is a commit")
        successor = Queue(self.folder)
        successor.send("state")
        successor.answer("ready")
        self.assertEqual(os.stat(lock).st_mtime_ns, 0, "the successor has carried out nothing yet")
        successor.finish()

    def test_a_time_that_cannot_be_kept_costs_one_warning(self):
        queue = Queue(self.folder)
        queue.commit(SETUP)
        lock = self.folder + "/record/lock"
        queue.send("state")
        queue.answer("ready")
        if sh("chattr", "+i", lock, check=False).returncode != 0:
            self.skipTest("no file here can be made immutable")
        self.addCleanup(sh, "chattr", "-i", lock)
        queue.commit([mac_rule(1)])
        queue.commit([mac_rule(2)])
        self.assertEqual(len([line for line in tables() if line.startswith("-A UserInputRules")]), 2)
        self.assertEqual(queue.log().count("time of the last commit"), 1, queue.log())
        sh("chattr", "-i", lock)
        queue.send(*["add " + line for line in CLEANUP], "process")
        queue.finish()

    def test_result_equals_line_by_line(self):
        for seed in range(25):
            rng = random.Random(seed)
            chains = ["A", "B", "C", "INPUT"]
            lines = []
            for _ in range(25):
                chain = rng.choice(chains)
                rule = rng.choice(["-i eth0", "-s 02:00:00:00:00:01", "-p IPv4 --ip-source 10.0.0.7/24",
                                   "-p 802_1Q --vlan-id 5"])
                target = rng.choice(["DROP", "ACCEPT", "A", "B"])
                user = rng.choice("ABC")
                lines.append(rng.choice([f"-N {user}", f"-N {user}", f"-X {user}", f"-F {chain}", f"-P {user} DROP",
                                         f"-A {chain} {rule} -j {target}", f"-A {chain} {rule} -j {target}",
                                         f"-I {chain} {rng.randint(1, 3)} {rule} -j {target}",
                                         f"-D {chain} {rule} -j {target}"]))
                # no loops: only INPUT may jump to A and B
                if lines[-1].startswith(("-A", "-I")) and chain != "INPUT" and target in "AB":
                    lines[-1] = lines[-1].replace(f"-j {target}", "-j DROP")
            sh("nft", "flush", "ruleset")
            for line in lines:
                if line.startswith("-X "):  # delete with the rules
                    sh("ebtables", "-F", line[3:], check=False)
                sh("ebtables", *line.split(), check=False)
            one_by_one = tables()
            sh("nft", "flush", "ruleset")
            queue = Queue(self.folder)
            queue.commit([f"ebtables -F {line[3:]}; ebtables {line}" if line.startswith("-X ") else "ebtables " + line
                          for line in lines], each_processed=True)
            at_once = tables()
            queue.process.kill()
            queue.finish()
            shutil.rmtree(self.folder + "/record")
            self.assertEqual(sorted(one_by_one), sorted(at_once), f"seed {seed}: {lines}\n{queue.log()}")
            self.assertEqual([r for r in one_by_one if r.startswith("-A")], [r for r in at_once if r.startswith("-A")])

    def test_what_waited_until_the_clean_up_leaves_nothing(self):
        held = Queue(self.folder)  # the second one must wait for the first
        held.send("state")
        held.answer("ready")
        queue = Queue(self.folder)
        queue.commit(SETUP + [mac_rule(i) for i in range(10)])
        self.assertNotIn("UserInputRules", str(tables()))
        held.kill()
        queue.send(*["add " + line for line in CLEANUP], "process")
        queue.finish()
        self.assertNotIn("refused", queue.log())
        self.assertNotIn("UserInputRules", str(tables()))

    def test_a_killed_process_leaves_nothing_behind_its_successor(self):
        sh("ebtables", "-N", "Foreign")
        sh("ebtables", "-A", "INPUT", "-i", "eth9", "-j", "Foreign")
        before = tables()
        queue = Queue(self.folder)
        queue.commit(SETUP + ["ebtables -P INPUT DROP"] + [mac_rule(i) for i in range(50)])
        queue.kill()
        self.assertIn("-A INPUT -j UserInputRules", tables())
        queue = Queue(self.folder)
        before_takeover = netfilter.generation()
        queue.commit(SETUP + [mac_rule(99)])
        self.assertEqual(tables().count("-A INPUT -j UserInputRules"), 1)
        self.assertEqual([r for r in tables() if r.startswith("-A UserInputRules")],
                         ["-A UserInputRules -s 02:00:00:00:00:63 -j DROP"])
        self.assertIn(":INPUT ACCEPT", tables())
        self.assertEqual(netfilter.generation(), before_takeover + 1)
        queue.send(*["add " + line for line in CLEANUP], "process")
        queue.finish()
        self.assertEqual(tables(), before, queue.log())

    def test_a_filters_chain_that_somebody_else_has_is_left_alone(self):
        for chain in ("9p2p1macblacklist", "FilterID12"):
            with self.subTest(chain):
                shutil.rmtree(self.folder + "/record", ignore_errors=True)
                sh("nft", "flush", "ruleset")
                sh("ebtables", "-N", chain)
                sh("ebtables", "-A", chain, "-i", "eth9", "-j", "DROP")
                sh("ebtables", "-A", "FORWARD", "-i", "eth9", "-j", chain)
                before = tables()
                queue = Queue(self.folder, anyForm=False)
                own = "11p2p1macblacklist"
                queue.commit(filter_lines(chain) + filter_lines(own))
                now = tables()
                self.assertIn(f"-A {own} -s 02:00:00:00:00:01 -j DROP", now, queue.log())
                self.assertEqual(2, sum(line.endswith("-j " + own) for line in now))
                self.assertEqual(before, [line for line in now if own not in line])
                queue.commit(filter_end(chain) + filter_end(own))
                self.assertEqual(before, tables())
                log = queue.log()
                self.assertIn("not one that this process has made", log)
                # It is gone: now it can be ours.
                sh("ebtables", "-F", "FORWARD")
                sh("ebtables", "-F", chain)
                sh("ebtables", "-X", chain)
                queue.commit(filter_lines(chain))
                self.assertIn(f"-A {chain} -s 02:00:00:00:00:01 -j DROP", tables())
                queue.commit(filter_end(chain))
                self.assertNotIn(chain, str(tables()))
                queue.finish()

    def test_only_the_forms_of_the_handler_pass(self):
        sh("ebtables", "-N", "Foreign")
        before = tables()
        queue = Queue(self.folder, anyForm=False)
        queue.commit(["ebtables -A OUTPUT -j DROP", "ebtables -F FORWARD", "ebtables -X Foreign", "ebtables -N Other",
                      "ebtables -A INPUT -i eth0 -j DROP", "ebtables -P FORWARD ACCEPT; ebtables -P OUTPUT DROP"])
        self.assertEqual(before, tables())
        self.assertEqual(6, queue.log().count("refused"), queue.log())
        queue.finish()

    def test_a_successor_without_a_commit_cleans_up_too(self):
        queue = Queue(self.folder)
        queue.commit(["ebtables -N Other"])
        sh("ebtables", "-A", "FORWARD", "-i", "eth3", "-j", "DROP")
        queue.commit(SETUP)
        queue.kill()
        queue = Queue(self.folder)
        queue.finish()
        self.assertEqual([r for r in tables() if "User" in r or "Other" in r], [])
        self.assertIn("-A FORWARD -i eth3 -j DROP", tables())


if __name__ == "__main__":
    sandbox.enterNetwork()
    if sh("ebtables-restore", "--noflush", check=False, text_in="*filter\n-N T\nCOMMIT\n").returncode != 0:
        print("skipped: this kernel has no bridge tables")
        sys.exit(sandbox.SKIPPED)
    parser = argparse.ArgumentParser()
    parser.add_argument("driver")
    parser.add_argument("--refused", type=int, default=200)
    parser.add_argument("--changes", type=int, default=10)
    parser.add_argument("--filters", type=int, default=101)
    parser.add_argument("--waiting", type=int, default=100)
    parser.add_argument("--returns", type=int, default=9, help="of the right to change the tables")
    rest = parser.parse_known_args(namespace=OPTIONS)[1]
    Queue.driver = os.path.abspath(OPTIONS.driver)
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2, warnings="ignore")
