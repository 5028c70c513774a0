#!/usr/bin/env python3
"""Random sequences of command lines: the kernel holds the same whether they went straight into it or the tool ran them.

usage: equality_test.py --driver TABLES_DRIVER [--sequences N] [--seed N]

Two network namespaces, one for each way. After each sequence, what `ebtables-save` and
`nft --debug=netlink list ruleset` print must be equal, but for counters, handles, the order of chains and built-in
chains that do nothing.
"""
import argparse
import os
import random
import re
import sys
import time

from lab import namespace, sandbox
from lab.namespace import Namespace

CHAINS = ["A1", "B2", "C3", "INPUT", "FORWARD", "OUTPUT"]
OWN = CHAINS[:3]
ETHERTYPES = ["IPv4", "IPv6", "ARP", "802_1Q", "0x88cc", "0x800", "0x86DD", "LENGTH", "PPP_DISC"]


MAC_NAMES = {"Unicast": "00:00:00:00:00:00", "Multicast": "01:00:00:00:00:00/01:00:00:00:00:00",
             "Broadcast": "ff:ff:ff:ff:ff:ff", "BGA": "01:80:c2:00:00:00"}


def seenByDeletion(rule):
    """The rule as the tool compares it when it deletes one: without the masks of MAC addresses, `-p LENGTH` and what is
    logged. We compare all of it."""
    rule = re.sub(r'--log(-prefix ("[^"]*"|\S+)|-level \S+|-ip6|-ip|-arp)?(?= |$)', "", rule)
    def address(match):
        option, no, text = match.groups("")
        value, _, mask = MAC_NAMES.get(text, text).partition("/")
        parts = [int(a, 16) & int(b, 16) for a, b in zip(value.split(":"), (mask or "ff:ff:ff:ff:ff:ff").split(":"))]
        return f"{option} {no}{parts}" if any(parts) or no else ""

    return " ".join(re.sub(r"(-[sd]) (! )?(\S+)", address, rule.replace("-p LENGTH", "")).split())


class Lines:
    """Random command lines: all commands and options; some that must be refused."""

    def __init__(self, seed):
        self.random = random.Random(seed)
        self.rules = []
        self.alike = {}  # rules that were ever made, by the chain and what the tool sees of them
        self.chains = set()  # those made, but for what was refused

    def line(self):
        pick = self.random
        kind = pick.choices(["-A", "-I", "-D", "-N", "-X", "-F", "-P", "wrong"], [45, 12, 12, 4, 5, 4, 8, 3])[0]
        if kind == "-N":
            return self.newChain()
        if kind in ("-X", "-F"):
            chain = pick.choice(OWN if kind == "-X" else CHAINS + ["Missing"])
            if kind == "-X":
                self.chains.discard(chain)
            # The tool refuses to delete a chain with rules or deletes it, by version: emptied it goes with all.
            return f"ebtables -F {chain}" + (f"; ebtables -X {chain}" if kind == "-X" else "")
        if kind == "-P":
            chain = pick.choice(CHAINS)
            return f"ebtables -P {chain} {pick.choice(['ACCEPT', 'DROP'] + (['RETURN'] if chain in OWN else []))}"
        if kind == "wrong":
            return pick.choice(["ebtables -A INPUT -s 1:2:3 -j DROP", "ebtables -A Nowhere -j DROP",
                                "ebtables -A FORWARD -p IPv4 --ip-src 300.1.1.1 -j DROP", "ebtables -P INPUT RETURN",
                                "ebtables -A INPUT -j Nowhere", "ebtables -A FORWARD --ip-src 10.0.0.1 -j DROP",
                                "ebtables -I FORWARD 60000 -j DROP"])
        if kind == "-D":
            return self.deletion()
        chain = pick.choice(CHAINS)
        rule = self.rule(chain)
        self.add(chain, rule)
        position = f"{pick.choice([1, 1, 1, 2, 2, 3])} " if kind == "-I" and pick.random() < 0.7 else ""
        if pick.random() < 0.1:
            second = self.rule(chain)
            self.add(chain, second)
            return f"ebtables {kind} {chain} {position}{rule};ebtables -A {chain} {second};"
        return f"ebtables {kind} {chain} {position}{rule}"

    def newChain(self):
        """Mostly one that is not there."""
        missing = [chain for chain in OWN if chain not in self.chains]
        chain = self.random.choice(missing if missing and self.random.random() < 0.9 else OWN)
        self.chains.add(chain)
        return f"ebtables -N {chain}"

    def add(self, chain, rule):
        self.rules.append((chain, rule))
        self.alike.setdefault((chain, seenByDeletion(rule)), set()).add(rule)

    def deletion(self):
        """Never of a rule that the tool takes another one for."""
        pick = self.random
        chain = pick.choice(CHAINS)
        rule = self.rule(chain)
        if self.rules and pick.random() < 0.9:
            chain, rule = self.rules.pop(pick.randrange(len(self.rules)))
        if self.alike.get((chain, seenByDeletion(rule)), set()) - {rule}:
            return "ebtables -D FORWARD -i nowhere -j DROP"
        return f"ebtables -D {chain} {rule}"

    def no(self):
        return "! " if self.random.random() < 0.15 else ""

    def mac(self):
        pick = self.random
        if pick.random() < 0.2:
            return pick.choice(["Unicast", "Multicast", "Broadcast", "BGA"])
        mac = ":".join(f"{pick.choice([0, 2, 0x12, 0xff]):02x}" for _ in range(6))
        mask = pick.choice(["", "", "", "/ff:ff:ff:00:00:00", "/ff:f0:00:00:00:00", "/00:ff:00:ff:00:01",
                            "/ff:ff:ff:ff:ff:ff", "/01:00:00:00:00:00"])
        return mac + mask

    def interface(self):
        return self.random.choice(["eth0", "eth0.100", "wlan+", "p1", "abcdefghijklmno", "e+", "br-lan"])

    def port(self):
        return self.random.choice(["80", "1:5", "1024:", ":1023", "0", "65535"])

    def ip(self, version):
        pick = self.random
        four = ["10.0.0.0/24", "192.168.1.7", "10.1.2.3/255.0.255.0", "0.0.0.0/0", "10.9.9.9/8"]
        six = ["fe80::1", "2001:db8::/32", "::/0", "2001:db8::5/ffff:ffff::"]
        option = "--ip-" if version == 4 else "--ip6-"
        parts = []
        for name in ("src", "dst"):
            if pick.random() < 0.5:
                parts.append(f"{option}{name} {self.no()}{pick.choice(four if version == 4 else six)}")
        if pick.random() < 0.5:
            protocol = pick.choice(["tcp", "udp", "17", "6", "sctp"])
            parts.append(f"{option}proto {protocol}")
            for name in ("sport", "dport"):
                if pick.random() < 0.5:
                    parts.append(f"{option}{name} {self.no()}{self.port()}")
        elif pick.random() < 0.3:
            parts.append(f"{option}proto {self.no()}{pick.choice(['1', '58', '255', '0'])}")
        return parts

    def rule(self, chain):
        pick = self.random
        parts = []
        if chain != "OUTPUT" and pick.random() < 0.4:
            parts.append(f"-i {self.no()}{self.interface()}")
        if chain != "INPUT" and pick.random() < 0.4:
            parts.append(f"-o {self.no()}{self.interface()}")
        for option in ("-s", "-d"):
            if pick.random() < 0.3:
                parts.append(f"{option} {self.no()}{self.mac()}")
        if pick.random() < 0.7:
            ethertype = pick.choice(ETHERTYPES)
            no = self.no()
            parts.append(f"-p {no}{ethertype}")
            if ethertype in ("IPv4", "0x800") and not no:
                parts += self.ip(4)
            elif ethertype in ("IPv6", "0x86DD") and not no:
                parts += self.ip(6)
            elif ethertype == "802_1Q" and not no:
                if pick.random() < 0.6:
                    parts.append(f"--vlan-id {self.no()}{pick.choice([1, 100, 4094])}")
                elif pick.random() < 0.4:
                    parts.append(f"--vlan-prio {self.no()}{pick.randint(0, 7)}")
                if pick.random() < 0.4:
                    parts.append(f"--vlan-encap {self.no()}{pick.choice(['0x0800', '0x86dd', '0x0806'])}")
        if pick.random() < 0.2:
            parts.append(pick.choice(["--log", "--log-prefix seen", "--log-level debug --log-ip",
                                      '--log --log-prefix "Moatkeeper denied: "', "--log-level 3 --log-arp --log-ip6"]))
        if pick.random() < 0.95:
            parts.append(f"-j {pick.choice(['ACCEPT', 'DROP', 'RETURN', 'CONTINUE'] + OWN)}")
        return " ".join(parts)


def commandsOf(lines):
    """Their commands, without the first word."""
    return [command.strip().removeprefix("ebtables ") for line in lines for command in line.split(";")
            if command.strip()]


def readTables(side):
    """What the kernel holds, by chain."""
    saved = side.run("ebtables-save").stdout
    rules = {}
    for line in saved.splitlines():
        if line.startswith(":"):
            rules.setdefault(line[1:].split()[0], []).append(line)
        elif line.startswith("-A "):
            rules.setdefault(line.split()[1], []).append(line)
    listed = side.nft("list ruleset")
    expressions = {}
    body = []
    for line in listed.splitlines():
        head = re.match(r"bridge (\S+) (\S+) \d+", line)
        if head:
            expressions.setdefault(head.group(1, 2), []).append([])
            body = expressions[head.group(1, 2)][-1]
        elif line.startswith("  ") and expressions:
            body.append(re.sub(r"counter pkts \d+ bytes \d+", "counter", line))
        elif line.startswith("table "):
            break
    # A built-in chain that is empty and accepts does nothing, there or not; the tool makes some also when it refuses.
    idle = [chain for chain, lines in rules.items() if lines in ([f":{chain} ACCEPT"],) and chain not in OWN]
    for chain in idle:
        del rules[chain]
    heads = {}
    for chain, hook in re.findall(r"chain (\S+) \{\n(?:\t\t(type .*))?", listed):
        if chain not in idle:
            heads[chain] = hook
    return {"ebtables-save": rules, "nft, expressions": expressions, "nft, chains": heads}


class Driver:
    """tables_driver in a namespace."""

    def __init__(self, program, namespace):
        self._process = namespace.popen(program)
        self.refused = 0

    def _ask(self, *lines):
        self._process.stdin.write("".join(line + "\n" for line in lines))
        self._process.stdin.flush()
        return self._process.stdout.readline().rstrip("\n")

    def carryOut(self, commits):
        """A commit for each list of lines, from the tables as they are. What is wrong, if anything is."""
        first = ["reset"]
        for lines in commits:
            answer = self._ask(*first, *lines, "commit")
            first = []
            while answer.startswith("refused "):
                self.refused += 1
                answer = self._ask()
            if answer != "done":
                return f"the driver answered {answer!r}"
            if (answer := self._ask("own")) != "yes":
                return f"the driver takes its own commit for another's: {answer!r}"
        return None


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--sequences", type=int, default=150)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    parser.add_argument("--each", type=int, default=10, help="in one of so many sequences each line is a process of "
                        "the tool; otherwise one takes all lines up to the next that it refuses (%(default)s)")
    options = parser.parse_args()
    options.driver = os.path.realpath(options.driver)
    try:
        sys.argv[0] = os.path.realpath(sys.argv[0])
        sandbox.enter(os.path.dirname(options.driver))
        ours, theirs = Namespace(), Namespace()
    except sandbox.Unavailable as error:
        print(f"skipped: {error}", file=sys.stderr)
        return sandbox.SKIPPED
    driver = Driver(options.driver, ours)
    print(f"seed {options.seed}", flush=True)
    total = 0
    for number in range(options.sequences):
        lines = Lines(f"{options.seed} {number}")
        pick = lines.random
        runTool = namespace.runEach if number % options.each == 0 else namespace.runInOne
        before = [lines.line() for _ in range(pick.choice([0, 0, 6]))]  # somebody else's
        chains = [lines.newChain() for _ in range(pick.choice([1, 2, 3, 3, 3]))]
        commits = [[lines.line() for _ in range(pick.randint(1, 8))] for _ in range(pick.randint(1, 4))]
        commits[0] = chains + commits[0]
        sequence = sum(commits, [])
        for side in (ours, theirs):
            side.nft("flush ruleset")
        settings = [side.start(runTool, commandsOf(before)) for side in (ours, theirs)]
        for setting in settings:
            setting.result()
        tool = theirs.start(runTool, commandsOf(sequence))
        if wrong := driver.carryOut(commits):
            print(f"sequence {number}: {wrong}")
            return 1
        tool.result()
        total += len(sequence)
        if number % 1000 == 999:
            print(f"{number + 1} sequences so far: no difference", flush=True)
        found, wanted = readTables(ours), readTables(theirs)
        if found != wanted:
            print(f"sequence {number} differs; before it:", *before, "the lines:", *sequence, sep="\n")
            for view in found:
                if found[view] != wanted[view]:
                    print(f"{view}:\n  straight: {found[view]}\n  tool:     {wanted[view]}")
            return 1
    print(f"{options.sequences} sequences, {total} lines, {driver.refused} refused: no difference")
    return 0 if total > driver.refused > 0 or options.sequences < 20 else 1


if __name__ == "__main__":
    sys.exit(main())
