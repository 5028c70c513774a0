"""The guard rail: changes that would cut off the connection by which they are made, with a real client behind the bridge."""

import json
import os
import socket
import subprocess
import sys

from lab import config, machine, waiting
from lab.namespace import Namespace
from lab.sandbox import Unavailable

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
BRIDGE, PORT, SSH_PORT = "br0", "p1", 2222
CLIENT_MAC = "02:00:00:00:00:07"
CLIENTS = {"192.0.2.7": "192.0.2.1", "2001:db8::7": "2001:db8::1"}  # and the address of the bridge
REFUSED = "nothing was changed (--confirm SECONDS lets it go back by itself, --force stores it all the same)"


def ip(*words):
    subprocess.run(["ip", *words], check=True)


class Guard(machine.Machine):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.far = cls.moveFarEnd()
        cls.listeners = [socket.create_server((address, SSH_PORT), family=family)
                         for address, family in (("192.0.2.1", socket.AF_INET), ("2001:db8::1", socket.AF_INET6))]
        for listener in cls.listeners:
            cls.addClassCleanup(listener.close)

    @classmethod
    def moveFarEnd(cls):
        """The client: the far end of p1, in a network namespace of its own."""
        far = Namespace()
        handle = far.start(os.open, "/proc/thread-self/ns/net", os.O_RDONLY).result()
        ip("link", "set", f"{PORT}_far", "netns", f"/proc/{os.getpid()}/fd/{handle}")
        os.close(handle)
        far.run("sh", "-c", "echo 0 > /proc/sys/net/ipv6/conf/all/disable_ipv6")
        far.run("ip", "link", "set", f"{PORT}_far", "address", CLIENT_MAC, "up")
        for name in ("all", BRIDGE):
            with open(f"/proc/sys/net/ipv6/conf/{name}/disable_ipv6", "w", encoding="ascii") as switch:
                switch.write("0")
        ip("link", "set", PORT, "type", "bridge_slave", "learning", "on")
        for client, own in CLIENTS.items():
            length, nodad = ("24", ()) if "." in client else ("64", ("nodad",))
            ip("address", "add", f"{own}/{length}", "dev", BRIDGE, *nodad)
            done = far.run("ip", "address", "add", f"{client}/{length}", "dev", f"{PORT}_far", *nodad)
            if done.returncode != 0:
                raise Unavailable(f"no address for a client: {done.stderr.strip()}")
        return far

    def setUp(self):
        self.config.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}]})
        self.config.transact({"op": "delete", "table": "MoatKeeperTrial", "where": []},
                             {"op": "delete", "table": config.USED_IDS, "where": []})
        waiting.until(lambda: self.canConnect("192.0.2.7"), "a connection of the client", 10)

    def connect(self, client):
        """A connection of the client, as the server sees it."""
        def fromThere():
            family = socket.AF_INET if "." in client else socket.AF_INET6
            with socket.socket(family) as own:
                own.settimeout(0.5)
                own.connect((CLIENTS[client], SSH_PORT))
                return own.getsockname()[1]
        port = self.far.start(fromThere).result()
        return f"{client} {port} {CLIENTS[client]} {SSH_PORT}"

    def canConnect(self, client):
        try:
            self.connect(client)
            return True
        except OSError:
            return False

    def tool(self, connection, *words, stdin=""):
        environment = {**os.environ, "SSH_CONNECTION": connection} if connection else os.environ
        return subprocess.run([MOATCTL, "--timeout", "20", *map(str, words)], env=environment, input=stdin,
                              capture_output=True, text=True, check=False)

    def rows(self):
        return json.loads(self.tool("", "export").stdout)

    def refused(self, connection, pattern, *words, stdin=""):
        before = self.rows()
        done = self.tool(connection, *words, stdin=stdin)
        self.assertEqual(done.returncode, 2, f"{words}: {done.stdout}{done.stderr}")
        self.assertRegex(done.stderr.splitlines()[-1], "^moatctl: this cuts off your own connection, " + pattern)
        self.assertTrue(done.stderr.endswith(REFUSED + "\n"), done.stderr)
        self.assertEqual(self.rows(), before)

    def accepted(self, connection, *words, stdin=""):
        done = self.tool(connection, *words, stdin=stdin)
        self.assertEqual(done.returncode, 0, f"{words}: {done.stdout}{done.stderr}")
        return done.stderr

    def testARuleIsRefusedAndNamed(self):
        for client in CLIENTS:
            with self.subTest(client):
                self.refused(self.connect(client), rf"{client} from {CLIENT_MAC} on port p1: MoatKeeperRuleset Id 1 "
                             r"\(rule 1 of UserInputRules\) drops its frames", "rule", "add", "--in", PORT, "--drop")

    def testAPolicyIsRefusedAndNamed(self):
        connection = self.connect("192.0.2.7")
        self.refused(connection, ".* no rule decides, and the policy of INPUT, MoatKeeper, drops its frames",
                     "global", "set", "--input", "DROP")
        self.refused(connection, ".* MoatKeeperInputPolicy Id 1 .* drops its frames", "policy", "add", "--in", PORT, "--drop")

    def testAddressResolutionIsPartOfTheWay(self):
        for client, name in (("192.0.2.7", "ARP"), ("2001:db8::7", "neighbour discovery")):
            only = (*("rule add --in p1 --accept --proto tcp".split()), "--ethertype", "IPv4" if "." in client else "IPv6")
            with self.subTest(client):
                self.refused(self.connect(client), f".* drops its {name}, without which it ends within minutes",
                             "batch", stdin=" ".join(only) + "\nglobal set --input DROP\n")

    def testSetsOfChangesCountAsAWhole(self):
        connection = self.connect("192.0.2.7")
        both = "global set --input DROP\nrule add --in p1 --accept\n"
        self.assertNotIn("cuts off", self.accepted(connection, "batch", stdin=both))
        self.assertTrue(self.canConnect("192.0.2.7"))
        self.refused(connection, ".* the policy of INPUT", "batch", stdin="rule disable 1\nrule add --in p2 --accept\n")

    def testImportAndUndoAreLookedAt(self):
        connection = self.connect("192.0.2.7")
        closed = json.dumps({"MoatKeeper": [{"GlobalInputPolicy": "DROP"}]})
        for dry in ((), ("--dry-run",)):
            self.refused(connection, ".* the policy of INPUT", "import", "-", *dry, stdin=closed)
        self.accepted(connection, "rule", "add", "--in", PORT, "--accept")
        self.accepted(connection, "global", "set", "--input", "DROP")
        entries = json.loads(self.tool("", "history", "--format=json").stdout)["history"]
        number = next(entry["Number"] for entry in entries if entry["Verb"].endswith("rule add --in p1 --accept"))
        for dry in ((), ("--dry-run",)):
            self.refused(connection, ".* the policy of INPUT", "undo", number, *dry)

    def testForceAndConfirmLetItPass(self):
        connection = self.connect("192.0.2.7")
        said = self.accepted(connection, "rule", "add", "--in", PORT, "--drop", "--confirm", "60")
        self.assertIn("warning: this cuts off your own connection, 192.0.2.7", said)
        self.assertIn("goes back in 60 s", said)
        self.assertFalse(self.canConnect("192.0.2.7"), "it was said to be cut off")
        self.accepted("", "cancel")
        self.assertTrue(self.canConnect("192.0.2.7"))
        self.accepted("", "rule", "add", "--in", PORT, "--drop")
        self.accepted("", "rule", "disable", "2", "--confirm", "60")
        done = self.tool(self.connect("192.0.2.7"), "cancel")
        self.assertEqual(done.returncode, 2)
        self.assertRegex(done.stderr, "cuts off your own connection, .* MoatKeeperRuleset Id 2 .* nothing was changed "
                         r"\(--force does it all the same\)")
        self.accepted("", "confirm")
        said = self.accepted(connection, "rule", "add", "--in", PORT, "--drop", "--force")
        self.assertIn("warning: this cuts off your own connection, 192.0.2.7", said)
        self.assertFalse(self.canConnect("192.0.2.7"))

    def testOnlyWhatTheChangeClosesCounts(self):
        connection = self.connect("192.0.2.7")
        self.assertNotIn("cuts off", self.accepted(connection, "rule", "add", "--in", "p2", "--drop"))
        self.assertNotIn("cuts off", self.accepted(connection, "rule", "add", "--in", PORT, "--drop", "--src", "192.0.2.8"))
        self.accepted("", "rule", "add", "--in", PORT, "--drop", "--ethertype", "IPv4",
                      "--proto", "tcp", "--port", SSH_PORT)
        self.assertNotIn("cuts off", self.accepted(connection, "rule", "add", "--in", PORT, "--drop", "--src", "192.0.2.7"))

    def testNothingHindersWhereNothingIsKnown(self):
        for connection in ("", "127.0.0.1 1 127.0.0.1 22", "192.0.2.99 1 192.0.2.1 22", "198.51.100.1 1 192.0.2.1 22",
                           "not at all", "fe80::7%nowhere 1 fe80::1 22"):
            with self.subTest(connection):
                self.assertNotIn("cuts off", self.accepted(connection, "rule", "add", "--in", PORT, "--drop"))
                self.setUp()


if __name__ == "__main__":
    machine.main()
