#!/usr/bin/python3
"""Measures what a commit takes with the rules in the plain and in the compiled form, side by side.

Runs in a network namespace of its own; needs root. The command queue by itself: a table of rules is filled again, with one
rule changed, and with all of them. Their shapes take turns: four between eight pairs of ports, or with --one-pair ten between
two ports, IPv6 among them. In turn, a new queue for each round:
  one, all    milliseconds from the end of the lines until they are in force, the median
  processor   milliseconds of the queue's processor time for each commit; most of it is reading the lines
"""

import os
import statistics
import tempfile

import arguments
import frames
from lab import sandbox
from lab.queue import Queue

CHAIN = "UserForwardRules"
FORMS = ("plain", "compiled")


def rule(place, number):
    """No two numbers below 65536 make the same rule."""
    ports = f"-i p{place % 8} -o p{(place + 1) % 8}"
    mac = f"02:cc:00:00:{number >> 8:02x}:{number & 255:02x}"
    network = f"10.{number >> 8}.{number & 255}.0/24"
    return (f"{ports} -s {mac} -j DROP", f"{ports} -p IPv4 --ip-source {network} -j ACCEPT", f"{ports} -d {mac} -j ACCEPT",
            f"{ports} -p IPv4 --ip-protocol 6 --ip-destination-port {number + 1} -j DROP")[place % 4]


def ruleOfOnePair(place, number):
    return f"-i p0 -o p1 {frames.SHAPES[place % 10](number)} -j {('ACCEPT', 'DROP')[place % 2]}"


def processorMilliseconds(queue):
    with open(f"/proc/{queue.process.pid}/schedstat") as file:
        return int(file.read().split()[0]) / 1e6


def fill(queue, rules):
    return queue.commit([f"ebtables -F {CHAIN}"] + [f"ebtables -A {CHAIN} {each}" for each in rules]) * 1e3


def measure(form, rule, count, commits, results):
    with tempfile.TemporaryDirectory() as folder:
        queue = Queue(folder)
        queue.send("form " + form)
        queue.commit([f"ebtables -N {CHAIN}", f"ebtables -P {CHAIN} RETURN", f"ebtables -A FORWARD -j {CHAIN}"])
        rules = [rule(i, i) for i in range(count)]
        fill(queue, rules)
        for name, change in (("one", lambda n: {count // 2 + n: count + n}),
                             ("all", lambda n: {i: 2 * count + n * count + i for i in range(count)})):
            before = processorMilliseconds(queue)
            for n in range(commits[name]):
                for place, number in change(n).items():
                    rules[place] = rule(place, number)
                results[form][name].append(fill(queue, rules))
            results[form][name + " processor"].append((processorMilliseconds(queue) - before) / commits[name])
        queue.send("status")
        if queue.answer("status") != form:
            raise SystemExit(f"forms.py: the rules are not in the {form} form")
        queue.send(f"add ebtables -D FORWARD -j {CHAIN}", f"add ebtables -X {CHAIN}", "process")
        queue.finish()


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("build", type=arguments.existing, help="folder of the build")
    parser.add_argument("--rules", type=int, default=10000, help="how many, at most 10000 (%(default)s)")
    parser.add_argument("--rounds", type=int, default=5, help="how many (%(default)s)")
    parser.add_argument("--one-pair", action="store_true", help="of ports")
    options = parser.parse_args()
    if not 8 <= options.rules <= 10000:
        parser.error(f"--rules {options.rules}: expected 8 to 10000")
    Queue.driver = arguments.existing(f"{options.build}/tests/system/queue_driver")
    sandbox.enterNetwork()
    names = ("one", "one processor", "all", "all processor")
    results = {form: {name: [] for name in names} for form in FORMS}
    for _ in range(options.rounds):
        for form in FORMS:
            measure(form, ruleOfOnePair if options.one_pair else rule, options.rules, {"one": 20, "all": 3}, results)
    print(f"{options.rules} rules, {options.rounds} rounds, milliseconds")
    print(f"{'':15}{'plain':>10}{'compiled':>10}{'ratio':>8}")
    for name in names:
        plain, compiled = (statistics.median(results[form][name]) for form in FORMS)
        print(f"{name:15}{plain:10.1f}{compiled:10.1f}{compiled / plain:8.2f}")


if __name__ == "__main__":
    arguments.run(main)
