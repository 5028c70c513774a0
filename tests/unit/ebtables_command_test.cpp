#include "ebtables/command.hpp"
#include "ebtables/line_parser.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using ebtables::Rule;

namespace
{

// Each differs from all the others in what it means.
const char* const different[] = {
    "-i eth0 -j DROP",
    "-i eth0 -j ACCEPT",
    "-i eth0 -j RETURN",
    "-i eth0",
    "-i eth1 -j DROP",
    "-i eth+ -j DROP",
    "-i ! eth0 -j DROP",
    "-o eth0 -j DROP",
    "-o eth1 -j DROP",
    "-i eth0 -o eth0 -j DROP",
    "-s 02:00:00:00:00:01 -j DROP",
    "-s 02:00:00:00:00:02 -j DROP",
    "-s ! 02:00:00:00:00:01 -j DROP",
    "-s 02:00:00:00:00:00/ff:ff:ff:ff:ff:00 -j DROP",
    "-d 02:00:00:00:00:01 -j DROP",
    "-p 0x0800 -j DROP",
    "-p 0x0806 -j DROP",
    "-p ! 0x0800 -j DROP",
    "-p length -j DROP",
    "-p 0x0800 --ip-source 10.0.0.1 -j DROP",
    "-p 0x0800 --ip-source 10.0.0.2 -j DROP",
    "-p 0x0800 --ip-source 10.0.0.0/24 -j DROP",
    "-p 0x0800 --ip-source ! 10.0.0.1 -j DROP",
    "-p 0x0800 --ip-destination 10.0.0.1 -j DROP",
    "-p 0x0800 --ip-protocol 6 -j DROP",
    "-p 0x0800 --ip-protocol 17 -j DROP",
    "-p 0x0800 --ip-protocol ! 6 -j DROP",
    "-p 0x0800 --ip-protocol 6 --ip-source-port 80 -j DROP",
    "-p 0x0800 --ip-protocol 6 --ip-destination-port 80 -j DROP",
    "-p 0x0800 --ip-protocol 6 --ip-destination-port 80:90 -j DROP",
    "-p 0x0800 --ip-protocol 6 --ip-destination-port 85:90 -j DROP",
    "-p 0x86DD --ip6-source 2001:db8::1 -j DROP",
    "-p 0x86DD --ip6-source 2001:db8::/32 -j DROP",
    "-p 0x86DD --ip6-destination 2001:db8::1 -j DROP",
    "-p 0x86DD --ip6-protocol 6 -j DROP",
    "-p 0x86DD --ip6-protocol 6 --ip6-source-port 80 -j DROP",
    "-p 0x86DD --ip6-protocol 6 --ip6-destination-port 80 -j DROP",
    "-p 0x8100 --vlan-id 5 -j DROP",
    "-p 0x8100 --vlan-id 6 -j DROP",
    "-p 0x8100 --vlan-id ! 5 -j DROP",
    "-p 0x8100 --vlan-prio 5 -j DROP",
    "-p 0x8100 --vlan-encap 0x0800 -j DROP",
    "-i eth0 --log -j DROP",
    "-i eth0 --log-level 3 -j DROP",
    "-i eth0 --log --log-prefix \"denied: \" -j DROP",
    "-i eth0 --log --log-ip -j DROP",
    "-i eth0 --log --log-arp -j DROP",
    "-i eth0 --log --log-ip6 -j DROP",
    "-i eth0 -j User",
};

TEST(CommandTest, RulesAreEqualWhenTheyMeanTheSame)
{
    std::vector<Rule> rules;
    for (const char* options : different) {
        ebtables::LineError error;
        const std::optional<Rule> rule = ebtables::parseRule(options, "FORWARD", &error);
        ASSERT_TRUE(rule) << options << ": " << error.text();
        rules.push_back(*rule);
    }
    for (std::size_t i = 0; i < rules.size(); ++i) {
        for (std::size_t j = 0; j < rules.size(); ++j)
            EXPECT_EQ(rules[i] == rules[j], i == j) << different[i] << " and " << different[j];
    }
}

TEST(CommandTest, SpellingDoesNotMatter)
{
    const std::pair<const char*, const char*> same[] = {
        {"-p IPv4 -j DROP", "-p 0x800 -j DROP"},
        {"-p IPv4 --ip-src 10.0.0.7/24 -j DROP", "-p 0x0800 --ip-source 10.0.0.0/255.255.255.0 -j DROP"},
        {"-p IPv4 --ip-proto tcp --ip-dport 80 -j DROP", "-p ip4 --ip-proto 6 --ip-dport 80:80 -j DROP"},
        {"-s 2:0:0:0:0:1 -j DROP", "--source 02:00:00:00:00:01/ff:ff:ff:ff:ff:ff -j DROP"},
        {"-i eth0 -o eth1 -j DROP", "-j DROP -o eth1 -i eth0"},
        {"-i ! eth0 -j DROP", "! -i eth0 -j DROP"},
        {"-i + -j DROP", "-j DROP"},
    };
    for (const auto& [one, other] : same) {
        const std::optional<Rule> rule = ebtables::parseRule(one, "FORWARD");
        ASSERT_TRUE(rule) << one;
        EXPECT_EQ(rule, ebtables::parseRule(other, "FORWARD")) << one << " and " << other;
    }
}

TEST(CommandTest, TextGivesBackTheRule)
{
    for (const char* options : different) {
        const std::optional<Rule> rule = ebtables::parseRule(options, "FORWARD");
        EXPECT_EQ(ebtables::parseRule(ebtables::toText(*rule), "FORWARD"), rule) << options;
    }
}

TEST(CommandTest, TextGivesBackTheCommand)
{
    for (const char* line : {"-A FORWARD -i eth0 -j DROP", "-I FORWARD 3 -i eth0 -j DROP", "-D FORWARD -i eth0 -j DROP",
                             "-N User", "-X User", "-F FORWARD", "-P FORWARD DROP"}) {
        const ebtables::ParsedLine parsed = ebtables::parseLine(std::string("ebtables ") + line);
        ASSERT_EQ(parsed.commands.size(), 1U) << line;
        EXPECT_EQ(ebtables::toText(parsed.commands[0]), line);
    }
}

TEST(CommandTest, NamesWithAMeaningOfTheirOwn)
{
    for (const char* chain : {"INPUT", "FORWARD", "OUTPUT"})
        EXPECT_TRUE(ebtables::isBuiltIn(chain));
    for (const char* target : {"ACCEPT", "DROP", "RETURN", "CONTINUE"})
        EXPECT_TRUE(ebtables::isStandardTarget(target));
    for (const char* other : {"", "input", "BROUTING", "User", "ACCEPTED"}) {
        EXPECT_FALSE(ebtables::isBuiltIn(other)) << other;
        EXPECT_FALSE(ebtables::isStandardTarget(other)) << other;
    }
}

} // namespace
