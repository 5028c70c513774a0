// What the handler makes of a whole configuration when it starts with it: a value, without a handler, a log or a queue.
#pragma once

#include "records/rows.hpp"
#include "records/unusable.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace zol::moatkeeper
{

// The six tables. Rows in the order in which a source delivers them.
struct Tables {
    std::vector<GlobalRow> global;
    std::vector<InputPolicyRow> inputPolicies;
    std::vector<ForwardingPolicyRow> forwardingPolicies;
    std::vector<RuleRow> rules;
    std::vector<FilterRow> filters;
    std::vector<FilterRuleRow> filterRules;
};

enum class Table { Global, InputPolicies, ForwardingPolicies, Rules, Filters, FilterRules };

// A row: its table and its index there.
struct RowPlace {
    Table table = Table::Global;
    std::size_t index = 0;

    bool operator==(const RowPlace&) const = default;
};

struct QueuedLine {
    std::string text;               // empty where a record has no lines
    std::optional<RowPlace> origin; // none: the handler's own chains, or global policies without a row

    bool operator==(const QueuedLine&) const = default;
};

struct UnusableRow {
    RowPlace row;
    Unusable reason = Unusable::Disabled;

    bool operator==(const UnusableRow&) const = default;
};

struct FirstCommit {
    std::vector<QueuedLine> lines;     // in the order queued
    std::vector<RowPlace> records;     // the rows that become records, in the order in which they are applied
    std::vector<UnusableRow> unusable; // an entry per reason, in the order in which the tables are read
};

// The rows' texts are needed until it returns.
FirstCommit firstCommit(const Tables& tables);

} // namespace zol::moatkeeper
