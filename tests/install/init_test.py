"""The init script for devices without systemd, as it is installed.

usage: init_test.py CMAKE BUILD_FOLDER
"""

import os
import pathlib
import re
import subprocess
import sys
import unittest

from lab import cluster, config, kernel, programs, sandbox, waiting
from lab.certificates import Authority
from lab.stream import ALLOWED, FORBIDDEN, TimedStream, makeBridge

SCRIPT = "/usr/local/share/moatkeeper/moatkeeper.init"
FILES = {"moatkeeper": "/run/moatkeeper/moatkeeper.pid", "ovsdb-server": "/run/moatkeeper-db/control/pid"}
MAC = ALLOWED.hex(":")
WANTED = kernel.expected(INPUT=("DROP",), FORWARD=("DROP",), UserForwardRules=[f"-s {MAC} -i in -o out -j ACCEPT"])


def script(action):
    return subprocess.run([SCRIPT, action], capture_output=True, text=True, timeout=60, check=False,
                          stdin=subprocess.DEVNULL)


def processes():
    return {name: int(pathlib.Path(file).read_text(encoding="ascii")) for name, file in FILES.items()}


class InitScript(unittest.TestCase):
    def run_(self, action, status=0):
        done = script(action)
        self.assertEqual(done.returncode, status, f"{action}: {done.stdout}{done.stderr}")
        return done.stdout + done.stderr

    def setUp(self):
        self.addCleanup(script, "stop")
        self.assertEqual(self.run_("start"), "")
        connection = config.Config()
        connection.replace({
            config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "DROP"}],
            config.RULES: [{"Id": 1, "RulePrio": 10, "InInterface": "in", "OutInterface": "out", "SrcMAC": MAC,
                            "Target": "ACCEPT"}]})
        connection.close()
        kernel.waitFor(WANTED)

    def testStartAndStop(self):
        before = processes()
        for name, process in before.items():
            self.assertIn(f"{name} runs, process {process}", self.run_("status"))
        self.run_("start")
        self.assertEqual(processes(), before, "what runs is left alone")
        self.run_("stop")
        self.assertEqual(kernel.readTables(), kernel.untouched())
        self.run_("status", 3)
        self.run_("stop")
        self.run_("start")
        self.assertEqual(kernel.readTables(), WANTED, "started means in force")

    def testARestartKeepsTheRules(self):
        before = processes()
        with TimedStream(ALLOWED, FORBIDDEN) as stream:
            waiting.until(lambda: stream.received, "frames")
            self.run_("restart")
            self.run_("force-reload")
        self.assertFalse(set(processes().values()) & set(before.values()))
        self.assertEqual([number for number in stream.received if stream.source(number) == FORBIDDEN], [])
        self.assertEqual([number for number in range(len(stream.sent))
                          if stream.source(number) == ALLOWED and number not in stream.received], [])
        self.assertEqual(kernel.readTables(), WANTED)

    def testAReload(self):
        before = processes()
        self.run_("reload")
        self.run_("status")
        self.assertEqual(processes(), before)
        self.run_("stop")
        self.run_("reload", 1)

    def testAKill(self):
        os.kill(processes()["moatkeeper"], 9)
        waiting.until(lambda: script("status").returncode == 1, "the daemon's end in the status")
        self.run_("start")
        self.run_("status")
        self.assertEqual(kernel.readTables(), WANTED)

    def testARelayOfCentralServers(self):
        folder, group = "/tmp/centre", "moatkeeper_office"
        servers, devices = Authority(folder, "servers"), Authority(folder, "devices")
        centre, device = servers.issue("centre"), devices.issue("device", names=())
        server = programs.startServer(
            cluster.writeSchema(f"{folder}/schema", group), folder, socketPath=f"{folder}/socket",
            options=["--remote=pssl:6640:127.0.0.1", *centre.options()[:2], f"--ca-cert={devices.certificate}"])
        self.addCleanup(server.stop)
        connection = config.Config(f"{folder}/socket")
        connection.database = group
        connection.insert(config.MAIN, GlobalInputPolicy="ACCEPT", GlobalForwardingPolicy="DROP")
        connection.close()
        self.addCleanup(self.settings, "")
        self.run_("stop")
        self.settings(f"MOATKEEPER_DB_RELAY=ssl:127.0.0.1:6640 MOATKEEPER_DB_GROUP=office\n"
                      f"MOATKEEPER_DB_KEY={device.privateKey} MOATKEEPER_DB_CERTIFICATE={device.certificate}\n"
                      f"MOATKEEPER_DB_CA={servers.certificate}\n")
        self.run_("start")
        kernel.waitFor(kernel.expected(FORWARD=("DROP",)))
        loaded = {name: set(re.findall(r"[^/]+\.so", pathlib.Path(f"/proc/{pid}/maps").read_text(encoding="utf-8")))
                  for name, pid in processes().items()}
        self.assertIn("moatkeeper-relay.so", loaded["ovsdb-server"], "leaves a silent server")
        self.assertNotIn("moatkeeper-relay.so", loaded["moatkeeper"])
        self.run_("stop")
        self.settings("MOATKEEPER_DB_RELAY=elsewhere\n")
        self.assertIn('MOATKEEPER_DB_RELAY is "elsewhere", expected ssl:ADDRESS:PORT', self.run_("start", 1))
        self.run_("status", 3)

    @staticmethod
    def settings(text):
        pathlib.Path("/etc/default/moatkeeper-db").write_text(text, encoding="utf-8")

    def testAnUnknownAction(self):
        self.assertRegex(self.run_("begin", 2), r"^usage: \S+ start\|stop\|")


if __name__ == "__main__":
    sys.argv[0] = os.path.realpath(sys.argv[0])
    CMAKE, BUILD = sys.argv[1], os.path.realpath(sys.argv[2])
    try:
        sandbox.enter(BUILD)
    except sandbox.Unavailable as error:
        print(f"skipped: init_test.py: {error}", file=sys.stderr)
        sys.exit(sandbox.SKIPPED)
    subprocess.run(["ip", "link", "set", "lo", "up"], check=True)
    for folder in ("/usr/local", "/var/lib", "/etc/default"):
        subprocess.run(["mount", "-t", "tmpfs", "tmpfs", folder], check=True)
    subprocess.run([CMAKE, "--install", BUILD, "--prefix", "/usr/local"], check=True, stdout=subprocess.DEVNULL)
    makeBridge()
    unittest.main(argv=sys.argv[:1], verbosity=2)
