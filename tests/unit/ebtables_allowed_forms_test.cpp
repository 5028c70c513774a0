// Which lines are of a form that the handler makes.
#include "ebtables/allowed_forms.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <string>

namespace
{

using ebtables::isFilterChain;
using ebtables::whyNotAllowed;
using testing::HasSubstr;

const char* const jumps = "ebtables -I FORWARD 1 -i wlan0 -o eth0 -p 0x800  -j 10wlan0eth0ipv4blacklist;"
                          "ebtables -I FORWARD 1 -o wlan0 -i eth0 -p 0x800  -j 10wlan0eth0ipv4blacklist;";

std::string replaced(std::string text, const std::string& what, const std::string& by)
{
    const auto at = text.find(what);
    EXPECT_NE(at, std::string::npos) << what;
    return text.replace(at, what.size(), by);
}

TEST(AllowedFormsTest, TheLinesOfTheHandler)
{
    for (const std::string& line : {
             std::string(""),
             std::string("ebtables -N UserInputRules"),
             std::string("ebtables -P UserForwardPolicy RETURN"),
             std::string("ebtables -A INPUT -j UserInputPolicy"),
             std::string("ebtables -A FORWARD -j UserForwardRules"),
             std::string("ebtables -D INPUT -j UserInputRules"),
             std::string("ebtables -D FORWARD -j UserForwardPolicy"),
             std::string("ebtables -X UserInputPolicy"),
             std::string("ebtables -P FORWARD ACCEPT"),
             std::string("ebtables -P INPUT DROP"),
             std::string("ebtables -F UserForwardRules"),
             std::string("ebtables -A UserInputRules -i eth0 -s 00:11:22:33:44:55 -j ACCEPT"),
             std::string("ebtables -A UserForwardRules -i eth0 -o eth1 -p IPv4 --ip-source 192.168.1.0/24 "
                         "--ip-destination 10.0.0.1 --ip-protocol 6 --ip-destination-port 80 --log --log-prefix "
                         "\"Moatkeeper denied: \" -j DROP"),
             std::string("ebtables -A UserInputRules -i ! eth0 -d ! Broadcast -s ff:0:0:0:0:0/ff:0:0:0:0:0 -p 0x86DD "
                         "--ip6-destination ! fe80::1 --ip6-protocol 17 --ip6-destination-port 53 --log --log-prefix "
                         "\"Moatkeeper accepted: \" -j ACCEPT"),
             std::string("ebtables -A UserInputRules -i eth0 -p 802_1Q --vlan-id 100 --vlan-encap IPv4 -j DROP"),
             std::string("ebtables -A UserInputRules -i eth0 -p ! ARP -j DROP"),
             std::string("ebtables -A UserInputPolicy -i wlan0 --log --log-prefix \"Moatkeeper accepted: \" -j ACCEPT"),
             std::string("ebtables -A UserForwardPolicy -i eth1 -o eth0 -j ACCEPT"),
             std::string("ebtables -N 10wlan0eth0ipv4blacklist; ebtables -P 10wlan0eth0ipv4blacklist RETURN"),
             std::string("ebtables -N FilterID12; ebtables -P FilterID12 DROP"),
             std::string(jumps),
             std::string("ebtables -D FORWARD -i eth0.100 -o wlan0-guest -j FilterID12;"
                         "ebtables -D FORWARD -o eth0.100 -i wlan0-guest -j FilterID12;"),
             std::string("ebtables -I FORWARD 1 -i eth+ -o + -p 0x86dd  -j 7eth++IPv6whitelist;"
                         "ebtables -I FORWARD 1 -o eth+ -i + -p 0x86dd  -j 7eth++IPv6whitelist;"),
             std::string("ebtables -I FORWARD 1 -i 1a -o 2b -j 101a2bmacblacklist;"
                         "ebtables -I FORWARD 1 -o 1a -i 2b -j 101a2bmacblacklist;"),
             std::string("ebtables -I FORWARD 1 -i a -o b -j 3abanythingblacklist;"
                         "ebtables -I FORWARD 1 -o a -i b -j 3abanythingblacklist;"),
             std::string("ebtables -F FilterID12; ebtables -X FilterID12"),
             std::string("ebtables -A FilterID12 -s 00:11:22:33:44:55 -j RETURN"),
             std::string("ebtables -A 1abIPv4blacklist -p 0x800 --ip-source 192.168.1.0/24 -j DROP"),
             std::string("ebtables -A 1abIPv6blacklist -p 0x86DD --ip6-source fe80::/64 -j DROP"),
             std::string("ebtables -A 20eth1eth2VLANblacklist -p 802_1Q --vlan-id 100 -j DROP"),
         }) {
        const auto error = whyNotAllowed(line);
        EXPECT_FALSE(error.has_value()) << line << "\n" << (error ? error->text() : "");
    }
}

TEST(AllowedFormsTest, EveryLineOfTheGoldenCasesThatIsALine)
{
    int lines = 0;
    for (const char* file : {"rule_lines", "interface_policies", "filter_lines", "filter_rules", "first_commit"}) {
        std::ifstream in(std::string(MOATKEEPER_GOLDEN) + '/' + file + ".golden");
        for (std::string line; std::getline(in, line);) {
            const auto begin = line.find("ebtables -");
            if (begin == std::string::npos || line.ends_with('"'))
                continue;
            line.erase(0, begin);
            if (ebtables::parseLine(line).error)
                continue;
            ++lines;
            const auto error = whyNotAllowed(line);
            EXPECT_FALSE(error.has_value()) << line << "\n" << (error ? error->text() : "");
        }
    }
    EXPECT_GT(lines, 100);
}

TEST(AllowedFormsTest, TheDocumentShowsTheTable)
{
    std::ifstream in(MOATKEEPER_PORTING);
    const std::string document{std::istreambuf_iterator<char>(in), {}};
    std::string table = "\n```\n";
    for (const ebtables::Form& form : ebtables::allowedForms()) {
        std::string line(form.name);
        line.resize(form.form.empty() ? line.size() : 11, ' ');
        table += line.append(form.form) + '\n';
    }
    EXPECT_THAT(document, HasSubstr(table + "```\n"));
}

TEST(AllowedFormsTest, WhatEbtablesCanDoAndTheHandlerDoesNot)
{
    for (const char* line : {
             "ebtables -A OUTPUT -j ACCEPT",
             "ebtables -P OUTPUT DROP",
             "ebtables -F FORWARD",
             "ebtables -F INPUT",
             "ebtables -X theirs",
             "ebtables -N theirs",
             "ebtables -A theirs -i eth0 -j DROP",
             "ebtables -A INPUT -j theirs",
             "ebtables -A INPUT -j UserForwardRules",
             "ebtables -A FORWARD -j UserInputRules",
             "ebtables -A INPUT -i eth0 -j UserInputRules",
             "ebtables -A INPUT -j ACCEPT",
             "ebtables -I INPUT -j UserInputRules",
             "ebtables -I UserInputRules 1 -i eth0 -j DROP",
             "ebtables -D UserInputRules -i eth0 -j DROP",
             "ebtables -P UserInputRules DROP",
             "ebtables -A UserInputRules -j ACCEPT",
             "ebtables -A UserInputRules -i eth0 -j RETURN",
             "ebtables -A UserInputRules -i eth0 -j CONTINUE",
             "ebtables -A UserInputRules -i eth0",
             "ebtables -A UserInputRules -i eth0 -j UserInputRules",
             "ebtables -A UserInputRules -i eth0 -o eth1 -j DROP",
             "ebtables -A UserForwardRules -i eth0 -j DROP",
             "ebtables -A UserForwardRules -o eth1 -i eth0 -j DROP",
             "ebtables -A UserForwardRules -i eth0 -o eth1 -j UserForwardPolicy",
             "ebtables -A UserInputRules -i eth0 -s 0:0:0:0:0:1 -d 0:0:0:0:0:2 -j DROP",
             "ebtables -A UserInputRules -s 0:0:0:0:0:1 -i eth0 -j DROP",
             "ebtables -A UserInputRules -i eth0 -p IPv4 --ip-destination 10.0.0.1 --ip-source 10.0.0.2 -j DROP",
             "ebtables -A UserInputRules -i eth0 -p IPv4 --ip-source-port 7 --ip-protocol 6 -j DROP",
             "ebtables -A UserInputRules -i eth0 -p IPv4 --ip-protocol 1 -j DROP",
             "ebtables -A UserInputRules -i eth0 -p 802_1Q --vlan-id 1 --vlan-prio 2 -j DROP",
             "ebtables -A UserInputRules -i eth0 --log --log-prefix \"Moatkeeper accepted: \" -j DROP",
             "ebtables -A UserInputRules -i eth0 --log --log-prefix \"Moatkeeper denied: x\" -j DROP",
             "ebtables -A UserInputRules -i eth0 --log -j DROP",
             "ebtables -A UserInputRules -i eth0 --log-ip -j DROP",
             "ebtables -A UserInputRules --in-interface eth0 -j DROP",
             "ebtables -A UserInputRules -i \"eth0\" -j DROP",
             "ebtables -A UserInputPolicy -i eth0 -s 0:0:0:0:0:1 -j DROP",
             "ebtables -A UserInputRules -i eth0 -j DROP;",
             "ebtables -A UserInputRules -i eth0 -j DROP; ebtables -A UserInputRules -i eth1 -j DROP",
             "ebtables -F UserInputRules; ebtables -F UserForwardRules",
             "ebtables -N UserInputRules; ebtables -P UserInputRules RETURN",
             ";",
             ";ebtables -F UserInputRules",
             "ebtables -N 1abmacblacklist",
             "ebtables -P 1abmacblacklist DROP",
             "ebtables -F 1abmacblacklist",
             "ebtables -X 1abmacblacklist; ebtables -F 1abmacblacklist",
             "ebtables -N 1abmacblacklist; ebtables -P 1abmacblacklist ACCEPT",
             "ebtables -N 1abmacblacklist; ebtables -P 2abmacblacklist DROP",
             "ebtables -F 1abmacblacklist; ebtables -X theirs",
             "ebtables -A 1abmacblacklist -s 0:0:0:0:0:1 -j ACCEPT",
             "ebtables -A 1abmacblacklist -j DROP",
             "ebtables -A 1abmacblacklist -i a -s 0:0:0:0:0:1 -j DROP",
             "ebtables -I FORWARD 1 -i a -o b -j 1abmacblacklist",
             "ebtables -I FORWARD 2 -i a -o b -j FilterID1;ebtables -I FORWARD 2 -o a -i b -j FilterID1;",
             "ebtables -A FORWARD -i a -o b -j FilterID1;ebtables -A FORWARD -o a -i b -j FilterID1;",
             "ebtables -I FORWARD 1 -i a -o b -p ARP -j FilterID1;ebtables -I FORWARD 1 -o a -i b -p ARP -j FilterID1;",
         }) {
        EXPECT_TRUE(whyNotAllowed(line).has_value()) << line;
    }
}

TEST(AllowedFormsTest, TheTwoJumpsOfAFilterAreOneInBothDirections)
{
    EXPECT_FALSE(whyNotAllowed(jumps).has_value());
    for (const auto& [what, by] : std::initializer_list<std::pair<std::string, std::string>>{
             {"-o wlan0 -i eth0", "-o eth0 -i wlan0"}, // the same direction again
             {"-o wlan0 -i eth0", "-o wlan0 -i eth1"},
             {"-o wlan0 -i eth0 -p 0x800 ", "-o wlan0 -i eth0 "},
             {"-o wlan0 -i eth0 -p 0x800 ", "-o wlan0 -i eth0 -p 0x86dd "},
             {"blacklist;ebtables", "whitelist;ebtables"},
             {"-I FORWARD 1 -o", "-D FORWARD -o"},
             {"-I FORWARD 1 -o", "-I FORWARD 2 -o"},
         })
        EXPECT_TRUE(whyNotAllowed(replaced(jumps, what, by)).has_value()) << by;
    const std::string both = replaced(replaced(jumps, "wlan0 -o eth0", "lan0 -o eth0"), "wlan0 -i", "lan0 -i");
    const auto error = whyNotAllowed(both);
    ASSERT_TRUE(error.has_value()) << "the chain is named after other ports";
    EXPECT_THAT(error->text(), HasSubstr("named after them"));
}

TEST(AllowedFormsTest, TheReasonNamesTheWordAndWhatWasExpected)
{
    EXPECT_EQ(whyNotAllowed("ebtables -P OUTPUT DROP")->text(),
              "word \"OUTPUT\" of -P: expected UserInputRules or UserInputPolicy or UserForwardRules or "
              "UserForwardPolicy or INPUT or FORWARD, as in the lines that moatkeeper makes");
    EXPECT_EQ(whyNotAllowed("ebtables -A UserInputPolicy -i eth0 -j RETURN")->text(),
              "word \"RETURN\" of -j: expected ACCEPT or DROP, as in the lines that moatkeeper makes");
    EXPECT_EQ(whyNotAllowed("ebtables -F UserInputRules; ebtables -F OUTPUT")->text(),
              "word \";\": expected nothing after it, as in the lines that moatkeeper makes");
    EXPECT_EQ(whyNotAllowed("reboot")->text(), "word \"reboot\": expected the command ebtables with its options");
    EXPECT_THAT(whyNotAllowed("ebtables -A UserInputRules -i a" + std::string(100, ' ') + "b c d")->text(),
                HasSubstr("word \"b\""));
    std::string many = "ebtables -A UserInputRules -i a";
    for (int i = 0; i < 100; ++i)
        many += " x";
    EXPECT_THAT(whyNotAllowed(many)->text(), HasSubstr("at most 60 words"));
}

TEST(AllowedFormsTest, NamesOfFilterChains)
{
    for (const char* name :
         {"10wlan0eth0ipv4blacklist", "1abmacwhitelist", "FilterID7", "FilterID2147483647", "FilterID-5"})
        EXPECT_TRUE(isFilterChain(name)) << name;
    for (const char* name :
         {"", "FilterID", "FilterID-", "FilterID7x", "FilterIDx", "theirs", "INPUT", "UserInputRules", "blacklist",
          "1blacklist", "xblacklist", "10wlan0eth0ipv4", "10wlan0eth0ipv4Blacklist", "1234567890123456789012blacklist"})
        EXPECT_FALSE(isFilterChain(name)) << name;
}

} // namespace
