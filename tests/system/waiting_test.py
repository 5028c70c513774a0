"""What a verb that changes rows says when it ends: in force, stored and not in force, or applied by no daemon."""

import json
import os
import signal
import subprocess
import sys
import time

from lab import config, kernel, machine, programs, waiting

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
DONE, BAD_INPUT, NO_SERVER, NOT_IN_FORCE, NOT_APPLIED, WENT_BACK = 0, 2, 3, 6, 7, 9
OLD_SCHEMA = machine.FOLDER + "/old.ovsschema"
ADD = ("rule", "add", "--in", "p1", "--src-mac")
WITHOUT_RIGHTS = ("setpriv", "--bounding-set=-net_admin", "--inh-caps=-net_admin")


def mac(number):
    return f"02:00:00:01:{number >> 8:02x}:{number & 255:02x}"


class Verb:
    """A run of moatctl that may still be waiting."""

    def __init__(self, *words, stdin=""):
        self.began = time.monotonic()
        self._process = subprocess.Popen([MOATCTL, *map(str, words)], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                         stderr=subprocess.PIPE, text=True)
        self._process.stdin.write(stdin)
        self._process.stdin.close()
        self._process.stdin = None

    def waits(self):
        return self._process.poll() is None

    def end(self):
        self.out, self.err = self._process.communicate(timeout=60)
        self.seconds = time.monotonic() - self.began
        return self._process.returncode


class Waiting(machine.Machine):
    """Each test begins with an empty configuration in force."""

    seconds = 20  # a time-out that no test is meant to reach

    def setUp(self):
        self.restart()
        self.config.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}]})
        self.config.transact({"op": "delete", "table": config.DEVICE, "where": [["Name", "==", "other"]]},
                             config.delete(config.USED_IDS), *config.numbered(1))
        self.waitForTables(kernel.expected())
        waiting.until(lambda: [row["Number"] for row in self.devices()] == [1], lambda: f"{self.devices()}")

    def devices(self):
        return self.config.select(config.DEVICE)

    def number(self):
        return self.config.select(config.CHANGE)[0]["Number"]

    def verb(self, *words, stdin="", seconds=None):
        return Verb("--timeout", seconds or self.seconds, *words, stdin=stdin)

    def run_(self, status, *words, **options):
        """Runs it to its end; standard error in lines."""
        verb = self.verb(*words, **options)
        self.assertEqual(verb.end(), status, f"{words}: {verb.out}{verb.err}")
        self.assertLess(verb.seconds, (options.get("seconds") or self.seconds) + 5, words)
        return verb.err.splitlines()

    def stored(self, verb, count=1):
        """Returns when the verb has stored its change, and still waits."""
        waiting.until(lambda: len(self.config.select(config.RULES)) >= count, "the row")
        self.assertTrue(verb.waits())

    def rules(self):
        return kernel.readTables()["UserInputRules"][1:]

    def holdDaemon(self):
        os.kill(self.daemon.pid, signal.SIGSTOP)
        self.addCleanup(lambda pid=self.daemon.pid: self.daemon.pid == pid and os.kill(pid, signal.SIGCONT))


class InForce(Waiting):
    def testWhatIsDoneIsInForce(self):
        for number in range(20):
            self.assertEqual(self.run_(DONE, *ADD, mac(number), "--drop"), [])
            self.assertEqual(len(self.rules()), number + 1)
        self.assertEqual(self.number(), 21)
        self.run_(DONE, "rule", "remove", *range(1, 21))
        self.assertEqual((self.rules(), self.number()), ([], 22))

    def testEveryVerbWaits(self):
        tables = {config.INPUT_POLICY: [{"Id": 1, "Interface": "p1", "Policy": "DROP"}]}
        for words, stdin, chain, rules in (
                (("import", "-"), json.dumps(tables), "UserInputPolicy", ["-i p1 -j DROP"]),
                (("policy", "disable", "1"), "", "UserInputPolicy", []),
                (("batch",), "policy enable 1\npolicy set 1 --in p2\n", "UserInputPolicy", ["-i p2 -j DROP"]),
                (("port", "rename", "p2", "p3"), "", "UserInputPolicy", ["-i p3 -j DROP"]),
                (("forward-policy", "add", "--in", "p1", "--out", "p2", "--drop"), "", "UserForwardPolicy",
                 ["-i p1 -o p2 -j DROP"]),
                (("filter", "add", "--between", "p1", "p2", "--match", "mac", "--mode", "blacklist"), "",
                 "10p2p1macblacklist", []),
                (("filter-rule", "add", "--filter", "1", "--match", mac(1)), "", "10p2p1macblacklist",
                 [f"-s {mac(1)} -j DROP"]),
                (("filter", "remove", "1", "--with-rules"), "", "10p2p1macblacklist", None),
                (("global", "set", "--input", "DROP"), "", "INPUT", ["-j UserInputRules", "-j UserInputPolicy"])):
            self.run_(DONE, *words, stdin=stdin)
            found = kernel.readTables().get(chain)
            self.assertEqual(found and found[1:], rules, f"{words}: {kernel.readTables()}")
        self.assertEqual(kernel.readTables()["INPUT"][0], "DROP")
        self.assertEqual(self.number(), 10)

    def testNothingChangedNothingToWaitFor(self):
        self.holdDaemon()
        self.assertEqual(self.run_(DONE, "rule", "remove", "7", "--if-exists"), [])
        self.assertEqual(self.run_(DONE, "import", "-", stdin="{}"), ["0 rows to add, 0 to remove, 0 to change"])
        self.assertEqual(self.number(), 1)

    def testWithoutWaiting(self):
        self.holdDaemon()
        self.assertEqual(self.run_(DONE, *ADD, mac(1), "--drop", "--no-wait"), [])
        self.assertEqual(self.number(), 2, "others wait for it")

    def testTheNumbersBeginAgain(self):
        self.config.transact(*config.numbered(1_999_999_999))
        waiting.until(lambda: self.devices()[0]["Number"] == 1_999_999_999, "the number")  # 1 would be taken for a later one
        self.run_(DONE, *ADD, mac(1), "--drop")
        self.assertEqual((self.number(), len(self.rules())), (0, 1))

    def testTheFirstNumber(self):
        """What a device said of an earlier count is not taken for an answer."""
        self.config.transact(*config.numbered(700))
        waiting.until(lambda: self.devices()[0]["Number"] == 700, "the number")
        self.holdDaemon()
        self.config.transact(config.delete(config.CHANGE))
        self.run_(NOT_APPLIED, *ADD, mac(1), "--drop", seconds=0.5)
        os.kill(self.daemon.pid, signal.SIGCONT)
        self.run_(DONE, *ADD, mac(2), "--drop")
        self.assertEqual(len(self.rules()), 2)


class NotInForce(Waiting):
    def store(self, status, *rules):
        """Imports the rules as they are."""
        rules = [{"RulePrio": rule["Id"], "InInterface": "p1", "SrcMAC": mac(rule["Id"]), "Target": "DROP", **rule}
                 for rule in rules]
        return self.importForced(status, {config.RULES: rules})

    def importForced(self, status, tables):
        return self.run_(status, "import", "-", "--force", stdin=json.dumps(tables))

    def testARefusedLine(self):
        said = self.store(NOT_IN_FORCE, {"Id": 1, "Ethertype": "nonsense"})
        self.assertRegex(said[-2], "^not in force: MoatKeeperRuleset Id 1: ebtables -A UserInputRules .*nonsense.*: .*nonsense")
        self.assertEqual(said[-1], "moatctl: stored, but 1 row is not in force")
        self.assertEqual(self.rules(), [])
        self.assertEqual(self.run_(DONE, *ADD, mac(2), "--drop"), [], "others' rows are not the change's business")
        self.assertEqual(self.run_(DONE, "rule", "set", "1", "--no-ethertype"), [])
        self.assertEqual(len(self.rules()), 2)

    def testARowWithoutALine(self):
        entry = {"Id": 1, "BridgeFilterID": 9, "FilterMatch": mac(1)}
        said = self.importForced(NOT_IN_FORCE, {config.FILTER_RULES: [entry]})
        self.assertEqual(said[-2], "not in force: MoatKeeperBridgeFilterRules Id 1, BridgeFilterID: 9: there is no such "
                                   "filter; expected the Id of a filter")
        said = self.store(NOT_IN_FORCE, {"Id": 1, "InInterface": "p1;x"})
        self.assertRegex(said[-2], '^not in force: MoatKeeperRuleset Id 1, InInterface: "p1;x": expected ')

    def testRowsThatAChangeOfOthersAffects(self):
        self.run_(DONE, "filter", "add", "--between", "p1", "p2", "--match", "mac", "--mode", "blacklist")
        self.run_(DONE, "batch", stdin="".join(f"filter-rule add --filter 1 --match {mac(n)}\n" for n in (1, 2)))
        said = self.run_(NOT_IN_FORCE, "filter", "set", "1", "--match", "ipv4", "--force")
        self.assertEqual([line.split(": ")[1] for line in said if line.startswith("not in force")],
                         ["MoatKeeperBridgeFilterRules Id 1", "MoatKeeperBridgeFilterRules Id 2"])
        self.assertEqual(said[-1], "moatctl: stored, but 2 rows are not in force")
        self.assertEqual(self.run_(DONE, *ADD, mac(1), "--drop"), [], "these were not in force before")

    def testADisabledRowIsAsItIsMeantToBe(self):
        said = self.store(DONE, {"Id": 1, "Ethertype": "nonsense", "Enabled": 0})
        self.assertFalse([line for line in said if "not in force" in line], said)

    def testMoreLinesThanTheDeviceNames(self):
        said = self.store(NOT_IN_FORCE, *({"Id": n, "Ethertype": f"zz{n}"} for n in range(1, 1301)))
        self.assertEqual(sum(line.startswith("not in force: ") for line in said), 1000)
        self.assertEqual(said[-1], "moatctl: stored, but 1000 rows are not in force, and 300 lines more that the daemon "
                                   "does not name may be among the change's")
        said = self.run_(NOT_IN_FORCE, *ADD, mac(1), "--drop")
        self.assertEqual(said[-1], "moatctl: stored, but not known to be in force: of 1300 lines that are not, the daemon "
                                   "names the first 1000")

    def testADaemonWithoutRights(self):
        self.daemon.stop()
        type(self).daemon = programs.Program([*WITHOUT_RIGHTS, DAEMON, "-d", "-p", machine.FOLDER],
                                             os.path.join(machine.FOLDER, "daemon.log"))
        waiting.until(lambda: (row := self.devices()[0])["Started"] and row["Reason"], "the daemon's word")
        said = self.run_(NOT_IN_FORCE, *ADD, mac(1), "--drop", seconds=1)
        self.assertRegex(said[-1], "^moatctl: stored, but not in force: \\S+ cannot change the kernel's tables: "
                                   ".*Operation not permitted")
        self.daemon.stop()

    def testTheTablesAreTakenAwayAndGivenBack(self):
        """Another program may own the table: nobody else can change it then."""
        owner = subprocess.Popen(["nft", "-i"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL, text=True)
        self.addCleanup(owner.kill)
        owner.stdin.write("delete table bridge filter; add table bridge filter { flags owner; }\n")
        owner.stdin.flush()
        row = waiting.until(lambda: (row := self.devices()[0])["InStep"] == 0 and row, lambda: f"{self.devices()}")
        self.assertRegex(row["Reason"], "Operation not permitted")
        said = self.run_(NOT_IN_FORCE, *ADD, mac(1), "--drop", seconds=1)
        self.assertRegex(said[-1], "cannot change the kernel's tables: .*Operation not permitted")
        verb = self.verb(*ADD, mac(2), "--drop")
        self.stored(verb, 2)
        owner.kill()
        owner.wait()
        self.assertEqual(verb.end(), DONE, verb.err)
        self.assertEqual(len(self.rules()), 2)


class Rollout(Waiting):
    """With a real device; the groups are in tests/process/moatctl_rollout_test.py."""

    def rollOut(self, status, rules):
        rules = [{"RulePrio": 1, "InInterface": "p1", "Target": "DROP", **rule} for rule in rules]
        return self.run_(status, "rollout", "-", "--force", "--step", f"@unix:{programs.SOCKET}", "--settle", "0.2",
                         stdin=json.dumps({config.RULES: rules}))

    def testItIsInForceAndStays(self):
        self.rollOut(DONE, [{"Id": number, "SrcMAC": mac(number)} for number in range(1, 21)])
        self.assertEqual((len(self.rules()), self.config.select("MoatKeeperTrial")), (20, []))

    def testWhatTheKernelRefusesGoesBack(self):
        self.run_(DONE, *ADD, mac(1), "--drop")
        before = kernel.readTables()
        self.rollOut(WENT_BACK, [{"Id": 2, "SrcMAC": mac(2)}, {"Id": 3, "Ethertype": "nonsense"}])
        self.assertEqual(kernel.readTables(), before)


class NotApplied(Waiting):
    def testNoDaemon(self):
        self.daemon.stop()
        said = self.run_(NOT_APPLIED, *ADD, mac(1), "--drop", seconds=0.5)
        self.assertRegex(said[-1], r"^moatctl: stored, but no daemon applies it: that of \S+ was stopped$")
        self.config.transact(config.delete(config.DEVICE))
        said = self.run_(NOT_APPLIED, *ADD, mac(2), "--drop", seconds=0.5)
        self.assertEqual(said, ["moatctl: stored, but no daemon applies it: the server has not heard of one"])
        self.assertEqual(self.run_(DONE, *ADD, mac(3), "--drop", "--no-wait"), [])

    def testADaemonThatStartsLate(self):
        self.daemon.stop()
        verb = self.verb(*ADD, mac(1), "--drop")
        self.stored(verb)
        self.startDaemon()
        self.assertEqual(verb.end(), DONE, verb.err)
        self.assertEqual(len(self.rules()), 1)

    def testADaemonThatIsStoppedMeanwhile(self):
        self.holdDaemon()
        verb = self.verb(*ADD, mac(1), "--drop", seconds=2)
        self.stored(verb)
        self.daemon.stop(signal.SIGKILL)
        self.assertEqual(verb.end(), NOT_APPLIED, verb.err)
        self.assertRegex(verb.err, "not known to be in force: the daemon of .* it is busy, or has ended")
        self.startDaemon()
        self.run_(DONE, *ADD, mac(2), "--drop")

    def testADaemonThatIsKilledAndStartedAgain(self):
        self.holdDaemon()
        verb = self.verb(*ADD, mac(1), "--drop")
        self.stored(verb)
        self.daemon.stop(signal.SIGKILL)
        self.startDaemon()
        self.assertEqual(verb.end(), DONE, verb.err)
        self.assertEqual(len(self.rules()), 1)

    def testADaemonThatIsBusy(self):
        self.holdDaemon()
        said = self.run_(NOT_APPLIED, *ADD, mac(1), "--drop", seconds=0.5)
        self.assertRegex(said[-1], "has not said so within 500 ms; it is busy, or has ended$")
        verb = self.verb(*ADD, mac(2), "--drop")
        self.stored(verb, 2)
        os.kill(self.daemon.pid, signal.SIGCONT)
        self.assertEqual(verb.end(), DONE, verb.err)

    def testAServerThatIsRestarted(self):
        self.holdDaemon()
        verb = self.verb(*ADD, mac(1), "--drop")
        self.stored(verb)
        self.server.stop()
        self.restart()
        os.kill(self.daemon.pid, signal.SIGCONT)
        self.assertEqual(verb.end(), DONE, verb.err)
        self.assertEqual(len(self.rules()), 1)

    def testAServerThatStaysAway(self):
        self.holdDaemon()
        verb = self.verb(*ADD, mac(1), "--drop", seconds=2)
        self.stored(verb)
        self.server.stop()
        self.assertEqual(verb.end(), NOT_APPLIED, verb.err)
        self.assertRegex(verb.err, "^moatctl: stored, but not known to be in force: no configuration server at ")

    def testADeviceOfBeforeTheServersStart(self):
        """All but its name is gone, so it says nothing, whatever the number."""
        self.daemon.stop(signal.SIGKILL)
        self.server.stop()
        type(self).server = programs.startServer(self.schema, machine.FOLDER, self.database)
        self.config.close()
        type(self).config = config.Config()
        self.config.transact(*config.numbered(1_999_999_999))
        said = self.run_(NOT_APPLIED, *ADD, mac(1), "--drop", seconds=0.5)
        self.assertRegex(said[-1], "no daemon applies it: .* has not been heard of since the server was started$")

    def testSeveralDevices(self):
        other = {"Name": "other", "Number": 500, "InStep": 1, "Version": "1", "Started": "2026-01-01T00:00:00.000Z"}
        self.config.insert(config.DEVICE, **other)
        self.assertEqual(self.run_(DONE, *ADD, mac(1), "--drop"), [], "that one is ahead")
        self.updateOther(Number=1)
        said = self.run_(NOT_APPLIED, *ADD, mac(2), "--drop", seconds=0.5)
        self.assertRegex(said[-1], "not known to be in force: the daemon of other has not said so")
        line = f"ebtables -A UserInputRules -i p1 -s {mac(3)} -j DROP"
        self.updateOther(Number=500, NotInForce=f"{line}\tno memory\n", NotInForceCount=1)
        said = self.run_(NOT_IN_FORCE, *ADD, mac(3), "--drop")
        self.assertEqual(said, [f"not in force on other: MoatKeeperRuleset Id 3: {line}: no memory",
                                "moatctl: stored, but 1 row is not in force on other"])
        self.updateOther(Started="", Number=-1)
        self.assertEqual(self.run_(DONE, *ADD, mac(4), "--drop"), [], "one that was stopped does not count")

    def updateOther(self, **row):
        self.config.transact({"op": "update", "table": config.DEVICE, "where": [["Name", "==", "other"]], "row": row})


class OlderServer(machine.Machine):
    """A server whose database was made before there was a place for what is in force."""

    schema, database = OLD_SCHEMA, "old.db"

    @classmethod
    def setUpClass(cls):
        machine.writeOldSchema(OLD_SCHEMA)
        super().setUpClass()

    def testItCannotBeKnown(self):
        verb = Verb(*ADD, mac(1), "--accept")
        self.assertEqual(verb.end(), NOT_APPLIED)
        self.assertEqual(verb.err, "moatctl: stored; the server cannot tell whether it is in force: its database, schema "
                                   "1.0.0, has no place for that\n")
        self.waitForTables(kernel.expected(UserInputRules=[f"-s {mac(1)} -i p1 -j ACCEPT"]))
        verb = Verb("--no-wait", "rule", "remove", "1")
        self.assertEqual((verb.end(), verb.err), (DONE, ""))


if __name__ == "__main__":
    machine.main()
