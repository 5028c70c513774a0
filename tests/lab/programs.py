"""Programs that a test starts and stops by their process id: the configuration server and the daemon."""

import os
import pathlib
import re
import signal
import socket
import subprocess

from lab import sandbox, waiting

SOCKET = "/tmp/cfgserver.socket"
SCHEMA = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../schema/moatkeeper.ovsschema"))


class Program:
    """One process; its output goes to a file. Killed with the script, should that end without stop()."""

    def __init__(self, arguments, logPath, environment=None, group=False):
        """group: what it has started ends with it when it is stopped."""
        self.logPath, self._group = logPath, group
        with open(logPath, "wb") as log:
            self._process = subprocess.Popen(
                arguments, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                env={**os.environ, **(environment or {})}, start_new_session=group,
                preexec_fn=sandbox.dieWithParent)

    @property
    def pid(self):
        return self._process.pid

    def isRunning(self):
        return self._process.poll() is None

    def stop(self, number=signal.SIGTERM, seconds=10):
        """Sends the signal and waits for the end; the exit status, negative after death by a signal."""
        if self.isRunning():
            if self._group:
                os.killpg(self.pid, number)
            else:
                self._process.send_signal(number)
        try:
            return self._process.wait(seconds)
        except subprocess.TimeoutExpired:
            self._process.kill()
            self._process.wait()
            raise

    def readLog(self):
        with open(self.logPath, encoding="utf-8", errors="replace") as log:
            return log.read()

    def waitForLog(self, text, seconds=waiting.PATIENCE):
        """Returns when the log holds the text; raises TimeoutError with the log's end otherwise."""
        def found():
            if text in self.readLog():
                return True
            if not self.isRunning():
                raise RuntimeError(f"{self.logPath}: ended before it wrote '{text}':\n{self.readLog()[-2000:]}")
            return False
        waiting.until(found, lambda: f"'{text}' in {self.logPath}:\n{self.readLog()[-2000:]}", seconds)

    def matching(self, pattern):
        """The log's lines in which the regular expression is found."""
        return [line for line in self.readLog().splitlines() if re.search(pattern, line)]

    def waitForLines(self, pattern, count=1, seconds=waiting.PATIENCE):
        """Waits until that many lines match, and returns all that do."""
        return waiting.until(lambda: len(lines := self.matching(pattern)) >= count and lines,
                             lambda: f"{count} x '{pattern}' in {self.logPath}:\n{self.readLog()[-2000:]}", seconds)

    def peakMemoryKb(self):
        status = pathlib.Path(f"/proc/{self.pid}/status").read_text(encoding="ascii")
        return int(re.search(r"VmHWM:\s+(\d+)", status)[1])


def startServer(schema, folder, database="configuration.db", socketPath=SOCKET, options=()):
    """A configuration server on socketPath with its database in folder, made from the schema if it is not there.
    options: of ovsdb-server besides, such as --remote=ptcp:6640:127.0.0.1 or another database's file."""
    path = os.path.join(folder, database)
    if not os.path.exists(path):
        subprocess.run(["ovsdb-tool", "create", path, schema], check=True)
    name = os.path.join(folder, pathlib.Path(database).stem)
    server = Program(["ovsdb-server", "-vconsole:warn", "-vsyslog:off", "--no-chdir", f"--remote=punix:{socketPath}",
                      f"--unixctl={name}.ctl", *options, path], f"{name}.log")
    waiting.until(lambda: _isConnected(socketPath) or not server.isRunning(), f"a server on {socketPath}")
    if not server.isRunning():
        raise RuntimeError(f"the configuration server ended: {server.readLog()}")
    return server


def startDaemon(binary, folder, *options, **environment):
    """The daemon in the foreground with its debug output in folder/daemon.log; what the environment has besides."""
    return Program([binary, "-d", "-p", folder, *options], os.path.join(folder, "daemon.log"), environment)


def _isConnected(path):
    with socket.socket(socket.AF_UNIX) as probe:
        return probe.connect_ex(str(path)) == 0
