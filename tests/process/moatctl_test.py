"""moatctl against a real configuration server: each verb with right and wrong input, and servers that are not right."""

import csv
import io
import json
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "system"))

from lab.config import Config, insert  # noqa: E402 pylint: disable=wrong-import-position
from lab.fake_server import FakeServer  # noqa: E402 pylint: disable=wrong-import-position
from lab.programs import SCHEMA, startServer  # noqa: E402 pylint: disable=wrong-import-position

MOATCTL = sys.argv[1]
COMPLETION = sys.argv[2]
MANUAL = sys.argv[3]

OK, BAD_INPUT, NO_SERVER, CONFLICT, OUTPUT = 0, 2, 3, 4, 5


class Case(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.socket = self.folder / "config.sock"
        self.start_server()

    def start_server(self, schema=SCHEMA, **options):
        self.server = startServer(schema, self.folder, **{"socketPath": self.socket, **options})
        self.addCleanup(self.server.stop)

    def transact(self, *operations):
        connection = Config(self.socket)
        connection.transact(*operations)
        connection.close()

    def command(self, *words, socket_path=None):
        return [MOATCTL, "--server", str(socket_path or self.socket), *map(str, words)]

    def run_tool(self, *words, stdin="", **options):
        return subprocess.run(self.command(*words, **options), input=stdin, stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=60)

    def ok(self, *words, stdin=""):
        done = self.run_tool(*words, stdin=stdin)
        self.assertEqual((done.returncode, done.stderr), (OK, ""), words)
        return done.stdout

    def refused(self, status, pattern, *words, stdin=""):
        """Fails with the status, nothing on standard output, one line that matches on standard error."""
        done = self.run_tool(*words, stdin=stdin)
        self.assertEqual(done.returncode, status, f"{words}: {done.stderr}")
        self.assertEqual(done.stdout, "")
        self.assertRegex(done.stderr, pattern)
        self.assertEqual(done.stderr.count("\n"), 1, done.stderr)

    def rows(self, word):
        (rows,) = json.loads(self.ok("show", word, "--format=json")).values()
        return rows

    def rule_order(self):
        return [(row["Id"], row["RulePrio"]) for row in self.rows("rule")]


class Rules(Case):
    def test_options_become_columns(self):
        self.assertEqual(self.ok("rule", "add", "--in", "eth0", "--out", "eth1", "--dst-mac", "ff:ff:ff:ff:ff:ff",
                                 "--src", "10.0.0.0/8", "--dst", "10.1.0.1", "--proto", "tcp", "--port", "80", "--log",
                                 "--drop"), "1\n")
        self.assertEqual(self.rows("rule"), [
            {"Id": 1, "Enabled": 1, "RulePrio": 10, "InInterface": "eth0", "OutInterface": "eth1",
             "DstMAC": "ff:ff:ff:ff:ff:ff", "SrcMAC": "", "VLANID": -1, "Ethertype": "IPv4", "IPSrcAddr": "10.0.0.0/8",
             "IPDstAddr": "10.1.0.1", "IPProto": "TCP", "IPPort": 80, "Target": "DROP", "EnableLogging": 1}])

    def test_spellings_that_the_daemon_does_not_know_are_translated(self):
        for given, stored in (("ipv4", "IPv4"), ("0x0800", "IPv4"), ("0x86dd", "IPv6"), ("ARP", "ARP"),
                              ("0x88cc", "0x88cc")):
            self.ok("rule", "add", "--in", "eth0", "--ethertype", given, "--drop", "--id", "1", "--priority", "-5")
            self.assertEqual(self.rows("rule")[0]["Ethertype"], stored)
            self.ok("rule", "remove", "1")
        self.ok("rule", "add", "--in", "eth0", "--src", "fe80::/10", "--proto", "17", "--port", "53", "--accept")
        row = self.rows("rule")[0]
        self.assertEqual((row["Ethertype"], row["IPProto"]), ("IPv6", "UDP"))

    def test_set_changes_only_what_is_given(self):
        self.ok("rule", "add", "--in", "eth0", "--vlan", "100", "--drop", "--log")
        before = self.rows("rule")[0]
        self.ok("rule", "set", "1", "--vlan", "200", "--accept", "--no-log", "--out", "eth1")
        self.assertEqual(self.rows("rule")[0],
                         before | {"VLANID": 200, "Target": "ACCEPT", "EnableLogging": 0, "OutInterface": "eth1"})
        self.ok("rule", "set", "1", "--vlan", "none", "--out", "")
        row = self.rows("rule")[0]
        self.assertEqual((row["VLANID"], row["OutInterface"]), (-1, ""))

    def test_wrong_values(self):
        add = ("rule", "add", "--in", "eth0", "--drop")
        for option, value, message in (
                ("--src-mac", "00:11:22:33:44", "--src-mac.*MAC address"), ("--vlan", "4095", "--vlan.*0 to 4094"),
                ("--port", "65536", "--port.*65535"), ("--port", "80x", "--port"), ("--src", "10.0.0.256", "--src"),
                ("--proto", "icmp", "--proto.*TCP or UDP"), ("--priority", "0", "--priority.*except 0"),
                ("--priority", "99999999999", "--priority"), ("--out", "a-name-that-is-too-long", "--out.*15"),
                ("--out", "eth0 eth1", "--out"), ("--out", "x;reboot", "--out"), ("--ethertype", "IPv5", "--ethertype"),
                ("--id", "0", "--id"), ("--id", "-1", "--id"), ("--dst-mac", "\x1b[31m", r"--dst-mac.*\\x1b")):
            self.refused(BAD_INPUT, message, *add, option, value)
        self.refused(BAD_INPUT, "--in is missing", "rule", "add", "--drop")
        self.refused(BAD_INPUT, "--accept or --drop", "rule", "add", "--in", "eth0")
        self.refused(BAD_INPUT, "excludes", "rule", "add", "--in", "eth0", "--drop", "--accept")
        self.refused(BAD_INPUT, "not expected", *add, "--colour", "red")
        self.refused(BAD_INPUT, "IPPort 80.*protocol", *add, "--ethertype", "IPv4", "--port", "80")
        self.refused(BAD_INPUT, "IPSrcAddr.*VLAN", *add, "--vlan", "5", "--src", "10.0.0.1")
        self.refused(BAD_INPUT, "IPSrcAddr.*IPv6", *add, "--ethertype", "IPv6", "--src", "10.0.0.1")
        self.refused(BAD_INPUT, "IPProto.*ethertype", *add, "--proto", "tcp", "--port", "80")
        self.assertEqual(self.rows("rule"), [])

    def test_ids(self):
        self.assertEqual(self.ok("rule", "add", "--in", "eth0", "--drop", "--id", "7"), "7\n")
        self.assertEqual(self.ok("rule", "add", "--in", "eth0", "--drop"), "8\n")
        self.refused(CONFLICT, "rule 7 is there already", "rule", "add", "--in", "eth1", "--drop", "--id", "7")
        self.ok("rule", "add", "--in", "eth2", "--drop", "--id", "2147483647")
        self.assertEqual(self.ok("rule", "add", "--in", "eth3", "--drop"), "1\n")

    def test_may_exist_and_if_exists(self):
        add = ("rule", "add", "--in", "eth0", "--vlan", "3", "--drop", "--may-exist")
        self.assertEqual(self.ok(*add), "1\n")
        self.assertEqual(self.ok(*add), "1\n")
        self.assertEqual(self.ok(*add, "--priority", "77"), "2\n")
        self.assertEqual(len(self.rows("rule")), 2)
        self.refused(CONFLICT, "with other values", "rule", "add", "--in", "eth9", "--drop", "--id", "1", "--may-exist")
        for verb, more in (("set", ["--log"]), ("remove", []), ("enable", []), ("disable", [])):
            self.refused(CONFLICT, "there is no rule 9", "rule", verb, "9", *more)
            self.ok("rule", verb, "9", *more, "--if-exists")
        self.assertEqual(len(self.rows("rule")), 2)

    def test_before_and_after_make_room(self):
        for number, priority in ((1, 5), (2, 6), (3, 6), (4, 9)):
            self.ok("rule", "add", "--in", f"eth{number}", "--drop", "--id", number, "--priority", priority)
        self.ok("rule", "add", "--in", "eth5", "--drop", "--id", "5", "--before", "3")
        self.assertEqual([rule for rule, _ in self.rule_order()], [1, 2, 5, 3, 4])
        self.assertEqual(self.rule_order()[-1], (4, 9), "a rule was moved without need")
        self.ok("rule", "set", "4", "--before", "1")
        self.ok("rule", "set", "2", "--after", "3")
        self.assertEqual([rule for rule, _ in self.rule_order()], [4, 1, 5, 3, 2])
        self.refused(CONFLICT, "no rule 99", "rule", "set", "2", "--after", "99")
        self.refused(BAD_INPUT, "beside itself", "rule", "set", "2", "--after", "2")
        self.refused(BAD_INPUT, "excludes", "rule", "set", "2", "--after", "1", "--priority", "3")
        self.assertNotIn(0, [priority for _, priority in self.rule_order()])

    def test_enable_disable_remove_several(self):
        for number in (1, 2, 3):
            self.ok("rule", "add", "--in", f"eth{number}", "--drop")
        self.ok("rule", "disable", "1", "3")
        self.assertEqual([row["Enabled"] for row in self.rows("rule")], [0, 1, 0])
        self.ok("rule", "enable", "3")
        self.assertEqual([row["Enabled"] for row in self.rows("rule")], [0, 1, 1])
        self.refused(CONFLICT, "no rule 4", "rule", "remove", "1", "4")
        self.ok("rule", "remove", "1", "2")
        self.assertEqual([row["Id"] for row in self.rows("rule")], [3])


class OtherTables(Case):
    def test_policies(self):
        self.ok("policy", "add", "--in", "eth0", "--drop", "--log")
        self.assertEqual(self.rows("policy"),
                         [{"Id": 1, "Enabled": 1, "Interface": "eth0", "Policy": "DROP", "EnableLogging": 1}])
        self.ok("policy", "set", "1", "--accept", "--disabled")
        self.assertEqual(self.rows("policy")[0]["Policy"], "ACCEPT")
        self.refused(BAD_INPUT, "--in is missing", "policy", "add", "--drop")
        self.ok("forward-policy", "add", "--in", "eth0", "--out", "eth1", "--accept")
        self.refused(BAD_INPUT, "--out is missing", "forward-policy", "add", "--in", "eth0", "--drop")
        self.ok("policy", "remove", "1")
        self.assertEqual((len(self.rows("policy")), len(self.rows("forward-policy"))), (0, 1))

    def test_filters(self):
        self.assertEqual(self.ok("filter", "add", "--between", "eth0", "wlan0", "--match", "MAC", "--mode", "whitelist"),
                         "1\n")
        self.assertEqual(self.rows("filter"), [{"Id": 1, "Enabled": 1, "Prio": 10, "InInterface": "eth0",
                                                "OutInterface": "wlan0", "MatchCriteria": "mac", "Mode": "whitelist"}])
        self.ok("filter", "set", "1", "--mode", "blacklist", "--between", "eth1", "eth2")
        self.refused(BAD_INPUT, "--mode", "filter", "set", "1", "--mode", "greylist")
        self.refused(BAD_INPUT, "--priority", "filter", "set", "1", "--priority", "-3")
        self.refused(BAD_INPUT, "--between", "filter", "set", "1", "--between", "eth0")
        self.refused(BAD_INPUT, "--in is missing", "filter", "add", "--match", "mac", "--mode", "whitelist")
        self.ok("filter-rule", "add", "--filter", "1", "--match", "00:11:22:33:44:55")
        self.refused(BAD_INPUT, "expected a MAC address, as filter 1 says",
                     "filter-rule", "add", "--filter", "1", "--match", "10.0.0.1")
        self.refused(CONFLICT, "no filter 2", "filter-rule", "add", "--filter", "2", "--match", "10.0.0.1")
        self.refused(CONFLICT, "filter 1 has 1 rule.*--with-rules", "filter", "remove", "1")
        self.ok("filter", "remove", "1", "--with-rules")
        self.assertEqual((self.rows("filter"), self.rows("filter-rule")), ([], []))

    def test_global(self):
        self.ok("global", "set", "--input", "drop")
        self.assertEqual(self.rows("global"), [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "ACCEPT"}])
        self.ok("global", "set", "--input", "ACCEPT", "--forward", "DROP")
        self.assertEqual(self.rows("global"), [{"GlobalInputPolicy": "ACCEPT", "GlobalForwardingPolicy": "DROP"}])
        self.refused(BAD_INPUT, "--input.*ACCEPT or DROP", "global", "set", "--input", "RETURN")
        self.refused(BAD_INPUT, "expected --input or --forward", "global", "set")


class Show(Case):
    def setUp(self):
        super().setUp()
        for number, priority in ((1, 30), (2, 10), (3, -5), (4, 10)):
            self.ok("rule", "add", "--in", f"eth{number}", "--drop", "--priority", priority)
        for number, priority in ((1, 5), (2, 20), (3, 5)):
            self.ok("filter", "add", "--between", "eth0", f"eth{number}", "--match", "vlan", "--mode", "blacklist",
                    "--priority", priority)
        for filter_id in (1, 2, 3):
            self.ok("filter-rule", "add", "--filter", filter_id, "--match", 100 + filter_id)

    def test_kernel_order(self):
        tables = json.loads(self.ok("show", "--format=json"))
        self.assertEqual(list(tables), ["MoatKeeperBridgeFilters", "MoatKeeperBridgeFilterRules", "MoatKeeperRuleset",
                                        "MoatKeeperInputPolicy", "MoatKeeperForwardingPolicy", "MoatKeeper"])
        self.assertEqual([row["Id"] for row in tables["MoatKeeperRuleset"]], [3, 2, 4, 1])
        self.assertEqual([row["Id"] for row in tables["MoatKeeperBridgeFilters"]], [3, 1, 2])
        self.assertEqual([row["BridgeFilterID"] for row in tables["MoatKeeperBridgeFilterRules"]], [3, 1, 2])

    def test_forms(self):
        table = self.ok("rule", "list").splitlines()
        self.assertEqual(table[0].split(), ["ID", "ON", "PRIORITY", "IN", "TARGET", "LOG"])
        self.assertEqual(table[1].split(), ["3", "yes", "-5", "eth3", "DROP", "no"])
        self.assertEqual(self.ok("rule", "list", "--no-headings").splitlines()[0].split(), table[1].split())
        rows = list(csv.DictReader(io.StringIO(self.ok("show", "MoatKeeperRuleset", "--format=csv"))))
        self.assertEqual([row["Id"] for row in rows], ["3", "2", "4", "1"])
        self.assertEqual(rows[0]["VLANID"], "-1")
        self.assertNotIn("\x1b", self.ok("show"))
        self.refused(BAD_INPUT, "--format", "show", "--format=xml")
        self.refused(BAD_INPUT, 'no table is called "rules"', "show", "rules")

    def test_values_of_others_are_quoted(self):
        self.transact(insert("MoatKeeperInputPolicy", Id=1, Interface='a,"b\x1b\n', Policy="DROP"))
        rows = list(csv.DictReader(io.StringIO(self.ok("policy", "list", "--format=csv"), newline="")))
        self.assertEqual(rows[0]["Interface"], 'a,"b\x1b\n')
        self.assertEqual(self.rows("policy")[0]["Interface"], 'a,"b\x1b\n')
        self.assertIn('a,"b\\x1b\\x0a', self.ok("policy", "list"))

    def test_output_that_cannot_be_written(self):
        with open("/dev/full", "w") as full:
            done = subprocess.run(self.command("show"), stdout=full, stderr=subprocess.PIPE, text=True, timeout=60)
        self.assertEqual(done.returncode, OUTPUT)
        self.assertRegex(done.stderr, "output could not be written")


class Batch(Case):
    def test_all_lines_are_one_change(self):
        text = '''# an office and its guests
filter add --id 1 --between eth0 wlan0 --match mac --mode whitelist   # comment

filter-rule add --filter 1 --match "00:11:22:33:44:55"
rule add --in 'eth0' --drop
rule add --in eth1 --accept --before 1
global set --forward DROP
'''
        self.assertEqual(self.ok("batch", stdin=text), "1\n1\n1\n2\n")
        self.assertEqual([rule for rule, _ in self.rule_order()], [2, 1])
        path = self.folder / "more"
        path.write_text("rule remove 1\nrule set 2 --log")
        self.ok("batch", path)
        self.assertEqual([row["EnableLogging"] for row in self.rows("rule")], [1])

    def test_mistakes_are_all_named_and_nothing_is_done(self):
        text = 'rule add --in eth0 --drop\nrule add --drop\nshow\nrule remove 5\n"\nrule fly\nglobal set --input no\n'
        path = self.folder / "changes"
        path.write_text(text)
        done = self.run_tool("batch", path)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        lines = done.stderr.splitlines()
        self.assertEqual([re.match(rf"{path}:(\d): error: ", line).group(1) for line in lines[:-1]],
                         ["2", "3", "4", "5", "6", "7"])
        self.assertIn("6 lines are wrong; nothing was changed", lines[-1])
        self.assertEqual(self.rows("rule"), [])
        self.refused(BAD_INPUT, "cannot be read", "batch", self.folder / "absent")


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
        self.assertIn(':12: error: no table is called "Rules"', done.stderr)
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
                                           "7: there is no such filter", "a port needs an IPProto",
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

    def run_slowly(self, stderr):
        """An import at a server that takes half a second for the first part of the request, and as long to answer."""
        rows = [{"Id": number, "RulePrio": number, "InInterface": "eth0", "OutInterface": "eth1", "Target": "DROP",
                 "SrcMAC": f"02:00:00:00:{number >> 8:02x}:{number & 255:02x}"} for number in range(1, 3001)]
        path = self.folder / "rules.json"
        path.write_text(json.dumps({"MoatKeeperRuleset": rows}))

        def serve(peer):
            peer.connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
            peer.answerSchema()
            peer.reply(peer.expect("transact"), [{"rows": []} for _ in range(6)])
            peer.text = peer.connection.recv(1).decode()
            time.sleep(0.5)
            request = peer.expect("transact")
            time.sleep(0.5)
            peer.reply(request, [{"uuid": ["uuid", "11111111-1111-1111-1111-111111111111"]}
                                 for _ in request["params"][1:]])
        slow = FakeServer(self.folder / "slow", serve)
        self.addCleanup(slow.close)
        process = subprocess.Popen(self.command("import", path, "--elsewhere", socket_path=slow.path),
                                   stdout=subprocess.DEVNULL, stderr=stderr)
        return process

    def test_progress_on_a_terminal(self):
        ours, theirs = os.openpty()
        process = self.run_slowly(theirs)
        os.close(theirs)
        text = b""
        try:
            while data := os.read(ours, 65536):
                text += data
        except OSError:  # the other end is closed
            pass
        os.close(ours)
        self.assertEqual(process.wait(10), OK, text)
        text = text.decode()
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

    def test_no_progress_elsewhere(self):
        process = self.run_slowly(subprocess.PIPE)
        self.assertEqual(process.stderr.read().decode().splitlines()[-1], "3000 rows to add, 0 to remove, 0 to change")
        process.stderr.close()
        self.assertEqual(process.wait(10), OK)

    def test_short_work_says_nothing(self):
        ours, theirs = os.openpty()
        done = subprocess.run(self.command("import", "-", "--elsewhere"), input=b'{"MoatKeeper": [{}]}', stderr=theirs,
                              stdout=subprocess.DEVNULL, timeout=60, check=False)
        os.close(theirs)
        self.assertEqual(os.read(ours, 65536), b"1 row to add, 0 to remove, 0 to change\r\n")
        os.close(ours)
        self.assertEqual(done.returncode, OK)


class Concurrency(Case):
    def test_ids_of_many_at_once_differ(self):
        running = [subprocess.Popen(self.command("rule", "add", "--in", f"eth{i}", "--drop"), stdout=subprocess.PIPE,
                                    stderr=subprocess.PIPE, text=True) for i in range(12)]
        results = [process.communicate(timeout=60) + (process.returncode,) for process in running]
        self.assertEqual([result[1:] for result in results], [("", 0)] * 12)
        self.assertEqual(sorted(int(result[0]) for result in results), list(range(1, 13)))
        self.assertEqual(len(self.rows("rule")), 12)

    def test_changes_of_different_columns_both_hold(self):
        self.ok("rule", "add", "--in", "eth0", "--drop")
        for _ in range(5):
            self.ok("rule", "set", "1", "--no-log", "--enabled")
            words = (("rule", "set", "1", "--log"), ("rule", "disable", "1"))
            running = [subprocess.Popen(self.command(*w)) for w in words]
            self.assertEqual([process.wait(60) for process in running], [0, 0])
            row = self.rows("rule")[0]
            self.assertEqual((row["EnableLogging"], row["Enabled"]), (1, 0))


class Monitor(Case):
    def watch(self, *words):
        process = subprocess.Popen(self.command("monitor", *words), stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                   text=True)
        self.addCleanup(process.stdout.close)
        self.addCleanup(process.stderr.close)
        self.addCleanup(process.wait)
        self.addCleanup(process.kill)
        self.assertEqual(process.stderr.readline(), "watching the configuration\n")
        return process

    def test_changes_with_time(self):
        process = self.watch()
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.ok("rule", "set", "1", "--log")
        self.ok("rule", "remove", "1")
        lines = [process.stdout.readline() for _ in range(3)]
        time = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d "
        self.assertRegex(lines[0], time + r'\+ MoatKeeperRuleset Id 1: RulePrio 10, InInterface "eth0", Target "DROP"$')
        self.assertRegex(lines[1], time + "~ MoatKeeperRuleset Id 1: EnableLogging 0 -> 1$")
        self.assertRegex(lines[2], time + "- MoatKeeperRuleset Id 1: ")
        process.send_signal(signal.SIGINT)
        self.assertEqual(process.wait(10), OK)

    def test_json_lines(self):
        process = self.watch("--format=json")
        self.ok("policy", "add", "--in", "eth0", "--drop")
        change = json.loads(process.stdout.readline())
        self.assertEqual((change["change"], change["table"], change["id"], change["before"]),
                         ("added", "MoatKeeperInputPolicy", 1, None))
        self.assertEqual(change["after"]["Interface"], "eth0")

    TIME = r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d "

    def change_unseen(self, *words):
        """Changes the database while the server that is watched is stopped."""
        elsewhere = self.folder / "elsewhere"
        self.start_server(socketPath=elsewhere)
        done = self.run_tool(*words, socket_path=elsewhere)
        self.assertEqual(done.returncode, OK, done.stderr)
        self.server.stop()

    def test_a_server_that_goes_away_is_waited_for(self):
        process = self.watch()
        self.ok("rule", "add", "--in", "eth0", "--drop")
        self.assertIn("+ MoatKeeperRuleset Id 1:", process.stdout.readline())
        for number, how in ((2, signal.SIGTERM), (3, signal.SIGKILL)):
            self.server.stop(how)
            self.assertRegex(process.stderr.readline(), self.TIME + "connection .+; trying again$")
            self.change_unseen("rule", "add", "--in", f"eth{number}", "--drop")
            self.change_unseen("rule", "set", "1", "--vlan", number)
            self.start_server()
            self.assertRegex(process.stderr.readline(), self.TIME + "connected again$")
            seen = [process.stdout.readline(), process.stdout.readline()]
            self.assertRegex(seen[0], self.TIME + f"~ MoatKeeperRuleset Id 1: VLANID -?\\d+ -> {number}$")
            self.assertRegex(seen[1], self.TIME + rf"\+ MoatKeeperRuleset Id {number}: ")
            self.ok("rule", "set", number, "--log")
            self.assertIn(f"~ MoatKeeperRuleset Id {number}: EnableLogging 0 -> 1", process.stdout.readline())
        process.send_signal(signal.SIGTERM)
        self.assertEqual(process.wait(10), OK)
        self.assertEqual((process.stdout.read(), process.stderr.read()), ("", ""))

    def test_nothing_changed_meanwhile(self):
        process = self.watch("--format=json")
        self.server.stop()
        process.stderr.readline()
        self.start_server()
        self.assertRegex(process.stderr.readline(), "connected again$")
        self.ok("policy", "add", "--in", "eth0", "--drop")
        self.assertEqual(json.loads(process.stdout.readline())["table"], "MoatKeeperInputPolicy")

    def test_the_server_returns_with_another_schema(self):
        process = self.watch()
        self.server.stop()
        self.assertRegex(process.stderr.readline(), "trying again$")
        schema = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))
        schema["version"] = "2.0.0"
        (self.folder / "schema").write_text(json.dumps(schema))
        self.start_server(self.folder / "schema", database="other.db")
        self.assertRegex(process.stderr.readline(), r"2\.0\.0.*; trying again$")
        self.server.stop()
        self.assertRegex(process.stderr.readline(), "no configuration server.*; trying again$")
        self.start_server()
        self.assertRegex(process.stderr.readline(), "connected again$")
        self.ok("policy", "add", "--in", "eth0", "--drop")
        self.assertIn("+ MoatKeeperInputPolicy Id 1", process.stdout.readline())

    def test_a_signal_ends_the_wait_for_the_server(self):
        for number in (signal.SIGINT, signal.SIGTERM):
            process = self.watch()
            self.server.stop()
            self.assertRegex(process.stderr.readline(), "trying again$")
            process.send_signal(number)
            self.assertEqual(process.wait(10), OK)
            self.start_server()


class Servers(Case):
    def refused_by(self, path, pattern, *words):
        done = self.run_tool(*(words or ("show",)), socket_path=str(path))
        self.assertEqual((done.returncode, done.stdout), (NO_SERVER, ""), done.stderr)
        self.assertRegex(done.stderr, pattern)
        self.assertEqual(done.stderr.count("\n"), 1)

    def test_absent(self):
        for words in (("show",), ("export",), ("monitor",), ("rule", "add", "--in", "eth0", "--drop"), ("rule", "list"),
                      ("--timeout", "1", "global", "set", "--input", "DROP")):
            self.refused_by(self.folder / "absent", "absent", *words)

    def test_silent(self):
        path = str(self.folder / "silent")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
            listener.listen()
            for words in (("show",), ("monitor",), ("check",), ("import", self.file("{}")), ("batch", self.file("")),
                          ("rule", "add", "--in", "eth0", "--drop")):
                self.refused_by(path, "no answer .* within 200 ms", "--timeout", "0.2", *words)

    def file(self, text):
        path = self.folder / f"file{len(list(self.folder.iterdir()))}"
        path.write_text(text)
        return path

    def test_mistakes_are_told_without_a_server(self):
        absent = str(self.folder / "absent")
        batch = self.file('rule add --in eth0 --drop\nrule add --in eth0 --drop --vlan 5000\nrule fly\n"\n'
                          'rule remove 7\nrule set 7 --src-mac zz\nrule add --in eth0\nglobal set --input no\n'
                          'filter-rule add --filter 9 --match x\npolicy remove 0\nfilter add --between a --match mac\n')
        done = self.run_tool("batch", batch, socket_path=absent)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        lines = done.stderr.splitlines()
        self.assertEqual([re.match(rf"{batch}:(\d+): error: ", line).group(1) for line in lines[:-1]],
                         ["2", "3", "4", "6", "7", "8", "9", "10", "11"])
        self.assertRegex(lines[-1], "^moatctl: .*9 lines are wrong; nothing was changed .and no configuration server at")
        self.refused_by(absent, "no configuration server", "batch", self.file("rule remove 7\n"))

        broken = self.file('{"MoatKeeperRuleset": [\n{"Id": 1,\n]}')
        done = self.run_tool("import", broken, socket_path=absent)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        self.assertRegex(done.stderr, f"^{broken}:3: error: .+\nmoatctl: {broken}: 1 error; nothing was changed\n$")
        wrong = self.file('''{"MoatKeeperRuleset": [
  {"Id": 1, "RulePrio": 1, "InInterface": "eth0", "Target": "DROP", "SrcMAC": "zz"},
  {"Id": 2, "RulePrio": 1, "InInterface": "eth0"}],
"MoatKeeperBridgeFilterRules": [
  {"Id": 1, "BridgeFilterID": 5, "FilterMatch": "1"}]}''')
        done = self.run_tool("import", wrong, socket_path=absent)
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        self.assertEqual(re.findall(r":(\d+): error: \S+ Id (\d), (\w+): ", done.stderr),
                         [("2", "1", "SrcMAC"), ("3", "2", "Target")])
        self.assertRegex(done.stderr, "2 errors; nothing was changed .and no configuration server at ")
        done = self.run_tool("import", wrong, "--replace", socket_path=absent)
        self.assertIn(":5: error: MoatKeeperBridgeFilterRules Id 1, BridgeFilterID: 5: there is no such filter",
                      done.stderr)
        self.refused_by(absent, "no configuration server", "import", self.file("{}"))

    def test_values_are_checked_without_a_server(self):
        absent = str(self.folder / "absent")
        for words, pattern in ((("rule", "add", "--in", "eth0", "--drop", "--src-mac", "zz"), "--src-mac"),
                               (("rule", "set", "1", "--vlan", "5000"), "--vlan"),
                               (("rule", "add", "--in", "e", "--drop", "--port", "80", "--ethertype", "IPv4"), "IPPort"),
                               (("rule", "remove", "0"), "ID"), (("rule", "set", "1"), "something to change"),
                               (("global", "set", "--input", "no"), "--input")):
            done = self.run_tool(*words, socket_path=absent)
            self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (BAD_INPUT, "", 1), done.stderr)
            self.assertRegex(done.stderr, pattern)

    def test_other_protocol(self):
        path = str(self.folder / "other")
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(path)
            listener.listen()

            def answer():
                connection, _ = listener.accept()
                with connection:
                    connection.recv(100)
                    connection.sendall(b"HTTP/1.1 400 Bad Request\r\n\r\n")
                    connection.recv(100)
            thread = threading.Thread(target=answer)
            thread.start()
            self.refused_by(path, "moatctl: ")
            thread.join()

    def test_other_schema(self):
        schema = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))
        for name, change in (("version", lambda: schema.update(version="2.0.0")),
                             ("database", lambda: schema.update(name="another"))):
            change()
            folder = self.folder / name
            folder.mkdir()
            (folder / "schema").write_text(json.dumps(schema))
            self.addCleanup(startServer(folder / "schema", folder, socketPath=folder / "sock").stop)
            self.refused_by(folder / "sock", "2.0.0|moatkeeper")

    def test_timeout_values(self):
        for value in ("0", "-1", "x", "nan", "1e9"):
            self.refused(BAD_INPUT, "--timeout", "--timeout", value, "show")


class CommandLine(Case):
    def words_after(self, *words):
        script = f'source {COMPLETION}; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _moatctl; printf "%s\\n" "${{COMPREPLY[@]}}"'
        done = subprocess.run(["bash", "-c", script, "bash", "moatctl", *words], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, text=True, timeout=10)
        self.assertEqual(done.stderr, "")
        return done.stdout.split()

    def verbs(self, path=()):
        text = self.ok(*path, "--help")
        if "\nSubcommands:\n" not in text:
            return
        block = text.split("\nSubcommands:\n")[1].split("\n\n")[0]
        for name in re.findall(r"^  (\S+) ", block, re.M):
            yield (*path, name)
            yield from self.verbs((*path, name))

    def test_every_verb_has_help_example_manual_and_completion(self):
        manual = pathlib.Path(MANUAL).read_text()
        verbs = list(self.verbs())
        self.assertGreater(len(verbs), 35)
        for verb in verbs:
            text = self.ok(*verb, "--help")
            self.assertIn(f"\nExample:\n  moatctl {verb[0]}", text, verb)
            self.assertIn(verb[-1], self.words_after(*verb[:-1], ""))
            if "\nSubcommands:\n" not in text:
                self.assertIn(f"\n.It Cm {' '.join(verb)}\n", manual)
                for option in re.findall(r"^  (--[a-z-]+)", text, re.M):
                    self.assertIn(option, self.words_after(*verb, "--"), verb)
                    self.assertIn(f"\n.It Fl {option[1:]}", manual)

    def test_completion_of_values(self):
        self.assertEqual(self.words_after("rule", "add", "--proto", "t"), ["tcp"])
        self.assertEqual(self.words_after("rule", "list", "--format", ""), ["table", "json", "csv"])
        self.assertIn("lo", self.words_after("rule", "add", "--in", ""))
        self.assertEqual(self.words_after("show", "fil"), ["filter", "filter-rule"])
        self.assertEqual(self.words_after("--server", SCHEMA[:-3]), [SCHEMA])

    def test_examples_are_right(self):
        """Each example of a verb that changes rows is carried out; some need rows to be there."""
        self.ok("batch", stdin="".join(
            f"rule add --id {i} --in eth{i} --src 10.0.0.{i} --proto tcp --drop\npolicy add --id {i} --in eth{i} --drop\n"
            f"forward-policy add --id {i} --in eth{i} --out eth9 --drop\n"
            f"filter add --id {i} --between eth{i} eth9 --match mac --mode whitelist\n"
            f"filter-rule add --id {i} --filter 1 --match 00:11:22:33:44:0{i}\n" for i in range(1, 7)))
        rows = self.ok("export")
        for verb in self.verbs():
            if len(verb) == 2:
                self.assertEqual(self.run_tool("import", "-", "--replace", stdin=rows).returncode, OK)
                example = re.search(r"\nExample:\n  moatctl (.+)\n", self.ok(*verb, "--help")).group(1)
                self.ok(*example.split())

    def test_wrong_command_lines(self):
        self.refused(BAD_INPUT, "required")
        self.refused(BAD_INPUT, 'unknown verb "fly"', "fly")
        self.refused(BAD_INPUT, "required", "rule")
        self.refused(BAD_INPUT, "not expected", "show", "rule", "filter")
        self.assertRegex(self.ok("--version"), r"^moatctl \d+\.\d+\.\d+\n$")

    def test_manual_is_well_formed(self):
        done = subprocess.run(["mandoc", "-T", "lint", "-W", "warning", MANUAL], stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True, timeout=10)
        self.assertEqual((done.returncode, done.stdout), (0, ""))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], *sys.argv[4:]])
