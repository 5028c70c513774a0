"""A cluster of real configuration servers on this machine, over local sockets or TLS.

    cluster = Cluster(folder)                              # three, on local sockets; returns when they have a leader
    cluster = Cluster(folder, identity=server)             # over TLS on 127.0.0.1, among each other as well
    cluster = Cluster(folder, schemas=[first, second])     # with a database of each
    cluster.endpoints                                      # "unix:...,unix:..." or "ssl:127.0.0.1:...,..."
    number = cluster.leader()
    cluster.servers[number].stop(signal.SIGKILL)           # a lab.programs.Program
    cluster.start(number)
    cluster.stop()
"""

import json
import os
import pathlib
import socket
import subprocess

from lab import waiting
from lab.programs import SCHEMA, Program

ELECTION_MS = 300  # a leader is missed after that; 100 is the least, and the machine may be slow


def writeSchema(path, name):
    """Our schema for a database of another name, moatkeeper_GROUP; returns the path. The server takes letters, digits
    and '_' for a name."""
    schema = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))
    schema["name"] = name
    pathlib.Path(path).write_text(json.dumps(schema), encoding="utf-8")
    return path


_given = set()  # no port twice: its first user may not listen yet, or not again


def freePort(address="127.0.0.1"):
    """A TCP port that nobody uses; somebody may before the caller does, except in a network namespace of its own."""
    while True:
        with socket.socket(socket.AF_INET6 if ":" in address else socket.AF_INET) as probe:
            probe.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            probe.bind((address, 0))
            port = probe.getsockname()[1]
        if port not in _given:
            _given.add(port)
            return port


class Cluster:
    """The servers are numbered from 0; the first one is the first leader."""

    def __init__(self, folder, schemas=(SCHEMA,), count=3, identity=None, remotes=(), options=(), hosts=(),
                 electionMs=ELECTION_MS):
        """schemas: files; the servers have a database of each. identity: of lab.certificates, for all servers; with
        it the endpoints are ssl: ones. remotes, options: of each ovsdb-server besides. hosts: for each server, if each
        has a network of its own, its address and the words that come before a command there. electionMs: after how long a
        leader is missed."""
        self._folder = pathlib.Path(folder)
        self._identity = identity
        self._hosts = hosts or [("127.0.0.1", [])] * count
        self._remotes, self._options = remotes, options
        self._databases = [json.loads(pathlib.Path(schema).read_text(encoding="utf-8"))["name"] for schema in schemas]
        self._endpoints = [self._place(number, "socket") for number in range(count)]
        for schema, name in zip(schemas, self._databases):
            members = [self._place(number, f"{name}.raft") for number in range(count)]
            for number, own in enumerate(members):
                file = self.file(number, f"{name}.db")
                file.parent.mkdir(parents=True, exist_ok=True)
                if number == 0:
                    _run("ovsdb-tool", f"--election-timer={electionMs}", "create-cluster", file, schema, own)
                else:
                    _run("ovsdb-tool", "join-cluster", file, name, own, *members[:number])
        self.servers = [None] * count
        for number in range(count):
            self.start(number)
        self.waitForMembers()

    def _place(self, number, name):
        if self._identity:
            address, elsewhere = self._hosts[number]
            return f"ssl:{address}:{freePort() if elsewhere else freePort(address)}"
        return f"unix:{self.file(number, name)}"

    def file(self, number, name):
        """In the server's own folder: socket, control (for ovs-appctl -t), log, DATABASE.db."""
        return self._folder / str(number) / name

    @property
    def endpoints(self):
        """For a client's --server, in the order of the servers."""
        return ",".join(self._endpoints)

    def endpoint(self, number):
        return self._endpoints[number]

    def start(self, number):
        """Starts the server that does not run, and waits until it listens; it need not be a member again yet."""
        remote = f"punix:{self.file(number, 'socket')}"
        words = [*self._hosts[number][1], "ovsdb-server", "-vconsole:warn", "-vsyslog:off", "--no-chdir", f"--remote={remote}",
                 f"--unixctl={self.file(number, 'control')}"]
        if self._identity:
            _, host, port = self._endpoints[number].split(":")
            words += [f"--remote=pssl:{port}:{host}", *self._identity.options()]
        words += [f"--remote={other}" for other in self._remotes] + list(self._options)
        words += [str(self.file(number, f"{name}.db")) for name in self._databases]
        self.servers[number] = Program(words, str(self.file(number, "log")))
        waiting.until(lambda: self.state(number) is not None or not self.servers[number].isRunning(),
                      f"server {number} to listen")
        if not self.servers[number].isRunning():
            raise RuntimeError(f"server {number} ended: {self.servers[number].readLog()}")

    def state(self, number):
        """{database: {"connected": bool, "leader": bool}} as the server says, or None when it does not answer."""
        request = '["_Server", {"op": "select", "table": "Database", "where": []}]'
        done = subprocess.run(["ovsdb-client", "--timeout=2", "transact", f"unix:{self.file(number, 'socket')}", request],
                              check=False, capture_output=True, text=True)
        if done.returncode != 0:
            return None
        return {row["name"]: {"connected": row["connected"], "leader": row["leader"]}
                for row in json.loads(done.stdout)[0]["rows"] if row["name"] in self._databases}

    def leader(self, database=None, seconds=waiting.PATIENCE):
        """The number of the running server that leads the database (the first one by default); waits for it."""
        name = database or self._databases[0]

        def find():
            for number, server in enumerate(self.servers):
                if server.isRunning() and (self.state(number) or {}).get(name, {}).get("leader"):
                    return [number]
            return None
        return waiting.until(find, f"a leader of {name}", seconds)[0]

    def waitForMembers(self, seconds=waiting.PATIENCE):
        """Until all servers that run are connected to a leader, with each database."""
        def all_are():
            states = [self.state(number) for number, server in enumerate(self.servers) if server.isRunning()]
            return all(state and len(state) == len(self._databases) and all(s["connected"] for s in state.values())
                       for state in states)
        waiting.until(all_are, lambda: f"all servers to be members:\n{self._report()}", seconds)
        for name in self._databases:
            self.leader(name, seconds)

    def _report(self):
        """What each server says of itself, and the end of its log."""
        return "\n".join(f"server {number}, {'running' if server.isRunning() else 'ended'}: {self.state(number)}\n"
                         f"{server.readLog()[-2000:]}" for number, server in enumerate(self.servers))

    def stop(self):
        for server in self.servers:
            if server is not None and server.isRunning():
                server.stop()


def _run(*words):
    done = subprocess.run(list(map(str, words)), check=False, capture_output=True, text=True)
    if done.returncode != 0:
        raise RuntimeError(f"{os.path.basename(str(words[0]))}: {done.stderr}")
