// Reads the compiled form back from the kernel.
#pragma once

#include "compiled/program.hpp"
#include "nftables/connection.hpp"
#include "nftables/program.hpp"

#include <cstdint>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace nftables
{

struct HeldProgram {
    std::uint64_t table = 0; // the kernel's number for it; 0: there is none
    // Whether all that is in the table is in the program. If not, others have changed it, and the program is what was
    // understood.
    bool isWhole = true;
    compiled::Program program; // in no certain order
    // What has been counted: for each chain of the program by each of its steps, for each map by each element.
    std::vector<std::vector<Counters>> chains;
    std::vector<std::vector<Counters>> maps;
};

// Summed up: a rule may be in several places. The second one: in those that the difference from the held program takes
// out.
CountersByMark countedBy(const HeldProgram& held);
CountersByMark countedByGone(const HeldProgram& held, const compiled::Difference& difference);

// table: of the bridge family. settled: false when the tables changed meanwhile. Whatever the kernel sends is taken.
// Throws std::bad_alloc only.
Result readProgram(Connection& connection, const std::string& table, HeldProgram& held, bool& settled);

// The same with the rules of some chains and the elements of some maps only, by their names in the kernel: there are no
// other chains then, and other maps are empty. Where there are thousands, that is sooner done.
struct PartOfProgram {
    std::set<std::string> chains;
    std::set<std::string> maps;
};
Result readPart(Connection& connection, const std::string& table, const PartOfProgram& part, HeldProgram& held,
                bool& settled);

// The chains and maps that the difference takes out or fills anew, where all of the moved marks that go are in these;
// nothing where one goes from a map that stays.
std::optional<PartOfProgram> goneWhole(const compiled::Program& from, const compiled::Difference& difference,
                                       std::span<const ebtables::Origin> moved);

// The step that a rule of the table is, or nothing when no program has such a one. maps: of the program.
std::optional<compiled::Step> readStep(const RuleView& rule, const std::vector<compiled::Map>& maps);

} // namespace nftables
