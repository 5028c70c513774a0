// What a row gives: its ebtables lines, or the reasons why it gives none.
//
// Pure: values in, values out. Texts of a row go into the lines as they are.
#pragma once

#include "records/rows.hpp"
#include "records/unusable.hpp"

#include <string>
#include <string_view>
#include <vector>

namespace zol::moatkeeper
{

// The line that appends a rule and the one that deletes it. Both are empty when there are reasons.
struct RowLines {
    std::string addCommand;
    std::string deleteCommand;
    std::vector<Unusable> reasons; // in the order of the checks
};

// A filter's lines, each of two commands: one for its chain and its policy, or one for each direction between its
// ports. All are empty when there are reasons; the chain has its name in any case.
struct FilterLines {
    std::string createChainCommand;
    std::string insertJumpsCommand;
    std::string flushChainCommand;
    std::string deleteJumpsCommand;
    std::string chainName;
    std::vector<Unusable> reasons;
};

// A filter rule's value to match, with what the rule takes from its filter.
struct JoinedFilterRule {
    std::string_view mode;
    std::string_view chainName;
    std::string_view matchCriteria;
    std::string_view filterMatch;
};

// None looks at Enabled: a disabled row is passed over before.
RowLines linesOf(const RuleRow& row);
RowLines linesOf(const InputPolicyRow& row);
RowLines linesOf(const ForwardingPolicyRow& row);
FilterLines linesOf(const FilterRow& row);
RowLines linesOf(const JoinedFilterRule& rule);

} // namespace zol::moatkeeper
