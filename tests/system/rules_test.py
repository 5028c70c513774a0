"""Rules and policies with real frames: what each lets through and what it stops."""

import itertools
import os

from lab import config, frames, kernel, machine, sandbox
from lab.frames import BROADCAST, Frame

BRIDGE_MAC = "02:00:00:00:00:f0"
MAC, OTHER_MAC = "02:00:00:00:0a:01", "02:00:00:00:0a:02"

# name: (columns of the rule, what ebtables-save prints before and after the interfaces,
#        a frame that matches, frames that do not). Frames go to the bridge itself in the input chain's tests.
MATCHES = {
    "source MAC": (
        {"SrcMAC": MAC}, f"-s {MAC} ", "",
        {"src": MAC}, [{"src": OTHER_MAC}]),
    "source MAC with mask": (
        {"SrcMAC": "02:00:00:00:0a:00/ff:ff:ff:ff:ff:00"}, "-s 02:00:00:00:0a:00/ff:ff:ff:ff:ff:00 ", "",
        {"src": MAC}, [{"src": "02:00:00:00:0b:01"}]),
    "destination MAC": (
        {"DstMAC": BRIDGE_MAC}, f"-d {BRIDGE_MAC} ", "",
        {}, [{"dst": BROADCAST}]),
    "VLAN id": (
        {"VLANID": 100}, "-p 802_1Q ", "--vlan-id 100 ",
        {"vlan": 100}, [{"vlan": 101}, {}]),
    "VLAN id and encapsulated type": (
        {"VLANID": 100, "Ethertype": "IPv4"}, "-p 802_1Q ", "--vlan-id 100 --vlan-encap 0800 ",
        {"vlan": 100, "ethertype": frames.IPV4},
        [{"vlan": 100, "ethertype": frames.ARP}, {"vlan": 101, "ethertype": frames.IPV4}]),
    "ethertype by name": (
        {"Ethertype": "ARP"}, "-p ARP ", "",
        {"ethertype": frames.ARP}, [{"ethertype": frames.IPV4}]),
    "ethertype by number": (
        {"Ethertype": "0x88B6"}, "-p 0x88b6 ", "",
        {"ethertype": 0x88B6}, [{"ethertype": 0x88B7}]),
    "IPv4 source": (
        {"Ethertype": "IPv4", "IPSrcAddr": "192.0.2.0/24"}, "-p IPv4 ", "--ip-src 192.0.2.0/24 ",
        {"ethertype": frames.IPV4, "ipSrc": "192.0.2.77"},
        [{"ethertype": frames.IPV4, "ipSrc": "198.51.100.1"}, {"ethertype": frames.IPV6}]),
    "IPv4 destination": (
        {"Ethertype": "0x800", "IPDstAddr": "192.0.2.5"}, "-p IPv4 ", "--ip-dst 192.0.2.5 ",
        {"ethertype": frames.IPV4, "ipDst": "192.0.2.5"}, [{"ethertype": frames.IPV4, "ipDst": "192.0.2.6"}]),
    "IPv6 source": (
        {"Ethertype": "IPv6", "IPSrcAddr": "2001:db8:1::/48"}, "-p IPv6 ", "--ip6-src 2001:db8:1::/48 ",
        {"ethertype": frames.IPV6, "ipSrc": "2001:db8:1::7"},
        [{"ethertype": frames.IPV6, "ipSrc": "2001:db8:2::7"}, {"ethertype": frames.IPV4}]),
    "IPv6 destination": (
        {"Ethertype": "0x86DD", "IPDstAddr": "2001:db8::5"}, "-p IPv6 ", "--ip6-dst 2001:db8::5 ",
        {"ethertype": frames.IPV6, "ipDst": "2001:db8::5"}, [{"ethertype": frames.IPV6, "ipDst": "2001:db8::6"}]),
    "UDP port over IPv4": (
        {"Ethertype": "IPv4", "IPProto": "UDP", "IPPort": 53}, "-p IPv4 ", "--ip-proto udp --ip-dport 53 ",
        {"ethertype": frames.IPV4, "proto": frames.UDP, "port": 53},
        [{"ethertype": frames.IPV4, "proto": frames.UDP, "port": 54},
         {"ethertype": frames.IPV4, "proto": frames.TCP, "port": 53}]),
    "TCP port over IPv4": (
        {"Ethertype": "IPv4", "IPProto": "TCP", "IPPort": 80}, "-p IPv4 ", "--ip-proto tcp --ip-dport 80 ",
        {"ethertype": frames.IPV4, "proto": frames.TCP, "port": 80},
        [{"ethertype": frames.IPV4, "proto": frames.TCP, "port": 8080},
         {"ethertype": frames.IPV4, "proto": frames.UDP, "port": 80}]),
    "UDP port over IPv6": (
        {"Ethertype": "IPv6", "IPProto": "UDP", "IPPort": 53}, "-p IPv6 ", "--ip6-proto udp --ip6-dport 53 ",
        {"ethertype": frames.IPV6, "proto": frames.UDP, "port": 53},
        [{"ethertype": frames.IPV6, "proto": frames.UDP, "port": 54},
         {"ethertype": frames.IPV6, "proto": frames.TCP, "port": 53}]),
    "TCP port over IPv6": (
        {"Ethertype": "IPv6", "IPProto": "TCP", "IPPort": 80}, "-p IPv6 ", "--ip6-proto tcp --ip6-dport 80 ",
        {"ethertype": frames.IPV6, "proto": frames.TCP, "port": 80},
        [{"ethertype": frames.IPV6, "proto": frames.TCP, "port": 81}]),
    "protocol without a port": (
        {"Ethertype": "IPv4", "IPProto": "UDP"}, "-p IPv4 ", "--ip-proto udp ",
        {"ethertype": frames.IPV4, "proto": frames.UDP}, [{"ethertype": frames.IPV4, "proto": frames.TCP}]),
    "everything at once": (
        {"DstMAC": BRIDGE_MAC, "SrcMAC": MAC, "Ethertype": "IPv4", "IPSrcAddr": "192.0.2.1",
         "IPDstAddr": "192.0.2.2", "IPProto": "TCP", "IPPort": 80},
        f"-p IPv4 -s {MAC} -d {BRIDGE_MAC} ",
        "--ip-src 192.0.2.1 --ip-dst 192.0.2.2 --ip-proto tcp --ip-dport 80 ",
        {"src": MAC, "ethertype": frames.IPV4, "proto": frames.TCP, "port": 80},
        [{"src": OTHER_MAC, "ethertype": frames.IPV4, "proto": frames.TCP, "port": 80},
         {"src": MAC, "ethertype": frames.IPV4, "proto": frames.TCP, "port": 80, "ipDst": "192.0.2.3"}]),
}


def rule(rowId, prio, inPort, target="DROP", **columns):
    return {"Id": rowId, "RulePrio": prio, "InInterface": inPort, "Target": target, **columns}


def policies(inputPolicy, forwardPolicy):
    return {"GlobalInputPolicy": inputPolicy, "GlobalForwardingPolicy": forwardPolicy}


class Rules(machine.Machine):
    """The table of rules."""

    def sendToBridge(self, columns):
        return self.bridge.sendOne("p1", Frame(**{"dst": BRIDGE_MAC, **columns}))

    def testEachMatchDropsItsFramesOnTheWayIn(self):
        for name, (columns, before, after, match, others) in MATCHES.items():
            with self.subTest(name):
                self.configure({config.RULES: [rule(1, 10, "p1", **columns)]},
                               kernel.expected(UserInputRules=[f"{before}-i p1 {after}-j DROP"]))
                self.assertNotIn("br0", self.sendToBridge(match))
                for other in others:
                    self.assertIn("br0", self.sendToBridge(other), other)

    def testEachMatchAcceptsItsFramesOnTheWayIn(self):
        for name, (columns, before, after, match, others) in MATCHES.items():
            with self.subTest(name):
                self.configure({config.MAIN: [policies("DROP", "ACCEPT")],
                                config.RULES: [rule(1, 10, "p1", "ACCEPT", **columns)]},
                               kernel.expected(INPUT=("DROP",),
                                               UserInputRules=[f"{before}-i p1 {after}-j ACCEPT"]))
                self.assertIn("br0", self.sendToBridge(match))
                for other in others:
                    self.assertNotIn("br0", self.sendToBridge(other), other)

    def testEachMatchDropsItsFramesOnTheWayThrough(self):
        for name, (columns, before, after, match, others) in MATCHES.items():
            with self.subTest(name):
                columns, before, match = self.forwarded(columns, before, match)
                self.configure({config.RULES: [rule(1, 10, "p1", OutInterface="p2", **columns)]},
                               kernel.expected(UserForwardRules=[f"{before}-i p1 -o p2 {after}-j DROP"]))
                self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(**match)))
                self.assertEqual({"p1", "p3"}, self.bridge.sendOne("p2", Frame(**match)))
                for other in others:
                    self.assertIn("p2", self.bridge.sendOne("p1", Frame(**other)), other)

    def testEachMatchAcceptsItsFramesOnTheWayThrough(self):
        for name, (columns, before, after, match, others) in MATCHES.items():
            with self.subTest(name):
                columns, before, match = self.forwarded(columns, before, match)
                self.configure({config.MAIN: [policies("ACCEPT", "DROP")],
                                config.RULES: [rule(1, 10, "p1", "ACCEPT", OutInterface="p2", **columns)]},
                               kernel.expected(FORWARD=("DROP",),
                                               UserForwardRules=[f"{before}-i p1 -o p2 {after}-j ACCEPT"]))
                self.assertEqual({"p2"}, self.bridge.sendOne("p1", Frame(**match)))
                self.assertEqual(set(), self.bridge.sendOne("p2", Frame(**match)))
                for other in others:
                    self.assertNotIn("p2", self.bridge.sendOne("p1", Frame(**other)), other)

    def forwarded(self, columns, before, match):
        """The same match for a frame to MAC's owner behind the bridge instead of the bridge itself."""
        columns = {column: OTHER_MAC if value == BRIDGE_MAC else value for column, value in columns.items()}
        return columns, before.replace(BRIDGE_MAC, OTHER_MAC), {"dst": OTHER_MAC, **match}

    def testTheSmallerPriorityNumberDecides(self):
        frame = {"src": MAC}
        for acceptPrio, dropPrio, passes in ((10, 20, True), (20, 10, False), (-5, 3, True), (3, -5, False)):
            with self.subTest(acceptPrio=acceptPrio, dropPrio=dropPrio):
                lines = [f"-s {MAC} -i p1 -o p2 -j ACCEPT", f"-s {MAC} -i p1 -o p2 -j DROP"]
                self.configure({config.RULES: [
                    rule(1, dropPrio, "p1", "DROP", OutInterface="p2", SrcMAC=MAC),
                    rule(2, acceptPrio, "p1", "ACCEPT", OutInterface="p2", SrcMAC=MAC)]},
                    kernel.expected(UserForwardRules=lines if passes else lines[::-1]))
                self.assertEqual(passes, "p2" in self.bridge.sendOne("p1", Frame(**frame)))

    def testRulesOfOnePriorityKeepTheOrderOfTheirIds(self):
        rules = [rule(rowId, 7, "p1", SrcMAC=f"02:00:00:00:00:{rowId:02d}") for rowId in (30, 10, 20)]
        self.configure({config.RULES: rules}, kernel.expected(UserInputRules=[
            f"-s 02:00:00:00:00:{rowId} -i p1 -j DROP" for rowId in (10, 20, 30)]))

    def testARuleIsAddedChangedDisabledAndRemoved(self):
        self.configure({}, kernel.expected())
        self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(src=MAC)))

        self.config.insert(config.RULES, **rule(5, 10, "p1", OutInterface="p2", SrcMAC=MAC))
        self.waitForTables(kernel.expected(UserForwardRules=[f"-s {MAC} -i p1 -o p2 -j DROP"]))
        self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(src=MAC)))

        self.config.update(config.RULES, 5, OutInterface="p3")
        self.waitForTables(kernel.expected(UserForwardRules=[f"-s {MAC} -i p1 -o p3 -j DROP"]))
        self.assertEqual({"p2"}, self.bridge.sendOne("p1", Frame(src=MAC)))

        self.config.update(config.RULES, 5, OutInterface="")
        self.waitForTables(kernel.expected(UserInputRules=[f"-s {MAC} -i p1 -j DROP"]))
        self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(src=MAC)))
        self.assertEqual(set(), self.bridge.sendOne("p1", Frame(src=MAC, dst=BRIDGE_MAC)))

        self.config.update(config.RULES, 5, Enabled=0)
        self.waitForTables(kernel.expected())
        self.assertEqual({"br0"}, self.bridge.sendOne("p1", Frame(src=MAC, dst=BRIDGE_MAC)))

        self.config.update(config.RULES, 5, Enabled=1)
        self.waitForTables(kernel.expected(UserInputRules=[f"-s {MAC} -i p1 -j DROP"]))
        self.config.delete(config.RULES, 5)
        self.waitForTables(kernel.expected())

    def testALoggedRuleWritesItsPrefixToTheKernelLog(self):
        logged = '--log-level notice --log-prefix "Moatkeeper {}: "'
        with openKernelLog() as log:
            self.configure({config.RULES: [
                rule(1, 10, "p1", "ACCEPT", OutInterface="p2", SrcMAC=MAC, EnableLogging=1),
                rule(2, 20, "p1", "DROP", OutInterface="p2", SrcMAC=OTHER_MAC, EnableLogging=1),
                rule(3, 30, "p2", "DROP", SrcMAC=MAC, EnableLogging=1)]},
                kernel.expected(
                    UserForwardRules=[f"-s {MAC} -i p1 -o p2 {logged.format('accepted')} -j ACCEPT",
                                      f"-s {OTHER_MAC} -i p1 -o p2 {logged.format('denied')} -j DROP"],
                    UserInputRules=[f"-s {MAC} -i p2 {logged.format('denied')} -j DROP"]))
            self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(src=MAC)))
            self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(src=OTHER_MAC)))
            self.assertEqual(set(), self.bridge.sendOne("p2", Frame(src=MAC, dst=BRIDGE_MAC)))
            if not sandbox.kernelLogIsShared():
                return  # the tables had the log option; net.netfilter.nf_log_all_netns=1 would show the lines too
            lines = readKernelLog(log)
        for text in (f"Moatkeeper accepted: IN=p1 OUT=p2 MAC source = {MAC}",
                     f"Moatkeeper denied: IN=p1 OUT=p2 MAC source = {OTHER_MAC}",
                     f"Moatkeeper denied: IN=p2 OUT= MAC source = {MAC}"):
            self.assertIn(text, " ".join(lines.split()))

    def testARowThatTheToolRefusesCostsOnlyItself(self):
        self.configure({config.RULES: [
            rule(1, 10, "p1", OutInterface="p2", Ethertype="IPv4", IPPort=22),  # a port without a protocol
            rule(2, 20, "p1", OutInterface="p2", SrcMAC="not a MAC"),
            rule(3, 30, "p1", OutInterface="p2", SrcMAC=MAC)]},
            kernel.expected(UserForwardRules=[f"-s {MAC} -i p1 -o p2 -j DROP"]))
        self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(src=MAC)))
        self.assertEqual({"p2", "p3"}, self.bridge.sendOne("p1", Frame(ethertype=frames.IPV4, port=22)))


class Policies(machine.Machine):
    """The two policy tables and the global policies."""

    def arrivals(self):
        """Where a frame arrives that is for another port, and one for the device itself, for each port."""
        sent = [(port, Frame(dst=dst)) for port in machine.PORTS for dst in (OTHER_MAC, BRIDGE_MAC)]
        arrived = self.bridge.send(*sent)
        return {port: arrived[2 * index] | arrived[2 * index + 1] for index, port in enumerate(machine.PORTS)}

    def testGlobalPoliciesDecideWhatNothingElseDecides(self):
        for inputPolicy, forwardPolicy in itertools.product(("ACCEPT", "DROP"), repeat=2):
            with self.subTest(inputPolicy=inputPolicy, forwardPolicy=forwardPolicy):
                self.configure({config.MAIN: [policies(inputPolicy, forwardPolicy)]},
                               kernel.expected(INPUT=(inputPolicy,), FORWARD=(forwardPolicy,)))
                local = {"br0"} if inputPolicy == "ACCEPT" else set()
                through = set(machine.PORTS) if forwardPolicy == "ACCEPT" else set()
                self.assertEqual({port: local | (through - {port}) for port in machine.PORTS}, self.arrivals())

    def testOneGlobalPolicyIsChangedAlone(self):
        self.configure({}, kernel.expected())
        self.config.update(config.MAIN, None, GlobalForwardingPolicy="DROP")
        self.waitForTables(kernel.expected(FORWARD=("DROP",)))
        self.assertEqual({port: {"br0"} for port in machine.PORTS}, self.arrivals())

    def testAnInputPolicyHoldsForItsInterface(self):
        self.configure({config.INPUT_POLICY: [{"Id": 1, "Interface": "p1", "Policy": "DROP"},
                                              {"Id": 2, "Interface": "p2", "Policy": "ACCEPT"}],
                        config.MAIN: [policies("DROP", "ACCEPT")]},
                       kernel.expected(INPUT=("DROP",), UserInputPolicy=["-i p1 -j DROP", "-i p2 -j ACCEPT"]))
        self.assertEqual({"p1": {"p2", "p3"}, "p2": {"p1", "p3", "br0"}, "p3": {"p1", "p2"}}, self.arrivals())

        self.config.update(config.INPUT_POLICY, 1, Policy="ACCEPT")
        self.config.update(config.INPUT_POLICY, 2, Enabled=0)
        self.waitForTables(kernel.expected(INPUT=("DROP",), UserInputPolicy=["-i p1 -j ACCEPT"]))
        self.assertEqual({"p1": {"p2", "p3", "br0"}, "p2": {"p1", "p3"}, "p3": {"p1", "p2"}}, self.arrivals())

    def testAForwardingPolicyHoldsForItsPairAndDirection(self):
        self.configure({config.FORWARD_POLICY: [
            {"Id": 1, "InInterface": "p1", "OutInterface": "p2", "Policy": "DROP"}]},
            kernel.expected(UserForwardPolicy=["-i p1 -o p2 -j DROP"]))
        self.assertEqual({"p1": {"p3", "br0"}, "p2": {"p1", "p3", "br0"}, "p3": {"p1", "p2", "br0"}},
                         self.arrivals())

        self.configure({config.MAIN: [policies("ACCEPT", "DROP")], config.FORWARD_POLICY: [
            {"Id": 1, "InInterface": "p1", "OutInterface": "p2", "Policy": "ACCEPT"},
            {"Id": 2, "InInterface": "p3", "OutInterface": "p1", "Policy": "ACCEPT", "EnableLogging": 1}]},
            kernel.expected(FORWARD=("DROP",), UserForwardPolicy=[
                "-i p1 -o p2 -j ACCEPT",
                '-i p3 -o p1 --log-level notice --log-prefix "Moatkeeper accepted: " -j ACCEPT']))
        self.assertEqual({"p1": {"p2", "br0"}, "p2": {"br0"}, "p3": {"p1", "br0"}}, self.arrivals())

    def testARuleIsAskedBeforeAPolicy(self):
        self.configure({
            config.RULES: [rule(1, 10, "p1", "ACCEPT", OutInterface="p2", SrcMAC=MAC),
                           rule(2, 10, "p1", "ACCEPT", SrcMAC=MAC)],
            config.FORWARD_POLICY: [{"Id": 1, "InInterface": "p1", "OutInterface": "p2", "Policy": "DROP"}],
            config.INPUT_POLICY: [{"Id": 1, "Interface": "p1", "Policy": "DROP"}]},
            kernel.expected(UserForwardRules=[f"-s {MAC} -i p1 -o p2 -j ACCEPT"],
                            UserInputRules=[f"-s {MAC} -i p1 -j ACCEPT"],
                            UserForwardPolicy=["-i p1 -o p2 -j DROP"], UserInputPolicy=["-i p1 -j DROP"]))
        self.assertEqual({"br0", "p2", "p3"}, self.bridge.sendOne("p1", Frame(src=MAC, dst=BROADCAST)))
        self.assertEqual({"p3"}, self.bridge.sendOne("p1", Frame(src=OTHER_MAC, dst=BROADCAST)))


def openKernelLog():
    """The kernel log behind its present end; an empty file where it is not ours to read."""
    if not sandbox.kernelLogIsShared():
        return open(os.devnull, "rb", buffering=0)
    log = open("/dev/kmsg", "rb", buffering=0)
    os.set_blocking(log.fileno(), False)
    log.seek(0, os.SEEK_END)
    return log


def readKernelLog(log):
    lines = []
    while data := log.read(8192):
        lines.append(data.decode(errors="replace"))
    return "".join(lines)


if __name__ == "__main__":
    machine.main()
