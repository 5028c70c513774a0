"""A configuration far beyond any use, in the kernel: a daemon that starts anew puts all of it in force, follows what
comes after and takes all of it out again; the operator's tool works beside it. Tells times and memory.

MOATKEEPER_FRACTION: 1 for all of 100,000 and 40,000 rows; a tenth of them (10) otherwise."""

import os
import subprocess
import sys
import time

from lab import config, kernel, machine, programs, waiting

DAEMON = os.path.realpath(sys.argv[sys.argv.index("--daemon") + 1])
MOATCTL = os.path.realpath(DAEMON + "/../../moatctl/moatctl")
FRACTION = int(os.environ.get("MOATKEEPER_FRACTION", "10"))
ROWS_AT_ONCE = 10_000
PLAIN = {"InInterface": "p1", "Target": "DROP"}
MAC = "! 02:00:00:00:00:01/ff:ff:ff:ff:ff:fe"
NETWORK = "! 0000:0000:0000:0000:0000:ffff:192.168.100.101/ffff:ffff:ffff:ffff:ffff:ffff:255.255.255.255"
LONGEST = {"Enabled": 1, "InInterface": "! " + "i" * 15, "OutInterface": "! " + "o" * 15, "DstMAC": MAC, "SrcMAC": MAC,
           "Ethertype": "IPv6", "IPSrcAddr": NETWORK, "IPDstAddr": NETWORK, "IPProto": "UDP", "IPPort": 65535,
           "Target": "ACCEPT", "EnableLogging": 1}


class LargeConfiguration(machine.Machine):
    daemon = None

    @classmethod
    def startDaemon(cls):
        """Not before the rows are there."""

    @classmethod
    def tearDownClass(cls):
        if cls.daemon is not None:
            cls.daemon.stop(seconds=120)

    def setUp(self):
        self.config = config.Config(seconds=120)
        self.addCleanup(self.config.close)

    def rules(self, chain):
        return sum(line.startswith(f"-A {chain} ") for line in self.saved())

    @staticmethod
    def saved():
        return subprocess.run(["ebtables-save"], check=True, capture_output=True, text=True).stdout.splitlines()

    def moatctl(self, *words, output=subprocess.DEVNULL, status=(0,)):
        """Runs it and tells what it took."""
        before = time.monotonic()
        with subprocess.Popen([MOATCTL, "--timeout", "300", *words], stdout=output, stderr=subprocess.PIPE) as process:
            errors = process.stderr.read()
            _, ended, usage = os.wait4(process.pid, 0)
            process.returncode = os.waitstatus_to_exitcode(ended)
        self.assertIn(process.returncode, status, errors[:2000])
        print(f"  moatctl {words[0]}: {time.monotonic() - before:.1f} s, peak {usage.ru_maxrss / 1000:.0f} MB", flush=True)

    def load(self, count, chain, columns, statusOf=(0,)):
        self.config.replace({config.MAIN: [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "ACCEPT"}]})
        for first in range(0, count, ROWS_AT_ONCE):
            self.config.transact(*(config.insert(config.RULES, Id=number, RulePrio=number, **columns)
                                   for number in range(first + 1, min(first + ROWS_AT_ONCE, count) + 1)))
        started = time.monotonic()
        type(self).daemon = programs.Program([DAEMON, "-p", machine.FOLDER], machine.FOLDER + "/daemon.log")
        waiting.until(lambda: self.rules(chain) == count, lambda: f"{self.rules(chain)} of {count} rules in force:\n"
                      + self.daemon.readLog()[-2000:], 300)
        print(f"{count} rows in force after {time.monotonic() - started:.1f} s, daemon's peak "
              f"{self.daemon.peakMemoryKb() / 1000:.0f} MB", flush=True)

        started = time.monotonic()
        self.config.update(config.RULES, count // 2, Enabled=0)
        waiting.until(lambda: self.rules(chain) == count - 1, "the change of one row", 120)
        print(f"  a change of one row in force after {time.monotonic() - started:.1f} s", flush=True)

        exported = os.path.join(machine.FOLDER, "exported")
        with open(exported, "wb") as file:
            self.moatctl("export", output=file)
        self.moatctl("show")
        self.moatctl("check", status=(0, 1))
        self.moatctl("status", status=statusOf)
        self.moatctl("import", "--elsewhere", exported)

        started = time.monotonic()
        self.assertEqual(self.daemon.stop(seconds=120), 0)
        self.assertEqual(kernel.readTables(), kernel.untouched())
        print(f"  taken out after {time.monotonic() - started:.1f} s", flush=True)

    def testManyPlainRows(self):
        self.load(100_000 // FRACTION, "UserInputRules", PLAIN)

    def testRowsWithAllColumnsAtTheirLongest(self):
        self.load(40_000 // FRACTION, "UserForwardRules", LONGEST, (1,))  # no such ports


if __name__ == "__main__":
    machine.main()
