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
import shlex
import subprocess
import sys
import time

from lab import sandbox

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

    def line(self):
        pick = self.random
        kind = pick.choices(["-A", "-I", "-D", "-N", "-X", "-F", "-P", "wrong"], [40, 12, 12, 12, 5, 4, 8, 3])[0]
        if kind == "-N":
            return f"ebtables -N {pick.choice(OWN)}"
        if kind in ("-X", "-F"):
            chain = pick.choice(OWN if kind == "-X" else CHAINS + ["Missing"])
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
        position = f"{pick.randint(1, 4)} " if kind == "-I" and pick.random() < 0.7 else ""
        if pick.random() < 0.1:
            second = self.rule(chain)
            self.add(chain, second)
            return f"ebtables {kind} {chain} {position}{rule};ebtables -A {chain} {second};"
        return f"ebtables {kind} {chain} {position}{rule}"

    def add(self, chain, rule):
        self.rules.append((chain, rule))
        self.alike.setdefault((chain, seenByDeletion(rule)), set()).add(rule)

    def deletion(self):
        """Never of a rule that the tool takes another one for."""
        pick = self.random
        chain = pick.choice(CHAINS)
        rule = self.rule(chain)
        if self.rules and pick.random() < 0.8:
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


def commandsOf(line):
    """The argument lists of the line's commands."""
    return [words for words in (shlex.split(part) for part in line.split(";")) if words]


class Namespace:
    """A network namespace of its own, held by a sleeping process."""

    def __init__(self):
        self.holder = subprocess.Popen(["unshare", "--net", "cat"], stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                       preexec_fn=sandbox.dieWithParent)
        mine = os.readlink("/proc/self/ns/net")
        deadline = time.monotonic() + 10
        while os.readlink(f"/proc/{self.holder.pid}/ns/net") == mine:
            if time.monotonic() > deadline:
                raise sandbox.Unavailable("no second network namespace")

    def command(self, *words):
        return ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net", *words]

    def run(self, *words, **options):
        return subprocess.run(self.command(*words), capture_output=True, text=True, check=False, **options)

    def clear(self):
        self.run("nft", "flush", "ruleset")


def readTables(namespace):
    """What the kernel holds, by chain."""
    saved = namespace.run("ebtables-save").stdout
    rules = {}
    for line in saved.splitlines():
        if line.startswith(":"):
            rules.setdefault(line[1:].split()[0], []).append(line)
        elif line.startswith("-A "):
            rules.setdefault(line.split()[1], []).append(line)
    listed = namespace.run("nft", "--debug=netlink", "list", "ruleset").stdout
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


class Tool:
    """Runs command lines one by one, as fast as processes start."""

    def __init__(self, namespace):
        script = "while IFS= read -r line; do eval \"$line\" >/dev/null 2>&1; echo; done"
        self.shell = subprocess.Popen(namespace.command("sh", "-c", script), stdin=subprocess.PIPE,
                                      stdout=subprocess.PIPE, text=True, preexec_fn=sandbox.dieWithParent)

    def run(self, lines):
        count = 0
        for line in lines:
            for words in commandsOf(line):
                self.shell.stdin.write(" ".join(shlex.quote(word) for word in words) + "\n")
                count += 1
        self.shell.stdin.flush()
        for _ in range(count):
            self.shell.stdout.readline()


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--driver", required=True)
    parser.add_argument("--sequences", type=int, default=300)
    parser.add_argument("--seed", type=int, default=int(time.time()))
    options = parser.parse_args()
    options.driver = os.path.realpath(options.driver)
    try:
        sys.argv[0] = os.path.realpath(sys.argv[0])
        sandbox.enter(os.path.dirname(options.driver))
        ours, theirs = Namespace(), Namespace()
    except sandbox.Unavailable as error:
        print(f"skipped: {error}", file=sys.stderr)
        return sandbox.SKIPPED
    tool = Tool(theirs)
    both = Tool(ours), tool
    driver = subprocess.Popen(ours.command(options.driver), stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True,
                              preexec_fn=sandbox.dieWithParent)
    print(f"seed {options.seed}")
    total = refused = 0
    for number in range(options.sequences):
        lines = Lines(f"{options.seed} {number}")
        ours.clear()
        theirs.clear()
        before = [lines.line() for _ in range(lines.random.choice([0, 0, 6]))]  # somebody else's
        for side in both:
            side.run(before)
        driver.stdin.write("reset\n")
        sequence = [f"ebtables -N {chain}" for chain in OWN if lines.random.random() < 0.8]
        driver.stdin.write("".join(line + "\n" for line in sequence))
        for _ in range(lines.random.randint(1, 4)):
            part = [lines.line() for _ in range(lines.random.randint(1, 8))]
            sequence += part
            driver.stdin.write("".join(line + "\n" for line in part) + "commit\n")
            driver.stdin.flush()
            answer = driver.stdout.readline()
            while answer.startswith("refused "):
                refused += 1
                answer = driver.stdout.readline()
            if answer != "done\n":
                print(f"sequence {number}: the driver answered {answer!r}")
                return 1
            driver.stdin.write("own\n")
            driver.stdin.flush()
            if (answer := driver.stdout.readline()) != "yes\n":
                print(f"sequence {number}: the driver takes its own commit for another's: {answer!r}")
                return 1
        tool.run(sequence)
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
    print(f"{options.sequences} sequences, {total} lines, {refused} refused: no difference")
    return 0 if total > refused > 0 or options.sequences < 20 else 1


if __name__ == "__main__":
    sys.exit(main())
