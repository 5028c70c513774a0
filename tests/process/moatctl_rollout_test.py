"""moatctl against real configuration servers: a change brought to one group of devices after the other."""

import json
import signal
import subprocess
import time

from moatctl_case import BAD_INPUT, CONFLICT, MOATCTL, NO_SERVER, OK, Case, main
from lab import config, devices, waiting
from lab.cluster import writeSchema
from lab.programs import SCHEMA, startServer

WENT_BACK, HALF_WAY = 9, 10
POLICY = {"Id": 1, "Interface": "p1", "Policy": "DROP"}


class Group:
    """A database, and devices that have their configuration from it; a server of its own unless there is one."""

    def __init__(self, case, name, count, socket=None, database=config.DATABASE):
        self.socket = socket or case.folder / f"{name}.sock"
        if not socket:
            self.server = startServer(SCHEMA, case.folder, f"{name}.db", self.socket)
            case.addCleanup(self.server.stop)
        self.config = config.Config(self.socket, database=database)
        case.addCleanup(self.config.close)
        self.devices = devices.Followers(self.socket, [f"{name}{number}" for number in range(count)], database=database)
        case.addCleanup(self.devices.stop)

    def policies(self):
        return [row["Policy"] for row in self.config.select(config.INPUT_POLICY)]

    def trials(self):
        return self.config.select("MoatKeeperTrial")

    def undone(self):
        return sorted((row["Number"], row["Undoes"]) for row in self.config.select("MoatKeeperHistory"))


class Rollout(Case):
    def setUp(self):
        super().setUp()
        self.first, self.second = Group(self, "a", 3), Group(self, "b", 2)
        self.maxDiff = None
        self.file = self.folder / "change.json"
        self.file.write_text(json.dumps({config.INPUT_POLICY: [POLICY]}))

    def start(self, *words, settle=0.3, timeout=20, steps=None):
        steps = [word for group in steps or (self.first, self.second) for word in ("--step", f"@unix:{group.socket}")]
        return subprocess.Popen(
            [MOATCTL, "rollout", str(self.file), *steps, "--settle", str(settle), "--timeout", str(timeout),
             *map(str, words or ("--format=json",))], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def end(self, process, status):
        """What was told: (step, event), and the texts."""
        out, err = process.communicate(timeout=60)
        told = [json.loads(line) for line in out.splitlines()]
        self.assertEqual(process.returncode, status, f"{out}{err}")
        return [(line["step"], line["event"]) for line in told if line["event"] != "message"], told

    def rollOut(self, status, *words, **options):
        return self.end(self.start(*words, **options), status)

    def moatctl(self, group, status, *words):
        done = self.run_tool(*words, socket_path=group.socket)
        self.assertEqual(done.returncode, status, done.stderr)
        return done

    def until(self, process, step, event):
        """Returns when that was told."""
        for line in process.stdout:
            told = json.loads(line)
            if (told["step"], told["event"]) == (step, event):
                return
        self.fail(f"no {event} in step {step}: {process.communicate()}")

    def settling(self, **options):
        """One that is in the first group, and in force there on trial."""
        process = self.start(settle=60, steps=[self.first], **options)
        self.until(process, 1, "in_force")
        return process

    def test_one_group_after_the_other(self):
        events, told = self.rollOut(OK)
        steps = ["stored", "in_force", "confirmed"]
        planned = [event for event in events if event[1] == "planned"]
        self.assertEqual(sorted({step for step, event in planned}), [1, 2])
        self.assertEqual(events[len(planned):], [(1, event) for event in steps] + [(2, event) for event in steps])
        self.assertIn("in force on 3 of 3 devices", [line["text"] for line in told])
        for group in (self.first, self.second):
            self.assertEqual((group.policies(), group.trials(), group.undone()), (["DROP"], [], [(1, 0)]))
            self.assertRegex(group.config.select("MoatKeeperHistory")[0]["Verb"], "^rollout ")
        self.assertEqual([event for event in self.rollOut(OK)[0] if event[1] != "planned"],
                         [(1, "unchanged"), (2, "unchanged")])

    def test_databases_of_one_server(self):
        socket, second = self.folder / "c.sock", self.folder / "site.db"
        schemas = [writeSchema(self.folder / name, f"moatkeeper_{name}") for name in ("pilot", "site")]
        subprocess.run(["ovsdb-tool", "create", second, schemas[1]], check=True)
        self.addCleanup(startServer(schemas[0], self.folder, "pilot.db", socket, options=[str(second)]).stop)
        groups = [Group(self, name[0], 2, socket, f"moatkeeper_{name}") for name in ("pilot", "site")]
        words = ["--server", socket, "rollout", self.file, "--step", "moatkeeper_pilot", "--settle", "0"]
        self.refused(OK, "^$", *words)
        self.assertEqual([group.policies() for group in groups], [["DROP"], []])
        self.refused(OK, "^$", *words, "--step", f"moatkeeper_site@unix:{socket}")
        self.assertEqual([group.policies() for group in groups], [["DROP"], ["DROP"]])
        self.refused(NO_SERVER, 'moatkeeper_x: .*no database "moatkeeper_x".*; nothing was changed$', *words, "--step",
                     "moatkeeper_x")

    def test_lines_of_a_batch_for_people(self):
        self.file.write_text("policy add --in p1 --drop\npolicy add --in p2 --accept\n")
        out, err = self.start("--batch").communicate(timeout=60)
        self.assertRegex(out, r"(?m)^\S+ step 2 of 2, @unix:\S+: in force for 1 s: confirmed$", err)
        self.assertEqual(self.second.policies(), ["DROP", "ACCEPT"])

    def test_what_is_not_in_force_goes_back_everywhere(self):
        self.second.devices.behave = lambda name, number: None if name == "b1" and number == 1 else {}
        events, told = self.rollOut(WENT_BACK, timeout=1)
        self.assertEqual(events[-3:], [(2, "trouble"), (2, "went_back"), (1, "went_back")])
        self.assertRegex(self.textOf(told, "trouble"), "the daemon of b1 has not said")
        for group in (self.first, self.second):
            self.assertEqual((group.policies(), group.trials(), group.undone()), ([], [], [(1, 0), (2, 1)]))

    def test_a_part_of_the_devices_is_enough(self):
        self.second.devices.behave = lambda name, number: None if name == "b1" and number else {}
        _, told = self.rollOut(OK, "--format=json", "--wait", "1")
        self.assertIn("in force on 1 of 2 devices", [line["text"] for line in told])

    def textOf(self, told, event):
        return [line["text"] for line in told if line["event"] == event][0]

    def test_trouble_while_it_settles(self):
        group = self.first
        group.config.transact(config.insert(config.CHANGE, Number=0, Heartbeat=30))
        for columns, text in (({"InStep": 0, "Reason": "no rights"}, "^a0 is not in step: no rights$"),
                              ({"NotInForceCount": 2}, "^a0 refuses 2 lines more$"),
                              ({"Seen": devices.utc(-100)}, "^a0 is silent for 1 min ")):
            process = self.settling()
            group.devices.behave = lambda name, number, columns=columns: columns if name == "a0" else {}
            waiting.until(lambda: process.poll() is not None or not group.trials(), "its end")
            group.devices.behave = lambda name, number: {}
            events, told = self.end(process, WENT_BACK)
            self.assertEqual(events[-2:], [(1, "trouble"), (1, "went_back")])
            self.assertRegex(self.textOf(told, "trouble"), text)
            self.assertEqual(group.policies(), [])

    STOPPED = {"Started": "", "Number": -1, "InStep": 0, "Reason": "the daemon was stopped"}

    def stopOne(self, process):
        """The daemon of a0, once the change is in force there."""
        self.until(process, 1, "in_force")
        self.first.devices.behave = lambda name, number: self.STOPPED if name == "a0" else {}
        waiting.until(lambda: [row["Started"] for row in self.first.config.select(config.DEVICE)].count("") == 1, "its word")

    def test_a_daemon_that_is_started_anew_is_no_trouble(self):
        """Also one that was stopped near the end: it has the time-out to be back."""
        process = self.start(settle=0.2, steps=[self.first])
        self.stopOne(process)
        coming = {**self.STOPPED, "Started": devices.utc(), "Reason": ""}
        for columns in (coming, {**coming, "InStep": 1}, {"Started": coming["Started"]}):
            time.sleep(0.2)  # longer than it settles, all in all
            self.assertIsNone(process.poll())
            self.first.devices.behave = lambda name, number, columns=columns: columns if name == "a0" else {}
        self.assertEqual(self.end(process, OK)[0], [(1, "confirmed")])
        self.assertEqual(self.first.policies(), ["DROP"])

    def test_one_that_stays_away_is(self):
        process = self.start(settle=0.2, timeout=1, steps=[self.first])
        self.stopOne(process)
        events, told = self.end(process, WENT_BACK)
        self.assertEqual((events, self.first.policies()), ([(1, "trouble"), (1, "went_back")], []))
        self.assertEqual(self.textOf(told, "trouble"), "a0 does not apply it any more: the daemon was stopped")

    def test_interrupted_it_goes_back(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            process = self.settling()
            process.send_signal(number)
            events, told = self.end(process, WENT_BACK)
            self.assertEqual(events[-2:], [(1, "trouble"), (1, "went_back")])
            self.assertEqual((self.textOf(told, "trouble"), self.first.policies()), ("interrupted", []))

    def test_killed_it_leaves_a_trial_that_goes_back_by_itself(self):
        process = self.start(settle=60)
        self.until(process, 1, "in_force")
        process.kill()
        process.communicate()
        (trial,) = self.first.trials()
        self.assertEqual((trial["Change"], trial["Seconds"]), (1, 5 * 20 + 60 + 5))
        self.assertEqual(self.second.policies(), [])
        self.refused(CONFLICT, "waits to be confirmed", "rollout", self.file, "--step", f"@unix:{self.first.socket}",
                     command=[MOATCTL])
        self.moatctl(self.first, OK, "cancel")
        self.assertEqual(self.first.policies(), [])

    def test_two_administrators(self):
        process = self.settling()
        self.moatctl(self.first, CONFLICT, "policy", "add", "--in", "p2", "--drop")
        self.moatctl(self.first, OK, "confirm")  # by somebody else
        events, told = self.end(process, WENT_BACK)
        self.assertRegex(self.textOf(told, "trouble"), "somebody else has confirmed it or taken it back")
        self.assertEqual((events[-1], self.first.undone()), ((1, "went_back"), [(1, 0), (2, 1)]))

    def test_what_somebody_else_has_changed_since_stays(self):
        self.second.devices.behave = lambda name, number: None if number == 1 else {}
        process = self.start(timeout=1)
        self.until(process, 1, "confirmed")
        self.moatctl(self.first, OK, "policy", "set", "1", "--accept")
        events, told = self.end(process, HALF_WAY)
        self.assertEqual(events[-3:], [(2, "trouble"), (2, "went_back"), (1, "left")])
        self.assertRegex(self.textOf(told, "left"), "MoatKeeperInputPolicy Id 1 was changed again since")
        self.assertEqual((self.first.policies(), self.second.policies()), (["ACCEPT"], []))

    def test_what_is_to_be_kept_stays(self):
        self.second.devices.behave = lambda name, number: None if number else {}
        events, _ = self.rollOut(HALF_WAY, "--format=json", "--keep", timeout=1)
        self.assertEqual(events[-2:], [(2, "trouble"), (2, "kept")])
        self.assertEqual((self.first.policies(), self.second.policies()), (["DROP"], ["DROP"]))
        self.assertEqual(self.second.trials(), [])

    def test_a_server_that_is_gone(self):
        process = self.settling(timeout=1)
        self.first.server.stop(signal.SIGKILL)
        events, _ = self.end(process, HALF_WAY)
        self.assertEqual(events[-2:], [(1, "trouble"), (1, "left")])

    def test_nothing_is_changed_unless_all_can_be(self):
        self.moatctl(self.second, OK, "policy", "add", "--in", "p1", "--drop", "--confirm", "60")
        self.refused(CONFLICT, "rollout|waits to be confirmed", *self.words())
        self.second.server.stop()
        self.refused(NO_SERVER, "b.sock.*; nothing was changed", *self.words())
        self.assertEqual(self.first.policies(), [])

    def words(self, *more):
        return ["rollout", self.file, "--step", f"@unix:{self.first.socket}", "--step", f"@unix:{self.second.socket}", *more]

    def refused(self, status, pattern, *words, command=None):
        done = subprocess.run([MOATCTL, *map(str, words)], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              timeout=60)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        self.assertRegex(done.stderr, pattern)

    def test_a_look_changes_nothing(self):
        events, told = self.rollOut(OK, "--format=json", "--dry-run")
        self.assertEqual({event for _, event in events}, {"planned"})
        self.assertIn('+ MoatKeeperInputPolicy Id 1: Interface "p1", Policy "DROP"', [line["text"] for line in told])
        self.assertEqual((self.first.policies(), self.first.undone()), ([], []))

    def test_wrong_words_and_files(self):
        step = f"@unix:{self.first.socket}"
        for words, pattern in (
                (["--step", step], "FILE is missing"), ([self.file], "--step is missing"),
                ([self.file, "--step", step, "--step", step], "expected each step once"),
                ([self.file, "--step", "@ssl:host"], '--step "@ssl:host": '),
                ([self.file, "--step", step, "--settle", "-1"], "--settle"),
                ([self.file, "--step", step, "--settle", "43201"], "--settle \"43201\": expected seconds, from 0 to 43200"),
                ([self.file, "--step", step, "--no-wait"], "--no-wait: a rollout waits"),
                ([self.file, "--step", step, "--batch", "--replace"], "--replace: expected a file as export writes it"),
                ([self.file, "--step", step, "--keep", "--dry-run"], "--dry-run|--keep"),
                ([self.folder / "none", "--step", step], "none"),
                ([self.file, "--step", step, "--batch"], ": 1 line is wrong; nothing was changed$")):
            self.refused(BAD_INPUT, pattern, "rollout", *words)
        self.file.write_text(json.dumps({config.INPUT_POLICY: [{**POLICY, "Interface": "two words"}]}))
        self.refused(BAD_INPUT, "error", *self.words())
        self.file.write_text("{")
        self.refused(BAD_INPUT, "change.json:1", *self.words())
        self.assertEqual(self.first.undone(), [])


if __name__ == "__main__":
    main()
