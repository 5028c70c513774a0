"""The daemon's command line, exit statuses, PID file, background mode and signals, seen from outside.

usage: daemon_test.py DAEMON SCHEMA [unittest arguments]
MOATKEEPER_SIGNAL_RUNS: how many times the daemon is stopped at a random moment (default 60).
"""

import os
import pathlib
import random
import resource
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

from lab import programs, sandbox, waiting

DAEMON, SCHEMA = sys.argv[1:3]

USAGE = """Usage: romswapd [options]
 Options:
  -h: Print this help
  -b: Start as daemon instead of starting in foreground
  -d: Enable debug output
  -p <filepath>: PID file path (default: /var/run)
"""
REFUSED = "main:104: Another process is already running. Exiting...\n"
EXITING = "main:149: run: exiting\n"
STOP_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGQUIT)
# The permissions of files bind it, as they do an ordinary user.
UNPRIVILEGED = ("setpriv", "--bounding-set=-dac_override,-dac_read_search",
                "--inh-caps=-dac_override,-dac_read_search", DAEMON)


def run(*options, command=(DAEMON,), **settings):
    """Runs the daemon to its end, which must come by itself."""
    return subprocess.run([*command, *options], capture_output=True, text=True, timeout=20, check=False,
                          stdin=subprocess.DEVNULL, **settings)


def commandName(pid):
    try:
        return pathlib.Path(f"/proc/{pid}/comm").read_text(encoding="utf-8").strip()
    except OSError:
        return None


def hasEnded(pid):
    try:
        state = pathlib.Path(f"/proc/{pid}/stat").read_text(encoding="utf-8").rpartition(")")[2].split()[0]
    except OSError:
        return True
    return state == "Z"


def handlesSignals(pid):
    """Whether the process has installed its own handler for SIGTERM."""
    for line in pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8").splitlines():
        if line.startswith("SigCgt:"):
            return int(line.split()[1], 16) >> (signal.SIGTERM - 1) & 1 == 1
    return False


class DaemonTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.pidFile = pathlib.Path(self.folder, "moatkeeper.pid")

    def start(self, *options):
        """A daemon in the foreground that has got as far as waiting for signals."""
        daemon = programs.startDaemon(DAEMON, self.folder, *options)
        self.addCleanup(lambda: daemon.isRunning() and daemon.stop(signal.SIGKILL))
        waiting.until(lambda: handlesSignals(daemon.pid), "signal handlers")
        return daemon

    def startInBackground(self, *options):
        """Its process id, read from the PID file once the starter has left."""
        done = run("-b", "-p", self.folder, *options)
        self.assertEqual(done.returncode, 0, done.stderr)
        pid = int(self.pidFile.read_text(encoding="utf-8"))
        self.addCleanup(lambda: hasEnded(pid) or os.kill(pid, signal.SIGKILL))
        return pid, done

    def assertEnds(self, pid):
        waiting.until(lambda: hasEnded(pid), f"end of process {pid}")


class Options(DaemonTest):
    def assertRun(self, options, status, output, errors):
        done = run(*options)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (status, output, errors))

    def testHelp(self):
        self.assertRun(["-h"], 0, "", USAGE)

    def testHelpAfterOtherOptions(self):
        self.assertRun(["-d", "-b", "-p", "/nowhere", "-h"], 0,
                       "Debug mode on\nDaemonize: 1\nPID file path: /nowhere\n", USAGE)

    def testOptionsAfterHelpAreNotRead(self):
        self.assertRun(["-h", "-d", "-x"], 0, "", USAGE)

    def testUnknownOption(self):
        self.assertRun(["-x"], 1, "", f"{DAEMON}: invalid option -- 'x'\nUnknown option: 63\n{USAGE}")

    def testUnknownOptionAfterOthers(self):
        self.assertRun(["-d", "-x", "-h"], 1, "Debug mode on\n",
                       f"{DAEMON}: invalid option -- 'x'\nUnknown option: 63\n{USAGE}")

    def testLongOptionIsUnknown(self):
        self.assertRun(["--help"], 1, "", f"{DAEMON}: invalid option -- '-'\nUnknown option: 63\n{USAGE}")

    def testMissingArgument(self):
        self.assertRun(["-p"], 1, "", f"{DAEMON}: option requires an argument -- 'p'\nUnknown option: 63\n{USAGE}")

    def testMessagesInTheForeground(self):
        daemon = self.start()
        self.assertEqual(daemon.stop(), 0)
        self.assertTrue(daemon.readLog().startswith(f"Debug mode on\nPID file path: {self.folder}\n"),
                        daemon.readLog())


class PidFile(DaemonTest):
    def testFolderThatDoesNotExist(self):
        for mode in ([], ["-b"]):
            done = run(*mode, "-p", "/nowhere/at/all")
            self.assertEqual(done.returncode, 1)
            self.assertEqual(done.stderr, "daemonctl:10: PID file folder /nowhere/at/all: No such file or directory; "
                                          "expected a folder that exists\n")

    def testFileInPlaceOfTheFolder(self):
        done = run("-b", "-p", SCHEMA)
        self.assertEqual((done.returncode, done.stderr),
                         (1, f"daemonctl:20: PID file folder {SCHEMA}: not a folder\n"))

    def testFolderThatCannotBeWritten(self):
        readOnly = pathlib.Path(self.folder, "read-only")
        readOnly.mkdir()
        subprocess.run(["mount", "-t", "tmpfs", "-o", "ro", "tmpfs", readOnly], check=True)
        self.addCleanup(subprocess.run, ["umount", readOnly], check=True)
        for mode in ([], ["-b"]):
            self.assertRefusesFolder(run(*mode, "-p", str(readOnly)), readOnly, "Read-only file system")

    def testFolderWhosePermissionsForbidWriting(self):
        os.chmod(self.folder, 0o555)
        for mode in ([], ["-b"]):
            done = run(*mode, "-p", self.folder, command=UNPRIVILEGED)
            self.assertRefusesFolder(done, self.folder, "Permission denied")

    def testTheUsualFolderNeedsToBeWritableInTheBackgroundOnly(self):
        os.chmod("/run", 0o555)
        self.addCleanup(os.chmod, "/run", 0o755)
        for options in (["-b"], ["-p", "/run"], ["-b", "-p", "/run"]):
            self.assertRefusesFolder(run(*options, command=UNPRIVILEGED), "/run", "Permission denied")
        daemon = programs.Program(UNPRIVILEGED, os.path.join(self.folder, "daemon.log"))
        self.addCleanup(lambda: daemon.isRunning() and daemon.stop(signal.SIGKILL))
        waiting.until(lambda: handlesSignals(daemon.pid), "signal handlers")
        self.assertEqual(daemon.stop(), 0)

    def assertRefusesFolder(self, done, folder, reason):
        self.assertEqual((done.returncode, done.stderr),
                         (1, f"daemonctl:30: PID file folder {folder}: {reason}; "
                             "expected a folder that can be written\n"))

    def testForegroundWritesNone(self):
        daemon = self.start()
        self.assertFalse(self.pidFile.exists())
        self.assertEqual(daemon.stop(), 0)

    def testForegroundRemovesAStaleOne(self):
        self.pidFile.write_text("999999999\n", encoding="utf-8")
        daemon = self.start()
        self.assertEqual(daemon.stop(), 0)
        self.assertFalse(self.pidFile.exists())

    def testNumberOfAYoungerProcessDoesNotCount(self):
        self.pidFile.write_text(f"{os.getpid()}\n", encoding="utf-8")
        os.utime(self.pidFile, (0, 0))
        pid, _ = self.startInBackground()
        self.assertNotEqual(pid, os.getpid())
        self.assertEqual(commandName(pid), "moatkeeper")

    def testAnotherNameOfTheProgramIsASecondInstanceAllTheSame(self):
        other = shutil.copy(DAEMON, os.path.join(self.folder, "moatkeeper-1.0"))
        self.assertEqual(run("-b", "-p", self.folder, command=(other,)).returncode, 0)
        pid = int(self.pidFile.read_text(encoding="utf-8"))
        self.addCleanup(lambda: hasEnded(pid) or os.kill(pid, signal.SIGKILL))
        self.assertEqual(commandName(pid), "moatkeeper-1.0")
        for mode in ([], ["-b"]):
            done = run(*mode, "-p", self.folder)
            self.assertEqual((done.returncode, done.stderr), (1, REFUSED))
        self.assertEqual(int(self.pidFile.read_text(encoding="utf-8")), pid)
        self.assertFalse(hasEnded(pid))

    def testSecondInstanceIsRefused(self):
        pid, _ = self.startInBackground()
        before = self.pidFile.read_text(encoding="utf-8")
        for mode in ([], ["-b"], ["-d"]):
            done = run(*mode, "-p", self.folder)
            self.assertEqual((done.returncode, done.stderr), (1, REFUSED))
        self.assertEqual(self.pidFile.read_text(encoding="utf-8"), before)
        self.assertFalse(hasEnded(pid))

    def testAnotherFolderIsAnotherInstance(self):
        self.startInBackground()
        with tempfile.TemporaryDirectory() as folder:
            daemon = programs.startDaemon(DAEMON, folder)
            waiting.until(lambda: handlesSignals(daemon.pid), "signal handlers")
            self.assertEqual(daemon.stop(), 0)


class Background(DaemonTest):
    def testTheStarterLeavesWhenTheFileIsThere(self):
        pid, done = self.startInBackground("-b", "-d")
        self.assertEqual(done.stdout, f"Daemonize: 1\nPID file path: {self.folder}\nDaemonize: 1\nDebug mode on\n")
        self.assertEqual(done.stderr, "")
        self.assertEqual(commandName(pid), "moatkeeper")
        self.assertNotEqual(os.getsid(pid), os.getsid(0))
        self.assertEqual(os.readlink(f"/proc/{pid}/cwd"), "/")
        for descriptor in range(3):
            self.assertEqual(os.readlink(f"/proc/{pid}/fd/{descriptor}"), "/dev/null")

    def testStopRemovesTheFile(self):
        for number in STOP_SIGNALS:
            pid, _ = self.startInBackground()
            waiting.until(lambda pid=pid: handlesSignals(pid), "signal handlers")
            os.kill(pid, number)
            self.assertEnds(pid)
            self.assertFalse(self.pidFile.exists())

    def testRelativeFolder(self):
        done = run("-b", "-p", ".", cwd=self.folder)
        self.assertEqual(done.returncode, 0, done.stderr)
        pid = int(self.pidFile.read_text(encoding="utf-8"))
        waiting.until(lambda: handlesSignals(pid), "signal handlers")
        os.kill(pid, signal.SIGTERM)
        self.assertEnds(pid)
        self.assertFalse(self.pidFile.exists())

    def testLogGoesToSyslog(self):
        with socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM) as log:
            log.bind("/dev/log")
            self.addCleanup(os.unlink, "/dev/log")
            log.settimeout(10)
            pid, _ = self.startInBackground()
            waiting.until(lambda: handlesSignals(pid), "signal handlers")
            os.kill(pid, signal.SIGTERM)
            while True:  # the time-out ends it
                line = log.recv(8192).decode()
                if "run: exiting" in line:
                    break
        # Facility daemon (3), severity info (6).
        self.assertRegex(line, rf"^<30>.* moatkeeper\[{pid}\]: main:149: run: exiting$")


class Signals(DaemonTest):
    def testStopSignals(self):
        for number in STOP_SIGNALS:
            daemon = self.start()
            self.assertEqual(daemon.stop(number), 0)
            self.assertEqual(daemon.readLog().count(EXITING), 1, daemon.readLog())

    def testClosedConnectionSignalIsHarmless(self):
        daemon = self.start()
        for _ in range(5):
            os.kill(daemon.pid, signal.SIGPIPE)
        # Standard signals are handled lowest number first, so SIGPIPE (13) is before SIGTERM (15).
        self.assertEqual(daemon.stop(), 0)
        self.assertIn(EXITING, daemon.readLog())

    def testStopAtAnyMoment(self):
        runs = int(os.environ.get("MOATKEEPER_SIGNAL_RUNS", "60"))
        seed = random.SystemRandom().randrange(2 ** 32)
        chance = random.Random(seed)
        server = programs.startServer(SCHEMA, self.folder)
        self.addCleanup(server.stop)
        ended = {}
        for number in range(runs):
            delay = chance.uniform(0, chance.choice((0.005, 0.12)))  # half of them during start-up
            daemon = programs.startDaemon(DAEMON, self.folder)
            time.sleep(delay)  # not a wait for something: the moment is what is tested
            try:
                status = daemon.stop(seconds=10)
            except subprocess.TimeoutExpired:
                self.fail(f"run {number} of seed {seed}: still running 10 s after SIGTERM at {delay * 1000:.1f} ms")
            context = f"run {number} of seed {seed}, SIGTERM at {delay * 1000:.1f} ms:\n{daemon.readLog()}"
            self.assertIn(status, (0, -signal.SIGTERM), context)
            self.assertEqual(EXITING in daemon.readLog(), status == 0, context)
            ended[status] = ended.get(status, 0) + 1
        print(f"{runs} runs: {ended.get(0, 0)} ended with status 0, "
              f"{ended.get(-signal.SIGTERM, 0)} by the signal before its handler was there", file=sys.stderr)
        self.assertGreater(ended.get(0, 0), 0)
        tables = subprocess.run(["ebtables-save"], capture_output=True, text=True, timeout=20, check=False)
        self.assertNotIn("User", tables.stdout)


def privateDevices():
    """A /dev of our own, so that a test can be the system's logger."""
    os.makedirs("/tmp/dev")
    mount = ["mount", "-t", "tmpfs", "tmpfs", "/tmp/dev"]
    subprocess.run(mount, check=True)
    for name in ("null", "zero", "random", "urandom"):
        pathlib.Path("/tmp/dev", name).touch()
        subprocess.run(["mount", "--bind", f"/dev/{name}", f"/tmp/dev/{name}"], check=True)
    subprocess.run(["mount", "--move", "/tmp/dev", "/dev"], check=True)


if __name__ == "__main__":
    try:
        sandbox.enter(DAEMON)
    except sandbox.Unavailable as reason:
        print(f"skipped: {reason}")
        sys.exit(sandbox.SKIPPED)
    privateDevices()
    resource.setrlimit(resource.RLIMIT_CORE, (0, 0))  # SIGQUIT before its handler is there
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
