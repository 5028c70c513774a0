"""For tests with a configuration server: the real ovsdb-server, one that misbehaves, and processes under test."""

import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

SCHEMA = pathlib.Path(__file__).resolve().parents[2] / "schema" / "moatkeeper.ovsschema"


def wait_until(what, condition, seconds=10):
    """Polls until the condition gives something true and returns that."""
    deadline = time.monotonic() + seconds
    while True:
        result = condition()
        if result:
            return result
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.01)


class Server:
    """The real ovsdb-server on a socket in the folder."""

    def __init__(self, folder, name="server", socket_path=None):
        self.folder = pathlib.Path(folder)
        self.socket = str(socket_path or self.folder / "config.sock")
        self.database = self.folder / f"{name}.db"
        self.process = None

    def create_database(self, schema=SCHEMA):
        subprocess.run(["ovsdb-tool", "create", self.database, schema], check=True)

    def start(self):
        if not self.database.exists():
            self.create_database()
        self.process = subprocess.Popen(
            ["ovsdb-server", "--no-chdir", f"--remote=punix:{self.socket}",
             f"--unixctl={self.folder}/ctl", str(self.database)],
            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        wait_until("ovsdb-server accepts connections", self._accepts)
        return self

    def _accepts(self):
        try:
            with socket.socket(socket.AF_UNIX) as s:
                s.connect(self.socket)
            return True
        except OSError:
            return False

    def stop(self, how=signal.SIGTERM):
        if self.process is not None:
            self.process.send_signal(how)
            self.process.wait(10)
            self.process = None

    def transact(self, *operations):
        """Runs one transaction; raises AssertionError with the server's answer when it was refused."""
        text = json.dumps(["moatkeeper", *operations])
        done = subprocess.run(["ovsdb-client", "transact", f"unix:{self.socket}", text],
                              check=True, stdout=subprocess.PIPE, text=True, timeout=10)
        result = json.loads(done.stdout)
        if any(entry and "error" in entry for entry in result):
            raise AssertionError(f"refused: {result}")
        return result


def insert(table, **columns):
    return {"op": "insert", "table": table, "row": columns}


def rule(number, **columns):
    return insert("MoatKeeperRuleset", **{"Id": number, "RulePrio": 10, "InInterface": "eth0", "Target": "DROP",
                                          **columns})


class Process:
    """A process under test, its output collected by line as it comes."""

    def __init__(self, *command, **options):
        self.lines = []
        self.process = subprocess.Popen([str(c) for c in command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                                        text=True, errors="replace", bufsize=1, **options)
        self._reader = threading.Thread(target=self._read, daemon=True)
        self._reader.start()

    def _read(self):
        for line in self.process.stdout:
            self.lines.append(line.rstrip("\n"))

    @property
    def pid(self):
        return self.process.pid

    def matching(self, pattern, start=0):
        return [line for line in list(self.lines)[start:] if re.search(pattern, line)]

    def wait_for(self, pattern, count=1, start=0, seconds=10):
        """Waits for that many lines from line number start on, and returns them."""
        try:
            return wait_until(pattern, lambda: (m := self.matching(pattern, start)) and len(m) >= count and m, seconds)
        except AssertionError as error:
            raise AssertionError(f"{error}; output:\n" + "\n".join(self.lines)) from None

    def peak_memory_kb(self):
        return int(re.search(r"VmHWM:\s+(\d+)", pathlib.Path(f"/proc/{self.pid}/status").read_text())[1])

    def stop(self, how=signal.SIGTERM, seconds=10):
        """Returns the exit status."""
        if self.process.poll() is None:
            self.process.send_signal(how)
        try:
            status = self.process.wait(seconds)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            raise AssertionError(f"still running {seconds} s after signal {how}") from None
        self._reader.join(5)
        self.process.stdout.close()
        return status


class FakeServer:
    """A server whose every connection is handled by the next of the given functions (the last one for all others);
    each gets the connection's Peer. What a handler function raises besides a closed connection is kept in errors."""

    def __init__(self, path, *handlers):
        self.path = str(path)
        self.handlers = list(handlers)
        self.connections = 0
        self.errors = []
        self._open = []
        self._listener = socket.socket(socket.AF_UNIX)
        self._listener.bind(self.path)
        self._listener.listen(8)
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                connection, _ = self._listener.accept()
            except OSError:
                return
            self._open.append(connection)
            handler = self.handlers[min(self.connections, len(self.handlers) - 1)]
            self.connections += 1
            threading.Thread(target=self._handle, args=(handler, connection), daemon=True).start()

    def _handle(self, handler, connection):
        try:
            handler(Peer(connection))
            while connection.recv(4096):  # until the peer closes
                pass
        except (OSError, EOFError):
            pass
        except Exception as error:  # noqa: BLE001 - shown by the test
            self.errors.append(repr(error))
        finally:
            connection.close()

    def close(self):
        self._listener.shutdown(socket.SHUT_RDWR)
        self._listener.close()
        for connection in self._open:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass
        os.unlink(self.path)


class Peer:
    """The server's end of one connection, speaking JSON-RPC."""

    def __init__(self, connection):
        self.connection = connection
        self.text = ""

    def send(self, message):
        data = message if isinstance(message, (bytes, bytearray)) else json.dumps(message).encode()
        self.connection.sendall(data)

    def receive(self):
        decoder = json.JSONDecoder()
        while True:
            try:
                message, end = decoder.raw_decode(self.text)
                self.text = self.text[end:].lstrip()
                return message
            except json.JSONDecodeError:
                data = self.connection.recv(65536)
                if not data:
                    raise EOFError from None
                self.text += data.decode()

    def reply(self, request, result):
        self.send({"id": request["id"], "result": result, "error": None})

    def refuse(self, request, error="unknown method"):
        self.send({"id": request["id"], "result": None, "error": {"error": error, "details": "in a test"}})

    def expect(self, method):
        request = self.receive()
        assert request["method"] == method, request
        return request

    def answer_schema(self):
        self.reply(self.expect("get_schema"), json.loads(SCHEMA.read_text()))

    def serve(self, tables):
        """Plays an old server up to the first state; tables as in the answer to "monitor"."""
        self.answer_schema()
        self.refuse(self.expect("monitor_cond_since"))
        self.refuse(self.expect("monitor_cond"))
        self.reply(self.expect("monitor"), tables)

    def serve_since(self, tables, found=False):
        """Plays a current server up to the first state; tables as in "update2"."""
        self.answer_schema()
        request = self.expect("monitor_cond_since")
        self.reply(request, [found, "11111111-1111-1111-1111-111111111111", tables])
        return request

    def update(self, tables):
        self.send({"id": None, "method": "update", "params": ["moatkeeper", tables]})

    def update3(self, tables):
        self.send({"id": None, "method": "update3",
                   "params": ["moatkeeper", "22222222-2222-2222-2222-222222222222", tables]})


class TestFolder(unittest.TestCase):
    """Gives each test a folder of its own and stops what it started."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="moatkeeper-test-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.socket = self.folder / "config.sock"


def main():
    """Runs the tests named on the command line (all: none). Status 77 when every one of them was skipped."""
    program = unittest.main(exit=False, argv=[sys.argv[0], *sys.argv[1:]], verbosity=2)
    result = program.result
    if not result.wasSuccessful() or result.testsRun == 0:
        sys.exit(1)
    sys.exit(77 if len(result.skipped) == result.testsRun else 0)
