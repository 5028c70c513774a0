"""What the bridge tables hold when the daemon or the configuration server starts, stops, dies and returns."""

import os
import random
import signal
import socket
import subprocess
import time

from lab import config, frames, kernel, machine, netfilter, programs, waiting
from lab.frames import Frame

MAC = "02:00:00:00:0a:01"
CHAIN = "10p2p1MACblacklist"
HAND_OVER = signal.SIGRTMIN + 1
TABLES = {
    config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "ACCEPT"}],
    config.RULES: [{"Id": 1, "RulePrio": 10, "InInterface": "p1", "SrcMAC": MAC, "Target": "ACCEPT"}],
    config.INPUT_POLICY: [{"Id": 1, "Interface": "p2", "Policy": "ACCEPT"}],
    config.FORWARD_POLICY: [{"Id": 1, "InInterface": "p1", "OutInterface": "p3", "Policy": "DROP"}],
    config.FILTERS: [{"Id": 1, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
    config.FILTER_RULES: [{"Id": 1, "BridgeFilterID": 1, "FilterMatch": MAC}],
}


def wanted():
    return kernel.expected(
        INPUT=("DROP",), UserInputRules=[f"-s {MAC} -i p1 -j ACCEPT"], UserInputPolicy=["-i p2 -j ACCEPT"],
        UserForwardPolicy=["-i p1 -o p3 -j DROP"],
        FORWARD=[f"-i p1 -o p2 -j {CHAIN}", f"-i p2 -o p1 -j {CHAIN}"], **{CHAIN: [f"-s {MAC} -j DROP"]})


class Lifecycle(machine.Machine):
    """One configuration that uses all six tables."""

    def setUp(self):
        if not self.server.isRunning():
            self.startServer()
        if not self.daemon.isRunning():
            self.startDaemon()
        self.daemon.waitForLog("commitToSystem is called")  # what it finds may be as it wants it
        self.configure(TABLES, wanted())

    def startServer(self):
        type(self).server = programs.startServer(machine.SCHEMA, machine.FOLDER)
        self.config.close()
        type(self).config = config.Config()

    def assertFilters(self):
        """The configuration is in force: frames meet the fate that its rows say."""
        self.assertEqual(set(), self.bridge.sendOne("p1", Frame(src=MAC)))  # the filter and the policy
        self.assertEqual({"p2"}, self.bridge.sendOne("p1", Frame()))
        self.assertEqual({"br0"}, self.bridge.sendOne("p1", Frame(src=MAC, dst=self.bridge.mac)))
        self.assertEqual(set(), self.bridge.sendOne("p3", Frame(src=MAC, dst=self.bridge.mac)))

    def testStoppingLeavesTheTablesAsTheyWereFound(self):
        self.assertEqual(0, self.daemon.stop())
        self.assertEqual(kernel.untouched(), kernel.readTables())
        own = ["-A FORWARD -s 02:00:00:00:00:99 -j DROP", "-N OfSomebodyElse", "-A OfSomebodyElse -i p3 -j CONTINUE"]
        for command in own:
            subprocess.run(["ebtables", *command.split()], check=True)
        before = kernel.readTables()
        try:
            for number in (signal.SIGTERM, signal.SIGINT, signal.SIGQUIT):
                with self.subTest(number.name):
                    self.startDaemon()
                    waiting.until(lambda: "UserForwardPolicy" in kernel.readTables(), "the user chains")
                    self.assertEqual(0, self.daemon.stop(number))
                    self.assertEqual(before, kernel.readTables())
        finally:
            for command in ("-D FORWARD -s 02:00:00:00:00:99 -j DROP", "-F OfSomebodyElse", "-X OfSomebodyElse"):
                subprocess.run(["ebtables", *command.split()], check=True)

    def testAKilledDaemonKeepsTheBridgeFilteredAndIsReplaced(self):
        self.daemon.stop(signal.SIGKILL)
        self.assertEqual(wanted(), kernel.readTables())
        self.assertFilters()
        self.config.delete(config.INPUT_POLICY, 1)  # while nobody looks
        self.startDaemon()
        tables = wanted()
        del tables["UserInputPolicy"][1]
        self.waitForTables(tables)
        self.assertEqual(0, self.daemon.stop())
        self.assertEqual(kernel.untouched(), kernel.readTables())

    def testANotificationWithoutAChangeStartsNothing(self):
        def notify(rowId):
            commits = self.daemon.readLog().count("commitToSystem is called")
            self.config.insert(config.RULES, Id=rowId, Enabled=0, RulePrio=1, InInterface="p1", Target="DROP")
            waiting.until(lambda: self.daemon.readLog().count("commitToSystem is called") > commits, "a commit")

        # A delivery begins when all that the one before it might start is over.
        notify(101)
        before = netfilter.generation()
        notify(102)
        notify(103)
        self.assertEqual(before, netfilter.generation())
        self.config.update(config.RULES, 101, Enabled=1)
        waiting.until(lambda: netfilter.generation() > before, "a change to count")

    def testTheServerDiesAndReturns(self):
        for number in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number.name):
                self.server.stop(number)
                waiting.until(lambda: not os.path.exists("/proc/%d" % self.server.pid), "the server's end")
                self.assertEqual(wanted(), kernel.readTables())
                self.assertFilters()
                self.assertTrue(self.daemon.isRunning())
                self.startServer()
                self.config.update(config.FORWARD_POLICY, 1, Policy="ACCEPT")
                tables = wanted()
                tables["UserForwardPolicy"][1] = "-i p1 -o p3 -j ACCEPT"
                self.waitForTables(tables)
                self.config.update(config.FORWARD_POLICY, 1, Policy="DROP")
                self.waitForTables(wanted())

    def testTheServerReturnsWithAnotherDatabase(self):
        self.server.stop()
        other = programs.startServer(machine.SCHEMA, machine.FOLDER, "other.db")
        try:
            connection = config.Config()
            connection.replace({config.MAIN: TABLES[config.MAIN], config.RULES: TABLES[config.RULES]})
            self.waitForTables(kernel.expected(INPUT=("DROP",), UserInputRules=[f"-s {MAC} -i p1 -j ACCEPT"]))
            connection.close()
        finally:
            other.stop()
        self.startServer()
        self.waitForTables(wanted())

    def testADaemonWithoutAServerLeavesTheTablesAlone(self):
        self.assertEqual(0, self.daemon.stop())
        self.server.stop()
        self.startDaemon()
        self.daemon.waitForLog("/tmp/cfgserver.socket")
        self.assertEqual(kernel.untouched(), kernel.readTables())
        self.startServer()
        self.waitForTables(wanted())
        self.assertFilters()

    def testWhatAKilledDaemonLeftStaysUntilThereIsAConfiguration(self):
        self.daemon.stop(signal.SIGKILL)
        self.server.stop()
        self.startDaemon()
        self.daemon.waitForLog("no configuration server")
        self.assertEqual(wanted(), kernel.readTables())
        self.startServer()
        waiting.until(lambda: os.stat("/run/moatkeeper/lock").st_mtime > 0, "the end of the first commit")
        self.waitForTables(wanted())
        self.daemon.stop(signal.SIGKILL)
        self.server.stop()
        self.startDaemon()
        self.daemon.waitForLog("no configuration server")
        self.assertEqual(0, self.daemon.stop())  # who stops it wants its rules out, whoever put them in
        self.assertEqual(kernel.untouched(), kernel.readTables(), self.daemon.readLog())

    def testAHandOverKeepsEverythingAndTheNextProcessChangesNothing(self):
        before = netfilter.generation()
        for _ in range(3):
            self.assertEqual(0, self.daemon.stop(HAND_OVER))
            self.assertEqual(wanted(), kernel.readTables())
            self.startDaemon()
            self.daemon.waitForLog("commitToSystem is called")
        self.assertEqual(0, self.daemon.stop(HAND_OVER))
        self.assertEqual(before, netfilter.generation())
        self.startDaemon()
        self.config.delete(config.INPUT_POLICY, 1)
        tables = wanted()
        del tables["UserInputPolicy"][1]
        self.waitForTables(tables)

    def testAHandOverAtAnyMoment(self):
        self.daemon.stop(HAND_OVER)
        before = netfilter.generation()
        for _ in range(40):
            self.startDaemon()
            time.sleep(random.uniform(0, 0.04))  # the case itself
            # As a signal's default action before the daemon looks for it.
            self.assertIn(self.daemon.stop(HAND_OVER), (0, -HAND_OVER))
        self.assertEqual(before, netfilter.generation())
        self.assertEqual(wanted(), kernel.readTables())

    def testAHandOverBeforeThereIsAConfiguration(self):
        self.server.stop()
        self.assertEqual(0, self.daemon.stop(HAND_OVER))
        for _ in range(2):
            self.startDaemon(MOATKEEPER_UNTIL_CONFIGURED="closed")
            self.daemon.waitForLog("the rules of the process before stay")
            self.assertEqual(0, self.daemon.stop(HAND_OVER))
            self.assertEqual(wanted(), kernel.readTables())

    def testAReloadReadsEverythingAnew(self):
        commits = self.daemon.readLog().count("commitToSystem is called")
        before = netfilter.generation()
        os.kill(self.daemon.pid, signal.SIGHUP)
        waiting.until(lambda: self.daemon.readLog().count("commitToSystem is called") > commits, "another delivery")
        self.assertEqual(before, netfilter.generation())
        self.assertEqual(wanted(), kernel.readTables())

    def testReadyIsToldWhenTheFirstCommitIsInTheKernel(self):
        self.assertEqual(0, self.daemon.stop())
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind("\0moatkeeper-lifecycle")
            os.kill(self.server.pid, signal.SIGSTOP)
            self.startDaemon(NOTIFY_SOCKET="@moatkeeper-lifecycle")
            self.daemon.waitForLog("Debug mode is set")
            manager.setblocking(False)
            self.assertRaises(BlockingIOError, manager.recv, 1000)
            manager.settimeout(10)
            os.kill(self.server.pid, signal.SIGCONT)
            self.assertEqual(b"READY=1\nSTATUS=the configuration is in force", manager.recv(1000))
            self.assertEqual(wanted(), kernel.readTables())

    def testReadyIsToldWithoutAConfigurationWhenTheTimeIsOver(self):
        self.assertEqual(0, self.daemon.stop())
        self.server.stop()
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as manager:
            manager.bind("/tmp/notify")
            manager.settimeout(10)
            self.startDaemon(NOTIFY_SOCKET="/tmp/notify", MOATKEEPER_WAIT_SECONDS="1")
            self.assertEqual(b"READY=1\nSTATUS=waits for its configuration", manager.recv(1000))
            self.startServer()
            self.waitForTables(wanted())
            manager.setblocking(False)
            self.assertRaises(BlockingIOError, manager.recv, 1000)
        os.unlink("/tmp/notify")

    def testClosedUntilThereIsAConfiguration(self):
        self.assertEqual(0, self.daemon.stop())
        self.server.stop()
        self.startDaemon(MOATKEEPER_UNTIL_CONFIGURED="closed", MOATKEEPER_ALLOWED=f"p3 {MAC} p+")
        self.daemon.waitForLog("start:20:")
        self.daemon.stop(signal.SIGKILL)
        self.startDaemon(MOATKEEPER_UNTIL_CONFIGURED="closed", MOATKEEPER_ALLOWED=f"p3 {MAC} p2 a/b")  # as it is now
        self.daemon.waitForLog("start:20:")
        self.assertEqual(1, len(self.daemon.matching('^start:10: MOATKEEPER_ALLOWED in the environment: "a/b"')))

        def assertClosed():
            toUs = self.bridge.mac
            self.assertEqual(set(), self.bridge.sendOne("p1", Frame()))
            self.assertEqual(set(), self.bridge.sendOne("p1", Frame(dst=toUs)))
            self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(src=MAC)))
            self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(dst=MAC)))
            self.assertEqual({"br0"}, self.bridge.sendOne("p1", Frame(src=MAC, dst=toUs)))
            self.assertEqual({"br0"}, self.bridge.sendOne("p3", Frame(dst=toUs)))
            self.assertEqual({"p2"}, self.bridge.sendOne("p3", Frame()))

        assertClosed()
        closed = kernel.readTables()
        subprocess.run(["nft", "flush", "ruleset"], check=True)
        self.waitForTables(closed)
        assertClosed()
        self.startServer()
        self.waitForTables(wanted())
        self.assertEqual(0, self.daemon.stop())
        self.assertEqual(kernel.untouched(), kernel.readTables())

    def testAStopOpensWhatWasClosed(self):
        self.assertEqual(0, self.daemon.stop())
        self.server.stop()
        self.startDaemon(MOATKEEPER_UNTIL_CONFIGURED="closed")
        self.daemon.waitForLog("start:20:")
        self.assertEqual(0, self.daemon.stop())
        self.assertEqual(kernel.untouched(), kernel.readTables())
        self.assertFalse(os.path.exists("/run/moatkeeper/tables"))

    def testChangesArriveInOneStep(self):
        # Each transaction swaps the rule that stops one kind of frame for one that stops the other; whatever the
        # moment, exactly one of the two must pass.
        def tables(ethertype):
            return [{"Id": 1, "RulePrio": 10, "InInterface": "p1", "OutInterface": "p2", "Ethertype": ethertype,
                     "Target": "DROP"}]
        self.configure({config.RULES: tables("ARP")},
                       kernel.expected(UserForwardRules=["-p ARP -i p1 -o p2 -j DROP"]))
        seen = []
        for turn in range(40):
            name, number = (("IPv4", frames.IPV4), ("ARP", frames.ARP))[turn % 2]
            self.config.update(config.RULES, 1, Ethertype=name)

            def swapped():
                # One frame before the change and one after it may both pass or both be stopped; the third decides.
                pair = self.bridge.send(*(("p1", Frame(ethertype=kind)) for kind in
                                          (frames.ARP, frames.IPV4, frames.ARP)))
                passed = ["p2" in arrived for arrived in pair]
                if passed[0] == passed[2]:
                    self.assertNotEqual(passed[0], passed[1])
                seen.append(passed)
                return passed == [number != frames.ARP, number == frames.ARP, number != frames.ARP]
            waiting.until(swapped, f"the rule for {name}")
        self.assertGreater(len(seen), 40)


if __name__ == "__main__":
    machine.main()
