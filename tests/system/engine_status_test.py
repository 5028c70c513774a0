"""`moatctl engine` and what status, explain and counters say in both forms of the rules.

usage: engine_status_test.py --daemon DAEMON"""

import json
import os
import signal
import subprocess
import sys

from lab import config, kernel, machine, waiting
from lab.frames import Frame

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
CHAIN = "10p2p1MACblacklist"
MANY = [f"02:00:00:00:0b:{number:02x}" for number in range(20)]
TABLES = {
    config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "DROP"}],
    config.RULES: [{"Id": 10 + n, "RulePrio": 10 + n, "InInterface": "p1", "OutInterface": "p2", "SrcMAC": mac,
                    "Target": "ACCEPT", "EnableLogging": n % 2} for n, mac in enumerate(MANY)],
    config.INPUT_POLICY: [{"Id": 7, "Interface": "p2", "Policy": "ACCEPT"}],
    config.FORWARD_POLICY: [{"Id": 8, "InInterface": "p2", "OutInterface": "p3", "Policy": "DROP"}],
    config.FILTERS: [{"Id": 9, "Prio": 10, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": "MAC",
                      "Mode": "blacklist"}],
    config.FILTER_RULES: [{"Id": 3, "BridgeFilterID": 9, "FilterMatch": MANY[5]}],
}


def moatctl(*words, status=0):
    done = subprocess.run([MOATCTL, *words], capture_output=True, text=True, timeout=60, check=False)
    if done.returncode != status:
        raise AssertionError(f"{words}: status {done.returncode} instead of {status}: {done.stdout[:1500]}{done.stderr}")
    return done.stdout


def statusNow():
    return json.loads(subprocess.run([MOATCTL, "status", "--format=json"], capture_output=True, text=True, check=False).stdout)


def engineOfDevice():
    return statusNow()["devices"][0]["engine"]


def counters():
    """{row: frames} of the rules that a row is made of."""
    rows = {}
    for rule in statusNow()["rules"]:
        if rule["table"] is not None and rule["chain"] != "FORWARD" and rule["frames"] is not None:
            key = (rule["table"], rule["id"])
            rows[key] = rows.get(key, 0) + rule["frames"]
    return rows


def metrics():
    """{sample of a row: its number}"""
    return {line.rsplit(" ", 1)[0].replace("{", " {"): int(line.rsplit(" ", 1)[1])
            for line in moatctl("metrics").splitlines() if line.startswith("moatkeeper_row_")}


class Engine(machine.Machine):
    def setUp(self):
        self.config.replace(TABLES)
        self.addCleanup(lambda: moatctl("engine", "plain"))
        waiting.until(lambda: all(rule["state"] == "ok" for rule in statusNow()["rules"]), "the configuration to be in force")

    def send(self):
        for number in (1, 2, 2, 5, 7):
            self.bridge.send(("p1", Frame(src=MANY[number])))

    def test_both_forms_say_the_same(self):
        said = {}
        for form in ("plain", "compiled"):
            moatctl("engine", form)
            self.assertEqual(engineOfDevice(), form)
            moatctl("status")
            before = counters()
            self.send()
            after = counters()
            said[form] = ({row: after[row] - before.get(row, 0) for row in after},
                          moatctl("explain", "--in", "p1", "--out", "p2", "--src-mac", MANY[5]),
                          moatctl("explain", "--in", "p1", "--out", "p2", "--src-mac", MANY[6]))
            saved = subprocess.run(["ebtables-save"], capture_output=True, text=True, check=True).stdout
            self.assertEqual("UserForwardRules" in saved, form == "plain")
        self.assertEqual(said["plain"], said["compiled"])
        self.assertEqual(sum(said["plain"][0].values()), 5)

    def bothForms(self, ask):
        """What is said in each form of the same frames; the plain form's."""
        said = []
        for form in ("plain", "compiled"):
            moatctl("engine", form)
            said.append(ask())
        self.assertEqual(*said)
        return said[0]

    def start(self, *words):
        process = subprocess.Popen([MOATCTL, *words], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        self.addCleanup(process.communicate)
        self.addCleanup(process.kill)
        return process

    def test_trace_names_the_same_rows(self):
        def trace():
            process = self.start("trace", "--format=json", "--limit", "10000")
            while process.stderr.readline() != "tracing\n":
                pass
            self.send()
            self.bridge.send(("p1", Frame(src=MANY[1], dst=self.bridge.mac)), ("p2", Frame(src=MANY[2])),
                             ("p3", Frame(src=MANY[3], vlan=5)))
            process.send_signal(signal.SIGINT)
            out, words = process.communicate(timeout=30)
            self.assertEqual(process.returncode, 0, words)
            *lines, summary = [json.loads(line) for line in out.splitlines()]
            self.assertEqual((summary["shown"], summary["not_shown"]), (len(lines), 0), summary)
            return sorted((line["in"], str(line["out"]), line["fate"], str(line["decided_by"]["table"]),
                           str(line["decided_by"]["id"]), str(line["decided_by"]["rule"]), line["decided_by"]["words"])
                          for line in lines)
        told = self.bothForms(trace)
        self.assertEqual(len(told), 15)
        for row in ((config.RULES, "17"), (config.FILTER_RULES, "3"), (config.FORWARD_POLICY, "8"), (config.MAIN, "None")):
            self.assertIn(row, [line[3:5] for line in told])

    def test_a_trace_goes_on_when_the_form_changes(self):
        process = self.start("trace", "--out", "p2", "--limit", "10000")
        while process.stderr.readline() != "tracing\n":
            pass
        for form in ("compiled", "plain"):
            moatctl("engine", form)
            waiting.until(lambda: self.bridge.send(("p1", Frame(src=MANY[7]))) or
                          "ACCEPT: MoatKeeperRuleset Id 17 " in process.stdout.readline(), "the row to be named")

    def test_top_and_metrics_count_the_same(self):
        def count():
            top = self.start("top", "--interval", "0.2", "--format=json")
            self.assertEqual(json.loads(top.stdout.readline())["rows"], [])
            before = metrics()
            self.send()
            counted = {}
            while sum(counted.values()) < 10:
                block = json.loads(top.stdout.readline())
                for row in block["rows"]:
                    key = (row["table"], row["id"], row["share"] is None)
                    counted[key] = counted.get(key, 0) + round(row["frames_per_second"] * block["seconds"])
            after = metrics()
            return counted, {name: after[name] - before.get(name, 0) for name in after if after[name] != before.get(name, 0)}
        rates, counters_ = self.bothForms(count)
        self.assertEqual(rates, {(config.FILTERS, 9, True): 5, (config.FILTER_RULES, 3, False): 1, (config.RULES, 11, False): 1,
                                 (config.RULES, 12, False): 2, (config.RULES, 17, False): 1})
        self.assertEqual({name.split(" ")[0] for name in counters_},
                         {"moatkeeper_row_frames_total", "moatkeeper_row_bytes_total"})

    def test_show_tells_what_was_made(self):
        planned = moatctl("engine", "show")
        self.assertIn("what would be made of the configuration", planned)
        moatctl("engine", "compiled")
        shown = moatctl("engine", "show")
        self.assertIn("the compiled form in the kernel", shown)
        classes = json.loads(moatctl("engine", "show", "--format=json"))["engine"]
        pair = [each for each in classes if (each["in"], each["out"]) == ("p1", "p2")]
        self.assertEqual(sum(each["elements"] >= len(MANY) for each in pair), 1, classes)
        self.assertTrue(all(each["steps"] < len(MANY) for each in classes), classes)

    def test_rows_change_and_the_daemon_is_killed(self):
        moatctl("engine", "compiled")
        moatctl("rule", "add", "--in", "p1", "--out", "p2", "--src-mac", "02:00:00:00:0c:01", "--drop")
        moatctl("status")
        os.kill(self.daemon.pid, 9)
        waiting.until(lambda: not self.daemon.isRunning(), "the daemon to die")
        self.assertIn("moatkeeper", subprocess.run(["nft", "list", "tables"], capture_output=True, text=True, check=True).stdout)
        self.restart()
        waiting.until(lambda: engineOfDevice() == "compiled", "the next one to take over")
        moatctl("status")
        subprocess.run(["nft", "delete", "table", "bridge", "moatkeeper"], check=True)
        waiting.until(lambda: "repaired" in moatctl("status"), "the repair")

    def test_others_rules_are_told(self):
        moatctl("engine", "compiled")
        subprocess.run("ebtables -A FORWARD -i theirs -j DROP".split(), check=True)
        self.addCleanup(subprocess.run, "ebtables -D FORWARD -i theirs -j DROP".split(), check=False)
        waiting.until(lambda: engineOfDevice() == "plain: rules of others are in FORWARD", engineOfDevice)
        self.assertIn("(plain: rules of others are in FORWARD)", moatctl("status", status=1))


if __name__ == "__main__":
    machine.main()
