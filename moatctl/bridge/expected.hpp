// What the daemon makes of a configuration when it starts with it: the lines that it queues, row by row, the rows that
// it cannot use, and the bridge's table after the lines.
#pragma once

#include "ebtables/line_parser.hpp"
#include "ebtables/table.hpp"
#include "moatctl/tables/configuration.hpp"
#include "records/unusable.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

// The rows belong to the configuration, which must outlive these.

struct ExpectedLine {
    std::string text;            // as queued; empty for a row that makes no line
    const Row* origin = nullptr; // null: the daemon's own chains
};

struct UnusableRow {
    const Row* row;
    zol::moatkeeper::Unusable reason; // never Disabled: such a row is as it is meant to be
};

struct Expected {
    std::vector<ExpectedLine> lines; // of the first commit, in order
    std::vector<UnusableRow> unusable;
    std::vector<const Row*> leftOut; // with a text that would not be one operand: the daemon never sees these
    std::vector<const Row*> used;    // rows that became a record, in the order in which they are applied
};

Expected expectedOf(const Configuration& configuration);

// A line that would not be carried out, or not in full.
struct RefusedLine {
    const Row* origin = nullptr;
    std::string line;
    std::optional<ebtables::LineError> error; // when the line is wrong in itself
    std::string reason;                       // otherwise: what the kernel's tables have against it
    std::optional<ebtables::Command> command; // and the command concerned
};

// The bridge's table after the lines, and the lines that were refused.
struct Applied {
    ebtables::Table table = ebtables::emptyTable();
    std::vector<RefusedLine> refused;
    std::vector<const Row*> rows; // by origin, from 1

    // The row that a rule or policy is made of; null for the daemon's own, and for what nobody changed.
    const Row* rowOf(ebtables::Origin origin) const
    {
        return origin == ebtables::noOrigin ? nullptr : rows[static_cast<std::size_t>(origin - 1)];
    }
};
Applied apply(const Expected& expected);

} // namespace moatctl
