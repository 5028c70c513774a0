"""A database is created and converted as a whole, whatever cuts in.

usage: database_prepare_test.py SCRIPT [unittest arguments]
"""

import json
import os
import pathlib
import random
import signal
import stat
import subprocess
import sys
import tempfile
import time
import unittest

from lab import waiting
from lab.programs import SCHEMA

SCRIPT = sys.argv[1]
ROWS, FEWER_ROWS = 10_000, 2_000
KILLS = 20


def run(*words):
    return subprocess.run(words, capture_output=True, text=True, check=False)


def versionOf(database):
    return subprocess.run(["ovsdb-tool", "db-version", database], check=True, capture_output=True, text=True).stdout.strip()


def query(database, *operations):
    done = subprocess.run(["ovsdb-tool", "transact", database, json.dumps(["moatkeeper", *operations])], check=True,
                          capture_output=True, text=True)
    return json.loads(done.stdout)


def rowsOf(database, table):
    rows = query(database, {"op": "select", "table": table, "where": []})[0]["rows"]
    for row in rows:
        del row["_version"]
    return sorted(rows, key=lambda row: row["_uuid"])


class Prepare(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="moatkeeper-test-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.database = self.folder / "moatkeeper.db"

    def prepare(self, schema=SCHEMA):
        return run(SCRIPT, self.database, schema)

    def schemaOf(self, version, without=()):
        schema = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))
        schema["version"] = version
        for table in without:
            del schema["tables"][table]
        path = self.folder / f"{version}.ovsschema"
        path.write_text(json.dumps(schema), encoding="utf-8")
        return path

    def makeOld(self, rows):
        tables = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))["tables"]
        old = self.schemaOf("1.0.0", without=list(tables)[6:])
        subprocess.run(["ovsdb-tool", "create", self.database, old], check=True)
        for first in range(0, rows, 1000):  # an argument has a limit
            query(self.database, *({"op": "insert", "table": "MoatKeeperRuleset", "row": {
                "Id": n, "RulePrio": n, "InInterface": "eth0", "Target": "DROP"}}
                for n in range(first + 1, first + 1001)))

    def files(self):
        return sorted(path.name for path in self.folder.iterdir() if not path.name.endswith((".ovsschema", "~lock~")))

    @staticmethod
    def isAlive(group):
        try:
            os.killpg(group, 0)
        except ProcessLookupError:
            return False
        return True

    def testANewOneHasTheRowOfThePolicies(self):
        self.assertEqual(self.prepare().returncode, 0)
        (row,) = rowsOf(self.database, "MoatKeeper")
        self.assertEqual((row["GlobalInputPolicy"], row["GlobalForwardingPolicy"]), ("ACCEPT", "ACCEPT"))
        before = self.database.read_bytes()
        self.assertEqual(self.prepare().returncode, 0)
        self.assertEqual(self.database.read_bytes(), before, "one of this version stays as it is")
        self.assertEqual(self.files(), ["moatkeeper.db"])

    def testAnOldOneLosesNothing(self):
        self.makeOld(ROWS)
        self.database.chmod(0o640)
        before = self.database.read_bytes()
        rows = rowsOf(self.database, "MoatKeeperRuleset")
        self.assertEqual(len(rows), ROWS)
        done = self.prepare()
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(versionOf(self.database), "1.1.0")
        self.assertEqual(rowsOf(self.database, "MoatKeeperRuleset"), rows)
        self.assertEqual(stat.S_IMODE(os.stat(self.database).st_mode), 0o640)
        self.assertEqual(self.files(), ["moatkeeper.db", "moatkeeper.db.before-1.1.0"])
        self.assertEqual((self.folder / "moatkeeper.db.before-1.1.0").read_bytes(), before)

    def testACutLeavesTheOldOrTheNewOne(self):
        self.makeOld(FEWER_ROWS)
        old = self.database.read_bytes()
        rows = rowsOf(self.database, "MoatKeeperRuleset")
        started = time.monotonic()
        self.assertEqual(self.prepare().returncode, 0)
        whole = time.monotonic() - started
        dice = random.Random(5)
        versions = []
        for _ in range(KILLS):
            self.database.write_bytes(old)
            with subprocess.Popen([SCRIPT, self.database, SCHEMA], stdout=subprocess.DEVNULL,
                                  start_new_session=True) as process:
                time.sleep(dice.uniform(0, whole))  # the moment is what is tried
                os.killpg(process.pid, signal.SIGKILL)
            waiting.until(lambda: not self.isAlive(process.pid), "the end of the whole group")
            versions.append(versionOf(self.database))
            self.assertEqual(rowsOf(self.database, "MoatKeeperRuleset"), rows)
            done = self.prepare()
            self.assertEqual((done.returncode, done.stderr), (0, ""))
            self.assertEqual(versionOf(self.database), "1.1.0")
            self.assertEqual(rowsOf(self.database, "MoatKeeperRuleset"), rows)
        print(f"{versions.count('1.0.0')} of {KILLS} kills came before the end", file=sys.stderr)
        self.assertIn("1.0.0", versions)

    def testWhatItDoesNotTake(self):
        subprocess.run(["ovsdb-tool", "create", self.database, self.schemaOf("1.2.0")], check=True)
        before = self.database.read_bytes()
        done = self.prepare()
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr, f"moatkeeper-db-prepare: {self.database} has version 1.2.0, and this moatkeeper "
                                      "knows 1.1.0 only: install the moatkeeper that made it\n")
        self.assertEqual(self.database.read_bytes(), before)

        self.database.write_text("no database", encoding="utf-8")
        done = self.prepare()
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"{self.database}: expected a database of a server alone", done.stderr)
        done = run(SCRIPT, self.database, self.folder / "absent")
        self.assertEqual(done.returncode, 1)
        self.assertIn("absent: expected the schema of the database", done.stderr)
        self.assertEqual(run(SCRIPT, "1", "2", "3").returncode, 1)


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[2:]], verbosity=2)
