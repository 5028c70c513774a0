"""moatctl where the configuration is that of other machines: what this one's kernel, interfaces and processes have is
nobody's answer, and on the same server's own socket it is, as on a device."""

import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

from lab import devices, sandbox

if __name__ == "__main__":
    sandbox.enterNetwork()

from lab import config
from lab.certificates import Authority
from lab.cluster import freePort
from lab.programs import SCHEMA, startServer
from moatctl_case import BAD_INPUT, MOATCTL, OK, main

POLICY = config.INPUT_POLICY
ACKNOWLEDGED = "MoatKeeperAcknowledged"


class Elsewhere(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        authority = Authority(cls.folder / "pki")
        port = freePort()
        cls.place, cls.socket = f"ssl:127.0.0.1:{port}", cls.folder / "sock"
        cls.addClassCleanup(startServer(SCHEMA, cls.folder, socketPath=cls.socket, options=[
            f"--remote=pssl:{port}:127.0.0.1", *authority.issue("centre").options()]).stop)
        cls.words = ("--server", cls.place, *authority.issue("alice", names=()).options())
        cls.config = config.Config(cls.socket)
        cls.addClassCleanup(cls.config.close)
        cls.config.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}],
                            POLICY: [{"Id": 1, "Interface": "there1", "Policy": "DROP"}]})
        cls.config.transact(config.insert(config.CHANGE, Number=7), config.insert(config.DEVICE, **devices.row("device-1", 7)))

    def run_(self, *words):
        return subprocess.run([MOATCTL, *map(str, words)], stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=60,
                              env={**os.environ, "HOME": "/nonexistent"})

    def ok(self, *words, status=OK):
        done = self.run_(*self.words, *words)
        self.assertEqual((done.returncode, done.stderr), (status, ""), words)
        return done.stdout

    def here(self, *words):
        return self.run_("--server", self.socket, *words)

    def test_verbs_about_this_machine_only_are_refused(self):
        settings = self.folder / "settings"
        keys = [word.removeprefix("--") for word in self.words[2:]]
        settings.write_text("\n".join([f"server = {self.place}", *keys]))
        settings.chmod(0o600)
        for words, instead in (("status", "moatctl devices shows how those are"), ("top", "run it on one of those"),
                               ("trace", "run it on one of those")):
            for where in (self.words, ("--settings", settings)):
                done = self.run_(*where, words)
                self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""), done.stderr)
                self.assertRegex(done.stderr, f"^moatctl: {words} is about this machine, and the configuration on "
                                              f"{re.escape(self.place)} is that of others: {instead}.*\n$")
        self.assertIn("there1", self.here("status").stdout)
        self.assertRegex(self.here("top", "--count", "1", "--interval", "0.1").stdout, "frames a second")

    def test_frames_go_through_the_configuration(self):
        out = self.ok("explain", "--in", "there1")
        self.assertRegex(out, r"through the configuration of other machines\n(.*\n)*DROP: MoatKeeperInputPolicy Id 1")
        self.assertEqual(json.loads(self.ok("explain", "--in", "there1", "--format=json"))["walked"], "configuration")
        local = self.here("explain", "--in", "there1")
        self.assertRegex(local.stdout, "through the kernel's tables\n(.*\n)*ACCEPT")
        self.assertRegex(local.stderr, "this machine has no such interface")

    def test_a_matrix_has_the_ports_of_the_rows(self):
        out = self.ok("matrix")
        self.assertRegex(out, r"through the configuration of other machines\n")
        self.assertIn("there1", out)
        self.assertNotIn("own1", out)
        self.assertIn("own1", self.here("matrix").stdout)

    def test_a_page_without_this_machine(self):
        page = self.folder / "page.html"
        self.ok("report", page)
        text = page.read_text()
        self.assertIn(f"not looked at: the configuration on {self.place} is that of other machines", text)
        self.assertIn("device-1", text)
        for word in ("own1", "daemon</th>", "this machine has no such interface", "The kernel&#39;s", "missing"):
            self.assertNotIn(word, text)
        self.assertEqual(self.here("report", page).returncode, OK)
        self.assertIn("this machine has no such interface", page.read_text())

    def samples(self, text):
        return {line.split()[0]: line.split()[-1] for line in text.splitlines() if not line.startswith("#")}

    def test_metrics_without_this_machine(self):
        found = self.samples(self.ok("metrics"))
        self.assertEqual((found["moatkeeper_server_up"], found["moatkeeper_kernel_readable"]), ("1", "0"))
        self.assertEqual(found['moatkeeper_device_in_step{device="device-1"}'], "1")
        self.assertEqual(found['moatkeeper_row_in_force{table="MoatKeeperInputPolicy",id="1"}'], "1")
        for name in ("moatkeeper_daemon_running", "moatkeeper_kernel_transactions_total"):
            self.assertNotIn(name, found)
        found = self.samples(self.here("metrics").stdout)
        self.assertEqual((found["moatkeeper_kernel_readable"], found["moatkeeper_daemon_running"]), ("1", "0"))
        self.assertEqual(found['moatkeeper_row_in_force{table="MoatKeeperInputPolicy",id="1"}'], "0")

    def test_the_engine_of_the_configuration(self):
        self.assertRegex(self.ok("engine", "show"), "^what would be made of the configuration, which is that of other machines\n")

    def test_checks_know_nothing_of_their_ports(self):
        absent = "this machine has no such interface"
        self.assertNotIn(absent, self.ok("check", status=1))
        self.assertIn(absent, self.here("check").stdout)
        for number, (words, expected) in enumerate(((self.words, False), (("--server", self.socket), True)), 2):
            done = self.run_(*words, "--no-wait", "policy", "add", "--in", f"there{number}", "--accept")
            self.assertEqual((done.returncode, absent in done.stderr), (OK, expected), done.stderr)
            self.config.delete(POLICY, number)

    def acknowledged(self, row):
        return sum(each["Row"] == row for each in self.config.select(ACKNOWLEDGED))

    def test_what_was_acknowledged_on_a_device_stays(self):
        self.config.transact(config.insert(POLICY, Id=9, Interface="there9", Policy="ACCEPT"))
        self.addCleanup(self.config.delete, POLICY, 9)
        done = self.run_(*self.words, "acknowledge", "policy", "9")
        self.assertRegex(done.stderr, "policy 9 has no warning that is known without the machines' interfaces")
        self.assertEqual(self.here("acknowledge", "policy", "1").returncode, OK)
        self.assertEqual(self.acknowledged(1), 3)
        self.ok("acknowledge", "policy", "1")
        self.assertEqual(self.acknowledged(1), 3)
        self.assertEqual(self.ok("acknowledge", "policy", "1", "--withdraw").count("withdrawn"), 3)


def prepare():
    """A bridge whose tables and ports are none of the configuration's."""
    for words in ("ip link set lo up", "ip link add bridge0 type bridge", "ip link add own1 type veth peer name own2",
                  "ip link set own1 master bridge0", "ebtables -A FORWARD -i own1 -j DROP"):
        subprocess.run(words.split(), check=True)


if __name__ == "__main__":
    prepare()
    main()
