"""Changes by other clients come into the history, and exactly one of several devices writes there or puts a trial back."""

import json
import os
import signal
import subprocess
import sys
import threading
import time

from lab import config, machine, programs, waiting

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
TRIAL, HISTORY = "MoatKeeperTrial", "MoatKeeperHistory"
ANOTHER = "another client"


class Case(machine.Machine):
    def setUp(self):
        self.restart()
        self.config.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}]})
        self.config.transact(*({"op": "delete", "table": table, "where": []} for table in (TRIAL, HISTORY, config.USED_IDS)))
        self.tool("rule", "add", "--in", "p1", "--drop")
        self.settle()
        self.config.transact({"op": "delete", "table": HISTORY, "where": []})

    def settle(self):
        """Returns when all changes are in the history: it says so by the sum of one more change and of what follows."""
        def isTold():
            before = self.entries()
            self.tool("global", "set", "--forward", "DROP")
            self.tool("global", "set", "--forward", "ACCEPT")
            time.sleep(1.2)  # longer than between two entries of a daemon
            return len(self.entries()) == len(before) + 2
        waiting.until(isTold, "a history that tells all", 20)

    def tool(self, *words, status=0):
        done = subprocess.run([MOATCTL, "--timeout", "20", *map(str, words)], capture_output=True, text=True, check=False,
                              env={**os.environ, "SSH_CONNECTION": ""})
        self.assertEqual(done.returncode, status, f"{words}: {done.stdout}{done.stderr}")
        return done.stdout + done.stderr

    def entries(self):
        """The oldest first."""
        return sorted(self.config.select(HISTORY), key=lambda entry: entry["Number"])

    def others(self):
        return [entry for entry in self.entries() if entry["User"] == ANOTHER]

    def waitForOthers(self, count):
        waiting.until(lambda: len(self.others()) >= count, lambda: f"{count} entries: {self.entries()}", 10)
        return self.others()

    def changesOf(self, entry):
        return json.loads(entry["Changes"])


class OtherClients(Case):
    def testAChangeIsToldOnceWithItsRows(self):
        self.config.insert(config.RULES, Id=7, RulePrio=70, InInterface="p2", Target="DROP")
        (entry,) = self.waitForOthers(1)
        self.assertEqual((entry["Number"], entry["Address"], entry["Host"], entry["Rows"]), (1, "", "", 1))
        self.assertIn("noticed by the daemon of ", entry["Verb"])
        self.assertEqual(self.changesOf(entry), [{"table": config.RULES, "after": {
            "Id": 7, "RulePrio": 70, "InInterface": "p2", "Target": "DROP"}}])
        self.config.update(config.RULES, 7, Target="ACCEPT")
        self.config.delete(config.RULES, 7)
        waiting.until(lambda: sum(entry["Rows"] for entry in self.others()) >= 2, "the other two", 10)
        self.settle()
        told = [change for entry in self.others() for change in self.changesOf(entry)]
        self.assertEqual(told[-1]["before"].get("Target"), "DROP" if len(told) == 2 else "ACCEPT")
        self.assertNotIn("after", told[-1])
        self.assertIn("another client", self.tool("history"))

    def testMoatctlsOwnChangesAreToldByMoatctlOnly(self):
        for words in (("rule", "add", "--in", "p2", "--drop"), ("rule", "set", "2", "--accept"), ("rule", "remove", "2"),
                      ("rule", "add", "--in", "p2", "--drop", "--confirm", "60"), ("cancel",), ("undo",)):
            self.tool(*words)
        self.settle()
        self.assertEqual(self.others(), [])

    def testUndoTakesItBack(self):
        before = self.tool("export")
        self.config.insert(config.RULES, Id=7, RulePrio=70, InInterface="p2", Target="DROP")
        self.waitForOthers(1)
        self.assertIn("undo of 1: ", self.tool("undo"))
        self.assertEqual(self.tool("export"), before)
        self.config.insert(config.RULES, Id=8, RulePrio=80, InInterface="p2", Target="DROP")
        number = self.waitForOthers(2)[-1]["Number"]
        self.config.update(config.RULES, 8, Target="ACCEPT")
        self.assertIn("was changed again since", self.tool("undo", number, status=4))

    def testWhatComesWithAChangeOfMoatctlIsToldApart(self):
        """The daemon sleeps, and both come to it in one message when it connects again."""
        self.tool("rule", "set", "1", "--priority", "10", "--vlan", "5")  # the first entry says what is told from now on
        self.daemon.stop(signal.SIGKILL)
        self.startDaemon()
        waiting.until(lambda: "connected" in self.daemon.readLog(), "a connection", 10)
        os.kill(self.daemon.pid, signal.SIGSTOP)
        try:
            self.config.update(config.RULES, 1, Target="ACCEPT")
            self.tool("--no-wait", "rule", "set", "1", "--priority", "15")
            self.tool("--no-wait", "rule", "add", "--in", "p2", "--drop")
            self.config.insert(config.RULES, Id=9, RulePrio=90, InInterface="p3", Target="DROP")
        finally:
            os.kill(self.daemon.pid, signal.SIGCONT)
        waiting.until(lambda: sum(entry["Rows"] for entry in self.others()) >= 2, lambda: f"both: {self.entries()}")
        self.settle()
        told = [change for entry in self.others() for change in self.changesOf(entry)]
        self.assertEqual(sorted((change.get("after", {}).get("Id"), change["after"]["Target"], change["after"]["RulePrio"])
                                for change in told), [(1, "ACCEPT", 10), (9, "DROP", 90)])

    def testWhatNobodySawIsToldWithoutRows(self):
        self.tool("rule", "add", "--in", "p2", "--drop")
        self.daemon.stop(signal.SIGKILL)
        self.config.insert(config.RULES, Id=7, RulePrio=70, InInterface="p2", Target="DROP")
        self.startDaemon()
        (entry,) = self.waitForOthers(1)
        self.assertEqual((entry["Rows"], entry["Changes"]), (0, ""))
        self.assertIn("nobody saw which rows changed", self.tool("history"))
        self.assertIn("nobody saw which rows changed", self.tool("undo", status=4))
        self.settle()
        self.assertEqual(len(self.others()), 1)

    def testAStreamOfChangesDoesNotPushTheOthersOut(self):
        self.tool("rule", "add", "--in", "p2", "--drop")
        for number in range(150):
            self.config.update(config.RULES, 1, RulePrio=100 + number)
        waiting.until(lambda: any(change["after"]["RulePrio"] == 249 for entry in self.others()
                                  for change in self.changesOf(entry)), lambda: f"the last of them: {self.entries()[-3:]}")
        self.settle()
        entries = self.entries()
        self.assertEqual(entries[0]["Number"], 1)
        self.assertLess(len(self.others()), 30)
        way = [change for entry in self.others() for change in self.changesOf(entry)]
        self.assertEqual(way[0]["before"]["RulePrio"], 10)
        self.assertEqual(way[-1]["after"]["RulePrio"], 249)
        for earlier, later in zip(way, way[1:]):
            self.assertEqual(earlier["after"], later["before"])

    def testAConfirmedTrialIsFollowedByWhatOthersDidMeanwhile(self):
        self.tool("rule", "add", "--in", "p2", "--drop", "--confirm", "60")
        self.config.insert(config.RULES, Id=7, RulePrio=70, InInterface="p2", Target="DROP")
        time.sleep(1.5)
        self.assertEqual(self.others(), [])
        self.tool("confirm")
        (entry,) = self.waitForOthers(1)
        self.assertEqual([change["after"]["Id"] for change in self.changesOf(entry)], [7])


class TwoDevices(Case):
    """Both have the configuration from one server; the second one lives in namespaces of its own."""

    def setUp(self):
        os.makedirs("/tmp/second", exist_ok=True)
        script = "hostname second; mount -t tmpfs tmpfs /run; ip link set lo up; exec \"$@\""
        self.second = programs.Program(["unshare", "--net", "--mount", "--uts", "sh", "-c", script, "-", DAEMON, "-d", "-p",
                                        "/tmp/second"], "/tmp/second/daemon.log")
        self.addCleanup(self.second.stop)
        super().setUp()
        self.second.waitForLog("connected to")
        self.assertEqual(len([row for row in self.config.select(config.DEVICE) if row["Started"]]), 2)

    def testExactlyOneTellsTheHistory(self):
        for number in range(10, 15):
            self.config.insert(config.RULES, Id=number, RulePrio=number, InInterface="p2", Target="DROP")
            waiting.until(lambda: any(change.get("after", {}).get("Id") == number for entry in self.others()
                                      for change in self.changesOf(entry)), f"an entry of rule {number}", 10)
        self.settle()
        self.assertEqual([change["after"]["Id"] for entry in self.others() for change in self.changesOf(entry)],
                         list(range(10, 15)))

    def testWritersAtTheSameTime(self):
        def write(first):
            own = config.Config()
            for number in range(first, first + 20):
                own.insert(config.RULES, Id=number, RulePrio=number, InInterface="p2", Target="DROP")
            own.close()
        writers = [threading.Thread(target=write, args=(first,)) for first in (1000, 2000)]
        for writer in writers:
            writer.start()
        for number in range(3000, 3005):  # the next free Id would be one that a writer is about to use
            self.tool("--no-wait", "rule", "add", "--id", number, "--in", "p3", "--drop", "--src-mac", "02:00:00:00:00:01")
        for writer in writers:
            writer.join()

        def told():
            return sorted(change["after"]["Id"] for entry in self.others() for change in self.changesOf(entry))
        waiting.until(lambda: len(told()) >= 40, lambda: f"40 rows: {told()}")
        self.settle()
        self.assertEqual(told(), [*range(1000, 1020), *range(2000, 2020)])

    def testExactlyOnePutsATrialBack(self):
        before = self.tool("export")
        self.tool("rule", "set", "1", "--accept", "--confirm", "2")
        began = time.monotonic()
        waiting.until(lambda: not self.config.select(TRIAL), "the end of the trial", 5)
        self.assertGreater(time.monotonic() - began, 1)
        self.assertEqual(self.tool("export"), before)
        self.settle()
        self.assertEqual([entry["Undoes"] for entry in self.entries() if entry["User"] == "moatkeeper"], [1])
        self.assertEqual(self.others(), [])
        daemons = (self.daemon, self.second)
        # Whoever is late finds that it is done.
        self.assertTrue(any(daemon.matching("was not confirmed in time: what was before is put back") for daemon in daemons))
        for daemon in daemons:
            self.assertEqual(daemon.matching("was not put back|is not in the history"), [])

    def testTheOtherOneDoesItWhenOneIsKilled(self):
        before = self.tool("export")
        self.tool("rule", "set", "1", "--accept", "--confirm", "2")
        self.second.stop(signal.SIGKILL)
        waiting.until(lambda: not self.config.select(TRIAL), "the end of the trial", 5)
        self.assertEqual(self.tool("export"), before)


if __name__ == "__main__":
    machine.main()
