"""What frames meet while the daemon is restarted, upgraded and killed, under the service manager and with the units as
they are installed.

usage: restart_test.py CMAKE BUILD_FOLDER [unittest arguments]
MOATKEEPER_RESTARTS: how many restarts, upgrades and kills (default 2).
"""

import os
import shutil
import sys
import tempfile
import unittest

from lab import config, kernel, packages, service_manager, waiting
from lab.stream import ALLOWED, FORBIDDEN, TimedStream, makeBridge

COUNT = int(os.environ.get("MOATKEEPER_RESTARTS", "2"))
UNIT = "moatkeeper.service"
ALLOWED_MAC = ALLOWED.hex(":")
TABLES = {
    config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "DROP"}],
    config.RULES: [{"Id": 1, "RulePrio": 10, "InInterface": "in", "OutInterface": "out", "SrcMAC": ALLOWED_MAC,
                    "Target": "ACCEPT"}],
}
WANTED = kernel.expected(INPUT=("DROP",), FORWARD=("DROP",),
                         UserForwardRules=[f"-s {ALLOWED_MAC} -i in -o out -j ACCEPT"])


class Restart(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        makeBridge()
        cls.machine = MACHINE
        cls.machine.change(UNIT, "")
        cls.machine.boot(UNIT)
        cls.machine.waitFor(UNIT)
        connection = config.Config(cls.machine.path(service_manager.SERVER_SOCKET))
        connection.replace(TABLES)
        connection.close()
        kernel.waitFor(WANTED)

    def setUp(self):
        self.machine.run("systemctl", "start", UNIT)
        kernel.waitFor(WANTED)

    def mainProcess(self):
        return int(self.machine.show(UNIT, "MainPID"))

    def assertNothingPasses(self, what, step, count=COUNT):
        """Nothing that is forbidden passes, and all that is allowed, while step is done again and again."""
        with TimedStream(ALLOWED, FORBIDDEN) as stream:
            for number in range(count):
                before = self.mainProcess()
                step(number)
                self.assertNotEqual(self.mainProcess(), before, "another process")
        leaked = sum(stream.source(number) == FORBIDDEN for number in stream.received)
        lost = sum(stream.source(number) == ALLOWED and number not in stream.received
                   for number in range(len(stream.sent)))
        print(f"{count} {what}: {len(stream.sent)} frames, {leaked} leaked, {lost} lost")
        self.assertGreater(len(stream.received), 100)
        self.assertEqual((leaked, lost), (0, 0))
        kernel.waitFor(WANTED)

    def testRestarts(self):
        self.assertNothingPasses("restarts", lambda number: self.machine.run("systemctl", "restart", UNIT))
        self.assertEqual(self.machine.show(UNIT, "Result"), "success")
        self.assertEqual(self.machine.show(UNIT, "NRestarts"), "0")

    def testKills(self):
        def kill(number):
            before = self.mainProcess()
            self.machine.run("systemctl", "kill", "--kill-whom=main", "--signal=KILL", UNIT)
            waiting.until(lambda: self.mainProcess() not in (0, before) and
                          self.machine.show(UNIT, "ActiveState") == "active", "the next process", 30)
        self.assertNothingPasses("kills", kill)

    def testUpgrades(self):
        both = copyPackages(self.machine)

        def upgrade(number):
            self.machine.run("dpkg", "--force-unsafe-io", "--force-depends", "--install", both[number % 2])
        upgrade(1)
        self.assertNothingPasses("upgrades of the package", upgrade)

    def testAReload(self):
        before = self.mainProcess()
        self.machine.run("systemctl", "reload", UNIT)
        waiting.until(lambda: "start:40:" in self.machine.readOutput(), "the reload in the log")
        self.assertEqual(self.mainProcess(), before)
        kernel.waitFor(WANTED)

    def testAStopTakesTheRulesOut(self):
        self.machine.run("systemctl", "stop", UNIT)
        self.assertEqual(kernel.readTables(), kernel.untouched())
        self.assertEqual(self.machine.show(UNIT, "Result"), "success")

    def testWithoutItsServerARestartKeepsTheRules(self):
        def restart(number):
            before = self.mainProcess()
            self.machine.run("systemctl", "--no-block", "restart", UNIT)
            waiting.until(lambda: self.mainProcess() not in (0, before) and
                          self.machine.show(UNIT, "ActiveState") == "activating", "the next process to wait for its server")
        # Masked, because the daemon's unit wants it: a restart would start it.
        self.machine.run("systemctl", "mask", "--runtime", "--now", "moatkeeper-db.service")
        try:
            self.assertNothingPasses("restarts without a server", restart, 2 * COUNT)
        finally:
            self.machine.run("systemctl", "unmask", "--runtime", "moatkeeper-db.service")
            self.machine.run("systemctl", "start", "moatkeeper-db.service")
            self.machine.waitFor(UNIT)


def copyPackages(machine):
    """The package as it is built here, and the same with a higher version: their paths on the machine."""
    first = packages.of(BUILD)["moatkeeper"]
    second = packages.withVersion(first, tempfile.mkdtemp(prefix="packages."), "+next")
    inside = machine.path("/tmp")
    return ["/tmp/" + shutil.copy(package, inside).rpartition("/")[2] for package in (first, second)]


if __name__ == "__main__":
    CMAKE, BUILD = sys.argv[1:3]
    BUILD = os.path.realpath(BUILD)
    MACHINE = service_manager.enter(CMAKE, BUILD)
    try:
        unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
    finally:
        MACHINE.close()
