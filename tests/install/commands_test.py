"""The commands that the documents show can be run as they are written there; commands.txt says who runs which.

usage: commands_test.py BUILD_FOLDER PREFIX
"""

import os
import pathlib
import re
import signal
import subprocess
import sys
import unittest

from lab import programs, sandbox, waiting

SOURCES = pathlib.Path(__file__).resolve().parents[2]
SERVER_PID = "/run/moatkeeper-db.pid"
WAYS = ("test", "starts", "fresh", "slow", "ci", "nobody")
BUILD, PREFIX = os.path.realpath(sys.argv[1]), sys.argv[2]
CLONE = "/tmp/clone"
# What a command must show; of all others the exit status counts.
SHOWS = {"ebtables-save": ":FORWARD DROP", "moatctl --help": "global", "ovsdb-client": '"count":1'}


def readTable():
    """(way, command) of each line; what is behind a # is a reason."""
    for line in pathlib.Path(__file__).with_name("commands.txt").read_text(encoding="utf-8").splitlines():
        if line and not line.startswith("#"):
            way, command = line.split(maxsplit=1)
            yield way, command.partition("    #")[0]


def inBlocks(name):
    """The commands of a document's blocks, a line each or continued with a backslash."""
    blocks = re.findall(r"```sh\n(.*?)```", (SOURCES / name).read_text(encoding="utf-8"), re.DOTALL)
    for line in "".join(blocks).replace("\\\n", " ").splitlines():
        command = " ".join(re.sub(r"\s+# .*", "", line).split())
        if command:
            yield command


def inText(name):
    """The commands between backticks in a document's other text."""
    rest = re.sub(r"```.*?```", "", (SOURCES / name).read_text(encoding="utf-8"), flags=re.DOTALL)
    for words in re.findall(r"`([^`]+)`", rest):
        if re.match(r"(\./|tools/|bench/.*\.py |(cmake|ctest|bash|man|systemctl|moatctl|ebtables\S*|ovsdb-\S+) |[A-Z_]+=\S* )",
                    words):
            yield " ".join(words.split())


class Documents(unittest.TestCase):
    def testEveryCommandIsRunBySomebody(self):
        shown = {*inBlocks("README.md"), *inText("README.md"), *inBlocks("CONTRIBUTING.md"), *inText("CONTRIBUTING.md"),
                 *inBlocks("docs/performance.md")}
        table = dict((command, way) for way, command in readTable())
        self.assertGreater(len(shown), 20)
        self.assertEqual(shown - set(table), set(), "shown, but not in commands.txt")
        self.assertEqual(set(table) - shown, set(), "in commands.txt, but no document shows it")
        self.assertEqual(set(table.values()) - set(WAYS), set())

    def testCiRunsItsPart(self):
        script = (SOURCES / ".ci/run").read_text(encoding="utf-8")
        for way, command in readTable():
            if way == "ci":
                self.assertIn(command, script)


class Commands(unittest.TestCase):
    """In a clone where the build of these tests is build/release, with folders of its own for what gets installed."""

    def setUp(self):
        if PREFIX != "/usr/local":
            self.skipTest(f"this build is for {PREFIX}, the README's for /usr/local")
        for folder in ("/usr/local", "/var/lib"):
            subprocess.run(["mount", "-t", "tmpfs", "tmpfs", folder], check=True)
        os.makedirs(f"{CLONE}/build")
        os.symlink(BUILD, f"{CLONE}/build/release")
        for entry in SOURCES.iterdir():
            if entry.name != "build":
                os.symlink(entry, f"{CLONE}/{entry.name}")
        self.started = []
        self.addCleanup(lambda: [program.stop() for program in self.started])
        self.addCleanup(self.stopServer)

    @staticmethod
    def stopServer():
        """The database server has gone into the background by itself."""
        if os.path.exists(SERVER_PID):
            os.kill(int(pathlib.Path(SERVER_PID).read_text(encoding="ascii")), signal.SIGTERM)
            waiting.until(lambda: not os.path.exists(SERVER_PID), "the server's end")

    def testOneAfterTheOther(self):
        for way, command in readTable():
            if way == "test":
                self.run_(command)
            elif way == "starts":
                log = f"/tmp/{len(self.started)}.log"
                self.started.append(programs.Program(["sh", "-c", f"cd {CLONE} && exec {command}"], log))
        for program in reversed(self.started):
            self.assertEqual(program.stop(), 0, program.readLog())
        self.started = []

    def run_(self, command):
        wanted = next((text for start, text in SHOWS.items() if command.startswith(start)), "")
        done = None

        def works():
            nonlocal done
            done = subprocess.run(["sh", "-c", command], cwd=CLONE, capture_output=True, text=True, timeout=60,
                                  check=False)
            return done.returncode == 0 and wanted in done.stdout

        # A daemon that has just been started takes a moment, so what is only shown may be asked for again.
        if wanted:
            waiting.until(works, lambda: f"{command}: {done.stdout}{done.stderr}")
        else:
            self.assertTrue(works(), f"{command}: {done.stdout}{done.stderr}")


if __name__ == "__main__":
    sys.argv[0] = os.path.realpath(sys.argv[0])
    reason = None
    try:
        sandbox.enter(BUILD)
    except sandbox.Unavailable as error:
        print(f"skipped: commands_test.py: Commands: {error}", file=sys.stderr)
        Commands = unittest.skip("no sandbox")(Commands)
    unittest.main(argv=sys.argv[:1], verbosity=2)
