"""The systemd units by themselves: what they say of the order of a start, and what systemd-analyze says of them. How they
work is tested in tests/system/boot_test.py and restart_test.py, where systemd can run.

usage: units_test.py CMAKE BUILD_FOLDER
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

CMAKE, BUILD = sys.argv[1:3]
DAEMON, SERVER, CREATE = "moatkeeper.service", "moatkeeper-db.service", "moatkeeper-db-create.service"
RELAY = "moatkeeper-relay.service"
CENTRE = [f"moatkeeper-{name}@.service" for name in ("centre", "devices", "administrators")]
METRICS, TIMER = "moatkeeper-metrics.service", "moatkeeper-metrics.timer"


_folder = tempfile.TemporaryDirectory()
UNITS = pathlib.Path(_folder.name, "usr/lib/systemd/system")


def setUpModule():
    """The units as they are installed."""
    unittest.addModuleCleanup(_folder.cleanup)
    subprocess.run([CMAKE, "--install", BUILD, "--prefix", "/usr"], env={**os.environ, "DESTDIR": _folder.name}, check=True,
                   stdout=subprocess.DEVNULL)


def read(name):
    """{setting: [word, ...]} of all sections."""
    settings = {}
    for line in (UNITS / name).read_text(encoding="utf-8").splitlines():
        if "=" in line and not line.startswith("#"):
            key, value = line.split("=", 1)
            settings.setdefault(key, []).extend(value.split())
    return settings


class Units(unittest.TestCase):
    def testTheOrderOfAStart(self):
        daemon, server, create, relay = (read(name) for name in (DAEMON, SERVER, CREATE, RELAY))
        for unit in (daemon, server, create, relay):
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

    def testOneOfTheTwoServersRuns(self):
        server, relay = read(SERVER), read(RELAY)
        self.assertEqual(server["ConditionPathExists"], ["/run/moatkeeper-db/control/own"])
        self.assertEqual(relay["ConditionPathExists"], ["/run/moatkeeper-db/control/relay"])
        self.assertIn(RELAY, server["Wants"])
        self.assertEqual(relay["PartOf"], [SERVER])
        for name in (CREATE, SERVER):
            self.assertIn(name, relay["After"])
        self.assertIn(RELAY, read(DAEMON)["After"])

    def testNoStepOfTheStartLastsForEver(self):
        self.assertEqual(read(CREATE)["TimeoutStartSec"], ["1min"])  # without it, there is no limit

    def testMetricsAreWrittenWhenTheTimerSaysSo(self):
        self.assertNotIn("WantedBy", read(METRICS))
        self.assertEqual(read(TIMER)["WantedBy"], ["timers.target"])
        self.assertEqual((read(METRICS)["Type"], read(METRICS)["TimeoutStartSec"]), (["oneshot"], ["1min"]))

    def testReadinessAndSignals(self):
        daemon = read(DAEMON)
        self.assertEqual(daemon["Type"], ["notify"])
        self.assertEqual(daemon["TimeoutStartSec"], ["3min"])  # MOATKEEPER_WAIT_SECONDS is at most 60
        self.assertEqual(daemon["KillMode"], ["mixed"])
        self.assertEqual(daemon["RestartKillSignal"], ["SIGRTMIN+1"])
        self.assertNotIn("KillSignal", daemon)
        self.assertEqual(daemon["RuntimeDirectoryPreserve"], ["yes"])
        self.assertEqual(daemon["EnvironmentFile"], ["-/etc/default/moatkeeper"])

    def analyze(self, *arguments):
        """What systemd-analyze says of the units; it looks for the programs, which are not installed here."""
        with tempfile.TemporaryDirectory() as folder:
            for name in (DAEMON, SERVER, CREATE, RELAY, METRICS, TIMER, *CENTRE):
                text = re.sub(r"(?m)^(ExecStart|ExecReload)=\S+", r"\1=/bin/true",
                              (UNITS / name).read_text(encoding="utf-8"))
                pathlib.Path(folder, name).write_text(text, encoding="utf-8")
            done = subprocess.run(["systemd-analyze", *arguments], capture_output=True, text=True, check=False, cwd=folder,
                                  env={"SYSTEMD_UNIT_PATH": f"{folder}:", "PATH": "/usr/bin:/bin", "LANG": "C.UTF-8"})
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        return done.stdout + done.stderr

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd-analyze")
    def testSystemdFindsNothingWrong(self):
        for unit in (DAEMON, TIMER, CENTRE[0].replace("@", "@office")):
            self.assertNotRegex(self.analyze("verify", "--man=no", f"./{unit}"), "moatkeeper")

    @unittest.skipUnless(shutil.which("systemd-analyze"), "no systemd-analyze")
    def testExposure(self):
        """As systemd counts it: 10 is the worst."""
        for unit, most in ((DAEMON, 2.0), (SERVER, 1.5), (CREATE, 2.0), (METRICS, 2.0), (RELAY, 2.0),
                           *((unit, 2.0) for unit in CENTRE)):
            last = self.analyze("security", "--offline=yes", "--no-pager", f"./{unit}").strip().splitlines()[-1]
            found = float(re.search(r"Overall exposure level for \S+ ([0-9.]+)", last)[1])
            self.assertLessEqual(found, most, last)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
