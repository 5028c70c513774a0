#!/usr/bin/env python3
"""Random commits in a real kernel: after each one the kernel's tables are those of the model.

usage: random_kernel.py RANDOM_STEPS [SEED [STEPS]]
Runs itself in network namespaces of its own; exit status 77 when these cannot be made.
"""
import os
import subprocess
import sys

RESTORE, SAVE = ["ebtables-nft-restore"], ["ebtables-nft-save"]


def commands(line):
    """The commands of a line without their first word; ';' inside quotation marks does not separate."""
    parts, quoted = [""], False
    for character in line:
        quoted ^= character == '"'
        if character == ";" and not quoted:
            parts.append("")
        else:
            parts[-1] += character
    return [" ".join(p.split(" ")[1:]) for p in (part.strip() for part in parts) if p]


def restore(block):
    text = "*filter\n" + "".join(f"{c}\n" for c in block) + "COMMIT\n"
    run = subprocess.run(RESTORE + ["--noflush"], input=text.encode(), capture_output=True, timeout=60)
    return run.returncode == 0


def normal(text):
    lines = [l for l in text.splitlines() if l and not l.startswith("#")]
    # The order of the chains is the kernel's own; that of the rules in each counts.
    return sorted(l for l in lines if not l.startswith("-A")), sorted(
        (l for l in lines if l.startswith("-A")), key=lambda l: l.split()[1])


def saved():
    return normal(subprocess.run(SAVE, capture_output=True, check=True, timeout=60).stdout.decode())


def apply(lines):
    batch = []
    for command in (c for line in lines for c in commands(line)):
        if command.startswith("-X "):
            batch.append("-F " + command[3:])
        batch.append(command)
    # As one transaction; where that is refused nothing of it was done, and each command goes alone.
    if not batch or restore(batch):
        return 0
    return sum(not restore([c]) for line in lines for c in commands(line))


def main():
    program, seed, steps = sys.argv[1], sys.argv[2] if len(sys.argv) > 2 else "1", int((sys.argv + [""] * 4)[3] or 200)
    if os.environ.get("RANDOM_KERNEL_INSIDE") != "1":
        if subprocess.run(["unshare", "-n", "ebtables-nft-save"], capture_output=True).returncode != 0:
            print("skipped: no network namespaces or no ebtables-nft here")
            return 77
        return subprocess.run(["unshare", "-n", sys.executable] + sys.argv,
                              env=dict(os.environ, RANDOM_KERNEL_INSIDE="1")).returncode
    other = ["unshare", "-n"]  # each use is an empty namespace: the model's tables are loaded and saved in one
    output = subprocess.run([program, seed, str(steps)], capture_output=True, check=True).stdout.decode("latin-1")
    lines, table, step, refused = [], [], 0, 0
    for text in output.splitlines():
        kind, _, rest = text.partition(" ")
        if kind == "line":
            lines.append(rest)
        elif kind == "table":
            table.append(rest)
        else:
            step += 1
            refused += apply(lines)
            # The chains first, and made with -N: a ":chain" line takes shorter names only.
            chains = [l[1:].split(" ") for l in table if l.startswith(":")]
            block = "*filter\n" + "".join(
                [f"-N {name}\n" for name, _ in chains if name not in ("INPUT", "FORWARD", "OUTPUT")] +
                [f"-P {name} {policy}\n" for name, policy in chains] +
                [l + "\n" for l in table if not l.startswith(":")]) + "COMMIT\n"
            run = subprocess.run(other + ["sh", "-c", "ebtables-nft-restore && ebtables-nft-save"],
                                 input=block.encode(), capture_output=True, timeout=60)
            if run.returncode != 0:
                print(f"seed {seed}, commit {step}: the model's tables cannot be loaded: {run.stderr.decode()}")
                return 1
            expected = normal(run.stdout.decode())
            if saved() != expected:
                print(f"seed {seed}, commit {step}: kernel and model differ\nkernel {saved()}\nmodel  {expected}")
                print("\n".join(lines))
                return 1
            lines, table = [], []
    if step != steps:
        print(f"{step} commits came out of {program}, expected {steps}")
        return 1
    print(f"seed {seed}: {steps} commits, {refused} commands refused by the tool, kernel and model agree after each")
    return 0


if __name__ == "__main__":
    sys.exit(main())
