"""moatctl against a real configuration server: what the devices say of themselves."""

import json
import subprocess
import time

from moatctl_case import BAD_INPUT, CONFLICT, MOATCTL, NO_SERVER, OK, Case, main
from lab import config, devices

WRONG, NOT_APPLIED = 1, 7


class Devices(Case):
    def put(self, *rows, number=7, heartbeat=0):
        self.transact(config.delete(config.CHANGE), config.delete(config.DEVICE),
                      config.insert(config.CHANGE, Number=number, Heartbeat=heartbeat),
                      *(config.insert(config.DEVICE, **row) for row in rows))

    def show(self, *words, status=OK):
        """By name, as programs get it."""
        done = self.run_tool("devices", "--format=json", *words)
        self.assertEqual(done.returncode, status, done.stderr)
        return {row["name"]: row for row in json.loads(done.stdout)["devices"]}

    def test_each_device_with_its_state(self):
        self.put(devices.row("a", 7), devices.row("b", 7, NotInForceCount=2), devices.row("c", 5),
                 devices.row("d", 5, InStep=0, Reason="no rights", InStepSince=devices.utc(-100)),
                 devices.row("e", 7, Seen=devices.utc(-66)), {"Name": "f"},
                 devices.row("g", -1, InStep=0, Started="", Reason="the daemon was stopped"), heartbeat=30)
        found = self.show(status=WRONG)
        self.assertEqual([(row["state"], row["behind"], row["counts"]) for row in found.values()],
                         [("in_force", 0, 1), ("in_part", 0, 1), ("behind", 2, 1), ("not_in_step", 2, 1),
                          ("silent", 0, 1), ("unheard_of", None, 0), ("stopped", None, 0)])
        self.assertTrue(100 <= found["d"]["seconds"] < 160 and 66 <= found["e"]["seconds"] < 126, found)
        self.assertEqual((found["d"]["reason"], found["b"]["not_in_force"], found["a"]["version"]),
                         ("no rights", 2, "1.2.3"))
        self.assertEqual(list(self.show("--wrong", status=WRONG)), ["b", "c", "d", "e"])
        lines = self.run_tool("devices").stdout.splitlines()
        self.assertEqual(lines[0], "7 devices: 1 in force, 1 in part, 1 behind, 1 not in step, 1 silent, 1 stopped, "
                                   "1 unheard of")
        self.assertRegex(lines[1], r"^DEVICE +STATE +FOR +BEHIND +RULES +REFUSED +VERSION +ENGINE +REASON$")
        self.assertRegex(lines[5], r"^d +not in step +1 min \d+ s +2 +5 +0 +1\.2\.3 +plain +no rights$")

    def test_what_counts_decides_the_status(self):
        self.put(devices.row("a", 7), {"Name": "old"})
        self.assertEqual(list(self.show()), ["a", "old"])
        self.assertEqual(self.show("--wrong"), {})
        self.put({"Name": "old"})
        self.show(status=WRONG)
        self.put()
        self.assertEqual(self.show(status=WRONG), {})
        self.assertEqual(self.run_tool("devices").stdout, "0 devices\n")

    def test_behind_since_the_first_change_that_is_missing(self):
        for number in range(3):
            self.ok("rule", "add", "--in", f"eth{number}", "--drop")
            if number == 0:
                first = self.number()
                self.transact(config.insert(config.DEVICE, **devices.row("a", first)))
        self.transact({"op": "update", "table": "MoatKeeperHistory", "where": [["Number", "==", 2]],
                       "row": {"Time": devices.utc(-1000)}})
        found = self.show(status=WRONG)["a"]
        self.assertEqual((found["state"], found["behind"], found["at_least"]), ("behind", 2, 0))
        self.assertTrue(1000 <= found["seconds"] < 1060, found)

    def number(self):
        connection = config.Config(self.socket)
        self.addCleanup(connection.close)
        return connection.select(config.CHANGE)[0]["Number"]

    def test_a_device_is_forgotten(self):
        self.put(devices.row("a", 7), devices.row("b", 7), {"Name": "c"})
        self.refused(CONFLICT, 'there is no device "x"; nothing was changed', "devices", "forget", "c", "x")
        self.assertEqual(self.ok("devices", "forget", "c"), "forgotten: c\n")
        done = self.run_tool("devices", "forget", "b")
        self.assertEqual((done.returncode, done.stdout), (OK, "forgotten: b\n"))
        self.assertRegex(done.stderr, r"^warning: the daemon of b was not stopped: .*\n$")
        self.assertEqual(list(self.show()), ["a"])

    def test_the_heartbeat_is_a_change_like_any_other(self):
        self.assertEqual(self.ok("devices", "heartbeat", "30"), "heartbeat: 30 s\n")
        before = self.number()
        self.assertEqual(self.ok("devices", "heartbeat", "0"), "heartbeat: none\n")
        self.assertEqual(self.number(), before + 1)
        self.transact(config.delete(config.CHANGE), config.insert(config.DEVICE, **devices.row("a", 700)))
        self.ok("devices", "heartbeat", "30")
        self.assertEqual(self.number(), 701, "not one that a device has put in force before")
        for word in ("-1", "86401", "x", "1.5"):
            self.refused(BAD_INPUT, "expected seconds, from 0 to 86400|unexpected", "devices", "heartbeat", word)

    def test_wrong_words_and_servers(self):
        self.refused(BAD_INPUT, 'unknown verb "x": expected forget or heartbeat', "devices", "x")
        self.refused(BAD_INPUT, "NAME is missing", "devices", "forget")
        self.refused(BAD_INPUT, "--watch: expected a terminal", "devices", "--watch")
        self.server.stop()
        self.refused(NO_SERVER, "config.sock", "devices")

    def test_a_hundred_devices_with_long_lists_are_read_at_once(self):
        lines = "".join(f"ebtables -A UserInputRules -i p{number} -j DROP\tno\n" for number in range(1000))
        self.put(*(devices.row(f"d{number}", 7, NotInForce=lines, NotInForceCount=1000) for number in range(100)))
        begin = time.monotonic()
        self.assertEqual(len(self.show(status=WRONG)), 100)
        self.assertLess(time.monotonic() - begin, 5)


class Wait(Case):
    """--wait: on how many devices a change is to be in force."""

    def follow(self, count, behave=lambda name, number: {}):
        followers = devices.Followers(self.socket, [f"d{number:03d}" for number in range(count)], behave)
        self.addCleanup(followers.stop)
        return followers

    def add(self, status, *words, seconds=0.3):
        done = subprocess.run([MOATCTL, "--server", str(self.socket), "--timeout", str(seconds), *words, "rule", "add",
                               "--in", "eth0", "--drop"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                              timeout=60)
        self.assertEqual(done.returncode, status, done.stderr)
        return [line for line in done.stderr.splitlines() if not line.startswith("warning: ")]

    def test_as_many_as_are_asked_for(self):
        self.follow(20, lambda name, number: {} if name < "d018" or number == 0 else None)
        for count in ("1", "18", "90%", "86%"):
            (line,) = self.add(OK, "--wait", count, seconds=20)
            self.assertRegex(line, r"^in force on (1[0-9]|[1-9]) of 20 devices$")
        for count, wanted in (("19", 19), ("91%", 19), ("21", 21)):
            lines = self.add(NOT_APPLIED, "--wait", count)
            self.assertEqual(lines[0], f"stored, but in force on 18 of 20 devices, --wait {count} asks for {wanted}")
            self.assertEqual(len(lines), 3)
            self.assertRegex(lines[1], "^stored, but not known to be in force: the daemon of d019 has not said so within 300 ms")

    def test_few_are_named_and_the_rest_is_counted(self):
        self.follow(100, lambda name, number: {} if number == 0 or name < "d050" else None)
        lines = self.add(NOT_APPLIED, "--wait", "all")
        self.assertEqual(len(lines), 10)
        self.assertRegex(lines[-1], "^moatctl: stored, but .*d050 .*; and 40 devices more .moatctl devices shows them.$")

    def test_a_device_without_all_rows_does_not_count(self):
        line = "ebtables -A UserInputRules -i eth0 -j DROP\tno\n"
        self.follow(3, lambda name, number: {"NotInForce": line, "NotInForceCount": 1}
                    if name == "d000" and number != 0 else {})
        (told,) = self.add(OK, "--wait", "2", seconds=20)
        self.assertRegex(told, "^in force on 2 of 3 devices$")

    def test_more_than_there_are(self):
        self.follow(1)
        (told,) = self.add(NOT_APPLIED, "--wait", "2")
        self.assertEqual(told, "moatctl: stored, but in force on 1 of 1 devices and there are no others, --wait 2 asks "
                               "for 2")

    def test_all_of_a_hundred_and_devices_is_right_then(self):
        self.follow(100)
        self.assertEqual(self.add(OK, "--wait", "all", seconds=20), [])
        self.assertTrue(self.ok("devices").startswith("100 devices: 100 in force\n"))


if __name__ == "__main__":
    main()
