"""Configuration server and daemon as on a machine with a legacy ebtables, of which there is a stand-in: needs no bridge
and no root."""

import os
import pathlib
import shutil
import signal
import sys
import tempfile
import unittest

from lab import config, programs, sandbox, tool, waiting

# What the daemon makes of an empty configuration, once.
CHAINS = [
    "-N UserInputRules", "-N UserInputPolicy", "-N UserForwardRules", "-N UserForwardPolicy",
    "-P UserInputRules RETURN", "-P UserInputPolicy RETURN",
    "-P UserForwardRules RETURN", "-P UserForwardPolicy RETURN",
    "-A INPUT -j UserInputRules", "-A INPUT -j UserInputPolicy",
    "-A FORWARD -j UserForwardRules", "-A FORWARD -j UserForwardPolicy",
]


class Rehearsal(unittest.TestCase):
    """Each test has a server with empty tables and a tool that works; it starts the daemon itself."""

    maxDiff = None
    daemonBinary = None

    def setUp(self):
        tool.reset()
        shutil.rmtree("/run/moatkeeper", ignore_errors=True)
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.daemon = None
        self.server = None
        self.config = None
        self.addCleanup(self.killAll)
        self.startServer()

    def killAll(self):
        if self.config:
            self.config.close()
        for program in (self.daemon, self.server):
            if program and program.isRunning():
                program.stop(signal.SIGKILL)
        pathlib.Path(programs.SOCKET).unlink(missing_ok=True)

    def startServer(self, database="configuration.db"):
        self.server = programs.startServer(programs.SCHEMA, self.folder, database)
        if self.config:
            self.config.close()
        self.config = config.Config()

    def startDaemon(self, **environment):
        self.daemon = programs.startDaemon(self.daemonBinary, self.folder, **environment)

    def startWith(self, tables):
        """The daemon, and this configuration in force. The global policies accept, unless it says otherwise."""
        main = {"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}
        self.config.replace({config.MAIN: [main], **tables})
        self.startDaemon()
        tool.waitForCommands(len(CHAINS))

    def commits(self):
        return len(self.daemon.matching("^moatkeeper:154:"))

    def waitForCommit(self, change):
        """Makes the change, and returns when the daemon has been told of it and has queued what follows from it. Of
        what the tool is started for, only what came before is sure to be over."""
        before = self.commits()
        change()
        waiting.until(lambda: self.commits() > before, "a commit")

    def assertCommands(self, *wanted):
        """The tool was run with these, one list after the other, and with nothing else."""
        lines = [line for part in wanted for line in part]
        tool.waitForCommands(len(lines), 10 + len(lines) / 20)
        self.assertEqual(tool.commands(), lines, self.daemon.readLog()[-3000:])


def main():
    """Runs the calling script's tests in a sandbox. Its first argument is the daemon's binary."""
    sys.argv[0] = os.path.realpath(sys.argv[0])
    sys.argv[1] = os.path.realpath(sys.argv[1])
    try:
        sandbox.enter(sys.argv[1])
    except sandbox.Unavailable as reason:
        print(f"skipped: {reason}", file=sys.stderr)
        sys.exit(sandbox.SKIPPED)
    tool.install()
    Rehearsal.daemonBinary = sys.argv[1]
    unittest.main(module="__main__", argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
