"""Random sets of changes through `moatctl batch`, good and bad rows mixed: what the verb has said when it ends is what the
kernel has, and what becomes of frames.

MOATKEEPER_SETS in the environment says how many; MOATKEEPER_SEED which ones."""

import os
import random
import re
import subprocess
import sys

from lab import config, kernel, machine
from lab.frames import Frame

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
SETS = int(os.environ.get("MOATKEEPER_SETS", "40"))
SEED = int(os.environ.get("MOATKEEPER_SEED", "1"))
DONE, BAD_INPUT, NOT_IN_FORCE = 0, 2, 6
FILTER_PORTS = {False: ("p1", "p2"), True: ("p2", "p3")}
TAKEN = range(900, 905)  # priorities of filters whose chains are another program's
IP_PORT = {"good": "--proto tcp --ethertype IPv4 --port 80", "bad": "--ethertype IPv4 --port 80"}


def mac(number):
    return f"02:00:00:02:{number >> 8:02x}:{number & 255:02x}"


def ip(number):
    return f"10.9.{number >> 8}.{number & 255}"


class Configured:
    """The rows on the server, by table and Id."""

    def __init__(self, connection):
        self.rows = {(table, row["Id"]): row for table in config.TABLES if table != config.MAIN
                     for row in connection.select(table)}

    def ids(self, table):
        return [row for name, row in self.rows if name == table]

    def isOn(self, key):
        """Whether the row is meant to be in force; an entry of a filter that is disabled is not."""
        row = self.rows[key]
        if row["Enabled"] == 0:
            return False
        if key[0] != config.FILTER_RULES:
            return True
        return self.rows[(config.FILTERS, row["BridgeFilterID"])]["Enabled"] != 0

    def isInKernel(self, key, tables):
        """By what only this row's rules have: an address, a port or a priority."""
        table, row = key[0], self.rows[key]
        if table == config.RULES:
            chain = "UserForwardRules" if row["OutInterface"] else "UserInputRules"
            return any(row["SrcMAC"] in rule and rule.endswith(f"-j {row['Target']}") and
                       (row["IPPort"] == 0) == ("dport" not in rule) for rule in tables[chain][1:])
        if table == config.INPUT_POLICY:
            return f"-i {row['Interface']} -j {row['Policy']}" in tables["UserInputPolicy"]
        jumps = [rule.split()[-1] for rule in tables["FORWARD"]]
        if table == config.FILTERS:
            return sum(re.match(rf"{row['Prio']}p\d", jump) is not None for jump in jumps) == 2
        prio = self.rows[(config.FILTERS, row["BridgeFilterID"])]["Prio"]
        return any(re.search(rf"\b{re.escape(row['FilterMatch'])}\b", rule) for jump in set(jumps)
                   if re.match(rf"{prio}p\d", jump) for rule in tables[jump][1:])


class Changes:
    """Lines of a batch that fit the rows that are there."""

    def __init__(self, random_, state):
        self._random = random_
        self._state = state
        self._next = 1 + max((number for _, number in state.rows), default=0)

    def lines(self):
        kinds = [self._addRule] * 3 + [self._changeRule] * 3 + [self._addFilter] + [self._changeFilter] * 2 + \
            [self._addEntry] * 3 + [self._changeEntry, self._policy]
        touched, lines = set(), []
        for _ in range(self._random.randint(1, 7)):
            line, row = self._random.choice(kinds)()
            if line and row not in touched:  # one line for a row: it must be there as the others have left it
                touched.add(row)
                lines.append(line)
        return lines or [self._addRule()[0]]

    def _id(self):
        self._next += 1
        return self._next

    def _pick(self, table):
        ids = self._state.ids(table)
        return self._random.choice(ids) if ids else None

    def _target(self):
        return self._random.choice(("--drop", "--accept"))

    def _addRule(self):
        number = self._id()
        way = self._random.choice(("--in p1 --out p3", "--in p1 --out p3", "--in p2"))
        more = self._random.choice(("", "", IP_PORT["good"], IP_PORT["bad"], "--disabled"))
        return f"rule add --id {number} {way} --src-mac {mac(number)} {self._target()} {more}", None

    def _changeRule(self):
        number = self._pick(config.RULES)
        if number is None:
            return "", None
        how = self._random.choice((f"set {number} {self._target()}", f"set {number} {IP_PORT['bad']} --no-proto",
                                   f"set {number} {IP_PORT['good']}", f"set {number} --no-port --no-proto --no-ethertype",
                                   f"enable {number}", f"disable {number}", f"remove {number}"))
        return f"rule {how}", (config.RULES, number)

    def _addFilter(self):
        number = self._id()
        taken = self._random.random() < 0.3
        prio = self._random.choice(TAKEN) if taken else 100 + number
        if any(key[0] == config.FILTERS and row["Prio"] == prio for key, row in self._state.rows.items()):
            return "", None
        ports = " ".join(FILTER_PORTS[not taken and self._random.random() < 0.5])
        kind = "mac" if taken else self._random.choice(("mac", "ipv4"))
        return f"filter add --id {number} --priority {prio} --between {ports} --match {kind} --mode blacklist", \
            (config.FILTERS, prio)

    def _changeFilter(self):
        number = self._pick(config.FILTERS)
        if number is None or self._state.rows[(config.FILTERS, number)]["Prio"] in TAKEN:
            return (f"filter remove {number} --with-rules", (config.FILTERS, number)) if number else ("", None)
        entries = [key for key in self._state.rows if key[0] == config.FILTER_RULES
                   and self._state.rows[key]["BridgeFilterID"] == number]
        how = [f"enable {number}", f"disable {number}", f"remove {number} --with-rules"]
        if entries:
            how += [f"set {number} --match {kind}" for kind in ("mac", "ipv4")]
        return f"filter {self._random.choice(how)}", (config.FILTERS, number)

    def _value(self, number):
        return self._random.choice((mac(number), ip(number)))

    def _addEntry(self):
        number, filter_ = self._id(), self._pick(config.FILTERS)
        if filter_ is None:
            return "", None
        return f"filter-rule add --id {number} --filter {filter_} --match {self._value(number)}", \
            (config.FILTERS, filter_)

    def _changeEntry(self):
        number = self._pick(config.FILTER_RULES)
        if number is None:
            return "", None
        how = self._random.choice((f"set {number} --match {self._value(number)}", f"enable {number}", f"disable {number}",
                                   f"remove {number}"))
        return f"filter-rule {how}", (config.FILTERS, self._state.rows[(config.FILTER_RULES, number)]["BridgeFilterID"])

    def _policy(self):
        present = [row for row in self._state.ids(config.INPUT_POLICY)]
        if present:
            return f"policy set {present[0]} {self._target()}", (config.INPUT_POLICY, present[0])
        return f"policy add --id {self._id()} --in p3 {self._target()}", (config.INPUT_POLICY, 0)


class Word(machine.Machine):
    def testWhatIsSaidIsSo(self):
        self.configure({}, kernel.expected())
        for prio in TAKEN:
            subprocess.run(["ebtables", "-N", f"{prio}p2p1macblacklist"], check=True)
        seen = dict.fromkeys((DONE, BAD_INPUT, NOT_IN_FORCE), 0)
        frames = 0
        for number in range(SETS):
            random_ = random.Random(f"{SEED} {number}")
            before, tablesBefore = Configured(self.config), kernel.readTables()
            lines = Changes(random_, before).lines()
            force = [] if random_.random() < 0.2 else ["--force"]
            done = subprocess.run([MOATCTL, "--timeout", "30", "batch", *force], input="\n".join(lines), text=True,
                                  capture_output=True, check=False)
            tables, after = kernel.readTables(), Configured(self.config)
            self.context = f"set {number} of seed {SEED}:\n" + "\n".join(lines) + f"\n{done.stderr}\n{tables}"
            self.assertIn(done.returncode, seen, self.context)
            seen[done.returncode] += 1
            if done.returncode == BAD_INPUT:
                self.assertEqual((after.rows, tables), (before.rows, tablesBefore), self.context)
                continue
            self.compare(before, tablesBefore, after, tables, done)
            frames += self.sendFrames(after, tables, done)
        print(f"  {SETS} sets: {seen[DONE]} in force, {seen[NOT_IN_FORCE]} not as a whole, {seen[BAD_INPUT]} refused; "
              f"{frames} frames", flush=True)
        self.assertTrue(SETS < 40 or all(seen.values()), seen)

    @staticmethod
    def named(done):
        return {(table, int(number)) for table, number in re.findall(r"^not in force: (\w+) Id (\d+)", done.stderr, re.M)}

    def compare(self, before, tablesBefore, after, tables, done):
        named = self.named(done)
        self.assertEqual(done.returncode == NOT_IN_FORCE, bool(named), self.context)
        for key, row in after.rows.items():
            there = after.isInKernel(key, tables)
            if not after.isOn(key):
                self.assertFalse(there or key in named, f"{key} is disabled; {self.context}")
            elif before.rows.get(key) != row:
                self.assertEqual(there, key not in named, f"{key} was changed; {self.context}")
            else:
                wasOut = before.isOn(key) and not before.isInKernel(key, tablesBefore)
                self.assertEqual(not there and not wasOut, key in named, f"{key} was not changed; {self.context}")

    def sendFrames(self, after, tables, done):
        """One for each rule without further conditions, and for each that was said not to be in force."""
        keys = [key for key, row in after.rows.items() if key[0] == config.RULES and row["OutInterface"] and
                after.isOn(key) and (row["Ethertype"] == "" or key in self.named(done))][:20]
        sent = [("p1", Frame(src=after.rows[key]["SrcMAC"])) for key in keys]
        for key, ports in zip(keys, self.bridge.send(*sent)):
            stopped = after.rows[key]["Target"] == "DROP" and key not in self.named(done)
            self.assertEqual("p3" not in ports, stopped, f"a frame of {key}; {self.context}")
        return len(keys)


if __name__ == "__main__":
    machine.main()
