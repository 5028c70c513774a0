"""The limits that the administrators' guide names, and the way around each."""

from lab import config, frames, kernel, machine, waiting
from lab.frames import Frame

MAC, OTHER_MAC = "02:00:00:00:0a:01", "02:00:00:00:0a:02"


def filterRow(rowId, prio, criteria, mode, **columns):
    return {"Id": rowId, "Prio": prio, "InInterface": "p1", "OutInterface": "p2", "MatchCriteria": criteria,
            "Mode": mode, **columns}


def rule(rowId, prio, **columns):
    return {"Id": rowId, "RulePrio": prio, "InInterface": "p1", "OutInterface": "p2", "Target": "DROP", **columns}


def jumps(protocol, chain):
    return [f"{protocol}-i p1 -o p2 -j {chain}", f"{protocol}-i p2 -o p1 -j {chain}"]


class Limits(machine.Machine):
    """Each holds in the kernel as the guide says."""

    def waitForCommit(self, change):
        """Makes the change and returns when the daemon has read it and committed."""
        commits = self.daemon.readLog().count("commitToSystem is called")
        change()

        def seen():
            return self.daemon.readLog().count("commitToSystem is called") > commits
        waiting.until(seen, "the next commit")

    def testMatchCriteriaAloneOfAFilterWithoutRulesWaitsForTheNextChange(self):
        old = kernel.expected(FORWARD=jumps("-p IPv4 ", "10p2p1IPv4whitelist"), **{"10p2p1IPv4whitelist": ("DROP",)})
        self.configure({config.FILTERS: [filterRow(1, 10, "IPv4", "whitelist")]}, old)
        self.waitForCommit(lambda: self.config.update(config.FILTERS, 1, MatchCriteria="IPv6"))
        # A later change of another group is carried out after whatever the commit before it brought.
        self.config.update(config.MAIN, None, GlobalInputPolicy="DROP")
        self.waitForTables({**old, "INPUT": ["DROP", *old["INPUT"][1:]]})
        # The next change brings the new criteria, but the old chain stays behind.
        self.config.update(config.FILTERS, 1, Prio=11)
        new = kernel.expected(INPUT=("DROP",), FORWARD=jumps("-p IPv6 ", "11p2p1IPv6whitelist"),
                              **{"11p2p1IPv6whitelist": ("DROP",)})
        left = {**new, "10p2p1IPv4whitelist": ["DROP"]}
        left["FORWARD"] = [*new["FORWARD"][:3], *jumps("-p IPv4 ", "10p2p1IPv4whitelist"), *new["FORWARD"][3:]]
        self.waitForTables(left)
        # A restart takes away everything that the daemon ever put in.
        self.assertEqual(0, self.daemon.stop())
        self.startDaemon()
        self.waitForTables(new)

    def testDisablingAFilterBeforeItsMatchCriteriaChangeIsSafe(self):
        self.configure({config.FILTERS: [filterRow(1, 10, "IPv4", "whitelist")]},
                       kernel.expected(FORWARD=jumps("-p IPv4 ", "10p2p1IPv4whitelist"),
                                       **{"10p2p1IPv4whitelist": ("DROP",)}))
        self.config.update(config.FILTERS, 1, Enabled=0)
        self.waitForTables(kernel.expected())
        self.config.update(config.FILTERS, 1, MatchCriteria="IPv6", Enabled=1)
        self.waitForTables(kernel.expected(FORWARD=jumps("-p IPv6 ", "10p2p1IPv6whitelist"),
                                           **{"10p2p1IPv6whitelist": ("DROP",)}))

    def testAFilterWithANegativePriorityIsRefused(self):
        self.configure({config.FILTERS: [filterRow(1, -3, "MAC", "whitelist"), filterRow(2, 4, "MAC", "blacklist")],
                        config.FILTER_RULES: [{"Id": 1, "BridgeFilterID": 1, "FilterMatch": MAC}]},
                       kernel.expected(FORWARD=jumps("", "4p2p1MACblacklist"), **{"4p2p1MACblacklist": []}))
        self.assertIn("p2", self.bridge.sendOne("p1", Frame()))
        self.daemon.waitForLog("-3p2p1MACwhitelist")

    def testALowerCaseEthertypeGetsNoIpOptions(self):
        self.configure({config.RULES: [rule(1, 10, Ethertype="ipv4", IPSrcAddr="192.0.2.1")]},
                       kernel.expected(UserForwardRules=["-p IPv4 -i p1 -o p2 -j DROP"]))
        self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(ethertype=frames.IPV4, ipSrc="198.51.100.1")))

    def testIpColumnsOfAVlanRuleAreIgnored(self):
        self.configure({config.RULES: [rule(1, 10, VLANID=5, Ethertype="IPv4", IPSrcAddr="192.0.2.1")]},
                       kernel.expected(UserForwardRules=[
                           "-p 802_1Q -i p1 -o p2 --vlan-id 5 --vlan-encap 0800 -j DROP"]))
        self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(vlan=5, ethertype=frames.IPV4, ipSrc="198.51.100.1")))

    def testAnIpRuleDoesNotSeeTaggedFrames(self):
        self.configure({config.RULES: [rule(1, 10, Ethertype="IPv4")]},
                       kernel.expected(UserForwardRules=["-p IPv4 -i p1 -o p2 -j DROP"]))
        self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(ethertype=frames.IPV4)))
        self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(vlan=5, ethertype=frames.IPV4)))

    def testEqualChainNamesShareOneChain(self):
        chain = "10p2p1MACblacklist"
        both = kernel.expected(FORWARD=jumps("", chain) * 2,
                               **{chain: [f"-s {MAC} -j DROP", f"-s {OTHER_MAC} -j DROP"]})
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "blacklist"), filterRow(2, 10, "MAC", "blacklist")],
                        config.FILTER_RULES: [{"Id": 1, "BridgeFilterID": 1, "FilterMatch": MAC},
                                              {"Id": 2, "BridgeFilterID": 2, "FilterMatch": OTHER_MAC}]}, both)
        with self.subTest("one of the two goes"):
            self.config.delete(config.FILTERS, 2)
            self.waitForTables(kernel.expected(FORWARD=jumps("", chain), **{chain: [f"-s {MAC} -j DROP"]}))
            self.assertEqual(0, self.daemon.stop())
            self.assertEqual(kernel.untouched(), kernel.readTables())
            self.startDaemon()
            self.config.insert(config.FILTERS, **filterRow(2, 10, "MAC", "blacklist"))
            self.waitForTables(both)
        # The way out: different priorities.
        self.config.update(config.FILTERS, 2, Prio=11)
        other = "11p2p1MACblacklist"
        self.waitForTables(kernel.expected(FORWARD=jumps("", chain) + jumps("", other), **{
            chain: [f"-s {MAC} -j DROP"], other: [f"-s {OTHER_MAC} -j DROP"]}))

    def testWithoutItsRowTheGlobalPoliciesStayAsTheyWere(self):
        self.configure({config.MAIN: [{"GlobalInputPolicy": "DROP", "GlobalForwardingPolicy": "DROP"}]},
                       kernel.expected(INPUT=("DROP",), FORWARD=("DROP",)))
        self.config.replace({config.RULES: [rule(1, 10)]})
        self.waitForTables(kernel.expected(INPUT=("DROP",), FORWARD=("DROP",),
                                           UserForwardRules=["-i p1 -o p2 -j DROP"]))

    def testAMacWhitelistNeedsTheSendersOfBothSides(self):
        chain = "10p2p1MACwhitelist"
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "whitelist")],
                        config.FILTER_RULES: [{"Id": 1, "BridgeFilterID": 1, "FilterMatch": MAC}]},
                       kernel.expected(FORWARD=jumps("", chain), **{chain: ("DROP", f"-s {MAC} -j RETURN")}))
        self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(src=MAC, dst=OTHER_MAC)))
        self.assertEqual({"p3"}, self.bridge.sendOne("p2", Frame(src=OTHER_MAC, dst=MAC)))  # no answer comes back

    def testTheSchemaRefusesWhatTheDaemonCouldNotUse(self):
        for table, row in ((config.RULES, rule(1, 10, Enabled=2)), (config.RULES, rule(1, 10, VLANID=4095)),
                           (config.RULES, rule(1, 10, Target="REJECT")), (config.RULES, rule(1, 10, IPPort=70000)),
                           (config.FILTERS, filterRow(1, 10, "IPv4", "Blacklist")),
                           (config.FILTERS, filterRow(1, 10, "Mac", "blacklist"))):
            with self.subTest(row=row), self.assertRaises(config.Refused):
                self.config.insert(table, **row)


if __name__ == "__main__":
    machine.main()
