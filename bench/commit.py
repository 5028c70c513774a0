#!/usr/bin/python3
"""Measures how long a commit takes, side by side with other ways of bringing the same rules into the kernel.

Runs in network and mount namespaces of its own; needs root. Every figure is a median of ROUNDS, the ways taken in turn,
of tables that already hold as many other rules:
  per line    one ebtables process for each line
  restore     ebtables-restore --noflush with the same lines, and nothing else
  nft         nft -f with rules of the same meaning
  change      the daemon's commit after one rule of the table has changed: commitToSystem called until it is in force
  all         the same after all rules have changed
  database    the whole way with the daemon in between: one row of the table is changed in the database, until it is in
              force; counted from the transaction sent to ovsdb-server
  all rows    the same for a transaction that replaces every row; most of it is the server's own work
Before each commit nothing happens for a second. With --steady, one row of the largest table is changed every 100 ms.
"""

import csv
import os
import shutil
import statistics
import subprocess
import sys
import time

import arguments
from lab import programs, sandbox, waiting
from lab.config import RULES, Config, delete, insert

SOURCE = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
WORK = "/run/bench"
LOCK = "/run/moatkeeper/lock"
RATIOS = ["change", "all", "database"]
COLUMNS = ["per line", "restore", "nft", "change", "all", "database", "all rows"]


class Driver:
    """The handler and the command queue in a process of their own."""

    def __init__(self, build):
        self._process = subprocess.Popen([f"{build}/bench/commit_driver", f"{WORK}/record"], stdin=subprocess.PIPE,
                                         stdout=subprocess.PIPE, stderr=open(f"{WORK}/driver.log", "a"), text=True,
                                         preexec_fn=sandbox.dieWithParent)

    def ask(self, command):
        self._process.stdin.write(command + "\n")
        self._process.stdin.flush()
        return self._process.stdout.readline().strip()

    def lines(self):
        count = int(self.ask("lines"))
        return [self._process.stdout.readline().strip() for _ in range(count)]

    def deliver(self):
        """Returns the seconds from the call of commitToSystem until it is in force."""
        begin, end = map(int, self.ask("deliver").split())
        return (end - begin) / 1e6

    def close(self):
        self._process.stdin.write("quit\n")
        self._process.stdin.close()
        if self._process.wait(timeout=120) != 0:
            sys.exit("the driver failed")


def rule_lines(driver):
    """The refill's lines out of a first commit's: the two flushes and the rules."""
    lines = driver.lines()
    return [line for line in lines if line.startswith(("ebtables -F User", "ebtables -A UserForwardRules"))
            and "Policy" not in line]


def nft_script(lines):
    """Rules of the same meaning in nft's language."""
    script = ["flush chain bridge filter UserInputRules", "flush chain bridge filter UserForwardRules"]
    for line in lines:
        words = line.split()
        if words[1] != "-A":
            continue
        options = dict(zip(words[3::2], words[4::2]))
        rule = ["add rule bridge filter", words[2], f'iifname "{options["-i"]}" oifname "{options["-o"]}"']
        if "-s" in options:
            rule.append(f'ether saddr {options["-s"]}')
        if "-p" in options:
            rule.append("ether type ip")
        if "--ip-source" in options:
            rule.append(f'ip saddr {options["--ip-source"]}')
        if "--ip-destination" in options:
            rule.append(f'ip daddr {options["--ip-destination"]}')
        if "--ip-destination-port" in options:
            rule.append(f'tcp dport {options["--ip-destination-port"]}')
        rule += ["counter", options["-j"].lower()]
        script.append(" ".join(rule))
    return "\n".join(script) + "\n"


def timed_run(arguments, **keywords):
    start = time.monotonic()
    result = subprocess.run(arguments, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, **keywords)
    spent = time.monotonic() - start
    if result.returncode != 0:
        sys.exit(f"{arguments[0]} failed: {result.stderr[:300]}")
    return spent


def write_file(name, text):
    path = f"{WORK}/{name}"
    with open(path, "w") as out:
        out.write(text)
    return path


def per_line(lines):
    start = time.monotonic()
    for line in lines:
        subprocess.run(line.split(), check=True, stdout=subprocess.DEVNULL)
    return time.monotonic() - start


def kernel_rules():
    saved = subprocess.run(["ebtables-save"], capture_output=True, text=True, check=True).stdout
    return sum(line.startswith("-A UserForwardRules") for line in saved.splitlines())


def measure_queue(build, size, rounds, with_per_line):
    driver = Driver(build)
    figures = {column: [] for column in COLUMNS}

    def commit(command):
        driver.ask(command)
        time.sleep(1)
        seconds = driver.deliver()
        assert kernel_rules() == size
        return seconds

    driver.ask(f"rules {size} 0")
    driver.deliver()
    for variant in range(1, rounds + 1):
        lines = rule_lines(driver)
        assert len(lines) == size + 2, (len(lines), size)
        figures["all"].append(commit(f"rules {size} {variant}"))
        figures["change"].append(commit("change"))
        batch = "*filter\n" + "".join(line.removeprefix("ebtables ") + "\n" for line in lines) + "COMMIT\n"
        with open(write_file("batch", batch)) as source:
            figures["restore"].append(timed_run(["ebtables-restore", "--noflush"], stdin=source))
        assert kernel_rules() == size
        figures["nft"].append(timed_run(["nft", "-f", write_file("script", nft_script(lines))]))
        driver.ask("change")  # which takes out what the others have put in
        driver.deliver()
    if with_per_line:
        lines = rule_lines(driver)
        figures["per line"].append(per_line(lines))
        assert kernel_rules() == size
    driver.close()
    return figures


def rows(size, variant):
    """Replaces the rule table by rules like those that the driver makes."""
    operations = [delete(RULES)]
    for number in range(1, size + 1):
        row = {"Id": number, "RulePrio": number, "InInterface": "in", "OutInterface": "out", "Target": "DROP"}
        host = f"{variant % 250}.{number // 250}.{number % 250 + 1}"
        if number % 3 == 0:
            row["SrcMAC"] = "02:00:%02x:%02x:%02x:%02x" % (variant, number >> 16, number >> 8 & 255, number & 255)
        elif number % 3 == 1:
            row.update(Ethertype="IPv4", IPSrcAddr=f"10.{host}")
        else:
            row.update(Ethertype="IPv4", IPDstAddr=f"10.{host}", IPProto="TCP", IPPort=80, Target="ACCEPT")
        operations.append(insert(RULES, **row))
    return operations


class Database:
    """The daemon and its server; every change is a transaction."""

    def __init__(self, build, size):
        self._server = programs.startServer(f"{SOURCE}/schema/moatkeeper.ovsschema", WORK)
        self._config = Config()
        self._daemon = programs.Program([f"{build}/daemon/moatkeeper", "-p", WORK], f"{WORK}/daemon.log")
        self._size = size
        self._changes = 0
        waiting.until(lambda: os.path.exists(LOCK) and self._last_commit() != 0, "the first commit")
        self.replace(0)

    def replace(self, variant):
        """All rows. Returns the seconds until they are in force."""
        seconds = self._transact(*rows(self._size, variant))
        assert kernel_rules() == self._size
        return seconds

    def change(self):
        """One row, each time another one."""
        self._changes += 1
        number = self._changes * 7919 % self._size + 1
        source = f"02:ff:00:00:{self._changes >> 8:02x}:{self._changes & 255:02x}"
        return self._transact({"op": "update", "table": RULES, "where": [["Id", "==", number]],
                               "row": {"SrcMAC": source}})

    def close(self):
        self._config.close()
        assert self._daemon.stop(seconds=60) == 0, self._daemon.readLog()
        self._server.stop()
        os.unlink(f"{WORK}/configuration.db")
        os.unlink(LOCK)

    def _last_commit(self):
        """The daemon sets this file's time at the end of each commit; nobody listening slows the kernel down."""
        return os.stat(LOCK).st_mtime_ns

    def _transact(self, *operations):
        before, start = self._last_commit(), time.time_ns()
        self._config.send(*operations)
        waiting.until(lambda: self._last_commit() != before, "the commit", seconds=120)
        self._config.receive()
        return (self._last_commit() - start) / 1e9


def measure_database(build, size, rounds, figures):
    database = Database(build, size)
    for variant in range(1, rounds + 1):
        time.sleep(1)
        figures["all rows"].append(database.replace(variant))
        time.sleep(1)
        figures["database"].append(database.change())
    database.close()


def measure_steady(build, size, seconds):
    database = Database(build, size)
    figures = []
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        figures.append(database.change())
        time.sleep(max(0, 0.1 - figures[-1]))
    database.close()
    print(f"one of {size} rows every 100 ms for {seconds:g} s: {len(figures)} changes, "
          f"median {statistics.median(figures) * 1000:.1f} ms, worst {max(figures) * 1000:.1f} ms")


def main():
    parser = arguments.parser(__doc__)
    parser.add_argument("build", type=arguments.existing, help="the build folder")
    parser.add_argument("--csv", metavar="FILE", help="writes the table there, too")
    parser.add_argument("--svg", metavar="FILE", help="draws it there")
    parser.add_argument("--sizes", default="100,1000,4000,10000,20000", help="numbers of rules (%(default)s)")
    parser.add_argument("--per-line-up-to", type=int, default=1000, metavar="RULES",
                        help="leaves out that way for more (%(default)s)")
    parser.add_argument("--rounds", type=int, default=5, help="takes the median of that many (%(default)s)")
    parser.add_argument("--steady", type=float, metavar="SECONDS", default=0, help="how long; not at all by default")
    options = parser.parse_args()
    if os.geteuid() != 0 or not all(map(shutil.which, ["ebtables-restore", "nft", "ovsdb-server"])):
        sys.exit("needs root, ebtables, nft and ovsdb-server")
    build = options.build
    files = {name: os.path.realpath(name) for name in (options.csv, options.svg) if name}
    for path in files.values():
        open(path, "ab").close() # what is there is visible inside, wherever it is
    sandbox.enter(SOURCE, build, *files.values())
    os.mkdir(WORK)

    print(f"{'rules':>6}" + "".join(f"{column + ' ms':>14}" for column in COLUMNS)
          + "".join(f"{column + '/restore':>18}" for column in RATIOS))
    table = []
    sizes = [int(size) for size in options.sizes.split(",")]
    for size in sizes:
        figures = measure_queue(build, size, options.rounds, size <= options.per_line_up_to)
        measure_database(build, size, options.rounds, figures)
        row = {column: statistics.median(values) if values else None for column, values in figures.items()}
        table.append({"rules": size, **row})
        print(f"{size:>6}" + "".join(f"{row[column] * 1000:>14.1f}" if row[column] else f"{'-':>14}"
                                     for column in COLUMNS)
              + "".join(f"{row[column] / row['restore']:>18.3f}" for column in RATIOS), flush=True)
    if options.steady:
        measure_steady(build, max(sizes), options.steady)

    if options.csv:
        with open(files[options.csv], "w", newline="") as output:
            writer = csv.DictWriter(output, ["rules"] + COLUMNS, lineterminator="\n")
            writer.writeheader()
            writer.writerows(table)
    if options.svg:
        with open(files[options.svg], "w") as output:
            output.write(plot(table))


def plot(table):
    data = write_file("plot.dat", "\n".join(
        " ".join(str(row[column]) if row[column] else "?" for column in ["rules"] + COLUMNS) for row in table))
    curves = ", ".join(f"'{data}' using 1:{index + 2} with linespoints title '{column}'"
                       for index, column in enumerate(COLUMNS))
    script = f"""set terminal svg size 800,500 font 'sans,13' background 'white'
set logscale xy; set xlabel 'rules'; set ylabel 'seconds'; set grid; set key left top
set datafile missing '?'
plot {curves}"""
    return subprocess.run(["gnuplot", "-"], input=script, capture_output=True, text=True, check=True).stdout


if __name__ == "__main__":
    arguments.run(main)
