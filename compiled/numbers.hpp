// Maps whose elements have numbers of verdicts.
//
// Whenever a rule changes, the kernel follows every way through the chains, and on each it looks at all elements of the
// maps of verdicts that it comes to. A race has a thousand ways to its ends. Elements with numbers it need not look at;
// what the numbers mean is another map, of a few elements: a frame pays for one look more.
#pragma once

#include "compiled/program.hpp"

#include <string>

namespace compiled
{

// Eight bytes. The same verdict has the same number in all maps.
Bytes numberOf(const Verdict& verdict);

std::string nameOfMeanings(const std::string& map);

// What the numbers of this map mean; ACCEPT, DROP and RETURN are always among them.
Map meaningsOf(const Map& map);

} // namespace compiled
