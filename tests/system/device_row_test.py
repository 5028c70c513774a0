"""What the daemon tells the configuration server of itself: which change is in force, and what is not."""

import signal
import socket
import subprocess

from lab import config, kernel, machine, programs, waiting

OLD_SCHEMA = machine.FOLDER + "/old.ovsschema"
POLICIES = {"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}
RULE = {"RulePrio": 5, "InInterface": "p1", "Target": "DROP", "EnableLogging": 0}
HOOKS = 4  # the jumps to the user chains


class DeviceRow(machine.Machine):
    def setUp(self):
        self.config.replace({config.MAIN: [POLICIES]})
        self.waitFor("an empty table", lambda row: row["InStep"] == 1 and row["Rules"] == HOOKS)

    def row(self):
        rows = self.config.select(config.DEVICE)
        return rows[0] if len(rows) == 1 else None

    def waitFor(self, what, condition, seconds=waiting.PATIENCE):
        return waiting.until(lambda: (row := self.row()) and condition(row) and row,
                             lambda: f"{what}; the rows: {self.config.select(config.DEVICE)}\n"
                                     + self.daemon.readLog()[-1500:], seconds)

    def change(self, number, *operations):
        self.config.transact(*config.numbered(number, *operations))
        return self.waitFor(f"change {number}", lambda row: row["Number"] == number)

    def testAChangeIsInForceWhenItsNumberIs(self):
        for number in range(1, 20):
            row = self.change(number, config.insert(config.RULES, Id=number, **RULE))
            self.assertEqual(number, len(kernel.readTables()["UserInputRules"]) - 1)
            self.assertEqual((row["Name"], row["InStep"], row["Reason"], row["Rules"], row["NotInForceCount"]),
                             (socket.gethostname(), 1, "", HOOKS + number, 0))
            self.assertRegex(row["Since"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
            self.assertLessEqual(row["Started"], row["Since"])

    def testANumberAloneIsFollowed(self):
        self.change(1000)
        self.change(1001)

    def testTheRowIsWrittenAgainAfterAHeartbeatOnly(self):
        self.config.transact(config.delete(config.CHANGE), config.insert(config.CHANGE, Number=1100, Heartbeat=1))
        first = self.waitFor("the change", lambda row: row["Number"] == 1100)
        second = self.waitFor("a heartbeat", lambda row: row["Seen"] > first["Seen"])
        self.assertEqual([column for column in first if first[column] != second[column]], ["_version", "Seen"])
        self.config.transact({"op": "delete", "table": config.DEVICE, "where": []})
        self.waitFor("the row again", lambda row: row["Number"] == 1100)
        self.assertEqual(self.change(1101)["Number"], 1101)  # without a heartbeat

    def testTheNumbersBeginAgain(self):
        self.change(1_999_999_999)
        self.change(0)

    def testARefusedLineIsNamedUntilItIsGone(self):
        row = self.change(50, config.insert(config.RULES, Id=1, **{**RULE, "Ethertype": "nonsense"}),
                          config.insert(config.RULES, Id=2, **RULE))
        self.assertEqual((row["InStep"], row["NotInForceCount"], row["Rules"]), (1, 1, HOOKS + 1))
        line, reason = row["NotInForce"].rstrip("\n").split("\t")
        self.assertEqual(line, "ebtables -A UserInputRules -i p1 -p nonsense -j DROP")
        self.assertIn("nonsense", reason)
        row = self.change(51, config.delete(config.RULES, 1))
        self.assertEqual((row["NotInForceCount"], row["NotInForce"]), (0, ""))

    def testManyRefusedLines(self):
        rows = (config.insert(config.RULES, Id=number, **{**RULE, "Ethertype": f"nonsense{number}"})
                for number in range(1, 1501))
        row = self.change(60, *rows)
        self.assertEqual((row["NotInForceCount"], row["NotInForce"].count("\n")), (1500, 1000))

    def testARepairIsTold(self):
        self.change(70, config.insert(config.RULES, Id=1, **RULE))
        self.assertEqual(self.row()["Repaired"], "")
        subprocess.run(["ebtables", "-F", "UserInputRules"], check=True)
        row = self.waitFor("a repair", lambda row: row["Repaired"])
        self.assertRegex(row["RepairedWhat"], r"^ebtables\S* \(process \d+\): ")
        self.assertIn("UserInputRules", row["RepairedWhat"])
        self.assertEqual(["-i p1 -j DROP"], kernel.readTables()["UserInputRules"][1:])

    def testAServerThatComesBackIsTold(self):
        self.change(80, config.insert(config.RULES, Id=1, **RULE))
        self.server.stop()
        type(self).server = programs.startServer(self.schema, machine.FOLDER, self.database)
        self.config.close()
        type(self).config = config.Config()
        row = self.waitFor("the row", lambda row: row["Number"] == 80)
        self.assertEqual((row["InStep"], row["Rules"]), (1, HOOKS + 1))

    def testAStoppedDaemonSaysSo(self):
        self.assertEqual(0, self.daemon.stop())
        row = self.waitFor("the last word", lambda row: row["InStep"] == 0)
        self.assertEqual((row["Number"], row["Reason"], row["Started"]), (-1, "the daemon was stopped", ""))
        self.assertGreater(row["InStepSince"], row["Since"])
        self.startDaemon()
        self.change(90)

    def testAKilledDaemonsRowIsTakenOver(self):
        self.change(100)
        started = self.row()["Started"]
        self.daemon.stop(signal.SIGKILL)
        self.config.transact(*config.numbered(101, config.insert(config.RULES, Id=1, **RULE)))
        self.assertEqual(self.row()["Number"], 100)
        self.startDaemon()
        self.assertGreater(self.waitFor("change 101", lambda row: row["Number"] == 101)["Started"], started)


class OlderServer(machine.Machine):
    """A server whose database was made before there were such tables."""

    schema, database = OLD_SCHEMA, "old.db"

    @classmethod
    def setUpClass(cls):
        machine.writeOldSchema(OLD_SCHEMA)
        super().setUpClass()

    def testIsServedAsBefore(self):
        self.configure({config.RULES: [{"Id": 1, **RULE}]}, kernel.expected(UserInputRules=["-i p1 -j DROP"]))
        self.config.delete(config.RULES, 1)
        self.waitForTables(kernel.expected())
        self.assertEqual([], [line for line in self.daemon.readLog().splitlines() if "device:" in line])


if __name__ == "__main__":
    machine.main()
