// Makes of the bridge's rules, as the plain form has them, a program that does the same with fewer looks.
//
// Every frame has the same fate, is logged in the same words and is counted for the same row. The rules that lead from
// chain to chain and are no row's are not counted.
#pragma once

#include "compiled/program.hpp"

#include <optional>
#include <string>

namespace compiled
{

// The program for frames that pass INPUT and FORWARD. Chains that nothing jumps to from there are left out, and so is
// OUTPUT. Nothing when a rule of the chains is not known in full: what it does could not be told then.
// before: the program that is in force, or null. What can stay as it is there stays so.
std::optional<Program> compile(const ebtables::Table& table, const Program* before = nullptr);

} // namespace compiled
