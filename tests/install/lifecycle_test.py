"""The Debian packages on a machine of their own with a service manager: first installation, upgrade with the database of an
older version, removal, a second installation, purge.

usage: lifecycle_test.py BUILD_FOLDER [unittest arguments]
"""

import json
import os
import pathlib
import shutil
import sys
import tempfile
import unittest

from lab import kernel, machine, packages, service_manager, waiting

UNITS = ("moatkeeper.service", "moatkeeper-db.service")
DATABASE = "/var/lib/moatkeeper/moatkeeper.db"
SETTINGS = "/etc/default/moatkeeper"
# What the packages' tools keep for themselves, and the machine.
BOOKS = ("/var/lib/dpkg/", "/var/log/", "/var/cache/", "/etc/group", "/etc/gshadow", "/etc/.pwd.lock")
CLOSED = kernel.expected(FORWARD=("DROP",))


class Lifecycle(unittest.TestCase):
    def setUp(self):
        self.machine = MACHINE
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.packages = packages.of(BUILD)

    def install(self, *files):
        """With dpkg, on a machine that has what they depend on."""
        copies = [shutil.copy(file, self.machine.path("/mnt")) for file in files]
        self.machine.run("dpkg", "--force-unsafe-io", "--force-confold", "--install",
                         *(f"/mnt/{pathlib.Path(copy).name}" for copy in copies))
        for copy in copies:
            os.remove(copy)

    def makeLast(self):
        """A package of the version before, with the schema 1.0."""
        def change(parts):
            machine.writeOldSchema(parts / "usr/share/moatkeeper/moatkeeper.ovsschema")
        old = packages.repack(self.packages["moatkeeper"], self.folder, change)
        return packages.withVersion(old, self.folder, "~last")

    def left(self):
        """What has changed on the machine's disk by now, and what there is of ours in its other places."""
        places = {path for path in self.machine.listChanges() if not path.startswith(BOOKS)}
        for folder in ("/run", "/tmp"):
            places |= {f"{folder}/{name}" for name in os.listdir(self.machine.path(folder)) if "moatkeeper" in name
                       or "cfgserver" in name}
        return places

    def assertRuns(self, runs=True):
        for unit in UNITS:
            self.machine.waitFor(unit, "active" if runs else "inactive")
            self.assertEqual(self.machine.show(unit, "UnitFileState"), "enabled" if runs else "")

    def groups(self):
        return self.machine.path("/etc/group").read_text(encoding="utf-8")

    def version(self):
        return self.machine.run("ovsdb-tool", "db-version", DATABASE).strip()

    def testALife(self):
        self.machine.boot()
        # What this machine may have of ours is none of the other one's.
        self.machine.run("dpkg", "--purge", *self.packages)
        before, groups = self.left(), self.groups()

        self.install(self.makeLast(), self.packages["moatkeeper-tools"])
        self.assertRuns()
        self.assertEqual(self.version(), "1.0.0")
        for unit in ("ovsdb-server", "ovs-vswitchd"):
            self.assertEqual(self.machine.show(unit, "ActiveState"), "inactive", "a switch was started")
        self.machine.run("moatctl", "--no-wait", "global", "set", "--forward", "DROP")
        kernel.waitFor(CLOSED)
        pathlib.Path(self.machine.path(SETTINGS)).write_text("MOATKEEPER_WAIT_SECONDS=20\n", encoding="utf-8")

        process = self.machine.show(UNITS[0], "MainPID")
        self.install(self.packages["moatkeeper"])
        self.assertRuns()
        self.assertNotEqual(self.machine.show(UNITS[0], "MainPID"), process)
        self.assertEqual(self.version(), json.loads(pathlib.Path(machine.SCHEMA).read_text(encoding="utf-8"))["version"])
        self.assertEqual(kernel.readTables(), CLOSED)
        self.assertIn("in force", self.machine.run("moatctl", "status"))
        self.machine.run("moatctl", "global", "set", "--input", "DROP")

        # Without the module, and with it.
        self.machine.run("moatctl", "engine", "compiled")
        self.assertIn("(plain: moatkeeper-compiled.so: cannot open", self.machine.run("moatctl", "status"))
        self.install(self.packages["moatkeeper-compiled"])
        self.machine.run("systemctl", "reload", UNITS[0])
        waiting.until(lambda: "(compiled)" in self.machine.run("moatctl", "status"), "the module to be found")
        self.machine.run("dpkg", "--purge", "moatkeeper-compiled")
        self.machine.run("systemctl", "restart", UNITS[0])
        kernel.waitFor(kernel.expected(INPUT=("DROP",), FORWARD=("DROP",)))
        self.assertNotIn("moatkeeper", self.machine.run("nft", "list", "tables"))

        self.machine.run("dpkg", "--remove", "moatkeeper")
        self.assertRuns(False)
        self.assertEqual(kernel.readTables(), kernel.untouched())
        kept = {path for path in self.left() - before if "moatkeeper" in path}
        self.assertLessEqual({DATABASE, SETTINGS}, kept)
        # The tools are still there.
        usual = ("/etc/", "/var/lib/", "/usr/share/doc/moatkeeper-tools/", "/usr/lib/systemd/system/moatkeeper-metrics.")
        self.assertEqual([path for path in kept if not path.startswith(usual)], [])

        self.install(self.packages["moatkeeper"])
        self.assertRuns()
        kernel.waitFor(kernel.expected(INPUT=("DROP",), FORWARD=("DROP",)))

        self.machine.run("dpkg", "--purge", "moatkeeper", "moatkeeper-tools")
        self.assertEqual(kernel.readTables(), kernel.untouched())
        self.assertEqual(self.left() - before, set(), "left behind")
        self.assertEqual(self.groups(), groups)
        self.assertEqual(self.machine.run("systemctl", "--failed", "--plain", "--no-legend"), "")


if __name__ == "__main__":
    BUILD = os.path.realpath(sys.argv[1])
    MACHINE = service_manager.enter(None, BUILD, installed=False)
    try:
        unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
    finally:
        MACHINE.close()
