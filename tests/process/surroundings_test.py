"""The daemon in surroundings that are not as they should be: signals that change nothing for it, standard streams that are
closed or full, a file size limit, other things in its record's place.

usage: surroundings_test.py DAEMON [unittest arguments]
"""

import fcntl
import os
import pathlib
import resource
import signal
import subprocess

from lab import config, rehearsal, sandbox, tool, waiting

HAND_OVER = signal.SIGRTMIN + 1
CHANGE_NOTHING = [signal.SIGHUP, signal.SIGUSR1, signal.SIGUSR2, signal.SIGALRM, signal.SIGVTALRM, signal.SIGPROF,
                signal.SIGPIPE, signal.SIGIO, signal.SIGPWR, signal.SIGSTKFLT, signal.SIGXCPU, signal.SIGXFSZ,
                signal.SIGCHLD, signal.SIGCONT, signal.SIGURG, signal.SIGWINCH,
                *(number for number in range(signal.SIGRTMIN, signal.SIGRTMAX + 1) if number != HAND_OVER)]


def rule(rowId):
    return {"Id": rowId, "RulePrio": rowId, "InInterface": f"p{rowId}", "Target": "DROP"}


class Signals(rehearsal.Rehearsal):
    def sendAll(self):
        for number in CHANGE_NOTHING:
            os.kill(self.daemon.pid, number)

    def testEachChangesNothing(self):
        self.startWith({config.RULES: [rule(1)]})
        for count, number in enumerate(CHANGE_NOTHING, start=2):
            os.kill(self.daemon.pid, number)
            self.config.update(config.RULES, 1, InInterface=f"p{count}")
            tool.waitForCommand(f"-i p{count} ")
            self.assertTrue(self.daemon.isRunning(), f"after signal {number}")
        self.assertEqual(self.daemon.stop(), 0)

    def testBeforeTheLoop(self):
        self.startDaemon()
        self.daemon.waitForLog("Debug mode on")
        self.sendAll()
        tool.waitForCommands(len(rehearsal.CHAINS))
        self.assertEqual(self.daemon.stop(), 0)

    def testWhileTheToolRuns(self):
        self.startWith({})
        tool.waitForCommand("-P FORWARD ACCEPT")
        tool.hang()
        before = len(tool.commands())
        self.config.insert(config.RULES, **rule(1))
        tool.waitForCommands(before + 1)
        self.sendAll()
        self.assertEqual(self.daemon.matching("^queue:1[01]"), self.daemon.matching("^queue:104:"))
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(len(self.daemon.matching("killed because a stop signal came")), 1)


class HandOver(rehearsal.Rehearsal):
    def waitForEnd(self):
        waiting.until(lambda: not self.daemon.isRunning(), "the daemon's end")
        self.assertEqual(self.daemon.stop(), 0)

    def testTheToolIsNotInterruptedAndNothingIsTakenOut(self):
        self.startWith({})
        tool.waitForCommand("-P FORWARD ACCEPT")
        tool.pause()
        before = tool.commands()
        self.config.insert(config.RULES, **rule(1))
        tool.waitForCommands(len(before) + 1)
        os.kill(self.daemon.pid, HAND_OVER)
        tool.goOn()
        self.waitForEnd()
        self.assertEqual(tool.commands(), [*before, "-F UserInputRules", "-F UserForwardRules",
                                           "-A UserInputRules -i p1 -j DROP"])
        self.assertEqual(self.daemon.matching("killed because"), [])

    def testTheNextProcessKnowsWhatIsThere(self):
        self.startWith({})
        tool.waitForCommand("-P FORWARD ACCEPT")
        os.kill(self.daemon.pid, HAND_OVER)
        self.waitForEnd()
        self.startDaemon()
        self.daemon.waitForLines("^queue:106: ")

    def testBeforeThereIsAServer(self):
        self.server.stop()
        self.startDaemon()
        self.daemon.waitForLines("^ovsdb:20: ")
        os.kill(self.daemon.pid, HAND_OVER)
        self.waitForEnd()
        self.assertEqual(tool.commands(), [])

    def testClosedUntilConfigured(self):
        self.server.stop()
        self.startDaemon(MOATKEEPER_UNTIL_CONFIGURED="closed", MOATKEEPER_ALLOWED="lan0")
        closed = ["-N UnconfiguredInput", "-P UnconfiguredInput RETURN", "-N UnconfiguredForward",
                  "-P UnconfiguredForward RETURN", "-N UnconfiguredPorts", "-P UnconfiguredPorts RETURN",
                  "-A UnconfiguredInput -i lan0 -j ACCEPT", "-A UnconfiguredForward -i lan0 -j UnconfiguredPorts",
                  "-A UnconfiguredPorts -o lan0 -j ACCEPT", "-A INPUT -j UnconfiguredInput",
                  "-A FORWARD -j UnconfiguredForward", "-P INPUT DROP", "-P FORWARD DROP"]
        self.assertCommands(closed)
        self.daemon.waitForLines("^start:20: ")
        self.startServer()
        tool.waitForCommand("-A FORWARD -j UserForwardPolicy")
        self.assertEqual(self.daemon.stop(), 0)


class Surroundings(rehearsal.Rehearsal):
    def start(self, prepare, **streams):
        """The daemon, prepare called just before it begins."""
        def inChild():
            sandbox.dieWithParent()
            prepare()

        streams = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, **streams}
        process = subprocess.Popen([self.daemonBinary, "-d", "-p", self.folder], preexec_fn=inChild, **streams)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        return process

    def assertWorksAndStops(self, process):
        tool.waitForCommands(len(rehearsal.CHAINS))
        self.config.insert(config.RULES, **rule(7))
        tool.waitForCommand("-i p7 ")
        process.terminate()
        self.assertEqual(process.wait(20), 0)

    def testClosedStandardStreams(self):
        process = self.start(lambda: os.closerange(0, 3))
        tool.waitForCommands(1)
        for descriptor in range(3):
            self.assertEqual(os.readlink(f"/proc/{process.pid}/fd/{descriptor}"), "/dev/null")
        self.assertWorksAndStops(process)

    def testNobodyReadsStandardError(self):
        end, other = os.pipe()
        os.close(end)
        process = self.start(lambda: None, stdout=other, stderr=other)
        os.close(other)
        self.assertWorksAndStops(process)

    def testStandardErrorIsAFullPipe(self):
        end, other = os.pipe()
        fcntl.fcntl(end, fcntl.F_SETPIPE_SZ, 4096)
        os.write(other, b"x" * 4096)
        process = self.start(lambda: None, stderr=other)
        os.close(other)
        tool.waitForCommands(len(rehearsal.CHAINS))
        os.read(end, 4096)
        self.config.insert(config.RULES, **rule(8))
        tool.waitForCommand("-i p8 ")
        process.terminate()
        self.assertEqual(process.wait(20), 0)
        with open(end, encoding="utf-8") as log:
            self.assertRegex(log.read(), r"(?m)^log:10: \d+ lost: standard error took no line$")

    def testFileSizeLimit(self):
        end, other = os.pipe()
        process = self.start(lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0)), stderr=other)
        os.close(other)
        os.set_blocking(end, False)
        said = b""

        def hasSaid(text):
            nonlocal said
            try:
                said += os.read(end, 65536)
            except BlockingIOError:
                pass
            return text in said

        waiting.until(lambda: hasSaid(b"queue:111: the bridge tables cannot be changed: "), lambda: said.decode())
        process.terminate()
        self.assertEqual(process.wait(20), 0)
        said += os.read(end, 65536)
        self.assertIn(b"was killed by signal 25 (File size limit exceeded)", said, "the stand-in keeps a record, too")
        self.assertEqual(said.count(b"queue:112: cannot write /run/moatkeeper/tables.new: File too large"), 1)
        os.close(end)

    def testFileSizeLimitInTheBackground(self):
        done = subprocess.run([self.daemonBinary, "-b", "-p", self.folder], capture_output=True, text=True, timeout=20,
                              check=False, preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (0, 0)))
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stderr, f"daemonctl:90: PID file {self.folder}/moatkeeper.pid: write: File too large; "
                                      "expected a folder that can be written\n")

    def placeInTheRecord(self, name, make):
        folder = pathlib.Path("/run/moatkeeper")
        folder.mkdir(mode=0o700)
        make(folder / name)
        self.startWith({config.RULES: [rule(1)]})
        self.config.insert(config.RULES, **rule(2))
        tool.waitForCommand("-i p2 ")

    def testPipesInPlaceOfTheRecord(self):
        def make(path):
            os.mkfifo(path, 0o600)
            os.mkfifo(f"{path}.new", 0o600)
        self.placeInTheRecord("tables", make)
        self.assertEqual(self.daemon.stop(), 0)
        self.assertIn("queue:107: the record /run/moatkeeper/tables is ignored: /run/moatkeeper/tables is no file of "
                      "ours", self.daemon.readLog())

    def testAFolderInPlaceOfTheRecord(self):
        self.placeInTheRecord("tables", lambda path: path.mkdir())
        self.assertEqual(self.daemon.stop(), 0)
        self.assertIn("queue:112: cannot replace /run/moatkeeper/tables: ", self.daemon.readLog())

    def testALinkInPlaceOfTheRecord(self):
        other = pathlib.Path(self.folder, "other")
        other.write_text("precious", encoding="utf-8")
        self.placeInTheRecord("tables", lambda path: path.symlink_to(other))
        self.assertFalse(pathlib.Path("/run/moatkeeper/tables").is_symlink())
        self.assertEqual(self.daemon.stop(), 0)
        self.assertEqual(other.read_text(encoding="utf-8"), "precious")

    def testADeviceInPlaceOfTheLock(self):
        self.placeInTheRecord("lock", lambda path: path.symlink_to("/dev/zero"))
        self.assertEqual(self.daemon.stop(), 0)
        self.assertIn("queue:105: /run/moatkeeper/lock is no file of ours", self.daemon.readLog())


if __name__ == "__main__":
    rehearsal.main()
