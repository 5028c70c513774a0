#include "ebtables/line_parser.hpp"
#include "platform_linux/queue/difference.hpp"
#include "platform_linux/queue/play.hpp"
#include "tests/unit/rounds.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

using testing::ElementsAre;
using zol::cfg::Change;
using zol::cfg::TableImage;
using Kind = Change::Kind;

namespace
{

class DifferenceTest : public testing::Test
{
protected:
    // Plays the lines on the image; what is refused fails the test.
    void play(TableImage& image, std::initializer_list<const char*> lines)
    {
        for (const char* line : lines) {
            for (const ebtables::Command& command : ebtables::parseLine(std::string("ebtables ") + line).commands)
                EXPECT_EQ(zol::cfg::play(zol::cfg::intern(command, m_pool), image), std::nullopt) << line;
        }
    }

    // As if the kernel had it: each rule gets a handle.
    TableImage inKernel(TableImage image)
    {
        image.table = 1;
        for (auto& [name, chain] : image.chains) {
            for (zol::cfg::ImageRule& rule : chain.rules)
                rule.handle = ++m_handle;
            if (!chain.builtIn && chain.policy != "RETURN")
                chain.policyHandle = ++m_handle;
        }
        return image;
    }

    static std::vector<Kind> kinds(const std::vector<Change>& changes)
    {
        std::vector<Kind> result;
        for (const Change& change : changes)
            result.push_back(change.kind);
        return result;
    }

    // Carries the changes out on the lists of rules, as the kernel would.
    static std::vector<const std::string*> carriedOut(const TableImage& actual, const TableImage& wanted,
                                                      const std::vector<Change>& changes, const std::string& chain)
    {
        std::vector<zol::cfg::ImageRule> rules = actual.find(chain)->rules;
        for (const Change& change : changes) {
            if (change.chain != chain)
                continue;
            auto at = std::ranges::find(rules, change.handle, &zol::cfg::ImageRule::handle);
            if (change.kind == Kind::DeleteRules)
                rules.clear();
            else if (change.kind == Kind::DeleteRule && at != rules.end())
                rules.erase(at);
            if (change.kind != Kind::AddRule)
                continue;
            using Where = nftables::Place::Where;
            at = change.place.where == Where::InFront ? rules.begin() : rules.end();
            if (change.place.where == Where::Behind)
                at = std::ranges::find(rules, change.place.handle, &zol::cfg::ImageRule::handle) + 1;
            rules.insert(at, wanted.find(chain)->rules[change.index]);
        }
        std::vector<const std::string*> texts;
        for (const zol::cfg::ImageRule& rule : rules)
            texts.push_back(rule.text);
        return texts;
    }

    zol::cfg::RulePool m_pool;
    std::uint64_t m_handle = 100;
};

TEST_F(DifferenceTest, PoliciesComeFirst)
{
    TableImage before = TableImage::untouched();
    play(before, {"-N A", "-A A -i a -j DROP", "-A FORWARD -j A", "-P FORWARD ACCEPT", "-P INPUT ACCEPT"});
    const TableImage actual = inKernel(before);
    TableImage wanted = actual;
    play(wanted,
         {"-D FORWARD -j A", "-F A", "-X A", "-N B", "-A FORWARD -i b -j B", "-P FORWARD DROP", "-P INPUT DROP"});
    EXPECT_THAT(kinds(difference(actual, wanted)),
                ElementsAre(Kind::SetPolicy, Kind::SetPolicy, Kind::DeleteRules, Kind::DeleteRules, Kind::AddChain,
                            Kind::AddChainPolicy, Kind::AddRule, Kind::DeleteChain));
}

TEST_F(DifferenceTest, TheTableAndItsChainsAreMadeWhenMissing)
{
    TableImage wanted = TableImage::untouched();
    play(wanted, {"-N A", "-P A DROP", "-A A -i a -j DROP", "-A INPUT -j A"});
    EXPECT_THAT(kinds(difference(TableImage::untouched(), wanted)),
                ElementsAre(Kind::AddBuiltIn, Kind::AddChain, Kind::AddRule, Kind::AddChainPolicy, Kind::AddRule));
}

TEST_F(DifferenceTest, RulesOfOthersStayWhereTheyAre)
{
    TableImage before = TableImage::untouched();
    play(before, {"-N A", "-A FORWARD -i x -j DROP", "-A FORWARD -j A", "-A FORWARD -i y -j DROP"});
    TableImage actual = inKernel(before);
    for (zol::cfg::ImageRule& rule : actual.find("FORWARD")->rules)
        rule.ours = rule.jump != nullptr;
    TableImage wanted = actual;
    play(wanted, {"-D FORWARD -j A", "-A FORWARD -j A"});
    const std::vector<Change> changes = difference(actual, wanted);
    ASSERT_THAT(kinds(changes), ElementsAre(Kind::DeleteRule, Kind::AddRule));
    EXPECT_EQ(changes[0].handle, actual.find("FORWARD")->rules[1].handle);
    EXPECT_EQ(changes[1].place.where, nftables::Place::Where::AtTheEnd);
}

TEST_F(DifferenceTest, RandomListsBecomeAsWantedAndRulesInOrderStay)
{
    std::mt19937 random(7);
    for (int round = 0; round < test::rounds(2000); ++round) {
        TableImage actual = TableImage::untouched();
        play(actual, {"-N A"});
        TableImage wanted = actual;
        for (TableImage* image : {&actual, &wanted}) {
            for (auto i = random() % 12; i > 0; --i)
                play(*image, {("-A A -i p" + std::to_string(random() % 8) + " -j DROP").c_str()});
        }
        actual = inKernel(actual);
        const std::vector<Change> changes = difference(actual, wanted);
        std::vector<const std::string*> texts;
        for (const zol::cfg::ImageRule& rule : wanted.find("A")->rules)
            texts.push_back(rule.text);
        ASSERT_EQ(carriedOut(actual, wanted, changes, "A"), texts) << "round " << round;
    }
}

TEST_F(DifferenceTest, AChainOfWhichOnlyAFewRulesStayIsFilledAnew)
{
    TableImage before = TableImage::untouched();
    play(before, {"-N A", "-P A DROP"});
    TableImage wanted = before;
    for (int i = 0; i < 2000; ++i) {
        const bool stays = i % 500 == 0;
        for (TableImage* image : {&before, &wanted}) {
            const std::string end = " -s 02:00:00:00:00:0" + std::string(stays || image == &before ? "1" : "2");
            play(*image, {("-A A -i p" + std::to_string(i) + end + " -j DROP").c_str()});
        }
    }
    const TableImage actual = inKernel(before);
    const std::vector<Change> changes = difference(actual, wanted);
    ASSERT_EQ(changes.size(), 2002U);
    EXPECT_EQ(changes.front().kind, Kind::DeleteRules);
    EXPECT_EQ(changes.back().kind, Kind::AddChainPolicy);
    for (std::size_t i = 0; i < 2000; ++i) {
        ASSERT_EQ(changes[i + 1].index, i);
        EXPECT_EQ(changes[i + 1].handle, i % 500 == 0 ? actual.find("A")->rules[i].handle : 0) << "its counters";
        EXPECT_EQ(changes[i + 1].place.where, nftables::Place::Where::AtTheEnd);
    }
}

TEST_F(DifferenceTest, WhatIsOursIsWantedAgainAndWhatIsTheirsTakenOver)
{
    TableImage before = TableImage::untouched();
    play(before, {"-N A", "-A A -i a -j DROP", "-A FORWARD -j A", "-P FORWARD DROP"});
    const TableImage known = inKernel(before);
    TableImage wanted = known;
    // Somebody flushed FORWARD, put a rule of his own there, opened it, emptied our chain and made one of his.
    TableImage found = known;
    found.find("FORWARD")->policy = "ACCEPT";
    found.find("FORWARD")->rules = {{m_pool.add("-i z -j DROP"), nullptr, 900, false}};
    found.find("A")->rules.clear();
    found.chains["Theirs"].policy = "RETURN";
    fit(wanted, &known, found, {});
    EXPECT_EQ(wanted.find("FORWARD")->policy, "DROP");
    ASSERT_EQ(wanted.find("FORWARD")->rules.size(), 2U);
    EXPECT_EQ(*wanted.find("FORWARD")->rules[0].text, "-j A");
    EXPECT_EQ(wanted.find("FORWARD")->rules[1].handle, 900U);
    EXPECT_EQ(wanted.find("A")->rules.size(), 1U);
    EXPECT_NE(wanted.find("Theirs"), nullptr);
    EXPECT_THAT(kinds(difference(found, wanted)), ElementsAre(Kind::SetPolicy, Kind::AddRule, Kind::AddRule));
}

} // namespace
