"""What `moatctl explain` says when it reads the kernel's tables, beside what the configuration says and frames do."""

import json
import os
import signal
import subprocess
import sys

from lab import config, kernel, machine
from lab.frames import Frame

MOATCTL = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1] + "/../../moatctl/moatctl")
MAC, OTHER_MAC = "02:00:00:00:0a:01", "02:00:00:00:0a:02"
WAY = ("--in", "p1", "--out", "p2", "--src-mac", MAC, "--dst-mac", OTHER_MAC)


def explain(*words):
    return subprocess.run([MOATCTL, "explain", *WAY, *words], capture_output=True, text=True, timeout=60, check=False)


class Explain(machine.Machine):
    def setUp(self):
        self.daemon.stop()
        subprocess.run(["nft", "flush", "ruleset"], check=True)
        self.startDaemon()
        self.configure({config.RULES: [{"Id": 4, "RulePrio": 10, "InInterface": "p1", "OutInterface": "p2", "SrcMAC": MAC,
                                        "Target": "DROP"}]},
                       kernel.expected(UserForwardRules=[f"-s {MAC} -i p1 -o p2 -j DROP"]))

    def passes(self):
        return "p2" in self.bridge.sendOne("p1", Frame(src=MAC, dst=OTHER_MAC))

    def found(self, *words):
        done = explain("--format=json", *words)
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(done.stdout), done.stderr

    def testInOrder(self):
        found, notes = self.found()
        self.assertEqual((found["walked"], found["differs"], found["fate"], notes), ("kernel", False, "DROP", ""))
        self.assertEqual((found["decided_by"]["table"], found["decided_by"]["id"]), (config.RULES, 4))
        self.assertEqual((found["configured"]["fate"], found["configured"]["decided_by"]), ("DROP", found["decided_by"]))
        self.assertFalse(self.passes())
        out = explain().stdout.splitlines()
        self.assertEqual(out[1], "through the kernel's tables")
        self.assertEqual(out[-1], "DROP: MoatKeeperRuleset Id 4 (rule 1 of UserForwardRules)")
        self.assertEqual(self.found("--configured")[0]["walked"], "configuration")

    def testTheKernelIsNotAsConfigured(self):
        """No daemon applies the change: what counts for the frame is what the kernel has."""
        self.daemon.stop(signal.SIGKILL)
        self.config.update(config.RULES, 4, Target="ACCEPT")
        self.assertFalse(self.passes())
        found, notes = self.found()
        self.assertEqual((found["walked"], found["differs"], found["fate"], found["configured"]["fate"]),
                         ("kernel", True, "DROP", "ACCEPT"))
        self.assertEqual(found["decided_by"]["table"], None, "no row makes that rule")
        self.assertEqual(notes, "note: the kernel's tables are not as configured (see moatctl status); by the configuration "
                         "it would be ACCEPT\n")
        self.assertEqual(explain().stdout.splitlines()[-1], "DROP: no row (rule 1 of UserForwardRules)")
        self.assertEqual(self.found("--configured")[0]["fate"], "ACCEPT")

    def testAStoppedDaemonFiltersNothing(self):
        self.assertEqual(self.daemon.stop(), 0)
        self.assertTrue(self.passes())
        found, notes = self.found()
        self.assertEqual((found["fate"], found["configured"]["fate"]), ("ACCEPT", "DROP"))
        self.assertIn("it would be DROP", notes)

    def testARuleOfAnotherProgram(self):
        subprocess.run(["ebtables", "-I", "FORWARD", "1", "-i", "p1", "-j", "DROP"], check=True)
        found, notes = self.found()
        self.assertEqual((found["fate"], found["decided_by"]["chain"], found["decided_by"]["table"]),
                         ("DROP", "FORWARD", None))
        self.assertIn("the frame's fate is the same", notes)

    def testWithoutTheServer(self):
        done = explain("--server", "/tmp/no-such-socket")
        self.assertEqual(done.returncode, 0)
        self.assertRegex(done.stderr, "^note: no configuration server at .*; rows cannot be named\n$")
        self.assertEqual(done.stdout.splitlines()[-1], "DROP: no row (rule 1 of UserForwardRules)")

    def testWithoutTheRightToReadTheKernel(self):
        os.chmod("/tmp/cfgserver.socket", 0o777)
        done = subprocess.run([self.copiedTool(), "explain", *WAY], capture_output=True, text=True, user=65534, check=False)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertRegex(done.stdout.splitlines()[1], "^through the configuration; the kernel's tables cannot be read: .+")
        self.assertEqual(done.stdout.splitlines()[-1], "DROP: MoatKeeperRuleset Id 4 (rule 1 of UserForwardRules)")

    def copiedTool(self):
        path = os.path.join(machine.FOLDER, "moatctl")
        subprocess.run(["cp", MOATCTL, path], check=True)
        os.chmod(machine.FOLDER, 0o755)
        return path


if __name__ == "__main__":
    machine.main()
