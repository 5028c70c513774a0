"""The recipes of the administrators' guide: each command works, and the kernel takes all of them."""

import os
import re
import subprocess
import sys

from lab import config, kernel, machine

GUIDE = os.path.realpath(os.path.join(os.path.dirname(__file__), "../../docs/guide.md"))
MOATCTL = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1] + "/../../moatctl/moatctl")


class Guide(machine.Machine):
    """All recipes, one after the other, on one configuration."""

    def testTheRecipesWork(self):
        self.configure({}, kernel.expected())
        for port in ("guest", "office", "uplink"):
            for words in (f"add {port} type veth peer name {port}_far", f"set {port} master {self.bridge.name} up"):
                subprocess.run(["ip", "link", *words.split()], check=True)
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
