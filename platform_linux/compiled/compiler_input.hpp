// What is wanted in the bridge's tables as the compiled form has it: a program instead of rules.
#pragma once

#include "ebtables/table.hpp"
#include "platform_linux/queue/table_image.hpp"

#include <cstddef>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace zol::cfg
{

// Why rules of others keep what is wanted from having the compiled form; empty when nothing does. In the plain form an
// ACCEPT of ours ends a frame's way through their rules, and theirs ends it through ours: two tables could not do that.
std::string obstacleToCompiling(const TableImage& wanted);

// The image without what is ours: what is left in ebtables' own table. actual: as that is.
TableImage withoutOurs(const TableImage& image, const TableImage& actual);
bool hasOurs(const TableImage& image);

// The wanted rules as the compiler takes them, kept from commit to commit: only what is new is parsed. Threading: no
// shared state. No operation throws but std::bad_alloc.
class CompilerInput
{
public:
    // Takes over what is in the image now. False when that is what it was before. sweeps: of the pool of its texts.
    bool update(const TableImage& wanted, std::size_t sweeps);

    const ebtables::Table& table() const { return m_table; }

    // The chain and the place in it of the rule with this mark; nothing when no rule has it.
    std::optional<std::pair<std::string, std::size_t>> find(ebtables::Origin mark) const;

    void clear()
    {
        m_table = {};
        m_beside.clear();
    }

private:
    // Of a chain's rules, one beside the other.
    struct Beside {
        std::vector<RulePool::Text> texts; // in the pool; none when it has been swept since
        std::vector<ebtables::Origin> marks;
    };
    bool updateChain(const ImageChain& wanted, ebtables::Chain& chain, Beside& beside);

    ebtables::Table m_table; // each rule with its text
    std::map<std::string, Beside> m_beside;
    std::size_t m_sweeps = 0;
    std::uint64_t m_lastNumber = 0; // of a rule, never given again
};

} // namespace zol::cfg
