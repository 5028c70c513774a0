#!/usr/bin/python3
"""Start time, idle memory, idle system calls and size of the daemon, with empty tables and the server running; then
its memory with many rules, and after changes of one of them.

Runs as root, or where user namespaces can be made.
"""

import os
import pathlib
import re
import signal
import socket
import statistics
import subprocess
import tempfile
import time

import arguments
from lab import config, programs, sandbox, waiting

NETLINK_NETFILTER, SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, NFNLGRP_NFTABLES = 12, 270, 1, 7
IDLE_SECONDS = 10
RULES = 10000
CHANGES = 5


def measureStart(daemonPath, folder):
    """Seconds from exec to the kernel's word of the last transaction, and the daemon, still running."""
    with socket.socket(socket.AF_NETLINK, socket.SOCK_RAW, NETLINK_NETFILTER) as events:
        events.bind((0, 0))
        events.setsockopt(SOL_NETLINK, NETLINK_ADD_MEMBERSHIP, NFNLGRP_NFTABLES)
        begin = time.monotonic()
        daemon = programs.Program([daemonPath, "-p", folder], os.path.join(folder, "daemon.log"))
        last = None
        events.settimeout(5)
        try:
            while True:
                events.recv(65536)
                last = time.monotonic()
                events.settimeout(0.3)  # silence: the first commit is done
        except TimeoutError:
            pass
    saved = subprocess.run(["ebtables-save"], capture_output=True, text=True, check=True).stdout
    if last is None or "UserForwardPolicy" not in saved:
        raise RuntimeError(f"no commit: {daemon.readLog()}{saved}")
    return last - begin, daemon


def memory(pid):
    status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="ascii")
    return {name: int(re.search(rf"{name}:\s+(\d+) kB", status)[1]) for name in ("VmRSS", "VmHWM")}


def idleCalls(pid):
    """Number of system calls in IDLE_SECONDS; one that lasts all the time does not count."""
    with tempfile.NamedTemporaryFile("r") as table:
        tracer = subprocess.Popen(["strace", "-c", "-f", "-o", table.name, "-p", str(pid)],
                                  stderr=subprocess.PIPE, text=True)
        attached = tracer.stderr.readline()
        if "attached" not in attached:
            raise RuntimeError(f"strace: {attached.strip()}")
        time.sleep(IDLE_SECONDS)
        tracer.send_signal(signal.SIGINT)
        tracer.communicate(timeout=10)
        total = re.search(r"^\s*100\.00\s+\S+\s+\S*\s+(\d+).*total$", table.read(), re.MULTILINE)
    return int(total[1]) if total else 0


def tables():
    return subprocess.run(["ebtables-save"], capture_output=True, text=True, check=True).stdout


def settledMemory(pid):
    """Resident memory in kB, when it has stayed the same for a while."""
    readings = [0] * 5

    def same():
        readings[:] = readings[1:] + [memory(pid)["VmRSS"]]
        time.sleep(0.05)
        return len(set(readings)) == 1
    waiting.until(same, "memory at rest")
    return readings[0]


def memoryWithRules(pid):
    """Resident memory in kB with RULES rules, and after CHANGES changes of one."""
    database = config.Config()
    database.replace({"MoatKeeperRuleset": [
        {"Id": i, "RulePrio": i, "InInterface": f"eth{i % 8}", "OutInterface": f"eth{(i + 1) % 8}",
         "SrcMAC": f"02:00:00:00:{i >> 8:02x}:{i & 255:02x}", "Ethertype": "IPv4",
         "IPSrcAddr": f"10.{i >> 8}.{i & 255}.0/24", "IPProto": "TCP", "IPPort": i,
         "Target": "DROP" if i % 2 else "ACCEPT", "EnableLogging": i % 2} for i in range(1, RULES + 1)]})
    waiting.until(lambda: tables().count("-A UserForwardRules") == RULES, "the rules in the kernel", 60)
    filled = settledMemory(pid)
    for port in range(60001, 60001 + CHANGES):
        database.update("MoatKeeperRuleset", 1, IPPort=port)
        waiting.until(lambda: f" {port} " in tables(), "the change in the kernel", 60)
    changed = settledMemory(pid)
    database.close()
    return filled, changed


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("daemon", type=arguments.existing, help="its binary")
    parser.add_argument("schema", type=arguments.existing, help="of the database")
    parser.add_argument("runs", type=int, nargs="?", default=11, help="of which the median is taken (%(default)s)")
    options = parser.parse_args()
    daemonPath, schema, runs = options.daemon, options.schema, options.runs
    sandbox.enter(daemonPath, schema)
    folder = tempfile.mkdtemp()
    server = programs.startServer(schema, folder)
    times = []
    for number in range(runs):
        seconds, daemon = measureStart(daemonPath, folder)
        times.append(seconds)
        if number == runs - 1:
            kilobytes = memory(daemon.pid)
            calls = idleCalls(daemon.pid)
            filled, changed = memoryWithRules(daemon.pid)
        daemon.stop()
        waiting.until(lambda: "User" not in subprocess.run(["ebtables-save"], capture_output=True, text=True,
                                                          check=True).stdout, "empty tables")
    server.stop()
    stripped = os.path.join(folder, "stripped")
    subprocess.run(["strip", "-o", stripped, daemonPath], check=True)

    print("| what | measured |\n|---|---|")
    print(f"| exec to first commit done, median of {len(times)} | {statistics.median(times) * 1000:.0f} ms |")
    print(f"| the same, fastest and slowest | {min(times) * 1000:.0f} and {max(times) * 1000:.0f} ms |")
    print(f"| resident memory, idle | {kilobytes['VmRSS']} kB |")
    print(f"| resident memory, highest | {kilobytes['VmHWM']} kB |")
    print(f"| resident memory with {RULES} rules | {filled} kB |")
    print(f"| the same after {CHANGES} changes of one | {changed} kB |")
    print(f"| system calls in {IDLE_SECONDS} s, idle | {calls} |")
    print(f"| binary, stripped | {os.path.getsize(stripped)} bytes |")


if __name__ == "__main__":
    arguments.run(main)
