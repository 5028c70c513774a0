"""moatctl export and import, with a real configuration server."""

import json
import os
import re
import socket
import subprocess
import time

from moatctl_case import BAD_INPUT, OK, Case, main, read_terminal
from lab.config import insert
from lab.fake_server import FakeServer
from lab.programs import SCHEMA, startServer


class ExportImport(Case):
    def fill(self):
        self.ok("batch", stdin='''rule add --in eth0 --out eth1 --src 10.0.0.0/8 --proto tcp --port 80 --log --drop
rule add --in eth1 --vlan 100 --ethertype ARP --accept --disabled
policy add --in eth0 --drop
forward-policy add --in eth0 --out eth1 --accept --log
filter add --between eth0 eth1 --match ipv4 --mode blacklist
filter-rule add --filter 1 --match 192.168.0.0/16
global set --input DROP --forward ACCEPT
''')

    def test_round_trip_changes_nothing(self):
        self.fill()
        # A row of another client, with an unset column and a value that moatctl would not write.
        self.transact(insert("MoatKeeperRuleset", Id=9, RulePrio=3, InInterface="eth0", SrcMAC="xyz",
                             Target="DROP"))
        first = self.ok("export")
        for how in ("--replace", "--merge"):
            done = self.run_tool("import", "-", how, stdin=first)
            self.assertEqual((done.returncode, done.stdout), (OK, ""))
            self.assertIn("warning: MoatKeeperRuleset Id 9, SrcMAC", done.stderr)
            self.assertIn("0 rows to add, 0 to remove, 0 to change", done.stderr)
        self.assertEqual(self.ok("export"), first)
        empty = self.folder / "second.sock"
        self.addCleanup(startServer(SCHEMA, self.folder, "second.db", empty).stop)
        self.ok("rule", "remove", "9")
        content = self.ok("export")
        done = self.run_tool("import", "-", stdin=content, socket_path=empty)
        self.assertEqual(done.returncode, OK, done.stderr)
        done = self.run_tool("export", socket_path=empty)
        self.assertEqual(done.stdout, content)

    def test_replace_merge_and_dry_run(self):
        self.fill()
        before = self.ok("export")
        text = '''// only one rule
{"MoatKeeperRuleset": [
  {"Id": 2, "RulePrio": 7, "InInterface": "eth1", "Target": "DROP"}, /* another */
  {"Id": 5, "RulePrio": 8, "InInterface": "eth2", "Target": "ACCEPT"}
]}'''
        done = self.run_tool("import", "-", "--dry-run", "--replace", stdin=text)
        self.assertEqual(done.returncode, OK)
        self.assertEqual([line[0] for line in done.stdout.splitlines()], ["-", "-", "-", "-", "~", "+", "-", "-"])
        self.assertIn('~ MoatKeeperRuleset Id 2: Enabled 0 -> 1, RulePrio 20 -> 7, VLANID 100 -> -1, '
                      'Ethertype "ARP" -> "", Target "ACCEPT" -> "DROP"', done.stdout)
        self.assertEqual(self.ok("export"), before)
        done = self.run_tool("import", "-", stdin=text)
        self.assertIn("1 row to add, 0 to remove, 1 to change", done.stderr)
        self.assertEqual([row["Id"] for row in self.rows("rule")], [2, 5, 1])
        self.assertEqual(len(self.rows("policy")), 1)
        self.run_tool("import", "-", "--replace", stdin=text)
        self.assertEqual([row["Id"] for row in self.rows("rule")], [2, 5])
        self.assertEqual(self.rows("policy"), [])

    def test_every_error_is_named(self):
        path = self.folder / "bad.json"
        path.write_text('''{
  "MoatKeeperRuleset": [
    {"Id": 1, "RulePrio": 0, "InInterface": "eth0", "Target": "DROP"},
    {"Id": 2, "RulePrio": 1, "InInterface": "eth0", "Target": "REJECT",
     "SrcMAC": "zz"},
    {"Id": 3, "RulePrio": 1, "Target": "DROP"},
    {"Id": 4, "RulePrio": "x", "InInterface": "eth0", "Target": "DROP", "Colour": 1},
    {"Id": 1, "RulePrio": 1, "InInterface": "eth0", "Target": "DROP"}
  ],
  "MoatKeeperBridgeFilterRules": [
    {"Id": 1, "BridgeFilterID": 5, "FilterMatch": "1"}],
  "Rules": []
}''')
        done = self.run_tool("import", path, "--elsewhere")
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        places = [re.match(rf"{path}:(\d+): error: (\S*?)(?: Id (\d))?(?:, (\w+))?: ", line).groups()
                  for line in done.stderr.splitlines()[:-2]]
        rule = "MoatKeeperRuleset"
        self.assertEqual(places, [
            ("3", rule, "1", "RulePrio"), ("4", rule, "2", "Target"), ("5", rule, "2", "SrcMAC"),
            ("6", rule, "3", "InInterface"), ("7", rule, "4", "RulePrio"), ("7", rule, "4", "Colour"),
            ("8", rule, "1", "Id"), ("11", "MoatKeeperBridgeFilterRules", "1", "BridgeFilterID")])
        self.assertIn(':12: error: there is no table "Rules"', done.stderr)
        self.assertIn("9 errors; nothing was changed", done.stderr)
        self.assertEqual(self.rows("rule"), [])

    def told(self, stderr, place):
        """(line, severity, table, Id, text) of each problem; the line is empty when no file is named."""
        return [match.groups() for match in re.finditer(
            rf"^(?:{place}:(\d+): )?(error|warning): (?:MoatKeeper(\w*)(?: Id (\d+))?(?:, \w+)?: )?(.*)$", stderr, re.M)]

    def test_the_result_is_checked_as_a_whole(self):
        self.ok("batch", stdin='''global set --input ACCEPT --forward ACCEPT
filter add --id 1 --between eth0 eth1 --match mac --mode blacklist --priority 10
filter-rule add --id 1 --filter 1 --match 00:11:22:33:44:55
rule add --id 1 --priority 5 --in eth0 --out eth1 --src-mac 00:11:22:33:44:55 --drop
rule add --id 9 --priority 50 --in eth5 --out eth6 --drop
rule add --id 10 --priority 60 --in eth5 --out eth6 --drop
''')
        before = self.ok("export")
        text = '''{
"MoatKeeperBridgeFilters": [
  {"Id": 1, "Prio": 10, "InInterface": "eth0", "OutInterface": "eth1", "MatchCriteria": "vlan", "Mode": "blacklist"},
  {"Id": 2, "Prio": 10, "InInterface": "eth0", "OutInterface": "eth1", "MatchCriteria": "vlan", "Mode": "blacklist"}],
"MoatKeeperBridgeFilterRules": [
  {"Id": 2, "BridgeFilterID": 7, "FilterMatch": "100"},
  {"Id": 3, "BridgeFilterID": 1, "FilterMatch": "100"}],
"MoatKeeperRuleset": [
  {"Id": 2, "RulePrio": 7, "InInterface": "eth0", "OutInterface": "eth1", "Target": "DROP", "IPPort": 80,
   "Ethertype": "IPv4"},
  {"Id": 3, "RulePrio": 8, "InInterface": "eth0", "OutInterface": "eth1", "Target": "ACCEPT",
   "SrcMAC": "00:11:22:33:44:55"}]
}'''
        done = self.run_tool("import", "-", "--elsewhere", stdin=text)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        told = self.told(done.stderr, "standard input")
        self.assertEqual([problem[:4] for problem in told], [
            (None, "error", "BridgeFilterRules", "1"), ("4", "error", "BridgeFilters", "2"),
            ("6", "error", "BridgeFilterRules", "2"), ("9", "error", "Ruleset", "2"),
            ("11", "warning", "Ruleset", "3")])
        for problem, pattern in zip(told, ("expected a VLAN id", "is that of MoatKeeperBridgeFilters Id 1",
                                           "7: there is no such filter", "80: expected a protocol",
                                           "contradicts MoatKeeperRuleset Id 1")):
            self.assertIn(pattern, problem[4])
        self.assertIn("standard input: 4 errors; nothing was changed\n", done.stderr)
        self.assertEqual(self.ok("export"), before)

    def test_warnings_do_not_stop_an_import(self):
        text = '''{"MoatKeeperRuleset": [
{"Id": 1, "RulePrio": 1, "InInterface": "nosuchport", "OutInterface": "eth1", "Target": "DROP"},
{"Id": 2, "RulePrio": 2, "InInterface": "nosuchport", "OutInterface": "eth1", "Target": "DROP"}]}'''
        done = self.run_tool("import", "-", "--elsewhere", "--dry-run", stdin=text)
        self.assertEqual(done.returncode, OK)
        self.assertEqual(self.told(done.stderr, "standard input")[-1][:4], ("3", "warning", "Ruleset", "2"))
        self.assertNotIn("no such interface", done.stderr)
        self.assertEqual(self.rows("rule"), [])
        done = self.run_tool("import", "-", stdin=text)
        self.assertEqual(done.returncode, OK)
        self.assertIn("standard input:3: warning: MoatKeeperRuleset Id 2: the same as", done.stderr)
        self.assertIn('standard input:2: warning: MoatKeeperRuleset Id 1, InInterface: "nosuchport": this machine has no',
                      done.stderr)
        self.assertEqual(len(self.rows("rule")), 2)
        # Once they are there, they are none of the next import's business.
        done = self.run_tool("import", "-", "--replace", stdin=text)
        self.assertEqual((done.returncode, done.stderr), (OK, "0 rows to add, 0 to remove, 0 to change\n"))
        # A file need not have all tables.
        self.ok("global", "set", "--input", "ACCEPT")
        done = self.run_tool("import", "-", "--replace", stdin="{}")
        self.assertEqual(done.returncode, OK)
        self.assertRegex(done.stderr, "^warning: MoatKeeper: there is no row: .+\n0 rows to add, 3 to remove, ")

    def test_errors_can_be_stored_all_the_same(self):
        row = '{"Id": 1, "RulePrio": 1, "InInterface": "eth0", "Target": "DROP", "Ethertype": "IPv4", "IPPort": 80%s}'
        text = '{"MoatKeeper": [{}], "MoatKeeperRuleset": [' + row + "]}"
        done = self.run_tool("import", "-", stdin=text % "")
        self.assertEqual((done.returncode, self.rows("rule")), (BAD_INPUT, []))
        done = self.run_tool("import", "-", "--force", stdin=text % ', "Colour": 1')
        self.assertEqual((done.returncode, self.rows("rule")), (BAD_INPUT, []))
        self.assertIn("1 error; nothing was changed", done.stderr)
        done = self.run_tool("import", "-", "--force", stdin=text % "")
        self.assertEqual((done.returncode, len(self.rows("rule"))), (OK, 1))
        self.assertIn("standard input:1: error: MoatKeeperRuleset Id 1, IPPort: 80: expected a protocol", done.stderr)

    def test_what_is_no_configuration(self):
        for text, pattern in (("", ":1: error: "), ("{", "error"), ("[]", "expected an object"),
                              ('{"MoatKeeper": 1}', "MoatKeeper: expected a list"), ('{"MoatKeeper": [1]}', "a row"),
                              ('{"MoatKeeper": [{}, {}]}', "one row at most"), ('{"MoatKeeper": [], "MoatKeeper": []}', "error")):
            done = self.run_tool("import", "-", stdin=text)
            self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""), text)
            self.assertRegex(done.stderr, pattern)
        self.refused(BAD_INPUT, "cannot be read", "import", self.folder / "absent")
        self.refused(BAD_INPUT, "cannot be read", "import", self.folder)


class Terminal(Case):
    """What long work says of itself, on a terminal and elsewhere."""

    ENVIRONMENT = {**os.environ, "TERM": "xterm"}

    def run_slowly(self, stderr):
        """An import at a server that takes half a second for the first part of the request, and as long to answer."""
        rows = [{"Id": number, "RulePrio": number, "InInterface": "eth0", "OutInterface": "eth1", "Target": "DROP",
                 "SrcMAC": f"02:00:00:00:{number >> 8:02x}:{number & 255:02x}"} for number in range(1, 3001)]
        path = self.folder / "rules.json"
        path.write_text(json.dumps({"MoatKeeperRuleset": rows}))

        def beWritten(peer):
            peer.serveSince({})
            peer.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            peer.text = peer.connection.recv(1).decode()
            time.sleep(0.5)
            request = peer.expect("transact")
            time.sleep(0.5)
            peer.reply(request, [{"uuid": ["uuid", "11111111-1111-1111-1111-111111111111"]}
                                 for _ in request["params"][1:]])
        slow = FakeServer(self.folder / "slow", beWritten)
        self.addCleanup(slow.close)
        process = subprocess.Popen(self.command("--timeout", "60", "import", path, "--elsewhere", socket_path=slow.path),
                                   stdout=subprocess.DEVNULL, stderr=stderr, env=self.ENVIRONMENT)
        return process

    def test_progress_on_a_terminal(self):
        ours, theirs = os.openpty()
        process = self.run_slowly(theirs)
        text = read_terminal(ours, theirs)
        self.assertEqual(process.wait(60), OK, text)
        shown = [int(number) for number in re.findall(r"sending 3000 changes: (\d+)%", text)]
        self.assertTrue(shown and shown == sorted(shown) and 0 < shown[-1] < 100, text)
        self.assertIn("waiting until the server has stored 3000 changes", text)
        # Each line is taken away before the next is written; in the end the screen shows the summary only.
        screen = ""
        for part in re.split(r"(\r\x1b\[K|\r\n)", text):
            screen = (screen.rpartition("\n")[0] + "\n" if "\n" in screen else "") if part == "\r\x1b[K" \
                else screen + part.replace("\r\n", "\n")
        self.assertEqual(screen.splitlines()[-1], "3000 rows to add, 0 to remove, 0 to change")
        self.assertNotIn("%", screen)

    def test_progress_gives_way_to_messages(self):
        path = self.folder / "wrong.json"
        path.write_text('{"MoatKeeperRuleset": [{"Id": 1, "RulePrio": 0, "InInterface": "eth0", "Target": "DROP"}]}')
        silent = FakeServer(self.folder / "silent", lambda peer: peer.receive())
        self.addCleanup(silent.close)
        ours, theirs = os.openpty()
        done = subprocess.run(self.command("--timeout", "0.8", "import", path, socket_path=silent.path), stderr=theirs,
                              stdout=subprocess.DEVNULL, timeout=60, check=False, env=self.ENVIRONMENT)
        text = read_terminal(ours, theirs)
        self.assertEqual(done.returncode, BAD_INPUT)
        self.assertIn("reading the server's configuration\r\x1b[K", text)
        self.assertRegex(re.sub(r"[^\n]*\r\x1b\[K", "", text),
                         f"^{path}:1: error: .+\r\nmoatctl: {path}: 1 error; nothing was changed .+\r\n$")

    def test_no_progress_elsewhere(self):
        process = self.run_slowly(subprocess.PIPE)
        self.assertEqual(process.stderr.read().decode().splitlines()[-1], "3000 rows to add, 0 to remove, 0 to change")
        process.stderr.close()
        self.assertEqual(process.wait(60), OK)

    def test_short_work_says_nothing(self):
        ours, theirs = os.openpty()
        begin = time.monotonic()
        done = subprocess.run(self.command("import", "-", "--elsewhere"), input=b'{"MoatKeeper": [{}]}', stderr=theirs,
                              stdout=subprocess.DEVNULL, timeout=60, check=False, env=self.ENVIRONMENT)
        took = time.monotonic() - begin
        text = read_terminal(ours, theirs)
        self.assertEqual(done.returncode, OK)
        if took > 0.3:  # a busy machine makes it long work
            text = re.sub(r"[^\n]*\r\x1b\[K", "", text)
        self.assertEqual(text, "1 row to add, 0 to remove, 0 to change\r\n")


if __name__ == "__main__":
    main()
