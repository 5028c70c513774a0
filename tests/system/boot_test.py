"""What frames meet while a machine starts: its service manager, the units as they are installed, and a bridge that another
unit makes when network-pre.target is reached, under a stream of frames from the first moment on.

usage: boot_test.py CMAKE BUILD_FOLDER [unittest arguments]
MOATKEEPER_BOOTS: how many boots of each kind (default 1).
"""

import os
import re
import subprocess
import sys
import time
import unittest

from lab import config, kernel, service_manager, waiting
from lab.stream import ALLOWED, FORBIDDEN, TimedStream, ip

COUNT = int(os.environ.get("MOATKEEPER_BOOTS", "1"))
UNIT, SERVER, BRIDGE = "moatkeeper.service", "moatkeeper-db.service", "bridge.service"
LISTED = bytes.fromhex("02aa00000003")  # in the settings of the unit, and allowed by the configuration, too
DATABASE = "/var/lib/moatkeeper/moatkeeper.db"


def accept(rowId, source):
    return {"Id": rowId, "RulePrio": rowId, "InInterface": "in", "OutInterface": "out", "SrcMAC": source.hex(":"),
            "Target": "ACCEPT"}


TABLES = {config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "DROP"}],
          config.RULES: [accept(1, ALLOWED), accept(2, LISTED)]}
WANTED = kernel.expected(INPUT=("DROP",), FORWARD=("DROP",), UserForwardRules=[
    f"-s {source.hex(':')} -i in -o out -j ACCEPT" for source in (ALLOWED, LISTED)])
BRIDGE_UNIT = """[Unit]
DefaultDependencies=no
After=network-pre.target
[Service]
Type=oneshot
RemainAfterExit=yes
ExecStart=ip -batch /etc/bridge
"""
BRIDGE_COMMANDS = """link add bridge type bridge mcast_snooping 0
link set bridge up
link set in master bridge
link set out master bridge
link set in up
link set out up
"""
SETTINGS = f"MOATKEEPER_UNTIL_CONFIGURED=closed\nMOATKEEPER_ALLOWED={LISTED.hex(':')}\n"
MUTE = ("ExecStart=\nExecStart=/usr/bin/python3 -c 'import socket, time; s = socket.socket(socket.AF_UNIX); "
        f's.bind("{service_manager.SERVER_SOCKET}"); s.listen(); time.sleep(1000)\'\n')


def makeDatabase(machine):
    """The configuration, as an earlier run has left it."""
    machine.boot(SERVER)
    machine.waitFor(SERVER)
    connection = waiting.until(lambda: connect(machine), "the server")
    connection.replace(TABLES)
    connection.close()
    machine.run("systemctl", "stop", SERVER)
    machine.halt()


def connect(machine):
    try:
        return config.Config(machine.path(service_manager.SERVER_SOCKET))
    except OSError:
        return None


class Boot(unittest.TestCase):
    def setUp(self):
        self.machine = MACHINE
        self.machine.write("/etc/default/moatkeeper", SETTINGS + "MOATKEEPER_WAIT_SECONDS=1\n")
        self.machine.change(UNIT, "")
        self.machine.write(f"/etc/systemd/system/{BRIDGE}", BRIDGE_UNIT)
        self.machine.write("/etc/bridge", BRIDGE_COMMANDS)

    def powerCut(self):
        """Nothing is left but the disk."""
        self.machine.halt()
        for name in ("bridge", "in", "out"):
            subprocess.run(["ip", "link", "delete", name], check=False, capture_output=True)
        subprocess.run(["nft", "flush", "ruleset"], check=True)

    def boot(self, whileUp=lambda: None):
        """Boots; the stream, and when the configuration could be in force at the earliest: when the machine was
        switched on, or what whileUp gives. It is called when the bridge is up."""
        self.powerCut()
        self.addCleanup(self.powerCut)
        for port in ("in", "out"):
            ip(f"link add {port} type veth peer name far-{port}")
            ip(f"link set far-{port} up")
        with TimedStream(ALLOWED, FORBIDDEN, LISTED) as stream:
            start = time.monotonic()
            self.machine.boot(UNIT, BRIDGE)
            self.machine.waitFor(BRIDGE)
            self.assertEqual(self.machine.show(UNIT, "ActiveState"), "active", "the filter first")
            self.assertLess(self.moment(UNIT, "ActiveEnterTimestampMonotonic"),
                            self.moment(BRIDGE, "ExecMainStartTimestampMonotonic"), "the filter first")
            waiting.until(lambda: self.passed(stream, LISTED), "a frame that is listed", 20)
            configured = whileUp() or start
            time.sleep(0.2)  # frames in such and such a state: what is measured
        self.assertEqual([], self.passed(stream, FORBIDDEN))
        early = [number for number in self.passed(stream, ALLOWED) if stream.sent[number] < configured]
        self.assertEqual([], early, "before there was a configuration")
        first = min(self.passed(stream, LISTED))
        lost = [number for number in range(first, len(stream.sent))
                if stream.source(number) == LISTED and number not in stream.received]
        self.assertEqual([], lost, "the administrator is locked out")
        return stream

    def moment(self, unit, name):
        return int(self.machine.show(unit, name)) / 1e6

    @staticmethod
    def passed(stream, source):
        return [number for number in stream.received.copy() if stream.source(number) == source]

    def boots(self, what, once):
        streams = [once() for _ in range(COUNT)]
        print(f"{COUNT} boots with {what}: {sum(len(stream.sent) for stream in streams)} frames, 0 leaked before or "
              f"after the first commit, {sum(len(self.passed(stream, ALLOWED)) for stream in streams)} passed that are "
              "allowed")

    def assertReadyMeansInForce(self):
        """The bridge came up when the configuration was in force: what is allowed passed from the first frame on."""
        self.machine.write("/etc/default/moatkeeper", SETTINGS)

        def once():
            stream = self.boot()
            first = min(self.passed(stream, LISTED))
            self.assertEqual([], [number for number in range(first, len(stream.sent))
                                  if stream.source(number) == ALLOWED and number not in stream.received])
            self.assertEqual(self.machine.show(UNIT, "StatusText"), "the configuration is in force")
            kernel.waitFor(WANTED)
            took = self.moment(UNIT, "ActiveEnterTimestampMonotonic") - self.moment(
                UNIT, "ExecMainStartTimestampMonotonic")
            print(f"from the daemon's start to its first commit: {1000 * took:.0f} ms")
            return stream
        return once

    def testAServerThatIsThere(self):
        self.machine.change(SERVER, "")
        self.boots("a server", self.assertReadyMeansInForce())

    def testASlowServer(self):
        self.machine.change(SERVER, "ExecStartPre=/bin/sleep 0.7\n")
        self.boots("a slow server", self.assertReadyMeansInForce())

    def testOpenIsTheChoiceOfWhoDoesNotChoose(self):
        self.machine.write("/etc/default/moatkeeper", "MOATKEEPER_WAIT_SECONDS=0\n")
        self.machine.change(SERVER, "ExecStart=\nExecStart=/bin/false\n")
        self.powerCut()
        self.machine.boot(UNIT)
        self.machine.waitFor(UNIT)
        self.assertEqual(self.machine.show(UNIT, "StatusText"), "waits for its configuration")
        self.assertEqual(kernel.readTables(), kernel.untouched())

    def testALateServer(self):
        unit = self.machine.read(f"/usr/lib/systemd/system/{SERVER}")
        command = re.search(r"(?m)^ExecStart=(.*)$", unit)[1]
        self.machine.change(SERVER, "ExecStart=\nExecStart=/bin/sh -c 'until [ -e /run/go ]; do sleep 0.05; done; "
                                    f"exec {command}'\n")

        def go():
            moment = time.monotonic()
            self.machine.path("/run/go").touch()
            kernel.waitFor(WANTED)
            return moment

        def once():
            stream = self.boot(go)
            self.assertGreater(len(self.passed(stream, ALLOWED)), 10)
            return stream
        self.boots("a late server", once)

    def assertClosed(self):
        stream = self.boot(lambda: time.monotonic() + 1000)
        self.assertEqual(self.machine.show(UNIT, "StatusText"), "waits for its configuration")
        return stream

    def testADeadServer(self):
        self.machine.change(SERVER, "ExecStart=\nExecStart=/bin/false\n")
        self.boots("a dead server", self.assertClosed)

    def testAServerThatSaysNothing(self):
        self.machine.change(SERVER, MUTE)
        self.boots("a server that says nothing", self.assertClosed)

    def testAKilledDaemonStaysClosedAndLetsInWhoIsListedNow(self):
        self.machine.change(SERVER, "ExecStart=\nExecStart=/bin/false\n")

        def change():
            for signal in ("KILL", "TERM"):
                before = self.machine.show(UNIT, "MainPID")
                self.machine.path("/etc/default/moatkeeper").write_text(
                    SETTINGS.replace("MOATKEEPER_ALLOWED=", "MOATKEEPER_ALLOWED=lan+ "), encoding="utf-8")
                if signal == "KILL":
                    self.machine.run("systemctl", "kill", "--kill-whom=main", "--signal=KILL", UNIT)
                else:
                    self.machine.run("systemctl", "restart", UNIT)
                waiting.until(lambda: self.machine.show(UNIT, "MainPID") not in ("0", before), "the next process", 20)
                waiting.until(lambda: "-i lan+ -j ACCEPT" in kernel.readTables().get("UnconfiguredInput", []),
                              "the list as it is now")
            return time.monotonic() + 1000
        self.boot(change)
        self.machine.run("systemctl", "stop", UNIT)
        self.assertEqual(kernel.readTables(), kernel.untouched())


if __name__ == "__main__":
    CMAKE, BUILD = sys.argv[1:3]
    BUILD = os.path.realpath(BUILD)
    MACHINE = service_manager.enter(CMAKE, BUILD)
    try:
        makeDatabase(MACHINE)
        unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
    finally:
        MACHINE.close()
