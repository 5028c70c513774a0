"""What `moatctl status` says of server, daemon and kernel, in good order and when something is amiss."""

import csv
import datetime
import fcntl
import io
import json
import os
import shutil
import signal
import struct
import subprocess
import sys
import termios
import time

from lab import config, kernel, machine, programs, waiting
from lab.frames import Frame

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
IN_ORDER, AMISS, NO_SERVER = 0, 1, 3
MAC, OTHER_MAC = "02:00:00:00:0a:01", "02:00:00:00:0a:02"
CHAIN = "10p2p1MACblacklist"
TABLES = {
    config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "ACCEPT"}],
    config.RULES: [{"Id": 4, "RulePrio": 10, "InInterface": "p1", "SrcMAC": MAC, "Target": "ACCEPT"},
                   {"Id": 5, "RulePrio": 20, "InInterface": "p3", "OutInterface": "p1", "Target": "DROP"},
                   {"Id": 6, "RulePrio": 30, "InInterface": "p3", "OutInterface": "p2", "Target": "DROP"}],
    config.INPUT_POLICY: [{"Id": 7, "Interface": "p2", "Policy": "ACCEPT"}],
    config.FORWARD_POLICY: [{"Id": 8, "InInterface": "p2", "OutInterface": "p3", "Policy": "DROP"}],
    config.FILTERS: [{"Id": 9, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
    config.FILTER_RULES: [{"Id": 3, "BridgeFilterID": 9, "FilterMatch": MAC}],
}
RULE4, RULE5, RULE6 = f"-s {MAC} -i p1 -j ACCEPT", "-i p3 -o p1 -j DROP", "-i p3 -o p2 -j DROP"
WANTED = kernel.expected(
    INPUT=("DROP",), UserInputRules=[RULE4], UserForwardRules=[RULE5, RULE6], UserInputPolicy=["-i p2 -j ACCEPT"],
    UserForwardPolicy=["-i p2 -o p3 -j DROP"], FORWARD=[f"-i p1 -o p2 -j {CHAIN}", f"-i p2 -o p1 -j {CHAIN}"],
    **{CHAIN: [f"-s {MAC} -j DROP"]})


def run(*words, tool=MOATCTL, **options):
    return subprocess.run([tool, "status", *words], capture_output=True, text=True, timeout=60, check=False,
                          **options)


def ebtables(*words):
    subprocess.run(["ebtables", *" ".join(words).split()], check=True)


class Status(machine.Machine):
    """One configuration that uses all six tables; what a test spoils, the next one finds repaired."""

    def setUp(self):
        if not self.server.isRunning():
            type(self).server = programs.startServer(machine.SCHEMA, machine.FOLDER)
            self.config.close()
            type(self).config = config.Config()
        # A new daemon takes out what the last one left and puts in what is configured.
        self.daemon.stop()
        subprocess.run(["nft", "flush", "ruleset"], check=True)
        self.startDaemon()
        self.configure(TABLES, WANTED)

    def holdDaemon(self):
        """What a test spoils is not put back at once."""
        os.kill(self.daemon.pid, signal.SIGSTOP)
        self.addCleanup(os.kill, self.daemon.pid, signal.SIGCONT)

    def status(self, exitStatus, *words):
        """{what: state} of server, daemon, last commit and kernel tables, and the list of rules."""
        done = run("--format=json", *words)
        self.assertEqual((done.returncode, done.stderr), (exitStatus, ""), done.stdout)
        found = json.loads(done.stdout)
        return {row["what"]: row["state"] for row in found["status"]}, found["rules"]

    def notOk(self, exitStatus=AMISS):
        """The entries of rules and chains that are not as they should be: (state, chain, rule, table, id, text)."""
        what, rules = self.status(exitStatus)
        return what["kernel tables"], [tuple(row[name] for name in ("state", "chain", "rule", "table", "id", "text"))
                                       for row in rules if row["state"] != "ok"]

    def lastCommit(self):
        """In nanoseconds since 1970, to the millisecond."""
        text = self.status(IN_ORDER)[0]["last commit"]
        self.assertRegex(text, r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d$")
        return round(datetime.datetime.fromisoformat(text).timestamp() * 1000) * 1_000_000

    def testAllInOrder(self):
        what, rules = self.status(IN_ORDER)
        self.assertEqual(what["server"], "up, schema 1.1.0")
        self.assertEqual(what["daemon"], f"running, process {self.daemon.pid}")
        self.assertEqual(what["kernel tables"], "as configured")
        self.assertEqual({row["state"] for row in rules}, {"ok"})
        self.assertEqual(
            {(row["chain"], row["rule"], row["table"], row["id"], row["text"]) for row in rules
             if row["table"] is not None},
            {("INPUT", None, config.MAIN, None, "policy DROP"), ("FORWARD", None, config.MAIN, None, "policy ACCEPT"),
             ("UserInputRules", 1, config.RULES, 4, RULE4), ("UserForwardRules", 1, config.RULES, 5, RULE5),
             ("UserForwardRules", 2, config.RULES, 6, RULE6),
             ("UserInputPolicy", 1, config.INPUT_POLICY, 7, "-i p2 -j ACCEPT"),
             ("UserForwardPolicy", 1, config.FORWARD_POLICY, 8, "-i p2 -o p3 -j DROP"),
             ("FORWARD", 1, config.FILTERS, 9, f"-i p1 -o p2 -j {CHAIN}"),
             ("FORWARD", 2, config.FILTERS, 9, f"-i p2 -o p1 -j {CHAIN}"),
             (CHAIN, None, config.FILTERS, 9, "policy RETURN"),
             (CHAIN, 1, config.FILTER_RULES, 3, f"-s {MAC} -j DROP")})
        # The daemon's own chains and jumps belong to no row.
        self.assertEqual([row["text"] for row in rules if row["table"] is None and row["rule"]],
                         ["-j UserInputRules", "-j UserInputPolicy", "-j UserForwardRules", "-j UserForwardPolicy"])

    def testOtherForms(self):
        table = run().stdout.splitlines()
        self.assertEqual(table[:2], ["Status", "WHAT           STATE"])
        self.assertRegex(table[3], rf"^daemon +running, process {self.daemon.pid}$")
        self.assertIn("Rules", table)
        rule = next(line for line in table if RULE5 in line)
        self.assertEqual(rule.split()[:7], ["UserForwardRules", "1", "ok", "0", "0", config.RULES, "5"])
        bare = run("--no-headings").stdout
        self.assertNotIn("CHAIN", bare)
        self.assertIn(RULE5, bare)
        done = run("--format=csv")
        self.assertEqual(done.returncode, IN_ORDER)
        status, rules = done.stdout.split("\n\n")
        rows = {row["what"]: row["state"] for row in csv.DictReader(io.StringIO(status))}
        self.assertEqual(rows["kernel tables"], "as configured")
        (row,) = [row for row in csv.DictReader(io.StringIO(rules)) if row["text"] == RULE5]
        self.assertEqual((row["table"], row["id"], row["state"], row["frames"]), (config.RULES, "5", "ok", "0"))
        self.assertEqual(run("--format=xml").returncode, 2)

    def testTheTimeOfTheLastCommit(self):
        resolution = 1_000_000
        for change in (lambda: self.config.update(config.RULES, 5, SrcMAC=MAC),  # only a rule
                       lambda: self.config.update(config.MAIN, None, GlobalForwardingPolicy="DROP")):  # only a policy
            before = time.time_ns()
            tables = kernel.readTables()
            change()
            waiting.until(lambda old=tables: kernel.readTables() != old, "the commit")
            seen = time.time_ns()
            # The daemon still hears the tool's end when the kernel has the new rules.
            kept = waiting.until(lambda start=before: (t := self.lastCommit()) + resolution >= start and t,
                                          "the time of the commit")
            self.assertLess(kept, seen + 500_000_000)

    def testCountersGrowWithTheFrames(self):
        def counters(chain, rule):
            (row,) = [row for row in self.status(IN_ORDER)[1] if (row["chain"], row["rule"]) == (chain, rule)]
            return row["frames"], row["bytes"]
        self.assertEqual(counters("UserForwardRules", 1), (0, 0))
        frames = [Frame(dst=OTHER_MAC) for _ in range(3)]
        self.bridge.send(*(("p3", frame) for frame in frames))
        # The kernel counts what is behind the Ethernet header.
        self.assertEqual(counters("UserForwardRules", 1), (3, sum(len(frame.data) - 14 for frame in frames)))
        self.bridge.sendOne("p3", Frame(dst=OTHER_MAC))
        self.assertEqual(counters("UserForwardRules", 1)[0], 4)
        self.assertEqual(counters("UserForwardRules", 2)[0], 4)
        self.assertEqual(counters("UserInputRules", 1), (0, 0))
        self.bridge.sendOne("p1", Frame(src=MAC, dst=self.bridge.mac))
        self.assertEqual(counters("UserInputRules", 1)[0], 1)
        self.bridge.sendOne("p1", Frame(src=MAC))
        self.assertEqual(counters(CHAIN, 1)[0], 1)

    def testWhatIsMissing(self):
        self.holdDaemon()
        ebtables("-D UserForwardRules", RULE5)
        self.assertEqual(self.notOk(), ("1 missing", [("missing", "UserForwardRules", 1, config.RULES, 5, RULE5)]))
        ebtables("-F", CHAIN)
        self.assertEqual(self.notOk()[0], "2 missing")
        self.assertIn(("missing", CHAIN, 1, config.FILTER_RULES, 3, f"-s {MAC} -j DROP"), self.notOk()[1])
        (row,) = [row for row in self.status(AMISS)[1] if row["id"] == 5]
        self.assertEqual((row["frames"], row["bytes"]), (None, None), "what is not there counts nothing")

    def testAChainThatIsMissing(self):
        self.holdDaemon()
        ebtables("-D FORWARD -i p1 -o p2 -j", CHAIN)
        ebtables("-D FORWARD -i p2 -o p1 -j", CHAIN)
        ebtables("-F", CHAIN)
        ebtables("-X", CHAIN)
        summary, entries = self.notOk()
        self.assertEqual(summary, "4 missing")
        self.assertIn(("missing", CHAIN, None, config.FILTERS, 9, "policy RETURN"), entries)

    def testWhatIsExtra(self):
        self.holdDaemon()
        ebtables("-I UserForwardRules 1 -i p9 -j DROP")
        ebtables("-N Foreign")
        ebtables("-A Foreign -i p8 -j ACCEPT")
        self.assertEqual(self.notOk(), ("3 extra", [
            ("extra", "UserForwardRules", 1, None, None, "-i p9 -j DROP"),
            ("extra", "Foreign", None, None, None, "policy ACCEPT"),
            ("extra", "Foreign", 1, None, None, "-i p8 -j ACCEPT")]))
        # The rules behind the foreign one still are those of their rows.
        self.assertEqual([row["id"] for row in self.status(AMISS)[1] if row["chain"] == "UserForwardRules"],
                         [None, None, 5, 6])

    def testWhatIsDifferent(self):
        self.holdDaemon()
        ebtables("-P INPUT ACCEPT")
        self.assertEqual(self.notOk(), ("1 different", [
            ("different", "INPUT", None, config.MAIN, None, "policy ACCEPT, expected DROP")]))
        ebtables("-D UserForwardRules", RULE5)
        ebtables("-A UserForwardRules", RULE5)
        self.assertEqual(self.notOk()[1][1:],
                         [("different", "UserForwardRules", 2, config.RULES, 5, RULE5)], "in another place")
        ebtables("-A UserInputPolicy -i p9 -j DROP")
        ebtables("-D UserInputRules", RULE4)
        self.assertEqual(self.notOk()[0], "1 missing, 1 extra, 2 different")

    def testRowsThatCannotBeInForceAreNamed(self):
        """The frames that such a row should stop pass: `as configured` is not all there is to say."""
        self.count(config.insert(config.RULES, Id=12, RulePrio=50, InInterface="p1", Ethertype="IPv4", IPPort=80,
                                 Target="DROP"),
                   config.insert(config.RULES, Id=13, Enabled=0, RulePrio=60, InInterface="p1", SrcMAC="zz", Target="DROP"),
                   config.insert(config.FILTER_RULES, Id=14, BridgeFilterID=77, FilterMatch=MAC))
        done = run("--format=json")
        self.assertEqual((done.returncode, done.stderr), (AMISS, ""), done.stdout)
        found = json.loads(done.stdout)
        self.assertEqual({row["what"]: row["state"] for row in found["status"]}["rows"], "2 not in force")
        rule, entry = found["not_in_force"]
        self.assertEqual((rule["table"], rule["id"], rule["column"]), (config.RULES, 12, "IPPort"))
        self.assertEqual(rule["line"], "ebtables -A UserInputRules -i p1 -p IPv4 --ip-destination-port 80 -j DROP")
        self.assertIn("protocol", rule["reason"])
        self.assertEqual((entry["table"], entry["id"], entry["column"], entry["line"]),
                         (config.FILTER_RULES, 14, "BridgeFilterID", ""))
        self.assertEqual(entry["reason"], "77: there is no such filter; expected the Id of a filter")
        self.assertRegex(run().stdout, r"\nNot in force\nTABLE +ID +COLUMN +LINE +REASON\nMoatKeeperRuleset +12 +IPPort +eb")
        self.count(config.delete(config.FILTER_RULES, 14))

    def testWithoutARowOfPolicies(self):
        """The daemon's start makes two lines of nothing; they are of one row, which is missing."""
        self.count(config.delete(config.MAIN))
        self.daemon.stop()
        self.startDaemon()
        waiting.until(lambda: self.config.select(config.DEVICE)[0]["NotInForceCount"] == 2, "the refused lines")
        found = json.loads(run("--format=json").stdout)
        self.assertEqual({row["what"]: row["state"] for row in found["status"]}["rows"], "1 not in force")
        self.assertEqual({(row["table"], row["id"]) for row in found["not_in_force"]}, {(config.MAIN, None)})
        self.assertEqual([row["line"][:17] for row in found["not_in_force"]], ["ebtables -P FORWA", "ebtables -P INPUT"])

    def testAChangeThatNobodyCounts(self):
        """No device says that it has it: what no kernel would take is named all the same."""
        self.holdDaemon()
        self.config.insert(config.RULES, Id=12, RulePrio=50, InInterface="p1", Ethertype="IPv4", IPPort=80, Target="DROP")
        (row,) = json.loads(run("--format=json").stdout)["not_in_force"]
        self.assertEqual(row["reason"], "80: expected a protocol to go with a port, IPProto TCP or UDP")

    def count(self, *operations):
        """A change with a number, as moatctl makes it."""
        number = max((row["Number"] for row in self.config.select(config.CHANGE)), default=0) + 1
        self.config.transact(*config.numbered(number, *operations))
        return number

    def device(self, exitStatus=IN_ORDER):
        done = run("--format=json")
        self.assertEqual(done.returncode, exitStatus, done.stdout)
        (device,) = json.loads(done.stdout)["devices"]
        return device

    def testItWaitsForTheCommitUnderWay(self):
        for number in range(5):
            self.count({"op": "update", "table": config.RULES, "where": [["Id", "==", 5]],
                        "row": {"SrcMAC": f"02:00:00:00:01:{number:02x}"}})
            self.assertRegex(self.device()["state"], "^in step since 20")
        self.holdDaemon()
        number = self.count(config.insert(config.RULES, Id=12, RulePrio=50, InInterface="p1", Target="DROP"))
        shown = subprocess.Popen([MOATCTL, "status", "--timeout", "30", "--format=json"], stdout=subprocess.PIPE)
        self.assertRaises(subprocess.TimeoutExpired, shown.wait, 0.5)
        os.kill(self.daemon.pid, signal.SIGCONT)
        found = json.loads(shown.communicate(timeout=30)[0])
        self.assertEqual((shown.returncode, found["devices"][0]["number"]), (IN_ORDER, number), found)

    def testADeviceThatIsBehind(self):
        self.holdDaemon()
        self.count(config.insert(config.RULES, Id=12, RulePrio=50, InInterface="p1", Target="DROP"))
        done = run("--timeout", "1")
        self.assertEqual(done.returncode, AMISS)
        self.assertRegex(done.stdout, r"\ndevice \S+ +behind: it has not said that the last change is in force")

    def testARepairIsShown(self):
        self.assertEqual(self.device()["repaired"], "")
        ebtables("-F UserForwardRules")
        device = waiting.until(lambda: (d := self.device()) and d["repaired"] and d, "the repair")
        self.assertRegex(device["repaired_what"], r"^ebtables\S* \(process \d+\): .*UserForwardRules")
        self.assertIn(f"repaired       {device['repaired']}: {device['repaired_what']}"[:70], run().stdout)

    def testOnATerminalItRenewsItself(self):
        done = run("--watch")
        self.assertEqual((done.returncode, done.stdout), (2, ""))
        self.assertRegex(done.stderr, "^moatctl: --watch: expected a terminal .*\n$")
        ours, theirs = os.openpty()
        fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 12, 150, 0, 0))
        watch = subprocess.Popen([MOATCTL, "status", "--watch"], stdout=theirs, env={**os.environ, "TERM": "xterm"})
        os.close(theirs)
        screens = iter(self.screens(ours))
        self.assertIn("as configured", next(screens))
        self.config.update(config.RULES, 5, InInterface="p7")
        waiting.until(lambda: 'not here: "p7"' in (screen := next(screens)) and screen, "the port")
        self.assertLess(next(screens).count("\n"), 12)
        watch.send_signal(signal.SIGINT)
        self.assertEqual(watch.wait(10), 0)
        os.close(ours)

    @staticmethod
    def screens(terminal):
        text = ""
        while True:
            text += os.read(terminal, 65536).decode()
            *whole, text = text.split("\x1b[H\x1b[J")
            yield from filter(None, whole)

    def testRowsThatTheKernelDoesNotHaveAreNamed(self):
        waiting.until(lambda: self.config.select(config.DEVICE)[0]["NotInForceCount"] == 0, "its word of these rows")
        self.daemon.stop(signal.SIGKILL)
        self.config.insert(config.RULES, Id=12, RulePrio=50, InInterface="p1", Target="DROP")
        done = run("--format=json")
        self.assertEqual(done.returncode, AMISS)
        self.assertEqual([(row["id"], row["reason"]) for row in json.loads(done.stdout)["not_in_force"]],
                         [(12, "the kernel does not have it: -i p1 -j DROP")])

    def testPortsThatAreNotHereAreNamed(self):
        what, _ = self.status(IN_ORDER)
        self.assertEqual((what["rows"], what["ports"]), ("all in force", "all here"))
        self.config.update(config.RULES, 5, InInterface="p7")
        self.config.update(config.RULES, 6, OutInterface="! lo")
        waiting.until(lambda: self.status(AMISS)[0]["kernel tables"] == "as configured", "the commit")
        self.assertEqual(self.status(AMISS)[0]["ports"], 'not here: "lo", "p7"')
        subprocess.run([MOATCTL, "acknowledge", "rule", "5", "6"], check=True, capture_output=True)
        self.status(IN_ORDER)
        subprocess.run([MOATCTL, "acknowledge", "rule", "5", "6", "--withdraw"], check=True, capture_output=True)

    def testJustAfterAChangeItWaitsForTheCommit(self):
        for number in range(10):
            self.config.update(config.RULES, 5, SrcMAC=f"02:00:00:00:01:{number:02x}")
            self.status(IN_ORDER)

    def testTheDaemonIsAway(self):
        pid = self.daemon.pid
        committed = self.status(IN_ORDER)[0]["last commit"]
        self.daemon.stop(signal.SIGKILL)
        what, rules = self.status(AMISS)
        self.assertEqual((what["daemon"], what["kernel tables"]), ("not running", "as configured"))
        self.assertEqual(what["last commit"], committed)
        self.assertEqual({row["state"] for row in rules}, {"ok"})
        self.startDaemon()
        self.daemon.waitForLog("commitToSystem is called")
        waiting.until(lambda: run().returncode == IN_ORDER, lambda: run().stdout)
        self.assertNotEqual(self.status(IN_ORDER)[0]["daemon"], f"running, process {pid}")
        self.assertEqual(0, self.daemon.stop())
        what, rules = self.status(AMISS)
        self.assertEqual(what["daemon"], "not running")
        self.assertRegex(what["kernel tables"], r"^\d+ missing, 1 different$")

    def testADaemonThatHasEndedDoesNotCount(self):
        """Until its parent takes note of the end, the process still has its name."""
        os.kill(self.daemon.pid, signal.SIGKILL)
        waiting.until(lambda: self.daemonState() == "Z", "the end of the daemon")
        self.assertEqual(self.status(AMISS)[0]["daemon"], "not running")

    def daemonState(self):
        with open(f"/proc/{self.daemon.pid}/stat", encoding="ascii") as stat:
            return stat.read().rpartition(")")[2].split()[0]

    def testTheServerIsAway(self):
        self.server.stop()
        self.daemon.waitForLog("trying again")
        what, rules = self.status(NO_SERVER)
        self.assertRegex(what["server"], f"^down: no configuration server at {programs.SOCKET}: ")
        self.assertEqual(what["daemon"], f"running, process {self.daemon.pid}")
        self.assertEqual(what["kernel tables"], "not compared: the server is down")
        (row,) = [row for row in rules if row["text"] == RULE5]
        self.assertEqual((row["state"], row["frames"], row["table"]), ("unknown", 0, None))
        self.assertEqual({row["state"] for row in rules}, {"unknown"})

    def testNoCommitYet(self):
        self.daemon.stop()
        self.server.stop()
        self.startDaemon()
        self.daemon.waitForLog("no configuration server")
        what, _ = self.status(NO_SERVER)
        self.assertEqual((what["daemon"], what["last commit"]), (f"running, process {self.daemon.pid}", "never"))

    def testADaemonInTheBackground(self):
        self.daemon.stop()
        folder = os.path.join(machine.FOLDER, "pid")
        os.makedirs(folder, exist_ok=True)
        subprocess.run([DAEMON, "-b", "-p", folder], check=True, stdout=subprocess.DEVNULL)
        pid = int(waiting.until(lambda: self._pidIn(folder), "the PID file"))
        try:
            waiting.until(lambda: run().returncode == IN_ORDER, lambda: run().stdout)
            self.assertEqual(self.status(IN_ORDER, "--pid-folder", folder)[0]["daemon"], f"running, process {pid}")
        finally:
            os.kill(pid, signal.SIGTERM)
            waiting.until(lambda: not os.path.exists(f"/proc/{pid}"), "the daemon's end")

    @staticmethod
    def _pidIn(folder):
        try:
            with open(os.path.join(folder, "moatkeeper.pid"), encoding="ascii") as file:
                return file.read().strip()
        except OSError:
            return ""

    def testWithoutTheRightsOfRoot(self):
        # The build may be in a folder that is closed to other users.
        tool = shutil.copy(MOATCTL, machine.FOLDER)
        done = run("--format=json", tool=tool, user=65534, group=65534, extra_groups=[])
        what = {row["what"]: row["state"] for row in json.loads(done.stdout)["status"]}
        self.assertEqual(done.returncode, NO_SERVER, done.stdout)
        self.assertRegex(what["server"], "^down: .*Permission denied$")
        self.assertRegex(what["last commit"], "^unknown: .*/run/moatkeeper/lock: Permission denied$")
        self.assertRegex(what["kernel tables"], "^unknown: .+root")
        self.assertEqual(done.stderr, "")


if __name__ == "__main__":
    machine.main()
