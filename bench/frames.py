#!/usr/bin/python3
"""Measures what a frame pays for the rules on its way: in the plain form, as a list of nft's own, and in the compiled form.

Runs in a network namespace of its own; needs root. A bridge has three ports; frames come in by one, pass all rules between
two of them and leave by the other. A figure is the shortest of many bursts' time for a frame, all of it: sending, bridge,
rules, receiving. The three are taken in turn.
  plain, list, compiled  microseconds for a frame; list: nft's own rules of the same meaning, one after the other
  looks             the most steps that a frame is compared with, compiled
  load, compile, write  milliseconds: ebtables-restore of the plain form; the compiler; the compiled form's transaction
  kB                what the kernel has allocated for either form, as a memory cgroup of its own counts it; "-" where
                    none can be made
"""

import contextlib
import csv
import os
import pathlib
import random
import struct
import subprocess
import sys
import time

import arguments
from lab import sandbox
from lab.bridge import Bridge

PORTS = ("p0", "p1", "p2")
COLUMNS = ("rules", "plain us", "list us", "compiled us", "plain kB", "compiled kB")
KINDS = ("of ten shapes", "of ten, mixed")
WAY = "-A UserForwardRules -i p0 -o p1"


def mac(number):
    return f"02:cc:{number >> 24 & 255:02x}:{number >> 16 & 255:02x}:{number >> 8 & 255:02x}:{number & 255:02x}"


def ip4(number):
    return f"10.9.{number >> 8 & 255}.{number & 255}"


def ip6(number):
    return f"2001:db8::{number >> 16:x}:{number & 65535:x}"


SHAPES = [
    lambda i: f"-s {mac(i)}",
    lambda i: f"-d {mac(i)}",
    lambda i: f"-s {mac(i)} -d {mac(i + 1)}",
    lambda i: f"-p 0x800 --ip-source {ip4(i)}",
    lambda i: f"-p 0x800 --ip-source {ip4(i)} --ip-proto 17 --ip-dport {1 + i % 60000}",
    lambda i: f"-p 0x800 --ip-source {ip4(i)} --ip-destination {ip4(i + 1)} --ip-proto 6 --ip-dport {1 + i % 60000}",
    lambda i: f"-p 0x86dd --ip6-source {ip6(i)}",
    lambda i: f"-p 0x86dd --ip6-destination {ip6(i)} --ip6-proto 6 --ip6-dport {1 + i % 60000}",
    lambda i: f"-p 0x8100 -s {mac(i)} --vlan-id {i % 4095}",
    lambda i: f"-s {mac(i)} -p 0x800 --ip-proto 17 --ip-dport {1 + i % 60000}",
]


def tenShapes(count, mixed):
    """One shape after the other; or mixed, where a rule in two has a frame in common with one between them."""
    shapes = [i % len(SHAPES) if mixed else i * len(SHAPES) // count for i in range(count)]
    return [f"{WAY} {SHAPES[shape](i)} -j {('ACCEPT', 'DROP')[shape % 2]}" for i, shape in enumerate(shapes)]


def lengths():
    """600 pairs of lengths of networks, 17 rules each, no two of which have a frame in common."""
    rules = []
    for i in range(10200):
        pair = i % 600
        # The first 14 bits tell the rules apart, whatever the lengths; none begins with 192.
        own = i << 18
        source, destination = 14 + pair % 19, 1 + pair // 19
        rules.append(f"{WAY} -p 0x800 --ip-source {(own >> 24) & 255}.{(own >> 16) & 255}.0.0/{source} "
                     f"--ip-destination 10.0.0.0/{destination} -j DROP")
    return rules


def site():
    """200 rules as a site has them: known stations and servers between three ports, some networks, some tags."""
    pick = random.Random(1)
    rules = []
    for way in ("-i p0 -o p1", "-i p1 -o p0", "-i p0 -o p2", "-i p2 -o p0"):
        for i in range(50):
            condition = pick.choice([SHAPES[0](i), SHAPES[0](i), SHAPES[3](i), SHAPES[4](i), SHAPES[8](i),
                                     f"-p 0x800 --ip-destination 10.{i}.0.0/16", "-p 0x806"])
            rules.append(f"-A UserForwardRules {way} {condition} -j {pick.choice(('ACCEPT', 'DROP'))}")
    return rules


def frame(destination="02:bb:00:00:00:01", source="02:aa:00:00:00:01", address="192.0.2.1"):
    """An IPv4 packet; as it is, no rule matches it, its addresses are in no network of theirs."""
    sender = bytes(int(number) for number in address.split("."))
    header = struct.pack("!BBHHHBBH4s4s", 0x45, 0, 46, 0, 0, 64, 17, 0, sender, bytes([192, 0, 2, 2]))
    total = sum(struct.unpack("!10H", header))
    total = (total & 0xFFFF) + (total >> 16)
    header = header[:10] + struct.pack("!H", ~total & 0xFFFF) + header[12:]
    return bytes.fromhex(destination.replace(":", "") + source.replace(":", "") + "0800") + header + \
        struct.pack("!HHHH", 4000, 65000, 26, 0) + bytes(18)


def frameOfThree(count):
    """One that three of the last of so many mixed rules match; the first of them accepts it."""
    return frame(destination=mac(count - 9), source=mac(count - 10), address=ip4(count - 7))


def saved(rules):
    return "*filter\n:INPUT ACCEPT\n:FORWARD ACCEPT\n:OUTPUT ACCEPT\n:UserForwardRules RETURN\n" \
        "-A FORWARD -j UserForwardRules\n" + "".join(f"{rule}\n" for rule in rules)


NATIVE = {"-s": "ether saddr", "-d": "ether daddr", "--ip-source": "ip saddr", "--ip-destination": "ip daddr",
          "--ip6-source": "ip6 saddr", "--ip6-destination": "ip6 daddr", "--vlan-id": "vlan id"}
TYPES = {"0x800": "ether type ip ", "0x806": "ether type arp ", "0x86dd": "ether type ip6 ", "0x8100": ""}
PROTOCOLS = {"6": "tcp dport", "17": "udp dport"}


def native(rules):
    """A table that nft takes, with the same rules."""
    lines = []
    for rule in rules:
        words = rule.split()[2:]
        options = dict(zip(words[::2], words[1::2]))
        text = f'iifname "{options["-i"]}" oifname "{options["-o"]}" ' + TYPES[options.get("-p", "0x8100")]
        text += "".join(f"{name} {options[option]} " for option, name in NATIVE.items() if option in options)
        for family in ("ip", "ip6"):
            if f"--{family}-dport" in options:
                text += f"{PROTOCOLS[options[f'--{family}-proto']]} {options[f'--{family}-dport']} "
        lines.append(text + f"counter {options['-j'].lower()}\n")
    return "table bridge native {\nchain forward {\ntype filter hook forward priority -200; policy accept;\n" + \
        "".join(lines) + "}\n}\n"


def run(*command, **more):
    return subprocess.run(command, check=True, capture_output=True, text=True, **more).stdout


class KernelMemory:
    """What the kernel allocates for programs that are run by it, and keeps when they have ended."""

    def __init__(self):
        self._folder = None

    def __enter__(self):
        own = dict(line.rstrip("\n").split(":", 2)[1:] for line in open("/proc/self/cgroup", encoding="ascii"))
        for above, file in ((f"/sys/fs/cgroup/memory{own.get('memory')}", "memory.kmem.usage_in_bytes"),
                            (f"/sys/fs/cgroup{own.get('')}", "memory.stat")):
            folder = pathlib.Path(above, f"frames.{os.getpid()}")
            with contextlib.suppress(OSError):
                folder.mkdir()
                if (folder / file).exists():
                    self._folder, self._file = folder, folder / file
                    return self
                folder.rmdir()
        return self

    def __exit__(self, *_):
        if self._folder:
            self._folder.rmdir()

    def run(self, *command, **more):
        def enter():
            (self._folder / "cgroup.procs").write_text(str(os.getpid()), encoding="ascii")
        return run(*command, preexec_fn=enter if self._folder else None, **more)

    def used(self):
        """kB, or nothing."""
        if not self._folder:
            return None
        text = self._file.read_text(encoding="ascii")
        numbers = dict(line.split() for line in text.splitlines()) if " " in text else {"kernel": text}
        return int(numbers["kernel"]) / 1024


class Measurement:
    def __init__(self, driver, bursts, rounds, memory):
        self._driver, self._bursts, self._rounds, self._memory = driver, bursts, rounds, memory

    def send(self, one):
        return int(run(self._driver, "send", "p0_far", str(self._bursts), input=one.hex() + "\n")) / 1000

    def all(self, rules, one):
        text, script = saved(rules), native(rules)
        plain, listed, compiled = [], [], []
        memory = [None, None]
        for _ in range(self._rounds):
            before = self._memory.used()
            begin = time.monotonic()
            self._memory.run("ebtables-restore", input=text)
            load = (time.monotonic() - begin) * 1000
            if before is not None:
                memory[0] = self._memory.used() - before
            plain.append(self.send(one))
            run("nft", "delete", "table", "bridge", "filter")
            run("nft", "-f", "-", input=script)
            listed.append(self.send(one))
            run("nft", "delete", "table", "bridge", "native")
            self.settle(before)
            compiling, writing, looks = self._memory.run(self._driver, "compile", input=text).split()
            if before is not None:
                memory[1] = self._memory.used() - before
            compiled.append(self.send(one))
            run("nft", "delete", "table", "bridge", "moatkeeper")
            self.settle(before)
        return min(plain), min(listed), min(compiled), int(looks), load, float(compiling), float(writing), *memory

    def settle(self, before):
        """The kernel gives memory back a moment later, and keeps some pages for later."""
        end = time.monotonic() + 3
        while before is not None and self._memory.used() > before + 64 and time.monotonic() < end:
            time.sleep(0.02)


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("build", type=arguments.existing, help="the build folder")
    parser.add_argument("--sizes", default="10,100,1000,10000", help="numbers of rules of ten shapes (%(default)s)")
    parser.add_argument("--bursts", type=int, default=300, help="of 64 frames (%(default)s)")
    parser.add_argument("--rounds", type=int, default=3, help="of which the best counts (%(default)s)")
    parser.add_argument("--csv", metavar="FILE", help="writes the table there, too")
    parser.add_argument("--svg", metavar="FILE", help="draws it there")
    options = parser.parse_args()
    if os.geteuid() != 0:
        sys.exit("needs root, ebtables and nft")
    sandbox.enterNetwork()
    bridge = Bridge(PORTS)
    bridge.close() # the sockets; the bridge stays
    with KernelMemory() as memory:
        table = measure(Measurement(f"{options.build}/bench/frame_driver", options.bursts, options.rounds, memory),
                        [int(size) for size in options.sizes.split(",")])
    if options.csv:
        with open(options.csv, "w", encoding="utf-8", newline="") as output:
            writer = csv.DictWriter(output, COLUMNS, lineterminator="\n")
            writer.writeheader()
            writer.writerows(table)
    if options.svg:
        pathlib.Path(options.svg).write_text(plot(table), encoding="utf-8")


def plot(table):
    """Frames a second by rules."""
    curves, data = [], ""
    for kind in KINDS:
        rows = [row for row in table if row["rules"].endswith(kind)]
        block = "".join(f"{row['rules'].split()[0]} {1e6 / row['plain us']} {1e6 / row['list us']} "
                        f"{1e6 / row['compiled us']}\n" for row in rows)
        data += f"${kind.split()[-1]} << EOD\n{block}EOD\n"
        curves += [f"${kind.split()[-1]} using 1:{column} with linespoints title \"{kind}, {form}\""
                   for column, form in ((2, "plain"), (3, "a list of nft's own"), (4, "compiled"))]
    script = f"""set terminal svg size 800,500 font 'sans,13' background 'white'
set logscale xy; set xlabel 'rules'; set ylabel 'frames a second'; set grid; set key left bottom
{data}plot {', '.join(curves)}"""
    return run("gnuplot", "-", input=script)


def measure(measurement, sizes):
    print(f"without rules: {measurement.send(frame()):.2f} us a frame")
    print(f"{'rules':<24}{'plain us':>10}{'list us':>10}{'compiled us':>13}{'ratio':>8}{'looks':>7}{'load ms':>9}{'compile ms':>12}"
          f"{'write ms':>10}{'plain kB':>10}{'compiled kB':>13}")
    table = []
    sets = [("200 of a site", site(), frame())]
    sets += [(f"{size} {KINDS[0]}", tenShapes(size, mixed=False), frame()) for size in sizes]
    sets += [(f"{size} {KINDS[1]}", tenShapes(size, mixed=True), frame()) for size in sizes]
    sets += [(f"{size}, three match", tenShapes(size, mixed=True), frameOfThree(size)) for size in sizes if size % 10 == 0]
    sets += [("10200 of 600 shapes", lengths(), frame())]
    for name, rules, one in sets:
        plain, listed, compiled, looks, load, compiling, writing, *memory = measurement.all(rules, one)
        table.append(dict(zip(COLUMNS, (name, plain, listed, compiled, *memory))))
        print(f"{name:<24}{plain:>10.2f}{listed:>10.2f}{compiled:>13.2f}{plain / compiled:>8.1f}{looks:>7}{load:>9.0f}{compiling:>12.1f}"
              f"{writing:>10.1f}" + "".join(f"{'-' if used is None else round(used):>{width}}"
                                            for used, width in zip(memory, (10, 13))), flush=True)
    return table


if __name__ == "__main__":
    arguments.run(main)
