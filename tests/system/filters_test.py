"""Bridge filters with real frames: blacklists and whitelists of every kind, in both directions, and their changes."""

from lab import config, frames, kernel, machine
from lab.frames import Frame

MAC, OTHER_MAC = "02:00:00:00:0a:01", "02:00:00:00:0a:02"

# criteria: (how ebtables-save prints the protocol of the jumps, the value to match, how it prints the match,
#            a frame that matches, one of the same protocol that does not)
KINDS = {
    "MAC": ("", MAC, f"-s {MAC}", {"src": MAC}, {"src": OTHER_MAC}),
    "mac": ("", MAC, f"-s {MAC}", {"src": MAC}, {"src": OTHER_MAC}),
    "IPv4": ("-p IPv4 ", "192.0.2.0/24", "-p IPv4 --ip-src 192.0.2.0/24",
             {"ethertype": frames.IPV4, "ipSrc": "192.0.2.9"}, {"ethertype": frames.IPV4, "ipSrc": "198.51.100.9"}),
    "ipv4": ("-p IPv4 ", "192.0.2.9", "-p IPv4 --ip-src 192.0.2.9",
             {"ethertype": frames.IPV4, "ipSrc": "192.0.2.9"}, {"ethertype": frames.IPV4, "ipSrc": "192.0.2.8"}),
    "IPv6": ("-p IPv6 ", "2001:db8:1::/48", "-p IPv6 --ip6-src 2001:db8:1::/48",
             {"ethertype": frames.IPV6, "ipSrc": "2001:db8:1::9"}, {"ethertype": frames.IPV6, "ipSrc": "2001:db8:2::9"}),
    "ipv6": ("-p IPv6 ", "2001:db8::9", "-p IPv6 --ip6-src 2001:db8::9",
             {"ethertype": frames.IPV6, "ipSrc": "2001:db8::9"}, {"ethertype": frames.IPV6, "ipSrc": "2001:db8::8"}),
    "VLAN": ("-p 802_1Q ", "100", "-p 802_1Q --vlan-id 100", {"vlan": 100}, {"vlan": 101}),
    "vlan": ("-p 802_1Q ", "7", "-p 802_1Q --vlan-id 7", {"vlan": 7}, {"vlan": 8}),
}
# Frames that only a filter without a protocol concerns.
OF_NO_PROTOCOL = {"ethertype": frames.EXPERIMENTAL}


def filterRow(rowId, prio, criteria, mode, inPort="p1", outPort="p2", **columns):
    return {"Id": rowId, "Prio": prio, "InInterface": inPort, "OutInterface": outPort, "MatchCriteria": criteria,
            "Mode": mode, **columns}


def filterRule(rowId, filterId, match, **columns):
    return {"Id": rowId, "BridgeFilterID": filterId, "FilterMatch": match, **columns}


def jumps(protocol, chain, inPort="p1", outPort="p2"):
    """Both jumps into a filter's chain, as they stand in FORWARD."""
    return [f"{protocol}-i {inPort} -o {outPort} -j {chain}", f"{protocol}-i {outPort} -o {inPort} -j {chain}"]


class Filters(machine.Machine):
    """Filters between the ports p1 and p2; p3 is never concerned."""

    def passes(self, columns):
        """Whether such a frame passes from p1 to p2; the other direction and p3 must agree."""
        there, back, aside = self.bridge.send(*((port, Frame(**columns)) for port in ("p1", "p2", "p3")))
        self.assertEqual({"p1", "p2"}, aside, f"{columns} from p3")
        self.assertLessEqual({"p3"}, there & back, f"{columns} to p3")
        self.assertEqual("p2" in there, "p1" in back, f"{columns} passes in one direction only: {there} {back}")
        return "p2" in there

    def testABlacklistStopsWhatItsRulesMatch(self):
        for criteria, (protocol, value, match, hit, miss) in KINDS.items():
            with self.subTest(criteria):
                chain = f"10p2p1{criteria}blacklist"
                self.configure({config.FILTERS: [filterRow(1, 10, criteria, "blacklist")],
                                config.FILTER_RULES: [filterRule(1, 1, value)]},
                               kernel.expected(FORWARD=jumps(protocol, chain),
                                               **{chain: [f"{match} -j DROP"]}))
                self.assertFalse(self.passes(hit))
                self.assertTrue(self.passes(miss))
                self.assertTrue(self.passes(OF_NO_PROTOCOL))

    def testAWhitelistPassesWhatItsRulesMatch(self):
        for criteria, (protocol, value, match, hit, miss) in KINDS.items():
            with self.subTest(criteria):
                chain = f"10p2p1{criteria}whitelist"
                self.configure({config.FILTERS: [filterRow(1, 10, criteria, "whitelist")],
                                config.FILTER_RULES: [filterRule(1, 1, value)]},
                               kernel.expected(FORWARD=jumps(protocol, chain),
                                               **{chain: ("DROP", f"{match} -j RETURN")}))
                self.assertTrue(self.passes(hit))
                self.assertFalse(self.passes(miss))
                # A MAC whitelist stops everything else; the others only frames of their own protocol.
                self.assertEqual(protocol != "", self.passes(OF_NO_PROTOCOL))

    def testAFilterWithoutRulesPassesOrStopsEverything(self):
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "blacklist")]},
                       kernel.expected(FORWARD=jumps("", "10p2p1MACblacklist"), **{"10p2p1MACblacklist": []}))
        self.assertTrue(self.passes({}))
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "whitelist")]},
                       kernel.expected(FORWARD=jumps("", "10p2p1MACwhitelist"), **{"10p2p1MACwhitelist": ("DROP",)}))
        self.assertFalse(self.passes({}))

    def testOfTwoFiltersOnOnePairTheSmallerPriorityIsAskedFirst(self):
        for blackPrio, whitePrio in ((5, 20), (20, 5)):
            with self.subTest(blackPrio=blackPrio, whitePrio=whitePrio):
                black, white = f"{blackPrio}p2p1MACblacklist", f"{whitePrio}p2p1MACwhitelist"
                first, second = (black, white) if blackPrio < whitePrio else (white, black)
                self.configure({config.FILTERS: [filterRow(1, blackPrio, "MAC", "blacklist"),
                                                 filterRow(2, whitePrio, "MAC", "whitelist")],
                                config.FILTER_RULES: [filterRule(1, 1, MAC), filterRule(2, 2, MAC)]},
                               kernel.expected(FORWARD=jumps("", first) + jumps("", second),
                                               **{black: [f"-s {MAC} -j DROP"], white: ("DROP", f"-s {MAC} -j RETURN")}))
                # Both filters must let a frame through; these have one that stops them.
                self.assertFalse(self.passes({"src": MAC}))
                self.assertFalse(self.passes({"src": OTHER_MAC}))
                # Each direction of each frame is asked at the first; the second sees only what the first returned.
                counts = kernel.readJumpCounts("FORWARD")
                self.assertEqual(4, counts[first])
                self.assertEqual(2, counts[second])

    def testAnAcceptedRuleDoesNotOverruleAFilter(self):
        chain = "10p2p1MACblacklist"
        self.configure({
            config.RULES: [{"Id": 1, "RulePrio": 1, "InInterface": "p1", "OutInterface": "p2", "SrcMAC": MAC,
                            "Target": "ACCEPT"}],
            config.FILTERS: [filterRow(1, 10, "MAC", "blacklist")], config.FILTER_RULES: [filterRule(1, 1, MAC)]},
            kernel.expected(FORWARD=jumps("", chain), UserForwardRules=[f"-s {MAC} -i p1 -o p2 -j ACCEPT"],
                            **{chain: [f"-s {MAC} -j DROP"]}))
        self.assertFalse(self.passes({"src": MAC}))

    def testWhatAWhitelistReturnsIsStillSubjectToRulesAndPolicies(self):
        chain = "10p2p1MACwhitelist"
        self.configure({
            config.FORWARD_POLICY: [{"Id": 1, "InInterface": "p1", "OutInterface": "p2", "Policy": "DROP"}],
            config.FILTERS: [filterRow(1, 10, "MAC", "whitelist")], config.FILTER_RULES: [filterRule(1, 1, MAC)]},
            kernel.expected(FORWARD=jumps("", chain), UserForwardPolicy=["-i p1 -o p2 -j DROP"],
                            **{chain: ("DROP", f"-s {MAC} -j RETURN")}))
        self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(src=MAC)))
        self.assertEqual({"p1", "p3"}, self.bridge.sendOne("p2", Frame(src=MAC)))

    def testAFilterChangesItsModeIsDisabledAndRemoved(self):
        black, white = "10p2p1MACblacklist", "10p2p1MACwhitelist"
        blackTables = kernel.expected(FORWARD=jumps("", black), **{black: [f"-s {MAC} -j DROP"]})
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "blacklist")],
                        config.FILTER_RULES: [filterRule(1, 1, MAC)]}, blackTables)
        self.assertFalse(self.passes({"src": MAC}))

        self.config.update(config.FILTERS, 1, Mode="whitelist")
        self.waitForTables(kernel.expected(FORWARD=jumps("", white), **{white: ("DROP", f"-s {MAC} -j RETURN")}))
        self.assertTrue(self.passes({"src": MAC}))
        self.assertFalse(self.passes({"src": OTHER_MAC}))

        self.config.update(config.FILTERS, 1, Enabled=0)
        self.waitForTables(kernel.expected())
        self.assertTrue(self.passes({"src": OTHER_MAC}))

        self.config.update(config.FILTERS, 1, Enabled=1, Mode="blacklist")
        self.waitForTables(blackTables)
        self.assertFalse(self.passes({"src": MAC}))

        self.config.delete(config.FILTERS, 1)
        self.waitForTables(kernel.expected())
        self.assertTrue(self.passes({"src": MAC}))

    def testAFilterMovesToAnotherPairOfPorts(self):
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "whitelist")]},
                       kernel.expected(FORWARD=jumps("", "10p2p1MACwhitelist"), **{"10p2p1MACwhitelist": ("DROP",)}))
        self.config.update(config.FILTERS, 1, OutInterface="p3")
        self.waitForTables(kernel.expected(FORWARD=jumps("", "10p3p1MACwhitelist", "p1", "p3"),
                                           **{"10p3p1MACwhitelist": ("DROP",)}))
        self.assertEqual({"p2"}, self.bridge.sendOne("p1", Frame()))
        self.assertEqual({"p2"}, self.bridge.sendOne("p3", Frame()))

    def testFilterRulesAreAddedChangedDisabledAndRemoved(self):
        chain = "10p2p1MACblacklist"

        def tables(*macs):
            return kernel.expected(FORWARD=jumps("", chain), **{chain: [f"-s {mac} -j DROP" for mac in macs]})
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "blacklist")],
                        config.FILTER_RULES: [filterRule(1, 1, MAC)]}, tables(MAC))
        self.config.insert(config.FILTER_RULES, **filterRule(2, 1, OTHER_MAC))
        self.waitForTables(tables(MAC, OTHER_MAC))
        self.assertFalse(self.passes({"src": OTHER_MAC}))

        self.config.update(config.FILTER_RULES, 1, FilterMatch="02:00:00:00:0a:03")
        self.waitForTables(tables("02:00:00:00:0a:03", OTHER_MAC))
        self.assertTrue(self.passes({"src": MAC}))

        self.config.update(config.FILTER_RULES, 1, Enabled=0)
        self.waitForTables(tables(OTHER_MAC))
        self.assertTrue(self.passes({"src": "02:00:00:00:0a:03"}))

        self.config.delete(config.FILTER_RULES, 2)
        self.waitForTables(tables())
        self.assertTrue(self.passes({"src": OTHER_MAC}))

    def testALongChainNameGivesWayToTheId(self):
        # 30 characters are the most: with a prio of ten digits and "whitelist" the names of the ports are too long.
        self.configure({config.FILTERS: [filterRow(42, 1234567890, "IPv4", "whitelist", "p1", "p2"),
                                         filterRow(43, 1234567891, "IPv4", "whitelist", "a-long-name", "p2")]},
                       kernel.expected(
                           FORWARD=jumps("-p IPv4 ", "1234567890p2p1IPv4whitelist")
                           + jumps("-p IPv4 ", "FilterID43", "a-long-name", "p2"),
                           **{"1234567890p2p1IPv4whitelist": ("DROP",), "FilterID43": ("DROP",)}))
        self.assertFalse(self.passes({"ethertype": frames.IPV4}))

    def testARuleOfAMissingOrDisabledFilterIsLeftOut(self):
        chain = "10p2p1MACblacklist"
        self.configure({config.FILTERS: [filterRow(1, 10, "MAC", "blacklist"),
                                         filterRow(2, 20, "MAC", "blacklist", Enabled=0)],
                        config.FILTER_RULES: [filterRule(1, 2, MAC), filterRule(2, 99, MAC),
                                              filterRule(3, 1, OTHER_MAC)]},
                       kernel.expected(FORWARD=jumps("", chain), **{chain: [f"-s {OTHER_MAC} -j DROP"]}))
        self.assertTrue(self.passes({"src": MAC}))
        self.daemon.waitForLog("ignore Filter Rule Id 1 because rule has invalid reference (maybe disabled).")
        self.daemon.waitForLog("ignore Filter Rule Id 2 because rule has invalid reference (maybe disabled).")


if __name__ == "__main__":
    machine.main()
