// The rules that the kernel holds in the compiled form, as the rules that they were made of.
#pragma once

#include "ebtables/table.hpp"
#include "nftables/program_reader.hpp"

#include <optional>
#include <string>

namespace moatctl
{

// plain: ebtables' own table beside it. wanted: what a configuration makes; its rules that are in the program come back
// as they are there, with what they have counted, and so do those that the compiler needs no step for. What else the
// program holds is in chains with names of the program's.
ebtables::Table asRules(const ebtables::Table& plain, const nftables::HeldProgram& held, ebtables::Table wanted);

// What the kernel has of it. Nothing, and a reason in one line, when it cannot be read; table 0 when there is none.
std::optional<nftables::HeldProgram> readCompiled(std::string& reason);

} // namespace moatctl
