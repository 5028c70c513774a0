"""A rollout while the leader of the cluster is killed, or a door of the centre restarts: it goes on or back, and leaves no
step half-way."""

import json
import os
import pathlib
import random
import signal
import subprocess
import tempfile
import time
import unittest

from lab import config, devices, sandbox, waiting

if __name__ == "__main__":
    sandbox.enterNetwork()

from moatctl_case import MOATCTL, OK, main
from lab.cluster import Cluster, writeSchema
from lab.programs import Program

WENT_BACK = 9
KILLS = int(os.environ.get("MOATKEEPER_ROLLOUT_KILLS", "1"))
SEED = int(os.environ.get("MOATKEEPER_SEED", random.randrange(1_000_000)))
GROUPS = ("moatkeeper_pilot", "moatkeeper_site")
MOMENTS = [(step, event) for step in (1, 2) for event in ("planned", "stored", "in_force", "confirmed")]


class Centre(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        folder = tempfile.TemporaryDirectory()
        cls.addClassCleanup(folder.cleanup)
        cls.folder = pathlib.Path(folder.name)
        cls.cluster = Cluster(cls.folder, schemas=[writeSchema(cls.folder / name, name) for name in GROUPS])
        cls.addClassCleanup(cls.cluster.stop)
        cls.sockets = [cls.cluster.file(number, "socket") for number in range(3)]
        for name in GROUPS:
            cls.addClassCleanup(devices.Followers(cls.sockets, [f"{name}-1", f"{name}-2"], database=name).stop)
        cls.random = random.Random(SEED)
        cls.wanted = 0  # counts the rollouts: each has another row

    def rows(self, name):
        """Of the group, by the leader."""
        def read():
            connection = config.Config(self.sockets[self.cluster.leader(name)], database=name)
            try:
                return [[row["Interface"] for row in connection.select(config.INPUT_POLICY)],
                        connection.select("MoatKeeperTrial")]
            except (OSError, config.Refused):
                return None
            finally:
                connection.close()
        return waiting.until(read, f"the rows of {name}")

    def start(self, server):
        type(self).wanted += 1
        file = self.folder / "change.json"
        file.write_text(json.dumps({config.INPUT_POLICY: [{"Id": 1, "Interface": f"p{self.wanted}", "Policy": "DROP"}]}))
        steps = [word for name in GROUPS for word in ("--step", name)]
        return subprocess.Popen([MOATCTL, "--server", server, "--timeout", "10", "rollout", file, "--force", *steps, "--settle",
                                 "0.3", "--format=json"], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def disturb(self, server, trouble):
        """trouble: of the step's group, at a random moment; returns what ends it."""
        moment, pause = self.random.choice(MOMENTS), self.random.random() * 0.1
        before = [self.rows(name)[0] for name in GROUPS]
        process = self.start(server)
        self.addCleanup(process.kill)
        told, mend = "", None
        for line in process.stdout:
            told += line
            event = json.loads(line)
            if (event["step"], event["event"]) == moment and not mend:
                time.sleep(pause)
                mend = trouble(GROUPS[event["step"] - 1])
        errors = process.stderr.read()
        process.stdout.close()
        process.stderr.close()
        status = process.wait(timeout=60)
        mend()
        self.cluster.waitForMembers()
        what = f"seed {SEED}, rollout {self.wanted}, {moment}, {pause:.3f} s:\n{told}{errors}"
        self.assertIn(status, (OK, WENT_BACK), what)
        expected = [[f"p{self.wanted}"]] * 2 if status == OK else before
        self.assertEqual([self.rows(name) for name in GROUPS], [[rows, []] for rows in expected], what)
        return status

    def killLeader(self, name):
        leader = self.cluster.leader(name)
        self.cluster.servers[leader].stop(signal.SIGKILL)
        return lambda: self.cluster.start(leader)

    def test_leaders_that_are_killed(self):
        ended = [self.disturb(self.cluster.endpoints, self.killLeader) for _ in range(KILLS)]
        print(f"{ended.count(OK)} went on, {ended.count(WENT_BACK)} back")

    def door(self, number):
        path, servers = self.folder / f"door{number}", ",".join(f"unix:{socket}" for socket in self.sockets)
        path.unlink(missing_ok=True)
        door = Program(["ovsdb-server", "-vconsole:off", "-vsyslog:off", "--no-chdir", f"--remote=punix:{path}",
                        f"--unixctl={path}.control", *(f"relay:{name}:{servers}" for name in GROUPS)], f"{path}.log")
        self.addCleanup(lambda: door.isRunning() and door.stop(signal.SIGKILL))
        return door

    def test_doors_that_restart(self):
        """One of two, and the leader as well: what the door has passed on is answered by nobody."""
        doors = [self.door(number) for number in range(2)]
        server = ",".join(f"unix:{self.folder}/door{number}" for number in range(2))
        waiting.until(lambda: subprocess.run([MOATCTL, "--server", server, "--database", GROUPS[0], "show"], check=False,
                                             capture_output=True).returncode == OK, "the doors")
        both = [True]

        def restart(name):
            number = self.random.randrange(2)
            doors[number].stop(signal.SIGKILL)
            mend = self.killLeader(name) if both[0] else lambda: None
            doors[number] = self.door(number)
            return mend
        ended = []
        for round_ in range(KILLS):
            both[0] = round_ % 2 == 0
            ended.append(self.disturb(server, restart))
        print(f"{ended.count(OK)} went on, {ended.count(WENT_BACK)} back")


if __name__ == "__main__":
    main()
