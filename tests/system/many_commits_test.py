"""Many commits in a row leave one row of the device, a file of the server that can be compacted to what it was, and the
daemon's memory and descriptors as before. MOATKEEPER_COMMITS in the environment says how many."""

import os
import pathlib
import re
import subprocess

from lab import config, kernel, machine, waiting

COMMITS = int(os.environ.get("MOATKEEPER_COMMITS", "2000"))
AT_ONCE = 500
RULE = {"RulePrio": 5, "InInterface": "p1", "Target": "DROP", "EnableLogging": 0}
COUNT_UP = {"op": "mutate", "table": config.CHANGE, "where": [], "mutations": [["Number", "+=", 1], ["Number", "%=", 2_000_000_000]]}


class ManyCommits(machine.Machine):
    def testNothingGrows(self):
        self.configure({config.RULES: [{"Id": 1, **RULE}]}, kernel.expected(UserInputRules=["-i p1 -j DROP"]))
        self.config.transact(*config.numbered(0))
        self.seen, self.counted = 0, 0
        self.commit(2 * AT_ONCE)  # what is allocated once is
        before, size = self.state(), self.size()
        changes = self.commit(COMMITS)
        after, grown = self.state(), self.size()
        print(f"  {changes} changes, {self.commits()} commits; resident {before[0]} and then {after[0]} kB, {after[1]} "
              f"descriptors; file {size} and then {grown} bytes", flush=True)
        self.assertEqual(after[1:], before[1:])
        self.assertLess(after[0], before[0] + 1024)
        # A device's row is not written to the file.
        self.assertLess(grown - size, 300 * changes)
        self.assertNotIn('"InStep"', self.newest())
        subprocess.run(["ovs-appctl", "-t", f"{machine.FOLDER}/configuration.ctl", "ovsdb-server/compact"], check=True)
        print(f"  compacted: {self.size()} bytes", flush=True)
        self.assertLess(self.size(), 20_000)
        self.commit(1)

    def commit(self, count):
        """Makes at least that many commits, and returns how many changes that took; all are in force then."""
        wanted, changes = self.commits() + count, 0
        while self.commits() < wanted:
            for _ in range(AT_ONCE):
                changes += 1
                self.config.transact({"op": "update", "table": config.RULES, "where": [["Id", "==", 1]],
                                      "row": {"SrcMAC": f"02:00:00:{changes >> 16 & 255:02x}:{changes >> 8 & 255:02x}:"
                                                        f"{changes & 255:02x}"}}, COUNT_UP)
        number = self.config.select(config.CHANGE)[0]["Number"]
        waiting.until(lambda: [row["Number"] for row in self.config.select(config.DEVICE)] == [number],
                      lambda: f"change {number}: {self.config.select(config.DEVICE)}")
        return changes

    def commits(self):
        """Of the daemon, as far as its log has whole lines."""
        with open(self.daemon.logPath, "rb") as log:
            log.seek(self.seen)
            text, end, _ = log.read().rpartition(b"\n")
        self.seen += len(text + end)
        self.counted += len(re.findall(rb"^moatkeeper:154:", text, re.M))
        return self.counted

    def state(self):
        """Resident memory in kB, descriptors, rows of devices."""
        status = pathlib.Path(f"/proc/{self.daemon.pid}/status").read_text(encoding="ascii")
        return (int(re.search(r"VmRSS:\s+(\d+) kB", status)[1]), len(os.listdir(f"/proc/{self.daemon.pid}/fd")),
                len(self.config.select(config.DEVICE)))

    def size(self):
        return os.path.getsize(self.path())

    def path(self):
        return os.path.join(machine.FOLDER, self.database)

    def newest(self):
        """The end of the file."""
        with open(self.path(), encoding="utf-8") as file:
            file.seek(max(0, self.size() - 50_000))
            return file.read()


if __name__ == "__main__":
    machine.main()
