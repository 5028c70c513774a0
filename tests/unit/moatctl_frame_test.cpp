#include "moatctl/bridge/frame.hpp"

#include "ebtables/line_parser.hpp"

#include <gtest/gtest.h>

namespace
{

using namespace moatctl;

Frame frameOfType(std::uint16_t type)
{
    Frame frame;
    frame.in = "eth0";
    frame.out = "eth1";
    frame.source = MacAddress{2, 0, 0, 0, 0, 1};
    frame.destination = MacAddress{2, 0, 0, 0, 0, 2};
    frame.type = type;
    return frame;
}

Frame tcpFrame()
{
    Frame frame = frameOfType(ethertype::ip4);
    frame.ip4Source = Ip4Address{10, 0, 0, 1};
    frame.ip4Destination = Ip4Address{10, 0, 0, 2};
    frame.protocol = ipProtocol::tcp;
    frame.destinationPort = std::uint16_t{80};
    return frame;
}

Answer answer(const std::string& options, const Frame& frame)
{
    const std::optional<ebtables::Rule> rule = ebtables::parseRule(options, "FORWARD");
    EXPECT_TRUE(rule) << options;
    return rule ? match(*rule, frame).answer : Answer::Unknown;
}

TEST(Frame, AMacAddressMayBeUnknown)
{
    Frame frame = tcpFrame();
    frame.source.reset();
    EXPECT_EQ(answer("-s 02:00:00:00:00:01 -j DROP", frame), Answer::Unknown);
    EXPECT_EQ(answer("-d 02:00:00:00:00:02 -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-s 02:00:00:00:00:01 -i eth7 -j DROP", frame), Answer::No) << "whatever the address is";
    EXPECT_EQ(answer("-p IPv4 -j DROP", frame), Answer::Yes);
    frame.destination.reset();
    EXPECT_EQ(answer("-d ! 02:00:00:00:00:02 -j DROP", frame), Answer::Unknown);
}

TEST(Frame, PortsMatchByNameAndBeginning)
{
    const Frame frame = tcpFrame();
    EXPECT_EQ(answer("-i eth0 -o eth1 -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-i eth -j DROP", frame), Answer::No);
    EXPECT_EQ(answer("-i eth+ -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-i ! eth+ -j DROP", frame), Answer::No);
    Frame input = frame;
    input.out.clear();
    EXPECT_EQ(answer("-o ! eth7 -j DROP", input), Answer::No); // no port at all
}

TEST(Frame, ATagHidesWhatIsBehindIt)
{
    Frame frame = tcpFrame();
    EXPECT_EQ(answer("-p IPv4 --ip-source 10.0.0.1 -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-p 802_1Q -j DROP", frame), Answer::No);
    frame.vlan = VlanTag{5, 0};
    EXPECT_EQ(answer("-p IPv4 --ip-source 10.0.0.1 -j DROP", frame), Answer::No);
    EXPECT_EQ(answer("-p IPv4 -j DROP", frame), Answer::No);
    EXPECT_EQ(answer("-p 802_1Q -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-p 802_1Q --vlan-id 5 --vlan-encap IPv4 -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-p 802_1Q --vlan-id 6 -j DROP", frame), Answer::No);
    EXPECT_EQ(answer("-p 802_1Q --vlan-encap ARP -j DROP", frame), Answer::No);
}

TEST(Frame, OnlyTheFirstFragmentHasPorts)
{
    Frame frame = tcpFrame();
    EXPECT_EQ(answer("-p IPv4 --ip-protocol tcp --ip-destination-port 80 -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-p IPv4 --ip-protocol tcp --ip-destination-port 81 -j DROP", frame), Answer::No);
    frame.laterFragment = true;
    EXPECT_EQ(answer("-p IPv4 --ip-protocol tcp --ip-destination-port 80 -j DROP", frame), Answer::No);
    EXPECT_EQ(answer("-p IPv4 --ip-protocol tcp -j DROP", frame), Answer::Yes);
}

TEST(Frame, LengthFieldsAreNoEthertypes)
{
    const Frame frame = frameOfType(0x40);
    EXPECT_EQ(answer("-p LENGTH -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-p ! IPv4 -j DROP", frame), Answer::Yes);
    EXPECT_EQ(answer("-p LENGTH -j DROP", tcpFrame()), Answer::No);
}

TEST(Frame, WhatIsNotKnownCountsOnlyWhereItDecides)
{
    Frame frame = tcpFrame();
    frame.ip4Source.reset();
    EXPECT_EQ(answer("-p IPv4 --ip-source 10.0.0.1 -j DROP", frame), Answer::Unknown);
    EXPECT_EQ(answer("-i eth7 -p IPv4 --ip-source 10.0.0.1 -j DROP", frame), Answer::No);
    EXPECT_EQ(answer("-p IPv4 -j DROP", frame), Answer::Yes);
    frame.type.reset();
    EXPECT_EQ(answer("-p IPv4 -j DROP", frame), Answer::Unknown);
    EXPECT_EQ(answer("-p 802_1Q -j DROP", frame), Answer::No); // untagged, whatever it is
}

} // namespace
