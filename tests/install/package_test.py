"""What gets installed, by cmake --install and as Debian packages, is complete and runs; two builds give the same packages.

usage: package_test.py CMAKE BUILD_FOLDER PREFIX [unittest arguments]
MOATKEEPER_REBUILD=1: the last commit is built once more, in a clone, and must give the same packages; takes minutes.
"""

import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest

from lab import packages, programs

CMAKE, BUILD, PREFIX = sys.argv[1:4]
SOURCES = pathlib.Path(__file__).resolve().parents[2]
DAEMON = ("sbin/moatkeeper", "sbin/moatkeeper-db-prepare", "share/moatkeeper/moatkeeper.ovsschema",
          "lib/systemd/system/moatkeeper.service", "lib/systemd/system/moatkeeper-db.service",
          "lib/systemd/system/moatkeeper-db-create.service", "lib/tmpfiles.d/moatkeeper.conf",
          "lib/moatkeeper/moatkeeper-relay.so")
MODULE = "lib/moatkeeper/moatkeeper-compiled.so"
TOOLS = ("bin/moatctl", "share/bash-completion/completions/moatctl",
         "lib/systemd/system/moatkeeper-metrics.service", "lib/systemd/system/moatkeeper-metrics.timer")
LIBRARY = ("include/moatkeeper/platform/notification_handler.hpp", "include/moatkeeper/daemon/run.hpp",
           "lib/cmake/moatkeeper/moatkeeperConfig.cmake", "lib/libmoatkeeper_daemon.a")
PAGES = {"moatkeeper": ("share/man/man8/moatkeeper.8", "share/man/man8/moatkeeper-db.8",
                        "share/man/man5/moatkeeper-tables.5"),
         "moatkeeper-compiled": (),
         "moatkeeper-tools": ("share/man/man8/moatctl.8",),
         "moatkeeper-dev": ()}


def run(*command, **settings):
    return subprocess.run([str(word) for word in command], capture_output=True, text=True, timeout=1000,
                          check=False, **settings)


def makePackages(folder, build=BUILD, sources=SOURCES, **environment):
    """The packages once more, in the folder."""
    done = run(f"{sources}/tools/packages.sh", "--from", build, folder, env={**os.environ, **environment})
    if done.returncode != 0:
        raise AssertionError(done.stdout + done.stderr)


class Installed(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.root = self.folder / "root"

    def assertWorks(self, prefix, files):
        place = self.root / prefix.lstrip("/")
        for name in files:
            self.assertTrue((place / name).is_file(), f"{name} is missing")

        done = run(place / "sbin/moatkeeper", "-h")
        self.assertEqual((done.returncode, done.stderr.splitlines()[1:2]), (0, [" Options:"]), done.stderr)
        self.assertEqual(run(place / "bin/moatctl", "--help").returncode, 0)

        schema = place / "share/moatkeeper/moatkeeper.ovsschema"
        done = run("ovsdb-tool", "create", self.folder / "new.db", schema)
        self.assertEqual(done.returncode, 0, done.stderr)

        # Units and scripts name the files where they were installed.
        for file in (*(place / "lib/systemd/system").glob("*.service"), place / "sbin/moatkeeper-db-prepare"):
            text = file.read_text(encoding="utf-8")
            self.assertNotRegex(text, "@[A-Z_]+@", file.name)
            for word in text.replace("=", " ").replace("}", " ").split():
                if word.lstrip("+-").startswith(prefix + "/") and "moatkeeper" in word:
                    self.assertTrue((self.root / word.lstrip("+-/")).is_file(), f"{file.name}: {word}")

    def testInstall(self):
        done = run("env", f"DESTDIR={self.root}", CMAKE, "--install", BUILD)
        self.assertEqual(done.returncode, 0, done.stderr)
        pages = [page for pages in PAGES.values() for page in pages]
        self.assertWorks(PREFIX, (*DAEMON, MODULE, *TOOLS, *LIBRARY, *pages, "share/moatkeeper/moatkeeper.default"))

    def testPackages(self):
        self.root.mkdir()
        (self.root / "usr/lib").mkdir(parents=True)
        os.symlink("usr/lib", self.root / "lib")  # as Debian has it
        files = {"moatkeeper": DAEMON, "moatkeeper-compiled": (MODULE,), "moatkeeper-tools": TOOLS, "moatkeeper-dev": LIBRARY}
        for name, package in packages.of(BUILD).items():
            there = {line.split()[-1].removeprefix("./").removeprefix("usr/") for line in
                     run("dpkg-deb", "--contents", package).stdout.splitlines()}
            for file in (*files[name], *(f"{page}.gz" for page in PAGES[name])):
                self.assertIn(file, there, name)
            self.assertIn(f"share/doc/{name}/copyright", there)
            self.assertEqual(run("dpkg-deb", "--extract", package, self.root).returncode, 0)
        self.assertWorks("/usr", ())
        self.assertTrue((self.root / "etc/default/moatkeeper").is_file())

    def testTheExampleOfAPlatform(self):
        """With nothing but the package moatkeeper-dev, as its README says."""
        self.assertEqual(run("dpkg-deb", "--extract", packages.of(BUILD)["moatkeeper-dev"], self.root).returncode, 0)
        example = self.folder / "example"
        shutil.copytree(self.root / "usr/share/doc/moatkeeper-dev/examples/platform", example)
        for command in ((CMAKE, "-G", "Ninja", "-S", ".", "-B", "build", f"-DCMAKE_PREFIX_PATH={self.root}/usr"),
                        (CMAKE, "--build", "build")):
            done = run(*command, cwd=example)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)

        configuration = example / "configuration.txt"
        device = programs.Program([example / "build/printing_moatkeeper", "-p", self.folder], self.folder / "printed",
                                  {"PRINTING_CONFIGURATION": str(configuration)})
        self.addCleanup(device.stop)
        device.waitForLog("ebtables -A UserForwardRules -i lan0 -o lan1 -s 02:00:00:00:00:01 -j ACCEPT\n")
        device.waitForLog("ebtables -P FORWARD DROP\n")
        configuration.write_text('MoatKeeper GlobalForwardingPolicy=', encoding="utf-8")
        os.kill(device.pid, signal.SIGHUP)
        device.waitForLog('configuration:10: expected NAME=NUMBER or NAME="TEXT": GlobalForwardingPolicy=')
        configuration.write_text('MoatKeeper GlobalForwardingPolicy="ACCEPT" GlobalInputPolicy="DROP"', encoding="utf-8")
        os.kill(device.pid, signal.SIGHUP)
        device.waitForLog("ebtables -P INPUT DROP\n")
        self.assertEqual(device.stop(), 0)
        self.assertIn("ebtables -X UserForwardRules\n", device.readLog())

    def field(self, package, name):
        return run("dpkg-deb", "--field", packages.of(BUILD)[package], name).stdout

    def testDependencies(self):
        for name in ("moatkeeper", "moatkeeper-compiled", "moatkeeper-tools"):
            depends = self.field(name, "Depends")
            for package in ("libc6", "libmnl0", "libstdc++6"):
                self.assertIn(package, depends, name)
        self.assertIn("openvswitch-common", self.field("moatkeeper", "Depends"))
        self.assertIn("libssl3", self.field("moatkeeper-tools", "Depends"))
        self.assertNotIn("libssl", self.field("moatkeeper", "Depends"), "the daemon's server is on its own machine")
        everything = "".join(run("dpkg-deb", "--field", package).stdout for package in packages.of(BUILD).values())
        self.assertNotIn("openvswitch-switch", everything)  # would start a switch
        version = next(line.split()[2] for line in (SOURCES / "CMakeLists.txt").read_text(encoding="utf-8").splitlines()
                       if line.startswith("project("))
        self.assertEqual(self.field("moatkeeper", "Version").strip(), version)

    def testLintian(self):
        done = run("lintian", "--fail-on=error,warning", *packages.of(BUILD).values())
        self.assertEqual((done.returncode, done.stdout), (0, ""), done.stderr)
        overrides = [line for file in SOURCES.glob("debian/*.lintian-overrides")
                     for line in file.read_text(encoding="utf-8").splitlines() if line and not line.startswith("#")]
        self.assertLessEqual(len(overrides), 5)

    def assertSame(self, folder):
        for package in packages.of(BUILD).values():
            self.assertEqual(package.read_bytes(), (folder / package.name).read_bytes(), package.name)

    def testPackedTwiceTheyAreTheSame(self):
        before = os.umask(0o077)
        try:
            makePackages(self.folder, TZ="Pacific/Apia", LANG="C", HOME="/nowhere")
        finally:
            os.umask(before)
        self.assertSame(self.folder)
        times = {tuple(line.split()[3:5]) for package in packages.of(BUILD).values()
                 for line in run("dpkg-deb", "--contents", package).stdout.splitlines()}
        self.assertEqual(len(times), 1, "when the sources were checked out shows")

    @unittest.skipUnless(os.environ.get("MOATKEEPER_REBUILD"), "takes minutes; MOATKEEPER_REBUILD=1 does it")
    def testBuiltTwiceTheyAreTheSame(self):
        clone = self.folder / "somewhere/else"
        environment = {**os.environ, "CMAKE_CXX_COMPILER_LAUNCHER": ""}
        for command in (("git", "clone", "--quiet", SOURCES, clone),
                        (CMAKE, "--preset", "release", "-DMOATKEEPER_TESTS=OFF"),
                        (CMAKE, "--build", "--preset", "release", "--target", "moatkeeper_products")):
            done = run(*command, cwd=clone if clone.exists() else None, env=environment)
            self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        makePackages(self.folder, clone / "build/release", clone)
        self.assertSame(self.folder)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]], verbosity=2)
