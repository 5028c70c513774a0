// The compiled form of the rules as messages.
//
// No operation throws but std::bad_alloc.
#pragma once

#include "compiled/program.hpp"
#include "nftables/batch.hpp"

namespace nftables
{

// Adds all of the program to the batch: chains, maps with their elements, and a rule for each step, in this order.
// Nothing of it may be in the batch's table yet. An element has its row's mark as user data.
void addProgram(Batch& batch, const compiled::Program& program);

} // namespace nftables
