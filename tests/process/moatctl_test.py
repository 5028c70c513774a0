"""moatctl against a real configuration server: the verbs that change and show tables, right and wrong input."""

import csv
import io
import json
import re
import subprocess

from moatctl_case import BAD_INPUT, CONFLICT, OUTPUT, Case, main
from lab.config import insert


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
