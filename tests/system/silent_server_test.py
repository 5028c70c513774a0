"""What is loaded into a device's relay: a server that is gone without a word is left, whether or not it owes an answer, and one
that only has nothing to say is not.

usage: silent_server_test.py LIBRARY
"""

import errno
import os
import pathlib
import socket
import subprocess
import sys
import unittest

from lab import sandbox, waiting

# Says by which port it is connected, sends the lines that it is given, and says in the end why it is connected no more.
CLIENT = """
import socket, sys
client = socket.create_connection(sys.argv[1:])
print(client.getsockname()[1], flush=True)
for line in sys.stdin.buffer:
    client.send(line)
try:
    print(client.recv(1))
except OSError as error:
    print(error.errno)
"""
CUT = """table inet cut {
    chain input { type filter hook input priority 0; tcp dport %(port)d drop; tcp sport %(port)d drop; }
}"""


class SilentServer(unittest.TestCase):
    address, family = "127.0.0.1", socket.AF_INET

    def setUp(self):
        self.server = socket.create_server((self.address, 0), family=self.family)
        self.addCleanup(self.server.close)
        self.client = subprocess.Popen(
            [sys.executable, "-c", CLIENT, self.address, str(self.server.getsockname()[1])], stdin=subprocess.PIPE,
            stdout=subprocess.PIPE, text=True, env={**os.environ, "LD_PRELOAD": LIBRARY}, preexec_fn=sandbox.dieWithParent)
        self.addCleanup(self.end)
        self.connection, _ = self.server.accept()
        self.addCleanup(self.connection.close)
        self.port = int(self.client.stdout.readline())

    def end(self):
        with self.client:
            self.client.kill()

    def cut(self):
        subprocess.run(["nft", "-f", "-"], input=CUT % {"port": self.port}, text=True, check=True)
        self.addCleanup(subprocess.run, ["nft", "delete", "table", "inet", "cut"], check=True)

    def timer(self):
        """What the kernel waits for at the client's end."""
        return subprocess.run(["ss", "-Htno", f"sport = :{self.port}"], capture_output=True, text=True, check=True).stdout

    def assertEnds(self, how):
        self.client.stdin.close()
        waiting.until(lambda: self.client.poll() is not None, self.timer, 30)
        self.assertEqual(self.client.stdout.read().strip(), how)

    def testThatOwesNothingIsLeft(self):
        self.cut()
        self.assertEnds(str(errno.ETIMEDOUT))

    def testThatOwesAnAnswerIsLeft(self):
        self.cut()
        self.client.stdin.write("are you there?\n")
        self.client.stdin.flush()
        waiting.until(lambda: "timer:(on" in self.timer(), self.timer)
        self.assertEnds(str(errno.ETIMEDOUT))

    def testThatHasNothingToSayIsKept(self):
        """Its kernel answers each time that it is asked."""
        before = timesAsked()
        waiting.until(lambda: timesAsked() >= before + 4, self.timer, 30)
        self.connection.send(b"x")
        self.assertEnds("b'x'")


class SilentServer6(SilentServer):
    address, family = "::1", socket.AF_INET6


def timesAsked():
    """Of all connections in this namespace."""
    names, values = pathlib.Path("/proc/net/netstat").read_text(encoding="ascii").splitlines()[:2]
    return int(dict(zip(names.split(), values.split()))["TCPKeepAlive"])


if __name__ == "__main__":
    sandbox.enterNetwork()
    LIBRARY = sys.argv.pop(1)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    unittest.main(verbosity=2)
