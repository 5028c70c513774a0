// Who may talk to whom: port by port, and with the device itself.
#pragma once

#include "moatctl/bridge/deciders.hpp"
#include "moatctl/bridge/expected.hpp"

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

namespace moatctl
{

// What becomes of the frames that come in by one port and leave by another, or are for the device itself.
enum class Passage {
    Open,    // all pass
    Closed,  // none passes
    Partly,  // some pass, some do not
    Unknown, // it could not be found out, or depends on rules with parts that are unknown here
};

// Ways with the same rules share one of these.
struct Answered {
    Passage passage = Passage::Open;
    Decider ordinary;               // decides about the ordinary frame
    std::vector<Decider> otherwise; // decide otherwise about some frame; of each row one, in the order of the chains
    bool complete = true;           // false: these are not all; to find the others would take too long
};

struct MatrixCell {
    std::size_t in = 0;
    std::optional<std::size_t> out; // none: the device itself
    std::size_t answer = 0;
};

struct Matrix {
    std::vector<std::string> ports;
    std::vector<MatrixCell> cells; // ordered by `in`, the device first; none from a port to itself
    std::vector<Answered> answers;
    std::optional<Frame> ordinary; // none: the question leaves no frame, and there are no cells
};

// The way of which ports: empty for all.
struct MatrixWays {
    std::string in;
    std::string out;
};

// Over all frames that the question leaves open, exactly. The ordinary frame is, as far as the question allows, an
// untagged IPv4 packet of TCP from one station to one other, with addresses and ports that no rule names.
// The table's addresses are in the answer. Time: rules of a way times those that are asked about, for ways of which no
// two have the same rules each; limited.
Matrix matrixOf(const Applied& applied, const FrameQuestion& question, std::vector<std::string> ports,
                const MatrixWays& ways);

// The ports that rules of the table name: without wildcards and exceptions. In ascending order.
std::vector<std::string> portsNamedIn(const ebtables::Table& table);

} // namespace moatctl
