// What is one operand of a command line, for each kind of column.
#include "schema/values.hpp"

#include "schema/tables.hpp"

#include <gtest/gtest.h>

#include <string>

namespace
{

using schema::expectedOperand;
using schema::ValueKind;
using enum schema::ValueKind;

bool isFine(ValueKind kind, const std::string& text)
{
    return !expectedOperand(kind, text).has_value();
}

TEST(SchemaValuesTest, OneOperandIsFineWhateverItMeans)
{
    const std::pair<ValueKind, const char*> fine[] = {
        {Interface, ""},
        {Interface, "eth0"},
        {Interface, "eth+"},
        {Interface, "+"},
        {Interface, "! eth0.100"},
        {Interface, "! 123456789012345"},
        {Interface, "br-lan"},
        {Interface, "-1"},
        {Mac, "00:11:22:33:44:55/ff:ff:ff:00:00:00"},
        {Mac, "Broadcast"},
        {Mac, "! 00:11:22:33:44:55"},
        {Ethertype, "IPv4"},
        {Ethertype, "0x0800"},
        {Ethertype, "802_1Q"},
        {Ethertype, "! ARP"},
        {Network, "10.0.0.1"},
        {Network, "10.0.0.0/24"},
        {Network, "! 10.0.0.0/255.0.0.0"},
        {Network, "fe80::1"},
        {Network, "2001:db8::/32"},
        {Protocol, "ICMP"},
        {Target, "REJECT"},
        {Target, "accept"},
        {Criteria, "colour"},
        {Mode, "Whitelist"},
        {FilterMatch, "100x"},
        {FilterMatch, "4096"},
        {FilterMatch, "-1"},
        {FilterMatch, "! -5"},
        {FilterMatch, "!x"},
        {FilterMatch, "abc"},
        {Target, "$(reboot)"},
    };
    for (const auto& [kind, text] : fine)
        EXPECT_EQ(expectedOperand(kind, text), std::nullopt) << text;
    // The longest that each kind needs.
    EXPECT_TRUE(isFine(Mac, "! 00:11:22:33:44:55/ff:ff:ff:ff:ff:ff"));
    const std::string ipv6 = "0000:0000:0000:0000:0000:ffff:255.255.255.255";
    EXPECT_TRUE(isFine(Network, "! " + ipv6 + '/' + ipv6));
}

TEST(SchemaValuesTest, WhatIsMoreThanOneOperandIsNot)
{
    for (const char* text :
         {" eth0", "eth0 ", "eth0 eth1", "!  eth0", "! ", "!",    "!\teth0", "a\tb",     "a\nb", "\"eth0\"",
          "a'b",   "a`b",   "a;b",       ";",       " ",  "\x7f", "\x01",    "\xc3\xa4", "\xff", "eth0\xa0"}) {
        const auto expected = expectedOperand(Interface, text);
        ASSERT_TRUE(expected.has_value()) << text;
        EXPECT_EQ(*expected, "an interface name of at most 15 characters, as a single word") << text;
    }
    EXPECT_FALSE(isFine(Interface, std::string("a\0b", 3)));
}

TEST(SchemaValuesTest, AnOptionIsNone)
{
    for (const char* text : {"-", "--", "-F", "--flush", "-j", "-1x", "--1", "! -F", "! --log"}) {
        const auto expected = expectedOperand(Ethertype, text);
        ASSERT_TRUE(expected.has_value()) << text;
        EXPECT_TRUE(expected->ends_with(", not an option")) << *expected;
    }
}

TEST(SchemaValuesTest, ALengthFitsItsKind)
{
    for (const schema::Table& table : schema::allTables()) {
        for (const schema::Column& column : table.columns) {
            const std::size_t longest = schema::longestText(column.kind);
            ASSERT_EQ(column.isText(), longest > 0) << column.name;
            if (!column.isText())
                continue;
            EXPECT_TRUE(isFine(column.kind, std::string(longest, 'a'))) << column.name;
            EXPECT_EQ(expectedOperand(column.kind, std::string(longest + 1, 'a')),
                      "a text of at most " + std::to_string(longest) + " characters");
            EXPECT_FALSE(isFine(column.kind, std::string(1 << 20, 'a'))) << column.name;
        }
    }
}

} // namespace
