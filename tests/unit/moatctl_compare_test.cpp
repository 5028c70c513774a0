#include "ebtables/model.hpp"
#include "moatctl/bridge/compare.hpp"

#include "ebtables/line_parser.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace
{

using namespace moatctl;
using testing::ElementsAre;

ebtables::TableModel modelOf(const std::vector<std::string>& rules)
{
    ebtables::TableModel model;
    for (const std::string& rule : rules) {
        for (const ebtables::Command& command : ebtables::parseLine("ebtables -A FORWARD " + rule).commands)
            model.apply(command);
    }
    return model;
}

// State, chain and position of everything that is not as it should be.
std::vector<std::string> differences(const ebtables::TableModel& model, const std::string& saved)
{
    std::vector<std::string> texts;
    for (const Entry& entry : compare(model.table(), ebtables::parseSaved(saved))) {
        constexpr const char* names[] = {"same", "missing", "extra", "different"};
        if (entry.state != EntryState::Same)
            texts.push_back(std::string(names[static_cast<int>(entry.state)]) + ' ' + entry.chain + ' ' +
                            std::to_string(entry.position));
    }
    return texts;
}

const std::string head = "*filter\n:INPUT ACCEPT\n:FORWARD ACCEPT\n:OUTPUT ACCEPT\n";

TEST(Compare, EqualTablesHaveNoDifference)
{
    EXPECT_THAT(
        differences(modelOf({"-i eth0 -j DROP", "-i eth1 -p 0x800 -j ACCEPT"}),
                    head + "-A FORWARD -i eth0 -j DROP -c 3 180\n-A FORWARD -p IPv4 -i eth1 -j ACCEPT -c 0 0\n"),
        ElementsAre());
}

TEST(Compare, TellsWhatIsMissingExtraAndElsewhere)
{
    const ebtables::TableModel model = modelOf({"-i eth0 -j DROP", "-i eth1 -j DROP", "-i eth2 -j DROP"});
    EXPECT_THAT(
        differences(model,
                    head + "-A FORWARD -i eth1 -j DROP\n-A FORWARD -i eth0 -j DROP\n-A FORWARD -i eth9 -j DROP\n"),
        ElementsAre("different FORWARD 2", "extra FORWARD 3", "missing FORWARD 3"));
}

TEST(Compare, LooksAtPoliciesAndChains)
{
    ebtables::TableModel model = modelOf({});
    model.apply({ebtables::CommandKind::NewChain, "mine", 1, "", {}});
    EXPECT_THAT(differences(model, "*filter\n:INPUT DROP\n:FORWARD ACCEPT\n:OUTPUT DROP\n:other RETURN\n"),
                ElementsAre("different INPUT 0", "missing mine 0", "extra other 0"));
}

TEST(Compare, EqualRulesCountAsOftenAsTheyAreThere)
{
    const std::string rule = "-A FORWARD -i eth0 -j DROP\n";
    EXPECT_THAT(differences(modelOf({"-i eth0 -j DROP", "-i eth0 -j DROP"}), head + rule),
                ElementsAre("missing FORWARD 2"));
    EXPECT_THAT(differences(modelOf({"-i eth0 -j DROP"}), head + rule + rule), ElementsAre("extra FORWARD 2"));
}

} // namespace
