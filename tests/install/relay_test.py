"""A device whose configuration is kept centrally, and the central server: both as their units start them, on one machine with a
service manager. What the settings choose, who may what, and what a hostile device gets.

usage: relay_test.py CMAKE BUILD_FOLDER [unittest arguments]
"""

import json
import os
import pathlib
import re
import socket
import ssl
import subprocess
import sys
import time
import unittest

from lab import kernel, service_manager, waiting
from lab.certificates import Authority

DAEMON, SERVER, RELAY = "moatkeeper.service", "moatkeeper-db.service", "moatkeeper-relay.service"
CENTRE, DEVICES, ADMINISTRATORS = (f"moatkeeper-{name}@office.service" for name in ("centre", "devices", "administrators"))
SETTINGS = "/etc/default/moatkeeper-db"
FOLDER, CENTRE_FOLDER = "/etc/moatkeeper", "/etc/moatkeeper/centre"
LOCAL = f"unix:{service_manager.SERVER_SOCKET}"
MEMBER = "unix:/run/moatkeeper-centre/office/socket"
DATABASE = "moatkeeper_office"
MADE = "/tmp/certificates"
CLOSED, OPEN = kernel.expected(FORWARD=("DROP",)), kernel.expected()
ALIVE = {"op": "comment", "comment": "are you there?"}


def policy(target):
    return {"op": "update", "table": "MoatKeeper", "where": [], "row": {"GlobalForwardingPolicy": target}}


def anyRow(table):
    """Values that the schema allows."""
    def value(kind):
        kind = kind["key"]
        if "enum" in kind:
            return kind["enum"][1][0]
        return max(kind.get("minInteger", 0), 0) if kind["type"] == "integer" else "a"
    return {name: value(column["type"]) for name, column in table["columns"].items()}


class Machine(unittest.TestCase):
    machine = None

    @classmethod
    def setUpClass(cls):
        cls.machine = MACHINE

    def transact(self, server, *operations, options=(), check=True):
        text = self.machine.run("ovsdb-client", "--timeout=10", *options, "transact", server,
                                json.dumps([DATABASE, *operations]), check=check)
        return json.loads(text) if text else None

    def settings(self, **values):
        self.machine.write(SETTINGS, "".join(f'MOATKEEPER_DB_{name}="{value}"\n' for name, value in values.items()))
        self.machine.run("systemctl", "restart", SERVER)

    def states(self):
        return self.machine.show(SERVER, "ActiveState"), self.machine.show(RELAY, "ActiveState")

    def waitForStates(self, *wanted):
        waiting.until(lambda: self.states() == wanted, lambda: f"{wanted}: {self.states()}\n{self.machine.readOutput()}")

    def useRelay(self):
        self.settings(RELAY="ssl:127.0.0.1:6640", GROUP="office")
        self.waitForStates("inactive", "active")

    def ruleCentrally(self, target):
        self.transact(MEMBER, policy(target))

    def row(self):
        rows = self.transact(MEMBER, {"op": "select", "table": "MoatKeeperDevice", "where": []})[0]["rows"]
        return {row["Name"]: row for row in rows}.get(HOST)


class Choice(Machine):
    def testWhichServerRunsSaysTheSettings(self):
        self.ruleCentrally("DROP")
        self.settings()
        self.waitForStates("active", "inactive")
        kernel.waitFor(OPEN)
        process = self.machine.show(DAEMON, "MainPID")
        self.assertEqual(self.folderMode("change"), "2750")

        self.useRelay()
        kernel.waitFor(CLOSED)
        waiting.until(lambda: "timer:(keepalive" in self.connection(),
                      lambda: f"a relay that leaves a silent server: {self.connection()}")
        waiting.until(lambda: (self.row() or {}).get("InStep") == 1, lambda: f"the device's row: {self.row()}")
        self.assertEqual(self.folderMode("change"), "700", "what is sent there goes out in the device's name")
        self.assertIn("_office", self.machine.run("ovsdb-client", "list-dbs", "unix:/run/moatkeeper-db/read/socket"))
        self.assertEqual(self.transact("unix:/run/moatkeeper-db/read/socket", policy("ACCEPT"))[0]["error"],
                         "permission error")

        self.settings()
        self.waitForStates("active", "inactive")
        kernel.waitFor(OPEN)
        self.assertEqual(self.machine.show(DAEMON, "MainPID"), process, "the daemon has noticed")
        self.machine.run("systemctl", "stop", SERVER)
        self.waitForStates("inactive", "inactive")
        self.useRelay()
        self.machine.run("systemctl", "stop", SERVER)
        self.waitForStates("inactive", "inactive")

    def connection(self):
        """The relay's, as the kernel sees it."""
        return self.machine.run("ss", "-Htno", "dport = :6640")

    def folderMode(self, name):
        return self.machine.run("stat", "-c", "%a", f"/run/moatkeeper-db/{name}").strip()

    def testWrongSettingsStartNoServer(self):
        self.useRelay()
        relay, place = "ssl:127.0.0.1:6640", f"{SETTINGS}: MOATKEEPER_DB_"
        for values, told in (
                ({"RELAY": "127.0.0.1"}, 'RELAY is "127.0.0.1", expected ssl:ADDRESS:PORT'),
                ({"RELAY": f"{relay},tcp:127.0.0.1:6640", "GROUP": "office"}, "expected ssl:ADDRESS:PORT"),
                ({"RELAY": f"{relay}0", "GROUP": "office"}, "expected ssl:ADDRESS:PORT"),
                ({"RELAY": f"{relay} --remote=ptcp:1", "GROUP": "office"}, "expected ssl:ADDRESS:PORT"),
                ({"GROUP": "office"}, 'RELAY is "", expected ssl:ADDRESS:PORT'),
                ({"RELAY": relay}, 'GROUP is "", expected the name of a group'),
                ({"RELAY": relay, "GROUP": "the office"}, 'GROUP is "the office", expected the name of a group'),
                ({"RELAY": relay, "GROUP": "office", "KEY": "/no"}, 'KEY is "/no", expected a file that can be read'),
                ({"RELAY": relay, "GROUP": "office", "CA": "/a b"}, 'CA is "/a b", expected the path of a file')):
            with self.subTest(str(values)):
                before = len(self.machine.readOutput())
                self.settings(**values)
                self.waitForStates("inactive", "inactive")
                lines = [line for line in self.machine.readOutput()[before:].splitlines() if "moatkeeper-db-access" in line]
                self.assertEqual(len(lines), 1, lines)
                self.assertTrue(lines[0].startswith(f"moatkeeper-db-access: {place}"), lines[0])
                self.assertIn(told, lines[0])
                self.assertTrue(lines[0].endswith("no server is started"), lines[0])
        self.useRelay()

    def testTheCentreIsBackWithinSeconds(self):
        """Rules stay while the central server is away; the doors open again as soon as it is there."""
        self.useRelay()
        self.ruleCentrally("DROP")
        kernel.waitFor(CLOSED)
        self.machine.run("systemctl", "kill", "--signal=KILL", CENTRE)
        self.machine.waitFor(CENTRE)
        waiting.until(lambda: self.transact(MEMBER, ALIVE, check=False), "the member")
        self.assertEqual(kernel.readTables(), CLOSED)
        self.ruleCentrally("ACCEPT")
        kernel.waitFor(OPEN, seconds=12)


    def testACertificateThatEnds(self):
        """Is refused at the next connection; a new one is taken without a restart."""
        self.useRelay()
        self.ruleCentrally("DROP")
        kernel.waitFor(CLOSED)
        self.addCleanup(self.useIdentity, CERTIFICATES["device"])
        self.useIdentity(CERTIFICATES["ended"])
        begin = len(self.machine.readOutput())
        self.machine.run("systemctl", "restart", DEVICES)
        # The relay may see only that the connection is closed; the door says that it has refused somebody.
        waiting.until(lambda: re.search("certificate (expired|verify failed)", self.machine.readOutput()[begin:]),
                      lambda: self.machine.readOutput()[-3000:], 20)
        self.ruleCentrally("ACCEPT")
        self.assertEqual(kernel.readTables(), CLOSED)
        self.useIdentity(CERTIFICATES["device"])
        kernel.waitFor(OPEN, seconds=15)

    def useIdentity(self, identity):
        """The certificate first and its key last, while the relay looks at both."""
        for ending in ("pem", "key"):
            new = self.machine.path(f"{FOLDER}/device.new")
            new.write_text(identity[ending], encoding="ascii")
            new.chmod(0o600)
            new.rename(self.machine.path(f"{FOLDER}/device.{ending}"))
            self.machine.run("ovsdb-client", "list-dbs", LOCAL)  # it has looked now


class Hostile(Machine):
    """A device with a valid certificate, that does what it likes."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls("testAFlood").useRelay()
        cls.options = [f"--private-key={FOLDER}/hostile.key", f"--certificate={FOLDER}/hostile.pem",
                       f"--ca-cert={FOLDER}/servers-ca.pem"]

    def setUp(self):
        self.ruleCentrally("DROP")
        kernel.waitFor(CLOSED)
        waiting.until(self.row, "the device's row")
        self.processes = self.mainProcesses()

    def mainProcesses(self):
        return {unit: self.machine.show(unit, "MainPID") for unit in (DAEMON, RELAY, CENTRE, ADMINISTRATORS, DEVICES)}

    def tearDown(self):
        """Nothing has changed, and everybody is served."""
        self.assertEqual(kernel.readTables(), CLOSED)
        self.assertEqual(self.mainProcesses(), self.processes)
        self.ruleCentrally("ACCEPT")
        kernel.waitFor(OPEN)

    def attempt(self, *operations):
        return self.transact("ssl:127.0.0.1:6640", *operations, options=self.options)

    def assertForbidden(self, *operations):
        result = self.attempt(*operations)
        self.assertEqual(result[-1].get("error"), "permission error", result)

    def rows(self, table):
        """Through the root's socket in the centre."""
        return self.transact(MEMBER, {"op": "select", "table": table, "where": []})[0]["rows"]

    def testItWritesItsOwnRowOnly(self):
        schema = json.loads(SCHEMA)["tables"]
        others = sorted(set(schema) - {"MoatKeeperDevice"})
        # A row of each table, none of which makes a rule; a trial would be the daemon's to put back.
        filled = set(others) - {"MoatKeeper", "MoatKeeperTrial", "MoatKeeperChange"}
        self.transact(MEMBER, *({"op": "insert", "table": table, "row": anyRow(schema[table])} for table in filled))
        self.addCleanup(lambda: self.transact(MEMBER, *({"op": "delete", "table": table, "where": []} for table in filled)))
        self.transact(MEMBER, {"op": "delete", "table": "MoatKeeperChange", "where": []},
                      {"op": "insert", "table": "MoatKeeperChange", "row": {"Number": 7}})
        waiting.until(lambda: self.row()["Number"] == 7, "the change's number in the device's row")
        before = {table: self.rows(table) for table in others}
        for table in others:
            self.assertForbidden({"op": "insert", "table": table, "row": anyRow(schema[table])})
            if table == "MoatKeeperTrial":
                continue
            self.assertForbidden({"op": "delete", "table": table, "where": []})
            for column, value in before[table][0].items():
                if not column.startswith("_"):
                    self.assertForbidden({"op": "update", "table": table, "where": [], "row": {column: value}})
        self.assertEqual(len(self.attempt({"op": "insert", "table": "MoatKeeperDevice",
                                           "row": {"Name": "hostile", "Number": 3}})), 1)
        mine, theirs = [["Name", "==", "hostile"]], [["Name", "==", HOST]]
        self.assertEqual(self.attempt({"op": "update", "table": "MoatKeeperDevice", "where": mine, "row": {"Number": 4}}),
                         [{"count": 1}])
        for forbidden in ({"op": "update", "where": theirs, "row": {"Number": 4}}, {"op": "delete", "where": theirs},
                          {"op": "update", "where": [], "row": {"Number": 4}},
                          {"op": "mutate", "where": theirs, "mutations": [["Number", "+=", 1]]},
                          {"op": "update", "where": mine, "row": {"Name": "another"}},
                          {"op": "insert", "row": {"Name": "another"}}, {"op": "delete", "where": []}):
            self.assertForbidden({"table": "MoatKeeperDevice", **forbidden})
        # What is allowed does not take along what is not.
        self.assertForbidden({"op": "update", "table": "MoatKeeperDevice", "where": mine, "row": {"Number": 9}},
                             policy("ACCEPT"))
        self.assertEqual(self.attempt({"op": "select", "table": "MoatKeeperDevice", "where": mine,
                                       "columns": ["Number"]}), [{"rows": [{"Number": 4}]}])
        self.assertEqual({table: self.rows(table) for table in others}, before)
        self.assertEqual(self.row()["Number"], 7)
        self.assertEqual(self.attempt({"op": "delete", "table": "MoatKeeperDevice", "where": mine}), [{"count": 1}])

    def testNorWhoMayWhat(self):
        for table in ("RBAC_Role", "RBAC_Permission"):
            self.assertForbidden({"op": "insert", "table": table, "row": {}})
            self.assertForbidden({"op": "delete", "table": table, "where": []})
        for operation in ({"op": "update", "table": "Remote", "where": [], "row": {"role": ""}},
                          {"op": "insert", "table": "Remote", "row": {"target": "ptcp:6660"}},
                          {"op": "delete", "table": "Access", "where": []}):
            answer = self.machine.run("ovsdb-client", *self.options, "transact", "ssl:127.0.0.1:6640",
                                      json.dumps(["access", operation]))
            self.assertIn("permission error", answer)

    def testNorTheSchema(self):
        said = self.machine.run("sh", "-c", f"ovsdb-client {' '.join(self.options)} convert ssl:127.0.0.1:6640 "
                                            "/mnt/schema 2>&1; true")
        self.assertIn("only the root role may convert", said)

    def testItsCertificateOpensNoOtherPort(self):
        for port in (6641, 6644):
            said = self.machine.run("sh", "-c", f"ovsdb-client {' '.join(self.options)} --timeout=5 list-dbs "
                                                f"ssl:127.0.0.1:{port} 2>&1; echo status $?")
            self.assertNotIn("moatkeeper", said)
            self.assertNotIn("status 0", said)

    def testAStrangersCertificateOpensNone(self):
        options = [f"--private-key={FOLDER}/stranger.key", f"--certificate={FOLDER}/stranger.pem", self.options[2]]
        for port in (6640, 6641, 6644):
            said = self.machine.run("sh", "-c", f"ovsdb-client {' '.join(options)} --timeout=5 list-dbs "
                                                f"ssl:127.0.0.1:{port} 2>&1; echo status $?")
            self.assertNotIn("status 0", said)

    def connect(self):
        context = ssl.create_default_context(cafile=f"{MADE}/servers.pem")
        context.load_cert_chain(f"{MADE}/hostile.pem", f"{MADE}/hostile.key")
        raw = socket.create_connection(("127.0.0.1", 6640), timeout=10)
        connection = context.wrap_socket(raw, server_hostname="127.0.0.1")
        self.addCleanup(connection.close)
        return connection

    def served(self):
        """How long an administrator waits for an answer."""
        began = time.monotonic()
        self.assertEqual(self.transact("ssl:127.0.0.1:6641", ALIVE, options=[
            f"--private-key={FOLDER}/alice.key", f"--certificate={FOLDER}/alice.pem", self.options[2]]), [{}])
        return time.monotonic() - began

    def testTornAndHugeMessages(self):
        deep = b'{"method":"transact","params":' + b"[" * 100_000
        for bytes_ in (b"\x00\xff" * 1000, b'{"id":', b'{"id":1,"method":"transact","params":["moatkeeper_office",', deep,
                       b'{"method":"transact","id":0,"params":{}}', b"[" * 500_000, b'"' + b"a" * 5_000_000,
                       b'{"id":1,"method":"nothing","params":[]}' * 1000, b'{"id":null,"result":1,"error":2}'):
            connection = self.connect()
            try:
                connection.sendall(bytes_)
                connection.settimeout(0.2)
                connection.recv(100_000)
            except OSError:
                pass  # it is closed, or still waited for
        self.assertLess(self.served(), 2)

    def testAFlood(self):
        def request(number, *operations):
            return json.dumps({"id": number, "method": "transact", "params": [DATABASE, *operations]}).encode()
        row = {"op": "update", "table": "MoatKeeperDevice", "where": [["Name", "==", HOST]], "row": {"Number": 1}}
        connections = [self.connect() for _ in range(20)]
        for number in range(100):
            for connection in connections:
                try:
                    connection.sendall(request(number, row, policy("ACCEPT")))
                except OSError:
                    pass
        # Locks are of a connection's own server, and waiting hinders nobody.
        for connection in connections:
            connection.sendall(b'{"id":9,"method":"lock","params":["moatkeeper"]}')
            connection.sendall(request(10, {"op": "wait", "timeout": 60_000, "table": "MoatKeeper", "where": [],
                                            "columns": ["GlobalForwardingPolicy"], "until": "==", "rows": []}))
        self.assertLess(self.served(), 5)


def makeCertificates(folder):
    """What the guide makes with openssl: an authority for each kind of peer."""
    authorities = {name: Authority(folder, name) for name in ("servers", "devices", "administrators", "strangers")}
    made = {}
    for name, place, issue in (
            ("ended", None, lambda: authorities["devices"].issue(HOST, names=(), expires=-60)),
            ("device", FOLDER, lambda: authorities["devices"].issue(HOST, names=())),
            ("server", CENTRE_FOLDER, lambda: authorities["servers"].issue("centre-1")),
            ("hostile", FOLDER, lambda: authorities["devices"].issue("hostile", names=())),
            ("stranger", FOLDER, lambda: authorities["strangers"].issue("stranger", names=())),
            ("alice", FOLDER, lambda: authorities["administrators"].issue("alice", names=()))):
        identity = issue()
        made[name] = {ending: pathlib.Path(path).read_text(encoding="ascii")
                      for ending, path in (("key", identity.privateKey), ("pem", identity.certificate))}
        for ending, text in made[name].items() if place else ():
            MACHINE.write(f"{place}/{name}.{ending}", text)
    authority = {name: pathlib.Path(each.certificate).read_text(encoding="ascii") for name, each in authorities.items()}
    MACHINE.write(f"{FOLDER}/servers-ca.pem", authority["servers"])
    MACHINE.write(f"{CENTRE_FOLDER}/servers-ca.pem", authority["servers"])
    for name in ("devices", "administrators"):
        MACHINE.write(f"{CENTRE_FOLDER}/office/{name}-ca.pem", authority[name])
    return made


if __name__ == "__main__":
    BUILD, HOST = os.path.realpath(sys.argv[2]), socket.gethostname()
    MACHINE = service_manager.enter(sys.argv[1], BUILD)
    try:
        subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
        CERTIFICATES = makeCertificates(MADE)
        for name in (DAEMON, SERVER, RELAY, "moatkeeper-db-create.service", CENTRE, DEVICES, ADMINISTRATORS):
            MACHINE.change(name, "")
        MACHINE.boot()
        SCHEMA = MACHINE.path("/usr/share/moatkeeper/moatkeeper.ovsschema").read_text(encoding="utf-8")
        MACHINE.write("/mnt/schema", SCHEMA.replace('"moatkeeper"', f'"{DATABASE}"'))
        MACHINE.run("moatkeeper-db-group", "create", "office", "ssl:127.0.0.1:6644")
        MACHINE.run("systemctl", "start", CENTRE)
        MACHINE.run("systemctl", "start", DAEMON)
        waiting.until(lambda: MACHINE.path("/run/moatkeeper-centre/office/socket").exists(), "the central server")
        unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
    finally:
        MACHINE.close()
