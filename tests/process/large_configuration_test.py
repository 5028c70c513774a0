"""A configuration far beyond any use: a program that starts anew gets all of it, in bounded memory, and so does the
operator's tool.

usage: large_configuration_test.py PROBE MOATCTL [unittest arguments]
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import time
import unittest

from lab.config import RULES, Config, insert
from lab.programs import SCHEMA, Program, startServer

PROBE, MOATCTL = sys.argv[1:3]
SANITIZED = bool(os.environ.get("MOATKEEPER_SANITIZED"))
ROWS_AT_ONCE = 10_000

PLAIN = {"InInterface": "eth0", "Target": "DROP"}
LONGEST = {"Enabled": 1, "InInterface": "i" * 17, "OutInterface": "o" * 17, "DstMAC": "d" * 37, "SrcMAC": "s" * 37,
           "VLANID": 4094, "Ethertype": "e" * 32, "IPSrcAddr": "a" * 93, "IPDstAddr": "b" * 93, "IPProto": "UDP",
           "IPPort": 65535, "Target": "ACCEPT", "EnableLogging": 1}


class LargeConfiguration(unittest.TestCase):
    def load(self, count, columns, peakKb):
        if SANITIZED:
            count //= 10
        with tempfile.TemporaryDirectory(prefix="moatkeeper-test-") as folder:
            server = startServer(SCHEMA, folder, socketPath=f"{folder}/socket")
            self.addCleanup(server.stop)
            config = Config(f"{folder}/socket", seconds=120)
            for first in range(0, count, ROWS_AT_ONCE):
                config.transact(*(insert(RULES, Id=number, RulePrio=number, **columns)
                                  for number in range(first + 1, min(first + ROWS_AT_ONCE, count) + 1)))
            started = time.monotonic()
            probe = Program([PROBE, f"{folder}/socket", "60", "500"], f"{folder}/probe.log")
            self.addCleanup(probe.stop)
            probe.waitForLines(rf"^load \* .*MoatKeeperRuleset={count} .*rule\(1,.*rule\(5,", seconds=240)
            seconds, peak = time.monotonic() - started, probe.peakMemoryKb()
            print(f"{count} rows: {seconds:.1f} s, peak {peak} kB", file=sys.stderr)
            if not SANITIZED:
                self.assertLess(peak, peakKb)
            config.update(RULES, count, Enabled=0)  # and it follows what comes after
            probe.waitForLines(rf"^load MoatKeeperRuleset .*MoatKeeperRuleset={count} ", seconds=60)
            self.assertEqual(len(probe.matching("^ovsdb:(?!80)")), 1, probe.readLog()[:2000])
            config.close()

            shown = pathlib.Path(folder, "shown")
            with open(shown, "wb") as output:
                subprocess.run([MOATCTL, "--server", f"{folder}/socket", "--timeout", "120", "export"], stdout=output,
                               timeout=240, check=True)
            self.assertEqual(shown.read_text(encoding="utf-8").count('"RulePrio"'), count)

    def testManyPlainRows(self):
        self.load(100_000, PLAIN, 150_000)

    def testRowsWithAllColumnsAtTheirLongest(self):
        self.load(40_000, LONGEST, 100_000)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[3:]], verbosity=2)
