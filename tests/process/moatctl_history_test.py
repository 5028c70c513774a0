"""moatctl against a real configuration server: the history of changes, and the way back."""

import contextlib
import json
import os
import random
import re
import socket
import subprocess

from moatctl_case import BAD_INPUT, CONFLICT, NO_SERVER, Case, main
from lab import config, waiting
from lab.config import Config, insert

HISTORIES = int(os.environ.get("MOATKEEPER_HISTORIES", "6"))  # random ones
LIMIT = 100


class Tool(Case):
    def history(self, *words):
        """The newest first, one object a changed row."""
        return json.loads(self.ok("history", "--format=json", *words))["history"]

    def export(self):
        return self.ok("export")

    def run_as(self, environment, *words):
        done = subprocess.run(self.command(*words), env={**os.environ, **environment}, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=60)
        self.assertEqual(done.returncode, 0, done.stderr)


class History(Tool):
    def test_every_changed_row_is_told_with_who_and_where(self):
        self.run_as({"SSH_CONNECTION": "192.0.2.7 50000 192.0.2.1 22"},
                    "rule", "add", "--in", "eth0", "--src", "10.0.0.0/8", "--drop")
        self.ok("rule", "set", "1", "--accept")
        self.ok("rule", "remove", "1")
        newest = self.history()
        self.assertEqual([entry["Number"] for entry in newest], [3, 2, 1])
        self.assertEqual(newest[0]["Verb"], "--no-wait rule remove 1", "without the way to the server")
        self.assertEqual(newest[2]["Verb"], "--no-wait rule add --in eth0 --src 10.0.0.0/8 --drop")
        self.assertEqual((newest[2]["Address"], newest[2]["Host"]), ("192.0.2.7", socket.gethostname()[:60]))
        self.assertRegex(newest[2]["User"], r"^\w")
        self.assertRegex(newest[2]["Time"], r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z$")
        self.assertRegex(newest[2]["Change"], r"^\+ MoatKeeperRuleset Id 1: RulePrio 10, ")
        self.assertEqual(newest[1]["Change"], '~ MoatKeeperRuleset Id 1: Target "DROP" -> "ACCEPT"')
        self.assertRegex(newest[0]["Change"], r"^- MoatKeeperRuleset Id 1: ")

    def test_what_changes_nothing_leaves_no_entry(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.ok("rule", "enable", "1")
        self.ok("rule", "remove", "9", "--if-exists")
        self.refused(CONFLICT, "there is no rule 9", "rule", "remove", "9")
        self.assertEqual(len(self.history()), 1)

    def test_a_batch_an_import_and_an_acknowledgement_are_entries(self):
        self.ok("batch", stdin="rule add --in eth0 --drop\npolicy add --in eth0 --accept\n")
        file = self.folder / "other.json"
        file.write_text(self.export().replace('"DROP"', '"ACCEPT"'))
        self.assertEqual(self.run_tool("import", file).returncode, 0)
        self.ok("filter", "add", "--between", "eth0", "eth1", "--match", "mac", "--mode", "whitelist")
        self.ok("acknowledge", "filter", "1")
        self.ok("filter", "remove", "1")
        changes = {}
        for entry in self.history():
            changes.setdefault(entry["Number"], []).append(entry["Change"])
        self.assertEqual(len(changes[1]), 2)
        self.assertRegex(changes[2][0], "^~ MoatKeeperRuleset")
        self.assertRegex(changes[4][0], r"^\+ acknowledged: MoatKeeperBridgeFilters Id 1: ")
        self.assertRegex("\n".join(changes[5]), r"- acknowledged: MoatKeeperBridgeFilters Id 1: ")

    def test_the_oldest_go_in_the_same_transaction(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        for number in range(LIMIT + 5):
            self.ok("rule", "disable" if number % 2 == 0 else "enable", "1")
            if number in (LIMIT - 2, LIMIT - 1, LIMIT):
                self.assertEqual(len(self.history("-n", "1000")), LIMIT)
        self.assertEqual([entry["Number"] for entry in self.history("-n", "1000")],
                         list(range(LIMIT + 6, 6, -1)))
        self.assertEqual(len(self.history()), 20)

    def test_the_words_cannot_end_the_line(self):
        file = self.folder / "a b\n\x1b[1m'.json"
        file.write_text('{"MoatKeeper": [{"GlobalInputPolicy": "DROP"}]}')
        self.assertEqual(self.run_tool("import", file).returncode, 0)
        (entry,) = self.history()
        self.assertTrue(entry["Verb"].endswith(r"/a b\x0a\x1b[1m'\''.json'"), entry["Verb"])

    def test_a_table_for_people(self):
        self.ok("batch", stdin="rule add --in eth0 --drop\n" * 15)
        text = self.ok("history")
        self.assertEqual(len(re.findall(r"\+ MoatKeeperRuleset", text)), 10)
        self.assertIn("5 more (moatctl history 1)", text)
        self.assertEqual(len(re.findall(r"\+ MoatKeeperRuleset", self.ok("history", "1"))), 15)
        self.refused(CONFLICT, "the history has no change 9", "history", "9")
        self.refused(BAD_INPUT, '-n "0": expected a number', "history", "-n", "0")

    def test_writers_at_the_same_time_each_leave_their_entry(self):
        adds = [subprocess.Popen(self.command("rule", "add", "--in", "eth0", "--drop"), stdout=subprocess.DEVNULL,
                                 stderr=subprocess.DEVNULL) for _ in range(8)]
        for add in adds:
            self.assertEqual(add.wait(60), 0)
        self.assertEqual(sorted(entry["Number"] for entry in self.history()), list(range(1, 9)))

    def test_a_server_without_a_place_for_it(self):
        schema = json.loads((self.folder / "configuration.db").read_text().splitlines()[1])
        del schema["tables"]["MoatKeeperHistory"]
        old = self.folder / "old.ovsschema"
        old.write_text(json.dumps(schema))
        self.server.stop()
        self.start_server(old, database="old.db")
        self.ok("rule", "add", "--in", "eth0", "--drop")
        for verb in ("history", "undo"):
            self.refused(NO_SERVER, "has no place for a history: expected schema 1.1", verb)


class Undo(Tool):
    def test_the_newest_change_first_and_then_the_one_before(self):
        states = [self.export()]
        for words in (("rule", "add", "--in", "eth0", "--drop"), ("rule", "set", "1", "--accept"),
                      ("global", "set", "--input", "DROP"), ("rule", "remove", "1")):
            self.ok(*words)
            states.append(self.export())
        for state in states[-2::-1]:
            self.ok("undo")
            self.assertEqual(self.export(), state)
        self.refused(CONFLICT, "no change left", "undo")

    def test_undo_of_an_undo_puts_the_change_in_again(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        state = self.export()
        self.ok("undo")
        self.ok("undo", "2")
        self.assertEqual(self.export(), state)
        self.assertIn("undo of 1: ", self.ok("undo"))

    def test_a_dry_run_shows_the_same_and_changes_nothing(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        state = self.export()
        shown = self.ok("undo", "--dry-run")
        self.assertRegex(shown, r"^undo of 1: .* rule add --in eth0 --drop\n- MoatKeeperRuleset Id 1: ")
        self.assertEqual(self.export(), state)
        self.assertEqual(len(self.history()), 1)
        self.assertEqual(self.ok("undo"), shown)

    def test_an_older_change_alone(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.ok("rule", "add", "--in", "eth1", "--drop")
        self.ok("undo", "1")
        self.assertEqual([row["Id"] for row in self.rows("rule")], [2])

    def test_rows_that_others_have_changed_since_are_left_alone(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.ok("rule", "add", "--in", "eth1", "--drop")
        self.transact({"op": "update", "table": "MoatKeeperRuleset", "where": [["Id", "==", 1]], "row": {"IPPort": 7}})
        state = self.export()
        for words in (("undo", "1"), ("undo", "1", "--dry-run")):
            self.refused(CONFLICT, r"change 1 cannot be undone: MoatKeeperRuleset Id 1 was changed again", *words)
        self.transact({"op": "delete", "table": "MoatKeeperRuleset", "where": [["Id", "==", 1]]})
        self.refused(CONFLICT, r"MoatKeeperRuleset Id 1 was changed again", "undo", "1")
        self.assertNotEqual(self.export(), state)
        self.ok("rule", "remove", "2")
        self.transact(insert("MoatKeeperRuleset", Id=2, RulePrio=20, InInterface="eth1", Target="DROP"))
        self.refused(CONFLICT, r"MoatKeeperRuleset Id 2 was changed again", "undo")

    def test_an_entry_that_is_no_list_of_rows(self):
        self.transact(insert("MoatKeeperHistory", Number=1, Verb="x", Rows=1, Changes="[{]"))
        self.assertNotEqual(self.run_tool("undo").returncode, 0)
        self.transact(insert("MoatKeeperHistory", Number=2, Verb="x", Rows=70000))
        self.refused(CONFLICT, "change 2 of 70000 rows was too large", "undo", "2")
        self.refused(CONFLICT, "the history has no change 3", "undo", "3")
        self.refused(BAD_INPUT, 'NUMBER "0": expected', "undo", "0")


class Trial(Tool):
    """Without a daemon, which would put it back: tests/system/trial_test.py."""

    add = ("rule", "add", "--in", "eth0", "--drop", "--confirm")

    def test_one_trial_at_a_time_whoever_is_first(self):
        tools = [subprocess.Popen(self.command(*self.add, "60"), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                 for _ in range(6)]
        self.assertEqual(sorted(tool.wait(60) for tool in tools), [0] + [CONFLICT] * 5)
        self.assertEqual(len(self.rows_now("MoatKeeperTrial")), 1)
        self.assertEqual(len(self.rows_now("MoatKeeperRuleset")), 1)

    def rows_now(self, table):
        connection = Config(self.socket)
        self.addCleanup(connection.close)
        return connection.select(table)

    def test_of_many_that_put_it_back_one_does(self):
        """Devices send the very same transaction when the time is over."""
        self.ok("rule", "add", "--in", "eth0", "--drop")
        before = self.export()
        self.assertEqual(self.run_tool("rule", "set", "1", "--accept", "--confirm", "60").returncode, 0)
        tools = [subprocess.Popen(self.command("cancel"), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
                 for _ in range(6)]
        self.assertEqual(sorted(tool.wait(60) for tool in tools), [0] + [CONFLICT] * 5)
        self.assertEqual(self.export(), before)
        self.assertEqual([row["Undoes"] for row in self.rows_now("MoatKeeperHistory") if row["Undoes"]], [2])

    def test_the_seconds(self):
        for wrong in ("0", "86401", "-1", "soon", "1.5"):
            self.refused(BAD_INPUT, f'--confirm "{wrong}": expected seconds, from 1 to 86400', *self.add, wrong)
        self.assertEqual(self.run_tool(*self.add, "86400").returncode, 0)
        self.assertRegex(self.run_tool("show").stderr, r"^change 1 \(.*\) of \w+.* waits to be confirmed, 86[34]\d\d s left")

    def test_a_line_of_a_batch_alone_is_no_trial(self):
        done = self.run_tool("batch", stdin=" ".join(self.add) + " 5\n")
        self.assertEqual(done.returncode, BAD_INPUT)
        self.assertIn("--confirm is for all lines together: expected it after batch", done.stderr)

    def test_what_changes_nothing_is_no_trial(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.assertEqual(self.run_tool("rule", "enable", "1", "--confirm", "5").stderr, "")
        self.assertEqual(self.rows_now("MoatKeeperTrial"), [])
        self.refused(CONFLICT, "no change waits to be confirmed", "confirm")

    def test_whoever_expires_trials_puts_back_what_no_device_may(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        before = self.export()
        with contextlib.ExitStack() as stack:
            expire = stack.enter_context(subprocess.Popen(self.command("expire"), stdout=subprocess.PIPE,
                                                          stderr=subprocess.PIPE, text=True))
            stack.callback(expire.kill)
            self.assertIn("puts changes back", expire.stderr.readline())
            self.assertEqual(self.run_tool("rule", "set", "1", "--accept", "--confirm", "1").returncode, 0)
            self.assertEqual(expire.stdout.readline(), "change 2 was not confirmed in time and is put back\n")
            self.assertEqual(self.export(), before)
            newest = self.history()[0]
            self.assertEqual((newest["User"], newest["Number"]), ("moatkeeper", 3))
            self.assertRegex(newest["Verb"], "^not confirmed in time: .*rule set 1 --accept")

            self.server.stop()
            self.assertIn("; trying again\n", expire.stderr.readline())
            self.start_server()
            self.assertIn("puts changes back", expire.stderr.readline())
            self.assertEqual(self.run_tool("rule", "set", "1", "--accept", "--confirm", "1").returncode, 0)
            self.ok("confirm")
            after = self.export()
            self.assertEqual(self.run_tool("rule", "set", "1", "--drop", "--confirm", "1").returncode, 0)
            self.assertEqual(expire.stdout.readline(), "change 5 was not confirmed in time and is put back\n")
            self.assertEqual(self.export(), after)
            expire.terminate()
            self.assertEqual(expire.wait(10), 0)

    def test_too_late_to_confirm(self):
        self.assertEqual(self.run_tool(*self.add, "1").returncode, 0)
        waiting.until(lambda: "not confirmed in time" in self.run_tool("show").stderr
                      or " 0 s left" in self.run_tool("show").stderr, "the end of the time")
        self.refused(CONFLICT, "was not confirmed in time", "confirm")
        self.ok("cancel")
        self.assertEqual(self.rows("rule"), [])
        newest = self.history()[0]
        self.assertRegex(newest["Verb"], "cancel$")
        self.refused(CONFLICT, "no change left", "undo")

    def test_a_server_without_a_place_for_it(self):
        schema = json.loads((self.folder / "configuration.db").read_text().splitlines()[1])
        del schema["tables"]["MoatKeeperTrial"]
        old = self.folder / "old.ovsschema"
        old.write_text(json.dumps(schema))
        self.server.stop()
        self.start_server(old, database="old.db")
        self.refused(NO_SERVER, "has no place for a change that waits to be confirmed", *self.add, "5")
        self.ok("rule", "add", "--in", "eth0", "--drop")


class RandomHistories(Tool):
    """Whatever was done, undo after undo leads back through the same states, and undo of undo forth again."""

    def setUp(self):
        super().setUp()
        self.config = Config(self.socket)
        self.addCleanup(self.config.close)

    def ids(self, table):
        return sorted(row["Id"] for row in self.config.select(table))

    def change(self, pick):
        rules, filters = self.ids(config.RULES), self.ids(config.FILTERS)
        port = pick.choice(("eth0", "eth1", "eth2"))
        choices = [("rule", "add", "--in", port, "--src-mac", f"02:00:00:00:00:{pick.randrange(256):02x}",
                    pick.choice(("--drop", "--accept"))),
                   ("policy", "add", "--in", port, "--drop"),
                   ("filter", "add", "--between", "eth0", "eth1", "--match", "vlan", "--mode", "blacklist"),
                   ("global", "set", "--forward", pick.choice(("DROP", "ACCEPT")))]
        if rules:
            one = pick.choice(rules)
            choices += [("rule", "remove", one), ("rule", "set", one, "--vlan", pick.randrange(1, 4000)),
                        ("rule", pick.choice(("enable", "disable")), *pick.sample(rules, pick.randint(1, len(rules))))]
        if filters:
            one = pick.choice(filters)
            choices += [("filter-rule", "add", "--filter", one, "--match", pick.randrange(1, 4000)),
                        ("filter", "remove", one, "--with-rules")]
        return pick.choice(choices)

    def test_all(self):
        for seed in range(HISTORIES):
            with self.subTest(seed=seed):
                self.run_history(random.Random(seed))

    def newest(self):
        return max((row["Number"] for row in self.config.select("MoatKeeperHistory")), default=0)

    def run_history(self, pick):
        states = [self.export()]
        while len(states) < 7:
            known = self.newest()
            done = self.run_tool(*self.change(pick), "--force")
            self.assertEqual(done.returncode, 0, f"{done.args}: {done.stderr}")
            if self.newest() != known:
                states.append(self.export())
        while len(states) > 1:
            now = states.pop()
            self.ok("undo", "--force")
            self.assertEqual(self.export(), states[-1])
            if pick.randrange(3) == 0:
                self.ok("undo", self.newest(), "--force")
                self.assertEqual(self.export(), now)
                self.ok("undo", "--force")
                self.assertEqual(self.export(), states[-1])


if __name__ == "__main__":
    main()
