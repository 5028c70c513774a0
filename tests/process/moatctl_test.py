"""moatctl against a real configuration server: the verbs that change and show tables, right and wrong input."""

import csv
import io
import json
import pathlib
import re
import subprocess

from moatctl_case import BAD_INPUT, CONFLICT, OUTPUT, Case, main
from lab.config import insert
from lab.programs import SCHEMA


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
        self.ok("rule", "set", "1", "--vlan", "none", "--no-out")
        row = self.rows("rule")[0]
        self.assertEqual((row["VLANID"], row["OutInterface"]), (-1, ""))

    def test_an_empty_value_is_refused(self):
        self.ok("rule", "add", "--in", "eth0", "--out", "eth1", "--vlan", "3", "--drop")
        before = self.rows("rule")
        for option, kind in (("--in", "PORT"), ("--out", "PORT"), ("--src-mac", "MAC"), ("--dst-mac", "MAC"),
                             ("--vlan", "NUMBER"), ("--ethertype", "TYPE"), ("--src", "NETWORK"), ("--dst", "NETWORK"),
                             ("--proto", r"tcp\|udp"), ("--port", "NUMBER"), ("--priority", "NUMBER"), ("--after", "ID")):
            for words in (("rule", "add", "--in", "eth0", "--drop"), ("rule", "set", "1")):
                if option != "--in" or words[1] == "set":
                    self.refused(BAD_INPUT, f'^moatctl: {option} "": expected {kind} ', *words, option, "")
                    self.refused(BAD_INPUT, f"^moatctl: {option} has no value: expected {kind} ", *words, f"{option}=")
        self.refused(BAD_INPUT, '^moatctl: ID "": expected ', "rule", "remove", "")
        self.refused(BAD_INPUT, '^moatctl: --between "": expected PORT ', "filter", "add", "--between", "", "eth0")
        self.refused(BAD_INPUT, '^moatctl: --input "": expected ', "global", "set", "--input", "")
        self.refused(BAD_INPUT, '^moatctl: FILE "": expected a value ', "import", "")
        done = self.run_tool("batch", stdin="rule set 1 --out ''\n")
        self.assertRegex(done.stderr, '^standard input:1: error: --out "": expected PORT ')
        self.assertEqual(self.rows("rule"), before)

    def test_each_condition_can_be_removed(self):
        self.ok("rule", "add", "--in", "eth0", "--out", "eth1", "--src-mac", "02:00:00:00:00:01", "--dst-mac",
                "02:00:00:00:00:02", "--ethertype", "IPv4", "--src", "10.0.0.1", "--dst", "10.0.0.2", "--proto", "tcp",
                "--port", "80", "--drop")
        unset = {"IPPort": 0, "IPProto": "", "IPDstAddr": "", "IPSrcAddr": "", "Ethertype": "", "SrcMAC": "",
                 "DstMAC": "", "OutInterface": ""}
        expected = self.rows("rule")[0]
        self.refused(BAD_INPUT, "^moatctl: --src .*Ethertype", "rule", "set", "1", "--no-ethertype")
        for option, column in (("port", "IPPort"), ("proto", "IPProto"), ("dst", "IPDstAddr"), ("src", "IPSrcAddr"),
                               ("ethertype", "Ethertype"), ("src-mac", "SrcMAC"), ("dst-mac", "DstMAC"),
                               ("out", "OutInterface")):
            self.refused(BAD_INPUT, f"^moatctl: --(no-)?{option} excludes --(no-)?{option} ", "rule", "set", "1", f"--{option}",
                         "1", f"--no-{option}")
            self.ok("rule", "set", "1", f"--no-{option}")
            expected[column] = unset[column]
            self.assertEqual(self.rows("rule")[0], expected)
        self.ok("rule", "set", "1", "--vlan", "5")
        self.ok("rule", "set", "1", "--no-vlan")
        self.assertEqual(self.rows("rule")[0], expected)
        self.refused(BAD_INPUT, 'unknown option "--no-in"', "rule", "set", "1", "--no-in")
        self.refused(BAD_INPUT, 'unknown option "--no-out"', "rule", "add", "--in", "eth0", "--drop", "--no-out")

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
        self.refused(BAD_INPUT, 'unknown option "--colour"', *add, "--colour", "red")
        self.refused(BAD_INPUT, "--port 80.*protocol", *add, "--ethertype", "IPv4", "--port", "80")
        self.refused(BAD_INPUT, "--src .*VLAN", *add, "--vlan", "5", "--src", "10.0.0.1")
        self.refused(BAD_INPUT, "--src .*IPv6", *add, "--ethertype", "IPv6", "--src", "10.0.0.1")
        self.refused(BAD_INPUT, "--proto .*Ethertype", *add, "--proto", "tcp", "--port", "80")
        self.assertEqual(self.rows("rule"), [])

    def test_ids(self):
        self.assertEqual(self.ok("rule", "add", "--in", "eth0", "--drop", "--id", "7"), "7\n")
        self.assertEqual(self.ok("rule", "add", "--in", "eth0", "--drop"), "8\n")
        self.refused(CONFLICT, "rule 7 exists already", "rule", "add", "--in", "eth1", "--drop", "--id", "7")
        self.ok("rule", "add", "--in", "eth2", "--drop", "--id", "2147483647")
        self.refused(CONFLICT, "there is no larger Id: choose one with --id", "rule", "add", "--in", "eth3", "--drop")
        self.assertEqual(self.ok("rule", "add", "--in", "eth3", "--drop", "--id", "1"), "1\n")

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
        self.refused(BAD_INPUT, "next to itself", "rule", "set", "2", "--after", "2")
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


class Effect(Case):
    """An edit looks at what it brings about."""

    def setUp(self):
        super().setUp()
        self.ok("batch", stdin="""global set --input ACCEPT --forward ACCEPT
filter add --between eth0 eth1 --match mac --mode blacklist
filter-rule add --filter 1 --match 02:00:00:00:00:01
rule add --in eth2 --out eth3 --src-mac 02:00:00:00:00:01 --drop
""")

    def test_a_name_that_no_port_has(self):
        self.assertIn('warning: MoatKeeperRuleset Id 2, OutInterface: "eht3": this machine has no such interface\n',
                      self.run_tool("rule", "add", "--in", "lo", "--out", "eht3", "--drop").stderr)
        self.assertEqual(self.warnings("rule", "set", "2", "--log"), [], "said again")
        self.assertEqual(self.warnings("rule", "add", "--in", "lo", "--out", "eth9", "--accept"), [
            'warning: MoatKeeperRuleset Id 3, InInterface: "lo": this interface is not a port of a bridge, so no frame '
            "matches"])

    def test_what_is_never_reached_or_contradicts(self):
        self.assertEqual(self.warnings("rule", "add", "--in", "eth2", "--out", "eth3", "--src-mac", "02:00:00:00:00:01",
                                       "--accept"),
                         ["warning: MoatKeeperRuleset Id 2: contradicts MoatKeeperRuleset Id 1, which comes first and "
                          "takes the same frames"])
        self.assertEqual(self.warnings("rule", "add", "--in", "eth2", "--out", "eth3", "--drop", "--before", "1"),
                         ["warning: MoatKeeperRuleset Id 1: never reached: MoatKeeperRuleset Id 3 comes first and takes "
                          "all its frames",
                          "warning: MoatKeeperRuleset Id 2: never reached: MoatKeeperRuleset Id 3 comes first and takes "
                          "all its frames"])
        self.ok("forward-policy", "add", "--in", "eth2", "--out", "eth4", "--drop")
        self.assertIn("contradicts MoatKeeperForwardingPolicy Id 1",
                      self.warnings("forward-policy", "add", "--in", "eth2", "--out", "eth4", "--accept")[0])

    def test_entries_that_their_filter_makes_invalid(self):
        before = self.ok("export")
        self.refused(BAD_INPUT, '^moatctl: MoatKeeperBridgeFilterRules Id 1, FilterMatch: "02:00:00:00:00:01": expected '
                     "an IPv4 address or network, as filter 1 says; nothing was changed .--force stores it all the same.$",
                     "filter", "set", "1", "--match", "ipv4")
        self.ok("filter-rule", "add", "--filter", "1", "--match", "02:00:00:00:00:02")
        done = self.run_tool("filter", "set", "1", "--match", "vlan")
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        self.assertRegex(done.stderr, r"\Aerror: MoatKeeperBridgeFilterRules Id 1, .+\nerror: MoatKeeperBridgeFilterRules "
                         r"Id 2, .+\nmoatctl: 2 errors; nothing was changed \(--force stores it all the same\)\n\Z")
        self.ok("filter-rule", "remove", "2")
        self.assertEqual(self.ok("export"), before)
        done = self.run_tool("filter", "set", "1", "--match", "vlan", "--force")
        self.assertEqual(done.returncode, 0)
        self.assertIn("error: MoatKeeperBridgeFilterRules Id 1, FilterMatch", done.stderr)
        self.assertEqual(self.rows("filter")[0]["MatchCriteria"], "vlan")
        # What is wrong now does not stand in the way of other edits.
        self.assertEqual(self.warnings("filter-rule", "disable", "1"),
                         ['warning: MoatKeeperBridgeFilterRules Id 1, FilterMatch: "02:00:00:00:00:01": expected a VLAN '
                          "id from 0 to 4094, as filter 1 says"])
        self.assertEqual(self.warnings("filter-rule", "remove", "1"), [])

    def test_two_filters_with_one_chain(self):
        self.refused(BAD_INPUT, "^moatctl: MoatKeeperBridgeFilters Id 2: its chain .* is that of MoatKeeperBridgeFilters "
                     "Id 1 already: expected another Prio; nothing was changed", "filter", "add", "--between", "eth0",
                     "eth1", "--match", "mac", "--mode", "blacklist", "--priority", "10")

    def test_rows_of_other_clients_that_are_wrong_can_be_edited(self):
        self.transact(insert("MoatKeeperRuleset", Id=9, RulePrio=3, InInterface="eth0", SrcMAC="xyz", Target="DROP"))
        wrong = 'warning: MoatKeeperRuleset Id 9, SrcMAC: "xyz": expected a MAC address'
        for words in (("disable", "9"), ("set", "9", "--log"), ("enable", "9")):
            self.assertRegex(self.warnings("rule", *words)[0], wrong)
        self.assertNotIn(wrong, str(self.warnings("rule", "set", "9", "--src-mac", "02:00:00:00:00:09")))

    def test_force_takes_a_row_that_is_wrong(self):
        add = ("rule", "add", "--in", "eth0", "--drop", "--ethertype", "IPv4", "--port", "80")
        self.refused(BAD_INPUT, "^moatctl: --port 80: expected a protocol", *add)
        self.assertIn("error: MoatKeeperRuleset Id 2, IPPort: 80: expected a protocol",
                      self.run_tool(*add, "--force").stderr)
        self.assertEqual(len(self.rows("rule")), 2)
        # A value that is none of its kind is no change at all.
        self.refused(BAD_INPUT, "^moatctl: --vlan .5000.: expected", *add, "--vlan", "5000", "--force")
        self.refused(BAD_INPUT, "^moatctl: nothing to change", "rule", "set", "1", "--force")

    def test_a_batch_is_checked_as_a_whole(self):
        done = self.run_tool("batch", stdin="filter set 1 --match vlan\n")
        self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""))
        self.assertRegex(done.stderr, "^moatctl: MoatKeeperBridgeFilterRules Id 1, FilterMatch: .+--force")
        self.ok("batch", stdin="filter set 1 --match vlan\nfilter-rule set 1 --match 100\n")
        done = self.run_tool("batch", stdin="filter set 1 --match mac\nrule remove 1 --force\n")
        self.assertEqual(done.returncode, BAD_INPUT)
        self.assertRegex(done.stderr, "^standard input:2: error: --force is for all lines together: expected it after")
        done = self.run_tool("batch", "--force", stdin="filter set 1 --match mac\nrule add --in eth0 --drop "
                             "--ethertype IPv4 --port 80\n")
        self.assertEqual((done.returncode, done.stdout), (0, "2\n"), done.stderr)


class Acknowledged(Case):
    """Warnings that somebody has looked at."""

    def setUp(self):
        super().setUp()
        self.ok("batch", stdin="""global set --input ACCEPT --forward ACCEPT
rule add --in lo --out eht1 --drop
rule add --in lo --out eht1 --drop
""")
        self.told = [
            'warning: MoatKeeperRuleset Id 1, InInterface: "lo": this interface is not a port of a bridge, so no frame matches',
            'warning: MoatKeeperRuleset Id 1, OutInterface: "eht1": this machine has no such interface',
            "warning: MoatKeeperRuleset Id 2: the same as MoatKeeperRuleset Id 1, which comes first: one of the two is enough"]
        self.told[2:2] = [line.replace("Id 1, ", "Id 2, ", 1) for line in self.told[:2]]

    def check(self, *words, status=1):
        done = self.run_tool("check", *words)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return sorted(done.stdout.splitlines()), done.stderr

    def test_what_is_acknowledged_is_told_no_more(self):
        self.assertEqual(self.check(), (sorted(self.told), ""))
        self.assertEqual(self.ok("acknowledge", "rule", "1"),
                         "".join(line.replace("warning: ", "acknowledged: ").replace("Id 1, ", "Id 1: ") + "\n"
                                 for line in self.told[:2]))
        self.assertEqual(self.check(), (sorted(self.told[2:]), "2 acknowledged warnings are not shown (--all shows them)\n"))
        self.assertEqual(self.ok("acknowledge", "rule", "1"), "", "once is enough")
        self.ok("acknowledge", "rule", "2")
        self.assertEqual(self.check(status=0)[0], [])
        self.assertEqual(self.check("--all", status=0),
                         (sorted(line.replace("warning: ", "acknowledged: ") for line in self.told), ""))
        rows = json.loads(self.ok("check", "--all", "--format=json"))["problems"]
        self.assertEqual({row["severity"] for row in rows}, {"acknowledged"})
        self.ok("acknowledge", "rule", "1", "--withdraw")
        self.assertEqual(self.check()[0], sorted(self.told[:2]))

    def test_what_is_new_is_told(self):
        self.ok("acknowledge", "rule", "1", "2")
        self.ok("rule", "set", "1", "--out", "eht2")
        self.assertEqual(self.check()[0],
                         ['warning: MoatKeeperRuleset Id 1, OutInterface: "eht2": this machine has no such interface'])

    def test_it_goes_with_its_row(self):
        self.ok("acknowledge", "rule", "1", "2")
        self.ok("rule", "remove", "1")
        self.ok("rule", "add", "--in", "lo", "--out", "eht1", "--drop", "--id", "1")
        self.assertIn(self.told[0], self.check()[0])

    def test_it_travels(self):
        self.ok("acknowledge", "rule", "1", "2")
        exported = self.ok("export")
        path = self.folder / "site.json"
        path.write_text(exported)
        self.assertEqual(self.check(path, status=0)[0], [])
        self.assertEqual(len(json.loads(exported)["MoatKeeperAcknowledged"]), 5)
        self.ok("acknowledge", "rule", "1", "2", "--withdraw")
        done = self.run_tool("import", path)
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual([line.split(": ")[0] for line in done.stdout.splitlines()], ["+ acknowledged"] * 5)
        self.assertEqual(self.ok("export"), exported)
        self.assertEqual(self.run_tool("import", path, "--replace").stdout, "")
        path.write_text('{"MoatKeeper": [{}]}')
        done = self.run_tool("import", path, "--replace")
        self.assertEqual(done.stdout.count("- acknowledged: MoatKeeperRuleset Id "), 5)
        self.assertNotIn("Acknowledged", self.ok("export"))

    def test_wrong_files(self):
        path = self.folder / "site.json"
        for rows in ("1", "[1]", "[{}]", '[{"Table": "MoatKeeperRuleset", "Row": -1, "Warning": "w"}]',
                     '[{"Table": "Rules", "Row": 1, "Warning": "w"}]',
                     '[{"Table": "MoatKeeperRuleset", "Row": 1, "Warning": ""}]',
                     '[{"Table": "MoatKeeperRuleset", "Row": 1, "Warning": "w", "More": 1}]'):
            path.write_text('{"MoatKeeperAcknowledged": %s}' % rows)
            done = self.run_tool("import", path)
            self.assertEqual((done.returncode, done.stdout), (BAD_INPUT, ""), rows)
            self.assertRegex(done.stderr, f"^{path}:1: error: MoatKeeperAcknowledged: expected a list of objects with .*, "
                             "found an? .+\nmoatctl: ")

    def test_wrong_rows(self):
        self.refused(CONFLICT, "^moatctl: there is no rule 9", "acknowledge", "rule", "9")
        self.refused(CONFLICT, "^moatctl: global has no warning .see moatctl check.", "acknowledge", "global")
        self.refused(BAD_INPUT, '^moatctl: TABLE "rules": expected global, ', "acknowledge", "rules", "1")
        self.refused(BAD_INPUT, "^moatctl: ID is missing", "acknowledge", "rule")
        self.refused(BAD_INPUT, "^moatctl: ID: expected none", "acknowledge", "global", "1")
        self.refused(BAD_INPUT, '^moatctl: ID "x": expected', "acknowledge", "rule", "x")
        self.refused(BAD_INPUT, "^moatctl: TABLE is missing", "acknowledge")

    def test_a_server_of_the_first_schema(self):
        """It has no place for this; everything else works."""
        schema = json.loads(pathlib.Path(SCHEMA).read_text(encoding="utf-8"))
        for table in ("MoatKeeperAcknowledged", "MoatKeeperUsedIds"):
            del schema["tables"][table]
        schema["version"] = "1.0.0"
        self.server.stop()
        (self.folder / "schema").write_text(json.dumps(schema))
        self.start_server(self.folder / "schema", database="first.db")
        self.assertEqual(self.ok("rule", "add", "--in", "lo", "--out", "eht1", "--drop"), "1\n")
        self.refused(3, "^moatctl: the server's database, schema 1.0.0, has no place for acknowledged warnings: expected "
                     "schema 1.1 or later$", "acknowledge", "rule", "1")
        self.ok("rule", "remove", "1")
        self.assertEqual(self.ok("rule", "add", "--in", "lo", "--out", "eht1", "--drop"), "1\n")


class UsedIds(Case):
    """An Id that somebody has written down never comes to mean another row."""

    def test_a_removed_id_is_not_given_again(self):
        add = ("rule", "add", "--in", "eth0", "--drop")
        self.assertEqual([self.ok(*add) for _ in range(3)], ["1\n", "2\n", "3\n"])
        self.ok("rule", "remove", "2", "3")
        self.assertEqual(self.ok(*add), "4\n")
        self.ok("rule", "remove", "1", "4")
        self.assertEqual(self.ok(*add, "--id", "2"), "2\n")
        self.assertEqual(self.ok(*add), "5\n")
        self.assertEqual(self.ok("policy", "add", "--in", "eth0", "--drop"), "1\n", "each table has its own")
        self.ok("batch", stdin="rule remove 5\nrule add --in eth1 --drop\nrule remove 6\n")
        self.assertEqual(self.ok(*add), "7\n")

    def test_rows_of_other_clients_count(self):
        self.transact(insert("MoatKeeperRuleset", Id=51, RulePrio=3, InInterface="eth0", Target="DROP"))
        self.ok("rule", "remove", "51")
        self.assertEqual(self.ok("rule", "add", "--in", "eth0", "--drop"), "52\n")

    def test_an_import_keeps_what_is_known(self):
        self.ok("rule", "add", "--in", "eth0", "--drop", "--id", "40")
        self.run_tool("import", "-", "--replace", stdin='{"MoatKeeper": [{}]}')
        self.assertEqual(self.rows("rule"), [])
        self.assertEqual(self.ok("rule", "add", "--in", "eth0", "--drop"), "41\n")


class Ports(Case):
    def test_a_new_name_for_a_port(self):
        self.ok("batch", stdin="""policy add --in eth0 --accept
rule add --in eth0 --out eth1 --drop
rule add --in eth2 --out eth+ --accept
filter add --between eth0 eth1 --match mac --mode blacklist
""")
        done = self.run_tool("port", "rename", "eth0", "guest")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual([line.split(": ")[0] for line in done.stdout.splitlines()], [
            "~ MoatKeeperInputPolicy Id 1", "~ MoatKeeperRuleset Id 1", "~ MoatKeeperBridgeFilters Id 1"])
        self.assertIn('note: MoatKeeperRuleset Id 2, OutInterface: "eth+" stays; it matches "eth0", but not "guest"\n',
                      done.stderr)
        self.assertEqual(self.rows("policy")[0]["Interface"], "guest")
        self.assertEqual(self.rows("rule")[0]["InInterface"], "guest")
        self.assertEqual(self.rows("filter")[0]["InInterface"], "guest")
        self.refused(CONFLICT, '^moatctl: no row names the port "eth0"', "port", "rename", "eth0", "guest")
        self.assertEqual(self.ok("port", "rename", "eth0", "guest", "--if-exists"), "")
        self.assertEqual(self.run_tool("batch", stdin="port rename guest eth0\n").returncode, 0)
        self.assertEqual(self.rows("policy")[0]["Interface"], "eth0")

    def test_wrong_names(self):
        for words, message in ((("", "a"), 'OLD "": expected PORT'), (("a", ""), 'NEW "": expected PORT'),
                               (("a",), "NEW is missing"), (("a", "b", "c"), 'unexpected word "c"'),
                               (("a", "b+"), r'NEW "b\+": expected the name of one port'),
                               (("a", "! b"), 'NEW "! b": expected the name of one port'),
                               (("a", "a-name-that-is-too-long"), "NEW .*15 characters"),
                               (("a b", "c"), 'OLD "a b": expected'), (("a", "a"), 'NEW "a": expected another name')):
            self.refused(BAD_INPUT, f"^moatctl: {message}", "port", "rename", *words)

    def test_a_name_that_two_filters_then_share(self):
        self.ok("batch", stdin="""filter add --between eth0 eth1 --match mac --mode blacklist --priority 10
filter add --between eth2 eth1 --match mac --mode blacklist --priority 10
""")
        self.refused(BAD_INPUT, "^moatctl: MoatKeeperBridgeFilters Id 2: its chain ", "port", "rename", "eth2", "eth0")
        self.assertEqual([row["InInterface"] for row in self.rows("filter")], ["eth2", "eth0"])


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
        self.refused(BAD_INPUT, 'TABLE "rules": expected global, .* or filter-rule', "show", "rules")

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
        self.assertEqual(self.ok("batch", stdin="rule add --in eth7 --drop\nrule remove 3\nrule add --in eth8 --drop\n"
                                 "rule remove 4\n"), "3\n4\n", "an Id given twice")
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


if __name__ == "__main__":
    main()
