"""Where the tour takes place: a real bridge in namespaces of its own or, where none can be made, only on paper."""

import contextlib
import io
import json
import os
import subprocess

from lab import kernel, programs, waiting


class Failure(Exception):
    """A step of the tour did not do what it should; the text says what."""


class Bridged:
    """A bridge, a configuration server on the usual socket and the daemon."""

    explainOptions = ()

    def __init__(self, bridge, build, schema, folder):
        self._bridge = bridge
        self._build = build
        self._folder = folder
        self._found = kernel.readTables()
        self._server = programs.startServer(schema, folder)
        self._daemon = None

    def moatctl(self, *arguments):
        return _moatctl(self._build, programs.SOCKET, arguments)

    def before(self):
        return _asLines(self._found)

    def start(self):
        self._daemon = programs.startDaemon(f"{self._build}/daemon/moatkeeper", self._folder)
        self._waitForChange(self._found)
        return _asLines(kernel.readTables())

    def change(self, *arguments):
        """Runs moatctl; returns what the change made of the kernel's tables, a line each with + or -."""
        before = kernel.readTables()
        self.moatctl(*arguments)
        return _difference(before, self._waitForChange(before))

    def send(self, sent):
        return self._bridge.send(*sent)

    def trace(self, options, sent):
        """What moatctl trace says of the frames while they pass."""
        words = [f"{self._build}/moatctl/moatctl", "--server", programs.SOCKET, "trace", *options]
        with subprocess.Popen(words, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True) as tracing:
            for line in tracing.stderr:
                if line == "tracing\n":
                    break
            self._bridge.send(*sent)
            tracing.terminate()
            lines, said = tracing.communicate(timeout=30)
        if tracing.returncode != 0:
            raise Failure(f"moatctl trace ended with status {tracing.returncode}: {said.strip()}")
        return lines.splitlines()

    def stop(self):
        status = self._daemon.stop()
        if status != 0:
            raise Failure(f"the daemon ended with status {status}, expected 0:\n{self._daemon.readLog()[-2000:]}")
        left = kernel.readTables()
        if left != self._found:
            raise Failure("the bridge tables are not as they were found:\n"
                          + "\n".join(_difference(self._found, left)))
        return _asLines(kernel.readTables())

    def readLog(self):
        return self._daemon.readLog()

    def close(self):
        for program in (self._daemon, self._server):
            if program is not None:
                program.stop()

    def _waitForChange(self, before):
        def changed():
            if not self._daemon.isRunning():
                raise Failure(f"the daemon ended:\n{self._daemon.readLog()[-2000:]}")
            return kernel.readTables() != before
        with contextlib.suppress(TimeoutError):
            waiting.until(changed, "the tables")
            # A commit is one transaction: what is there now is all of it.
            return kernel.readTables()
        raise Failure(f"the bridge tables did not change:\n{self._daemon.readLog()[-2000:]}")


class Printed:
    """A configuration server on a socket of its own; the handler's lines are printed, no frame is sent."""

    explainOptions = ("--configured",)  # the kernel has nothing of this

    def __init__(self, build, schema, folder):
        self._printer = None
        self._program = f"{build}/demo/moatkeeper_lines"
        if not os.path.exists(self._program):
            raise Failure(f"{self._program} is missing: the tour on paper needs a build")
        self._build = build
        self._socket = f"{folder}/server.socket"
        self._server = programs.startServer(schema, folder, socketPath=self._socket)

    def moatctl(self, *arguments):
        return _moatctl(self._build, self._socket, ["--no-wait", *arguments])

    def before(self):
        return ["(not looked at)"]

    def start(self):
        self._printer = subprocess.Popen(
            [self._program], stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        return self._commit()

    def change(self, *arguments):
        self.moatctl(*arguments)
        return self._commit()

    def send(self, _):
        return None

    def trace(self, *_):
        return None

    def stop(self):
        self._printer.stdin.close()
        lines = self._printer.stdout.read().splitlines()
        if self._printer.wait() != 0:
            raise Failure(f"the line printer ended with status {self._printer.returncode}, expected 0")
        return lines

    def readLog(self):
        return ""

    def close(self):
        if self._printer is not None and self._printer.poll() is None:
            self._printer.kill()
            self._printer.wait()
        self._server.stop()

    def _commit(self):
        tables = json.loads(self.moatctl("export"))
        text = io.StringIO()
        for table, rows in tables.items():
            for row in rows:
                text.write(f"row\t{table}\n" + "".join(f"{column}\t{value}\n" for column, value in row.items()))
        self._printer.stdin.write(text.getvalue() + "commit\n")
        self._printer.stdin.flush()
        lines = []
        for line in self._printer.stdout:
            if line == "done\n":
                return lines
            lines.append(line.rstrip("\n"))
        raise Failure("the line printer ended early")


def _moatctl(build, socketPath, arguments):
    done = subprocess.run([f"{build}/moatctl/moatctl", "--server", socketPath, *arguments], capture_output=True,
                          text=True, check=False, cwd=os.path.dirname(os.path.realpath(__file__)))
    if done.returncode != 0:
        raise Failure(f"moatctl {' '.join(arguments)} ended with status {done.returncode}: {done.stderr.strip()}")
    return done.stdout


def _asLines(tables):
    return [line for chain, (policy, *rules) in tables.items()
            for line in (f":{chain} {policy}", *(f"-A {chain} {rule}" for rule in rules))]


def _difference(before, after):
    old, new = _asLines(before), _asLines(after)
    return [f"- {line}" for line in old if line not in new] + [f"+ {line}" for line in new if line not in old]
