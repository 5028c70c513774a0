"""The commands that the documents show can be run as they are written there; commands.txt says who runs which.

usage: commands_test.py BUILD_FOLDER PREFIX
"""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import unittest

from lab import programs, sandbox, waiting

SOURCES = pathlib.Path(__file__).resolve().parents[2]
WAYS = ("test", "starts", "fresh", "slow", "long", "cross", "ci", "nobody")
BUILD, PREFIX = os.path.realpath(sys.argv[1]), sys.argv[2]
CLONE = "/tmp/clone"
# What programs must show; of the others the exit status counts.
SHOWN = {"ebtables-save": ":FORWARD DROP", "ovsdb-client": '"count":1'}


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
    """The commands between backticks in a document's other text. A verb alone names a kind of command."""
    rest = re.sub(r"```.*?```", "", (SOURCES / name).read_text(encoding="utf-8"), flags=re.DOTALL)
    for words in re.findall(r"`([^`]+)`", rest):
        if re.match(r"(\./|tools/|bench/.*\.py |[A-Z_]+=\S* |"
                    r"(apt-get|cmake|ctest|bash|man|sysctl|systemctl|moatctl|ebtables\S*|ovsdb-\S+) )",
                    words) and not re.fullmatch(r"(moatctl|systemctl) [a-z][a-z-]*", words):
            yield " ".join(words.split())


class Documents(unittest.TestCase):
    def testEveryCommandIsRunBySomebody(self):
        shown = {command for name in ("README.md", "CONTRIBUTING.md", "docs/performance.md") for command in inBlocks(name)}
        # What stands in the guide's blocks is run by tests/system/guide_test.py, all of it.
        for name in ("README.md", "CONTRIBUTING.md", *(f"docs/{file.name}" for file in (SOURCES / "docs").glob("*.md"))):
            shown |= set(inText(name))
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

    @classmethod
    def setUpClass(cls):
        if PREFIX != "/usr/local":
            raise unittest.SkipTest(f"this build is for {PREFIX}, the README's for /usr/local")
        packages = "/tmp/dpkg"  # what dpkg knows stays in sight
        os.mkdir(packages)
        subprocess.run(["mount", "--bind", "/var/lib/dpkg", packages], check=True)
        for folder in ("/usr/local", "/var/lib"):
            subprocess.run(["mount", "-t", "tmpfs", "tmpfs", folder], check=True)
        os.mkdir("/var/lib/dpkg")
        subprocess.run(["mount", "--bind", packages, "/var/lib/dpkg"], check=True)
        os.makedirs(f"{CLONE}/build")
        os.symlink(BUILD, f"{CLONE}/build/release")
        for entry in SOURCES.iterdir():
            if entry.name != "build":
                os.symlink(entry, f"{CLONE}/{entry.name}")

    def testTheDocuments(self):
        self.play([step for step in readTable() if step[0] in ("test", "starts")], CLONE)

    def testTheManualPages(self):
        """What stands in the pages' examples, a page in a folder of its own."""
        subprocess.run(["cmake", "--install", BUILD], check=True, stdout=subprocess.DEVNULL)
        for name, shown in (("moatkeeper.8", {"ebtables-save": ":UserInputRules"}), ("moatkeeper-db.8", {})):
            with self.subTest(name), tempfile.TemporaryDirectory() as folder:
                os.symlink(SOURCES / "schema/moatkeeper.ovsschema", f"{folder}/moatkeeper.ovsschema")
                steps = [("starts" if command.startswith("moatkeeper -") else "test", command)
                         for command in self.examples(SOURCES / "docs/man" / name)]
                self.assertGreater(len(steps), 2)
                self.play([*steps, *(("test", command) for command in shown)], folder, shown)
                self.doCleanups()

    @staticmethod
    def examples(page):
        text = page.read_text(encoding="utf-8").split(".Sh EXAMPLES")[1]
        for block in re.findall(r"\.Bd -literal.*?\n(.*?)\.Ed", text, re.DOTALL):
            yield from block.replace("\\e\n", " ").splitlines()

    def play(self, steps, folder, shown=SHOWN):
        """Runs the commands of the steps in the folder, as a person would; servers are stopped in the end."""
        started = []
        for way, command in steps:
            for file in re.findall(r"--pidfile=(\S+)", command):
                self.addCleanup(self.stopServer, file)
            if way == "starts":
                log = os.path.join(folder, f"{len(started)}.log")
                started.append(programs.Program(["sh", "-c", f"cd {folder} && exec {command}"], log))
                self.addCleanup(started[-1].stop)
            else:
                self.run_(command, folder, shown.get(command.split()[0], ""))
        for program in started:
            self.assertEqual(program.stop(), 0, program.readLog())

    def run_(self, command, folder, wanted):
        """It ends with 0 and shows what is wanted, for which a daemon that has just been started takes a moment."""
        def run():
            done = subprocess.run(["sh", "-c", command], cwd=folder, capture_output=True, text=True, timeout=60,
                                  check=False)
            self.assertEqual(done.returncode, 0, f"{command}: {done.stdout}{done.stderr}")
            return done.stdout
        output = run()
        if wanted not in output:
            waiting.until(lambda: wanted in run(), lambda: f"'{wanted}' from {command}: {run()}")

    @staticmethod
    def stopServer(pidFile):
        """A server that has gone into the background by itself."""
        if os.path.exists(pidFile):
            with contextlib.suppress(ProcessLookupError, FileNotFoundError):  # it is about to end by itself
                os.kill(int(pathlib.Path(pidFile).read_text(encoding="ascii")), signal.SIGTERM)
            waiting.until(lambda: not os.path.exists(pidFile), "the server's end")


if __name__ == "__main__":
    sys.argv[0] = os.path.realpath(sys.argv[0])
    reason = None
    try:
        sandbox.enter(BUILD)
    except sandbox.Unavailable as error:
        print(f"skipped: commands_test.py: Commands: {error}", file=sys.stderr)
        Commands = unittest.skip("no sandbox")(Commands)
    unittest.main(argv=sys.argv[:1], verbosity=2)
