"""A hostile centre behind the device's relay, and a hostile relay: torn messages, another schema, another group's rows, nonsense.
The daemon's log has lines; the bridge keeps its rules until there is a configuration again."""

import json
import os
import pathlib
import random
import signal
import time
import unittest

from lab import config, kernel, machine, programs, waiting
from lab.fake_server import FakeServer

GROUP = "moatkeeper_office"
CENTRE = machine.FOLDER + "/centre.socket"
WANTED = kernel.expected(UserInputPolicy=["-i p1 -j DROP"])
LINES = 40  # of the log, that any one attempt may cost
COUNT = int(os.environ.get("MOATKEEPER_CENTRES", "3"))  # of each kind, by chance


def policy(interface):
    return config.insert(config.INPUT_POLICY, Id=1, Interface=interface, Policy="DROP")


class Centre:
    """An ovsdb-server that serves a schema, with rows."""

    def __init__(self, name, change=lambda schema: None, rows=()):
        schema = json.loads(pathlib.Path(programs.SCHEMA).read_text(encoding="utf-8"))
        schema["name"] = name
        change(schema)
        path = f"{machine.FOLDER}/{name}.ovsschema"
        pathlib.Path(path).write_text(json.dumps(schema), encoding="utf-8")
        pathlib.Path(f"{machine.FOLDER}/centre.db").unlink(missing_ok=True)
        self.server = programs.startServer(path, machine.FOLDER, "centre.db", CENTRE)
        if rows:
            self.transact(name, *rows)

    @staticmethod
    def transact(name, *rows):
        connection = config.Config(CENTRE)
        connection.database = name
        connection.transact(*rows)
        connection.close()

    def close(self):
        self.server.stop()


def withoutConstraints(schema):
    for table in schema["tables"].values():
        for column in table["columns"].values():
            key = column["type"]["key"]
            column["type"]["key"] = {"type": key["type"]}


def sends(data):
    """A centre that answers whatever it is asked with that."""
    def handler(peer):
        peer.receive()
        peer.send(data)
    return lambda: FakeServer(CENTRE, handler)


def promises(peer):
    """A cluster's member without anything behind it."""
    schema = {"name": "_Server", "version": "1.2.0", "tables": {"Database": {"columns": {
        name: {"type": kind} for name, kind in (("name", "string"), ("model", "string"), ("connected", "boolean"),
                                                ("leader", "boolean"), ("schema", "string"))}}}}
    while True:
        request = peer.receive()
        if request["method"] == "get_schema":
            peer.reply(request, {**schema, "name": request["params"][0]})
        elif request["method"] == "monitor_cond_since":
            peer.reply(request, [False, "00000000-0000-0000-0000-000000000000", {request["params"][0]: {"x": {"insert": 7}}}])
        elif "id" in request:
            peer.reply(request, {})


HOSTILE = {
    "another group's database": lambda: Centre("moatkeeper_other", rows=[policy("p2")]),
    "a later schema": lambda: Centre(GROUP, lambda schema: schema.update(version="2.0.0"), [policy("p2")]),
    "no such table": lambda: Centre(GROUP, lambda schema: schema["tables"].pop(config.RULES), [policy("p2")]),
    "a column of another kind": lambda: Centre(
        GROUP, lambda schema: schema["tables"][config.FILTERS]["columns"]["Prio"].update(type="boolean"), [policy("p2")]),
    "no JSON": sends(b"\x00\xff\xfe}{" * 100),
    "half a message": sends(b'{"id":0,"result":{"name":"_Server","tab'),
    "nested": sends(b"[" * 100_000),
    "an answer to nothing": sends({"id": 4711, "result": [], "error": None}),
    "a notification": sends({"id": None, "method": "update3", "params": [7]}),
    "nothing behind it": lambda: FakeServer(CENTRE, promises),
}


class HostileCentre(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        machine.makeFolder()
        cls.relay, cls.centre = None, Centre(GROUP, rows=[policy("p1")])
        cls.addClassCleanup(lambda: cls.centre.close())
        cls.addClassCleanup(lambda: cls.relay.stop())
        cls.startRelay()
        cls.daemon = programs.startDaemon(machine._options.daemon, machine.FOLDER)
        cls.addClassCleanup(lambda: cls.daemon.stop())
        kernel.waitFor(WANTED)

    @classmethod
    def startRelay(cls):
        if cls.relay:
            cls.relay.stop(signal.SIGKILL)
            os.unlink(programs.SOCKET)
        cls.relay = programs.Program(
            ["ovsdb-server", "-vconsole:warn", "-vsyslog:off", "--no-chdir", f"--remote=punix:{programs.SOCKET}",
             f"--unixctl={machine.FOLDER}/relay.ctl", f"relay:{GROUP}:unix:{CENTRE}"], machine.FOLDER + "/relay.log")

    def use(self, make, restart=True):
        """Another centre; a relay that is started anew asks at once."""
        cls = type(self)
        cls.centre.close()
        cls.centre = make()
        if restart:
            self.startRelay()

    def assertKept(self, seconds, lines):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            self.assertEqual(kernel.readTables(), WANTED)
        self.assertTrue(self.daemon.isRunning() and self.relay.isRunning())
        written = self.daemon.readLog().count("\n") - lines
        self.assertLess(written, LINES, self.daemon.readLog()[-3000:])

    def testTheBridgeKeepsItsRules(self):
        for name in random.sample(list(HOSTILE), min(COUNT, len(HOSTILE))):
            with self.subTest(name):
                lines = self.daemon.readLog().count("\n")
                self.use(HOSTILE[name])
                self.assertKept(0.25, lines)

    def tearDown(self):
        """The next good configuration is taken."""
        self.use(lambda: Centre(GROUP, rows=[policy("p2")]))
        kernel.waitFor(kernel.expected(UserInputPolicy=["-i p2 -j DROP"]))
        Centre.transact(GROUP, config.delete(config.INPUT_POLICY, 1), policy("p1"))
        kernel.waitFor(WANTED)

    def testTheCentreTurnsHostileWhileTheRelayIsThere(self):
        for name in ("a later schema", "another group's database")[:COUNT // 2]:
            with self.subTest(name):
                lines = self.daemon.readLog().count("\n")
                self.use(HOSTILE[name], restart=False)
                self.assertKept(1.3, lines)

    def testRowsOfNonsense(self):
        """None does more than a row; an empty configuration is one."""
        values = ("p1 -j DROP; ebtables -F", "-F", "$(reboot)", "a" * 100_000, "\n", "")
        self.use(lambda: Centre(GROUP, withoutConstraints, [policy("p1")] + [
            config.insert(config.INPUT_POLICY, Id=2 + number, Interface=value, Policy=value)
            for number, value in enumerate(values)] + [
            config.insert("MoatKeeperChange", Number=-5), config.insert("MoatKeeperTrial", Change=-1, Seconds=-1, Changes="{"),
            config.insert("MoatKeeperHistory", Number=2**31 - 1, Sum="x" * 1000)]))
        waiting.until(lambda: self.daemon.matching(r"unknown Policy \$\(reboot\)"), lambda: self.daemon.readLog()[-2500:])
        self.assertKept(0.1, self.daemon.readLog().count("\n"))
        self.use(lambda: Centre(GROUP))
        kernel.waitFor(kernel.expected())

    def testAHostileRelay(self):
        """What only a server of root's on the local socket could do."""
        def lists(names, *more):
            def handler(peer):
                peer.reply(peer.expect("list_dbs"), names)
                for answer in more:
                    peer.reply(peer.receive(), answer)
            return handler
        schema = json.loads(pathlib.Path(programs.SCHEMA).read_text(encoding="utf-8"))
        torn = {config.INPUT_POLICY: {"x": {"insert": {"Id": "one"}}}}
        handlers = (lists(7), lists([1, None]), lists([]), lists([GROUP, "moatkeeper_other"]),
                    lists([f"other{number}" for number in range(100_000)]), lists(["moatkeeper_" + "a" * 1_000_000]),
                    lists([GROUP], schema), lists([GROUP], {**schema, "name": GROUP, "tables": 5}),
                    lists([GROUP], {**schema, "name": GROUP}, [False, "not a transaction", {}]),
                    lists([GROUP], {**schema, "name": GROUP}, [False, "11111111-1111-1111-1111-111111111111", torn]))
        for handler in random.sample(handlers, min(COUNT, len(handlers))):
            self.relay.stop(signal.SIGKILL)
            pathlib.Path(programs.SOCKET).unlink(missing_ok=True)
            lines = self.daemon.readLog().count("\n")
            server = FakeServer(programs.SOCKET, handler)
            waiting.until(lambda: server.connections, "the daemon")
            end = time.monotonic() + 0.1
            while time.monotonic() < end:
                self.assertEqual(kernel.readTables(), WANTED)
            self.assertTrue(self.daemon.isRunning())
            self.assertLess(self.daemon.readLog().count("\n") - lines, LINES)
            self.assertLess(len(self.daemon.readLog().splitlines()[-1]), 5000)
            self.assertEqual(server.errors, [])
            server.close()
        type(self).relay = None
        self.startRelay()


if __name__ == "__main__":
    machine.main()
