#include "compiled/compile.hpp"

#include "compiled/keeper.hpp"

#include <algorithm>

namespace compiled
{

const Chain* Program::find(const std::string& chain) const
{
    const auto found = std::ranges::find(chains, chain, &Chain::name);
    return found == chains.end() ? nullptr : &*found;
}

std::optional<Program> compile(const ebtables::Table& table, const Program* before)
{
    return Keeper().compile(table, before);
}

} // namespace compiled
