"""A fleet on this machine: central servers in a cluster with their doors, and devices, each with namespaces, a bridge, a relay
and a daemon of its own. All are real programs that talk by TLS over a network of the calling script's namespace.

    with Fleet(build, folder, devices=10) as fleet:    # in lab.sandbox
        number = fleet.change(operation, ...)          # raises the number of the change with them, and returns it
        waiting.until(lambda: fleet.inForce(number) == 10, "all devices")

The folder must not be below /tmp, which each device has for itself.
"""

import contextlib
import json
import os
import pathlib
import subprocess

from lab import config, sandbox, waiting
from lab.certificates import Authority
from lab.cluster import Cluster
from lab.programs import SOCKET, Program

GROUP = "bench"
DATABASE = f"moatkeeper_{GROUP}"
CENTRE = "10.99.0.1"
DOOR = 6640
PARTS = ("member", "door", "relay", "daemon")
_PROJECT = pathlib.Path(__file__).resolve().parents[2]


def _run(*words):
    subprocess.run([str(word) for word in words], check=True, capture_output=True)


class Device:
    """Its name is the machine's and the certificate's."""

    def __init__(self, fleet, number):
        self.fleet, self.name = fleet, f"device-{number}"
        self.folder = fleet.folder / self.name
        self.folder.mkdir()
        self.identity = fleet.devices.issue(self.name, names=())
        # Holds the namespaces, whatever becomes of the programs in them.
        self._holder = subprocess.Popen(["unshare", "--net", "--mount", "--uts", "--propagation", "private",
                                         "sh", "-c", f"hostname {self.name}; mkdir -p /run/moatkeeper; "
                                         "mount -t tmpfs none /run/moatkeeper; mount -t tmpfs none /tmp; echo; "
                                         "exec sleep infinity"],
                                        stdout=subprocess.PIPE, preexec_fn=sandbox.dieWithParent)
        self._holder.stdout.readline()
        self._link = link = f"d{number}"
        _run("ip", "link", "add", link, "type", "veth", "peer", "name", "eth0", "netns", self._holder.pid)
        _run("ip", "link", "set", link, "master", "centre", "up")
        self.run("sh", "-c", f"ip link set lo up; ip address add 10.99.{1 + number // 200}.{1 + number % 200}/16 dev eth0; "
                 "ip link set eth0 up; ip link add br0 type bridge; ip link set br0 up; ip link add p0 type veth peer name p1; "
                 "ip link set p0 master br0 up")
        self.relay = self.daemon = None
        self.startRelay()
        self.startDaemon()

    def _inside(self, *words):
        return ["nsenter", "-t", str(self._holder.pid), "--net", "--mount", "--uts", "--", *map(str, words)]

    def run(self, *words):
        """A program's output, in the device's namespaces."""
        return subprocess.run(self._inside(*words), check=True, capture_output=True, text=True).stdout

    def startRelay(self):
        self.relay = Program(self._inside(
            "ovsdb-server", "--no-chdir", "-vconsole:warn", "-vsyslog:off", f"--remote=punix:{SOCKET}",
            f"--unixctl={self.folder}/relay.ctl", f"--private-key={self.identity.privateKey}",
            f"--certificate={self.identity.certificate}", f"--ca-cert={self.fleet.servers.certificate}",
            f"relay:{DATABASE}:{self.fleet.doorsEndpoints}"), str(self.folder / "relay.log"))

    def startDaemon(self):
        """As its unit does: the debug output, a line for each rule, would be most of what a change costs."""
        self.daemon = Program(self._inside(self.fleet.build / "daemon/moatkeeper", "-p", self.folder),
                              str(self.folder / "daemon.log"))

    def stop(self):
        for program in (self.daemon, self.relay):
            if program is not None and program.isRunning():
                program.stop()
        _run("ip", "link", "delete", self._link)
        self._holder.kill()
        self._holder.wait()


class Fleet:
    def __init__(self, build, folder, devices, centre=3):
        self.build, self.folder = pathlib.Path(build), pathlib.Path(folder)
        self.servers = Authority(self.folder / "ca", "servers")
        self.devices = Authority(self.folder / "ca", "devices")
        _run("ip", "link", "set", "lo", "up")
        _run("ip", "link", "add", "centre", "type", "bridge")
        _run("ip", "address", "add", f"{CENTRE}/16", "dev", "centre")
        _run("ip", "link", "set", "centre", "up")
        schema = self.folder / "group.ovsschema"
        text = (self.build / "schema/group.ovsschema").read_text(encoding="utf-8")
        schema.write_text(text.replace("moatkeeper_GROUP", DATABASE), encoding="utf-8")
        self.identity = self.servers.issue("centre", names=(f"IP:{CENTRE}",))
        self.centre = Cluster(self.folder / "centre", [schema], count=centre, identity=self.identity, address=CENTRE)
        permissions = json.loads("[" + (self.build / "schema/group.permissions").read_text(encoding="utf-8") + "]")
        with self.member() as member:
            member.transact(config.insert(config.MAIN, GlobalInputPolicy="ACCEPT", GlobalForwardingPolicy="ACCEPT"), *permissions)
        self._number = 0
        self.doors = [None] * centre
        for number in range(centre):
            self.startDoor(number)
        self.doorsEndpoints = ",".join(f"ssl:{CENTRE}:{DOOR + number}" for number in range(centre))
        self.all = [Device(self, number) for number in range(devices)]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def startDoor(self, number):
        """As the centre's unit runs it: the script itself, with other places."""
        place = self.folder / f"door-{number}"
        place.mkdir(exist_ok=True)
        (place / GROUP).mkdir(exist_ok=True)
        for name, target in (("socket", self.centre.file(number, "socket")), ("../server.key", self.identity.privateKey),
                             ("../server.pem", self.identity.certificate)):
            if not (place / GROUP / name).exists():
                os.symlink(target, place / GROUP / name)
        script = (_PROJECT / "packaging/moatkeeper-door.in").read_text(encoding="utf-8")
        for text, other in (("/run/moatkeeper-centre", place), ("/etc/moatkeeper/centre", place),
                            ("@DATADIR@/moatkeeper", _PROJECT / "packaging")):
            script = script.replace(text, str(other))
        (place / "door").write_text(script, encoding="utf-8")
        self.doors[number] = Program(["sh", place / "door", GROUP, "device", f"{CENTRE}:{DOOR + number}",
                                      self.devices.certificate], str(place / "log"))

    def member(self, number=None):
        """A connection to a central server, by root's socket; the leader if none is named."""
        place = self.centre.file(self.centre.leader() if number is None else number, "socket")
        return contextlib.closing(config.Config(place, database=DATABASE))

    def change(self, *operations, member=None):
        """One transaction; its number."""
        self._number += 1
        numbered = config.numbered(self._number, *operations)
        if member is not None:
            member.transact(*numbered)
        else:
            with self.member() as connection:
                connection.transact(*numbered)
        return self._number

    def rows(self, member):
        """What the devices say, by their names."""
        return {row["Name"]: row for row in member.select(config.DEVICE)}

    def processes(self):
        """{part: [pid, ...]}, those of the parts' helpers left out."""
        return {"member": [server.pid for server in self.centre.servers if server.isRunning()],
                "door": [door.pid for door in self.doors if door.isRunning()],
                "relay": [device.relay.pid for device in self.all], "daemon": [device.daemon.pid for device in self.all]}

    def stop(self):
        for device in self.all:
            device.stop()
        for door in self.doors:
            door.stop()
        self.centre.stop()
        _run("ip", "link", "delete", "centre")


def inForce(rows, number):
    """The devices in which this change is in force."""
    return [name for name, row in rows.items() if row["Number"] >= number and row["InStep"]]


def waitForAll(fleet, member, number, seconds=30):
    """Until the change is in force on all devices; what their rows say then."""
    behind = {"op": "select", "table": config.DEVICE, "where": [["Number", "<", number]], "columns": ["Name"]}

    def all_are():
        if member.transact(behind)[0]["rows"]:  # so that asking costs the server next to nothing
            return None
        rows = fleet.rows(member)
        return rows if len(inForce(rows, number)) == len(fleet.all) else None
    return waiting.until(all_are, lambda: f"change {number} on {len(fleet.all)} devices, "
                         f"in force on {len(inForce(fleet.rows(member), number))}", seconds)
