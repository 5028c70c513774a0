"""What `moatctl metrics` writes, read by the parser of a well-known collector: in good order, when something is amiss, with
hostile rows."""

import json
import math
import os
import signal
import stat
import subprocess
import sys
import time

from lab import config, kernel, machine, programs, waiting
from lab.frames import Frame
from prometheus_client import parser as older_parser
from prometheus_client.openmetrics import parser

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
LOOSE_SCHEMA = machine.FOLDER + "/loose.ovsschema"
MAC = "02:00:00:00:0a:01"
TABLES = {
    config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "ACCEPT"}],
    config.RULES: [{"Id": 4, "RulePrio": 10, "InInterface": "p1", "OutInterface": "p2", "Target": "DROP"},
                   {"Id": 5, "RulePrio": 20, "InInterface": "p1", "IPPort": 80, "Ethertype": "IPv4", "Target": "DROP"},
                   {"Id": 6, "RulePrio": 30, "InInterface": "p1", "Target": "DROP", "Enabled": 0}],
    config.FILTERS: [{"Id": 9, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
    config.FILTER_RULES: [{"Id": 3, "BridgeFilterID": 9, "FilterMatch": MAC}],
}
WANTED = kernel.expected(
    INPUT=("DROP",), UserForwardRules=["-i p1 -o p2 -j DROP"],
    FORWARD=["-i p1 -o p2 -j 10p2p1MACblacklist", "-i p2 -o p1 -j 10p2p1MACblacklist"],
    **{"10p2p1MACblacklist": [f"-s {MAC} -j DROP"]})
HOSTILE = ("a\nmoatkeeper_server_up 0\n# EOF\n", 'p1"} 1\nx{y="', "\\", '\\"', "\x1b]0;title\x07\x1b[2J", "\x9b31m", "\r",
           "p\u2028q", "# HELP", "{}", "é", "\x7f")


def run(*words, **options):
    return subprocess.run([MOATCTL, "metrics", *words], capture_output=True, text=True, timeout=60, check=False, **options)


def read(text):
    """{(name of the sample, (label's value, ...)): value}; raises ValueError when it is none of the format's."""
    found, families = {}, {}
    for family in parser.text_string_to_metric_families(text):
        assert family.documentation, family.name
        assert not family.name.endswith("_seconds") or family.unit == "seconds", family.name
        families[family.name] = family
        for sample in family.samples:
            key = (sample.name, tuple(sample.labels.values()))
            assert key not in found, key
            found[key] = sample.value
    # A collector of the older format takes the same file.
    older = {(sample.name, tuple(sample.labels.values())): sample.value
             for family in older_parser.text_string_to_metric_families(text) for sample in family.samples}
    assert older == found
    return found, families


class Metrics(machine.Machine):
    def setUp(self):
        if not self.server.isRunning() or not self.daemon.isRunning():
            self.restart()
        self.config.replace(TABLES)
        kernel.waitFor(WANTED)

    def metrics(self, *words):
        done = run(*words)
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertTrue(done.stdout.endswith("\n# EOF\n"))
        return read(done.stdout)

    def sample(self, name, *labels):
        return self.metrics()[0][(name, labels)]

    def testEveryFamilyInGoodOrder(self):
        found, families = self.metrics()
        self.assertTrue(all(family.samples for name, family in families.items()
                            if name != "moatkeeper_device_repair_timestamp_seconds"), families)
        for name in ("server_up", "kernel_readable", "daemon_running"):
            self.assertEqual(found[("moatkeeper_" + name, ())], 1)
        states = {labels[1]: value for (name, labels), value in found.items()
                  if name == "moatkeeper_rows" and labels[0] == config.RULES}
        self.assertEqual(states, {"in_force": 1, "not_in_force": 1, "disabled": 1, "unknown": 0})
        self.assertEqual({labels: value for (name, labels), value in found.items() if name == "moatkeeper_row_in_force"},
                         {(config.MAIN, ""): 1, (config.RULES, "4"): 1, (config.RULES, "5"): 0, (config.FILTERS, "9"): 1,
                          (config.FILTER_RULES, "3"): 1})
        self.assertIn(("moatkeeper_row_info", (config.RULES, "6",
                                               'Enabled 0, RulePrio 30, InInterface "p1", Target "DROP"')), found)
        device, = {labels[0] for (name, labels) in found if name == "moatkeeper_device_in_step"}
        self.assertEqual(found[("moatkeeper_device_refused_lines", (device,))], 1)
        self.assertEqual(found[("moatkeeper_device_in_step", (device,))], 1)
        self.assertEqual(found[("moatkeeper_kernel_entries", ("missing",))], 0)
        self.assertLess(abs(found[("moatkeeper_metrics_timestamp_seconds", ())] - time.time()), 60)
        age = found[("moatkeeper_last_commit_age_seconds", ())]
        self.assertAlmostEqual(found[("moatkeeper_last_commit_timestamp_seconds", ())] + age, time.time(), delta=5)

    def testCountersGrowWithTheFrames(self):
        names = ("moatkeeper_row_frames_total", "moatkeeper_row_bytes_total")
        before = [self.sample(name, config.RULES, "4") for name in names]
        frames = [Frame() for _ in range(3)]
        self.bridge.send(*(("p1", frame) for frame in frames))
        after = [self.sample(name, config.RULES, "4") for name in names]
        self.assertEqual([new - old for old, new in zip(before, after)], [3, sum(len(f.data) - 14 for f in frames)])
        filterBefore = self.sample(names[0], config.FILTERS, "9")
        self.bridge.sendOne("p1", Frame(src=MAC))
        self.assertEqual(self.sample(names[0], config.FILTERS, "9") - filterBefore, 1)
        self.assertEqual(self.sample(names[0], config.FILTER_RULES, "3"), 1)

    def testChangesAndCommitsAreCounted(self):
        def counts():
            found, _ = self.metrics()
            return [next(value for (name, _), value in found.items() if name == f"moatkeeper_{what}_total")
                    for what in ("changes", "device_changes", "kernel_transactions")]
        before = counts()
        subprocess.run([MOATCTL, "rule", "set", "4", "--accept"], check=True, capture_output=True)
        changes, inForce, transactions = counts()
        self.assertEqual((changes, inForce), (before[0] + 1, before[0] + 1))
        self.assertGreater(transactions, before[2])

    def testARepairIsTold(self):
        begin = time.time()
        subprocess.run(["ebtables", "-F", "UserForwardRules"], check=True)
        def repaired():
            found, _ = self.metrics()
            return any(name == "moatkeeper_device_repair_timestamp_seconds" and value >= begin - 1
                       for (name, _), value in found.items())
        waiting.until(repaired, "the repair")

    def testWhatIsMissingInTheKernel(self):
        os.kill(self.daemon.pid, signal.SIGSTOP)
        self.addCleanup(os.kill, self.daemon.pid, signal.SIGCONT)
        subprocess.run(["ebtables", "-F", "UserForwardRules"], check=True)
        found, _ = self.metrics()
        self.assertEqual(found[("moatkeeper_kernel_entries", ("missing",))], 1)
        self.assertEqual(found[("moatkeeper_row_in_force", (config.RULES, "4"))], 0)

    def testWithoutAServer(self):
        self.server.stop()
        found, families = self.metrics()
        self.assertEqual((found[("moatkeeper_server_up", ())], found[("moatkeeper_kernel_readable", ())]), (0, 1))
        self.assertEqual([name for name, _ in found if name.startswith(("moatkeeper_row", "moatkeeper_device"))], [])
        self.assertIn("moatkeeper_rows", families)
        self.assertIn(("moatkeeper_last_commit_timestamp_seconds", ()), found)

    def testWithoutTheRightToReadTheKernel(self):
        os.chmod(programs.SOCKET, 0o777)
        tool = os.path.join(machine.FOLDER, "moatctl")
        subprocess.run(["cp", MOATCTL, tool], check=True)
        os.chmod(machine.FOLDER, 0o755)

        def lookAround():
            done = subprocess.run([tool, "metrics"], capture_output=True, text=True, user=65534, check=False)
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            found, _ = read(done.stdout)
            self.assertEqual((found[("moatkeeper_server_up", ())], found[("moatkeeper_kernel_readable", ())]), (1, 0))
            return found if ("moatkeeper_row_in_force", (config.RULES, "4")) in found else None

        # The device says what is in force, a moment after it is.
        found = waiting.until(lookAround, "the device's word")
        self.assertEqual(found[("moatkeeper_row_in_force", (config.RULES, "4"))], 1)
        self.assertNotIn(("moatkeeper_row_frames_total", (config.RULES, "4")), found)
        self.assertNotIn(("moatkeeper_kernel_transactions_total", ()), found)

    def testAFileIsReplacedInOneStep(self):
        folder = os.path.join(machine.FOLDER, "collector")
        os.makedirs(folder, exist_ok=True)
        path = os.path.join(folder, "moatkeeper.prom")
        for _ in range(2):
            self.assertEqual(run("--output", path).stderr, "")
            with open(path, encoding="utf-8") as file:
                read(file.read())
        self.assertEqual(stat.S_IMODE(os.stat(path).st_mode), 0o644)
        before = os.stat(path).st_ino
        with open(path, encoding="utf-8") as held:
            run("--output", path)
            self.assertNotEqual(os.stat(path).st_ino, before, "whoever reads the old one has the whole of it")
            read(held.read())
        self.assertEqual(os.listdir(folder), ["moatkeeper.prom"])
        pipe, link = os.path.join(folder, "pipe"), os.path.join(folder, "link")
        os.mkfifo(pipe)
        os.symlink(path, link)
        for bad, what in ((os.path.join(folder, "none", "x.prom"), "written: .+"), (folder, "replaced: expected .+"),
                          (pipe, "replaced: .+"), (link, "replaced: .+")):
            done = run("--output", bad)
            self.assertEqual((done.returncode, done.stdout), (5, ""), bad)
            self.assertRegex(done.stderr, rf'\Amoatctl: ".*": cannot be {what}\n\Z')
        self.assertEqual(sorted(os.listdir(folder)), ["link", "moatkeeper.prom", "pipe"])


class HostileRows(machine.Machine):
    """A server whose schema refuses nothing."""

    schema, database = LOOSE_SCHEMA, "loose.db"

    @classmethod
    def setUpClass(cls):
        with open(programs.SCHEMA, encoding="utf-8") as file:
            schema = json.load(file)
        for table in schema["tables"].values():
            for column in table["columns"].values():
                column["type"]["key"] = column["type"]["key"]["type"]
        machine.makeFolder()
        with open(LOOSE_SCHEMA, "w", encoding="utf-8") as file:
            json.dump(schema, file)
        super().setUpClass()

    def testNoValueIsMoreThanAValue(self):
        self.config.replace({config.RULES: [
            {"Id": number, "Enabled": 1, "RulePrio": 5, "InInterface": value, "SrcMAC": value, "Target": value}
            for number, value in enumerate(HOSTILE, 1)]})
        done = run()
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertNotRegex(done.stdout, r"[^\n -~]")
        found, _ = read(done.stdout)
        infos = [labels for name, labels in found if name == "moatkeeper_row_info"]
        self.assertEqual(len(infos), len(HOSTILE))
        self.assertEqual(found[("moatkeeper_server_up", ())], 1)
        self.assertFalse(any(math.isnan(value) for value in found.values()))


if __name__ == "__main__":
    machine.main()
