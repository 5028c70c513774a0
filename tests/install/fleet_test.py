"""The guide for fleets, docs/fleet.md: each of its commands is run as it stands there, on machines of its own with a service
manager each, and what it promises holds.

usage: fleet_test.py CMAKE BUILD_FOLDER [unittest arguments]
"""

import contextlib
import itertools
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

from lab import sandbox, service_manager, waiting

GUIDE = pathlib.Path(__file__).resolve().parents[2] / "docs/fleet.md"
CENTRE, DEVICES = ("centre-1", "centre-2", "centre-3"), ("device-1", "device-2")
ADDRESSES = {"centre-1": "192.0.2.1", "centre-2": "192.0.2.2", "centre-3": "192.0.2.3", "device-1": "192.0.2.11",
             "device-2": "192.0.2.12"}
ADMIN, AUTHORITIES = "192.0.2.100", "/tmp/authorities"
SOCKET, DATABASE = "unix:/run/moatkeeper-centre/office/socket", "moatkeeper_office"
# For a second as much as is taken, of what means nothing; prints how many bytes have arrived then.
FLOOD = """
import fcntl, socket, ssl, struct, sys, termios, time
context = ssl.create_default_context(cafile="servers-ca.pem")
context.load_cert_chain("device-1.pem", "device-1.key")
connection = context.wrap_socket(socket.create_connection((sys.argv[1], 6640), timeout=5), server_hostname=sys.argv[1])
connection.settimeout(0.1)
sent, end = 0, time.monotonic() + 1
while time.monotonic() < end:
    try:
        sent += connection.send(b" " * 16384)
    except TimeoutError:
        pass
print(sent - struct.unpack("i", fcntl.ioctl(connection, termios.TIOCOUTQ, b"    "))[0])
"""


class Fleet(unittest.TestCase):
    """Played in the guide's order; what a chapter says is looked at after its commands."""

    @classmethod
    def setUpClass(cls):
        text = GUIDE.read_text(encoding="utf-8")
        cls.files = re.findall(r"^\| `(\S+)` \| `(\S+-N)` \| `(/\S+)` \|$", text, re.M)
        cls.chapters = {}
        for chapter in text.split("\n## ")[1:]:
            blocks = re.findall(r"```sh\n# ([^\n]*)\n(.*?)```", chapter, re.DOTALL)
            cls.chapters[chapter.partition("\n")[0]] = [(names, commands) for names, commands in blocks]
        cls.played = set()

    def block(self, chapter, number):
        """On the machines that its first line names; what it has shown."""
        names, commands = self.chapters[chapter][number]
        self.played.add((chapter, number))
        return [self.run_(name, commands) for name in re.findall(r"(?:centre|device)-\d|admin", names)]

    def run_(self, name, commands):
        if name != "admin":
            return MACHINES[name].run("sh", "-ec", f"cd /root; {commands}")
        done = subprocess.run(["sh", "-ec", commands], cwd=AUTHORITIES, capture_output=True, text=True, check=False,
                              timeout=60, env={**os.environ, "PATH": f"{BUILD}/moatctl:{os.environ['PATH']}"})
        self.assertEqual(done.returncode, 0, f"{name}: {commands}{done.stdout}{done.stderr}")
        return done.stdout

    def copyFiles(self):
        """As the table says."""
        self.assertEqual(len(self.files), 8)
        for (file, machine, target), number in itertools.product(self.files, "123"):
            source, name = pathlib.Path(AUTHORITIES, file.replace("N", number)), machine.replace("N", number)
            if name in MACHINES:
                self.write(name, target, source.read_text(encoding="ascii"), 0o600 if file.endswith("key") else 0o644)

    @staticmethod
    def write(name, path, text, mode=0o644):
        place = MACHINES[name].path(path)
        place.parent.mkdir(parents=True, exist_ok=True)
        place.write_text(text, encoding="ascii")
        place.chmod(mode)

    def select(self, name, table, server=SOCKET):
        with contextlib.suppress(AssertionError, ValueError, KeyError):
            answer = MACHINES[name].run("ovsdb-client", "--timeout=3", "transact", server, json.dumps(
                [DATABASE, {"op": "select", "table": table, "where": []}]))
            return json.loads(answer)[0]["rows"]
        return []

    def members(self, name):
        shown = MACHINES[name].run("ovs-appctl", "-t", "/run/moatkeeper-centre/office/ctl", "cluster/status", DATABASE)
        return sorted(re.findall(r" at ssl:(192\.0\.2\.\d+):6644\)", shown.split("Servers:")[1]))

    def waitForDevices(self, **columns):
        """Until both have a row with such values, and their kernels have what it says."""
        def are():
            rows = {row["Name"]: row for row in self.select("centre-2", "MoatKeeperDevice")}
            return all(name in rows and columns.items() <= rows[name].items() for name in DEVICES)
        waiting.until(are, lambda: f"{columns}: {self.select('centre-2', 'MoatKeeperDevice')}\n"
                                   f"{MACHINES['device-1'].readOutput()[-3000:]}", 20)

    def waitForPolicy(self, policy):
        for name in DEVICES:
            waiting.until(lambda: f"policy {policy}" in self.forwardChain(name),
                          lambda: f"{policy} in {self.forwardChain(name)}", 20)

    @staticmethod
    def forwardChain(name):
        return MACHINES[name].run("sh", "-c", "nft list chain bridge filter FORWARD 2>&1; true").lower()

    @staticmethod
    def fromDevice(*words):
        """A program of device-1, hostile: its status and output."""
        done = subprocess.run(["nsenter", "--net=/run/netns/device-1", *words], cwd=AUTHORITIES, capture_output=True, text=True,
                              check=False, timeout=20)
        return done.returncode, done.stdout, done.stderr

    def assertFiltered(self):
        """centre-1 has the rules of the packet filter, centre-2 has none."""
        attempt = "import socket, sys; socket.create_connection((sys.argv[1], 6644), timeout=0.5)"
        self.assertNotEqual(self.fromDevice("python3", "-c", attempt, ADDRESSES["centre-1"])[0], 0)
        self.assertEqual(self.fromDevice("python3", "-c", attempt, ADDRESSES["centre-2"])[0], 0)
        arrived = []
        for name in CENTRE[:2]:
            status, shown, errors = self.fromDevice("python3", "-c", FLOOD, ADDRESSES[name])
            self.assertEqual(status, 0, errors)
            arrived.append(int(shown))
        self.assertLess(arrived[0], 3_000_000, "200 kbytes a second, and 2 mbytes at once")
        self.assertGreater(arrived[1], 2 * arrived[0])

    def testAsItStands(self):
        self.block("Certificates", 0)
        self.block("Certificates", 1)
        self.copyFiles()
        for name in ("device-1", "alice", "centre-1"):
            self.assertIn("CA:FALSE", self.run_("admin", f"openssl x509 -in {name}.pem -noout -ext basicConstraints"))

        for number in range(3):
            self.block("The central servers", number)
        shown, = self.block("The central servers", 3)
        self.assertIn("Status: cluster member", shown)
        self.assertEqual(self.members("centre-3"), ["192.0.2.1", "192.0.2.2", "192.0.2.3"])
        self.block("The central servers", 4)
        self.assertFiltered()

        self.block("The devices", 0)
        self.waitForDevices(InStep=1)
        for name in DEVICES:
            self.assertEqual(MACHINES[name].show("moatkeeper-relay", "ActiveState"), "active")

        shown, = self.block("Rule them", 0)
        self.assertIn("DROP", shown)
        self.assertIn("\n2 devices: 2 in force\n", shown)
        self.assertIn("policy drop", self.forwardChain("device-2"))
        self.run_("centre-1", f"ovsdb-client transact {SOCKET} " "'" + json.dumps([DATABASE, {
            "op": "insert", "table": "MoatKeeperDevice", "row": {"Name": "device-9"}}]) + "'")
        self.block("Who may what", 0)
        self.assertEqual({row["Name"] for row in self.select("centre-1", "MoatKeeperDevice")}, set(DEVICES))

        self.block("Backup and restore", 0)
        self.waitForPolicy("drop")

        MACHINES["centre-3"].halt()
        self.waitForPolicy("drop")
        self.block("A server is lost", 0)
        self.assertEqual(self.members("centre-1"), ["192.0.2.1", "192.0.2.2"])
        shutil.rmtree(MACHINES["centre-3"].disk("/var/lib/moatkeeper-centre"))
        MACHINES["centre-3"].boot()
        self.copyFiles()
        self.block("A server is lost", 1)
        self.assertEqual(self.members("centre-3"), ["192.0.2.1", "192.0.2.2", "192.0.2.3"])

        self.block("Upgrade", 0)
        for name in CENTRE:  # a package of another day
            schema = MACHINES[name].path("/usr/share/moatkeeper/group.ovsschema")
            schema.write_text(re.sub(r'"version" : "1\.\d+', '"version" : "1.99', schema.read_text(encoding="utf-8")),
                              encoding="utf-8")
        self.block("Upgrade", 1)
        version = MACHINES["centre-2"].run("ovsdb-client", "get-schema-version", SOCKET, DATABASE)
        self.assertEqual(version.strip()[:4], "1.99")
        self.waitForPolicy("drop")
        self.run_("centre-2", f"ovsdb-client transact {SOCKET} " "'" + json.dumps([DATABASE, {
            "op": "update", "table": "MoatKeeper", "where": [], "row": {"GlobalForwardingPolicy": "ACCEPT"}}]) + "'")
        self.waitForPolicy("accept")

        # All are lost; what the copy has is in force again.
        door = MACHINES["centre-1"].show("moatkeeper-devices@office", "MainPID")
        for name in CENTRE[1:]:
            MACHINES[name].run("systemctl", "stop", "moatkeeper-centre@office")
            shutil.rmtree(MACHINES[name].path("/var/lib/moatkeeper-centre"))
        waiting.until(lambda: MACHINES["centre-1"].show("moatkeeper-devices@office", "MainPID") != door,
                      "the door of a server without a majority to be started anew", 20)
        self.waitForPolicy("accept")
        self.block("Backup and restore", 1)
        self.block("The central servers", 1)
        self.waitForPolicy("drop")

        wanted = {(chapter, number) for chapter, blocks in self.chapters.items() for number in range(len(blocks))}
        self.assertEqual(wanted - self.played, set(), "not run by this test")


def connect(name, address):
    """A network namespace for each machine, on one wire."""
    for words in (f"ip netns add {name}", f"ip link add wire-{name} type veth peer name eth0 netns {name}",
                  f"ip link set wire-{name} master wire up", f"ip -n {name} address add {address}/24 dev eth0",
                  f"ip -n {name} link set eth0 up", f"ip -n {name} link set lo up"):
        subprocess.run(words.split(), check=True)
    return ["nsenter", f"--net=/run/netns/{name}"]


def start(cmake, build):
    for words in ("ip link set lo up", "ip link add wire type bridge", f"ip address add {ADMIN}/24 dev wire",
                  "ip link set wire up"):
        subprocess.run(words.split(), check=True)
    first = None
    for name, address in ADDRESSES.items():
        machine = service_manager.ServiceManager(cmake, build if first is None else None, name=name, installed=first,
                                                 network=connect(name, address))
        first = first or machine
        MACHINES[name] = machine
        wanted = ["moatkeeper.service"] if name in DEVICES else []
        for unit in ("moatkeeper.service", "moatkeeper-relay.service", "moatkeeper-db-create.service",
                     "moatkeeper-db.service", "moatkeeper-centre@.service", "moatkeeper-devices@.service"):
            machine.change(unit, "")
        machine.boot(*wanted)


if __name__ == "__main__":
    sys.argv[0] = os.path.realpath(sys.argv[0])
    BUILD, MACHINES = os.path.realpath(sys.argv[2]), {}
    try:
        sandbox.enter(BUILD)
        os.mkdir(AUTHORITIES)
        start(sys.argv[1], BUILD)
        unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
    except sandbox.Unavailable as error:
        print(f"skipped: fleet_test.py: {error}", file=sys.stderr)
        sys.exit(sandbox.SKIPPED)
    finally:
        for each in MACHINES.values():
            each.close()
