"""What the tests of moatctl share. Each is called as: TEST MOATCTL COMPLETION MANUAL [GROUP ...]"""

import contextlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

from lab.config import Config
from lab.programs import SCHEMA, startServer

MOATCTL, COMPLETION, MANUAL = sys.argv[1:4]

os.environ["SSH_CONNECTION"] = ""  # whoever runs the tests over a bridge must not be in their way

OK, BAD_INPUT, NO_SERVER, CONFLICT, OUTPUT = 0, 2, 3, 4, 5


class Case(unittest.TestCase):
    """Gives each test a folder and a server with empty tables."""

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.socket = self.folder / "config.sock"
        self.start_server()

    def start_server(self, schema=SCHEMA, **options):
        self.server = startServer(schema, self.folder, **{"socketPath": self.socket, **options})
        self.addCleanup(self.server.stop)

    def transact(self, *operations):
        connection = Config(self.socket)
        connection.transact(*operations)
        connection.close()

    def command(self, *words, socket_path=None):
        """No daemon runs here that could put anything in force."""
        return [MOATCTL, "--no-wait", "--server", str(socket_path or self.socket), *map(str, words)]

    def run_tool(self, *words, stdin="", **options):
        return subprocess.run(self.command(*words, **options), input=stdin, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=60)

    def ok(self, *words, stdin=""):
        """Succeeds, with warnings at most: the ports of most tests are none of this machine's."""
        done = self.run_tool(*words, stdin=stdin)
        self.assertEqual(done.returncode, OK, f"{words}: {done.stderr}")
        self.assertRegex(done.stderr, r"\A(warning: .*\n)*\Z", words)
        return done.stdout

    def warnings(self, *words):
        """What a command that succeeds warns of, but for eth0 and others that may or may not be on this machine."""
        done = self.run_tool(*words)
        self.assertEqual(done.returncode, OK, f"{words}: {done.stderr}")
        return [line for line in done.stderr.splitlines() if not re.search(r'"eth\d": this (machine|interface) ', line)]

    def refused(self, status, pattern, *words, stdin=""):
        """Fails with the status, nothing on standard output, one line that matches on standard error."""
        done = self.run_tool(*words, stdin=stdin)
        self.assertEqual(done.returncode, status, f"{words}: {done.stderr}")
        self.assertEqual(done.stdout, "")
        self.assertRegex(done.stderr, pattern)
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)

    def rows(self, word):
        (rows,) = json.loads(self.ok("show", word, "--format=json")).values()
        return rows

    def rule_order(self):
        return [(row["Id"], row["RulePrio"]) for row in self.rows("rule")]


def read_terminal(ours, theirs):
    """All that was written to a terminal whose other users have ended; it comes in pieces. Closes both ends."""
    os.close(theirs)
    text = b""
    with contextlib.suppress(OSError):  # the other end is closed
        while data := os.read(ours, 65536):
            text += data
    os.close(ours)
    return text.decode()


def main():
    unittest.main(module="__main__", argv=[sys.argv[0], *sys.argv[4:]])
