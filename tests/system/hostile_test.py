"""No value of a row does more than a row: every text column, with thousands of hostile values, through a server whose
schema refuses nothing and through one with ours."""

import json
import os
import re
import socket
import subprocess

import hostile_values
from hostile_values import FOREIGN, LIKE_A_FILTER
from lab import config, machine, programs, waiting

LOOSE_SCHEMA = machine.FOLDER + "/loose.ovsschema"
MAC, NETWORK = "02:00:00:00:00:07", "192.0.2.7"

INPUT_POLICY = {"Interface": "p1", "Policy": "DROP", "EnableLogging": 0}
FORWARD_POLICY = {"InInterface": "p1", "OutInterface": "p2", "Policy": "DROP", "EnableLogging": 0}
RULE = {"RulePrio": 5, "InInterface": "p1", "OutInterface": "p2", "DstMAC": "", "SrcMAC": MAC, "Ethertype": "IPv4",
        "IPSrcAddr": NETWORK, "IPDstAddr": "", "IPProto": "TCP", "IPPort": 80, "Target": "DROP", "EnableLogging": 0}
FILTER = {"Prio": 1, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC", "Mode": "blacklist"}
FILTER_RULE = {"BridgeFilterID": 1, "FilterMatch": MAC}

# Table, what a good row of it holds, and the chains that a row of it may change.
TABLES = ((config.INPUT_POLICY, INPUT_POLICY, {"UserInputPolicy"}),
          (config.FORWARD_POLICY, FORWARD_POLICY, {"UserForwardPolicy"}),
          (config.RULES, RULE, {"UserInputRules", "UserForwardRules"}),
          (config.FILTERS, FILTER, set()),
          (config.FILTER_RULES, FILTER_RULE, {"9p2p1MACblacklist"}))
LONGEST = {"Interface": 17, "InInterface": 17, "OutInterface": 17, "DstMAC": 37, "SrcMAC": 37, "IPSrcAddr": 93,
           "IPDstAddr": 93, "FilterMatch": 93}
KEPT = ["-A UserInputPolicy -i p3 -j ACCEPT", "-A UserForwardPolicy -i p3 -o p1 -j ACCEPT",
        "-A UserForwardRules -i p3 -o p2 -j ACCEPT", "-A FORWARD -i p2 -o p1 -j 9p2p1MACblacklist",
        "-A FORWARD -i p1 -o p2 -j 9p2p1MACblacklist", "-A 9p2p1MACblacklist -s 02:00:00:00:00:99 -j DROP",
        "-A INPUT -j UserInputRules", "-A INPUT -j UserInputPolicy", "-A FORWARD -j UserForwardRules",
        "-A FORWARD -j UserForwardPolicy"]


def sh(*words):
    return subprocess.run(words, capture_output=True, text=True, check=True).stdout


def saved():
    return [line for line in sh("ebtables-save").splitlines() if not line.startswith("#")]


def ofOthers():
    return [sh("ebtables-nft", "-t", "nat", "-L"), sh("nft", "list", "table", "inet", "others"),
            sh("nft", "list", "table", "bridge", "others")]


def outside(lines, own):
    """The table without the rules of the row's own chains, without the chains that rows under test make, and without
    the jumps to these."""
    isMade = re.compile(r"(?:FilterID\d+|1\S*(?:blacklist|whitelist)) ?")
    left = []
    for line in lines:
        words = line.split()
        chain = words[0][1:] if line.startswith(":") else words[1] if line.startswith("-A") else ""
        made = [name for name in (chain, words[-1]) if isMade.fullmatch(name)]
        if not made and not (line.startswith("-A") and chain in own):
            left.append(line)
    return left


def isOneOperand(column, value):
    """What the daemon lets in, told once more."""
    word = value[2:] if value.startswith("! ") else value[1:] if value.startswith("!") else value
    if not value or len(value.encode()) > LONGEST.get(column, 32):
        return not value
    if not re.fullmatch(r"[!-~]+", word) or re.search("[\"'`;]", word):
        return False
    afterNot = value.removeprefix("! ")
    return not afterNot.startswith("-") or re.fullmatch(r"-[0-9]+", afterNot) is not None


class HostileValues:
    """The same for both schemas."""

    maxDiff = 2000

    @classmethod
    def setUpClass(cls):
        sh("nft", "flush", "ruleset")
        super().setUpClass()
        # The tool gives up when the daemon's first commit changes the tables under it.
        waiting.until(lambda: "-A FORWARD -j UserForwardPolicy" in saved(), lambda: cls.daemon.readLog()[-1500:], 20)
        for command in (f"-N {FOREIGN}", f"-A {FOREIGN} -s 02:00:00:00:00:55 -j DROP", f"-N {LIKE_A_FILTER}",
                        f"-A {LIKE_A_FILTER} -i p1 -j DROP", f"-A FORWARD -i p3 -o p3 -j {LIKE_A_FILTER}",
                        "-A OUTPUT -o p3 -j ACCEPT", "-P OUTPUT ACCEPT", f"-A INPUT -i p3 -j {FOREIGN}"):
            sh("ebtables", *command.split())
        sh("ebtables", "-t", "nat", "-A", "PREROUTING", "-s", "02:00:00:00:00:66", "-j", "DROP")
        sh("nft", "add table inet others; add chain inet others c; add rule inet others c tcp dport 7 drop;"
           "add table bridge others; add chain bridge others FORWARD; add rule bridge others FORWARD drop")
        cls.config.replace({
            config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "DROP"}],
            config.INPUT_POLICY: [{**INPUT_POLICY, "Id": 1, "Interface": "p3", "Policy": "ACCEPT"}],
            config.FORWARD_POLICY: [{**FORWARD_POLICY, "Id": 1, "InInterface": "p3", "OutInterface": "p1",
                                     "Policy": "ACCEPT"}],
            config.RULES: [{"Id": 1, "RulePrio": 1, "InInterface": "p3", "OutInterface": "p2", "Target": "ACCEPT",
                            "EnableLogging": 0}],
            config.FILTERS: [{**FILTER, "Id": 1, "Prio": 9}],
            config.FILTER_RULES: [{**FILTER_RULE, "Id": 1, "FilterMatch": "02:00:00:00:00:99"}]})
        cls.waitForPolicy("DROP")

    @classmethod
    def waitForPolicy(cls, policy):
        """One transaction brings the policy with everything else of it."""
        waiting.until(lambda: f":FORWARD {policy}" in saved(),
                      lambda: f"FORWARD with policy {policy}:\n{cls.daemon.readLog()[-1500:]}", 60)

    def mark(self, *operations):
        """The operations and the other policy of FORWARD in one transaction; returns when that is in force."""
        policy = "DROP" if ":FORWARD ACCEPT" in saved() else "ACCEPT"
        self.config.transact(*operations, {"op": "update", "table": config.MAIN, "where": [],
                                           "row": {"GlobalForwardingPolicy": policy}})
        self.waitForPolicy(policy)

    def testRowsOfEveryTable(self):
        before, others = saved(), ofOthers()
        tried = 0
        for table, good, own in TABLES:
            for column in (name for name, value in good.items() if isinstance(value, str)):
                values = hostile_values.forColumn(good[column] or "IPv4")
                self.assertGreaterEqual(len(values), 2000)
                with self.subTest(table=table, column=column):
                    self.takeLog()
                    bad = self.tryRows(table, good, column, values)
                    now = saved()
                    flipped = [line for line in outside(now, own) if not line.startswith(":FORWARD")]
                    self.assertEqual([line for line in outside(before, own) if not line.startswith(":FORWARD")],
                                     flipped)
                    self.assertEqual(others, ofOthers())
                    self.assertEqual([], [line for line in KEPT if line not in now], "good rows")
                    complaint = re.compile(rf"config:10: {table} Id \d+ is left out: column {column}, ")
                    self.assertEqual(bad, len(complaint.findall(self.takeLog())))
                    tried += len(values)
                self.mark({"op": "delete", "table": table, "where": [["Id", ">=", 1000]]})
        self.mark()
        rest = saved()
        self.assertEqual(*([line for line in lines if not line.startswith(":FORWARD")] for lines in (before, rest)))
        self.assertTrue(self.daemon.isRunning())
        print(f"{type(self).__name__}: {tried} values", flush=True)

    @staticmethod
    def row(good, column, number, value):
        row = {**good, "Id": 1000 + number, column: value}
        if "Prio" in good:
            row["Prio"] = int(f"1{number:04}")  # so that each has a chain of its own
        return row

    def testGlobalPolicies(self):
        before, others = saved(), ofOthers()
        delivered = 0
        for value in hostile_values.forColumn("DROP"):
            try:
                self.config.update(config.MAIN, None, GlobalInputPolicy=value, GlobalForwardingPolicy=value)
            except config.Refused:
                continue
            # All that get as far as the handler are applied one by one; the others never leave the data source.
            if isOneOperand("", value):
                wanted = f"Global Policys changed: INPUT: {value}, FORWARD: "
                self.waitForGrowth(wanted)
                delivered += 1
        self.config.update(config.MAIN, None, GlobalInputPolicy="ACCEPT", GlobalForwardingPolicy="DROP")
        self.waitForPolicy("DROP")
        self.config.update(config.MAIN, None, GlobalInputPolicy="ACCEPT", GlobalForwardingPolicy=
                           next(line for line in before if line.startswith(":FORWARD")).split()[1])
        waiting.until(lambda: saved() == before, lambda: f"{before}\nagain: {saved()}", 20)
        self.assertEqual(others, ofOthers())
        print(f"{type(self).__name__}: {delivered} global policies reached the handler", flush=True)

    def takeLog(self):
        """What the daemon's log has got since the last call."""
        with open(self.daemon.logPath, "rb") as log:
            log.seek(getattr(self, "_seen", 0))
            grown = log.read()
            self._seen = log.tell()
        return grown.decode(errors="replace")

    def waitForGrowth(self, text):
        grown = ""

        def found():
            nonlocal grown
            grown += self.takeLog()
            return text in grown
        waiting.until(found, lambda: f"'{text}' in {grown[-500:]!r}", 20)

    def testWhatNoServerTakes(self):
        before = saved()
        for raw in hostile_values.RAW:
            with socket.socket(socket.AF_UNIX) as connection:
                connection.settimeout(10)
                connection.connect(programs.SOCKET)
                connection.sendall(json.dumps({"method": "transact", "id": 1, "params": [config.DATABASE, config.insert(
                    config.RULES, **{**RULE, "Id": 5000, "Target": "@"})]}).encode().replace(b"@", raw))
                answer = b""
                while b'"id":1' not in answer and (data := connection.recv(65536)):
                    answer += data
            self.assertNotIn(b'"uuid"', answer, raw)
        self.assertEqual(before, saved())


class WithoutConstraints(HostileValues, machine.Machine):
    """A server that takes any text."""

    schema, database = LOOSE_SCHEMA, "loose.db"

    @classmethod
    def setUpClass(cls):
        with open(programs.SCHEMA, encoding="utf-8") as file:
            schema = json.load(file)
        for table in schema["tables"].values():
            table.pop("indexes", None)
            for column in table["columns"].values():
                column["type"]["key"] = column["type"]["key"]["type"]
        os.makedirs(machine.FOLDER, exist_ok=True)
        with open(LOOSE_SCHEMA, "w", encoding="utf-8") as file:
            json.dump(schema, file)
        super().setUpClass()

    def tryRows(self, table, good, column, values):
        """All values beside each other. How many of them the daemon has to complain about."""
        self.mark(*(config.insert(table, **self.row(good, column, number, value))
                    for number, value in enumerate(values)))
        return sum(not isOneOperand(column, value) for value in values)


class WithOurSchema(HostileValues, machine.Machine):
    """What is left of the values when each is a transaction of its own."""

    def tryRows(self, table, good, column, values):
        done = self.config.attempt(config.insert(table, **self.row(good, column, number, value))
                                   for number, value in enumerate(values))
        self.mark()
        self.assertLess(sum(done), len(values), "the schema refuses some")
        return sum(not isOneOperand(column, value) for value, accepted in zip(values, done) if accepted)


if __name__ == "__main__":
    machine.main()
