#include "moatctl/check/change.hpp"
#include "moatctl/check/row.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace
{

using namespace moatctl;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

using Columns = std::initializer_list<std::pair<const char*, tessera::Value>>;

tessera::Value text(const char* value)
{
    return tessera::Value(std::string(value));
}

tessera::Value number(std::int32_t value)
{
    return tessera::Value(value);
}

// A configuration that is in order, to which the tests add one flaw each.
class Check : public testing::Test
{
protected:
    Check()
    {
        add(TableId::Global, 0, {{"GlobalInputPolicy", text("ACCEPT")}, {"GlobalForwardingPolicy", text("ACCEPT")}});
    }

    void add(TableId table, std::int32_t id, Columns columns)
    {
        Row row(schema::table(table));
        if (id != 0) {
            row.set("Id", id);
            row.set("Enabled", 1);
        }
        for (const auto& [column, value] : columns)
            row.values[row.table->at(column)] = value;
        configuration.add(row);
    }

    void addRule(std::int32_t id, Columns columns, const char* target = "DROP")
    {
        Row row(schema::table(TableId::Rules));
        row.set("Id", id);
        row.set("Enabled", 1);
        row.set("RulePrio", id);
        row.set("InInterface", "eth0");
        row.set("OutInterface", "eth1");
        row.set("Target", target);
        for (const auto& [column, value] : columns)
            row.values[row.table->at(column)] = value;
        configuration.add(row);
    }

    void addFilter(std::int32_t id, Columns columns)
    {
        Row row(schema::table(TableId::Filters));
        row.set("Id", id);
        row.set("Enabled", 1);
        row.set("Prio", id);
        row.set("InInterface", "eth0");
        row.set("OutInterface", "eth1");
        row.set("MatchCriteria", "mac");
        row.set("Mode", "blacklist");
        for (const auto& [column, value] : columns)
            row.values[row.table->at(column)] = value;
        configuration.add(row);
    }

    void addFilterRule(std::int32_t id, std::int32_t filter, const char* match)
    {
        add(TableId::FilterRules, id, {{"BridgeFilterID", number(filter)}, {"FilterMatch", text(match)}});
    }

    std::vector<std::string> problems(const CheckOptions& options = {})
    {
        std::vector<std::string> texts;
        for (const Problem& problem : checkConfiguration(configuration, options))
            texts.push_back(toText(problem));
        return texts;
    }

    Configuration configuration;
};

TEST_F(Check, FindsNothingInWhatIsInOrder)
{
    addRule(1, {{"SrcMAC", text("02:00:00:00:00:01")}});
    addRule(2, {{"VLANID", number(4094)}, {"Ethertype", text("IPv4")}});
    addRule(3, {{"Ethertype", text("IPv4")}, {"IPProto", text("TCP")}, {"IPPort", number(80)}});
    addFilter(1, {});
    addFilterRule(1, 1, "02:00:00:00:00:02");
    EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(Check, WantsTheGlobalPolicies)
{
    configuration.clear(TableId::Global);
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("error: MoatKeeper: there is no row")));
    add(TableId::Global, 0, {{"GlobalInputPolicy", text("accept")}, {"GlobalForwardingPolicy", text("DROP")}});
    EXPECT_THAT(problems(),
                ElementsAre(HasSubstr("error: MoatKeeper, GlobalInputPolicy: \"accept\": expected ACCEPT or DROP")));
}

TEST_F(Check, FindsIllFormedValues)
{
    addRule(1, {{"SrcMAC", text("02:00:00:00:00")}});
    addRule(2, {{"DstMAC", text("02:00:00:00:00:0g")}});
    addRule(3, {{"VLANID", number(4095)}});
    addRule(4, {{"InInterface", text("interface-name16")}});
    addRule(5, {{"OutInterface", text("eth 1")}});
    addRule(6, {{"Ethertype", text("IPv4")}, {"IPSrcAddr", text("10.0.0.0/33")}});
    addRule(7, {{"Ethertype", text("IPv6")}, {"IPDstAddr", text("fe80::g")}});
    addRule(8, {{"Ethertype", text("0x5ff")}});
    addRule(9, {{"Ethertype", text("IPv4")}, {"IPProto", text("tcp")}});
    addRule(10, {{"Ethertype", text("IPv4")}, {"IPProto", text("TCP")}, {"IPPort", number(65536)}});
    addRule(11, {}, "REJECT");
    EXPECT_THAT(problems(),
                ElementsAre(HasSubstr("Id 1, SrcMAC: \"02:00:00:00:00\": expected a MAC"), HasSubstr("Id 2, DstMAC"),
                            HasSubstr("Id 3, VLANID: 4095: expected a VLAN id"), HasSubstr("Id 4, InInterface"),
                            HasSubstr("Id 5, OutInterface: \"eth 1\""), HasSubstr("Id 6, IPSrcAddr"),
                            HasSubstr("Id 7, IPDstAddr"), HasSubstr("Id 8, Ethertype"), HasSubstr("Id 9, IPProto"),
                            HasSubstr("Id 10, IPPort: 65536"), HasSubstr("Id 11, Target: \"REJECT\"")));
}

TEST_F(Check, ValuesAtTheBoundsAreFine)
{
    addRule(1, {{"VLANID", number(0)}});
    addRule(2, {{"InInterface", text("interface-nam15")}});
    addRule(3, {{"Ethertype", text("0x600")}});
    addRule(4, {{"Ethertype", text("IPv4")}, {"IPSrcAddr", text("10.0.0.1/32")}});
    addRule(5, {{"Ethertype", text("IPv4")}, {"IPProto", text("UDP")}, {"IPPort", number(65535)}});
    addRule(6, {{"OutInterface", text("! eth1")}});
    EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(Check, ValuesMayBeNegated)
{
    addRule(1, {{"InInterface", text("! eth2")}, {"SrcMAC", text("! 02:00:00:00:00:01")}});
    addRule(2, {{"DstMAC", text("! 02:00:00:00:00:01/ff:ff:ff:00:00:00")}, {"Ethertype", text("! ARP")}});
    addRule(3, {{"Ethertype", text("IPv4")}, {"IPSrcAddr", text("! 10.0.0.0/8")}});
    addRule(4, {{"Ethertype", text("IPv6")}, {"IPDstAddr", text("! fe80::/10")}});
    addFilter(1, {});
    addFilterRule(1, 1, "! 02:00:00:00:00:01");
    addFilter(2, {{"MatchCriteria", text("vlan")}});
    addFilterRule(2, 2, "! 100");
    addFilter(3, {{"MatchCriteria", text("ipv4")}, {"InInterface", text("eth5")}});
    addFilterRule(3, 3, "! 10.0.0.1");
    EXPECT_THAT(problems(), IsEmpty());
    for (const schema::Table& table : schema::allTables()) {
        for (const Row& row : configuration.rows(table.id))
            EXPECT_THAT(checkRow(configuration, row), IsEmpty()) << table.name << ' ' << row.id();
    }
    addFilter(4, {{"InInterface", text("! eth0")}});
    EXPECT_THAT(problems(), testing::Contains(HasSubstr("error: MoatKeeperBridgeFilters Id 4")));
    EXPECT_THAT(checkRow(configuration, *configuration.find(TableId::Filters, 4)), testing::SizeIs(1));
}

TEST_F(Check, APortNeedsAProtocol)
{
    addRule(1, {{"Ethertype", text("IPv4")}, {"IPPort", number(80)}});
    EXPECT_THAT(problems(), ElementsAre(HasSubstr(
                                "error: MoatKeeperRuleset Id 1, IPPort: 80: expected a protocol to go with a port")));
}

TEST_F(Check, NamesColumnsThatAreNotLookedAt)
{
    addRule(1, {{"VLANID", number(5)}, {"IPSrcAddr", text("10.0.0.1")}});
    addRule(2, {{"SrcMAC", text("02:00:00:00:00:01")}, {"IPPort", number(80)}});
    addRule(3, {{"Ethertype", text("ipv4")}, {"IPDstAddr", text("10.0.0.1")}});
    addRule(4, {{"Ethertype", text("0x88cc")}, {"IPProto", text("TCP")}});
    EXPECT_THAT(
        problems(),
        ElementsAre(
            HasSubstr("warning: MoatKeeperRuleset Id 1, IPSrcAddr: \"10.0.0.1\": ignored in a rule with a VLANID"),
            HasSubstr("Id 2, IPPort: 80: ignored without an Ethertype"),
            HasSubstr("Id 3, IPDstAddr: \"10.0.0.1\": ignored with this spelling"),
            HasSubstr("Id 4, IPProto: \"TCP\": ignored with an Ethertype of \"0x88cc\"")));
}

TEST_F(Check, WantsPrioritiesAndPorts)
{
    addRule(1, {{"RulePrio", number(0)}});
    addRule(2, {{"InInterface", text("")}});
    addFilter(1, {{"Prio", number(0)}});
    addFilter(2, {{"Mode", text("")}});
    addFilter(3, {{"Mode", text("Blacklist")}});
    EXPECT_THAT(problems(),
                ElementsAre(HasSubstr("Id 1, RulePrio: 0"), HasSubstr("Id 2, InInterface: \"\""),
                            HasSubstr("BridgeFilters Id 1, Prio: 0"), HasSubstr("BridgeFilters Id 2, Mode: \"\""),
                            HasSubstr("BridgeFilters Id 3, Mode: \"Blacklist\"")));
}

TEST_F(Check, FollowsReferencesToFilters)
{
    addFilter(1, {{"Enabled", number(0)}});
    addFilter(2, {{"Mode", text("none")}});
    addFilter(3, {});
    addFilterRule(1, 1, "02:00:00:00:00:01");
    addFilterRule(2, 2, "02:00:00:00:00:01");
    addFilterRule(3, 3, "02:00:00:00:00:01");
    addFilterRule(4, 4, "02:00:00:00:00:01");
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("BridgeFilters Id 2, Mode"),
                                        HasSubstr("warning: MoatKeeperBridgeFilterRules Id 1, BridgeFilterID: 1: that "
                                                  "filter is disabled"),
                                        HasSubstr("FilterRules Id 2, BridgeFilterID: 2: that filter cannot be used"),
                                        HasSubstr("FilterRules Id 4, BridgeFilterID: 4: there is no such filter")));
}

TEST_F(Check, LooksAtFilterMatchesByTheirKind)
{
    addFilter(1, {{"MatchCriteria", text("vlan")}});
    addFilter(2, {{"MatchCriteria", text("IPv6")}});
    addFilterRule(1, 1, "4094");
    addFilterRule(2, 1, "4095");
    addFilterRule(3, 1, "4096");
    addFilterRule(4, 2, "fe80::1");
    addFilterRule(5, 2, "10.0.0.1");
    addFilterRule(6, 1, "");
    EXPECT_THAT(problems(),
                ElementsAre(HasSubstr("Id 2, FilterMatch: \"4095\""), HasSubstr("Id 3, FilterMatch: \"4096\""),
                            HasSubstr("Id 5, FilterMatch: \"10.0.0.1\""), HasSubstr("Id 6, FilterMatch: \"\"")));
}

TEST_F(Check, ChainNamesMustBeGoodAndTheirOwn)
{
    addFilter(1, {});
    addFilter(2, {{"Prio", number(1)}});
    addFilter(3, {{"Prio", number(-1)}});
    addFilter(4, {{"InInterface", text("lan-port01")}});      // 4eth1lan-port01macblacklist: 27
    addFilter(5, {{"InInterface", text("lan-port-0001")}});   // 30 characters: made but not jumped to
    addFilter(6, {{"InInterface", text("lan-port-number")}}); // longer: named by its Id
    EXPECT_THAT(
        problems(),
        ElementsAre(
            HasSubstr("Id 2: its chain \"1eth1eth0macblacklist\" is that of MoatKeeperBridgeFilters Id 1 already"),
            HasSubstr("Id 3, Prio: -1"),
            HasSubstr("Id 5: its chain would be called \"5eth1lan-port-0001macblacklist\"")));
}

TEST_F(Check, FindsDuplicatesContradictionsAndRulesOutOfReach)
{
    addRule(1, {{"SrcMAC", text("02:00:00:00:00:01")}});
    addRule(2, {{"SrcMAC", text("02:00:00:00:00:01")}});
    addRule(3, {{"SrcMAC", text("02:00:00:00:00:01")}}, "ACCEPT");
    addRule(4, {{"SrcMAC", text("02:00:00:00:00:01")}, {"VLANID", number(5)}});
    addRule(5, {{"SrcMAC", text("02:00:00:00:00:02")}});
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("Id 2: the same as MoatKeeperRuleset Id 1"),
                                        HasSubstr("Id 3: contradicts MoatKeeperRuleset Id 1"),
                                        HasSubstr("Id 4: never reached: MoatKeeperRuleset Id 1 comes first")));
}

TEST_F(Check, FindsFiltersThatContradictEachOther)
{
    addFilter(1, {});
    addFilter(2, {{"Mode", text("whitelist")}, {"InInterface", text("eth1")}, {"OutInterface", text("eth0")}});
    EXPECT_THAT(
        problems(),
        testing::Contains(HasSubstr(
            "warning: MoatKeeperBridgeFilters Id 2, Mode: \"whitelist\": contradicts MoatKeeperBridgeFilters Id 1")));
}

TEST_F(Check, LooksForInterfacesWhenAsked)
{
    addRule(1, {});
    addRule(2, {{"InInterface", text("eth+")}});
    CheckOptions options;
    options.interfaceState = [](const std::string& name) {
        return name == "eth0"  ? InterfaceState::Port
               : name == "lo"  ? InterfaceState::NoPort
               : name == "br0" ? InterfaceState::Bridge
                               : InterfaceState::Missing;
    };
    EXPECT_THAT(
        problems(options),
        ElementsAre(
            HasSubstr("warning: MoatKeeperRuleset Id 1, OutInterface: \"eth1\": this machine has no such interface"),
            HasSubstr("Id 2, OutInterface")));
    configuration.clear(TableId::Rules);
    addRule(1, {{"OutInterface", text("br0")}});
    addRule(2, {{"OutInterface", text("lo")}});
    EXPECT_THAT(problems(options),
                ElementsAre(HasSubstr("Id 1, OutInterface: \"br0\": a bridge, which is no port of itself"),
                            HasSubstr("Id 2, OutInterface: \"lo\": this interface is not a port of a bridge")));
}

TEST_F(Check, SwitchesAreZeroOrOne)
{
    add(TableId::InputPolicies, 1, {{"Enabled", number(2)}, {"Interface", text("eth0")}, {"Policy", text("DROP")}});
    addRule(1, {{"EnableLogging", number(2)}});
    EXPECT_THAT(
        problems(),
        ElementsAre(
            HasSubstr("error: MoatKeeperInputPolicy Id 1, Enabled: 2: expected 0 or 1; the daemon takes it for 0"),
            HasSubstr("Ruleset Id 1, EnableLogging: 2")));
}

TEST_F(Check, SaysWhatWouldBeCutOff)
{
    addRule(1, {{"OutInterface", text("")}, {"Ethertype", text("ARP")}});
    addRule(2, {{"OutInterface", text("")}, {"DstMAC", text("33:33:00:00:00:00/ff:ff:00:00:00:00")}});
    addRule(3, {{"OutInterface", text("")}, {"DstMAC", text("BGA")}});
    addRule(4, {{"OutInterface", text("")}, {"Ethertype", text("0x888e")}});
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("Id 1: drops ARP from eth0"),
                                        HasSubstr("Id 2: drops neighbour discovery from eth0"),
                                        HasSubstr("Id 3: drops spanning tree frames from eth0"),
                                        HasSubstr("Id 4: drops 802.1X frames from eth0")));
}

TEST_F(Check, AClosedWayNeedsNoAddressResolution)
{
    add(TableId::ForwardingPolicies, 1,
        {{"InInterface", text("eth0")}, {"OutInterface", text("eth1")}, {"Policy", text("DROP")}});
    EXPECT_THAT(problems(), IsEmpty());
    addRule(1, {{"Ethertype", text("IPv4")}, {"IPDstAddr", text("10.0.0.7")}}, "ACCEPT");
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("ForwardingPolicy Id 1: drops ARP from eth0 to eth1")));
}

TEST_F(Check, AStationThatMaySendEverythingCanAskForAddresses)
{
    add(TableId::ForwardingPolicies, 1,
        {{"InInterface", text("eth0")}, {"OutInterface", text("eth1")}, {"Policy", text("DROP")}});
    addRule(1, {{"SrcMAC", text("02:00:00:00:00:aa")}}, "ACCEPT");
    EXPECT_THAT(problems(), IsEmpty());
    addRule(2, {{"SrcMAC", text("02:00:00:00:00:bb")}, {"Ethertype", text("IPv4")}}, "ACCEPT");
    EXPECT_THAT(problems(), ElementsAre(HasSubstr("ForwardingPolicy Id 1: drops ARP from eth0 to eth1")));
    addRule(3, {{"Ethertype", text("ARP")}}, "ACCEPT");
    EXPECT_THAT(problems(), IsEmpty());
}

TEST_F(Check, EveryWrongValueOfARowIsReported)
{
    addRule(1, {{"RulePrio", number(0)}, {"SrcMAC", text("zz")}, {"VLANID", number(5000)}}, "DRO");
    std::vector<std::string> columns;
    for (const Problem& problem : checkConfiguration(configuration)) {
        EXPECT_EQ(problem.severity, Severity::Error);
        columns.push_back(problem.column);
    }
    EXPECT_THAT(columns, testing::UnorderedElementsAre("RulePrio", "SrcMAC", "VLANID", "Target"));
}

TEST_F(Check, LooksAtRowsThatAreNotInForce)
{
    addRule(1, {{"Enabled", number(0)}, {"SrcMAC", text("zz")}});
    addRule(2, {{"Enabled", number(0)}, {"Ethertype", text("IPv4")}, {"IPPort", number(80)}});
    addRule(3, {{"Enabled", number(0)}, {"VLANID", number(5)}, {"IPSrcAddr", text("10.0.0.1")}});
    addRule(4, {{"Enabled", number(0)}, {"SrcMAC", text("02:00:00:00:00:01")}});
    addRule(5, {{"VLANID", number(5)}, {"IPProto", text("tcp")}}); // ignored, and wrong all the same
    addFilter(1, {{"Enabled", number(0)}});
    addFilterRule(1, 1, "10.0.0.1");
    add(TableId::FilterRules, 2,
        {{"Enabled", number(0)}, {"BridgeFilterID", number(9)}, {"FilterMatch", text("10.0.0.1")}});
    EXPECT_THAT(problems(),
                ElementsAre(HasSubstr("error: MoatKeeperRuleset Id 1, SrcMAC: \"zz\""),
                            HasSubstr("error: MoatKeeperRuleset Id 2, IPPort: 80: expected a protocol"),
                            HasSubstr("warning: MoatKeeperRuleset Id 3, IPSrcAddr: \"10.0.0.1\": ignored"),
                            HasSubstr("error: MoatKeeperRuleset Id 5, IPProto: \"tcp\": expected TCP or UDP"),
                            HasSubstr("warning: MoatKeeperRuleset Id 5, IPProto: \"tcp\": ignored"),
                            HasSubstr("warning: MoatKeeperBridgeFilterRules Id 1, BridgeFilterID: 1: that filter is"),
                            HasSubstr("error: MoatKeeperBridgeFilterRules Id 1, FilterMatch: \"10.0.0.1\": expected a "
                                      "MAC address, as filter 1 says"),
                            HasSubstr("error: MoatKeeperBridgeFilterRules Id 2, BridgeFilterID: 9: there is no such")));
}

// What importing a file would make wrong. Rows with a line stand in the file.
class CheckAChange : public Check
{
protected:
    CheckAChange() { configuration.file = "f.json"; }

    // Goes on with a copy: rows added or changed from now on are the file's.
    void fileBegins() { before = configuration; }

    void inFile(TableId table, std::int32_t id, std::uint32_t line, Columns columns = {})
    {
        Row& row = *configuration.find(table, id);
        row.line = line;
        for (const auto& [column, value] : columns)
            row.values[row.table->at(column)] = value;
    }

    std::vector<std::string> changeProblems() const
    {
        std::vector<std::string> texts;
        for (const Problem& problem : checkChange(before, configuration))
            texts.push_back(toText(problem));
        return texts;
    }

    Configuration before;
};

TEST_F(CheckAChange, SaysNothingOfWhatWasThereBefore)
{
    addRule(1, {{"SrcMAC", text("zz")}});
    addRule(2, {});
    addRule(3, {});
    fileBegins();
    EXPECT_THAT(changeProblems(), IsEmpty());
    addRule(4, {{"SrcMAC", text("yy")}});
    inFile(TableId::Rules, 4, 7);
    EXPECT_THAT(changeProblems(), ElementsAre(HasSubstr("f.json:7: error: MoatKeeperRuleset Id 4, SrcMAC: \"yy\"")));
}

TEST_F(CheckAChange, WhatTheFileRepeatsIsNoErrorOfTheFile)
{
    addRule(1, {{"SrcMAC", text("zz")}});
    addRule(2, {});
    addRule(3, {});
    fileBegins();
    inFile(TableId::Rules, 1, 7);
    inFile(TableId::Rules, 3, 8);
    EXPECT_THAT(changeProblems(), ElementsAre(HasSubstr("f.json:7: warning: MoatKeeperRuleset Id 1, SrcMAC: \"zz\"")));
    inFile(TableId::Rules, 1, 7, {{"EnableLogging", number(1)}});
    EXPECT_THAT(changeProblems(), ElementsAre(HasSubstr("f.json:7: error: MoatKeeperRuleset Id 1, SrcMAC: \"zz\"")));
}

TEST_F(CheckAChange, WhatWasWrongWithAnEditedRowBeforeDoesNotStopTheEdit)
{
    addRule(1, {{"SrcMAC", text("zz")}});
    addRule(2, {});
    addRule(3, {});
    fileBegins();
    for (const std::int32_t id : {1, 3})
        configuration.find(TableId::Rules, id)->set("EnableLogging", 1);
    EXPECT_THAT(changeProblems(), ElementsAre("warning: MoatKeeperRuleset Id 1, SrcMAC: \"zz\": expected a MAC address "
                                              "such as 00:11:22:33:44:55, or ADDRESS/MASK"));
    configuration.find(TableId::Rules, 1)->set("SrcMAC", "yy");
    EXPECT_THAT(changeProblems(), ElementsAre(testing::StartsWith("error: MoatKeeperRuleset Id 1, SrcMAC: \"yy\"")));
}

TEST_F(CheckAChange, SaysNothingOfWhatIsAcknowledged)
{
    addRule(1, {});
    fileBegins();
    addRule(2, {});
    inFile(TableId::Rules, 2, 7);
    const std::string warning = "the same as MoatKeeperRuleset Id 1, which comes first: one of the two is enough";
    EXPECT_THAT(changeProblems(), ElementsAre("f.json:7: warning: MoatKeeperRuleset Id 2: " + warning));
    configuration.acknowledged[{TableId::Rules, 2, warning + "!"}];
    EXPECT_THAT(changeProblems(), testing::SizeIs(1)) << "another warning was acknowledged";
    configuration.acknowledged[{TableId::Rules, 2, warning}];
    EXPECT_THAT(changeProblems(), IsEmpty());
}

TEST_F(CheckAChange, RowsOutsideTheFileThatItMakesWrongHaveNoLine)
{
    addFilter(1, {});
    addFilterRule(1, 1, "02:00:00:00:00:01");
    addRule(1, {});
    fileBegins();
    addRule(2, {{"RulePrio", number(-1)}});
    inFile(TableId::Rules, 2, 7);
    inFile(TableId::Filters, 1, 8, {{"MatchCriteria", text("vlan")}});
    EXPECT_THAT(changeProblems(),
                ElementsAre(HasSubstr("warning: MoatKeeperRuleset Id 1: the same as MoatKeeperRuleset Id 2"),
                            testing::StartsWith("error: MoatKeeperBridgeFilterRules Id 1, FilterMatch")));
}

TEST_F(CheckAChange, OfTwoFiltersWithOneChainTheFilesIsNamed)
{
    addFilter(5, {{"Prio", number(1)}});
    fileBegins();
    for (const std::int32_t id : {4, 6}) {
        addFilter(id, {{"Prio", number(1)}});
        inFile(TableId::Filters, id, 7);
        EXPECT_THAT(changeProblems(),
                    testing::Contains(testing::AllOf(
                        testing::StartsWith("f.json:7: error: MoatKeeperBridgeFilters Id " + std::to_string(id)),
                        HasSubstr("is that of MoatKeeperBridgeFilters Id 5 already"))));
        configuration.remove(TableId::Filters, id);
    }
}

TEST_F(CheckAChange, AMissingRowOfPoliciesIsAWarning)
{
    fileBegins();
    configuration.clear(TableId::Global);
    EXPECT_THAT(changeProblems(), ElementsAre(testing::StartsWith("warning: MoatKeeper: there is no row")));
    fileBegins();
    EXPECT_THAT(changeProblems(), IsEmpty());
}

TEST_F(Check, TellsHowFarItHasCome)
{
    std::vector<std::size_t> steps;
    std::size_t all = 0;
    CheckOptions options;
    options.onProgress = [&](std::size_t done, std::size_t total) {
        steps.push_back(done);
        all = total;
    };
    checkConfiguration(configuration, options);
    ASSERT_GT(steps.size(), 3U);
    EXPECT_TRUE(std::ranges::is_sorted(steps));
    EXPECT_EQ(steps.back(), all);
}

} // namespace
