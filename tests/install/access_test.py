"""What the members of the two groups may do, what an unprivileged user can do to the services, and that their capabilities
are the least that works: each claim of docs/security.md, on a machine of its own with a service manager.

usage: access_test.py CMAKE BUILD_FOLDER [unittest arguments]
"""

import os
import re
import sys
import unittest

from lab import kernel, service_manager, waiting
from lab.programs import SCHEMA, SOCKET

DAEMON, SERVER, CREATE = "moatkeeper.service", "moatkeeper-db.service", "moatkeeper-db-create.service"
METRICS, METRICS_FILE = "moatkeeper-metrics.service", "/run/moatkeeper-metrics/moatkeeper.prom"
FOLDER = "/run/moatkeeper-db"
CHANGE, READ = service_manager.SERVER_SOCKET, f"{FOLDER}/read/socket"
STRANGER = "4000"
CLOSED, OPEN = kernel.expected(FORWARD=("DROP",)), kernel.expected()
# Holds a path with a socket of its own, and answers nobody.
SQUAT = ("import os, socket, time; s = socket.socket(socket.AF_UNIX); s.bind('{0}'); os.chmod('{0}', 0o777); s.listen(); "
         "time.sleep(1000)")


class Access(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.machine = MACHINE
        for unit in (DAEMON, SERVER, CREATE):
            cls.machine.change(unit, "")
        cls.machine.boot()

    def setUp(self):
        self.restart(SERVER, DAEMON)
        kernel.waitFor(OPEN)

    def tearDown(self):
        self.machine.run("systemctl", "stop", DAEMON, SERVER)

    def restart(self, *units):
        self.machine.run("systemctl", "restart", *units)
        if SERVER in units:
            waiting.until(lambda: self.machine.path(CHANGE).exists(), lambda: self.machine.readOutput()[-2000:])

    def change(self, unit, settings):
        """Until the end of the test."""
        self.machine.change(unit, settings)
        self.machine.run("systemctl", "daemon-reload")
        if settings:
            self.addCleanup(self.change, unit, "")

    def asUser(self, *words, group=None):
        """Status and whole output of a program of a user who has that group besides."""
        groups = f"--groups={group}" if group else "--clear-groups"
        words = ["setpriv", f"--reuid={STRANGER}", f"--regid={STRANGER}", groups, "--", *words]
        output = self.machine.run("sh", "-c", '"$@" 2>&1; echo "status $?"', "sh", *words)
        text, _, status = output.rstrip().rpartition("status ")
        return int(status), text

    def assertRefused(self, pattern, *words, group=None):
        status, text = self.asUser(*words, group=group)
        self.assertNotEqual(status, 0, text)
        self.assertRegex(text, pattern)

    def assertAllowed(self, *words, group=None):
        status, text = self.asUser(*words, group=group)
        self.assertEqual(status, 0, text)
        return text

    # The groups.

    def testMembersChangeTheConfiguration(self):
        self.assertAllowed("moatctl", "global", "set", "--forward", "DROP", group="moatkeeper")
        self.assertEqual(kernel.readTables(), CLOSED)
        self.assertAllowed("moatctl", "global", "set", "--forward", "ACCEPT", group="moatkeeper")

    def testMembersChangeNothingElseOfTheServer(self):
        access = ('["access", {"op": "update", "table": "Remote", "where": [], "row": {"read_only": false}}]',
                  '["access", {"op": "insert", "table": "Remote", "row": {"target": "ptcp:6640"}}]',
                  '["access", {"op": "delete", "table": "Access", "where": []}]')
        for change in access:
            self.assertIn("permission error", self.assertAllowed("ovsdb-client", "transact", f"unix:{SOCKET}", change,
                                                                 group="moatkeeper"))
        self.assertRefused("only the root role may convert", "ovsdb-client", "convert", f"unix:{SOCKET}", "/mnt/schema",
                           group="moatkeeper")
        self.assertRefused("Permission denied", "ovs-appctl", f"--target={FOLDER}/control/ctl", "exit", group="moatkeeper")
        self.assertRefused("Permission denied", "cat", "/var/lib/moatkeeper/moatkeeper.db", group="moatkeeper")

    def testReadersRead(self):
        shown = self.assertAllowed("moatctl", "--server", READ, "show", group="moatkeeper-read")
        self.assertIn("ACCEPT", shown)
        self.assertAllowed("moatctl", "--server", READ, "export", group="moatkeeper-read")

    def testReadersChangeNothing(self):
        self.assertRefused("read only mode", "moatctl", "--server", READ, "global", "set", "--forward", "DROP",
                           group="moatkeeper-read")
        self.assertRefused("only the root role may convert", "ovsdb-client", "convert", f"unix:{READ}", "/mnt/schema",
                           group="moatkeeper-read")
        self.assertRefused("not allowed to use the configuration server", "moatctl", "show",
                           group="moatkeeper-read")
        self.assertEqual(kernel.readTables(), OPEN)

    def testOthersMayNothing(self):
        for path in (SOCKET, READ):
            self.assertRefused("not allowed to use the configuration server", "moatctl", "--server", path, "show")
        daemon = self.machine.show(DAEMON, "MainPID")
        for command in (f"kill {daemon}", f"systemctl --no-ask-password stop {DAEMON}", "nft flush ruleset"):
            self.assertRefused("not permitted|denied|required|Failed to connect", "sh", "-c", command, group="moatkeeper")
        self.assertEqual(self.machine.show(DAEMON, "MainPID"), daemon)

    # The socket's path.

    def testNobodyElseTakesThePath(self):
        def tryAll():
            for command in (f"mkdir {SOCKET}", f"rm {SOCKET}", f"mv {SOCKET} /tmp/other", f"ln -sfn /tmp/mine {SOCKET}",
                            f"mkdir {CHANGE}", f"touch {FOLDER}/change/other", f"touch {FOLDER}/other",
                            f"mkdir -p /run/moatkeeper/other"):
                for group in (None, "moatkeeper"):
                    status, text = self.asUser("sh", "-c", command, group=group)
                    self.assertNotEqual(status, 0, f"{command}: {text}")
            self.assertRefused("Address already in use|Permission denied", "python3", "-c", SQUAT.format(SOCKET))
        tryAll()
        self.machine.run("systemctl", "stop", SERVER)
        tryAll()

    def put(self, how):
        """Something of a stranger's in the place of the path, as if the machine had been without us."""
        self.machine.run("systemctl", "stop", DAEMON, SERVER)
        self.machine.run("rm", "-f", SOCKET)
        self.assertAllowed("sh", "-c", how)

    def testWhatWasInThePathIsMovedAside(self):
        for what, how in (("directory", f"mkdir -m 700 {SOCKET} && touch {SOCKET}/file"),
                          ("symbolic link", f"ln -s /etc/passwd {SOCKET}"),
                          ("socket", f"timeout 0.5 python3 -c \"{SQUAT.format(SOCKET)}\"; true"),
                          ("regular file", f"echo mine >{SOCKET}")):
            with self.subTest(what):
                self.put(how)
                self.restart(SERVER, DAEMON)
                self.machine.run("moatctl", "global", "set", "--forward", "DROP")
                self.machine.run("moatctl", "global", "set", "--forward", "ACCEPT")
                told = re.findall(rf"{SOCKET} was a {what} of user \S+, which is (\S+) now", self.machine.readOutput())[-1:]
                self.assertEqual(len(told), 1, self.machine.readOutput())
                self.assertTrue(self.machine.run("stat", "-c", "%F %u", told[0]).startswith(f"{what} {STRANGER}"))

    def testAServerOfAnotherUserIsRefused(self):
        self.refuseServer(SOCKET, "")

    def testAndSoItIsBehindALink(self):
        self.refuseServer("/tmp/mine", f"ln -s /tmp/mine {SOCKET};")

    def refuseServer(self, place, before):
        self.put(f"{before} python3 -c \"{SQUAT.format(place)}\" >/dev/null 2>&1 &")
        waiting.until(lambda: self.machine.path(place).exists(), "the stranger's socket")
        self.change(SERVER, "ExecStart=\nExecStart=/bin/false\n")
        self.change(CREATE, "ExecStart=\nExecStart=/bin/true\n")
        try:
            self.addCleanup(self.machine.run, "rm", "-f", SOCKET, "/tmp/mine")
            refused = f"socket {SOCKET} refused: it is served by user {STRANGER}"
            already = self.machine.readOutput().count(refused)
            self.machine.run("systemctl", "--no-block", "restart", DAEMON)
            waiting.until(lambda: self.machine.readOutput().count(refused) > already, "the daemon's refusal")
            self.assertIn(refused, self.machine.run("sh", "-c", "moatctl show 2>&1; true"))
        finally:
            self.machine.run("setpriv", f"--reuid={STRANGER}", "--clear-groups", "sh", "-c", "kill -KILL -1",
                             check=False)

    # What a collector is told.

    def metrics(self):
        """{sample: value} of those without labels, as a stranger reads them."""
        self.machine.run("systemctl", "start", METRICS)
        text = self.assertAllowed("cat", METRICS_FILE)
        self.assertTrue(text.endswith("# EOF\n"), text)
        return dict(line.split() for line in text.splitlines() if not line.startswith("#") and "{" not in line)

    def testMetricsAreWrittenForEverybody(self):
        self.machine.change(METRICS, "")
        self.machine.run("systemctl", "daemon-reload")
        found = self.metrics()
        self.assertEqual([found[f"moatkeeper_{name}"] for name in ("server_up", "kernel_readable", "daemon_running")],
                         ["1", "1", "1"], self.machine.readOutput())
        self.assertIn("moatkeeper_last_commit_timestamp_seconds", found)
        self.machine.run("systemctl", "stop", DAEMON, SERVER)
        found = self.metrics()
        self.assertEqual([found[f"moatkeeper_{name}"] for name in ("server_up", "kernel_readable", "daemon_running")],
                         ["0", "1", "0"], self.machine.readOutput())

    def testTheTimerHasThemWritten(self):
        self.machine.run("rm", "-rf", METRICS_FILE)
        self.machine.run("systemctl", "start", "moatkeeper-metrics.timer")
        self.addCleanup(self.machine.run, "systemctl", "stop", "moatkeeper-metrics.timer")
        waiting.until(lambda: self.machine.path(METRICS_FILE).exists(), lambda: self.machine.readOutput()[-2000:])

    def testMetricsNeedTheirCapability(self):
        self.assertEqual(self.without(METRICS, "CAP_NET_ADMIN"), 1)
        self.assertEqual(self.metrics()["moatkeeper_kernel_readable"], "0")

    # Capabilities: with one less it does not work.

    def without(self, unit, capability):
        """The unit's capabilities but that one, from its next start to the end of the test."""
        all_ = self.machine.show(unit, "CapabilityBoundingSet").upper().split()
        self.assertIn(capability, all_)
        rest = " ".join(name for name in all_ if name != capability)
        self.change(unit, f"CapabilityBoundingSet=\nCapabilityBoundingSet={rest}\n")
        return len(all_)

    def testTheServerHasNone(self):
        self.assertEqual(self.machine.show(SERVER, "CapabilityBoundingSet"), "")

    def testTheDaemonNeedsItsOne(self):
        self.assertEqual(self.without(DAEMON, "CAP_NET_ADMIN"), 1)
        self.machine.run("systemctl", "stop", DAEMON)
        self.machine.run("systemctl", "--no-block", "restart", DAEMON)
        waiting.until(lambda: "Operation not permitted" in self.machine.readOutput(), lambda: self.machine.readOutput())
        self.assertEqual(kernel.readTables(), kernel.untouched())

    def testTheCreationNeedsItsTwo(self):
        self.assertEqual(self.without(CREATE, "CAP_CHOWN"), 2)
        self.machine.run("rm", "-rf", FOLDER)
        self.machine.run("systemctl", "start", CREATE, check=False)
        self.assertEqual(self.machine.show(CREATE, "Result"), "exit-code")

        self.change(CREATE, "")
        self.without(CREATE, "CAP_FSETID")
        self.restart(SERVER)
        self.assertRefused("not allowed to use the configuration server", "moatctl", "show", group="moatkeeper")



if __name__ == "__main__":
    BUILD = os.path.realpath(sys.argv[2])
    MACHINE = service_manager.enter(sys.argv[1], BUILD)
    try:
        MACHINE.write("/mnt/schema", open(SCHEMA, encoding="utf-8").read())
        unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
    finally:
        MACHINE.close()
