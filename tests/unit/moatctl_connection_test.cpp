// Which frames a connection over the bridge consists of, and which change closes its way.
#include "moatctl/bridge/connection.hpp"
#include "moatctl/check/closed_way.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace moatctl;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::SizeIs;
using Purpose = ConnectionFrame::Purpose;

constexpr MacAddress clientMac{2, 0, 0, 0, 0, 7};
constexpr MacAddress serverMac{2, 0, 0, 0, 0, 8};
constexpr MacAddress bridgeMac{2, 0, 0, 0, 0, 0xf0};
constexpr Ip4Address clientIp{192, 0, 2, 7};
constexpr Ip4Address serverIp{192, 0, 2, 1};
constexpr Ip6Address client6{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 7};
constexpr Ip6Address server6{0x20, 0x01, 0x0d, 0xb8, 0, 0, 0, 0, 0, 0, 0, 0, 0x12, 0x34, 0x56, 0x78};
constexpr int bridge = 2, p1 = 3, p2 = 4, tagged = 5, other = 6;

Connection connectionOf(const std::string& text = "192.0.2.7 50000 192.0.2.1 22")
{
    const auto connection = parseConnection(text);
    EXPECT_TRUE(connection) << text;
    return connection.value_or(Connection{});
}

// The client is behind p1 of a bridge that has the server's address.
NetworkFacts facts()
{
    NetworkFacts facts;
    facts.links = {{.index = bridge, .name = "br0", .kind = "bridge", .mac = bridgeMac},
                   {.index = p1, .name = "p1"},
                   {.index = p2, .name = "p2"},
                   {.index = tagged, .name = "br0.10", .kind = "vlan", .mac = bridgeMac, .lower = bridge, .vlan = 10},
                   {.index = other, .name = "eth9"}};
    facts.neighbours = {{bridge, clientIp, clientMac}, {bridge, client6, clientMac}};
    facts.stations = {{bridge, p1, clientMac, {}}};
    facts.toServer = {.isHere = true, .link = 1};
    facts.toClient = {.link = bridge};
    return facts;
}

Row ruleOf(std::int32_t id, const char* in, const char* target)
{
    Row row(schema::table(TableId::Rules));
    row.set("Id", id);
    row.set("RulePrio", id);
    row.set("InInterface", in);
    row.set("Target", target);
    return row;
}

Row policies(const char* input, const char* forward = "ACCEPT")
{
    Row row(schema::table(TableId::Global));
    row.set("GlobalInputPolicy", input);
    row.set("GlobalForwardingPolicy", forward);
    return row;
}

Configuration configurationOf(std::initializer_list<Row> rows)
{
    Configuration configuration;
    for (const Row& row : rows)
        configuration.add(row);
    return configuration;
}

std::string closed(const std::vector<ConnectionFrame>& frames, const Configuration& before, const Configuration& after)
{
    return closedWay(frames, before, after).value_or("open");
}

TEST(ParseConnection, TakesWhatSshdSays)
{
    const Connection connection = connectionOf();
    EXPECT_EQ(connection.client, IpAddress(clientIp));
    EXPECT_EQ(connection.server, IpAddress(serverIp));
    EXPECT_EQ(connection.clientPort, 50000);
    EXPECT_EQ(connection.serverPort, 22);
    EXPECT_EQ(connectionOf("2001:db8::7 1 2001:db8::1234:5678 22").client, IpAddress(client6));
    EXPECT_EQ(connectionOf("fe80::7%br0 1 fe80::1%br0 22").clientLink, "br0");
    EXPECT_EQ(connectionOf("::ffff:192.0.2.7 1 ::ffff:192.0.2.1 22").client, IpAddress(clientIp));
}

TEST(ParseConnection, TakesNothingElse)
{
    for (const char* text :
         {"", "192.0.2.7 50000 192.0.2.1", "192.0.2.7 50000 192.0.2.1 22 1", "192.0.2.7 0 192.0.2.1 22",
          "192.0.2.7 50000 2001:db8::1 22", "host 50000 192.0.2.1 22", "192.0.2.7 70000 192.0.2.1 22",
          "192.0.2.7 -1 192.0.2.1 22", "UNKNOWN 65535 UNKNOWN 65535"})
        EXPECT_FALSE(parseConnection(text)) << text;
}

TEST(FramesOf, AConnectionToThisDevice)
{
    const auto frames = framesOf(connectionOf(), facts());
    ASSERT_THAT(frames, SizeIs(3));
    const Frame& data = frames[0].frame;
    EXPECT_EQ(frames[0].purpose, Purpose::Data);
    EXPECT_EQ(data.in, "p1");
    EXPECT_EQ(data.out, "");
    EXPECT_EQ(data.source, clientMac);
    EXPECT_EQ(data.destination, bridgeMac);
    EXPECT_EQ(data.type, ethertype::ip4);
    EXPECT_EQ(data.ip4Source, clientIp);
    EXPECT_EQ(data.ip4Destination, serverIp);
    EXPECT_EQ(data.protocol, ipProtocol::tcp);
    EXPECT_EQ(data.sourcePort, 50000);
    EXPECT_EQ(data.destinationPort, 22);
    EXPECT_FALSE(data.vlan);
    for (const std::size_t i : {1U, 2U}) {
        EXPECT_EQ(frames[i].purpose, Purpose::AddressResolution);
        EXPECT_EQ(frames[i].frame.type, ethertype::arp);
        EXPECT_EQ(frames[i].frame.source, clientMac);
    }
    EXPECT_EQ(frames[1].frame.destination, (MacAddress{0xff, 0xff, 0xff, 0xff, 0xff, 0xff}));
    EXPECT_EQ(frames[2].frame.destination, bridgeMac);
}

TEST(FramesOf, AConnectionOfIpVersion6)
{
    const auto frames = framesOf(connectionOf("2001:db8::7 50000 2001:db8::1234:5678 22"), facts());
    ASSERT_THAT(frames, SizeIs(3));
    EXPECT_EQ(frames[0].frame.ip6Source, client6);
    const Frame& solicitation = frames[1].frame;
    EXPECT_EQ(solicitation.destination, (MacAddress{0x33, 0x33, 0xff, 0x34, 0x56, 0x78}));
    EXPECT_EQ(solicitation.ip6Destination, (Ip6Address{0xff, 2, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 0xff, 0x34, 0x56, 0x78}));
    EXPECT_EQ(solicitation.protocol, ipProtocol::icmp6);
    EXPECT_EQ(frames[2].frame.destination, bridgeMac);
    EXPECT_EQ(frames[2].frame.ip6Destination, server6);
}

TEST(FramesOf, ByWayOfAGatewayTheFramesAreTheGateways)
{
    NetworkFacts known = facts();
    constexpr Ip4Address gateway{192, 0, 2, 254};
    known.toClient->gateway = gateway;
    EXPECT_THAT(framesOf(connectionOf("198.51.100.9 1 192.0.2.1 22"), known), IsEmpty()) << "its address is not known";
    known.neighbours.push_back({bridge, gateway, serverMac});
    known.stations.push_back({bridge, p2, serverMac, {}});
    const auto frames = framesOf(connectionOf("198.51.100.9 1 192.0.2.1 22"), known);
    ASSERT_THAT(frames, SizeIs(3));
    EXPECT_EQ(frames[0].frame.in, "p2");
    EXPECT_EQ(frames[0].frame.source, serverMac);
    EXPECT_EQ(frames[0].frame.ip4Source, (Ip4Address{198, 51, 100, 9}));
}

TEST(FramesOf, AnAddressOfAVlanOnTheBridge)
{
    NetworkFacts known = facts();
    known.toClient->link = tagged;
    known.neighbours = {{tagged, clientIp, clientMac}};
    known.stations = {{bridge, p2, clientMac, 20}, {bridge, p1, clientMac, 10}};
    const auto frames = framesOf(connectionOf(), known);
    ASSERT_THAT(frames, SizeIs(3));
    EXPECT_EQ(frames[0].frame.in, "p1");
    ASSERT_TRUE(frames[0].frame.vlan);
    EXPECT_EQ(frames[0].frame.vlan->id, 10);
}

TEST(FramesOf, AConnectionBetweenTwoPorts)
{
    NetworkFacts known = facts();
    known.toServer = {.isHere = false, .link = bridge};
    known.neighbours.push_back({bridge, serverIp, serverMac});
    known.stations.push_back({bridge, p2, serverMac, {}});
    const auto frames = framesOf(connectionOf(), known);
    ASSERT_THAT(frames, SizeIs(6));
    EXPECT_EQ(frames[0].frame.in, "p1");
    EXPECT_EQ(frames[0].frame.out, "p2");
    EXPECT_EQ(frames[0].frame.destination, serverMac);
    EXPECT_EQ(frames[1].purpose, Purpose::Data);
    EXPECT_EQ(frames[1].frame.in, "p2");
    EXPECT_EQ(frames[1].frame.out, "p1");
    EXPECT_EQ(frames[1].frame.sourcePort, 22);

    known.stations.back().port = p1;
    EXPECT_THAT(framesOf(connectionOf(), known), IsEmpty()) << "both behind one port";
}

TEST(FramesOf, AConnectionThatThisDeviceRoutesComesInFromBothEnds)
{
    constexpr int second = 9;
    NetworkFacts known = facts();
    known.links.push_back({.index = second, .name = "br1", .kind = "bridge", .mac = serverMac});
    known.toServer = {.isHere = false, .link = second};
    known.neighbours.push_back({second, serverIp, serverMac});
    known.stations.push_back({second, p2, serverMac, {}});
    const auto frames = framesOf(connectionOf(), known);
    ASSERT_THAT(frames, SizeIs(6));
    EXPECT_EQ(frames[0].frame.in, "p1");
    EXPECT_EQ(frames[0].frame.out, "");
    EXPECT_EQ(frames[1].frame.in, "p2");
    EXPECT_EQ(frames[1].frame.out, "");
}

TEST(FramesOf, NothingWhereNothingCanBeFoundOut)
{
    const Connection connection = connectionOf();
    EXPECT_THAT(framesOf(connection, {}), IsEmpty());
    NetworkFacts known = facts();
    known.toClient->link = other;
    EXPECT_THAT(framesOf(connection, known), IsEmpty()) << "not over a bridge";
    known = facts();
    known.neighbours.clear();
    EXPECT_THAT(framesOf(connection, known), IsEmpty()) << "no neighbour entry";
    known = facts();
    known.stations.clear();
    EXPECT_THAT(framesOf(connection, known), IsEmpty()) << "not in the bridge's table";
    known.stations = {{bridge, p1, clientMac, 10}, {bridge, p2, clientMac, 20}};
    EXPECT_THAT(framesOf(connection, known), IsEmpty()) << "behind two ports";
    known = facts();
    known.toClient->isHere = true;
    EXPECT_THAT(framesOf(connection, known), IsEmpty()) << "from this machine itself";
    known = facts();
    known.toClient.reset();
    EXPECT_THAT(framesOf(connection, known), IsEmpty()) << "no route";
}

class ClosedWay : public testing::Test
{
protected:
    const std::vector<ConnectionFrame> frames = framesOf(connectionOf(), facts());
    const Configuration open = configurationOf({policies("ACCEPT")});
};

TEST_F(ClosedWay, NamesTheRuleThatDrops)
{
    EXPECT_EQ(closed(frames, open, configurationOf({policies("ACCEPT"), ruleOf(5, "p1", "DROP")})),
              "192.0.2.7 from 02:00:00:00:00:07 on port p1: MoatKeeperRuleset Id 5 (rule 1 of UserInputRules) drops "
              "its frames");
    EXPECT_EQ(closed(frames, open, configurationOf({policies("ACCEPT"), ruleOf(5, "p2", "DROP")})), "open");
}

TEST_F(ClosedWay, NamesThePolicyThatDrops)
{
    EXPECT_EQ(
        closed(frames, open, configurationOf({policies("DROP")})),
        "192.0.2.7 from 02:00:00:00:00:07 on port p1: no rule decides, and the policy of INPUT, MoatKeeper, drops "
        "its frames");
    EXPECT_EQ(closed(frames, open, configurationOf({policies("DROP"), ruleOf(1, "p1", "ACCEPT")})), "open");
    EXPECT_EQ(closed(frames, open, configurationOf({policies("ACCEPT", "DROP")})), "open") << "it is not forwarded";
    Row policy(schema::table(TableId::InputPolicies));
    policy.set("Id", 3);
    policy.set("Interface", "p1");
    policy.set("Policy", "DROP");
    EXPECT_THAT(closed(frames, open, configurationOf({policies("ACCEPT"), policy})),
                HasSubstr("MoatKeeperInputPolicy Id 3 (rule 1 of UserInputPolicy) drops its frames"));
}

TEST_F(ClosedWay, NeedsAddressResolution)
{
    Row ip4 = ruleOf(1, "p1", "ACCEPT");
    ip4.set("Ethertype", "IPv4");
    EXPECT_EQ(closed(frames, open, configurationOf({policies("DROP"), ip4})),
              "02:00:00:00:00:07 on port p1: no rule decides, and the policy of INPUT, MoatKeeper, drops its ARP, "
              "without which it ends within minutes");
    Row arp = ruleOf(2, "p1", "ACCEPT");
    arp.set("Ethertype", "ARP");
    EXPECT_EQ(closed(frames, open, configurationOf({policies("DROP"), ip4, arp})), "open");
    arp.set("DstMAC", "02:00:00:00:00:f0");
    EXPECT_THAT(closed(frames, open, configurationOf({policies("DROP"), ip4, arp})), HasSubstr("ARP"))
        << "questions go to everybody";
}

TEST_F(ClosedWay, WasOpenBefore)
{
    const Configuration shut = configurationOf({policies("DROP")});
    EXPECT_EQ(closed(frames, shut, configurationOf({policies("DROP"), ruleOf(5, "p1", "DROP")})), "open")
        << "it is none of the change's doing";
    EXPECT_EQ(closed({}, open, shut), "open") << "no connection";
}

TEST_F(ClosedWay, IsNotClosedByWhatIsNotKnown)
{
    std::vector<ConnectionFrame> unknown = frames;
    for (ConnectionFrame& frame : unknown)
        frame.frame.destination.reset();
    Row rule = ruleOf(5, "p1", "DROP");
    rule.set("DstMAC", "02:00:00:00:00:01");
    EXPECT_EQ(closed(unknown, open, configurationOf({policies("ACCEPT"), rule})), "open");
}

TEST_F(ClosedWay, BetweenTwoPortsLeadsThroughForward)
{
    NetworkFacts known = facts();
    known.toServer = {.isHere = false, .link = bridge};
    known.neighbours.push_back({bridge, serverIp, serverMac});
    known.stations.push_back({bridge, p2, serverMac, {}});
    const auto between = framesOf(connectionOf(), known);
    EXPECT_EQ(closed(between, open, configurationOf({policies("DROP")})), "open") << "INPUT is not on the way";
    Row back = ruleOf(5, "p2", "DROP");
    back.set("OutInterface", "p1");
    EXPECT_EQ(
        closed(between, open, configurationOf({policies("ACCEPT"), back})),
        "192.0.2.1 from 02:00:00:00:00:08 on port p2: MoatKeeperRuleset Id 5 (rule 1 of UserForwardRules) drops its "
        "frames");
}

} // namespace
