// What the bridge tables must hold after a commit, worked out from the rows alone.
//
// The handler compares each read with the read before it, not with what it last applied, and it takes down the
// filters of the read before the latest. So there are cases in which a commit leaves the tables behind the rows;
// Expectation recognises each by the sequence of reads and commits, counts it, and says what holds in it:
//   cancelled     a group was read twice or more since the last commit, and the last two reads were equal: the
//                 group stays as it was applied before.
//   unseenCriteria  filters differ from what was applied in MatchCriteria only, and no accepted rule refers to
//                 one that changed: the filters stay as they were applied before.
//   leftBehind    the filters that a commit takes down are not the ones that are there (one of the two cases
//                 above came before, or filters were read twice since the last commit): chains of filters that are
//                 gone may stay, for as long as the handler lives.
#pragma once

#include "tests/random/bridge_model.hpp"
#include "tests/random/scenario.hpp"

#include <map>
#include <set>
#include <string>
#include <vector>

namespace randomtest
{

struct CaseCounts {
    long commits = 0, exact = 0, cancelled = 0, unseenCriteria = 0, leftBehind = 0, sharedChain = 0;
};

// A filter rule with what it takes from its filter.
struct JoinedRule {
    FilterRuleRow row;
    std::string mode, chain, criteria;
    bool operator==(const JoinedRule&) const = default;
};

// What one read of both filter tables gives: the accepted rows in their order.
struct FilterState {
    std::vector<FilterRow> filters;
    std::vector<JoinedRule> rules;
    bool operator==(const FilterState&) const = default;
};

// One group whose chain is flushed and filled again: what was read last, what was applied, and how they came.
template <typename Row>
struct ListGroup {
    std::vector<Row> read, applied;
    bool differs = true; // the latest read differed from the one before; true at the start
    int readsSinceCommit = 0;
    bool stale = false; // not as last read

    void onRead(std::vector<Row> rows)
    {
        differs = rows != read;
        read = std::move(rows);
        ++readsSinceCommit;
    }
};

class Expectation
{
public:
    explicit Expectation(CaseCounts& counts) : m_counts(counts) {}

    void onRead(const std::string& table, const Tables& tables); // "" for all tables
    void onCommit();

    // Empty when the model holds what it must, else what is wrong. Call after onCommit.
    std::string check(const BridgeModel& model);

    // The same after the handler's end.
    std::string checkEnd(const BridgeModel& model) const;

private:
    void readFilters(const Tables& tables);
    void commitFilters();
    std::map<std::string, Chain> expectedChains() const;

    CaseCounts& m_counts;
    std::string m_inputText, m_forwardText;
    Chain m_input, m_forward; // policies only
    ListGroup<RuleRow> m_rules;
    ListGroup<PolicyRow> m_inputPolicies, m_forwardPolicies;
    FilterState m_filters, m_filtersBefore, m_filtersApplied;
    bool m_filtersDiffer = true;
    int m_filterReadsSinceCommit = 0;
    bool m_leftBehind = false;
    bool m_filtersStale = false; // not as last read
    bool m_committed = false;
    std::string m_unexplained; // a case that came up without its condition
    std::set<std::string> m_chainsEverRead;
};

} // namespace randomtest
