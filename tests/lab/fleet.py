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
ADMINISTRATOR = "10.99.0.100"  # the script's own
ELECTION_MS = 1000  # as a group's database has it
PORTS = {"device": 6640, "administrator": 6641}
PARTS = ("member", "door", "relay", "daemon")
_PROJECT = pathlib.Path(__file__).resolve().parents[2]


def _run(*words):
    subprocess.run([str(word) for word in words], check=True, capture_output=True)


def _ethernet(address):
    return "02:00:" + ":".join(f"{int(part):02x}" for part in address.split("."))


def _neighbours(addresses, device="eth0"):
    """The commands by which they need not be asked for: the machine's table of those that were is soon full."""
    return "; ".join(f"ip neighbour add {each} lladdr {_ethernet(each)} dev {device} nud permanent" for each in addresses)


class Host:
    """A machine on the fleet's network, by namespaces of its own."""

    def __init__(self, link, address, *namespaces, peers=(), setUp=":"):
        """link: what leads to it, in the script's namespace. peers: with which it talks."""
        self.address, self._link = address, link
        # Holds the namespaces, whatever becomes of the programs in them.
        self._holder = subprocess.Popen(["unshare", "--net", *namespaces, "--propagation", "private", "sh", "-c",
                                         f"{setUp}; echo; exec sleep infinity"],
                                        stdout=subprocess.PIPE, preexec_fn=sandbox.dieWithParent)
        with self._holder.stdout as begun:
            begun.readline()
        self._namespaces = ["--net", *namespaces]
        _run("ip", "link", "add", link, "type", "veth", "peer", "name", "eth0", "netns", self._holder.pid)
        _run("ip", "link", "set", link, "master", "centre", "up")
        self.run("sh", "-c", f"ip link set lo up; ip link set eth0 address {_ethernet(address)} up; "
                 f"ip address add {address}/16 dev eth0; {_neighbours([ADMINISTRATOR, *(peer.address for peer in peers)])}")
        _run("sh", "-c", _neighbours([address], "centre"))
        for peer in peers:
            peer.run("sh", "-c", _neighbours([address]))

    @property
    def network(self):
        """The file of its network namespace."""
        return f"/proc/{self._holder.pid}/ns/net"

    def inside(self, *words):
        return ["nsenter", "-t", str(self._holder.pid), *self._namespaces, "--", *map(str, words)]

    def run(self, *words):
        """A program's output, in the machine's namespaces."""
        return subprocess.run(self.inside(*words), check=True, capture_output=True, text=True).stdout

    def stop(self):
        _run("ip", "link", "delete", self._link)
        self._holder.kill()
        self._holder.wait()


class Device(Host):
    """Its name is the machine's and the certificate's."""

    def __init__(self, fleet, number):
        self.fleet, self.name = fleet, f"device-{number}"
        self.folder = fleet.folder / self.name
        self.folder.mkdir()
        self.identity = fleet.devices.issue(self.name, names=())
        super().__init__(f"d{number}", f"10.99.{1 + number // 200}.{1 + number % 200}", "--mount", "--uts",
                         peers=fleet.hosts, setUp=f"hostname {self.name}; mkdir -p /run/moatkeeper; "
                                                  "mount -t tmpfs none /run/moatkeeper; mount -t tmpfs none /tmp")
        self.run("sh", "-c", "ip link add br0 type bridge; ip link set br0 up; ip link add p0 type veth peer name p1; "
                 "ip link set p0 master br0 up")
        self.relay = self.daemon = None
        self.startRelay()
        self.startDaemon()

    def startRelay(self):
        silentServer = self.fleet.build / "lib/moatkeeper/moatkeeper-relay.so"
        self.relay = Program(self.inside(
            "env", f"LD_PRELOAD={silentServer}", "ovsdb-server", "--no-chdir", "-vconsole:warn", "-vsyslog:off",
            f"--remote=punix:{SOCKET}", f"--unixctl={self.folder}/relay.ctl", f"--private-key={self.identity.privateKey}",
            f"--certificate={self.identity.certificate}", f"--ca-cert={self.fleet.servers.certificate}",
            f"relay:{DATABASE}:{self.fleet.doorsEndpoints}"), str(self.folder / "relay.log"))

    def startDaemon(self):
        """As its unit does: the debug output, a line for each rule, would be most of what a change costs."""
        self.daemon = Program(self.inside(self.fleet.build / "daemon/moatkeeper", "-p", self.folder),
                              str(self.folder / "daemon.log"))

    def stop(self):
        for program in (self.daemon, self.relay):
            if program is not None and program.isRunning():
                program.stop()
        super().stop()


class Fleet:
    def __init__(self, build, folder, devices, centre=3):
        self.build, self.folder = pathlib.Path(build), pathlib.Path(folder)
        self.servers, self.devices, self.administrators = (
            Authority(self.folder / "ca", name) for name in ("servers", "devices", "administrators"))
        _run("ip", "link", "set", "lo", "up")
        _run("ip", "link", "add", "centre", "address", _ethernet(ADMINISTRATOR), "type", "bridge")
        _run("ip", "address", "add", f"{ADMINISTRATOR}/16", "dev", "centre")
        _run("ip", "link", "set", "centre", "up")
        schema = self.folder / "group.ovsschema"
        text = (self.build / "schema/group.ovsschema").read_text(encoding="utf-8")
        schema.write_text(text.replace("moatkeeper_GROUP", DATABASE), encoding="utf-8")
        self.hosts = []
        for number in range(centre):
            self.hosts.append(Host(f"c{number}", f"10.99.0.{1 + number}", peers=self.hosts))
        self.identity = self.servers.issue("centre", names=[f"IP:{host.address}" for host in self.hosts])
        self.centre = Cluster(self.folder / "centre", [schema], count=centre, identity=self.identity, electionMs=ELECTION_MS,
                              hosts=[(host.address, host.inside()) for host in self.hosts])
        permissions = json.loads("[" + (self.build / "schema/group.permissions").read_text(encoding="utf-8") + "]")
        with self.member() as member:
            member.transact(config.insert(config.MAIN, GlobalInputPolicy="ACCEPT", GlobalForwardingPolicy="ACCEPT"), *permissions)
        self._number = 0
        self.doors = {}
        for number in range(centre):
            self.startDoor(number)
        self.doorsEndpoints = self.endpoints("device")
        self.all = []
        self.addDevices(devices)

    def addDevices(self, count):
        self.all += [Device(self, number) for number in range(len(self.all), len(self.all) + count)]

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stop()

    def endpoints(self, role):
        """Of all central servers, for who has that role."""
        return ",".join(f"ssl:{host.address}:{PORTS[role]}" for host in self.hosts)

    def startDoor(self, number, role="device"):
        """As the centre's unit runs it: the script itself, with other places."""
        place = self.folder / f"door-{number}"
        (place / GROUP).mkdir(parents=True, exist_ok=True)
        for name, target in (("socket", self.centre.file(number, "socket")), ("../server.key", self.identity.privateKey),
                             ("../server.pem", self.identity.certificate)):
            if not (place / GROUP / name).is_symlink():
                os.symlink(target, place / GROUP / name)
        script = (_PROJECT / "packaging/moatkeeper-door.in").read_text(encoding="utf-8")
        for text, other in (("/run/moatkeeper-centre", place), ("/etc/moatkeeper/centre", place),
                            ("@DATADIR@/moatkeeper", _PROJECT / "packaging")):
            script = script.replace(text, str(other))
        (place / f"door-{role}").write_text(script, encoding="utf-8")
        host, authority = self.hosts[number], self.devices if role == "device" else self.administrators
        door = Program(host.inside("sh", place / f"door-{role}", GROUP, role, f"{host.address}:{PORTS[role]}",
                                   authority.certificate), str(place / f"{role}.log"), group=True)
        self.doors[number, role] = door
        return door

    def member(self, number=None, seconds=10):
        """A connection to a central server, by root's socket; the leader if none is named. seconds: for each answer."""
        place = self.centre.file(self.centre.leader() if number is None else number, "socket")
        return contextlib.closing(config.Config(place, seconds, DATABASE))

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
                "door": [door.pid for door in self.doors.values() if door.isRunning()],
                "relay": [device.relay.pid for device in self.all], "daemon": [device.daemon.pid for device in self.all]}

    def stop(self):
        for device in self.all:
            device.stop()
        for door in self.doors.values():
            if door.isRunning():
                door.stop()
        self.centre.stop()
        for host in self.hosts:
            host.stop()
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
