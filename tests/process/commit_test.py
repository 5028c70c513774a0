"""What the daemon hands to the ebtables programs, to the line, and what it does when they fail.

usage: commit_test.py DAEMON [unittest arguments]
"""

import os
import signal

from lab import config, rehearsal, tool
from lab.config import insert

MAC = "02:00:00:00:0a:01"
FILTER = "10p2p1MACblacklist"
ALL_SIX = {
    config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "ACCEPT"}],
    config.RULES: [{"Id": 1, "RulePrio": 10, "InInterface": "p1", "SrcMAC": MAC, "Target": "ACCEPT",
                    "EnableLogging": 1},
                   {"Id": 2, "RulePrio": 5, "InInterface": "p1", "OutInterface": "p2", "Ethertype": "ARP",
                    "Target": "DROP"}],
    config.INPUT_POLICY: [{"Id": 1, "Interface": "p2", "Policy": "ACCEPT"}],
    config.FORWARD_POLICY: [{"Id": 1, "InInterface": "p1", "OutInterface": "p3", "Policy": "DROP"}],
    config.FILTERS: [{"Id": 1, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
    config.FILTER_RULES: [{"Id": 1, "BridgeFilterID": 1, "FilterMatch": MAC}],
}
JUMP_OUT, JUMP_BACK = f"FORWARD -i p2 -o p1 -j {FILTER}", f"FORWARD -i p1 -o p2 -j {FILTER}"
MAKE_FILTER = [f"-N {FILTER}", f"-P {FILTER} RETURN", *(f"-I {jump.replace(' ', ' 1 ', 1)}"
                                                        for jump in (JUMP_OUT, JUMP_BACK))]
REMOVE_FILTER = [f"-D {JUMP_OUT}", f"-D {JUMP_BACK}", f"-F {FILTER}", f"-F {FILTER}", f"-X {FILTER}"]
FLUSH_RULES = ["-F UserInputRules", "-F UserForwardRules"]
RULE_1 = f'-A UserInputRules -i p1 -s {MAC} --log-level 5 --log-prefix "Moatkeeper accepted: " -j ACCEPT'
RULE_2 = "-A UserForwardRules -i p1 -o p2 -p 0x0806 -j DROP"
ACCEPT = ["-P INPUT ACCEPT", "-P FORWARD ACCEPT"]
POLICY = ["-F UserInputPolicy", "-A UserInputPolicy -i p2 -j ACCEPT"]
START = [*rehearsal.CHAINS, *MAKE_FILTER, f"-A {FILTER} -s {MAC} -j DROP", *FLUSH_RULES, RULE_2, RULE_1,
         "-P INPUT DROP", "-P FORWARD ACCEPT", *POLICY, "-F UserForwardPolicy",
         "-A UserForwardPolicy -i p1 -o p3 -j DROP"]
STOP = [f"-D {hook} -j {chain}" for hook, chain in (
    ("INPUT", "UserInputRules"), ("INPUT", "UserInputPolicy"), ("FORWARD", "UserForwardRules"),
    ("FORWARD", "UserForwardPolicy"))] + [
    f"-{command} {chain}" for chain in ("UserInputRules", "UserInputPolicy", "UserForwardRules", "UserForwardPolicy")
    for command in "FX"] + ["-P FORWARD ACCEPT", "-P INPUT ACCEPT"]
CHANGED = [*FLUSH_RULES, "-A UserInputRules -i p9 -j DROP"]  # of rule 1, when its interface becomes p9


def rule(rowId, **columns):
    return {"Id": rowId, "RulePrio": 10 * rowId, "InInterface": f"p{rowId}", "Target": "DROP", **columns}


def ruleLine(rowId):
    return f"-A UserInputRules -i p{rowId} -j DROP"


class Batches(rehearsal.Rehearsal):
    """To the line."""

    def testStartAndStop(self):
        self.startWith(ALL_SIX)
        self.assertEqual(self.daemon.stop(), 0)
        self.assertBatches(START, [*STOP, *REMOVE_FILTER])
        self.assertEqual([call["tool"] for call in tool.calls()], ["ebtables", "ebtables-restore", "ebtables-restore"])
        self.assertFalse(os.path.exists("/run/moatkeeper/tables"), "nothing is left to be taken out")

    def testEmptyTables(self):
        self.startWith({config.MAIN: []})
        self.assertBatches(rehearsal.CHAINS)
        self.assertEqual(self.daemon.matching("^queue:101:"), [
            f'queue:101: refused "ebtables -P {chain} ": -P needs a policy: ACCEPT or DROP'
            for chain in ("INPUT", "FORWARD")])

    def testTheToolGetsNothingButItsInput(self):
        self.startWith(ALL_SIX)
        self.assertEqual(self.daemon.stop(), 0)
        for call in tool.calls("ebtables-restore"):
            self.assertEqual(call["arguments"], ["--noflush"])
            self.assertEqual(call["environment"], {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C"})
            self.assertEqual(call["descriptors"], [0, 1, 2, 3], "3: the lock that outlives a killed daemon")

    def testOneRowChanges(self):
        self.startWith(ALL_SIX)
        self.config.update(config.RULES, 1, EnableLogging=0, Target="DROP")
        self.assertBatches(START, [*FLUSH_RULES, RULE_2, f"-A UserInputRules -i p1 -s {MAC} -j DROP"])

    def testOneRowGoes(self):
        self.startWith(ALL_SIX)
        self.config.delete(config.INPUT_POLICY, 1)
        tool.waitForBatches(2)
        self.config.delete(config.FILTER_RULES, 1)
        tool.waitForBatches(3)
        self.config.delete(config.FILTERS, 1)
        self.assertBatches(START, ["-F UserInputPolicy"], [*REMOVE_FILTER, *MAKE_FILTER], REMOVE_FILTER)

    def testTwoTablesInOneTransaction(self):
        self.startWith(ALL_SIX)
        self.waitForCommit(lambda: self.config.transact(
            insert(config.RULES, **rule(3)), insert(config.INPUT_POLICY, Id=2, Interface="p3", Policy="DROP")))
        self.assertBatches(START, [*FLUSH_RULES, RULE_2, RULE_1, ruleLine(3), *POLICY,
                                   "-A UserInputPolicy -i p3 -j DROP"])
        self.assertEqual(self.daemon.matching("^moatkeeper:121:"),
                         [f"moatkeeper:121: loadFromConfig: Notification on table  {table} received."
                          for table in ("", config.INPUT_POLICY, config.RULES)])
        self.assertEqual(self.commits(), 2)

    def testANotificationThatChangesNothingStartsNothing(self):
        self.startWith(ALL_SIX)
        for rowId in (7, 8):
            self.waitForCommit(lambda rowId=rowId: self.config.insert(config.RULES, **rule(rowId, Enabled=0)))
        self.config.update(config.MAIN, None, GlobalInputPolicy="ACCEPT")
        self.assertBatches(START, ACCEPT)
        self.assertEqual([call["tool"] for call in tool.calls()], ["ebtables", "ebtables-restore", "ebtables-restore"])

    def testALineThatNoToolShouldSeeIsRefused(self):
        self.startWith({config.RULES: [rule(1), rule(2, SrcMAC="$(id)"), rule(3)]})
        self.assertBatches([*rehearsal.CHAINS, *FLUSH_RULES, ruleLine(1), ruleLine(3), *ACCEPT])
        self.assertEqual(self.daemon.matching("^queue:")[1:], [
            'queue:101: refused "ebtables -A UserInputRules -i p2 -s $(id) -j DROP": word "$(id) -j DROP": expected '
            'plain words: nothing here goes through a shell'])


class Refusals(rehearsal.Rehearsal):
    """Three rules come at once, and the tool does not like the second one, line 5 of its input."""

    def check(self, status, errors, reason, megabytes=0):
        self.startWith({})
        start = tool.batches()
        tool.save("*filter\n:INPUT ACCEPT\n:FORWARD ACCEPT\n:UserInputRules RETURN\n:UserForwardRules RETURN\n")
        tool.plan({"status": status, "errors": errors, "megabytes": megabytes})
        self.config.transact(*(insert(config.RULES, **rule(number)) for number in (1, 2, 3)))
        self.assertBatches(*start, [*FLUSH_RULES, *map(ruleLine, (1, 2, 3))], [*FLUSH_RULES, ruleLine(1), ruleLine(3)])
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(tool.batches()[3:], [STOP])
        self.assertEqual(self.daemon.matching("^queue:")[1:], [
            f'queue:110: the tool refused "ebtables -A UserInputRules -i p2 -j DROP": {reason}'])

    def testByTheKernel(self):
        self.check(4, "ebtables-restore v1.8.9 (nf_tables): \n"
                      "line 5: RULE_APPEND failed (Operation not supported): rule in chain UserInputRules\n",
                   "RULE_APPEND failed (Operation not supported): rule in chain UserInputRules")

    def testByTheParser(self):
        self.check(2, "ebtables-restore v1.8.9 (nf_tables): Unknown argument: '-i'\nError occurred at line: 5\n"
                      "Try `ebtables-restore -h' or 'ebtables-restore --help' for more information.\n",
                   "Unknown argument: '-i'")

    def testByTheRulesOfTheTool(self):
        self.check(1, "ebtables-restore: line 5 failed: Index of insertion too big.\n", "Index of insertion too big.")

    def testWithMoreWordsThanAnybodyReads(self):
        self.check(1, "ebtables-restore: line 5 failed: No way.\n", "No way.", megabytes=8)


class Failures(rehearsal.Rehearsal):
    """The tool cannot run when a rule changes and, while its lines wait, a policy."""

    POLICY = ["-F UserInputPolicy", "-A UserInputPolicy -i p2 -j DROP"]

    def check(self, reason, breakIt, repair=tool.reset):
        """The tool is broken, and for that reason, as the log says, works no more until it is repaired."""
        self.startWith({config.RULES: [rule(1)]})
        breakIt()
        self.config.update(config.RULES, 1, InInterface="p9")
        self.assertEqual(self.daemon.waitForLines("^queue:111:"), [
            f"queue:111: the bridge tables cannot be changed: {reason}. Nothing is lost; it is tried again"])
        self.waitForCommit(lambda: self.config.insert(config.INPUT_POLICY, Id=1, Interface="p2", Policy="DROP"))
        repair()
        self.daemon.waitForLines("^queue:108:")
        self.assertEqual(tool.batches()[-1], [*CHANGED, *self.POLICY])
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(len(self.daemon.matching("^queue:")), 3, self.daemon.matching("^queue:"))

    def ends(self, reason, status, errors):
        self.check(f"{tool.RESTORE} ended with status {status}: {reason}",
                  lambda: tool.plan({"status": status, "errors": errors, "always": True}))

    def testMissing(self):
        self.check(f"cannot start {tool.RESTORE}: No such file or directory; install the package ebtables",
                  lambda: os.remove(tool.RESTORE))

    def testNotExecutable(self):
        self.check(f"cannot start {tool.RESTORE}: Permission denied; make it executable",
                  lambda: os.chmod(tool.RESTORE, 0o644))

    def testKilled(self):
        self.check(f"{tool.RESTORE} was killed by signal 9 (Killed); is there memory enough?",
                  lambda: tool.plan({"signal": signal.SIGKILL, "always": True}))

    def testOutOfMemoryInTheKernel(self):
        self.ends("line 4: RULE_APPEND failed (Cannot allocate memory): rule in chain UserInputRules; "
                  "is there memory enough?", 4, "ebtables-restore v1.8.9 (nf_tables): \nline 4: RULE_APPEND failed "
                  "(Cannot allocate memory): rule in chain UserInputRules\n")

    def testOutOfMemoryOnTheWayToTheKernel(self):
        self.ends("sendmsg() failed: No buffer space available / line 5 failed: No buffer space available.; "
                  "is there memory enough?", 1, "sendmsg() failed: No buffer space available\n"
                  "ebtables-restore: line 5 failed: No buffer space available.\n")

    def testWithoutPrivilege(self):
        self.ends("Could not fetch rule set generation id: Permission denied (you must be root); run as root or with "
                  "CAP_NET_ADMIN", 4, "ebtables-restore v1.8.9 (nf_tables): Could not fetch rule set generation id: "
                  "Permission denied (you must be root)\n")

    def testTooLongForOneMessage(self):
        self.startWith({config.RULES: [rule(1)]})
        tool.plan({"status": 1, "errors": "sendmsg() failed: Message too long\n"
                                          "ebtables-restore: line 5 failed: Message too long.\n"})
        self.config.update(config.RULES, 1, InInterface="p9")
        batches = tool.waitForBatches(6)[1:]
        self.assertEqual(batches, [CHANGED, [], *([line] for line in CHANGED)])
        self.assertEqual(self.daemon.waitForLines("^queue:114:"), [
            "queue:114: this commit was not one transaction: sendmsg() failed: Message too long / line 5 failed: "
            "Message too long."])
        self.assertEqual(self.daemon.stop(), 0)

    def testPausesGrow(self):
        self.startWith({config.RULES: [rule(1)]})
        tool.plan({"signal": signal.SIGKILL, "always": True})
        self.config.update(config.RULES, 1, InInterface="p9")
        tool.waitForBatches(4)
        self.assertEqual(tool.batches()[1:], [CHANGED] * 3)
        first, second, third = (call["time"] for call in tool.calls("ebtables-restore")[1:])
        self.assertGreaterEqual(second - first, 0.5)
        self.assertGreaterEqual(third - second, 1)
        self.assertEqual(len(self.daemon.matching("^queue:111:")), 1, "one line for any number of attempts")


class Stops(rehearsal.Rehearsal):
    """The daemon is told to stop while the tool cannot run."""

    def testStopWhileItCannotRun(self):
        self.startWith({config.RULES: [rule(1)]})
        tool.plan({"signal": signal.SIGKILL, "always": True})
        self.config.update(config.RULES, 1, InInterface="p9")
        self.daemon.waitForLines("^queue:111:")
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(len(self.daemon.matching("^queue:102:")), 1)
        self.assertTrue(os.path.exists("/run/moatkeeper/tables"), "what the next start has to take out")

    def testStopWhileItHangs(self):
        self.startWith({config.RULES: [rule(1)]})
        tool.plan({"hangs": True})
        self.config.update(config.RULES, 1, InInterface="p9")
        tool.waitForBatches(2)
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(tool.batches()[2:], [[*CHANGED, *STOP]])
        self.assertRegex(self.daemon.readLog(), f"queue:111: .*{tool.RESTORE} was killed because a stop signal came")

    def testStopTwiceWhileItHangsForEver(self):
        self.startWith({})
        tool.plan({"hangs": True, "always": True})
        self.config.insert(config.RULES, **rule(1))
        tool.waitForBatches(2)
        os.kill(self.daemon.pid, signal.SIGTERM)
        tool.waitForBatches(3)
        self.assertEqual(self.daemon.stop(seconds=8), 0)
        self.assertEqual(len(self.daemon.matching("^queue:102:")), 1)


if __name__ == "__main__":
    rehearsal.main()
