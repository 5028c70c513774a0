"""What the kernel's bridge tables hold."""

import re
import subprocess

from lab import waiting

USER_CHAINS = ("UserInputRules", "UserInputPolicy", "UserForwardRules", "UserForwardPolicy")


def readTables(elsewhere=()):
    """{chain: [policy, rule, ...]}, each rule as `ebtables-save` writes it, without "-A CHAIN". elsewhere: the words before a
    command in another namespace.

    Built-in chains that nobody has touched yet are not in its output, but in the result.
    """
    saved = subprocess.run([*elsewhere, "ebtables-save"], check=True, capture_output=True, text=True).stdout
    chains = untouched()
    for line in saved.splitlines():
        if line.startswith(":"):
            chain, policy = line[1:].split()
            chains[chain] = [policy]
        elif line.startswith("-A "):
            _, chain, rule = line.split(" ", 2)
            chains[chain].append(rule)
    return chains


def readJumpCounts(chain):
    """{target: frames that reached it by a jump of that chain}."""
    listed = subprocess.run(["ebtables", "-L", chain, "--Lc"], check=True, capture_output=True, text=True).stdout
    counts = {}
    for target, frames in re.findall(r"-j (\S+).*, pcnt = (\d+)", listed):
        counts[target] = counts.get(target, 0) + int(frames)
    return counts


def untouched():
    """The tables before the daemon has done anything."""
    return {"INPUT": ["ACCEPT"], "FORWARD": ["ACCEPT"], "OUTPUT": ["ACCEPT"]}


def expected(**chains):
    """The tables that the daemon makes of an empty configuration, but with the chains given: each a list of rules,
    or (policy, rule, ...). Of INPUT and FORWARD, only what stands before the jumps to the user chains."""
    tables = {"INPUT": ["ACCEPT"], "FORWARD": ["ACCEPT"], "OUTPUT": ["ACCEPT"],
              **{chain: ["RETURN"] for chain in USER_CHAINS}}
    for chain, rules in chains.items():
        tables[chain] = [tables.get(chain, ["RETURN"])[0], *rules] if isinstance(rules, list) else list(rules)
    tables["INPUT"] += ["-j UserInputRules", "-j UserInputPolicy"]
    tables["FORWARD"] += ["-j UserForwardRules", "-j UserForwardPolicy"]
    return tables


def waitFor(wanted, seconds=waiting.PATIENCE):
    """Returns when the kernel's tables are exactly as wanted; raises TimeoutError with the difference otherwise."""
    waiting.until(lambda: readTables() == wanted, lambda: _difference(wanted, readTables()), seconds)


def _difference(wanted, found):
    lines = ["the bridge tables:"]
    for chain in dict.fromkeys((*wanted, *found)):
        if wanted.get(chain) != found.get(chain):
            lines += [f"  {chain}", f"    wanted: {wanted.get(chain)}", f"    found:  {found.get(chain)}"]
    return "\n".join(lines)
