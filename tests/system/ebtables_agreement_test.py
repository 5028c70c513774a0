#!/usr/bin/env python3
"""The line parser and the real tool agree: what the parser accepts the tool takes, with the same meaning; what it
refuses the tool refuses, but for the forms that are refused here on purpose.

usage: ebtables_agreement_test.py VERDICT_PROGRAM [NUMBER_OF_LINES [SEED]]
Runs itself again in a network namespace of its own."""
import random
import re
import subprocess
import sys

from lab import sandbox


VALUES = {
    "-i": ["eth0", "eth+", "+", "! eth1", "123456789012345", "1234567890123456", "et+h", "a:b", "eth0.100", "-o"],
    "-o": ["eth0", "eth+", "! eth1", "1234567890123456"],
    "-s": ["00:11:22:33:44:55", "! 00:11:22:33:44:55", "0:1:2:3:4:5", "00:11:22:33:44:55/ff:ff:ff:00:00:00",
           "Unicast", "multicast", "! Broadcast", "BGA", "00-11-22-33-44-55", "00:11:22:33:44", "00:11:22:33:44:5g",
           "00:11:22:33:44:55/00:00:00:00:00:00", "Unicast/ff:ff:ff:ff:ff:ff"],
    "-d": ["ff:ff:ff:ff:ff:ff", "01:00:00:00:00:00/01:00:00:00:00:00", "! bga", "x"],
    "-p": ["IPv4", "ipv4", "0x800", "800", "0800", "2048", "IPv6", "0x86DD", "0x86dd", "ARP", "802_1Q", "0x8100",
           "LENGTH", "! IPv4", "! 802_1Q", "! LENGTH", "0x5ff", "0x600", "0x10000", "ffff", "0x", "nonsense", "LLDP"],
    "--ip-source": ["10.0.0.1", "10.0.0.1/24", "10.0.0.1/255.0.255.0", "10.0.0.1/0", "! 10.0.0.1", "10.0.0.1/33",
                    "10.0.0.256", "10.0.0.1/", "0.0.0.0", "! 10.0.0.1/0", "10.0.0.1/32"],
    "--ip-destination": ["192.168.1.0/24", "! 192.168.1.1", "1.2.3.4.5"],
    "--ip-protocol": ["6", "17", "1", "132", "33", "136", "! 6", "tcp", "UDP", "icmp", "256", "0", "255", "0x11", "foo"],
    "--ip-destination-port": ["80", "22:80", "80:22", ":22", "22:", ":", "! 22", "65535", "65536", "0", "-5", "0x16",
                              "5:5"],
    "--ip-source-port": ["1024:65535", "! 53"],
    "--ip6-source": ["fe80::1", "fe80::1/64", "! ::1", "::/0", "fe80::1/129", "fe80", "::ffff:1.2.3.4", "FE80::A",
                     "fe80::1/ffff:0:ffff::"],
    "--ip6-destination": ["ff02::1", "! ff02::/16"],
    "--ip6-protocol": ["6", "17", "58", "! 17", "tcp", "300"],
    "--ip6-destination-port": ["53", "! 53:54", "54:53"],
    "--ip6-source-port": ["1:2"],
    "--vlan-id": ["0", "1", "100", "! 5", "4094", "4095", "4096", "abc", "0x10", "010"],
    "--vlan-prio": ["0", "7", "8", "! 3"],
    "--vlan-encap": ["IPv4", "0x800", "800", "! ARP", "0x3b", "0x3c", "LENGTH", "0", "foo", "10000", "ffff"],
    "--log": [""],
    "--log-prefix": ['"Moatkeeper denied: "', "x", '"-x"', "12345678901234567890123456789",
                     "123456789012345678901234567890", '"a;b|c"', '""'],
    "--log-level": ["info", "error", "0", "7", "8", "nonsense"],
    "--log-ip": [""], "--log-arp": [""], "--log-ip6": [""],
}
FAMILIES = [["--ip-source", "--ip-destination", "--ip-protocol", "--ip-destination-port", "--ip-source-port"],
            ["--ip6-source", "--ip6-destination", "--ip6-protocol", "--ip6-destination-port", "--ip6-source-port"],
            ["--vlan-id", "--vlan-prio", "--vlan-encap"]]
TYPES = [["IPv4", "0x800"], ["IPv6", "0x86DD"], ["802_1Q", "0x8100"]]
LOGS = ["--log", "--log-prefix", "--log-level", "--log-ip", "--log-arp", "--log-ip6"]
TARGETS = ["ACCEPT", "DROP", "RETURN", "CONTINUE", "OTHER"]
OTHER_COMMANDS = ["-P INPUT ACCEPT", "-P INPUT DROP", "-P INPUT RETURN", "-P INPUT", "-P INPUT drop", "-P UC RETURN",
                  "-P UC DROP", "-P UC CONTINUE", "-N new", "-N " + "n" * 255, "-N " + "n" * 256, "-N -5a",
                  "-X OTHER", "-F UC", "-F INPUT", "-I UC 0 -j DROP", "-I UC 1 -j DROP", "-I UC -j DROP",
                  "-A UC -j " + "j" * 29]
# Taken by the tool, refused here on purpose: an empty name, an option as a value, and what means something else than
# it seems to.
ON_PURPOSE = re.compile(r'-i -o|-o -|"\$|and not an option')


def make_rule(rng):
    chain = rng.choice(["UC"] * 6 + ["INPUT", "FORWARD", "OUTPUT"])
    parts = []
    for option in ["-i", "-o", "-s", "-d"]:
        if rng.random() < 0.3:
            parts.append((option, rng.choice(VALUES[option])))
    kind = rng.randrange(4)
    if kind < 3:
        usual = rng.random() < 0.85
        parts.append(("-p", rng.choice(TYPES[kind] if usual else VALUES["-p"])))
        for option in FAMILIES[kind]:
            if rng.random() < 0.45:
                parts.append((option, rng.choice(VALUES[option])))
    elif rng.random() < 0.6:
        parts.append(("-p", rng.choice(VALUES["-p"])))
    if rng.random() < 0.2:
        rng.shuffle(parts)
    # Behind the matches: the nf_tables variant logs before a match that is written later, and the queue always
    # writes the log options last, as the daemon does.
    if rng.random() < 0.3:
        for option in LOGS:
            if rng.random() < 0.4:
                parts.append((option, rng.choice(VALUES[option])))
    parts.append(("-j", rng.choice(TARGETS)))
    return f"-A {chain} " + " ".join(f"{o} {v}".strip() for o, v in parts)


def restore(lines):
    text = "*filter\n" + "\n".join(lines) + "\nCOMMIT\n"
    done = subprocess.run(["ebtables-restore", "--noflush"], input=text, capture_output=True, text=True, check=False)
    return done.returncode, done.stderr.strip().replace("\n", " / ")


def saved_rules():
    text = subprocess.run(["ebtables-save"], capture_output=True, text=True, check=True).stdout
    return [line for line in text.splitlines() if not line.startswith("#")]


def fresh_tables():
    subprocess.run(["nft", "flush", "ruleset"], check=True)
    code, said = restore(["-N UC", "-N OTHER"])
    if code != 0:
        print(f"skipped: no bridge tables here: {said}")
        sys.exit(sandbox.SKIPPED)


def main():
    program = sys.argv[1]
    count = int(sys.argv[2]) if len(sys.argv) > 2 else 600
    seed = int(sys.argv[3]) if len(sys.argv) > 3 else 1
    rng = random.Random(seed)
    lines = OTHER_COMMANDS + [f"-A UC {o} {v} -j DROP".replace("  ", " ") for o in VALUES for v in VALUES[o]
                              if not o.startswith(("--ip", "--vlan"))]
    for family, types in zip(FAMILIES, TYPES):
        proto = family[2] if family[0].startswith("--ip") else None
        for option in family:
            for value in VALUES[option]:
                extra = f" {proto} 6" if proto and option.endswith("port") else ""
                lines.append(f"-A UC -p {types[0]}{extra} {option} {value} -j DROP")
    lines += [make_rule(rng) for _ in range(count)]
    verdicts = subprocess.run([program], input="".join(f"ebtables {line}\n" for line in lines), capture_output=True,
                              text=True, check=True).stdout.splitlines()
    assert len(verdicts) == len(lines), "one verdict a line"
    wrong = accepted = 0
    for line, verdict in zip(lines, verdicts):
        ours, _, detail = verdict.partition("\t")
        fresh_tables()
        code, said = restore([line])
        as_written = saved_rules()
        if ours == "accepted":
            accepted += 1
            if code != 0:
                wrong += 1
                print(f"accepted here, refused by the tool: {line}: {said}")
                continue
            fresh_tables()
            code, said = restore(detail.split(" | "))
            if code != 0 or saved_rules() != as_written:
                wrong += 1
                print(f"another meaning: {line} became {detail}: {said}\n  {as_written}\n  {saved_rules()}")
        elif code == 0 and not ON_PURPOSE.search(line + verdict):
            wrong += 1
            print(f"refused here, taken by the tool: {line}: {detail}")
    print(f"{len(lines)} lines (seed {seed}), {accepted} accepted, {wrong} disagreements")
    return 1 if wrong or accepted < len(lines) // 5 else 0


if __name__ == "__main__":
    sandbox.enterNetwork()
    sys.exit(main())
