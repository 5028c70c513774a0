"""A change that waits to be confirmed: what the daemon makes of it, and what is left when everything is killed."""

import json
import os
import random
import signal
import subprocess
import sys
import time

from lab import config, kernel, machine, waiting

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
ROUNDS = int(os.environ.get("MOATKEEPER_TRIALS", "5"))  # with kills
TRIAL, HISTORY = "MoatKeeperTrial", "MoatKeeperHistory"
RULE = ("rule", "add", "--in", "p1", "--drop", "--src-mac")
NOTHING, RULES = kernel.expected(), "UserInputRules"


class Trials(machine.Machine):
    def setUp(self):
        self.restart()
        self.config.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}]})
        self.config.transact(*({"op": "delete", "table": table, "where": []} for table in (TRIAL, HISTORY, config.USED_IDS)))
        self.waitForTables(NOTHING)

    def tool(self, *words, status=0):
        done = subprocess.run([MOATCTL, "--timeout", "20", *map(str, words)], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, status, f"{words}: {done.stdout}{done.stderr}")
        return done

    def export(self):
        return self.tool("export").stdout

    def waitUntilOver(self, seconds):
        waiting.until(lambda: not self.config.select(TRIAL), "the end of the trial", seconds)
        return time.monotonic()


class Confirm(Trials):
    def testWhatIsNotConfirmedGoesBackInTime(self):
        before = self.export()
        self.tool(*RULE, "02:00:00:00:00:01", "--confirm", "2")
        began = time.monotonic()
        self.assertEqual(len(kernel.readTables()[RULES]), 2)
        over = self.waitUntilOver(5)
        self.assertLess(over - began, 3)
        self.assertGreater(over - began, 1.5)
        self.assertEqual(self.export(), before)
        self.waitForTables(NOTHING)
        entries = json.loads(self.tool("history", "--format=json").stdout)["history"]
        newest, first = (entry for entry in entries if entry["User"] != "another client")  # setUp is one
        self.assertEqual((newest["User"], newest["Number"]), ("moatkeeper", first["Number"] + 1))
        self.assertIn("not confirmed in time: ", newest["Verb"])

    def testWhatIsConfirmedStays(self):
        self.tool(*RULE, "02:00:00:00:00:01", "--confirm", "1")
        after = self.export()
        self.assertRegex(self.tool("confirm").stdout, r"^change \d+ is confirmed\n$")
        self.assertEqual(self.config.select(TRIAL), [])
        end = time.monotonic() + 2
        while time.monotonic() < end:
            self.assertEqual(self.export(), after)
        self.tool("confirm", status=4)
        self.tool("cancel", status=4)

    def testCancelPutsBackAtOnce(self):
        self.tool(*RULE, "02:00:00:00:00:02")
        before = self.export()
        self.tool("rule", "set", "1", "--accept", "--confirm", "60")
        self.tool("cancel")
        self.assertEqual(self.export(), before)
        self.assertEqual(self.config.select(TRIAL), [])
        self.assertIn("DROP", str(kernel.readTables()[RULES]))

    def testNothingElseChangesMeanwhile(self):
        self.tool(*RULE, "02:00:00:00:00:01", "--confirm", "60")
        for words in (("rule", "remove", "1"), ("undo",), (*RULE, "02:00:00:00:00:02", "--confirm", "5")):
            self.assertRegex(self.tool(*words, status=4).stderr,
                             r"waits to be confirmed, \d+ s left .*moatctl confirm.*nothing was changed")
        for words in (("show",), ("status",), ("history",), ("export",)):
            self.assertRegex(self.tool(*words).stderr, r"change \d+ .*waits to be confirmed, \d+ s left")
        self.tool("confirm")
        self.assertEqual(self.tool("show").stderr, "")

    def testOthersWhoChangedTheSameRowsDoNotKeepItFromGoingBack(self):
        self.tool(*RULE, "02:00:00:00:00:01")
        before = self.export()
        self.tool("rule", "set", "1", "--accept", "--confirm", "2")
        self.config.delete(config.RULES, 1)
        self.waitUntilOver(5)
        self.assertEqual(self.export(), before)

    def testADeviceThatIsCutOffTakesItBackItself(self):
        self.tool(*RULE, "02:00:00:00:00:01")
        before, rules = self.export(), kernel.readTables()
        self.tool("rule", "set", "1", "--accept", "--confirm", "2")
        self.assertNotEqual(kernel.readTables(), rules)
        os.kill(self.server.pid, signal.SIGSTOP)  # says nothing more
        try:
            self.waitForTables(rules)
        finally:
            os.kill(self.server.pid, signal.SIGCONT)
        self.waitUntilOver(5)
        self.assertEqual(self.export(), before)
        self.waitForTables(rules)
        self.tool("rule", "set", "1", "--accept")  # follows the server again
        self.assertIn("ACCEPT", str(kernel.readTables()[RULES]))

    def testADaemonThatComesBackLate(self):
        before = self.export()
        self.tool(*RULE, "02:00:00:00:00:01", "--confirm", "2")
        self.daemon.stop(signal.SIGKILL)
        time.sleep(2.5)  # the deadline passes
        self.tool("confirm", status=4)
        self.startDaemon()
        began = time.monotonic()
        self.assertLess(self.waitUntilOver(5) - began, 1)
        self.assertEqual(self.export(), before)


class Kills(Trials):
    """Always confirmed, or exactly as before; never half, never twice."""

    def testAtRandomMoments(self):
        latest = 0
        for seed in range(ROUNDS):
            with self.subTest(seed=seed):
                latest = max(latest, self.playRound(random.Random(seed)))
        print(f"{ROUNDS} rounds; over at most {latest:.2f} s after the deadline or the daemon's return", file=sys.stderr)

    def playRound(self, pick):
        self.setUp()
        for number in range(3):
            self.tool(*RULE, f"02:00:00:00:01:{number:02x}")
        before = self.export()
        commands = "rule remove 1\nrule set 2 --accept\nrule add --in p1 --src-mac 02:00:00:00:02:00 --drop\n"
        seconds = 2
        tool = subprocess.Popen([MOATCTL, "batch", "--confirm", str(seconds)], stdin=subprocess.PIPE,
                                stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, text=True)
        tool.stdin.write(commands)
        tool.stdin.close()
        began = time.monotonic()
        moments = [(pick.uniform(0, 1.8), victim) for victim in ("tool", "server", "daemon") if pick.randrange(3)]
        if pick.randrange(4) == 0:
            moments = [(moments[0][0] if moments else 0.3, victim) for victim in ("tool", "server", "daemon")]
        confirmed = False  # True; or None, when the answer was lost
        confirmAt = pick.uniform(0.2, 1.8) if pick.randrange(2) else None
        for when, victim in sorted(moments + ([(confirmAt, "confirm")] if confirmAt else [])):
            time.sleep(max(0, began + when - time.monotonic()))
            if victim == "confirm":
                status = subprocess.run([MOATCTL, "confirm"], capture_output=True, check=False).returncode
                confirmed = {0: True, 4: False}.get(status)
            elif victim == "tool":
                tool.kill()
            else:
                getattr(self, victim).stop(signal.SIGKILL)
        tool.kill()
        tool.wait()
        time.sleep(pick.uniform(0, 0.5))
        self.restart()
        back = time.monotonic()
        over = self.waitUntilOver(10)
        now = self.export()
        undone = [row["Undoes"] for row in self.config.select(HISTORY) if row["Undoes"]]
        if confirmed is None:
            confirmed = now != before
        if confirmed:
            self.assertEqual([row["Target"] for row in json.loads(now)[config.RULES]], ["ACCEPT", "DROP", "DROP"])
            self.assertEqual(undone, [])
        else:
            self.assertEqual(now, before)
            self.assertLessEqual(len(undone), 1)
        late = over - max(back, began + seconds) if undone else 0
        self.assertLess(late, 1)
        # Nothing comes after it, and the kernel holds it.
        rows = json.loads(now)[config.RULES]
        self.waitForTables(kernel.expected(UserInputRules=[f"-s {row['SrcMAC']} -i p1 -j {row['Target']}" for row in rows]))
        self.assertEqual(self.export(), now)
        return late


if __name__ == "__main__":
    machine.main()
