"""moatctl and servers that are not just a socket on this machine: TCP, TLS and certificates, clusters that lose their
leader, several databases, and the settings that say all that."""

import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

from lab import sandbox, waiting

if __name__ == "__main__":
    sandbox.enterNetwork()

from lab.certificates import Authority
from lab.cluster import Cluster, freePort, writeSchema
from lab.config import CHANGE, Config
from lab.programs import SCHEMA, startServer
from moatctl_case import BAD_INPUT, MOATCTL, NO_SERVER, OK, main

ADDRESS = "192.0.2.1"  # of this machine, and not of its loopback
KILLS = int(os.environ.get("MOATKEEPER_LEADER_KILLS", "1"))


def run(*words, environment=None, seconds=60):
    return subprocess.run([MOATCTL, *map(str, words)], stdin=subprocess.DEVNULL, capture_output=True, text=True,
                          env={**os.environ, "HOME": "/nonexistent", **(environment or {})}, timeout=seconds)


class Folder(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)

    def file(self, name, text, mode=0o600):
        path = self.folder / name
        path.write_text(text, encoding="utf-8")
        path.chmod(mode)
        return path

    def ok(self, *words, **options):
        done = run(*words, **options)
        self.assertEqual((done.returncode, done.stderr), (OK, ""), words)
        return done.stdout

    def refused(self, status, pattern, *words, **options):
        done = run(*words, **options)
        self.assertEqual((done.returncode, done.stdout), (status, ""), f"{words}: {done.stderr}")
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)
        self.assertRegex(done.stderr, pattern)


class Tcp(Folder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.port = freePort()
        cls.server = startServer(SCHEMA, cls.folder, socketPath=cls.folder / "sock", options=[
            f"--remote=ptcp:{cls.port}:0.0.0.0", f"--remote=ptcp:{cls.port}:[::1]"])
        cls.addClassCleanup(cls.server.stop)

    def test_endpoints_that_are_none(self):
        for text in ("tcp:", "tcp:host", "tcp::6640", "tcp:host:0", "tcp:host:65536", "tcp:host:x", "tcp:::1:6640",
                     "host:6640", "https:host:6640", "ssl:a b:1", "ssl:[::1:1", "unix:", "tcp:a:1,", "tcp:a:1,/tmp/b", "tcp:a:1,udp:b:1"):
            self.refused(BAD_INPUT, "^moatctl: --server .*: expected unix:PATH, tcp:HOST:PORT or ssl:", "--server", text, "show")
        self.refused(BAD_INPUT, "named twice", "--server", "tcp:a:1,tcp:b:1,tcp:a:1", "show")

    def test_this_machine(self):
        for place in (f"unix:{self.folder}/sock", f"{self.folder}/sock", f"tcp:127.0.0.1:{self.port}",
                      f"tcp:[::1]:{self.port}", f"tcp:localhost:{self.port}"):
            self.assertIn("MoatKeeperRuleset", json.loads(self.ok("--server", place, "export")), place)

    def test_other_machines_need_word(self):
        for number, host in enumerate((ADDRESS, "centre")):
            words = ("--server", f"tcp:{host}:{self.port}", "--no-wait", "rule", "add", "--in", f"eth{number}", "--accept")
            self.refused(NO_SERVER, f"tcp:{host}:{self.port} refused: it leads to another machine.*--insecure-tcp", *words)
            self.assertRegex(self.ok("--insecure-tcp", *words), r"^\d+\n$")

    def test_nobody_there(self):
        port = freePort()
        begin = time.monotonic()
        self.refused(NO_SERVER, f"no configuration server at tcp:127.0.0.1:{port}: Connection refused",
                     "--server", f"tcp:127.0.0.1:{port}", "show")
        self.refused(NO_SERVER, "no configuration server at tcp:nowhere.invalid:1: ", "--server",
                     "tcp:nowhere.invalid:1", "--timeout", "2", "show")
        self.assertLess(time.monotonic() - begin, 3)

    def test_silence_is_limited_in_time(self):
        with socket.socket() as listener:
            listener.bind(("127.0.0.1", 0))
            listener.listen()
            place = f"127.0.0.1:{listener.getsockname()[1]}"
            self.refused(NO_SERVER, "no answer .* within 200 ms", "--server", f"tcp:{place}", "--timeout", "0.2", "show")
            self.refused(NO_SERVER, "no leader .*no answer.*no answer.*within 200 ms", "--server",
                         f"tcp:{place},tcp:localhost:{listener.getsockname()[1]}", "--timeout", "0.2", "show")


class Tls(Folder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.authority = Authority(cls.folder / "pki")
        cls.stranger = Authority(cls.folder / "pki", "stranger")
        cls.client = cls.authority.issue("administrator", names=())
        cls.place = cls.serve("server", cls.authority.issue("server"))

    @classmethod
    def serve(cls, name, identity, *options):
        port = freePort()
        folder = cls.folder / name
        folder.mkdir()
        server = startServer(SCHEMA, folder, socketPath=folder / "sock",
                             options=[f"--remote=pssl:{port}:0.0.0.0", *identity.options(), *options])
        cls.addClassCleanup(server.stop)
        return f"ssl:127.0.0.1:{port}"

    def port(self):
        return self.place.rsplit(":", 1)[1]

    def test_rows_are_read_and_changed(self):
        words = ("--server", self.place, *self.client.options())
        # No warning: the interface is another machine's.
        self.assertRegex(self.ok(*words, "--no-wait", "rule", "add", "--in", "far0", "--accept"), r"^\d+\n$")
        self.assertIn("far0", self.ok("--server", f"ssl:localhost:{self.port()}", *self.client.options(), "show"))

    def test_much_goes_both_ways(self):
        rows = [{"Id": n, "RulePrio": n, "InInterface": f"p{n}", "Target": "ACCEPT"} for n in range(1001, 2001)]
        path = self.file("large.json", json.dumps({"MoatKeeperRuleset": rows}))
        words = ("--server", self.place, "--no-wait", *self.client.options())
        done = run(*words, "import", path)
        self.assertEqual(done.returncode, OK, done.stderr)
        self.assertGreaterEqual(len(json.loads(self.ok(*words, "export"))["MoatKeeperRuleset"]), 1000)

    def test_a_server_with_the_wrong_certificate(self):
        later = self.serve("expired", self.authority.issue("expired", expires=-60))
        self.refused(NO_SERVER, r"refused: its certificate \(CN=expired,.*has expired, its own is valid until ",
                     "--server", later, *self.client.options(), "show")
        for name, identity, pattern in (
                ("stranger", self.stranger.issue("guest"), r"is not of the CA in \S*authority.pem: "),
                ("elsewhere", self.authority.issue("elsewhere", names=("DNS:127.0.0.1", "DNS:a.example", "IP:192.0.2.9")),
                 r"is for DNS:127.0.0.1, DNS:a.example, IP Address:192.0.2.9, expected \"127.0.0.1\""),
                ("nameless", self.authority.issue("127.0.0.1", names=()), "is for none, expected")):
            place = self.serve(name, identity, f"--ca-cert={self.authority.certificate}")
            self.refused(NO_SERVER, f"^moatctl: {re.escape(place)} refused: its certificate .* {pattern}",
                         "--server", place, *self.client.options(), "show")

    def test_a_client_whom_the_server_refuses(self):
        ca = f"--ca-cert={self.authority.certificate}"
        self.refused(NO_SERVER, "does not accept a client without a certificate .*expected --certificate",
                     "--server", self.place, ca, "show")
        guest = self.stranger.issue("intruder", names=())
        self.refused(NO_SERVER, r"does not accept the certificate in \S*intruder.pem: unknown CA", "--server", self.place,
                     f"--private-key={guest.privateKey}", f"--certificate={guest.certificate}", ca, "show")

    def test_files_that_cannot_be_used(self):
        key, certificate, ca = self.client.options()
        other = self.authority.issue("other", names=())
        late = self.authority.issue("late", names=(), expires=-60)
        shown = self.file("shown.key", self.client.privateKey.read_text(), 0o644)
        for words, pattern in (
                ((key, certificate), "--ca-cert is missing: expected the certificate of the CA"),
                ((ca, key), "--certificate is missing: expected that of --private-key"),
                ((ca, certificate), "--private-key is missing: expected the key of --certificate"),
                ((f"--ca-cert={self.folder}/none", key, certificate), '--ca-cert ".*/none": No such file'),
                ((f"--ca-cert={shown}", key, certificate), '--ca-cert ".*shown.key": .*expected certificates in PEM'),
                ((ca, key, "--certificate=/dev/null"), '--certificate "/dev/null": .*expected a certificate in PEM'),
                ((ca, certificate, f"--private-key={other.privateKey}"),
                 r'--private-key ".*other.key": does not fit, expected the key of \S*administrator.pem'),
                ((ca, certificate, f"--private-key={shown}"),
                 '--private-key ".*shown.key": everybody on this machine may use it, expected'),
                ((ca, f"--certificate={late.certificate}", f"--private-key={late.privateKey}"),
                 '--certificate ".*late.pem": expired on .*, expected one that is valid'),
                ((ca, certificate, f"--private-key={self.folder}/none"), '--private-key ".*/none": No such file')):
            self.refused(BAD_INPUT, f"^moatctl: {pattern}", "--server", self.place, *words, "show")

    def test_no_tls_there(self):
        port = freePort()
        folder = self.folder / "plain"
        folder.mkdir()
        server = startServer(SCHEMA, folder, socketPath=folder / "sock", options=[f"--remote=ptcp:{port}:127.0.0.1"])
        self.addCleanup(server.stop)
        self.refused(NO_SERVER, f"ssl:127.0.0.1:{port}.* (TLS|no answer)", "--server", f"ssl:127.0.0.1:{port}",
                     *self.client.options(), "--timeout", "1", "show")

    def test_old_protocols_are_not_spoken(self):
        port = freePort()
        identity = self.authority.issue("old")
        server = subprocess.Popen(["openssl", "s_server", "-accept", str(port), "-tls1_1", "-cipher", "ALL:@SECLEVEL=0",
                                   "-key", identity.privateKey, "-cert", identity.certificate, "-quiet"],
                                  stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                  preexec_fn=sandbox.dieWithParent)
        self.addCleanup(server.wait)
        self.addCleanup(server.kill)
        waiting.until(lambda: f":{port:04X} " in pathlib.Path("/proc/net/tcp6").read_text(), "the server")
        self.refused(NO_SERVER, "does not (speak TLS 1.2|accept)", "--server", f"ssl:127.0.0.1:{port}", *self.client.options(), "show")


class Databases(Folder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        schema = writeSchema(cls.folder / "schema", "moatkeeper_plant2")
        file = cls.folder / "plant2.db"
        subprocess.run(["ovsdb-tool", "create", file, schema], check=True)
        (cls.folder / "one").mkdir()
        (cls.folder / "two").mkdir()
        cls.one, cls.two = cls.folder / "one/sock", cls.folder / "two/sock"
        cls.addClassCleanup(startServer(schema, cls.folder / "one", socketPath=cls.one).stop)
        cls.addClassCleanup(startServer(SCHEMA, cls.folder / "two", socketPath=cls.two, options=[str(file)]).stop)

    def test_the_only_one_is_taken(self):
        words = ("--server", self.one, "--no-wait")
        self.assertEqual(run(*words, "rule", "add", "--in", "eth0", "--drop").returncode, OK)
        self.assertIn("eth0", self.ok("--server", self.one, "show", "rule"))
        self.assertIn("rule add", self.ok("--server", self.one, "history"))

    def test_between_two_somebody_must_choose(self):
        self.refused(NO_SERVER, 'several databases, expected one of "moatkeeper", "moatkeeper_plant2"; --database NAME says',
                     "--server", self.two, "show")
        words = ("--server", self.two, "--database", "moatkeeper_plant2")
        self.assertEqual(run(*words, "--no-wait", "rule", "add", "--in", "eth7", "--drop").returncode, OK)
        self.assertIn("eth7", self.ok(*words, "show", "rule"))
        self.assertNotIn("eth7", self.ok("--server", self.two, "--database=moatkeeper", "show"))
        self.refused(NO_SERVER, 'has no database "moatkeeper_x", it has "moatkeeper", "moatkeeper_plant2"', "--server",
                     self.two, "--database", "moatkeeper_x", "show")


class Settings(Folder):
    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.addClassCleanup(startServer(SCHEMA, cls.folder, socketPath=cls.folder / "sock").stop)
        cls.socket = f"unix:{cls.folder}/sock"

    def test_the_nearer_one_counts(self):
        user = self.folder / "home/.config/moatkeeper"
        user.mkdir(parents=True)
        machine = pathlib.Path("/etc/moatkeeper")
        if not machine.exists():
            machine.mkdir()
            self.addCleanup(machine.rmdir)
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", machine], check=True)
        self.addCleanup(subprocess.run, ["umount", machine], check=True)
        home = {"HOME": str(self.folder / "home")}
        absent = lambda name: f"unix:{self.folder}/{name}"
        reached = lambda name, *words, **environment: self.refused(
            NO_SERVER, f"no configuration server at {self.folder}/{name}:", *words, "show",
            environment={**home, **environment})
        (machine / "moatctl.conf").write_text(f"# of this machine\nserver = {absent('machine')}\ntimeout=3\n")
        reached("machine")
        (user / "moatctl.conf").write_text(f"; mine\nserver={absent('user')}\n")
        reached("user")
        reached("variable", MOATCTL_SERVER=absent("variable"))
        reached("option", "--server", absent("option"), MOATCTL_SERVER=absent("variable"))
        reached("file", "--settings", self.file("own", f'server = "{absent("file")}"\n'))
        reached("variable", "--settings", self.folder / "own", MOATCTL_SERVER=absent("variable"))
        self.ok("--server", self.socket, "show", environment=home)
        (machine / "moatctl.conf").write_text("servers = x\n")
        self.refused(BAD_INPUT, '^moatctl: /etc/moatkeeper/moatctl.conf: unknown setting "servers", expected server, '
                                'private-key, certificate, ca-cert, database or timeout$', "show", environment=home)
        self.assertEqual(run("--help", environment=home).returncode, OK)

    def test_several_servers_stand_on_a_line(self):
        path = self.file("several", "server = unix:/nowhere/a,unix:/nowhere/b\ntimeout = 0.2\n")
        self.refused(NO_SERVER, "no leader .*/nowhere/a: .*/nowhere/b: .*within 200 ms", "--settings", path, "show")

    def test_what_cannot_be_used(self):
        for text, pattern in (("timeout = soon\n", ', timeout "soon": expected seconds'),
                              ("server = tcp:x\n", ', server "tcp:x": expected unix:PATH'),
                              ("server =\n", ": server has no value, expected ENDPOINT"),
                              ("server = unix:/a\nserver = unix:/b\n", ": server "),
                              ("[rule]\nin = eth0\n", r': unknown setting "\[rule\]"'),
                              ("insecure-tcp = true\n", ': unknown setting "insecure-tcp"'),
                              ("\x01\xff", ": ")):
            path = self.file("wrong", text)
            self.refused(BAD_INPUT, f"^moatctl: {path}{pattern}", "--settings", path, "show")
        self.refused(BAD_INPUT, "/none: No such file.*expected a file of settings", "--settings", self.folder / "none", "show")
        path = self.file("open", f"server = {self.socket}\n", 0o666)
        self.refused(BAD_INPUT, f"^moatctl: {path}: everybody may write to it", "--settings", path, "show")
        os.chmod(path, 0o600)
        os.chown(path, 1234, 1234)
        self.refused(BAD_INPUT, f"^moatctl: {path}: belongs to user 1234, expected 0", "--settings", path, "show")
        self.refused(BAD_INPUT, 'MOATCTL_TIMEOUT "x": expected seconds', "show", environment={"MOATCTL_TIMEOUT": "x"})


class Cutter:
    """Stands between moatctl and a server, and cuts connections when a transaction comes by: as `plan` says, one word for
    each, "before" the server has it, or "after" it has answered, which moatctl is not told; "end": likewise, and nobody
    is there any more. Or a word "twice": the server has done it already when it comes, as a cluster does that lost its
    leader meanwhile and tries again; "canceled": it says what a relay says that lost its own server, and "done" likewise,
    but the transaction is done."""

    def __init__(self, path, plan):
        self._path, self.plan = str(path), list(plan)
        self.meanwhile = lambda: None  # called at each cut
        self._listener = socket.create_server(("127.0.0.1", 0))
        self.place = f"tcp:127.0.0.1:{self._listener.getsockname()[1]}"
        threading.Thread(target=self._accept, daemon=True).start()

    def _accept(self):
        while True:
            try:
                client, _ = self._listener.accept()
            except OSError:
                return
            threading.Thread(target=self._serve, args=(client,), daemon=True).start()

    def _serve(self, client):
        with client, socket.socket(socket.AF_UNIX) as server:
            server.connect(self._path)
            while True:
                ready, _, _ = select.select([client, server], [], [])
                for end, other in ((client, server), (server, client)):
                    if end not in ready:
                        continue
                    data = end.recv(65536)
                    cut = self.plan.pop(0) if end is client and b'"transact"' in data and self.plan else ""
                    if cut in ("twice", "done"):
                        with socket.socket(socket.AF_UNIX) as first:
                            first.connect(self._path)
                            first.sendall(data)
                            first.recv(65536)
                    if cut in ("done", "canceled"):
                        number = int(re.search(rb'"id": *(\d+)', data)[1])
                        client.sendall(json.dumps({"id": number, "result": None, "error": "canceled"}).encode())
                        continue
                    if cut == "twice":
                        cut = ""
                    if data and cut != "before":
                        other.sendall(data)
                    if cut in ("after", "end"):
                        server.recv(65536)
                    if cut == "end":
                        self.close()
                    if cut:
                        self.meanwhile()
                    if cut or not data:
                        return

    def close(self):
        if self._listener.fileno() >= 0:
            self._listener.shutdown(socket.SHUT_RDWR)
            self._listener.close()


class CutOff(Folder):
    """A change whose answer is lost: is it stored?"""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.socket = cls.folder / "sock"
        cls.server = startServer(SCHEMA, cls.folder, socketPath=cls.socket)
        cls.addClassCleanup(cls.server.stop)

    def cutter(self, *plan):
        cutter = Cutter(self.socket, plan)
        self.addCleanup(cutter.close)
        return cutter

    def interfaces(self):
        rows = json.loads(self.ok("--server", self.socket, "export"))["MoatKeeperRuleset"]
        return [row["InInterface"] for row in rows]

    def test_the_change_is_made_once(self):
        for number, plan in enumerate((("after",), ("before",), ("before", "after"), ("before", "before", "before"),
                                       ("canceled",), ("done",), ("canceled", "twice"))):
            cutter = self.cutter(*plan)
            name = f"once{number}"
            done = run("--server", cutter.place, "--no-wait", "rule", "add", "--in", name, "--accept", "--force")
            self.assertEqual(done.returncode, OK, f"{plan}: {done.stderr}")
            self.assertRegex(done.stdout, r"^\d+\n$", "its Id is told once")
            self.assertEqual(cutter.plan, [])
            self.assertEqual(self.interfaces().count(name), 1, plan)
        history = self.ok("--server", self.socket, "history", "--format=csv", "--no-headings")
        for number in range(7):
            self.assertEqual(history.count(f"--in once{number} "), 1, history)

    def test_the_server_makes_it_twice(self):
        """What it says of the second time is not what became of the change."""
        cutter = self.cutter()

        def rule(*words):
            done = run("--server", cutter.place, "--no-wait", "rule", *words)
            self.assertEqual((done.returncode, cutter.plan), (OK, []), done.stderr)
            return done.stdout.strip()
        rule("add", "--in", "before", "--accept", "--force")  # there are things to rely on
        cutter.plan.append("twice")
        number = rule("add", "--in", "twice", "--accept", "--force")
        self.assertEqual(self.interfaces().count("twice"), 1)
        for verb in ("disable", "remove"):
            cutter.plan.append("twice")
            rule(verb, number)
        self.assertEqual(self.interfaces().count("twice"), 0)
        history = self.ok("--server", self.socket, "history", "--format=csv", "--no-headings")
        self.assertEqual(sum(f" {verb} {number}" in history for verb in ("disable", "remove")), 2, history)

    def test_what_others_do_meanwhile_is_theirs(self):
        """Somebody makes the same change between the two attempts: there are two rows then, one of each."""
        for plan in ("before", "after"):
            cutter = self.cutter(plan)
            words = ("--no-wait", "rule", "add", "--in", f"both-{plan}", "--accept", "--force")
            others = []
            cutter.meanwhile = lambda: others.append(run("--server", self.socket, *words))
            done = run("--server", cutter.place, *words)
            self.assertEqual((done.returncode, others[0].returncode), (OK, OK), done.stderr + others[0].stderr)
            self.assertNotEqual(done.stdout, others[0].stdout)
            self.assertEqual(self.interfaces().count(f"both-{plan}"), 2)

    def test_what_cannot_be_known_is_told(self):
        cutter = self.cutter("end")
        self.refused(NO_SERVER, "it is not known whether the change was stored", "--server", cutter.place, "--timeout", "1",
                     "--no-wait", "rule", "add", "--in", "unknown", "--accept", "--force")
        self.assertEqual(self.interfaces().count("unknown"), 1)

class Leaders(Folder):
    """A cluster of three that loses its leader."""

    def start(self, name, **options):
        made = Cluster(self.folder / name, **options)
        self.addCleanup(made.stop)
        return made

    def rows(self, words):
        return sorted(row["InInterface"] for row in json.loads(self.ok(*words, "export"))["MoatKeeperRuleset"])

    def edits_while_leaders_die(self, servers, words):
        """Each kill falls at another moment of an edit."""
        stored, unknown, numbers = [], [], []
        for round_ in range(KILLS):
            leader = servers.leader()
            killer = threading.Timer(0.005 + 0.011 * (round_ % 7), servers.servers[leader].stop, [signal.SIGKILL])
            killer.start()
            while killer.is_alive() or len(stored) < 3 * (round_ + 1):
                name = f"p{len(stored) + len(unknown)}"
                done = run("--timeout", "10", "--no-wait", *words, "rule", "add", "--in", name, "--drop", "--force")
                if done.returncode == OK:
                    stored.append(name)
                    numbers.append(int(done.stdout))
                else:
                    self.assertIn("not known whether the change was stored", done.stderr)
                    unknown.append(name)
            killer.join()
            servers.start(leader)
            servers.waitForMembers()
        rows = self.rows(words)
        self.assertEqual(len(set(rows)), len(rows), "none twice")
        self.assertEqual(set(stored) - set(rows), set(), "none lost")
        self.assertEqual(set(rows) - set(stored) - set(unknown), set())
        self.assertEqual(len(set(numbers)), len(numbers))
        self.assertEqual(unknown, [], "each could be found out")

    def test_edits_over_local_sockets(self):
        servers = self.start("local")
        self.edits_while_leaders_die(servers, ("--server", servers.endpoints))

    def test_edits_over_tls(self):
        authority = Authority(self.folder / "pki")
        servers = self.start("tls", identity=authority.issue("server"))
        words = ("--server", servers.endpoints, *authority.issue("administrator", names=()).options())
        self.edits_while_leaders_die(servers, words)

    def test_a_follower_is_not_used(self):
        servers = self.start("follower")
        followers = ",".join(servers.endpoint(n) for n in range(3) if n != servers.leader())
        self.refused(NO_SERVER, "no leader among the configuration servers: .*: does not lead; .*: does not lead", "--server",
                     followers, "--timeout", "0.3", "show")
        self.assertEqual(run("--server", followers.split(",")[0], "show").returncode, OK, "one alone is as wanted")

    def test_a_watch_goes_on(self):
        servers = self.start("watch")
        process = subprocess.Popen([MOATCTL, "--server", servers.endpoints, "--timeout", "2", "monitor"],
                                   stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.assertEqual(process.stderr.readline(), "watching the configuration\n")
        words = ("--server", servers.endpoints, "--no-wait", "rule", "add", "--drop", "--force", "--in")
        for number, how in ((1, signal.SIGKILL), (2, signal.SIGSTOP)):
            leader = servers.leader()
            begin = time.monotonic()
            servers.servers[leader]._process.send_signal(how)
            self.assertRegex(process.stderr.readline(), "; trying again$")
            self.assertRegex(process.stderr.readline(), "connected again$")
            self.assertLess(time.monotonic() - begin, 4)
            self.assertEqual(run(*words, f"p{number}").returncode, OK)
            self.assertIn(f'"p{number}"', process.stdout.readline())
            if how == signal.SIGSTOP:
                servers.servers[leader]._process.send_signal(signal.SIGCONT)
            else:
                servers.servers[leader].stop(signal.SIGKILL)
                servers.start(leader)
            servers.waitForMembers()

    def test_a_wait_goes_on(self):
        """What waits for a change to be in force hears of it from the next leader."""
        servers = self.start("wait")
        leader = servers.leader()
        device = {"op": "insert", "table": "MoatKeeperDevice", "row": {
            "Name": "device-1", "Number": 0, "InStep": 1, "Started": "2026-01-01T00:00:00Z", "Version": "1"}}
        connection = Config(servers.file(leader, "socket"))
        connection.transact(device)
        connection.close()
        process = subprocess.Popen([MOATCTL, "--server", servers.endpoints, "--timeout", "10", "rule", "add", "--in",
                                    "p1", "--drop", "--force"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.kill)
        self.assertEqual(process.stdout.readline(), "1\n")
        servers.servers[leader].stop(signal.SIGKILL)
        connection = Config(servers.file(servers.leader(), "socket"))
        (number,) = {row["Number"] for row in connection.select(CHANGE)}
        connection.transact({"op": "update", "table": "MoatKeeperDevice", "where": [], "row": {"Number": number}})
        connection.close()
        _, errors = process.communicate(timeout=20)
        self.assertEqual(process.returncode, OK, errors)


def prepare():
    """An address besides those of the loopback, and a name for it."""
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    subprocess.run(["ip", "address", "add", f"{ADDRESS}/32", "dev", "lo"], check=True)
    with tempfile.NamedTemporaryFile("w") as hosts:
        hosts.write(f"127.0.0.1 localhost\n::1 localhost\n{ADDRESS} centre\n")
        hosts.flush()
        subprocess.run(["mount", "--bind", hosts.name, "/etc/hosts"], check=True)


if __name__ == "__main__":
    prepare()
    main()
