"""What gets installed, by cmake --install and as a Debian package, is complete and runs.

usage: package_test.py CMAKE BUILD_FOLDER PREFIX
"""

import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

CMAKE, BUILD, PREFIX = sys.argv[1:4]
FILES = ("sbin/moatkeeper", "share/moatkeeper/moatkeeper.ovsschema", "share/man/man8/moatkeeper.8",
         "lib/systemd/system/moatkeeper.service", "lib/systemd/system/moatkeeper-db.service",
         "lib/systemd/system/moatkeeper-db-create.service", "sbin/moatkeeper-db-prepare",
         "lib/tmpfiles.d/moatkeeper.conf", "share/moatkeeper/moatkeeper.default")


def run(*command, **settings):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=100,
                          check=False, **settings)


class Installed(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.root = self.folder / "root"

    def assertWorks(self):
        prefix = self.root / PREFIX.lstrip("/")
        for name in FILES:
            self.assertTrue((prefix / name).is_file(), f"{name} is missing")

        done = run(prefix / "sbin/moatkeeper", "-h")
        self.assertEqual((done.returncode, done.stderr.splitlines()[1:2]), (0, [" Options:"]), done.stderr)

        schema = prefix / "share/moatkeeper/moatkeeper.ovsschema"
        done = run("ovsdb-tool", "create", self.folder / "new.db", schema)
        self.assertEqual(done.returncode, 0, done.stderr)

        # The units name the files where they were installed.
        for unit in (prefix / "lib/systemd/system").glob("*.service"):
            text = unit.read_text(encoding="utf-8")
            self.assertNotIn("@", text, unit.name)
            for word in text.split():
                if word.startswith(PREFIX + "/") and "moatkeeper" in word:
                    self.assertTrue((self.root / word.lstrip("/")).is_file(), f"{unit.name}: {word}")

    def testInstall(self):
        done = run("env", f"DESTDIR={self.root}", CMAKE, "--install", BUILD)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertWorks()

    @unittest.skipUnless(shutil.which("dpkg-deb"), "no dpkg-deb")
    def testDebianPackage(self):
        cpack = pathlib.Path(CMAKE).with_name("cpack")
        done = run(cpack, "--config", f"{BUILD}/CPackConfig.cmake", "-G", "DEB", "-B", self.folder)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        packages = list(self.folder.glob("*.deb"))
        self.assertEqual(len(packages), 1, packages)
        self.assertEqual(run("dpkg-deb", "-x", packages[0], self.root).returncode, 0)
        self.assertWorks()
        depends = run("dpkg-deb", "-f", packages[0], "Depends").stdout
        for package in ("libc6", "libmnl0", "libstdc++6"):
            self.assertIn(package, depends)
        self.assertEqual(run("dpkg-deb", "-f", packages[0], "Recommends").stdout.split(),
                         ["ebtables,", "openvswitch-common"])


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1], verbosity=2)
