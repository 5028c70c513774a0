"""The systemd units by themselves: what they say of the order of a start, and what systemd-analyze says of them. How they
work is tested in tests/system/boot_test.py and restart_test.py, where systemd can run.

usage: units_test.py FOLDER_OF_THE_UNITS
"""

import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

UNITS = pathlib.Path(sys.argv[1])
DAEMON, SERVER, CREATE = "moatkeeper.service", "moatkeeper-db.service", "moatkeeper-db-create.service"


def read(name):
    """{setting: [word, ...]} of all sections."""
    settings = {}
    for line in (UNITS / f"{name}.in").read_text(encoding="utf-8").splitlines():
        if "=" in line and not line.startswith("#"):
            key, value = line.split("=", 1)
            settings.setdefault(key, []).extend(value.split())
    return settings


class Units(unittest.TestCase):
    def testTheOrderOfAStart(self):
        daemon, server, create = (read(name) for name in (DAEMON, SERVER, CREATE))
        for unit in (daemon, server, create):
            # Otherwise basic.target is waited for, which may wait for the network itself.
            self.assertEqual(unit["DefaultDependencies"], ["no"])
            self.assertIn("shutdown.target", unit["Conflicts"])
            self.assertIn("shutdown.target", unit["Before"])
            self.assertIn("local-fs.target", unit["After"])
            for target in unit["After"]:
                self.assertNotRegex(target, r"^(network|basic|sysinit|multi-user)")
        self.assertIn("network-pre.target", daemon["Before"])
        self.assertIn("network-pre.target", daemon["Wants"])  # nobody else may ask for it
        self.assertIn("network-pre.target", daemon["WantedBy"])
        for first, then in ((server, daemon), (create, server)):
            name = SERVER if first is server else CREATE
            self.assertIn(name, then["Wants"])
            self.assertIn(name, then["After"])

    def testNoStepOfTheStartLastsForEver(self):
        self.assertEqual(read(CREATE)["TimeoutStartSec"], ["1min"])  # without it, there is no limit

    def testReadinessAndSignals(self):
        daemon = read(DAEMON)
        self.assertEqual(daemon["Type"], ["notify"])
        self.assertEqual(daemon["TimeoutStartSec"], ["3min"])  # MOATKEEPER_WAIT_SECONDS is at most 60
        self.assertEqual(daemon["KillMode"], ["mixed"])
        self.assertEqual(daemon["RestartKillSignal"], ["SIGRTMIN+1"])
        self.assertNotIn("KillSignal", daemon)
        self.assertEqual(daemon["RuntimeDirectoryPreserve"], ["yes"])
        self.assertEqual(daemon["EnvironmentFile"], ["-/etc/default/moatkeeper"])

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd-analyze")
    def testSystemdFindsNothingWrong(self):
        with tempfile.TemporaryDirectory() as folder:
            for name in (DAEMON, SERVER, CREATE):
                # It looks for the programs, which are not installed here.
                text = re.sub(r"(?m)^(ExecStart|ExecReload)=\S+", r"\1=/bin/true",
                              (UNITS / f"{name}.in").read_text(encoding="utf-8"))
                pathlib.Path(folder, name).write_text(text, encoding="utf-8")
            done = subprocess.run(["systemd-analyze", "verify", "--man=no", f"{folder}/{DAEMON}"], capture_output=True,
                                  text=True, check=False, env={"SYSTEMD_UNIT_PATH": f"{folder}:", "PATH": "/usr/bin:/bin"})
        self.assertNotRegex(done.stderr, "moatkeeper")
        self.assertEqual(done.returncode, 0, done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
