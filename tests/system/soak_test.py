"""A device's life, quickly: 20 changes a second while the server is restarted and killed, the daemon killed, upgraded,
restarted and stopped, and other programs change the tables. Again and again all of that rests for a moment, and then the
kernel has exactly what is configured, `moatctl status` says so, and nothing has grown.

MOATKEEPER_SOAK_MINUTES in the environment says for how long (1), MOATKEEPER_SEED what happens in which order. In the last
two thirds the daemon is left alone, in the last one the server, too: so what they hold in the end is of a long life."""

import collections
import contextlib
import json
import os
import pathlib
import random
import re
import shutil
import signal
import subprocess
import sys
import threading
import time

from filters_test import KINDS, filterRow, filterRule, jumps
from lab import config, kernel, machine, programs, waiting
from lab.frames import Frame
from others_test import KINDS as ATTACKS
from rules_test import MATCHES

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
MINUTES = float(os.environ.get("MOATKEEPER_SOAK_MINUTES", "1"))
SEED = os.environ.get("MOATKEEPER_SEED", "1")
SANITIZED = b"__asan_init" in pathlib.Path(DAEMON).read_bytes()  # whose memory is mostly the sanitizer's
PER_SECOND = 20
PERIOD = 4.0  # seconds from one quiet moment to the next
THEIRS = "-i theirs -j ACCEPT"  # what another program has in FORWARD
STOPPED, PASSED = "02:00:00:00:0c:01", "02:00:00:00:0c:02"
MEMORY_KB, COMPACTED_BYTES = 1024, 250_000
LARGE_FILE = 10_000_000  # the server compacts it then, but not before it has run for ten minutes, which is rare here
COUNT_UP = {"op": "mutate", "table": config.CHANGE, "where": [],
            "mutations": [["Number", "+=", 1]]}
PAIRS = [(one, other) for one in machine.PORTS for other in machine.PORTS if one != other]
IDS = {config.INPUT_POLICY: range(1, 4), config.FORWARD_POLICY: range(1, 7), config.RULES: range(3, 60),
       config.FILTERS: range(1, 9), config.FILTER_RULES: range(1, 25)}
ALWAYS = {(config.RULES, number): {"Id": number, "Enabled": 1, "RulePrio": number, "InInterface": "p1", "OutInterface": "p3",
                                   "SrcMAC": mac, "Target": target, "EnableLogging": 0}
          for number, mac, target in ((1, STOPPED, "DROP"), (2, PASSED, "ACCEPT"))}


def match(number):
    """The columns of the rule with that Id that never change, and how ebtables-save writes them."""
    return list(MATCHES.values())[number % len(MATCHES)][:3]


def entry(number):
    """The filter, the value and the match of an entry of a list."""
    if number in IDS[config.FILTERS]:
        _, value, text, _, _ = list(KINDS.values())[number - 1]
        return number, value, text
    mac = f"02:00:00:00:0d:{number:02x}"
    return 1 + number % 2, mac, f"-s {mac}"


def log(row):
    word = "accepted" if "ACCEPT" in (row.get("Target"), row.get("Policy")) else "denied"
    return f'--log-level notice --log-prefix "Moatkeeper {word}: " ' if row["EnableLogging"] else ""


class Configuration:
    """The rows as they should be on the server, and what the kernel's tables must hold then."""

    def __init__(self, dice):
        self._dice = dice
        self.main = {"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}
        self.rows = dict(ALWAYS)

    def change(self):
        """The operations of one change, which is in force here already."""
        table = self._dice.choice((config.MAIN, *IDS, config.RULES, config.RULES, config.FILTER_RULES))
        if table == config.MAIN:
            self.main = {column: self._verdict() for column in self.main}
            return [{"op": "update", "table": table, "where": [], "row": self.main}]
        number = self._dice.choice(IDS[table])
        key = (table, number)
        if key not in self.rows:
            row = self._row(table, number)
            if row is None:
                return self.change()
            self.rows[key] = row
            return [config.insert(table, **row)]
        if self._dice.random() < 0.4:
            gone = [key, *(other for other, row in self.rows.items()
                           if table == config.FILTERS and row.get("BridgeFilterID") == number)]
            for each in gone:
                del self.rows[each]
            return [config.delete(*each) for each in gone]
        self.rows[key] = row = self._row(table, number)
        return [{"op": "update", "table": table, "where": [["Id", "==", number]], "row": row}]

    def state(self):
        return dict(self.main), {key: dict(row) for key, row in self.rows.items()}

    def read(self, connection):
        """As they are, after a change of which nobody knows whether it was done."""
        self.main = {column: connection.select(config.MAIN)[0][column] for column in self.main}
        self.rows = {}
        for table, numbers in IDS.items():
            for row in connection.select(table):
                known = ALWAYS.get((table, row["Id"])) or self._row(table, row["Id"])
                self.rows[table, row["Id"]] = {column: row[column] for column in known}

    def _verdict(self):
        return self._dice.choice(("ACCEPT", "DROP"))

    def _row(self, table, number):
        common = {"Enabled": int(self._dice.random() < 0.8)}
        logging = {"EnableLogging": int(self._dice.random() < 0.1)}
        if table == config.INPUT_POLICY:
            return {"Id": number, "Interface": f"p{number}", "Policy": self._verdict(), **common, **logging}
        if table == config.FORWARD_POLICY:
            one, other = PAIRS[number - 1]
            return {"Id": number, "InInterface": one, "OutInterface": other, "Policy": self._verdict(), **common, **logging}
        if table == config.RULES:
            one, other = self._dice.choice(PAIRS)
            return {"Id": number, "RulePrio": self._dice.randint(3, 30), "InInterface": one,
                    "OutInterface": self._dice.choice((other, "")), "Target": self._verdict(), **match(number)[0],
                    **common, **logging}
        if table == config.FILTERS:
            return filterRow(number, 10 * number + self._dice.randrange(10), list(KINDS)[number - 1],
                             self._dice.choice(("blacklist", "whitelist")), **common)
        filterId, value, _ = entry(number)
        if (config.FILTERS, filterId) not in self.rows:
            return None
        return filterRule(number, filterId, value, **common)

    def tables(self):
        """Of the kernel, without what others have there."""
        chains = {"UserInputRules": [], "UserForwardRules": [], "UserInputPolicy": [], "UserForwardPolicy": []}
        for row in sorted(self._enabled(config.RULES), key=lambda row: (row["RulePrio"], row["Id"])):
            before, after = match(row["Id"])[1:] if row["Id"] in IDS[config.RULES] else (f"-s {row['SrcMAC']} ", "")
            out = f"-o {row['OutInterface']} " if row["OutInterface"] else ""
            chains["UserForwardRules" if out else "UserInputRules"].append(
                f"{before}-i {row['InInterface']} {out}{after}{log(row)}-j {row['Target']}")
        for row in self._enabled(config.INPUT_POLICY):
            chains["UserInputPolicy"].append(f"-i {row['Interface']} {log(row)}-j {row['Policy']}")
        for row in self._enabled(config.FORWARD_POLICY):
            chains["UserForwardPolicy"].append(
                f"-i {row['InInterface']} -o {row['OutInterface']} {log(row)}-j {row['Policy']}")
        forward = [self.main["GlobalForwardingPolicy"]]
        for row in self._enabled(config.FILTERS):  # their priorities ascend with their Ids
            name = f"{row['Prio']}p2p1{row['MatchCriteria']}{row['Mode']}"
            forward += jumps(KINDS[row["MatchCriteria"]][0], name)
            policy, target = ("RETURN", "DROP") if row["Mode"] == "blacklist" else ("DROP", "RETURN")
            chains[name] = (policy, *(f"{entry(rule['Id'])[2]} -j {target}" for rule in self._enabled(config.FILTER_RULES)
                                      if rule["BridgeFilterID"] == row["Id"]))
        return kernel.expected(INPUT=(self.main["GlobalInputPolicy"],), FORWARD=tuple(forward), **chains)

    def _enabled(self, table):
        return [row for (name, _), row in sorted(self.rows.items()) if name == table and row["Enabled"]]


class Changer(threading.Thread):
    """Makes changes at a steady pace while it is let, over a connection that breaks when the server goes."""

    def __init__(self, configuration):
        super().__init__(daemon=True)
        self.made, self.broken, self.seconds = 0, 0, 0.0
        self.error = None
        self._configuration = configuration
        self._connection = config.Config()
        self._wanted, self._resting = threading.Event(), threading.Event()

    def pause(self):
        """Returns when no change is under way."""
        self._wanted.clear()
        waiting.until(lambda: self.error or self._resting.is_set(), "the last change's answer", 30)
        if self.error:
            raise self.error

    def goOn(self):
        self._resting.clear()
        self._wanted.set()

    def run(self):
        following = 0.0  # when the next change is due
        try:
            while True:
                if not self._wanted.is_set():
                    self._resting.set()
                    self._wanted.wait()
                begin = time.monotonic()
                following = max(following, begin - 1) + 1 / PER_SECOND  # what a busy machine has missed is made up for
                self._change()
                time.sleep(max(0.0, following - time.monotonic()))
                self.seconds += time.monotonic() - begin
        except Exception as error:  # raised where the test looks next
            self.error = error

    def _change(self):
        before = self._configuration.state()
        operations = self._configuration.change()
        try:
            self._connection.transact(*operations, COUNT_UP)
            self.made += 1
        except OSError:
            self.broken += 1
            after = self._configuration.state()
            waiting.until(self._connect, "the server", 30)
            if self._configuration.state() not in (before, after):
                raise AssertionError(f"the server has lost something: {self._configuration.state()} is neither {before} "
                                     f"nor {after}") from None

    def _connect(self):
        """Anew, and reads what the server has; it may go meanwhile."""
        self._connection.close()
        with contextlib.suppress(OSError):
            self._connection = config.Config()
            self._configuration.read(self._connection)
            return True


class Soak(machine.Machine):
    def setUp(self):
        self.dice = random.Random(SEED)
        self.counts = collections.Counter()
        self.theirs = False
        self.samples = {}  # of each daemon by its process: the first and the last
        self.config.transact(*config.numbered(0), config.insert(config.MAIN),
                             *(config.insert(table, **row) for (table, _), row in ALWAYS.items()))
        self.configuration = Configuration(random.Random(SEED))
        self.changer = Changer(self.configuration)
        self.changer.start()

    @classmethod
    def startDaemon(cls, **environment):
        """From a file of its own, which an upgrade replaces; without the many lines of -d."""
        binary = machine.FOLDER + "/moatkeeper"
        if not os.path.exists(binary):
            shutil.copy(DAEMON, binary)
        cls.daemon = programs.Program([binary, "-p", machine.FOLDER], machine.FOLDER + "/daemon.log", environment)

    def testItHolds(self):
        begin = time.monotonic()
        third = MINUTES * 60 / 3
        everyone = [self.aChange, self.anAttack, self.anAttack]
        withServer = [*everyone, self.aRestartOfTheServer, self.aKillOfTheServer]
        withDaemon = [*withServer, self.aKill, self.anUpgrade, self.aRestart, self.aStop]
        for number, events in enumerate((withDaemon, withServer, everyone), 1):
            while time.monotonic() < begin + number * third:
                self.live(events)
                self.rest()
        self.report()
        self.assertGreater(self.changer.made, PER_SECOND / 2 * self.changer.seconds)
        self.compact()
        self.assertEqual(self.daemon.stop(), 0, self.daemon.readLog()[-2000:])
        self.assertEqual(self.ours(), kernel.untouched())

    def live(self, events):
        """Things happen, with changes between them all the time."""
        if not self.theirs:
            subprocess.run(["ebtables", "-A", "FORWARD", *THEIRS.split()], check=True)
            self.theirs = True
        self.changer.goOn()
        end = time.monotonic() + PERIOD
        while time.monotonic() < end:
            time.sleep(self.dice.uniform(0.1, 0.8))
            event = self.dice.choice(events)
            event()
            self.counts[event.__name__] += 1
        self.changer.pause()

    def rest(self):
        """A quiet moment: everything agrees."""
        self.counts["quiet"] += 1
        wanted = self.configuration.tables()
        number = self.config.select(config.CHANGE)[0]["Number"]

        def isInForce():
            rows = self.config.select(config.DEVICE)
            return [(row["Number"], row["InStep"], row["NotInForceCount"]) for row in rows] == [(number, 1, 0)]
        waiting.until(lambda: self.ours() == wanted, lambda: self.told(f"wanted {wanted}\nfound {self.ours()}"), 60)
        waiting.until(isInForce, lambda: self.told(f"change {number}: {self.config.select(config.DEVICE)}"), 60)
        self.assertInOrder()
        self.assertTrue(self.isFiltered(), self.told("frames"))
        state = self.state()
        first, _ = self.samples.setdefault(self.daemon.pid, (state, state))
        self.samples[self.daemon.pid] = (first, state)
        self.assertEqual(state[1], first[1], "descriptors of the daemon")
        if not SANITIZED:
            self.assertLess(state[0] - first[0], MEMORY_KB, "the daemon's memory")
        if state[3] > LARGE_FILE:
            self.counts["compacted"] += 1
            self.compact()
        self.assertLessEqual(len(os.listdir("/run/moatkeeper")), 4)

    def told(self, text):
        return f"{text}\n{self.counts}\nthe daemon:\n{self.daemon.readLog()[-2000:]}"

    def ours(self):
        """The kernel's tables without the one rule of another program; a text where that is not there once. `ebtables-save`
        may show it several times while the tables change."""
        tables = kernel.readTables()
        count = tables["FORWARD"].count(THEIRS)
        if count != int(self.theirs):
            return f"{count} x {THEIRS}"
        tables["FORWARD"] = [rule for rule in tables["FORWARD"] if rule != THEIRS]
        return tables

    def assertInOrder(self):
        """By what status says: it finds nothing amiss but the other program's rule."""
        done = subprocess.run([MOATCTL, "status", "--format=json", "--pid-folder", machine.FOLDER], capture_output=True,
                              text=True, check=False)
        self.assertEqual(done.returncode, int(self.theirs), self.told(done.stdout + done.stderr))
        found = json.loads(done.stdout)
        self.assertEqual([row["text"] for row in found["rules"] if row["state"] != "ok"], [THEIRS] * self.theirs)
        summary = {row["what"]: row["state"] for row in found["status"]}
        self.assertEqual((summary["rows"], summary["ports"]), ("all in force", "all here"))
        self.assertIn(f"process {self.daemon.pid}", summary["daemon"])

    def isFiltered(self):
        """By frames. It always is, unless somebody has just destroyed the tables."""
        stopped, passed = self.bridge.send(*(("p1", Frame(src=mac)) for mac in (STOPPED, PASSED)))
        return "p3" not in stopped and "p3" in passed

    def endWithoutAGap(self, program, number, status):
        """Ends a program by the signal; frames meet what was in force, and it comes back."""
        waiting.until(self.isFiltered, lambda: self.told("the repair"), 60)
        self.assertEqual(program.stop(number), status, program.readLog()[-2000:])
        self.assertTrue(self.isFiltered(), self.told(f"a gap after signal {number}"))
        self.restart()

    def state(self):
        """Resident memory of the daemon in kB and its descriptors, memory of the server, bytes of its file."""
        def resident(pid):
            return int(re.search(r"VmRSS:\s+(\d+) kB", pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii"))[1])
        return (resident(self.daemon.pid), len(os.listdir(f"/proc/{self.daemon.pid}/fd")), resident(self.server.pid),
                os.path.getsize(f"{machine.FOLDER}/{self.database}"))

    def report(self):
        first, last = self.samples[self.daemon.pid]
        print(f"  {MINUTES:g} minutes, seed {SEED}: {self.changer.made} changes in {self.changer.seconds:.0f} s, "
              f"{self.changer.broken} without an answer")
        print("  " + ", ".join(f"{count} x {name}" for name, count in sorted(self.counts.items())))
        print(f"  the last daemon: resident {first[0]} and then {last[0]} kB, {last[1]} descriptors; the server {last[2]} kB, "
              f"its file {last[3]} bytes", flush=True)

    def compact(self):
        subprocess.run(["ovs-appctl", "-t", f"{machine.FOLDER}/configuration.ctl", "ovsdb-server/compact"], check=True)
        size = self.state()[3]
        print(f"  compacted: {size} bytes", flush=True)
        self.assertLess(size, COMPACTED_BYTES)

    # What happens

    def aChange(self):
        """By the operator's tool, which says that it is in force; others go on with theirs meanwhile."""
        for words in (("add", "--force", "--id", "100", "--in", "p2", "--src-mac", STOPPED, "--drop"), ("remove", "100")):
            done = subprocess.run([MOATCTL, "--timeout", "60", "rule", *words], capture_output=True, text=True, check=False)
            self.assertEqual(done.returncode, 0, self.told(done.stderr))

    def anAttack(self):
        command, _ = self.dice.choice(list(ATTACKS.values()))
        before = kernel.readTables()
        subprocess.run(command, capture_output=True, check=False)
        if THEIRS in before["FORWARD"] and THEIRS not in kernel.readTables()["FORWARD"]:
            self.theirs = False

    def aRestartOfTheServer(self):
        self.endWithoutAGap(self.server, signal.SIGTERM, -signal.SIGTERM)  # as it ends after the signal

    def aKillOfTheServer(self):
        self.endWithoutAGap(self.server, signal.SIGKILL, -signal.SIGKILL)

    def aKill(self):
        self.endWithoutAGap(self.daemon, signal.SIGKILL, -signal.SIGKILL)

    def aRestart(self):
        self.endWithoutAGap(self.daemon, signal.SIGRTMIN + 1, 0)

    def anUpgrade(self):
        """The program's file is replaced while it runs, as a package does it."""
        shutil.copy(DAEMON, machine.FOLDER + "/moatkeeper.new")
        os.rename(machine.FOLDER + "/moatkeeper.new", machine.FOLDER + "/moatkeeper")
        self.aRestart()

    def aStop(self):
        self.assertEqual(self.daemon.stop(), 0, self.daemon.readLog()[-2000:])
        self.assertEqual(self.ours(), kernel.untouched())
        self.restart()


if __name__ == "__main__":
    machine.main()
