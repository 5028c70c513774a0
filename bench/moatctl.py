#!/usr/bin/python3
"""How long moatctl takes with many rules: import, which checks them, show, export, check, matrix, one more rule.

Starts an ovsdb-server of its own in a temporary folder. Prints the shortest and the median wall time of each verb, the
processor time of tool and server together, and the most memory that the tool took.
"""

import json
import os
import pathlib
import statistics
import subprocess
import tempfile
import time

import arguments

SCHEMA = pathlib.Path(__file__).resolve().parents[1] / "schema" / "moatkeeper.ovsschema"


def configuration(count):
    rules = [{"Id": i, "RulePrio": i, "InInterface": f"eth{i % 8}", "OutInterface": f"eth{(i + 1) % 8}",
              "SrcMAC": f"02:00:00:{i >> 16 & 255:02x}:{i >> 8 & 255:02x}:{i & 255:02x}", "Ethertype": "IPv4",
              "IPSrcAddr": f"10.{i >> 8 & 255}.{i & 255}.0/24", "IPProto": "TCP", "IPPort": i % 65000 + 1,
              "Target": "DROP" if i % 2 else "ACCEPT", "EnableLogging": i % 2} for i in range(1, count + 1)]
    return json.dumps({"MoatKeeperRuleset": rules})


def of_many_forms(count):
    """Like it, but rules that look at ever other parts of the addresses: the most that the search for rules which are
    never reached has to do."""
    tables = json.loads(configuration(count))
    for i, rule in enumerate(tables["MoatKeeperRuleset"]):
        rule["IPSrcAddr"] = f"{i % 200 + 1}.{i >> 8 & 255}.{i & 255}.0/{8 + i % 25}"
        rule["IPDstAddr"] = f"{i % 190 + 1}.{i >> 8 & 255}.{i & 255}.0/{8 + i // 25 % 25}"
    return json.dumps(tables)


def of_16_ports(count):
    """Like it, with all pairs of 16 ports."""
    tables = json.loads(configuration(count))
    for i, rule in enumerate(tables["MoatKeeperRuleset"]):
        rule["InInterface"], rule["OutInterface"] = f"eth{i % 16}", f"eth{(i // 16 + i + 1) % 16}"
    return json.dumps(tables)


def processor_seconds(pid):
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("moatctl", type=arguments.existing, help="the tool")
    parser.add_argument("rules", type=int, nargs="?", default=10000, help="how many (%(default)s)")
    parser.add_argument("runs", type=int, nargs="?", default=5, help="how many (%(default)s)")
    options = parser.parse_args()
    tool, count, runs = options.moatctl, options.rules, options.runs
    with tempfile.TemporaryDirectory() as folder:
        socket = f"{folder}/server.sock"
        subprocess.run(["ovsdb-tool", "create", f"{folder}/db", SCHEMA], check=True)
        server = subprocess.Popen(["ovsdb-server", f"--remote=punix:{socket}", f"--unixctl={folder}/ctl", f"{folder}/db"],
                                  stderr=subprocess.DEVNULL)
        try:
            while not os.path.exists(socket):
                time.sleep(0.01)
            # There is no device that could say that a change is in force.
            measure(lambda *words: run([tool, "--server", socket, "--timeout", "60", "--no-wait", *words]), server.pid,
                    folder, count, runs)
        finally:
            server.terminate()
            server.wait()


def run(command):
    """Returns the most memory in kB. Statuses above 1, which stands for warnings, are errors."""
    process = subprocess.Popen(command, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(process.pid, 0)
    process.returncode = os.waitstatus_to_exitcode(status)
    if process.returncode not in (0, 1):
        raise subprocess.CalledProcessError(process.returncode, command)
    return usage.ru_maxrss


def measure(tool, server, folder, count, runs):
    full, forms, empty = f"{folder}/full.json", f"{folder}/forms.json", f"{folder}/empty.json"
    pathlib.Path(full).write_text(configuration(count))
    pathlib.Path(forms).write_text(of_many_forms(count))
    ports16 = f"{folder}/ports.json"
    pathlib.Path(ports16).write_text(of_16_ports(count))
    pathlib.Path(empty).write_text('{"MoatKeeper": [{}]}')
    tool("global", "set", "--input", "ACCEPT", "--forward", "ACCEPT")
    verbs = {"import": ("import", full), "show": ("show", "rule"), "export": ("export",), "check": ("check",),
             "import, nothing new": ("import", full), "import, many forms": ("import", forms), "check, many forms": ("check",),
             "import, 16 ports": ("import", ports16), "matrix, 16 ports": ("matrix", "--configured"),
             "rule add": ("rule", "add", "--in", "eth0", "--drop"), "import, all removed": ("import", empty, "--replace")}
    wall = {verb: [] for verb in verbs}
    processor = {verb: [] for verb in verbs}
    memory = {verb: 0 for verb in verbs}
    for _ in range(runs):
        for verb, words in verbs.items():
            before = time.monotonic(), processor_seconds(server), sum(os.times()[2:4])
            memory[verb] = max(memory[verb], tool(*words))
            wall[verb].append(time.monotonic() - before[0])
            processor[verb].append(processor_seconds(server) - before[1] + sum(os.times()[2:4]) - before[2])
    print(f"{count} rules, {runs} runs, seconds")
    print(f"{'verb':22}{'shortest':>10}{'median':>10}{'processor':>11}{'memory, MB':>12}")
    for verb in verbs:
        print(f"{verb:22}{min(wall[verb]):10.2f}{statistics.median(wall[verb]):10.2f}{min(processor[verb]):11.2f}"
              f"{memory[verb] / 1024:12.0f}")


if __name__ == "__main__":
    arguments.run(main)
