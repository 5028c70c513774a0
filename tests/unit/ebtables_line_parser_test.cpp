// Which lines are accepted, what they mean, and which are refused with which words.
#include "ebtables/line_parser.hpp"

#include <gtest/gtest.h>

#include <string>

namespace
{

using ebtables::parseLine;

struct Accepted {
    const char* line;
    const char* meaning; // the commands as the tool gets them, joined by " | "
};

const Accepted accepted[] = {
    {"", ""},
    {"   ", ""},
    {";", ""},
    {"ebtables -N UserInputRules", "-N UserInputRules"},
    {"ebtables -P UserInputRules RETURN", "-P UserInputRules RETURN"},
    {"ebtables -P INPUT DROP", "-P INPUT DROP"},
    {"ebtables -P FORWARD ACCEPT", "-P FORWARD ACCEPT"},
    {"ebtables -A INPUT -j UserInputRules", "-A INPUT -j UserInputRules"},
    {"ebtables -D FORWARD -j UserForwardPolicy", "-D FORWARD -j UserForwardPolicy"},
    {"ebtables -X UserInputRules", "-X UserInputRules"},
    {"ebtables -F UserInputPolicy", "-F UserInputPolicy"},
    {"ebtables -A C -i eth0 -s 00:11:22:33:44:55 -j ACCEPT", "-A C -i eth0 -s 00:11:22:33:44:55 -j ACCEPT"},
    {"ebtables -A UserForwardRules -i eth0 -o eth1 -p IPv4 --ip-source 192.168.1.0/24 --ip-destination 10.0.0.1 "
     "--ip-protocol 6 --ip-destination-port 80 --log --log-prefix \"Moatkeeper denied: \" -j DROP",
     "-A UserForwardRules -i eth0 -o eth1 -p 0x0800 --ip-src 192.168.1.0/24 --ip-dst 10.0.0.1 --ip-proto 6 --ip-dport "
     "80 --log-level 5 --log-prefix \"Moatkeeper denied: \" -j DROP"},
    {"ebtables -A C -i eth0 -p 0x86DD --ip6-destination fe80::1 --ip6-protocol 17 --ip6-destination-port 53 -j ACCEPT",
     "-A C -i eth0 -p 0x86dd --ip6-dst fe80::1 --ip6-proto 17 --ip6-dport 53 -j ACCEPT"},
    {"ebtables -A C -i eth0 -p 802_1Q --vlan-id 100 --vlan-encap IPv4 -j DROP",
     "-A C -i eth0 -p 0x8100 --vlan-id 100 --vlan-encap 0x0800 -j DROP"},
    {"ebtables -N 10a; ebtables -P 10a RETURN", "-N 10a | -P 10a RETURN"},
    {"ebtables -I FORWARD 1 -i wlan0 -o eth0 -p 0x800  -j 10a;ebtables -I FORWARD 1 -o wlan0 -i eth0 -p 0x800  -j 10a;",
     "-I FORWARD 1 -i wlan0 -o eth0 -p 0x0800 -j 10a | -I FORWARD 1 -i eth0 -o wlan0 -p 0x0800 -j 10a"},
    {"ebtables -I C -j DROP", "-I C 1 -j DROP"},
    {"ebtables -A C -s ! 00:11:22:33:44:55 -j DROP", "-A C -s ! 00:11:22:33:44:55 -j DROP"},
    {"ebtables -A C ! -s 00:11:22:33:44:55 -j DROP", "-A C -s ! 00:11:22:33:44:55 -j DROP"},
    {"ebtables -A C -s 00:11:22:33:44:55/ff:ff:ff:00:00:00 -j DROP",
     "-A C -s 00:11:22:00:00:00/ff:ff:ff:00:00:00 -j DROP"},
    {"ebtables -A C -s 0:1:2:3:4:5 -j DROP", "-A C -s 00:01:02:03:04:05 -j DROP"},
    {"ebtables -A C -d Unicast -j DROP", "-A C -d 00:00:00:00:00:00/01:00:00:00:00:00 -j DROP"},
    {"ebtables -A C -d multicast -j DROP", "-A C -d 01:00:00:00:00:00/01:00:00:00:00:00 -j DROP"},
    {"ebtables -A C -d Broadcast -j DROP", "-A C -d ff:ff:ff:ff:ff:ff -j DROP"},
    {"ebtables -A C -d BGA -j DROP", "-A C -d 01:80:c2:00:00:00 -j DROP"},
    {"ebtables -A C -i eth+ -j DROP", "-A C -i eth+ -j DROP"},
    {"ebtables -A C -i + -j DROP", "-A C -j DROP"},
    {"ebtables -A C -i ! eth0.100 -j DROP", "-A C -i ! eth0.100 -j DROP"},
    {"ebtables -A C -i 123456789012345 -j DROP", "-A C -i 123456789012345 -j DROP"},
    {"ebtables -A C -p ARP -j DROP", "-A C -p 0x0806 -j DROP"},
    {"ebtables -A C -p 800 -j DROP", "-A C -p 0x0800 -j DROP"},
    {"ebtables -A C -p ! ipv4 -j DROP", "-A C -p ! 0x0800 -j DROP"},
    {"ebtables -A C -p LENGTH -j DROP", "-A C -p LENGTH -j DROP"},
    {"ebtables -A C -p IPv4 --ip-source 10.0.0.7/255.255.0.0 -j DROP", "-A C -p 0x0800 --ip-src 10.0.0.0/16 -j DROP"},
    {"ebtables -A C -p IPv4 --ip-source 10.0.3.7/255.0.255.0 -j DROP",
     "-A C -p 0x0800 --ip-src 10.0.3.0/255.0.255.0 -j DROP"},
    {"ebtables -A C -p IPv4 --ip-source ! 10.0.0.7/0 -j DROP", "-A C -p 0x0800 --ip-src ! 0.0.0.0/0 -j DROP"},
    {"ebtables -A C -p IPv4 --ip-proto tcp --ip-dport 22:80 -j DROP",
     "-A C -p 0x0800 --ip-proto 6 --ip-dport 22:80 -j DROP"},
    {"ebtables -A C -p IPv4 --ip-proto 0x11 --ip-sport :22 -j DROP",
     "-A C -p 0x0800 --ip-proto 17 --ip-sport 0:22 -j DROP"},
    {"ebtables -A C --ip-sport ! 5: -p IPv4 --ip-proto udp -j DROP",
     "-A C -p 0x0800 --ip-proto 17 --ip-sport ! 5:65535 -j DROP"},
    {"ebtables -A C -p IPv6 --ip6-source fe80::1/64 -j DROP", "-A C -p 0x86dd --ip6-src fe80::/64 -j DROP"},
    {"ebtables -A C -p 802_1Q --vlan-id ! 0 --vlan-prio 7 -j DROP",
     "-A C -p 0x8100 --vlan-id ! 0 --vlan-prio 7 -j DROP"},
    {"ebtables -A C --log-level info --log-prefix x --log-ip --log-arp --log-ip6 -j CONTINUE",
     "-A C --log-level 6 --log-prefix \"x\" --log-ip --log-arp --log-ip6 -j CONTINUE"},
    {"ebtables -A C --log --log-prefix \"a;b|c\" -j DROP", "-A C --log-level 5 --log-prefix \"a;b|c\" -j DROP"},
    {"ebtables -A C --log --log-prefix \"-x\" -j DROP", "-A C --log-level 5 --log-prefix \"-x\" -j DROP"},
    {"ebtables -A C --log --log-prefix \"\" -j DROP", "-A C --log-level 5 -j DROP"},
    {"ebtables -A C", "-A C -j CONTINUE"},
    {"ebtables --append C --in-interface eth0 --jump DROP", "-A C -i eth0 -j DROP"},
};

struct RefusedLine {
    const char* line;
    const char* word;     // in the message
    const char* expected; // begins the message's expectation, anywhere in it
};

const RefusedLine refused[] = {
    {"ebtables -P INPUT ", "-P needs", "a policy: ACCEPT or DROP"},
    {"ebtables -P INPUT RETURN", "\"RETURN\"", "a policy: ACCEPT or DROP"},
    {"ebtables -P INPUT accept", "\"accept\"", "a policy"},
    {"ebtables -P C CONTINUE", "\"CONTINUE\"", "a policy"},
    {"ebtables -P INPUT DROP now", "\"now\"", "nothing after"},
    {"rm -rf /", "\"rm\"", "the command ebtables"},
    {"/sbin/ebtables -F C", "\"/sbin/ebtables\"", "the command ebtables"},
    {"ebtables", "missing word", "one of -A"},
    {"ebtables -L", "\"-L\"", "one of -A"},
    {"ebtables -t nat -A C -j DROP", "\"-t\"", "one of -A"},
    {"ebtables --atomic-file x -F C", "\"--atomic-file\"", "one of -A"},
    {"ebtables -M /bin/x -F C", "\"-M\"", "one of -A"},
    {"ebtables -A C -M /bin/x -j DROP", "\"-M\"", "an option"},
    {"ebtables -F", "-F needs", "a chain name"},
    {"ebtables -X", "-X needs", "a chain name"},
    {"ebtables -X INPUT", "\"INPUT\"", "a chain of one's own"},
    {"ebtables -N DROP", "\"DROP\"", "a chain of one's own"},
    {"ebtables -N -5eth0eth1macblacklist", "\"-5eth0eth1macblacklist\"", "a chain name"},
    {"ebtables -N a/b", "\"a/b\"", "a chain name"},
    {"ebtables -N abc -P DROP", "\"-P\"", "nothing after"},
    {"ebtables -A C -i $(reboot) -j DROP", "$(reboot)", "plain words"},
    {"ebtables -A C -i `reboot` -j DROP", "`reboot`", "plain words"},
    {"ebtables -A C -i eth0; reboot -j DROP", "\"reboot\"", "the command ebtables"},
    {"ebtables -A C -i eth0 | reboot", "\"| reboot\"", "plain words"},
    {"ebtables -A C -i eth0 > /etc/passwd", "> /etc/passwd", "plain words"},
    {"ebtables -A C -i eth0 && reboot", "&& reboot", "plain words"},
    {"ebtables -A C -i 'eth0' -j DROP", "'eth0'", "plain words"},
    {"ebtables -A C -i eth* -j DROP", "eth*", "plain words"},
    {"ebtables -A C -i eth0\n-j DROP", "eth0\\x0a-j", "printable"},
    {"ebtables -A C -i eth0\t-j DROP", "eth0\\x09-j", "printable"},
    {"ebtables -A C -i \xc3\xa4 -j DROP", "\\xc3\\xa4", "printable"},
    {"ebtables -A C --log-prefix \"$HOME\" -j DROP", "$HOME", "plain words"},
    {"ebtables -A C --log-prefix \"a\\\"b\" -j DROP", "a\\", "plain words"},
    {"ebtables -A C --log --log-prefix \"open -j DROP", "open -j DROP", "a closing double quote"},
    {"ebtables -A C --log --log-prefix  -j DROP", "\"-j\" of --log-prefix", "and not an option"},
    {"ebtables -A C -i eth0 -o  -j ACCEPT", "\"-j\" of -o", "and not an option"},
    {"ebtables -A C -i eth0 -j ", "-j needs", "ACCEPT, DROP"},
    {"ebtables -A C -i 1234567890123456 -j DROP", "\"1234567890123456\"", "at most 15"},
    {"ebtables -A C -i et+h -j DROP", "\"et+h\"", "a port name"},
    {"ebtables -A C -i a/b -j DROP", "\"a/b\"", "a port name"},
    {"ebtables -A C -i \"\" -j DROP", "-i", "a port name"},
    {"ebtables -A C -i \"(-\" -j DROP", "(-", "a port name"},
    {"ebtables -A C -i \"-o\" -j DROP", "\"-o\"", "a port name"},
    {"ebtables -A C -i ! + -j DROP", "\"+\"", "every port"},
    {"ebtables -A INPUT -o eth0 -j DROP", "\"-o\"", "INPUT"},
    {"ebtables -A OUTPUT -i eth0 -j DROP", "\"-i\"", "OUTPUT"},
    {"ebtables -A C -i eth0 -i eth1 -j DROP", "\"-i\"", "once"},
    {"ebtables -A C ! -i ! eth0 -j DROP", "\"!\"", "one ! only"},
    {"ebtables -A C -j ! DROP", "\"!\"", "no !"},
    {"ebtables -A C -i eth0 !", "\"!\"", "an option after"},
    {"ebtables -A C -s 00-11-22-33-44-55 -j DROP", "\"00-11-22-33-44-55\"", "a MAC address"},
    {"ebtables -A C -s 00:11:22:33:44 -j DROP", "\"00:11:22:33:44\"", "a MAC address"},
    {"ebtables -A C -s 00:11:22:33:44:5g -j DROP", "\"00:11:22:33:44:5g\"", "a MAC address"},
    {"ebtables -A C -s 00:11:22:33:44:55:66 -j DROP", "66", "a MAC address"},
    {"ebtables -A C -s Unicast/ff:ff:ff:ff:ff:ff -j DROP", "Unicast/", "a MAC address"},
    {"ebtables -A C -s 00:11:22:33:44:55/00:00:00:00:00:00 -j DROP", "/00", "a MAC address"},
    {"ebtables -A C -p 0x5ff -j DROP", "\"0x5ff\"", "an ethertype"},
    {"ebtables -A C -p 0x10000 -j DROP", "\"0x10000\"", "an ethertype"},
    {"ebtables -A C -p nonsense -j DROP", "\"nonsense\"", "an ethertype"},
    {"ebtables -A C -p IPv4 --ip-source 300.1.1.1 -j DROP", "\"300.1.1.1\" of --ip-source", "an IPv4 address"},
    {"ebtables -A C -p IPv4 --ip-source 10.0.0.1/33 -j DROP", "/33", "an IPv4 address"},
    {"ebtables -A C -p IPv4 --ip-source 010.0.0.1 -j DROP", "010", "an IPv4 address"},
    {"ebtables -A C -p IPv4 --ip-source host.example -j DROP", "host.example", "an IPv4 address"},
    {"ebtables -A C -p IPv6 --ip6-source fe80 -j DROP", "\"fe80\"", "an IPv6 address"},
    {"ebtables -A C -p IPv6 --ip6-source fe80::1/129 -j DROP", "/129", "an IPv6 address"},
    {"ebtables -A C --ip-source 10.0.0.1 -j DROP", "--ip-", "-p IPv4"},
    {"ebtables -A C -p IPv6 --ip-source 10.0.0.1 -j DROP", "--ip-", "-p IPv4"},
    {"ebtables -A C -p ! IPv4 --ip-source 10.0.0.1 -j DROP", "--ip-", "-p IPv4"},
    {"ebtables -A C -p IPv4 --ip-destination-port 22 -j DROP", "port", "--ip-protocol tcp"},
    {"ebtables -A C -p IPv4 --ip-protocol 1 --ip-destination-port 22 -j DROP", "port", "--ip-protocol tcp"},
    {"ebtables -A C -p IPv4 --ip-protocol 6 --ip-destination-port 65536 -j DROP", "\"65536\"", "a port number"},
    {"ebtables -A C -p IPv4 --ip-protocol 6 --ip-destination-port -5 -j DROP", "\"-5\"", "a port number"},
    {"ebtables -A C -p IPv4 --ip-protocol 6 --ip-destination-port 80:22 -j DROP", "\"80:22\"", "a port number"},
    {"ebtables -A C -p IPv4 --ip-protocol 256 -j DROP", "\"256\"", "an IP protocol"},
    {"ebtables -A C -p 802_1Q --vlan-id 4095 -j DROP", "\"4095\"", "0 to 4094"},
    {"ebtables -A C -p 802_1Q --vlan-id abc -j DROP", "\"abc\"", "0 to 4094"},
    {"ebtables -A C -p 802_1Q --vlan-id 100x -j DROP", "\"100x\"", "0 to 4094"},
    {"ebtables -A C -p 802_1Q --vlan-encap LENGTH -j DROP", "\"LENGTH\"", "an ethertype"},
    {"ebtables -A C --vlan-id 5 -j DROP", "--vlan-", "-p 802_1Q"},
    {"ebtables -A C --log-level 8 -j DROP", "\"8\"", "emerg"},
    {"ebtables -A C --log --log-prefix 123456789012345678901234567890 -j DROP", "1234567890", "at most 29"},
    {"ebtables -A C -j 12345678901234567890123456789", "12345678901234567890123456789", "at most 28"},
    {"ebtables -A C -j mark", "\"mark\"", "ACCEPT, DROP"},
    {"ebtables -A C stray -j DROP", "\"stray\"", "an option"},
    {"ebtables -I C 0 -j DROP", "\"0\"", "a rule number"},
    {"ebtables -D C 1", "\"1\"", "an option"},
};

std::string meaning(const ebtables::ParsedLine& parsed)
{
    std::string text;
    for (const ebtables::Command& command : parsed.commands)
        text += (text.empty() ? "" : " | ") + toText(command);
    return text;
}

TEST(LineParser, AcceptsAndUnderstands)
{
    for (const Accepted& expected : accepted) {
        const ebtables::ParsedLine parsed = parseLine(expected.line);
        EXPECT_FALSE(parsed.error) << expected.line << ": " << parsed.error->text();
        EXPECT_EQ(meaning(parsed), expected.meaning) << expected.line;
    }
}

TEST(LineParser, RefusesWithAReason)
{
    for (const RefusedLine& expected : refused) {
        const ebtables::ParsedLine parsed = parseLine(expected.line);
        ASSERT_TRUE(parsed.error) << expected.line << " gave " << meaning(parsed);
        EXPECT_TRUE(parsed.commands.empty()) << expected.line;
        EXPECT_NE(parsed.error->text().find(expected.word), std::string::npos) << parsed.error->text();
        EXPECT_NE(parsed.error->text().find(expected.expected), std::string::npos) << parsed.error->text();
    }
}

TEST(LineParser, RefusesWhatIsTooLong)
{
    EXPECT_TRUE(parseLine("ebtables -N " + std::string(ebtables::maxChainName + 1, 'a')).error);
    EXPECT_FALSE(parseLine("ebtables -N " + std::string(ebtables::maxChainName, 'a')).error);
    EXPECT_TRUE(parseLine("ebtables -F C" + std::string(ebtables::maxLine, ' ')).error);
}

TEST(LineParser, WhatItWritesItReadsBack)
{
    for (const Accepted& line : accepted) {
        for (const ebtables::Command& command : parseLine(line.line).commands) {
            const ebtables::ParsedLine again = parseLine("ebtables " + toText(command));
            ASSERT_EQ(again.commands.size(), 1U) << toText(command);
            EXPECT_EQ(again.commands.front(), command) << toText(command);
        }
    }
}

} // namespace
