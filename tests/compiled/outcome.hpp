// What becomes of a frame, in the plain form of the rules and in the compiled one.
#pragma once

#include "compiled/program.hpp"
#include "ebtables/table.hpp"
#include "tests/compiled/raw_frame.hpp"

#include <map>
#include <string>
#include <utility>
#include <vector>

namespace test
{

struct Outcome {
    bool accepted = true;
    std::map<ebtables::Origin, int> counted;       // rules that count the frame, but for those without a mark
    std::vector<std::pair<std::string, int>> logs; // prefix and level
    bool operator==(const Outcome&) const = default;
};

Outcome walk(const ebtables::Table& table, const RawFrame& frame);
Outcome run(const compiled::Program& program, const RawFrame& frame);

} // namespace test
