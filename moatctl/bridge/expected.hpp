// What the daemon makes of a configuration: the lines that it would queue, row by row, and what it would log.
//
// Found out by running the daemon's own handler over the rows, on a device in memory.
#pragma once

#include "ebtables/line_parser.hpp"
#include "moatctl/bridge/model.hpp"
#include "moatctl/tables/configuration.hpp"

#include <string>
#include <vector>

namespace moatctl
{

// The rows belong to the configuration, which must outlive these.

struct ExpectedLine {
    std::string text;            // as queued; empty for a row that makes no line
    const Row* origin = nullptr; // null: the daemon's own chains
};

struct ExpectedMessage {
    std::string label; // the daemon's source unit and message number
    int number = 0;
    std::string text;
    const Row* origin = nullptr;
};

struct Expected {
    std::vector<ExpectedLine> lines;       // of the first commit, in order
    std::vector<ExpectedMessage> messages; // warnings and errors
    std::vector<const Row*> used;          // rows that became a record, in the order in which they are applied
};

// Threading: one thread at a time, because the device in memory is the process's.
Expected expectedOf(const Configuration& configuration);

// A line that would not be carried out, or not in full.
struct RefusedLine {
    const Row* origin = nullptr;
    std::string line;
    std::optional<ebtables::LineError> error; // when the line is wrong in itself
    std::string reason;                       // otherwise: what the kernel's tables have against it
    std::optional<ebtables::Command> command; // and the command concerned
};

// The bridge table after the lines, and the lines that were refused.
struct Applied {
    BridgeModel model;
    std::vector<RefusedLine> refused;
};
Applied apply(const Expected& expected);

} // namespace moatctl
