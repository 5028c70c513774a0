#include "compiled/compile.hpp"
#include "nftables/attributes.hpp"
#include "nftables/program.hpp"
#include "tests/compiled/random_rules.hpp"
#include "tests/unit/rounds.hpp"

#include <gtest/gtest.h>

#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>

#include <map>
#include <optional>
#include <random>
#include <string>
#include <vector>

namespace
{

// What the kernel is told, counted by reading it back.
struct Told {
    std::map<int, std::size_t> messages; // by type
    std::size_t elements = 0;
    std::size_t marked = 0; // elements
};

Told read(nftables::Bytes bytes)
{
    Told told;
    while (const nlmsghdr* message = nftables::takeMessage(bytes)) {
        if (message->nlmsg_type >> 8U != NFNL_SUBSYS_NFTABLES)
            continue;
        const int type = message->nlmsg_type & 0xff;
        ++told.messages[type];
        if (type != NFT_MSG_NEWSETELEM)
            continue;
        nftables::forEachAttribute(message, sizeof(nfgenmsg), [&](const nlattr* attribute) {
            if (mnl_attr_get_type(attribute) != NFTA_SET_ELEM_LIST_ELEMENTS)
                return;
            nftables::forEachNested(attribute, [&](const nlattr* element) {
                ++told.elements;
                nftables::forEachNested(element, [&](const nlattr* part) {
                    told.marked += mnl_attr_get_type(part) == NFTA_SET_ELEM_USERDATA ? 1 : 0;
                });
            });
        });
    }
    EXPECT_TRUE(bytes.empty());
    return told;
}

TEST(ProgramMessages, SayAllOfTheProgram)
{
    std::size_t elements = 0;
    for (unsigned seed = 0; seed < test::rounds(40); ++seed) {
        std::mt19937 engine(seed);
        test::RandomRules random([&](std::size_t below) { return engine() % below; });
        const compiled::Program program = compiled::compile(random.table(1 + engine() % 200, seed % 2 == 0)).value();
        std::size_t steps = 0;
        std::size_t hooked = 0; // what is behind the hooks: a jump, and perhaps a policy
        for (const compiled::Chain& chain : program.chains) {
            steps += chain.steps.size();
            hooked += chain.hook == compiled::Hook::None ? 0 : chain.dropsByPolicy ? 2 : 1;
        }
        std::size_t inMaps = 0;
        std::size_t counted = 0;
        for (const compiled::Map& map : program.maps) {
            inMaps += map.elements.size();
            counted += map.counts ? map.elements.size() : 0;
        }
        nftables::Batch batch(std::nullopt, "moatkeeper");
        nftables::addProgram(batch, program);
        Told told = read(batch.finish(1));
        EXPECT_EQ(told.messages[NFT_MSG_NEWTABLE], 1U);
        EXPECT_EQ(told.messages[NFT_MSG_NEWCHAIN], program.chains.size() + 2); // INPUT, FORWARD and their steps
        EXPECT_EQ(told.messages[NFT_MSG_NEWRULE], steps + hooked);
        // Beside the maps there is a set of the extension headers, and two that compare places, where they are needed.
        const std::size_t sets = told.messages[NFT_MSG_NEWSET] - program.maps.size();
        EXPECT_LE(sets, 3U);
        EXPECT_EQ(told.elements, inMaps + (sets % 2 == 1 ? 5 : 0) + (sets >= 2 ? 2 * 256 - 1 + 256 : 0));
        EXPECT_EQ(told.marked, counted);
        elements += counted;
    }
    EXPECT_GT(elements, 25U * test::rounds(40));
}

// Looks the key up as the kernel does: the answer of the interval that it is in, 0 where there are no answers.
std::optional<std::uint8_t> ask(const std::vector<nftables::DigitsInterval>& set, const compiled::Bytes& key)
{
    for (const nftables::DigitsInterval& interval : set) {
        bool isIn = true;
        for (std::size_t i = 0; i < key.size(); ++i)
            isIn = isIn && interval.first.at(i) <= key[i] && key[i] <= interval.last.at(i);
        if (isIn)
            return interval.answer.value_or(0);
    }
    return std::nullopt;
}

bool comesFirst(unsigned place, unsigned than)
{
    static const auto highSet = nftables::digitsIn(nftables::highDigits);
    static const auto lowSet = nftables::digitsIn(nftables::lowDigits);
    const auto high = [](unsigned of) { return static_cast<std::uint8_t>(of >> 8U); };
    const auto low = [](unsigned of) { return static_cast<std::uint8_t>(of); };
    const std::optional<std::uint8_t> answer = ask(highSet, {high(place), high(than)});
    return answer && ask(lowSet, {low(place), *answer, low(than)});
}

TEST(ComparisonOfPlaces, KnowsWhichComesFirst)
{
    std::mt19937 engine(1);
    for (int i = 0; i < 3000; ++i) {
        const unsigned one = engine() % 65536;
        // Near each other, so that the low digits decide, in every second case.
        const unsigned other = i % 2 == 0 ? engine() % 65536 : (one + engine() % 400 + 65536 - 200) % 65536;
        EXPECT_EQ(comesFirst(one, other), one < other) << one << ' ' << other;
        EXPECT_FALSE(comesFirst(one, one)) << one;
    }
    EXPECT_TRUE(comesFirst(0, 65535));
    EXPECT_TRUE(comesFirst(65534, 65535));
}

} // namespace
