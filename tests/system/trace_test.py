"""`moatctl trace` on a real bridge: what it says of frames against the counters of the rules, what it leaves out, and that
it leaves nothing behind.

More of the random frames and kills, and a longer flood: MOATKEEPER_TRACE_FRAMES, MOATKEEPER_TRACE_KILLS,
MOATKEEPER_TRACE_SECONDS.
"""

import collections
import contextlib
import json
import os
import random
import signal
import subprocess
import sys
import time

from lab import config, frames, kernel, machine, waiting
from lab.frames import Frame

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
SENDER = os.path.realpath(DAEMON + "/../../bench/frame_driver")
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
FRAMES = int(os.environ.get("MOATKEEPER_TRACE_FRAMES", "60"))
KILLS = int(os.environ.get("MOATKEEPER_TRACE_KILLS", "5"))
SECONDS = float(os.environ.get("MOATKEEPER_TRACE_SECONDS", "0.5"))
FLOOD = 100_000  # frames a second
OK, AMISS, BAD_INPUT, NO_KERNEL = 0, 1, 2, 8
MACS = [f"02:00:00:00:0a:{number:02x}" for number in range(1, 6)]
LIST = "10p2p1MACblacklist"
TABLES = {
    config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "ACCEPT"}],
    config.RULES: [{"Id": 4, "RulePrio": 10, "InInterface": "p1", "OutInterface": "p2", "SrcMAC": MACS[1], "Target": "DROP"},
                   {"Id": 5, "RulePrio": 20, "InInterface": "p1", "SrcMAC": MACS[2], "Target": "ACCEPT"}],
    config.FILTERS: [{"Id": 9, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
    config.FILTER_RULES: [{"Id": 3, "BridgeFilterID": 9, "FilterMatch": MACS[0]}],
}
WANTED = kernel.expected(
    INPUT=("DROP",), UserForwardRules=[f"-s {MACS[1]} -i p1 -o p2 -j DROP"], UserInputRules=[f"-s {MACS[2]} -i p1 -j ACCEPT"],
    FORWARD=[f"-i p1 -o p2 -j {LIST}", f"-i p2 -o p1 -j {LIST}"], **{LIST: [f"-s {MACS[0]} -j DROP"]})


def traceTables():
    listed = subprocess.run(["nft", "list", "tables", "bridge"], check=True, capture_output=True, text=True).stdout
    return [line.split()[-1] for line in listed.splitlines() if "moatctl" in line]


def counters():
    """{(chain, position from 1): frames} of the rules that decide."""
    saved = subprocess.run(["ebtables-save", "-c"], check=True, capture_output=True, text=True).stdout
    found, positions = {}, collections.Counter()
    for line in saved.splitlines():
        if line.startswith("["):
            count, _, chain, rest = line.split(" ", 3)
            positions[chain] += 1
            if rest.endswith(("-j ACCEPT", "-j DROP")):
                found[chain, positions[chain]] = int(count[1:].split(":")[0])
    return found


class Trace(machine.Machine):
    def setUp(self):
        if not self.server.isRunning() or not self.daemon.isRunning():
            self.restart()
        self.configure(TABLES, WANTED)

    def start(self, *words, **options):
        process = subprocess.Popen([MOATCTL, "trace", *words], text=True,
                                   **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        said = []
        while not said or said[-1] != "tracing\n":
            said.append(process.stderr.readline())
            self.assertTrue(said[-1], said)
        process.said = said[:-1]
        return process

    def end(self, process, number=signal.SIGINT):
        """The rest of its output, and its last words."""
        process.send_signal(number)
        out, words = process.communicate(timeout=30)
        self.assertEqual(process.returncode, OK, words)
        return out, words

    def traced(self, *sent, options=()):
        """The lines, as JSON, that a trace makes of the frames."""
        process = self.start("--format=json", "--limit", "10000", *options)
        self.bridge.send(*sent)
        out, _ = self.end(process)
        *lines, summary = [json.loads(line) for line in out.splitlines()]
        self.assertEqual((summary["shown"], summary["over_limit"], summary["not_shown"]), (len(lines), 0, 0), summary)
        return lines

    def decisions(self, lines):
        return collections.Counter((line["in"], line["out"], line["fate"], line["decided_by"]["table"],
                                    line["decided_by"]["id"], line["decided_by"]["chain"], line["decided_by"]["rule"])
                                   for line in lines)

    def testEachFateWithItsRow(self):
        lines = self.traced(*(("p1", Frame(src=mac)) for mac in MACS[:3]), ("p1", Frame(src=MACS[2], dst=self.bridge.mac)),
                            ("p1", Frame(src=MACS[1], dst=self.bridge.mac)))
        policy = ("ACCEPT", config.MAIN, None, "FORWARD", None)
        self.assertEqual(self.decisions(lines), collections.Counter({
            ("p1", "p2", "DROP", config.FILTER_RULES, 3, LIST, 1): 1, ("p1", "p3", *policy): 3,
            ("p1", "p2", "DROP", config.RULES, 4, "UserForwardRules", 1): 1, ("p1", "p2", *policy): 1,
            ("p1", None, "ACCEPT", config.RULES, 5, "UserInputRules", 1): 1,
            ("p1", None, "DROP", config.MAIN, None, "INPUT", None): 1}))
        self.assertEqual(traceTables(), [])

    def testTheLineForPeople(self):
        process = self.start("--count", "1", "--out", "p2")
        frame = Frame(src=MACS[1], dst=MACS[3], ethertype=frames.IPV4, ipSrc="10.0.0.1", ipDst="10.0.0.2", proto=frames.TCP,
                      port=80)
        self.bridge.sendOne("p1", frame)
        out, said = process.communicate(timeout=30)
        self.assertRegex(out, r"\A\d{4}-\S+ DROP: MoatKeeperRuleset Id 4 \(rule 1 of UserForwardRules\): arriving on p1, "
                         rf"leaving by p2, from {MACS[1]} to {MACS[3]}, IPv4 from 10\.0\.0\.1 to 10\.0\.0\.2, protocol 6, "
                         r"source port 40000, port 80\n\Z")
        self.assertRegex(said, r"\A1 of 1 frames shown\n\Z")

    def testWhatFramesAreTold(self):
        tagged, six = Frame(vlan=100), Frame(ethertype=frames.IPV6, proto=frames.UDP, port=53)
        lines = self.traced(("p1", tagged), ("p1", six), options=("--out", "p3"))
        self.assertEqual([(line.get("vlan"), line["ethertype"], line.get("src"), line.get("port")) for line in lines],
                         [(100, frames.EXPERIMENTAL, None, None), (None, frames.IPV6, "2001:db8::1", 53)])

    def testOptionsSelect(self):
        ip4 = {"ethertype": frames.IPV4, "ipSrc": "10.0.0.1", "ipDst": "10.0.0.2"}
        probes = {
            "tcp": ("p1", Frame(**ip4, proto=frames.TCP, port=80)), "udp": ("p1", Frame(**ip4, proto=frames.UDP, port=53)),
            "six": ("p2", Frame(ethertype=frames.IPV6, proto=frames.TCP, port=80)), "tagged": ("p3", Frame(vlan=7)),
            "arp": ("p2", Frame(ethertype=frames.ARP)), "mac": ("p3", Frame(src=MACS[4])),
            "device": ("p2", Frame(dst=self.bridge.mac))}
        mac = "02:00:00:00:00:01"
        for options, wanted in (
                ("--in p1", {"tcp", "udp"}), ("--out p3 --in p2", {"six", "arp"}), ("--to-device", {"device"}),
                ("--src-mac " + MACS[4], {"mac"}), ("--src-mac 02:00:00:00:0a:00/ff:ff:ff:ff:ff:00", {"mac"}),
                ("--vlan 7", {"tagged"}), ("--vlan 7 --ethertype 0x88b6", {"tagged"}), ("--vlan 8", set()),
                ("--ethertype ARP", {"arp"}), ("--src 10.0.0.0/24", {"tcp", "udp"}), ("--dst 10.0.0.2", {"tcp", "udp"}),
                ("--src 2001:db8::/32", {"six"}), ("--ethertype IPv4 --proto udp", {"udp"}),
                ("--src 10.0.0.1 --proto tcp --port 80", {"tcp"}), ("--ethertype IPv6 --proto tcp --port 80", {"six"}),
                ("--src 10.0.0.1 --proto tcp --src-port 40001", set()),
                (f"--in p2 --src-mac {mac} --dst-mac {self.bridge.mac}", {"device"})):
            process = self.start("--format=json", *options.split())
            self.bridge.send(*probes.values())
            out, _ = self.end(process)
            shown = {name for line in out.splitlines()[:-1] for name, (port, _) in probes.items()
                     if self.isOf(json.loads(line), name, port)}
            self.assertEqual(shown, wanted, options + out)

    def isOf(self, line, name, port):
        kind = {"tcp": (frames.IPV4, 80), "udp": (frames.IPV4, 53), "six": (frames.IPV6, 80), "arp": (frames.ARP, None)}
        if line["in"] != port or (name == "device") != (line["out"] is None):
            return False
        if name == "mac" or name == "tagged":
            return (line["src_mac"] == MACS[4]) == (name == "mac")
        return name == "device" or (line["ethertype"], line.get("port")) == kind[name]

    def testWrongOptions(self):
        for words, message in (("--limit 0", '--limit "0": expected a number from 1 to 10000'),
                               ("--for 0", '--for "0": expected seconds'), ("--count x", '--count "x": expected a number'),
                               ("--to-device --out p1", "--(to-device|out) excludes --"), ("--port 80", '--port "80": expected --e'),
                               ("--src 10.0.0.1 --port 80", '--port "80": expected --proto'),
                               ("--vlan 5 --src 10.0.0.1", '--src "10.0.0.1": expected no --vlan'),
                               ("--vlan 4095", '--vlan "4095": expected'), ("--in abcdefghijklmnop", "--in .*: expected"),
                               ("--src 10.0.0.1 --ethertype ARP", "--src .*: expected an address of the same")):
            done = subprocess.run([MOATCTL, "trace", *words.split()], capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""), words + done.stderr)
            self.assertRegex(done.stderr, rf"\Amoatctl: {message}.*\n\Z")
        self.assertEqual(traceTables(), [])

    def testTheDecidingRowIsTheOneWhoseCounterMoved(self):
        """Random rules, random frames, one at a time."""
        seed = int(os.environ.get("MOATKEEPER_SEED", "17"))
        dice = random.Random(seed)
        for _ in range(max(1, FRAMES // 100)):
            self.randomRules(dice)
            process = self.start("--format=json", "--limit", "10000")
            os.set_blocking(process.stdout.fileno(), False)
            text = b""
            for _ in range(min(FRAMES, 100)):
                before = counters()
                self.bridge.sendOne(dice.choice(machine.PORTS), self.randomFrame(dice))
                after = counters()
                moved = {place: after[place] - before[place] for place in after if after[place] != before[place]}
                passes, text = self.readLines(process, text, sum(moved.values()))
                told = collections.Counter((line["decided_by"]["chain"], line["decided_by"]["rule"]) for line in passes
                                           if line["decided_by"]["rule"] is not None)
                self.assertEqual(told, moved, f"seed {seed}: {passes}")
                self.assertTrue(all(line["decided_by"]["table"] for line in passes), passes)
            self.end(process)

    def readLines(self, process, text, atLeast):
        """What came of a frame: two passes, to the other ports, or one for the device."""
        passes = []
        def complete():
            nonlocal text
            with contextlib.suppress(BlockingIOError):
                while data := os.read(process.stdout.fileno(), 65536):
                    text += data
            *whole, text = text.split(b"\n")
            passes.extend(map(json.loads, whole))
            return len(passes) >= max(1 if passes and passes[0]["out"] is None else 2, atLeast)
        waiting.until(complete, lambda: (passes, atLeast))
        return passes, text

    def randomRules(self, dice):
        rules, used = [], set()
        for number in range(1, 13):
            row = {"Id": number, "RulePrio": dice.randint(1, 5), "InInterface": dice.choice(machine.PORTS),
                   "Target": dice.choice(("ACCEPT", "DROP"))}
            if dice.random() < 0.7:
                row["OutInterface"] = dice.choice([port for port in machine.PORTS if port != row["InInterface"]])
            if dice.random() < 0.6:
                row["SrcMAC"] = dice.choice(MACS)
            if dice.random() < 0.4:
                row |= {"Ethertype": "IPv4", "IPSrcAddr": dice.choice(("10.0.0.1", "10.0.0.0/24")), "IPProto": "UDP",
                        "IPPort": dice.choice((53, 67))}
            key = json.dumps({name: value for name, value in row.items() if name not in ("Id", "RulePrio", "Target")})
            if key not in used:
                used.add(key)
                rules.append(row)
        main = {"GlobalInputPolicy": dice.choice(("ACCEPT", "DROP")), "GlobalForwardingPolicy": dice.choice(("ACCEPT", "DROP"))}
        self.config.replace({config.MAIN: [main], config.RULES: rules})
        waiting.until(lambda: len(kernel.readTables()["UserInputRules"]) + len(kernel.readTables()["UserForwardRules"]) - 2
                      == len(rules) and kernel.readTables()["INPUT"][0] == main["GlobalInputPolicy"]
                      and kernel.readTables()["FORWARD"][0] == main["GlobalForwardingPolicy"]
                      and subprocess.run([MOATCTL, "status"], capture_output=True, check=False).returncode == OK, "the rules")

    def randomFrame(self, dice):
        return Frame(src=dice.choice(MACS), dst=dice.choice((MACS[0], self.bridge.mac)),
                     ethertype=dice.choice((frames.IPV4, frames.IPV6, frames.ARP, frames.EXPERIMENTAL)),
                     ipSrc=None, port=dice.choice((53, 67)), vlan=dice.choice((None, None, 5)))

    def testTheLimitIsKeptAndTold(self):
        process = self.start("--format=json", "--limit", "5", "--out", "p2")
        begin = time.monotonic()
        self.bridge.send(*(("p1", Frame()) for _ in range(200)))
        took = time.monotonic() - begin
        out, words = self.end(process)
        *lines, summary = [json.loads(line) for line in out.splitlines()]
        self.assertTrue(5 <= len(lines) <= 5 + 5 * (took + 1), (len(lines), took))
        self.assertEqual((summary["chosen"], summary["shown"], summary["over_limit"], summary["not_shown"]),
                         (200, len(lines), 200 - len(lines), 0))
        self.assertRegex(words, rf"\A{len(lines)} of 200 frames shown; {200 - len(lines)} left out: more than 5 a second")

    def flood(self):
        """How many frames arrived at the far end of p2, of how many, in which time."""
        def received():
            with open("/proc/net/dev", encoding="ascii") as file:
                return next(int(line.split()[2]) for line in file if line.split()[0] == "p2_far:")
        bursts = int(FLOOD * SECONDS / 64)
        before, begin = received(), time.monotonic()
        subprocess.run([SENDER, "send", "p1_far", str(bursts), str(FLOOD)], input=Frame(dst=MACS[4]).data.hex() + "\n",
                       text=True, check=True, capture_output=True)
        took = time.monotonic() - begin
        self.bridge.sendOne("p3", Frame(dst=self.bridge.mac))  # behind them all
        return received() - before, bursts * 64, took

    def testAFloodPassesAsWithout(self):
        subprocess.run(["bridge", "fdb", "add", MACS[4], "dev", "p2", "master", "static"], check=True)
        self.addCleanup(subprocess.run, ["bridge", "fdb", "del", MACS[4], "dev", "p2", "master"], check=True)
        arrived, sent, took = self.flood()
        lost = sent - arrived
        process = self.start("--format=json", "--limit", "1000", stdout=subprocess.PIPE)
        arrived, sent, tookTraced = self.flood()
        out, words = self.end(process)
        print(f"{sent} frames: without a trace {lost} lost in {took:.2f} s, with one {sent - arrived} in {tookTraced:.2f} s; "
              + words.strip(), file=sys.stderr)
        self.assertLessEqual(sent - arrived, lost)
        *lines, summary = [json.loads(line) for line in out.splitlines()]
        self.assertGreaterEqual(summary["chosen"], sent)
        self.assertEqual(summary["chosen"], len(lines) + summary["over_limit"] + summary["not_shown"])
        self.assertEqual(summary["shown"], len(lines))
        self.assertGreaterEqual(len(lines), 1000)
        self.assertLessEqual(len(lines), 1000 * (tookTraced + 2))

    def testCountAndTime(self):
        process = self.start("--count", "3")
        self.bridge.send(*(("p1", Frame()) for _ in range(9)))
        out, words = process.communicate(timeout=30)
        self.assertEqual((process.returncode, out.count("\n")), (OK, 3))
        self.assertRegex(words, r"\A3 of \d+ frames shown; \d+ left out: they came after the last one\n\Z")
        done = subprocess.run([MOATCTL, "trace", "--for", "0.3"], capture_output=True, text=True, timeout=30, check=False)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (OK, "", "tracing\n0 of 0 frames shown\n"))

    def testAChangeWhileTracing(self):
        process = self.start("--format=json", "--out", "p2")
        self.bridge.sendOne("p1", Frame(src=MACS[3]))
        subprocess.run([MOATCTL, "rule", "add", "--id", "77", "--priority", "1", "--in", "p1", "--out", "p2", "--src-mac",
                        MACS[3], "--drop"], check=True, capture_output=True)
        self.bridge.sendOne("p1", Frame(src=MACS[3]))
        out, _ = self.end(process)
        self.assertEqual([(line["fate"], line["decided_by"]["id"]) for line in map(json.loads, out.splitlines()[:-1])],
                         [("ACCEPT", None), ("DROP", 77)])

    def testAnotherProgramsTableDecides(self):
        subprocess.run(["nft", "-f", "-"], input="table bridge theirs {\n chain c {\n type filter hook forward priority -300\n"
                       f"ether saddr {MACS[3]} drop\n }}\n }}\n", text=True, check=True)
        self.addCleanup(subprocess.run, ["nft", "delete", "table", "bridge", "theirs"], check=True)
        lines = self.traced(("p1", Frame(src=MACS[3])), ("p1", Frame(src=MACS[1])), options=("--out", "p2"))
        self.assertEqual([line["decided_by"]["words"] for line in lines],
                         ["another program's table theirs (chain c)", "MoatKeeperRuleset Id 4 (rule 1 of UserForwardRules)"])
        self.assertEqual(lines[0]["fate"], "DROP")

    def testTwoAtOnceDoNotMix(self):
        first, second = self.start("--format=json", "--src-mac", MACS[3]), self.start("--format=json", "--src-mac", MACS[4])
        self.assertEqual(len(traceTables()), 2)
        self.bridge.send(("p1", Frame(src=MACS[3])), ("p1", Frame(src=MACS[4])), ("p1", Frame(src=MACS[2])))
        for process, mac in ((first, MACS[3]), (second, MACS[4])):
            out, _ = self.end(process)
            self.assertEqual([line["src_mac"] for line in map(json.loads, out.splitlines()[:-1])], [mac, mac])

    def testTheDaemonIsNotDisturbed(self):
        before = self.config.select(config.DEVICE)
        log = len(self.daemon.readLog())
        tables = kernel.readTables()
        process = self.start()
        status = subprocess.run([MOATCTL, "status"], capture_output=True, text=True, check=False)
        self.assertEqual(status.returncode, OK, status.stdout)
        self.bridge.sendOne("p1", Frame())
        self.end(process)
        self.assertEqual(kernel.readTables(), tables)
        self.assertEqual(self.config.select(config.DEVICE), before)
        # The handler may still write of the delivery before; the queue has nothing to say.
        self.assertNotRegex(self.daemon.readLog()[log:], "(?m)^(?!moatkeeper:).+")

    def testNothingIsLeftByKills(self):
        for number in range(KILLS):
            process = self.start("--format=json", stdout=subprocess.DEVNULL)
            self.assertEqual(len(traceTables()), 1)
            self.bridge.sendOne("p1", Frame())
            process.send_signal((signal.SIGKILL, signal.SIGSEGV)[number % 2])
            self.assertLess(process.wait(10), 0)
            self.assertEqual(traceTables(), [])

    def testEverySignalEndsIt(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            self.end(self.start(), number)
            self.assertEqual(traceTables(), [])

    def testWhatAnOldKernelKeepsIsFoundAndRemoved(self):
        """As a trace leaves it that was killed where tables have no owner."""
        def leave(process):
            subprocess.run(["nft", "-f", "-"], input=f"table bridge moatctl_trace_{process} {{\n chain select {{\n "
                           "meta nftrace set 1\n }\n chain forward {\n type filter hook forward priority -300\n "
                           "jump select\n }\n }\n",
                           text=True, check=True)
        gone = subprocess.Popen(["true"])
        gone.wait()
        leave(gone.pid)
        found = subprocess.run([MOATCTL, "status"], capture_output=True, text=True, check=False)
        self.assertEqual(found.returncode, OK, found.stdout)
        self.assertRegex(found.stdout, rf"\ntrace +a trace that was killed had left the table moatctl_trace_{gone.pid} ")
        self.assertEqual(traceTables(), [])
        leave(gone.pid)
        running = self.start()
        self.assertEqual(traceTables(), [f"moatctl_trace_{running.pid}"])
        leave(os.getpid())  # a process of that number, but no moatctl
        self.end(self.start())
        self.assertEqual(traceTables(), [f"moatctl_trace_{running.pid}"], "a trace under way stays")

    def testWithoutADaemon(self):
        """There is no table to look at a frame."""
        self.daemon.stop()
        subprocess.run(["nft", "flush", "ruleset"], check=True)
        lines = self.traced(("p1", Frame(src=MACS[1])), options=("--out", "p2"))
        self.assertEqual([(line["fate"], line["decided_by"]["words"]) for line in lines],
                         [("ACCEPT", "no rule of the bridge's filter")])

    def testWithoutAServer(self):
        self.server.stop()
        process = self.start("--out", "p2", "--count", "1")
        self.assertRegex("".join(process.said), r"\Anote: no configuration server at .*; rows cannot be named\n\Z")
        self.bridge.sendOne("p1", Frame(src=MACS[1]))
        out, _ = process.communicate(timeout=30)
        self.assertIn(" DROP: no row (rule 1 of UserForwardRules): ", out)

    def testWithoutTheRight(self):
        tool = os.path.join(machine.FOLDER, "moatctl")
        subprocess.run(["cp", MOATCTL, tool], check=True)
        os.chmod(machine.FOLDER, 0o755)
        done = subprocess.run([tool, "trace"], capture_output=True, text=True, user=65534, check=False, timeout=60)
        self.assertEqual((done.returncode, done.stdout), (NO_KERNEL, ""))
        self.assertRegex(done.stderr, r"(?m)^moatctl: the kernel's tables cannot be read: .*$")

    def testAPortsNameCannotWriteToTheTerminal(self):
        odd = "p\x1b[2J\x07"
        subprocess.run(["ip", "link", "set", "p3", "down"], check=True)
        subprocess.run(["ip", "link", "set", "p3", "name", odd], check=True)
        def back():
            subprocess.run(["ip", "link", "set", odd, "down"], check=True)
            subprocess.run(["ip", "link", "set", odd, "name", "p3"], check=True)
            subprocess.run(["ip", "link", "set", "p3", "up"], check=True)
        self.addCleanup(back)
        subprocess.run(["ip", "link", "set", odd, "up"], check=True)
        for form in ("text", "json"):
            process = self.start(f"--format={form}")
            waiting.until(lambda: self.bridge.sendOne("p1", Frame()) is not None, "a frame")
            out, _ = self.end(process)
            self.assertNotRegex(out, r"[^\n -~]")
            self.assertIn("x1b[2J", out)


if __name__ == "__main__":
    machine.main()
