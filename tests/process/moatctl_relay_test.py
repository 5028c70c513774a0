"""moatctl behind a relay that answers "canceled": it has passed a transaction on and lost its server, so that nobody knows
what became of it."""

import json
import pathlib
import select
import socket
import subprocess
import tempfile
import unittest

from moatctl_case import CONFLICT, MOATCTL, NO_SERVER, OK, main
from lab import config, devices, waiting
from lab.fake_server import FakeServer, Peer
from lab.programs import SCHEMA, startServer

WENT_BACK = 9
HISTORY = "it is not known whether the change was stored: if it was, moatctl history shows it"
PATIENCE = ("--timeout", "20")


class Relay:
    """plan: for each of the next transactions "done", when the server has done it, or "lost", when it never got it; both
    are answered with "canceled". "" is passed on."""

    def __init__(self, path, server):
        self.plan, self._server = [], str(server)
        self.fake = FakeServer(path, self._serve)

    def _serve(self, peer):
        with socket.socket(socket.AF_UNIX) as upstream:
            upstream.connect(self._server)
            server, done = Peer(upstream), set()
            while True:
                ready, _, _ = select.select([peer.connection, upstream], [], [])
                for side in (peer, server):
                    if side.connection in ready:
                        for message in self._messages(side):
                            self._passOn(message, side is peer, peer, server, done)

    def _messages(self, side):
        data = side.connection.recv(65536)
        if not data:
            raise EOFError
        side.text += data.decode()
        while side.text:
            try:
                message, end = json.JSONDecoder().raw_decode(side.text)
            except json.JSONDecodeError:
                return
            side.text = side.text[end:].lstrip()
            yield message

    def _passOn(self, message, isRequest, peer, server, done):
        if not isRequest and not message.get("method") and message["id"] in done:
            peer.send({"id": message["id"], "error": "canceled"})
            return
        fate = self.plan.pop(0) if isRequest and message["method"] == "transact" and self.plan else ""
        if fate == "lost":
            peer.send({"id": message["id"], "error": "canceled"})
            return
        if fate == "done":
            done.add(message["id"])
        (server if isRequest else peer).send(message)


class Canceled(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.socket, self.path = self.folder / "server", self.folder / "relay"
        self.addCleanup(startServer(SCHEMA, self.folder, socketPath=self.socket).stop)
        self.relay = Relay(self.path, self.socket)
        self.addCleanup(self.relay.fake.close)
        self.config = config.Config(self.socket)
        self.addCleanup(self.config.close)
        self.devices = devices.Followers(self.socket, ["device-1"])
        self.addCleanup(self.devices.stop)
        # One server alone, and several, of which another is looked for.
        self.alone = ("--server", self.path, *PATIENCE)
        self.several = ("--server", f"unix:{self.path},unix:{self.folder}/nobody", *PATIENCE)

    def run_(self, plan, *words, stdin=None):
        self.relay.plan = list(plan)
        done = subprocess.run([MOATCTL, *map(str, words)], input=stdin, capture_output=True, text=True, timeout=60)
        self.assertEqual(self.relay.plan, [], done.stderr)
        return done

    def unknown(self, plan, text, *words):
        done = self.run_(plan, *words)
        self.assertEqual((done.returncode, done.stdout), (NO_SERVER, ""), done.stderr)
        self.assertRegex(done.stderr, f"^moatctl: .*relay has lost the server behind it before that has answered; {text}\n$")

    def known(self, plan, *words, stdin=None):
        done = self.run_(plan, *words, stdin=stdin)
        self.assertEqual(done.returncode, OK, f"{plan} {words}: {done.stderr}")
        self.assertNotIn("cancel", done.stderr.replace("moatctl cancel", ""))
        return done.stdout

    def ports(self):
        return sorted(row["Interface"] for row in self.config.select(config.INPUT_POLICY))

    def test_a_change_through_one_relay_is_unknown(self):
        for number, fate in enumerate(("done", "lost")):
            self.unknown([fate], HISTORY, *self.alone, "policy", "add", "--in", f"p{number}", "--drop", "--force")
        self.assertEqual(self.ports(), ["p0"])

    def test_with_several_it_is_found_out(self):
        file = self.folder / "file.json"
        for number, plan in enumerate((["done"], ["lost"], ["lost", "done"])):
            add = ["policy", "add", "--in", f"a{number}", "--drop", "--force"]
            self.known(plan, *self.several, *add)
            self.known(plan, *self.several, "batch", "--force", stdin=f"policy add --in b{number} --drop\n")
            file.write_text(json.dumps({config.INPUT_POLICY: [{"Id": 1000 * (number + 1), "Interface": f"c{number}", "Policy": "DROP"}]}))
            self.known(plan, *self.several, "import", file, "--elsewhere")
            self.assertEqual(self.ports(), [name + str(n) for name in "abc" for n in range(number + 1)])
        self.known(["done"], *self.several, "undo")
        self.known(["lost"], *self.several, "undo")
        self.assertEqual(self.ports(), ["a0", "a1", "a2", "b0", "b1", "c0", "c1"], "the newest two")
        self.assertEqual(len(self.config.select("MoatKeeperHistory")), 11)

    def trial(self, plan=()):
        self.known(plan, *self.several, "policy", "add", "--in", "t", "--drop", "--force", "--confirm", "60")

    def test_the_end_of_a_trial(self):
        for verb, text in (("confirm", "is confirmed: moatctl show says if it waits yet"),
                           ("cancel", "is taken back: if it is, moatctl history shows that")):
            self.trial(["done"])
            (change,) = [row["Change"] for row in self.config.select("MoatKeeperTrial")]
            for fate in ("lost", "done"):
                self.unknown([fate], f"it is not known whether change {change} {text}", *self.several, verb)
            self.assertEqual(self.run_([], *self.several, verb).returncode, CONFLICT)
            self.assertEqual(self.ports(), ["t"] if verb == "confirm" else [])
            self.config.transact(config.delete(config.INPUT_POLICY))

    def test_settings_and_rows_of_devices(self):
        again = "it is not known whether that was stored: the same once more makes sure"
        for words in (("devices", "heartbeat", "30"), ("engine", "compiled")):
            for fate in ("lost", "done"):
                self.unknown([fate], again, *self.several, *words)
            self.known([], *self.several, *words)
        self.config.transact(config.insert(config.DEVICE, Name="old"))
        for fate in ("lost", "done"):
            self.unknown([fate], "it is not known whether that was done: moatctl devices shows those that are left",
                         *self.several, "devices", "forget", "old")
        self.assertEqual(self.run_([], *self.several, "devices", "forget", "old").returncode, CONFLICT)

    def rollOut(self, plan, server):
        file = self.folder / "change"
        file.write_text("policy add --in r --drop\n")
        return self.run_(plan, *server, "rollout", file, "--batch", "--force", "--step", "moatkeeper", "--settle", "0.1")

    def test_a_rollout_goes_on(self):
        """Its transactions: the change, its confirmation."""
        for plan in (["done"], ["lost"], ["", "done"], ["", "lost"], ["done", "lost", "done"]):
            done = self.rollOut(plan, self.several)
            self.assertEqual(done.returncode, OK, f"{plan}: {done.stdout}{done.stderr}")
            self.assertEqual((self.ports(), self.config.select("MoatKeeperTrial")), (["r"], []), plan)
            self.config.transact(config.delete(config.INPUT_POLICY))

    def test_or_back(self):
        """Through one socket nobody finds out what became of the change; only whether it is there."""
        for plan in (["done"], ["lost"], ["done", "done"], ["done", "lost"]):
            done = self.rollOut(plan, ("--server", self.path, "--timeout", "1"))
            self.assertEqual(done.returncode, WENT_BACK, f"{plan}: {done.stdout}{done.stderr}")
            self.assertIn(HISTORY, done.stdout)
            self.assertEqual((self.ports(), self.config.select("MoatKeeperTrial")), ([], []), plan)

    def test_what_expires_is_put_back_all_the_same(self):
        self.known([], *self.several, "policy", "add", "--in", "t", "--drop", "--force", "--confirm", "1")
        self.relay.plan = ["lost", "done"]
        process = subprocess.Popen([MOATCTL, *map(str, self.several), "expire"], stdout=subprocess.DEVNULL,
                                   stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.terminate)
        waiting.until(lambda: not self.ports(), "its end")


if __name__ == "__main__":
    main()
