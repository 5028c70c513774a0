"""The recipes of the administrators' guide, the examples of the tool's manual page and the README's session: each command
works as it stands."""

import os
import re
import socket
import subprocess
import sys

from lab import config, kernel, machine, programs, waiting

README = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../README.md"))
GUIDE = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../docs/guide.md"))
MOATCTL = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1] + "/../../moatctl/moatctl")

PAGE = MOATCTL + ".8"  # beside the tool in the build
NUMBERS = range(1, 7)
ROWS = {  # that the examples are about
    config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}],
    config.RULES: [{"Id": number, "RulePrio": 10 * number, "InInterface": f"eth{number}", "Ethertype": "IPv4",
                    "IPSrcAddr": f"10.0.0.{number}", "IPProto": "TCP", "Target": "DROP"} for number in NUMBERS],
    config.INPUT_POLICY: [{"Id": number, "Interface": f"eth{number}", "Policy": "DROP"} for number in NUMBERS],
    config.FORWARD_POLICY: [{"Id": number, "InInterface": f"eth{number}", "OutInterface": "eth9", "Policy": "DROP"}
                            for number in NUMBERS],
    config.FILTERS: [{"Id": number, "Prio": number, "InInterface": f"eth{number}", "OutInterface": "eth9",
                      "MatchCriteria": "mac", "Mode": "whitelist"} for number in NUMBERS],
    config.FILTER_RULES: [{"Id": number, "BridgeFilterID": 1, "FilterMatch": f"00:11:22:33:44:0{number}"}
                          for number in NUMBERS],
}
ON_TRIAL = "moatctl rule set 2 --accept --confirm 60"
# What an example needs besides; and its other exit statuses, for what is told of these rows is no matter.
BEFORE = {"batch": "echo rule disable 1 > changes.txt",
          "import": "moatctl export > configuration.json; cp configuration.json new.json",
          "check": "moatctl export > rules.json", "rollout": "moatctl export > site.json",
          "devices": "ovsdb-client transact unix:/tmp/cfgserver.socket '[\"moatkeeper\", {\"op\": \"insert\", "
                     "\"table\": \"MoatKeeperDevice\", \"row\": {\"Name\": \"bridge7\"}}]'", "undo": "moatctl rule disable 2", "confirm": ON_TRIAL, "cancel": ON_TRIAL}
# Groups of devices are not here: moatctl_rollout_test.py.
STATUS = {"check": (0, 1), "status": (0, 1), "devices": (0, 1), "rollout": (3,)}


def makePorts(bridge):
    """Those that the texts speak of."""
    present = [name for _, name in socket.if_nameindex()]
    for port in ("guest", "office", "uplink"):
        if port not in present:
            subprocess.run(["ip", "link", "add", port, "type", "veth", "peer", "name", f"{port}_far"], check=True)
        subprocess.run(["ip", "link", "set", port, "master", bridge, "up"], check=True)


class Manual(machine.Machine):
    """Each example of a verb on the same rows, and the others on empty tables."""

    def setUp(self):
        os.environ["PATH"] = f"{os.path.dirname(MOATCTL)}:{os.environ['PATH']}"
        os.environ["SSH_CONNECTION"] = ""  # whoever runs this over a bridge

    def testTheExamplesWork(self):
        with open(PAGE, encoding="utf-8") as page:
            text = page.read()
        verbs, _, others = text.partition(".Sh EXAMPLES")
        examples = [(line, ROWS) for line in re.findall(r"^\.Dl (.*)$", verbs, re.M)]
        self.assertGreater(len(examples), 40)
        for pattern in (r"^\.Dl (.*)$", r"^\.Bd -literal -offset indent\n([^.]*(?:\n[^.].*)*)\n\.Ed"):
            found = re.findall(pattern, others, re.M)
            self.assertTrue(found)
            examples += [(example, {config.MAIN: ROWS[config.MAIN]}) for example in found]
        for example, rows in examples:
            self.config.replace(rows)
            # An entry without a sum: all is told, and the next change is the seventeenth.
            self.config.transact(config.delete("MoatKeeperHistory"), config.insert("MoatKeeperHistory", Number=16))
            verb = example.split()[1]
            if verb in ("monitor", "top", "trace", "expire"):
                self.watch(example)
                continue
            self.run_(BEFORE.get(verb, "true"))
            self.run_(example, STATUS.get(verb, (0,)))

    def run_(self, command, wanted=(0,)):
        done = subprocess.run(["sh", "-ec", command], capture_output=True, text=True, check=False, cwd=machine.FOLDER,
                              timeout=60)
        self.assertIn(done.returncode, wanted, f"{command}: {done.stdout}{done.stderr}")

    def watch(self, example):
        """What has no end: it shows something, a change say, and ends by a signal."""
        program = programs.Program(["sh", "-c", f"exec {example}"], machine.FOLDER + "/monitor.log")
        self.addCleanup(program.stop)

        def isShown():
            self.config.update(config.RULES, 1, Enabled=0)
            self.config.update(config.RULES, 1, Enabled=1)
            return program.readLog()
        waiting.until(isShown, "something that is shown")
        self.assertEqual(program.stop(), 0, program.readLog())


class Session(machine.Machine):
    """The README's: what it shows is what comes, word for word."""

    database = "session.db"  # with Ids that nobody has used

    def setUp(self):
        os.environ["PATH"] = f"{os.path.dirname(MOATCTL)}:{os.environ['PATH']}"
        os.environ["SSH_CONNECTION"] = ""
        self.configure({}, kernel.expected())
        # An entry without a sum: that change is told. The next one is the first.
        self.config.transact(config.insert("MoatKeeperHistory", Number=1000))
        self.config.transact(config.delete("MoatKeeperHistory"))
        makePorts(self.bridge.name)

    def testItIsAsShown(self):
        with open(README, encoding="utf-8") as readme:
            shown = re.search(r"```console\n(.*?)```", readme.read(), re.DOTALL)[1]
        commands = re.findall(r"^# (.*)$", shown, re.M)
        self.assertGreater(len(commands), 4)
        come = ""
        for command in commands:
            done = subprocess.run(["sh", "-c", f"{command} 2>&1"], capture_output=True, text=True, check=False, timeout=60)
            come += f"# {command}\n{done.stdout}"
        self.assertEqual(come, shown)


class Guide(machine.Machine):
    """All recipes, one after the other, on one configuration."""

    def testTheRecipesWork(self):
        self.configure({}, kernel.expected())
        makePorts(self.bridge.name)
        with open(GUIDE, encoding="utf-8") as guide:
            blocks = re.findall(r"```sh\n(.*?)```", guide.read(), re.DOTALL)
        commands = [line for block in blocks for line in block.splitlines()]
        self.assertGreater(len(commands), 10)
        for command in commands:
            words, _, target = command.partition(" > ")
            done = subprocess.run([MOATCTL, *words.split()[1:]], capture_output=True, text=True, check=False,
                                  cwd=machine.FOLDER)
            self.assertEqual(0, done.returncode, f"{command}: {done.stdout}{done.stderr}")
            if target:
                with open(os.path.join(machine.FOLDER, target), "w", encoding="utf-8") as file:
                    file.write(done.stdout)
        vlan, mac = "10uplinkguestvlanblacklist", "20uplinkofficemacwhitelist"
        self.waitForTables(kernel.expected(
            INPUT=("DROP",), UserInputPolicy=["-i office -j ACCEPT"], UserForwardPolicy=["-i guest -o office -j DROP"],
            UserInputRules=["-p IPv4 -i guest --ip-proto udp --ip-dport 67 -j ACCEPT", "-p ARP -i guest -j ACCEPT"],
            UserForwardRules=["-p IPv4 -i guest -o office --ip-proto tcp --ip-dport 80 --log-level notice "
                              '--log-prefix "Moatkeeper denied: " -j DROP',
                              "-s 02:00:00:00:00:aa -i guest -o office -j ACCEPT"],
            FORWARD=["-p 802_1Q -i guest -o uplink -j " + vlan, "-p 802_1Q -i uplink -o guest -j " + vlan,
                     "-i office -o uplink -j " + mac, "-i uplink -o office -j " + mac],
            **{vlan: ["-p 802_1Q --vlan-id 100 -j DROP"],
               mac: ("DROP", "-s 02:00:00:00:00:0b -j RETURN", "-s 02:00:00:00:00:01 -j RETURN")}))
        self.assertNotIn("refused", self.daemon.readLog())


if __name__ == "__main__":
    machine.main()
