"""What `moatctl top` says of frames on a real bridge; on a terminal, in a file, interrupted, with hostile rows."""

import collections
import fcntl
import json
import os
import re
import signal
import struct
import subprocess
import sys
import termios

from lab import config, kernel, machine, waiting
from lab.frames import Frame

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
OK, BAD_INPUT, NO_KERNEL = 0, 2, 8
MAC = "02:00:00:00:0a:01"
TABLES = {
    config.RULES: [{"Id": 4, "RulePrio": 10, "InInterface": "p1", "OutInterface": "p2", "Target": "DROP"},
                   {"Id": 5, "RulePrio": 20, "InInterface": "p1", "OutInterface": "p3", "SrcMAC": MAC, "Target": "ACCEPT"}],
    config.FILTERS: [{"Id": 9, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
}
LIST = "10p2p1MACblacklist"
WANTED = kernel.expected(UserForwardRules=["-i p1 -o p2 -j DROP", f"-s {MAC} -i p1 -o p3 -j ACCEPT"],
                         FORWARD=[f"-i p1 -o p2 -j {LIST}", f"-i p2 -o p1 -j {LIST}"], **{LIST: []})


class Top(machine.Machine):
    def setUp(self):
        if not self.server.isRunning():
            self.restart()
        self.configure(TABLES, WANTED)

    def start(self, *words, **options):
        process = subprocess.Popen([MOATCTL, "top", *words], text=True,
                                   **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def blocks(self, process, count):
        """Of JSON lines."""
        return [json.loads(process.stdout.readline()) for _ in range(count)]

    def testRowsWithTheMostFramesAreFirst(self):
        top = self.start("--interval", "0.3", "--format=json")
        (quiet,) = self.blocks(top, 1)
        self.assertEqual(quiet["rows"], [])
        mine, others = [Frame(src=MAC) for _ in range(5)], [Frame() for _ in range(20)]
        self.bridge.send(*(("p1", frame) for frame in mine + others))
        frames, octets = collections.Counter(), collections.Counter()
        def allCame():
            (block,) = self.blocks(top, 1)
            rates = [row["frames_per_second"] for row in block["rows"]]
            self.assertEqual(rates, sorted(rates, reverse=True))
            deciding = {row["id"]: row for row in block["rows"] if row["table"] == config.RULES}
            for row in block["rows"]:
                key = row["table"], row["id"]
                frames[key] += round(row["frames_per_second"] * block["seconds"])
                octets[key] += round(row["bytes_per_second"] * block["seconds"])
                share = row["frames_per_second"] / sum(each["frames_per_second"] for each in deciding.values())
                self.assertAlmostEqual(row["share"] or 0, share if row["id"] in deciding else 0, delta=0.001)
            return sum(frames.values()) >= 55
        waiting.until(allCame, lambda: frames)
        self.assertEqual(frames, {(config.FILTERS, 9): 25, (config.RULES, 4): 25, (config.RULES, 5): 5})
        self.assertEqual(octets[config.RULES, 5], sum(len(frame.data) - 14 for frame in mine))
        top.send_signal(signal.SIGINT)
        self.assertEqual((top.wait(10), top.stderr.read()), (OK, ""))

    def testBlocksInAFile(self):
        done = subprocess.run([MOATCTL, "top", "--interval", "0.1", "--count", "2", "--all"], capture_output=True, text=True,
                              timeout=60, check=False)
        self.assertEqual((done.returncode, done.stderr), (OK, ""))
        first, second = done.stdout.split("\n\n")
        for block in (first, second):
            self.assertRegex(block.splitlines()[0], r"^\S+, \d+\.\d s: 0\.0 frames a second decided by rules$")
            self.assertEqual(block.splitlines()[1].split(), ["ROW", "FRAMES/S", "BYTES/S", "SHARE", "RULE"])
            self.assertRegex(block, r"\nMoatKeeperRuleset Id 4 +0\.0 +0\.0 +0\.0% +UserForwardRules -i p1 -o p2 -j DROP\b")
        self.assertNotIn("\x1b", done.stdout)
        self.assertNotIn("-j UserForwardRules", done.stdout, "the daemon's own rules say nothing of a row")
        self.assertRegex(subprocess.run([MOATCTL, "top", "--interval", "0.1", "--count", "1"], capture_output=True, text=True,
                                        check=False).stdout, r"\A.*\nno rule has met a frame\n\Z")

    def testOnATerminal(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            ours, theirs = os.openpty()
            fcntl.ioctl(theirs, termios.TIOCSWINSZ, struct.pack("HHHH", 4, 150, 0, 0))
            before = termios.tcgetattr(theirs)
            top = self.start("--interval", "0.2", "--all", stdout=theirs, env={**os.environ, "TERM": "xterm"})
            text = ""
            while text.count("\x1b[H\x1b[J") < 3:
                text += os.read(ours, 65536).decode()
            top.send_signal(number)
            self.assertEqual(top.wait(10), OK)
            self.assertEqual(termios.tcgetattr(theirs), before)
            os.set_blocking(ours, False)
            text += os.read(ours, 65536).decode()
            os.close(ours), os.close(theirs)
            screens = text.split("\x1b[H\x1b[J")[1:]
            self.assertLess(screens[0].count("\n"), 4, "no more lines than there is room for")
            self.assertEqual(set(re.findall(r"\x1b\[[^A-Za-z]*[A-Za-z]", text)),
                             {"\x1b[H", "\x1b[J", "\x1b[?25l", "\x1b[?25h", "\x1b[1m", "\x1b[0m"})
            self.assertTrue(text.endswith("\x1b[?25h"), "the cursor is back")

    def testARuleThatCountsAnew(self):
        top = self.start("--interval", "0.3", "--format=json")
        self.blocks(top, 1)
        self.bridge.send(*(("p1", Frame()) for _ in range(9)))
        def rates():
            (block,) = self.blocks(top, 1)
            return [row["frames_per_second"] for row in block["rows"] if row["id"] == 4]
        waiting.until(rates, "the frames")
        # Put in anew by a daemon that knows nothing of the old one.
        subprocess.run(["ebtables", "-F", "UserForwardRules"], check=True)
        kernel.waitFor(WANTED)
        for _ in range(4):
            for rate in rates():
                self.assertLess(rate, 1e6, "no counter went below zero")
        top.send_signal(signal.SIGTERM)
        self.assertEqual(top.wait(10), OK)

    def testWithoutAServer(self):
        self.server.stop()
        done = subprocess.run([MOATCTL, "top", "--interval", "0.1", "--count", "1", "--all"], capture_output=True, text=True,
                              timeout=60, check=False)
        self.assertEqual(done.returncode, OK, done.stderr)
        self.assertRegex(done.stdout, r"\nrows cannot be named: down: .*\n")
        self.assertRegex(done.stdout, r"\n- +0\.0 +0\.0 +0\.0% +UserForwardRules -i p1 -o p2 -j DROP\n")

    def testWithoutTheRight(self):
        tool = os.path.join(machine.FOLDER, "moatctl")
        subprocess.run(["cp", MOATCTL, tool], check=True)
        os.chmod(machine.FOLDER, 0o755)
        done = subprocess.run([tool, "top"], capture_output=True, text=True, user=65534, check=False, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (NO_KERNEL, ""))
        self.assertRegex(done.stderr, r"\Amoatctl: the kernel's tables cannot be read: .*\n\Z")

    def testAForeignRuleCannotWriteToTheTerminal(self):
        subprocess.run(["ebtables", "-N", "odd"], check=True)
        self.addCleanup(subprocess.run, ["ebtables", "-X", "odd"], check=True)
        self.addCleanup(subprocess.run, ["ebtables", "-F", "odd"], check=True)
        subprocess.run(["ebtables", "-A", "odd", "-i", "p\x1b[2J\x07", "-j", "DROP"], check=True)
        for form in ("table", "json"):
            done = subprocess.run([MOATCTL, "top", "--interval", "0.1", "--count", "1", "--all", f"--format={form}"],
                                  capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual(done.returncode, OK, done.stderr)
            self.assertNotRegex(done.stdout, r"[^\n -~]")
            self.assertIn(r"x1b[2J", done.stdout)


if __name__ == "__main__":
    machine.main()
